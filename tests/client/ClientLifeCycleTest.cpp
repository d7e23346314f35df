// A client of libWzScanDB.so as another component of the agent is one: the
// library is loaded with dlopen() and every exported function reached through
// dlsym(); the test is not linked against it. It does link libWzRuntime.so, a
// platform library the agent has anyway, for CKoError's out-of-line members
// and to silence the log writer. Each record type goes through a whole life
// cycle with results and error codes checked at every step.
#include <sys/stat.h>

#include <cstddef>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "ClientApi.h"
#include "runtime/LogWriter.h"
#include "support/TempDir.h"
#include "table/TableStatus.h"

namespace {

ClientApi& Api() {
  static ClientApi api(WZSCANDB_LIBRARY_PATH);
  return api;
}

#define EXPECT_OK(err) EXPECT_TRUE((err).IsSuccess()) << (err).AsString()
#define ASSERT_OK(err) ASSERT_TRUE((err).IsSuccess()) << (err).AsString()

bool HasFiles(const std::string& directory) {
  struct stat info;
  return stat((directory + "/WzScanDB.dat").c_str(), &info) == 0 &&
         stat((directory + "/WzScanDB.idx").c_str(), &info) == 0;
}

uint64_t StatSize(const WzScanDBRecordBasePtr& record, size_t statOffset) {
  struct stat data;
  std::memcpy(&data, static_cast<char*>(record->getStructure()) + statOffset, sizeof data);
  return static_cast<uint64_t>(data.st_size);
}

void SetStatSize(const WzScanDBRecordBasePtr& record, size_t statOffset, uint64_t size) {
  struct stat data;
  char* image = static_cast<char*>(record->getStructure()) + statOffset;
  std::memcpy(&data, image, sizeof data);
  data.st_size = static_cast<off_t>(size);
  std::memcpy(image, &data, sizeof data);
}

class ClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ("", Api().loadError);
    ASSERT_TRUE(Api().missing.empty()) << "missing: " << ::testing::PrintToString(Api().missing);
    g_ptrLogWriter->SetNone();
    g_ptrLogWriter->SetLevel(0);
  }

  ClientApi& api = Api();
  // Makes an empty record of the database's type (the lookup's output).
  std::function<WzScanDBRecordBasePtr()> makeEmpty;

  WzScanDBPtr Create(const WzScanDBRecordBasePtr& prototype, const std::string& directory) {
    WzScanDBPtr handle;
    api.CreateWzScanDBObject(handle, prototype);
    EXPECT_TRUE(handle);
    EXPECT_FALSE(api.WzScanDBObjectIsInitialized(handle));
    std::string dir = directory;
    CKoError err;
    api.WzScanDBObjectInitialize(handle, dir, err);
    EXPECT_OK(err);
    EXPECT_TRUE(api.WzScanDBObjectIsInitialized(handle));
    return handle;
  }

  // The stored version of `probe` (looked up by its key), or null.
  WzScanDBRecordBasePtr Find(const WzScanDBPtr& handle, const WzScanDBRecordBasePtr& probe) {
    WzScanDBRecordBasePtr out = makeEmpty();
    bool found = false;
    CKoError err;
    api.WzScanDBObjectCheckDBRecord(handle, probe, out, found, err);
    EXPECT_OK(err);
    return found ? out : WzScanDBRecordBasePtr();
  }

  // Relative paths of the item-by-item walk below `start`, which must end
  // with the end-of-iteration error.
  std::vector<std::string> Walk(const WzScanDBPtr& handle, const WzScanDBRecordBasePtr& start) {
    std::vector<std::string> paths;
    WzScanDBRecordBasePtr item;
    std::string path;
    CKoError err;
    api.WzScanDBObjectGetFirstItem(handle, start, item, path, err);
    while (err.IsSuccess() && paths.size() < 100) {
      EXPECT_TRUE(item);
      paths.push_back(path);
      api.WzScanDBObjectGetNextItem(handle, item, path, err);
    }
    EXPECT_EQ(EKoErrorKind::kWin32, err.GetKind()) << err.AsString();
    EXPECT_EQ(18, err.GetCode());
    return paths;
  }

  std::vector<std::string> FolderItems(const WzScanDBPtr& handle,
                                       const WzScanDBRecordBasePtr& folder) {
    std::vector<WzScanDBRecordBasePtr> items;
    CKoError err;
    api.WzScanDBObjectGetFolderItems(handle, folder, items, err);
    EXPECT_OK(err);
    std::vector<std::string> names;
    for (const WzScanDBRecordBasePtr& item : items) names.push_back(item->getName());
    return names;
  }

  bool Consistent(const WzScanDBPtr& handle) {
    bool consistent = false;
    CKoError err;
    api.WzScanDBObjectValidateTree(handle, consistent, err);
    EXPECT_OK(err);
    return consistent;
  }

  // Records in the table, read in physical order through GetFirstRecord /
  // GetNextRecord, which must end with the engine's not-found status.
  size_t Count(const WzScanDBPtr& handle) {
    WzScanDBRecordBasePtr buffer = makeEmpty();
    size_t count = 0;
    int status = api.GetFirstRecord(handle, -1, buffer->getStructure());
    for (; status == TBL_OK && count < 1000; ++count)
      status = api.GetNextRecord(handle, -1, buffer->getStructure());
    EXPECT_EQ(TBL_NOT_FOUND, status);
    return count;
  }

  // Closes the database, copies and moves its files through the exported
  // file functions, checks the moved copy holds `expected` records, then
  // removes every copy and destroys the handle.
  void CloseCopyMoveRemove(WzScanDBPtr& handle, const WzScanDBRecordBasePtr& prototype,
                           const TempDir& dir, size_t expected) {
    CKoError err;
    api.WzScanDBObjectClose(handle, err);
    EXPECT_OK(err);
    EXPECT_FALSE(api.WzScanDBObjectIsInitialized(handle));

    TempDir copied, moved;
    api.WzScanDBObjectCopy(handle, dir.path(), copied.path(), err);
    EXPECT_OK(err);
    api.WzScanDBObjectMove(handle, copied.path(), moved.path(), err);
    EXPECT_OK(err);
    EXPECT_FALSE(HasFiles(copied.path()));
    ASSERT_TRUE(HasFiles(moved.path()));
    api.WzScanDBObjectMove(handle, copied.path(), moved.path(), err);  // nothing left to move
    EXPECT_TRUE(err.IsError());
    EXPECT_TRUE(HasFiles(moved.path()));

    WzScanDBPtr reader = Create(prototype, moved.path());
    EXPECT_EQ(expected, Count(reader));
    api.WzScanDBObjectClose(reader, err);
    EXPECT_OK(err);
    api.DestroyWzScanDBObject(reader);

    for (const std::string& directory : {dir.path(), moved.path()}) {
      api.WzScanDBObjectRemove(handle, directory, err);
      EXPECT_OK(err);
      EXPECT_FALSE(HasFiles(directory));
    }
    api.WzScanDBObjectRemove(handle, dir.path(), err);  // already gone
    EXPECT_TRUE(err.IsError());

    WzScanDB* object = handle.get();
    api.DestroyWzScanDBObject(handle);
    EXPECT_EQ(object, handle.get());  // left as it was; dropping it is harmless
    handle.reset();
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
  const size_t kStat = 32;  // offset of stat_data in the generic record image
  makeEmpty = [this] {
    WzScanDBRecordPtr record;
    api.CreateGlusterEmptyRecordObject(record);
    return WzScanDBRecordBasePtr(record);
  };
  auto make = [this](const std::string& path, bool isDir) {
    WzScanDBRecordPtr record;
    std::string text = path;
    api.CreateGlusterRecordObject(record, text, isDir, 1);
    return record;
  };
  auto key = [this](const std::string& path) {
    WzScanDBRecordPtr record;
    std::string text = path;
    api.CreateGlusterRecordObjectPath(record, text);
    return WzScanDBRecordBasePtr(record);
  };

  TempDir dir;
  WzScanDBRecordPtr prototype;
  api.CreateGlusterEmptyRecordObject(prototype);
  WzScanDBPtr db = Create(prototype, dir.path());
  api.WzScanDBObjectSetRefTime(db, 5000);

  // Add the tree: / -> data -> a.txt b.txt sub -> c.txt, and / -> other.
  CKoError err;
  WzScanDBRecordPtr root = make("/", true);
  ASSERT_TRUE(root->isRoot());
  api.WzScanDBObjectAddFolder(db, root, err);
  ASSERT_OK(err);
  for (const char* folder : {"/data", "/data/sub", "/other"}) {
    api.WzScanDBObjectAddFolder(db, make(folder, false), err);  // the call sets the bit
    ASSERT_OK(err);
  }
  for (const char* file : {"/data/a.txt", "/data/b.txt", "/data/sub/c.txt"}) {
    api.WzScanDBObjectAddFile(db, make(file, true), err);  // the call clears the bit
    ASSERT_OK(err);
  }
  WzScanDBRecordPtr d = make("/data/d.txt", false);
  api.WzScanDBObjectAddDBRecord(db, d, err);
  ASSERT_OK(err);
  api.WzScanDBObjectAddRecordWithoutCheck(db, make("/data/e.txt", false), err);
  ASSERT_OK(err);
  api.WzScanDBObjectAddRecordWithoutCheck(db, make("/data/e.txt", false), err);
  ASSERT_TRUE(err.IsError());
  EXPECT_EQ(EKoErrorKind::kInt, err.GetKind());
  EXPECT_EQ(TBL_DUPLICATE_KEY, err.GetCode());
  EXPECT_EQ(9u, Count(db));

  // Look up.
  WzScanDBRecordBasePtr a = Find(db, key("/data/a.txt"));
  ASSERT_TRUE(a);
  EXPECT_EQ("a.txt", a->getName());
  EXPECT_FALSE(a->isDir());
  EXPECT_EQ(5000u, a->getRefTime());
  WzScanDBRecordBasePtr sub = Find(db, key("/data/sub"));
  ASSERT_TRUE(sub);
  EXPECT_TRUE(sub->isDir());
  EXPECT_FALSE(Find(db, key("/data/missing")));
  WzScanDBRecordPtr typed;
  api.ConvertBaseToGluster(typed, a);
  ASSERT_TRUE(typed);
  std::string parentText, dataText;
  api.WzScanDBGetParentGUID(typed, parentText);
  api.WzScanDBGetGUIDString(make("/data", true)->getGUID(), dataText);
  EXPECT_EQ(dataText, parentText);
  EXPECT_EQ(5000u, api.GetGlusterRecordRefTime(typed));

  // Update a stored record's status.
  SetStatSize(a, kStat, 12345);
  api.WzScanDBObjectUpdateDBRecord(db, a, err);
  ASSERT_OK(err);
  WzScanDBRecordPtr reread;
  api.ConvertBaseToGluster(reread, Find(db, key("/data/a.txt")));
  ASSERT_TRUE(reread);
  struct stat status;
  api.WzScanDBGetStatData(reread, status);
  EXPECT_EQ(12345, status.st_size);
  api.WzScanDBObjectUpdateDBRecord(db, make("/data/never", false), err);
  ASSERT_TRUE(err.IsError());
  EXPECT_EQ(22, err.GetCode());

  // Walk item by item, list a folder.
  EXPECT_EQ((std::vector<std::string>{"a.txt", "b.txt", "d.txt", "e.txt", "sub", "sub/c.txt"}),
            Walk(db, make("/data", true)));
  EXPECT_EQ((std::vector<std::string>{"a.txt", "b.txt", "d.txt", "e.txt", "sub"}),
            FolderItems(db, make("/data", true)));

  // Rename a file, move a record to another folder, move a folder.
  WzScanDBRecordPtr b2 = make("/data/b2.txt", false);
  SetStatSize(b2, kStat, 7);
  api.WzScanDBObjectRenameFile(db, key("/data/b.txt"), b2, err);
  ASSERT_OK(err);
  api.WzScanDBObjectRenameByKey(db, key("/data/d.txt"), make("/other/d.txt", false), err);
  ASSERT_OK(err);
  api.WzScanDBObjectRenameFolder(db, key("/data/sub"), make("/other/sub2", true), "/data/sub",
                                 "/other/sub2", err);
  ASSERT_OK(err);
  api.WzScanDBObjectRenameByKey(db, key("/data/ghost"), make("/other/ghost", false), err);
  ASSERT_TRUE(err.IsError());
  EXPECT_EQ(2, err.GetCode());
  EXPECT_FALSE(Find(db, key("/data/b.txt")));
  ASSERT_TRUE(Find(db, key("/data/b2.txt")));
  EXPECT_EQ(7u, StatSize(Find(db, key("/data/b2.txt")), kStat));
  EXPECT_EQ((std::vector<std::string>{"a.txt", "b2.txt", "e.txt"}),
            FolderItems(db, make("/data", true)));
  EXPECT_EQ((std::vector<std::string>{"d.txt", "sub2", "sub2/c.txt"}),
            Walk(db, make("/other", true)));
  EXPECT_EQ(9u, Count(db));

  // Validate: consistent, then a record whose parent is missing.
  EXPECT_TRUE(Consistent(db));
  WzScanDBRecordPtr orphan = make("/nowhere/x", false);
  api.WzScanDBObjectAddFile(db, orphan, err);
  ASSERT_OK(err);
  EXPECT_FALSE(Consistent(db));
  api.WzScanDBObjectRemoveFile(db, orphan, err);
  ASSERT_OK(err);
  EXPECT_TRUE(Consistent(db));

  // Suspend indexing: keyed reads refuse, the physical order still reads.
  api.WzScanDBSuspendIndexing(db, err);
  ASSERT_OK(err);
  WzScanDBRecordBasePtr buffer = makeEmpty();
  EXPECT_EQ(TBL_INDEX_SUSPENDED, api.GetFirstRecord(db, 0, buffer->getStructure()));
  EXPECT_EQ(TBL_OK, api.GetFirstRecord(db, -1, buffer->getStructure()));
  api.WzScanDBRebuildIndexing(db, err);
  ASSERT_OK(err);
  EXPECT_TRUE(Find(db, key("/other/sub2/c.txt")));

  // Remove a file and a folder with everything below it.
  api.WzScanDBObjectRemoveFile(db, key("/data/a.txt"), err);
  ASSERT_OK(err);
  EXPECT_FALSE(Find(db, key("/data/a.txt")));
  api.WzScanDBObjectRemoveFile(db, key("/data/a.txt"), err);  // absent: nothing to do
  ASSERT_OK(err);
  api.WzScanDBObjectRemoveFolder(db, make("/other", true), err);
  ASSERT_OK(err);
  EXPECT_FALSE(Find(db, key("/other/sub2/c.txt")));
  EXPECT_EQ(4u, Count(db));  // /, /data, b2.txt, e.txt
  EXPECT_TRUE(Consistent(db));

  api.DeleteGlusterRecordObject(d);  // the handle may still be dropped afterwards
  d.reset();
  CloseCopyMoveRemove(db, prototype, dir, 4);
}

