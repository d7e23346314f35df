// A client of libWzScanDB.so as another component of the agent is one: the
// library is loaded with dlopen() and every exported function reached through
// dlsym(); the test is not linked against it. It does link libWzRuntime.so, a
// platform library the agent has anyway, for CKoError's out-of-line members
// and to silence the log writer. Each record type goes through a life cycle
// with results and error codes checked at every step.
#include <sys/stat.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "ClientApi.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/LogWriter.h"
#include "support/TempDir.h"
#include "table/TableStatus.h"

namespace {

#define EXPECT_OK(err) EXPECT_TRUE((err).IsSuccess()) << (err).AsString()
#define ASSERT_OK(err) ASSERT_TRUE((err).IsSuccess()) << (err).AsString()

typedef std::vector<std::string> Names;

int Files(const std::string& directory) {
  struct stat info;
  return (stat((directory + "/WzScanDB.dat").c_str(), &info) == 0) +
         (stat((directory + "/WzScanDB.idx").c_str(), &info) == 0);
}

// Calls an exported function whose last argument is the error, starting from
// a stale error: a call that succeeds without assigning it fails the test.
template <class Fn, class... Args>
CKoError Call(Fn fn, Args&&... args) {
  CKoError err = FXErrorUtil::ErrorErrNo(FXCodeLocation("client", "Call", 1), 99, "stale");
  fn(std::forward<Args>(args)..., err);
  return err;
}

class ClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ("", api.loadError);
    ASSERT_TRUE(api.missing.empty()) << "missing: " << ::testing::PrintToString(api.missing);
    g_ptrLogWriter->SetNone();
    g_ptrLogWriter->SetLevel(0);
  }

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
    for (; err.IsSuccess() && paths.size() < 100;
         err = Call(api.WzScanDBObjectGetNextItem, handle, item, path))
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
    for (; status == TBL_OK && records.size() < 1000;
         status = api.GetNextRecord(handle, index, buffer->getStructure()))
      records.push_back(buffer->Clone());
    EXPECT_EQ(TBL_NOT_FOUND, status);
    return records;
  }
};

TEST_F(ClientTest, EveryExportedFunctionResolvesByItsPlainName) {
  const char* names[] = {
#define WZ_CLIENT_NAME(name) #name,
      WZ_CLIENT_HANDLE_FUNCTIONS(WZ_CLIENT_NAME) WZ_CLIENT_RECORD_FUNCTIONS(WZ_CLIENT_NAME)
#undef WZ_CLIENT_NAME
  };
  EXPECT_EQ(51u, sizeof names / sizeof names[0]);
  for (const char* name : names) EXPECT_NE(nullptr, dlsym(api.library, name)) << name;
}

