// A client of libWzScanDB.so as another component of the agent is one: the
// library is loaded with dlopen() and every exported function reached through
// dlsym(); the test is not linked against it. It does link libWzRuntime.so and
// libLustreAPI.so, platform libraries the agent has anyway, for CKoError's
// out-of-line members, to silence the log writer and to stand in for the
// Lustre client. The record factories, then generic and backup-time databases
// through a life cycle with results and error codes checked at every step
// (the tree suites drive Lustre trees through the same members).
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "ClientApi.h"
#include "WzScanDB/WzHandle.h"
#include "lustre/GetFIDFromPath.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/LogWriter.h"
#include "support/TempDir.h"
#include "table/TableStatus.h"

namespace {

#define EXPECT_OK(err) EXPECT_TRUE((err).IsSuccess()) << (err).AsString()
#define ASSERT_OK(err) ASSERT_TRUE((err).IsSuccess()) << (err).AsString()

typedef std::vector<std::string> Names;

// Calls an exported function whose last argument is the error, starting from
// a stale error: a call that succeeds without assigning it fails the test.
template <class Fn, class... Args>
CKoError Call(Fn fn, Args&&... args) {
  CKoError err = FXErrorUtil::ErrorErrNo(FXCodeLocation("client", "Call", 1), 99, "stale");
  fn(std::forward<Args>(args)..., err);
  return err;
}

bool AllZero(const WzScanDBRecordBasePtr& record) {
  const auto* bytes = static_cast<const unsigned char*>(record->getStructure());
  return std::all_of(bytes, bytes + record->recordSize(), [](unsigned char b) { return b == 0; });
}

// Whether the handle's object was destroyed by an explicit delete.
bool Destroyed(const WzScanDBRecordBasePtr& handle) {
  CWzHandleDeleter* deleter = boost::get_deleter<CWzHandleDeleter>(handle);
  return deleter && deleter->destroyed;
}

class ClientTest : public ::testing::Test {
 protected:
  // Every exported function must resolve by its plain name.
  void SetUp() override {
    ASSERT_EQ("", api.loadError);
    ASSERT_TRUE(api.missing.empty()) << "missing: " << ::testing::PrintToString(api.missing);
    g_ptrLogWriter->SetNone();
  }
  void TearDown() override { LustreAPI::ResetFIDResolver(); }

  static ClientApi& Api() {
    static ClientApi loaded(WZSCANDB_LIBRARY_PATH);
    return loaded;
  }
  ClientApi& api = Api();
  // Makes an empty record of the database's type (a lookup's output).
  std::function<WzScanDBRecordBasePtr()> makeEmpty;