TEST_F(ClientTest, LustreRecordLifeCycle) {
  const size_t kStat = 48;  // offset of stat_data in the Lustre record image
  const uint64_t kSeq = 0x200000400ULL;
  makeEmpty = [this] {
    WzScanDBLustreRecordPtr record;
    api.CreateLustreEmptyRecordObject(record);
    return WzScanDBRecordBasePtr(record);
  };
  auto fid = [kSeq](uint32_t oid) {
    return oid ? boost::make_shared<LustreAPI::CLustreFID>(kSeq, oid, 0)
               : LustreAPI::CLustreFIDPtr();
  };
  // Records with explicit FIDs: there is no Lustre mount to ask.
  auto make = [this, fid](uint32_t oid, uint32_t parentOid, const std::string& name, bool isDir) {
    WzScanDBLustreRecordPtr record;
    std::string text = name;
    api.CreateLustreRecordObjectFull(record, fid(oid), fid(parentOid), text, isDir, 1);
    return record;
  };
  auto key = [this, fid](uint32_t oid) {
    WzScanDBLustreRecordPtr record;
    api.CreateLustreRecordObjectKey(record, fid(oid));
    return WzScanDBRecordBasePtr(record);
  };
  enum : uint32_t { kRoot = 1, kData, kA, kB, kSub, kC, kOther, kA2 };

  TempDir dir;
  WzScanDBLustreRecordPtr prototype;
  api.CreateLustreEmptyRecordObject(prototype);
  WzScanDBPtr db = Create(prototype, dir.path());
  api.WzScanDBObjectSetRefTime(db, 6000);

  CKoError err;
  WzScanDBLustreRecordPtr root = make(kRoot, 0, "", true);
  ASSERT_TRUE(root->isRoot());
  api.WzScanDBObjectAddFolder(db, root, err);
  ASSERT_OK(err);
  for (auto folder : {make(kData, kRoot, "data", true), make(kSub, kData, "sub", true),
                      make(kOther, kRoot, "other", true)}) {
    api.WzScanDBObjectAddFolder(db, folder, err);
    ASSERT_OK(err);
  }
  for (auto file : {make(kA, kData, "a", false), make(kB, kData, "b", false),
                    make(kC, kSub, "c", false)}) {
    api.WzScanDBObjectAddFile(db, file, err);
    ASSERT_OK(err);
  }
  EXPECT_EQ(7u, Count(db));

  // Look up by FID alone.
  WzScanDBRecordBasePtr a = Find(db, key(kA));
  ASSERT_TRUE(a);
  EXPECT_EQ("a", a->getName());
  EXPECT_FALSE(a->isDir());
  EXPECT_FALSE(Find(db, key(99)));
  WzScanDBLustreRecordPtr typed;
  api.ConvertBaseToLustre(typed, a);
  ASSERT_TRUE(typed);
  EXPECT_EQ(6000u, api.GetLustreRecordRefTime(typed));
  WzScanDBRecordPtr notGeneric;
  api.ConvertBaseToGluster(notGeneric, a);
  EXPECT_FALSE(notGeneric);

  // Update.
  SetStatSize(a, kStat, 4242);
  api.WzScanDBObjectUpdateDBRecord(db, a, err);
  ASSERT_OK(err);
  EXPECT_EQ(4242u, StatSize(Find(db, key(kA)), kStat));

  // Walk and list.
  EXPECT_EQ((std::vector<std::string>{"data", "other", "data/a", "data/b", "data/sub",
                                      "data/sub/c"}),
            Walk(db, root));
  EXPECT_EQ((std::vector<std::string>{"a", "b", "sub"}), FolderItems(db, key(kData)));

  // A Lustre rename keeps the FID: the folder moves under /other by key and
  // its children, linked by its FID, follow. A file that comes back under a
  // new FID is renamed as a file.
  api.WzScanDBObjectRenameByKey(db, key(kSub), make(kSub, kOther, "sub2", true), err);
  ASSERT_OK(err);
  api.WzScanDBObjectRenameFile(db, key(kA), make(kA2, kData, "a2", false), err);
  ASSERT_OK(err);
  EXPECT_FALSE(Find(db, key(kA)));
  EXPECT_EQ((std::vector<std::string>{"a2", "b"}), FolderItems(db, key(kData)));
  EXPECT_EQ((std::vector<std::string>{"sub2", "sub2/c"}), Walk(db, key(kOther)));
  EXPECT_EQ(7u, Count(db));

  // Validate, with and without a record whose parent is missing.
  EXPECT_TRUE(Consistent(db));
  api.WzScanDBObjectAddFile(db, make(50, 51, "lost", false), err);
  ASSERT_OK(err);
  EXPECT_FALSE(Consistent(db));
  api.WzScanDBObjectRemoveFile(db, key(50), err);
  ASSERT_OK(err);
  EXPECT_TRUE(Consistent(db));

  // Suspend and rebuild indexing.
  api.WzScanDBSuspendIndexing(db, err);
  ASSERT_OK(err);
  WzScanDBRecordBasePtr buffer = makeEmpty();
  EXPECT_EQ(TBL_INDEX_SUSPENDED, api.GetNextRecord(db, 1, buffer->getStructure()));
  api.WzScanDBRebuildIndexing(db, err);
  ASSERT_OK(err);
  EXPECT_TRUE(Find(db, key(kC)));

  // Remove a file and a folder with its sub-tree.
  api.WzScanDBObjectRemoveFile(db, key(kB), err);
  ASSERT_OK(err);
  api.WzScanDBObjectRemoveFolder(db, key(kOther), err);
  ASSERT_OK(err);
  EXPECT_FALSE(Find(db, key(kC)));
  EXPECT_FALSE(Find(db, key(kSub)));
  EXPECT_EQ(3u, Count(db));  // root, data, a2
  EXPECT_TRUE(Consistent(db));

  api.DeleteLustreRecordObject(typed);
  typed.reset();
  CloseCopyMoveRemove(db, prototype, dir, 3);
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
  auto pair = [](const WzScanDBRecordBasePtr& record) {
    uint64_t values[2];
    std::memcpy(values, record->getStructure(), sizeof values);
    return std::make_pair(values[0], values[1]);
  };
  typedef std::vector<std::pair<uint64_t, uint64_t>> Pairs;
  // The physical walk through GetFirstRecord / GetNextRecord.
  auto physical = [&](const WzScanDBPtr& handle) {
    Pairs pairs;
    WzScanDBRecordBasePtr buffer = makeEmpty();
    int status = api.GetFirstRecord(handle, -1, buffer->getStructure());
    for (; status == TBL_OK && pairs.size() < 100;
         status = api.GetNextRecord(handle, -1, buffer->getStructure()))
      pairs.push_back(pair(buffer));
    EXPECT_EQ(TBL_NOT_FOUND, status);
    return pairs;
  };

  TempDir dir;
  CBackupTimeRecordPtr prototype;
  api.CreateEmptyBackupTimeRecord(prototype);
  WzScanDBPtr db = Create(prototype, dir.path());
  WzScanDBRecordBasePtr buffer = makeEmpty();
  EXPECT_EQ(TBL_NOT_FOUND, api.GetFirstRecord(db, -1, buffer->getStructure()));

  CKoError err;
  for (auto values : Pairs{{30, 300}, {10, 100}, {20, 200}}) {
    api.WzScanDBObjectAddDBRecord(db, make(values.first, values.second), err);
    ASSERT_OK(err);
  }
  // Adding a stored inode again updates its ctime.
  api.WzScanDBObjectAddDBRecord(db, make(20, 201), err);
  ASSERT_OK(err);

  WzScanDBRecordBasePtr found = Find(db, make(10, 0));
  ASSERT_TRUE(found);
  EXPECT_EQ(std::make_pair(uint64_t(10), uint64_t(100)), pair(found));
  EXPECT_EQ(100u, found->getRefTime());
  EXPECT_FALSE(Find(db, make(11, 100)));
  CBackupTimeRecordPtr typed;
  api.ConvertBaseToBackupTimeRecord(typed, found);
  EXPECT_TRUE(typed);
  WzScanDBLustreRecordPtr notLustre;
  api.ConvertBaseToLustre(notLustre, found);
  EXPECT_FALSE(notLustre);

  api.WzScanDBObjectUpdateDBRecord(db, make(10, 150), err);
  ASSERT_OK(err);
  api.WzScanDBObjectUpdateDBRecord(db, make(99, 1), err);
  ASSERT_TRUE(err.IsError());
  EXPECT_EQ(22, err.GetCode());

  // Delete: the flat record is removed by key.
  api.WzScanDBObjectRemoveFile(db, make(30, 0), err);
  ASSERT_OK(err);
  EXPECT_FALSE(Find(db, make(30, 0)));
  api.WzScanDBObjectRemoveFile(db, make(30, 0), err);  // absent: nothing to do
  ASSERT_OK(err);

  EXPECT_EQ((Pairs{{10, 150}, {20, 201}}), physical(db));
  api.WzScanDBObjectAddDBRecord(db, make(5, 50), err);
  ASSERT_OK(err);
  EXPECT_EQ((Pairs{{10, 150}, {20, 201}, {5, 50}}), physical(db));  // insertion order
  // The key index reads them by inode.
  Pairs byInode;
  for (int status = api.GetFirstRecord(db, 0, buffer->getStructure());
       status == TBL_OK && byInode.size() < 100;
       status = api.GetNextRecord(db, 0, buffer->getStructure()))
    byInode.push_back(pair(buffer));
  EXPECT_EQ((Pairs{{5, 50}, {10, 150}, {20, 201}}), byInode);

  api.WzScanDBObjectClose(db, err);
  EXPECT_OK(err);
  EXPECT_EQ(TBL_NOT_OPEN, api.GetFirstRecord(db, -1, buffer->getStructure()));
  api.DestroyWzScanDBObject(db);
  db.reset();
}

}  // namespace
