// The master file is a keyed archive any property-list reader can walk: Python's
// plistlib reads it, follows the UIDs from $top, and finds the four root keys.
#include <gtest/gtest.h>

#include "vault/Locations.h"
#include "image/ImageTestSupport.h"
#include "support/TempHome.h"
#include "vault/DBMaster.h"

using namespace qv;

namespace {

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
    test::CommandResult r = test::runCommand({"python3", "-c", kWalker, quillvaneURL(0)});
    EXPECT_EQ(r.out + r.err, "QVMDBParamCDKey QVMDBParamsKey QVMDBSubdbsKey QVMDBVersionKey\n2\n1 574\n");
}
