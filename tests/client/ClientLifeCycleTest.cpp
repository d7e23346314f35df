// A client of libWzScanDB.so as another component of the agent is one: the
// library is loaded with dlopen() and every exported function found with
// dlsym() under its plain name; only the public headers are used for the
// types, the library itself is not linked. The test does link libWzRuntime.so
// and libLustreAPI.so, platform libraries the agent has anyway, for the
// out-of-line members of CKoError and CLustreFID. The record factories, then
// a generic database through a life cycle, every call starting from a stale
// error that a success must overwrite. (Failures and unusable handles:
// tests/exports; record images and texts: tests/records; backup-time and
// Lustre databases: the tree suites.)
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "WzScanDB/WzHandle.h"
#include "WzScanDB/WzScanDBExports.h"
#include "lustre/CLustreFID.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/FXString.h"
#include "support/TempDir.h"

namespace {

// X(name) for each exported function.
// clang-format off
#define WZ_CLIENT_FUNCTIONS(X)                                                                                         \
  X(CreateWzScanDBObject) X(DestroyWzScanDBObject) X(WzScanDBObjectInitialize) X(WzScanDBObjectIsInitialized)          \
  X(WzScanDBObjectOpen) X(WzScanDBObjectClose) X(WzScanDBSuspendIndexing) X(WzScanDBRebuildIndexing)                   \
  X(WzScanDBObjectSetRefTime) X(WzScanDBObjectRemove) X(WzScanDBObjectMove) X(WzScanDBObjectCopy)                      \
  X(WzScanDBObjectAddDBRecord) X(WzScanDBObjectCheckDBRecord) X(WzScanDBObjectUpdateDBRecord)                          \
  X(WzScanDBObjectAddRecordWithoutCheck) X(WzScanDBObjectAddFile) X(WzScanDBObjectAddFolder)                           \
  X(WzScanDBObjectRemoveFile) X(WzScanDBObjectRemoveFolder) X(WzScanDBObjectRenameFile) X(WzScanDBObjectRenameFolder)  \
  X(WzScanDBObjectRenameByKey) X(WzScanDBObjectValidateTree) X(WzScanDBObjectGetFirstItem) X(WzScanDBObjectGetNextItem) \
  X(WzScanDBObjectGetFolderItems) X(GetFirstRecord) X(GetNextRecord) X(WzScanDBGetParentGUID) X(WzScanDBGetStatData)   \
  X(WzScanDBGetGUIDString) X(CreateGlusterEmptyRecordObject) X(CreateGlusterRecordObject)                              \
  X(CreateGlusterRecordObjectPath) X(CloneGlusterRecordObject) X(DeleteGlusterRecordObject) X(GetGlusterRecordRefTime) \
  X(ConvertBaseToGluster) X(CreateLustreEmptyRecordObject) X(CreateLustreRecordObject)                                 \
  X(CreateLustreRecordObjectWithParentFID) X(CreateLustreRecordObjectFull) X(CreateLustreRecordObjectKey)              \
  X(CreateLustreRecordObjectPath) X(DeleteLustreRecordObject) X(GetLustreRecordRefTime) X(ConvertBaseToLustre)         \
  X(CreateEmptyBackupTimeRecord) X(CreateBackupTimeRecord) X(ConvertBaseToBackupTimeRecord)
// clang-format on

// The library, loaded once for the life of the process (records and
// databases made by it may outlive any test), and its functions.
struct ClientApi {
  std::vector<std::string> missing;  // names dlsym() did not find
  void* library = dlopen(WZSCANDB_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  void* Resolve(const char* name) {
    void* found = library ? dlsym(library, name) : nullptr;
    if (!found) missing.push_back(name);
    return found;
  }
#define WZ_CLIENT_MEMBER(name) PFN_##name name = reinterpret_cast<PFN_##name>(Resolve(#name));
  WZ_CLIENT_FUNCTIONS(WZ_CLIENT_MEMBER)
#undef WZ_CLIENT_MEMBER
} api;

typedef WzScanDBRecordBasePtr Ptr;
#define ASSERT_OK(err) ASSERT_TRUE((err).IsSuccess()) << (err).AsString()
// Calls an exported function whose last argument is the error, starting from
// a stale error.
template <class Fn, class... Args>
CKoError Call(Fn fn, Args&&... args) {
  CKoError err = FXErrorUtil::ErrorErrNo(FXCodeLocation("client", "Call", 1), 99, "stale");
  fn(std::forward<Args>(args)..., err);
  return err;
}
// The stored version of `probe` read into `out`, or null.
Ptr Find(const WzScanDBPtr& handle, const Ptr& probe, Ptr out) {
  bool found = false;
  EXPECT_TRUE(Call(api.WzScanDBObjectCheckDBRecord, handle, probe, out, found).IsSuccess());
  return found ? out : Ptr();
}

TEST(ClientTest, RecordFactoriesThenADatabaseLifeCycle) {
  ASSERT_TRUE(api.missing.empty()) << dlerror() << ::testing::PrintToString(api.missing);
  WzScanDBRecordPtr record, byPath, empty;
  std::string path = "/data/file", zero = "0x" + std::string(32, '0');
  api.CreateGlusterRecordObject(record, path, true, 0x100000005ULL);
  api.CreateGlusterRecordObjectPath(byPath, path);
  empty = byPath;  // the factory's reset releases the old record
  api.CreateGlusterEmptyRecordObject(empty);
  const std::string ids = "0x0DF43D32AA5EFBCC29F496FE3CE95645,0x231DD2911079AA4C70F32602083736E6,";
  EXPECT_EQ(record->toCSV() + "|" + byPath->toCSV() + "|" + empty->toCSV(),
            ids + "file,yes,0,0,0,5|" + ids + "file,no,0,0,0,0|" + zero + "," + zero + ",,no,0,0,0,0");
  EXPECT_TRUE(api.GetGlusterRecordRefTime(record) == 5 && byPath.use_count() == 1);
  // (Off Lustre the paths have no FIDs: tests/records has the looked-up ones.)
  WzScanDBLustreRecordPtr made[6];
  LustreAPI::CLustreFIDPtr parent(new LustreAPI::CLustreFID(7, 8, 9)), fid(new LustreAPI::CLustreFID(1, 2, 3));
  std::string lustrePath = "/l/d", name = "n";
  api.CreateLustreRecordObject(made[0], "/l/d/f", false, 0x100000003ULL);
  api.CreateLustreRecordObjectWithParentFID(made[1], "/l/d/f", parent, true, 1);
  api.CreateLustreRecordObjectPath(made[2], lustrePath);
  api.CreateLustreRecordObjectFull(made[3], fid, parent, name, true, 4);
  api.CreateLustreRecordObjectKey(made[4], fid);
  api.CreateLustreEmptyRecordObject(made[5]);
  std::string texts = made[1]->getParentFID().toString() + made[3]->getFID().toString() + made[4]->getFID().toString();
  for (const WzScanDBLustreRecordPtr& r : made)
    texts += FXString::Format("|%s %d %llu", r->getName().c_str(), r->getFlags(), api.GetLustreRecordRefTime(r));
  EXPECT_EQ(texts, "[0x7:0x8:0x9][0x1:0x2:0x3][0x1:0x2:0x3]|f 0 3|f 1 1|d 0 0|n 1 4| 0 0| 0 0");
  CBackupTimeRecordPtr backup, backupEmpty;
  api.CreateBackupTimeRecord(backup, 5, 7);
  api.CreateEmptyBackupTimeRecord(backupEmpty);
  EXPECT_EQ(backup->toString() + "|" + backupEmpty->toString(), "Inode : 5 , Ctime : 7|Inode : 0 , Ctime : 0");
  // A clone is a distinct, equal record; a conversion to the right type
  // shares ownership, to another type gives an empty handle; delete destroys
  // the record and leaves the handle (dropping it afterwards is harmless,
  // under AddressSanitizer).
  Ptr clone;
  api.CloneGlusterRecordObject(clone, record);
  WzScanDBRecordPtr generic;
  WzScanDBLustreRecordPtr lustre;
  CBackupTimeRecordPtr backupTime;
  api.ConvertBaseToLustre(lustre, made[4]);
  api.ConvertBaseToBackupTimeRecord(backupTime, backupEmpty);
  api.ConvertBaseToGluster(generic, backup);
  EXPECT_TRUE(lustre == made[4] && backupTime == backupEmpty && !generic);
  api.ConvertBaseToGluster(generic, clone);
  EXPECT_TRUE(generic == clone && clone != record && clone->toCSV() == record->toCSV());
  api.DeleteGlusterRecordObject(generic);
  api.DeleteLustreRecordObject(made[3]);
  EXPECT_TRUE(generic == clone && boost::get_deleter<CWzHandleDeleter>(clone)->destroyed &&
              boost::get_deleter<CWzHandleDeleter>(made[3])->destroyed);

  auto make = [](std::string path, bool isDir = false) {
    WzScanDBRecordPtr record;
    api.CreateGlusterRecordObject(record, path, isDir, 1);
    return record;
  };
  TempDir dir;
  std::string directory = dir.path();
  WzScanDBPtr db;
  api.CreateWzScanDBObject(db, make(""));
  ASSERT_OK(Call(api.WzScanDBObjectInitialize, db, directory));
  EXPECT_TRUE(api.WzScanDBObjectIsInitialized(db));
  api.WzScanDBObjectSetRefTime(db, 5000);
  // / -> data -> a d e sub -> c, / -> other. The folder and file calls set
  // and clear the directory bit whatever the record says.
  for (const char* folder : {"/", "/data", "/data/sub", "/other"})
    ASSERT_OK(Call(api.WzScanDBObjectAddFolder, db, make(folder)));
  for (const char* file : {"/data/a", "/data/sub/c"}) ASSERT_OK(Call(api.WzScanDBObjectAddFile, db, make(file, true)));
  ASSERT_OK(Call(api.WzScanDBObjectAddDBRecord, db, make("/data/d")));
  ASSERT_OK(Call(api.WzScanDBObjectAddRecordWithoutCheck, db, make("/data/e")));
  Ptr a = Find(db, make("/data/a"), make(""));
  ASSERT_TRUE(a && !a->isDir() && a->getRefTime() == 5000 && Find(db, make("/data/sub"), make(""))->isDir());
  // The whole status goes through an update and comes back out of
  // WzScanDBGetStatData, every byte of it; the parent's identifier as text.
  struct stat written, read;
  for (size_t i = 0; i < sizeof written; ++i) reinterpret_cast<unsigned char*>(&written)[i] = i * 7 + 1;
  std::memcpy(static_cast<char*>(a->getStructure()) + 32, &written, sizeof written);  // stat_data
  ASSERT_OK(Call(api.WzScanDBObjectUpdateDBRecord, db, a));
  WzScanDBRecordPtr typed;
  api.ConvertBaseToGluster(typed, Find(db, make("/data/a"), make("")));
  api.WzScanDBGetStatData(typed, read);
  std::string parentText, guidText;
  api.WzScanDBGetParentGUID(typed, parentText);
  api.WzScanDBGetGUIDString(make("/data")->getGUID(), guidText);
  EXPECT_EQ(parentText + "|" + guidText + "|" + std::to_string(std::memcmp(&written, &read, sizeof read)),
            "0x231DD2911079AA4C70F32602083736E6|0x231DD2911079AA4C70F32602083736E6|0");
  // The walk, a rename, a listing, a record without its parent, removals.
  // (Renames by key and of folders: tests/tree_write; their forwarding, and
  // every failure: tests/exports.)
  std::string paths;
  Ptr item;
  CKoError err = Call(api.WzScanDBObjectGetFirstItem, db, make("/data", true), item, path);
  for (; err.IsSuccess() && paths.size() < 100; err = Call(api.WzScanDBObjectGetNextItem, db, item, path))
    paths += path + " ";
  ASSERT_OK(Call(api.WzScanDBObjectRenameFile, db, make("/data/a"), make("/data/a2")));
  std::vector<Ptr> items;
  ASSERT_OK(Call(api.WzScanDBObjectGetFolderItems, db, make("/data", true), items));
  for (const Ptr& child : items) paths += "| " + child->getName();
  EXPECT_EQ(paths + " " + std::to_string(err.GetCode()), "a d e sub sub/c | a2| d| e| sub 18");
  bool consistent = true;
  ASSERT_OK(Call(api.WzScanDBObjectAddFile, db, make("/nowhere/x")));
  ASSERT_OK(Call(api.WzScanDBObjectValidateTree, db, consistent));
  EXPECT_FALSE(consistent) << "a record whose parent is missing";
  ASSERT_OK(Call(api.WzScanDBObjectRemoveFile, db, make("/nowhere/x")));
  ASSERT_OK(Call(api.WzScanDBObjectRemoveFolder, db, make("/data", true)));
  EXPECT_FALSE(Find(db, make("/data/sub/c"), make("")) || !Find(db, make("/other"), make("")));
  ASSERT_OK(Call(api.WzScanDBObjectClose, db));
  api.DestroyWzScanDBObject(db);  // dropping the handle afterwards is harmless
}

}  // namespace
