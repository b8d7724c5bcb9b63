// The master file is a keyed archive any property-list reader can walk: Python's
// plistlib reads it, follows the UIDs from $top, and finds the four root keys.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "disk/Locations.h"
#include "support/TempHome.h"
#include "vault/DBMaster.h"

using namespace qv;

namespace {

std::string run(const std::string& command) {
    std::string out;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return out;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, n);
    ::pclose(pipe);
    return out;
}

const char* kWalker = R"PY(
import plistlib, sys
with open(sys.argv[1], 'rb') as f:
    top = plistlib.load(f)
assert top['$archiver'] == 'NSKeyedArchiver', top['$archiver']
objs = top['$objects']
def deref(v):
    return objs[v.data] if isinstance(v, plistlib.UID) else v
root = deref(top['$top']['root'])
cls = deref(root['$class'])
assert cls['$classname'] == 'NSMutableDictionary', cls
keys = sorted(deref(k) for k in root['NS.keys'])
vals = {deref(k): deref(v) for k, v in zip(root['NS.keys'], root['NS.objects'])}
print(' '.join(keys))
print(vals['QVMDBVersionKey'])
sets = vals['QVMDBSubdbsKey']
print(len(sets['NS.keys']), len(deref(sets['NS.keys'][0])))
)PY";

} // namespace

TEST(DatabaseFile, PythonPlistlibFindsTheFourRootKeys) {
    test::TempHome home;
    DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    DBSubdbRef set = DBSubdb::subdbWithFolders({}, "pw");
    ASSERT_TRUE(master->addSubDB(set, true, nullptr));
    ASSERT_TRUE(set->save(nullptr));

    const std::string script = home.root() + "/walk.py";
    FILE* f = std::fopen(script.c_str(), "w");
    ASSERT_TRUE(f);
    std::fputs(kWalker, f);
    std::fclose(f);
    const std::string out = run("python3 '" + script + "' '" + quillvaneURL(0) + "' 2>&1");
    EXPECT_EQ(out, "QVMDBParamCDKey QVMDBParamsKey QVMDBSubdbsKey QVMDBVersionKey\n2\n1 574\n");
}
