#pragma once
// What the shell's screen tests share: a master file with Folder Sets made in
// the test's own home, as a user's first run leaves it.
#include <string>
#include <vector>

#include "vault/DBMaster.h"
#include "vault/Locations.h"

namespace qv::ui::test {

// A master file at its usual place holding one empty Folder Set per password;
// the database as the application opens it.
inline DBMasterRef makeMasterFile(const std::vector<std::string>& passwords) {
    QVError error;
    DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(QVLocationDatabase), true, &error);
    if (!master) return nullptr;
    for (const std::string& password : passwords) {
        DBSubdbRef subdb = DBSubdb::subdbWithFolders({}, password);
        if (!master->addSubDB(subdb, true, &error) || !subdb->save(&error)) return nullptr;
        master->returnSubDB(subdb);
    }
    return master;
}

} // namespace qv::ui::test