  WzScanDBPtr Create(const WzScanDBRecordBasePtr& prototype, std::string directory) {
    WzScanDBPtr handle;
    api.CreateWzScanDBObject(handle, prototype);
    EXPECT_FALSE(api.WzScanDBObjectIsInitialized(handle));
    EXPECT_OK(Call(api.WzScanDBObjectInitialize, handle, directory));
    EXPECT_TRUE(api.WzScanDBObjectIsInitialized(handle));
    return handle;
  }
  // The stored version of `probe` (looked up by its key), or null.
  WzScanDBRecordBasePtr Find(const WzScanDBPtr& handle, const WzScanDBRecordBasePtr& probe) {
    WzScanDBRecordBasePtr out = makeEmpty();
    bool found = false;
    EXPECT_OK(Call(api.WzScanDBObjectCheckDBRecord, handle, probe, out, found));
    return found ? out : WzScanDBRecordBasePtr();
  }
  // Relative paths of the item-by-item walk below `start`, which must end
  // with the end-of-iteration error.
  Names Walk(const WzScanDBPtr& handle, const WzScanDBRecordBasePtr& start) {
    Names paths;
    WzScanDBRecordBasePtr item;
    std::string path;
    CKoError err = Call(api.WzScanDBObjectGetFirstItem, handle, start, item, path);
    for (; err.IsSuccess() && paths.size() < 100; err = Call(api.WzScanDBObjectGetNextItem, handle, item, path))
      paths.push_back(path);
    EXPECT_EQ(EKoErrorKind::kWin32, err.GetKind()) << err.AsString();
    EXPECT_EQ(18, err.GetCode());
    return paths;
  }
  Names FolderItems(const WzScanDBPtr& handle, const WzScanDBRecordBasePtr& folder) {
    std::vector<WzScanDBRecordBasePtr> items;
    EXPECT_OK(Call(api.WzScanDBObjectGetFolderItems, handle, folder, items));
    Names names;
    for (const WzScanDBRecordBasePtr& item : items) names.push_back(item->getName());
    return names;
  }
  bool Consistent(const WzScanDBPtr& handle) {
    bool consistent = false;
    EXPECT_OK(Call(api.WzScanDBObjectValidateTree, handle, consistent));
    return consistent;
  }
  // Records read on `index` through GetFirstRecord / GetNextRecord, which
  // must end with the engine's not-found status.
  std::vector<WzScanDBRecordBasePtr> Read(const WzScanDBPtr& handle, int index = -1) {
    std::vector<WzScanDBRecordBasePtr> records;
    WzScanDBRecordBasePtr buffer = makeEmpty();
    int status = api.GetFirstRecord(handle, index, buffer->getStructure());
    for (; status == TBL_OK && records.size() < 1000; status = api.GetNextRecord(handle, index, buffer->getStructure()))
      records.push_back(buffer->Clone());
    EXPECT_EQ(TBL_NOT_FOUND, status);
    return records;
  }
};

TEST_F(ClientTest, RecordFactoriesMakeCloneConvertAndDelete) {
  WzScanDBRecordPtr record, byPath, empty;
  std::string path = "/data/file";
  api.CreateGlusterRecordObject(record, path, true, 0x100000005ULL);
  api.CreateGlusterRecordObjectPath(byPath, path);
  EXPECT_EQ(api.GetGlusterRecordRefTime(record), 5u);
  const std::string ids = "0x0DF43D32AA5EFBCC29F496FE3CE95645,0x231DD2911079AA4C70F32602083736E6,";
  EXPECT_EQ(record->toCSV(), ids + "file,yes,0,0,0,5");
  EXPECT_EQ(byPath->toCSV(), ids + "file,no,0,0,0,0");
  empty = byPath;  // the factory's reset releases the old record
  api.CreateGlusterEmptyRecordObject(empty);
  EXPECT_EQ(byPath.use_count(), 1);
  EXPECT_TRUE(AllZero(empty));

  LustreAPI::SetFIDResolver([](const std::string& at, LustreAPI::lu_fid& fid) {
    if (at != "/lustre/dir/f" && at != "/lustre/dir") return -ENOENT;
    fid = LustreAPI::lu_fid{0x200000400ULL, at == "/lustre/dir" ? 0x1au : 0x1bu, 0};
    return 0;
  });
  WzScanDBLustreRecordPtr lustreByPath, withParent, justPath, full, key, lustreEmpty;
  LustreAPI::CLustreFIDPtr parent(new LustreAPI::CLustreFID(7, 8, 9)), fid(new LustreAPI::CLustreFID(1, 2, 3));
  std::string lustrePath = "/lustre/dir", name = "n";
  api.CreateLustreRecordObject(lustreByPath, "/lustre/dir/f", false, 0x100000003ULL);
  api.CreateLustreRecordObjectWithParentFID(withParent, "/lustre/dir/f", parent, true, 1);
  api.CreateLustreRecordObjectPath(justPath, lustrePath);
  api.CreateLustreRecordObjectFull(full, fid, parent, name, true, 4);
  api.CreateLustreRecordObjectKey(key, fid);
  api.CreateLustreEmptyRecordObject(lustreEmpty);
  EXPECT_EQ(api.GetLustreRecordRefTime(lustreByPath), 3u);
  const std::string f = "FID = [[0x200000400:0x1b:0x0]] : Parent FID = ";
  const std::pair<WzScanDBLustreRecordPtr, std::string> lustreRows[] = {
      {lustreByPath, f + "[[0x200000400:0x1a:0x0]] : Name = [f] : flags = [0] : Update Time = [3]"},
      {withParent, f + "[[0x7:0x8:0x9]] : Name = [f] : flags = [1] : Update Time = [1]"},
      {justPath, "FID = [[0x200000400:0x1a:0x0]] : Parent FID = [[0x0:0x0:0x0]] : Name = [dir] : flags = [0] : "
                 "Update Time = [0]"},
      {full, "FID = [[0x1:0x2:0x3]] : Parent FID = [[0x7:0x8:0x9]] : Name = [n] : flags = [1] : Update Time = [4]"},
      {key, "FID = [[0x1:0x2:0x3]] : Parent FID = [[0x0:0x0:0x0]] : Name = [] : flags = [0] : Update Time = [0]"}};
  for (const auto& [made, text] : lustreRows) EXPECT_EQ(made->toString(), text);
  EXPECT_TRUE(AllZero(lustreEmpty));
  CBackupTimeRecordPtr backup, backupEmpty;
  api.CreateBackupTimeRecord(backup, 5, 7);
  api.CreateEmptyBackupTimeRecord(backupEmpty);
  EXPECT_EQ(backup->toString(), "Inode : 5 , Ctime : 7");
  EXPECT_TRUE(AllZero(backupEmpty));

  // A clone is a distinct, equal record; a conversion to the right type
  // shares ownership, to another type gives an empty handle.
  WzScanDBRecordBasePtr clone;
  api.CloneGlusterRecordObject(clone, record);
  ASSERT_TRUE(clone && clone.get() != record.get());
  EXPECT_EQ(std::memcmp(clone->getStructure(), record->getStructure(), 440), 0);
  WzScanDBRecordPtr generic = record;
  WzScanDBLustreRecordPtr lustre = full;
  CBackupTimeRecordPtr backupTime = backup;
  const long uses = clone.use_count();
  api.ConvertBaseToGluster(generic, clone);
  api.ConvertBaseToLustre(lustre, key);
  api.ConvertBaseToBackupTimeRecord(backupTime, backupEmpty);
  EXPECT_TRUE(generic.get() == clone.get() && lustre.get() == key.get() && backupTime.get() == backupEmpty.get());
  EXPECT_EQ(clone.use_count(), uses + 1);
  for (const WzScanDBRecordBasePtr& other : {WzScanDBRecordBasePtr(key), WzScanDBRecordBasePtr(backup)}) {
    api.ConvertBaseToGluster(generic, other);
    EXPECT_FALSE(generic);
  }
  api.ConvertBaseToLustre(lustre, record);
  api.ConvertBaseToBackupTimeRecord(backupTime, full);
  EXPECT_FALSE(lustre || backupTime);

  // Delete destroys the record and leaves the handle as it is; dropping the
  // handle afterwards is harmless (checked under AddressSanitizer).
  api.ConvertBaseToGluster(generic, clone);
  api.DeleteGlusterRecordObject(generic);
  EXPECT_EQ(generic.get(), clone.get());
  EXPECT_TRUE(Destroyed(clone));
  api.DeleteGlusterRecordObject(generic);  // a second delete does nothing
  api.DeleteGlusterRecordObject(WzScanDBRecordPtr());
  api.DeleteLustreRecordObject(full);
  EXPECT_TRUE(Destroyed(full));
  api.DeleteLustreRecordObject(WzScanDBLustreRecordPtr());
}

TEST_F(ClientTest, GenericRecordLifeCycle) {
  makeEmpty = [this] {
    WzScanDBRecordPtr record;
    api.CreateGlusterEmptyRecordObject(record);
    return WzScanDBRecordBasePtr(record);
  };
  auto make = [this](std::string path, bool isDir = false) {
    WzScanDBRecordPtr record;
    api.CreateGlusterRecordObject(record, path, isDir, 1);
    return record;
  };
  TempDir dir;
  WzScanDBPtr db = Create(makeEmpty(), dir.path());
  api.WzScanDBObjectSetRefTime(db, 5000);
  // / -> data -> a b sub -> c, and / -> other. The folder and file calls set
  // and clear the directory bit whatever the record says.
  ASSERT_OK(Call(api.WzScanDBObjectAddFolder, db, make("/", true)));
  for (const char* folder : {"/data", "/data/sub", "/other"})
    ASSERT_OK(Call(api.WzScanDBObjectAddFolder, db, make(folder)));
  for (const char* file : {"/data/a", "/data/b", "/data/sub/c"})
    ASSERT_OK(Call(api.WzScanDBObjectAddFile, db, make(file, true)));
  ASSERT_OK(Call(api.WzScanDBObjectAddDBRecord, db, make("/data/d")));
  ASSERT_OK(Call(api.WzScanDBObjectAddRecordWithoutCheck, db, make("/data/e")));
  EXPECT_EQ(TBL_DUPLICATE_KEY, Call(api.WzScanDBObjectAddRecordWithoutCheck, db, make("/data/e")).GetCode());
  EXPECT_EQ(9u, Read(db).size());
  WzScanDBRecordBasePtr a = Find(db, make("/data/a"));
  ASSERT_TRUE(a && !a->isDir() && Find(db, make("/data/sub"))->isDir());
  EXPECT_EQ(5000u, a->getRefTime());
  EXPECT_FALSE(Find(db, make("/data/missing")));

  // The whole status structure goes through an update and comes back out of
  // WzScanDBGetStatData, every byte of it; the parent's identifier as text.
  struct stat written, read;
  unsigned char* raw = reinterpret_cast<unsigned char*>(&written);
  for (size_t i = 0; i < sizeof written; ++i) raw[i] = static_cast<unsigned char>(i * 7 + 1);
  std::memcpy(static_cast<char*>(a->getStructure()) + 32, &written, sizeof written);  // stat_data
  ASSERT_OK(Call(api.WzScanDBObjectUpdateDBRecord, db, a));
  EXPECT_EQ(22, Call(api.WzScanDBObjectUpdateDBRecord, db, make("/data/never")).GetCode());
  WzScanDBRecordPtr typed;
  api.ConvertBaseToGluster(typed, Find(db, make("/data/a")));
  ASSERT_TRUE(typed);
  std::memset(&read, 0xEE, sizeof read);
  api.WzScanDBGetStatData(typed, read);
  EXPECT_EQ(0, std::memcmp(&written, &read, sizeof read));
  std::string parentText, guidText;
  api.WzScanDBGetParentGUID(typed, parentText);
  api.WzScanDBGetGUIDString(make("/data")->getGUID(), guidText);
  EXPECT_EQ(parentText + guidText, "0x231DD2911079AA4C70F32602083736E6" "0x231DD2911079AA4C70F32602083736E6");
  api.WzScanDBGetParentGUID(make("/", true), parentText);
  EXPECT_EQ("0x" + std::string(32, '0'), parentText) << "the root has no parent";
  api.DeleteGlusterRecordObject(typed);  // the handle may still be dropped afterwards

  EXPECT_EQ((Names{"a", "b", "d", "e", "sub", "sub/c"}), Walk(db, make("/data", true)));
  ASSERT_OK(Call(api.WzScanDBObjectRenameFile, db, make("/data/b"), make("/data/b2")));
  ASSERT_OK(Call(api.WzScanDBObjectRenameByKey, db, make("/data/d"), make("/other/d")));
  EXPECT_EQ(2, Call(api.WzScanDBObjectRenameByKey, db, make("/data/ghost"), make("/other/ghost")).GetCode());
  EXPECT_EQ((Names{"a", "b2", "e", "sub"}), FolderItems(db, make("/data", true)));
  EXPECT_EQ((Names{"d"}), FolderItems(db, make("/other", true)));
  // A record whose parent is missing makes the tree inconsistent.
  EXPECT_TRUE(Consistent(db));
  ASSERT_OK(Call(api.WzScanDBObjectAddFile, db, make("/nowhere/x")));
  EXPECT_FALSE(Consistent(db));
  ASSERT_OK(Call(api.WzScanDBObjectRemoveFile, db, make("/nowhere/x")));
  ASSERT_OK(Call(api.WzScanDBObjectRemoveFile, db, make("/nowhere/x")));  // absent: nothing to do
  ASSERT_OK(Call(api.WzScanDBObjectRemoveFolder, db, make("/data", true)));
  EXPECT_EQ(3u, Read(db).size());  // /, /other, /other/d
  EXPECT_TRUE(Consistent(db));
  EXPECT_OK(Call(api.WzScanDBObjectClose, db));
  EXPECT_FALSE(api.WzScanDBObjectIsInitialized(db));
  WzScanDB* object = db.get();
  api.DestroyWzScanDBObject(db);
  EXPECT_EQ(object, db.get());  // left as it was; dropping it is harmless
}

TEST_F(ClientTest, BackupTimeRecordLifeCycle) {
  makeEmpty = [this] {
    CBackupTimeRecordPtr record;
    api.CreateEmptyBackupTimeRecord(record);
    return WzScanDBRecordBasePtr(record);
  };
  auto make = [this](uint64_t inode, uint64_t ctime) {
    CBackupTimeRecordPtr record;
    api.CreateBackupTimeRecord(record, inode, ctime);
    return WzScanDBRecordBasePtr(record);
  };
  TempDir dir;
  WzScanDBPtr db = Create(makeEmpty(), dir.path());
  auto texts = [&](int index) {
    std::string text;
    for (const WzScanDBRecordBasePtr& record : Read(db, index)) text += record->toString() + "; ";
    return text;
  };
  EXPECT_EQ("", texts(-1));
  for (auto [inode, ctime] : {std::pair{30, 300}, {10, 100}, {20, 200}, {20, 201}})
    ASSERT_OK(Call(api.WzScanDBObjectAddDBRecord, db, make(inode, ctime)));  // again: updated
  WzScanDBRecordBasePtr found = Find(db, make(10, 0));
  ASSERT_TRUE(found);
  EXPECT_EQ(100u, found->getRefTime());
  EXPECT_FALSE(Find(db, make(11, 100)));
  ASSERT_OK(Call(api.WzScanDBObjectUpdateDBRecord, db, make(10, 150)));
  EXPECT_EQ(22, Call(api.WzScanDBObjectUpdateDBRecord, db, make(99, 1)).GetCode());
  ASSERT_OK(Call(api.WzScanDBObjectRemoveFile, db, make(30, 0)));  // a flat record, by key
  ASSERT_OK(Call(api.WzScanDBObjectRemoveFile, db, make(30, 0)));  // absent: nothing to do
  ASSERT_OK(Call(api.WzScanDBObjectAddDBRecord, db, make(5, 50)));
  // Physically in insertion order, on the key index by inode.
  EXPECT_EQ("Inode : 10 , Ctime : 150; Inode : 20 , Ctime : 201; Inode : 5 , Ctime : 50; ", texts(-1));
  EXPECT_EQ("Inode : 5 , Ctime : 50; Inode : 10 , Ctime : 150; Inode : 20 , Ctime : 201; ", texts(0));
  EXPECT_OK(Call(api.WzScanDBObjectClose, db));
  api.DestroyWzScanDBObject(db);
}

}  // namespace