TEST_F(ClientTest, GenericRecordLifeCycle) {
  makeEmpty = [this] {
    WzScanDBRecordPtr record;
    api.CreateGlusterEmptyRecordObject(record);
    return WzScanDBRecordBasePtr(record);
  };
  auto make = [this](std::string path, bool isDir) {
    WzScanDBRecordPtr record;
    api.CreateGlusterRecordObject(record, path, isDir, 1);
    return record;
  };
  auto key = [this](std::string path) {
    WzScanDBRecordPtr record;
    api.CreateGlusterRecordObjectPath(record, path);
    return WzScanDBRecordBasePtr(record);
  };
  TempDir dir, copied, moved;
  WzScanDBRecordPtr prototype;
  api.CreateGlusterEmptyRecordObject(prototype);
  WzScanDBPtr db = Create(prototype, dir.path());
  api.WzScanDBObjectSetRefTime(db, 5000);

  // / -> data -> a.txt b.txt sub -> c.txt, and / -> other. The folder and
  // file calls set and clear the directory bit whatever the record says.
  ASSERT_OK(Call(api.WzScanDBObjectAddFolder, db, make("/", true)));
  for (const char* folder : {"/data", "/data/sub", "/other"})
    ASSERT_OK(Call(api.WzScanDBObjectAddFolder, db, make(folder, false)));
  for (const char* file : {"/data/a.txt", "/data/b.txt", "/data/sub/c.txt"})
    ASSERT_OK(Call(api.WzScanDBObjectAddFile, db, make(file, true)));
  ASSERT_OK(Call(api.WzScanDBObjectAddDBRecord, db, make("/data/d.txt", false)));
  ASSERT_OK(Call(api.WzScanDBObjectAddRecordWithoutCheck, db, make("/data/e.txt", false)));
  CKoError err = Call(api.WzScanDBObjectAddRecordWithoutCheck, db, make("/data/e.txt", false));
  EXPECT_EQ(EKoErrorKind::kInt, err.GetKind());
  EXPECT_EQ(TBL_DUPLICATE_KEY, err.GetCode());
  EXPECT_EQ(9u, Read(db).size());

  WzScanDBRecordBasePtr a = Find(db, key("/data/a.txt"));
  ASSERT_TRUE(a);
  EXPECT_EQ("a.txt", a->getName());
  EXPECT_FALSE(a->isDir());
  EXPECT_TRUE(Find(db, key("/data/sub"))->isDir());
  EXPECT_FALSE(Find(db, key("/data/missing")));
  WzScanDBRecordPtr typed;
  api.ConvertBaseToGluster(typed, a);
  ASSERT_TRUE(typed);
  std::string parentText, dataText;
  api.WzScanDBGetParentGUID(typed, parentText);
  api.WzScanDBGetGUIDString(make("/data", true)->getGUID(), dataText);
  EXPECT_EQ(dataText, parentText);
  api.WzScanDBGetParentGUID(make("/", true), parentText);
  EXPECT_EQ("0x" + std::string(32, '0'), parentText) << "the root has no parent";
  EXPECT_EQ(5000u, api.GetGlusterRecordRefTime(typed));

  // The whole status structure goes through an update and comes back out of
  // WzScanDBGetStatData, every byte of it.
  struct stat written, read;
  unsigned char* raw = reinterpret_cast<unsigned char*>(&written);
  for (size_t i = 0; i < sizeof written; ++i) raw[i] = static_cast<unsigned char>(i * 7 + 1);
  std::memcpy(static_cast<char*>(a->getStructure()) + 32, &written, sizeof written);  // stat_data
  ASSERT_OK(Call(api.WzScanDBObjectUpdateDBRecord, db, a));
  api.ConvertBaseToGluster(typed, Find(db, key("/data/a.txt")));
  ASSERT_TRUE(typed);
  std::memset(&read, 0xEE, sizeof read);
  api.WzScanDBGetStatData(typed, read);
  EXPECT_EQ(0, std::memcmp(&written, &read, sizeof read));
  EXPECT_EQ(22, Call(api.WzScanDBObjectUpdateDBRecord, db, make("/data/never", false)).GetCode());

  EXPECT_EQ((Names{"a.txt", "b.txt", "d.txt", "e.txt", "sub", "sub/c.txt"}),
            Walk(db, make("/data", true)));
  EXPECT_EQ((Names{"a.txt", "b.txt", "d.txt", "e.txt", "sub"}), FolderItems(db, make("/data", true)));

  // Rename a file, move a record to another folder, move a folder.
  ASSERT_OK(Call(api.WzScanDBObjectRenameFile, db, key("/data/b.txt"), make("/data/b2.txt", false)));
  ASSERT_OK(Call(api.WzScanDBObjectRenameByKey, db, key("/data/d.txt"), make("/other/d.txt", false)));
  ASSERT_OK(Call(api.WzScanDBObjectRenameFolder, db, key("/data/sub"), make("/other/sub2", true),
                 "/data/sub", "/other/sub2"));
  err = Call(api.WzScanDBObjectRenameByKey, db, key("/data/ghost"), make("/other/ghost", false));
  EXPECT_EQ(2, err.GetCode());
  EXPECT_EQ((Names{"a.txt", "b2.txt", "e.txt"}), FolderItems(db, make("/data", true)));
  EXPECT_EQ((Names{"d.txt", "sub2", "sub2/c.txt"}), Walk(db, make("/other", true)));
  EXPECT_EQ(9u, Read(db).size());

  // A record whose parent is missing makes the tree inconsistent.
  EXPECT_TRUE(Consistent(db));
  ASSERT_OK(Call(api.WzScanDBObjectAddFile, db, make("/nowhere/x", false)));
  EXPECT_FALSE(Consistent(db));
  ASSERT_OK(Call(api.WzScanDBObjectRemoveFile, db, key("/nowhere/x")));
  EXPECT_TRUE(Consistent(db));

  // Suspended indexing: keyed reads refuse, the physical order still reads.
  ASSERT_OK(Call(api.WzScanDBSuspendIndexing, db));
  WzScanDBRecordBasePtr buffer = makeEmpty();
  EXPECT_EQ(TBL_INDEX_SUSPENDED, api.GetFirstRecord(db, 0, buffer->getStructure()));
  EXPECT_EQ(TBL_OK, api.GetFirstRecord(db, -1, buffer->getStructure()));
  ASSERT_OK(Call(api.WzScanDBRebuildIndexing, db));
  EXPECT_TRUE(Find(db, key("/other/sub2/c.txt")));

  ASSERT_OK(Call(api.WzScanDBObjectRemoveFile, db, key("/data/a.txt")));
  ASSERT_OK(Call(api.WzScanDBObjectRemoveFile, db, key("/data/a.txt")));  // absent: nothing to do
  ASSERT_OK(Call(api.WzScanDBObjectRemoveFolder, db, make("/other", true)));
  EXPECT_FALSE(Find(db, key("/other/sub2/c.txt")));
  EXPECT_EQ(4u, Read(db).size());  // /, /data, b2.txt, e.txt
  EXPECT_TRUE(Consistent(db));
  api.DeleteGlusterRecordObject(typed);  // the handle may still be dropped afterwards

  // Close, copy, move, check the moved copy, remove every copy, destroy.
  EXPECT_OK(Call(api.WzScanDBObjectClose, db));
  EXPECT_FALSE(api.WzScanDBObjectIsInitialized(db));
  EXPECT_OK(Call(api.WzScanDBObjectCopy, db, dir.path(), copied.path()));
  EXPECT_OK(Call(api.WzScanDBObjectMove, db, copied.path(), moved.path()));
  EXPECT_EQ(0, Files(copied.path()));
  EXPECT_TRUE(Call(api.WzScanDBObjectMove, db, copied.path(), moved.path()).IsError());
  EXPECT_EQ(2, Files(moved.path()));
  WzScanDBPtr reader = Create(prototype, moved.path());
  EXPECT_EQ(4u, Read(reader).size());
  EXPECT_OK(Call(api.WzScanDBObjectClose, reader));
  for (const std::string& directory : {dir.path(), moved.path()}) {
    EXPECT_OK(Call(api.WzScanDBObjectRemove, db, directory));
    EXPECT_EQ(0, Files(directory));
  }
  EXPECT_TRUE(Call(api.WzScanDBObjectRemove, db, dir.path()).IsError());
  WzScanDB* object = db.get();
  api.DestroyWzScanDBObject(db);
  EXPECT_EQ(object, db.get());  // left as it was; dropping it is harmless
}

TEST_F(ClientTest, LustreRecordLifeCycle) {
  makeEmpty = [this] {
    WzScanDBLustreRecordPtr record;
    api.CreateLustreEmptyRecordObject(record);
    return WzScanDBRecordBasePtr(record);
  };
  auto fid = [](uint32_t oid) {
    return oid ? boost::make_shared<LustreAPI::CLustreFID>(0x200000400ULL, oid, 0)
               : LustreAPI::CLustreFIDPtr();
  };
  // Records with explicit FIDs: there is no Lustre mount to ask.
  auto make = [this, fid](uint32_t oid, uint32_t parentOid, std::string name, bool isDir) {
    WzScanDBLustreRecordPtr record;
    api.CreateLustreRecordObjectFull(record, fid(oid), fid(parentOid), name, isDir, 1);
    return record;
  };
  auto key = [this, fid](uint32_t oid) {
    WzScanDBLustreRecordPtr record;
    api.CreateLustreRecordObjectKey(record, fid(oid));
    return WzScanDBRecordBasePtr(record);
  };
  enum : uint32_t { kRoot = 1, kData, kA, kB, kSub, kC, kOther };

  TempDir dir;
  WzScanDBLustreRecordPtr prototype;
  api.CreateLustreEmptyRecordObject(prototype);
  WzScanDBPtr db = Create(prototype, dir.path());
  api.WzScanDBObjectSetRefTime(db, 6000);
  WzScanDBLustreRecordPtr root = make(kRoot, 0, "", true);
  ASSERT_TRUE(root->isRoot());
  for (auto folder : {root, make(kData, kRoot, "data", true), make(kSub, kData, "sub", true),
                      make(kOther, kRoot, "other", true)})
    ASSERT_OK(Call(api.WzScanDBObjectAddFolder, db, folder));
  for (auto file :
       {make(kA, kData, "a", false), make(kB, kData, "b", false), make(kC, kSub, "c", false)})
    ASSERT_OK(Call(api.WzScanDBObjectAddFile, db, file));

  // Looked up by FID alone.
  WzScanDBRecordBasePtr a = Find(db, key(kA));
  ASSERT_TRUE(a);
  EXPECT_EQ("a", a->getName());
  EXPECT_FALSE(Find(db, key(99)));
  WzScanDBLustreRecordPtr typed;
  api.ConvertBaseToLustre(typed, a);
  ASSERT_TRUE(typed);
  EXPECT_EQ(6000u, api.GetLustreRecordRefTime(typed));
  WzScanDBRecordPtr notGeneric;
  api.ConvertBaseToGluster(notGeneric, a);
  EXPECT_FALSE(notGeneric);
  EXPECT_EQ((Names{"data", "other", "data/a", "data/b", "data/sub", "data/sub/c"}), Walk(db, root));

  // A Lustre rename keeps the FID: the folder moves under /other by key and
  // its children, linked by its FID, follow.
  ASSERT_OK(Call(api.WzScanDBObjectRenameByKey, db, key(kSub), make(kSub, kOther, "sub2", true)));
  EXPECT_EQ((Names{"a", "b"}), FolderItems(db, key(kData)));
  EXPECT_EQ((Names{"sub2", "sub2/c"}), Walk(db, key(kOther)));
  ASSERT_OK(Call(api.WzScanDBObjectRemoveFolder, db, key(kOther)));
  EXPECT_FALSE(Find(db, key(kC)));
  EXPECT_EQ(4u, Read(db).size());  // root, data, a, b
  EXPECT_TRUE(Consistent(db));
  api.DeleteLustreRecordObject(typed);
  EXPECT_OK(Call(api.WzScanDBObjectClose, db));
  api.DestroyWzScanDBObject(db);
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
  typedef std::vector<std::pair<uint64_t, uint64_t>> Pairs;
  TempDir dir;
  CBackupTimeRecordPtr prototype;
  api.CreateEmptyBackupTimeRecord(prototype);
  WzScanDBPtr db = Create(prototype, dir.path());
  auto pairs = [&](int index) {
    Pairs result;
    for (const WzScanDBRecordBasePtr& record : Read(db, index)) {
      uint64_t values[2];
      std::memcpy(values, record->getStructure(), sizeof values);
      result.emplace_back(values[0], values[1]);
    }
    return result;
  };
  EXPECT_EQ(Pairs{}, pairs(-1));

  for (auto [inode, ctime] : Pairs{{30, 300}, {10, 100}, {20, 200}, {20, 201}})
    ASSERT_OK(Call(api.WzScanDBObjectAddDBRecord, db, make(inode, ctime)));  // again: updated
  WzScanDBRecordBasePtr found = Find(db, make(10, 0));
  ASSERT_TRUE(found);
  EXPECT_EQ(100u, found->getRefTime());
  EXPECT_FALSE(Find(db, make(11, 100)));
  CBackupTimeRecordPtr typed;
  api.ConvertBaseToBackupTimeRecord(typed, found);
  EXPECT_TRUE(typed);
  WzScanDBLustreRecordPtr notLustre;
  api.ConvertBaseToLustre(notLustre, found);
  EXPECT_FALSE(notLustre);

  ASSERT_OK(Call(api.WzScanDBObjectUpdateDBRecord, db, make(10, 150)));
  EXPECT_EQ(22, Call(api.WzScanDBObjectUpdateDBRecord, db, make(99, 1)).GetCode());
  ASSERT_OK(Call(api.WzScanDBObjectRemoveFile, db, make(30, 0)));  // a flat record, by key
  ASSERT_OK(Call(api.WzScanDBObjectRemoveFile, db, make(30, 0)));  // absent: nothing to do
  ASSERT_OK(Call(api.WzScanDBObjectAddDBRecord, db, make(5, 50)));
  EXPECT_EQ((Pairs{{10, 150}, {20, 201}, {5, 50}}), pairs(-1));  // insertion order
  EXPECT_EQ((Pairs{{5, 50}, {10, 150}, {20, 201}}), pairs(0));   // by inode

  EXPECT_OK(Call(api.WzScanDBObjectClose, db));
  WzScanDBRecordBasePtr buffer = makeEmpty();
  EXPECT_EQ(TBL_NOT_OPEN, api.GetFirstRecord(db, -1, buffer->getStructure()));
  api.DestroyWzScanDBObject(db);
}

}  // namespace
