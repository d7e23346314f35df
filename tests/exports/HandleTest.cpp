// Creation, destruction and initialisation of database handles through the
// exported functions.
#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <boost/weak_ptr.hpp>

#include "ExportsTestSupport.h"
#include "WzScanDB/WzHandle.h"
#include "table/TableStatus.h"

namespace exportstest {
namespace {

TEST_F(ExportsTest, CreateReplacesTheHandleAndKeepsItsOwnPrototype) {
  WzScanDBRecordPtr prototype;
  CreateGlusterEmptyRecordObject(prototype);
  const long uses = prototype.use_count();
  WzScanDBPtr handle;
  CreateWzScanDBObject(handle, prototype);
  ASSERT_TRUE(handle && boost::get_deleter<CWzHandleDeleter>(handle));
  EXPECT_FALSE(WzScanDBObjectIsInitialized(handle));
  EXPECT_EQ(uses, prototype.use_count()) << "the database holds a clone";
  // A second create into the same handle releases the first object.
  boost::weak_ptr<WzScanDB> first = handle;
  CreateWzScanDBObject(handle, prototype);
  EXPECT_TRUE(first.expired());

  // The caller destroys its prototype outright; the database must not notice
  // (under AddressSanitizer a shared prototype would be a use after free).
  DeleteGlusterRecordObject(prototype);
  TempDir dir;
  std::string path = dir.path();
  ASSERT_TRUE(Call(WzScanDBObjectInitialize, handle, path).IsSuccess());
  EXPECT_TRUE(WzScanDBObjectIsInitialized(handle));
  EXPECT_OK(Call(WzScanDBObjectAddFile, handle, Generic("/f")));
  EXPECT_TRUE(Stored(handle, "/f"));
  EXPECT_OK(Call(WzScanDBObjectClose, handle));
  EXPECT_FALSE(WzScanDBObjectIsInitialized(handle));

  // A null prototype gives a database that refuses to initialise.
  WzScanDBPtr empty;
  CreateWzScanDBObject(empty, WzScanDBRecordBasePtr());
  ASSERT_TRUE(empty);
  CKoError err = Call(WzScanDBObjectInitialize, empty, path);
  EXPECT_EQ(22, err.GetCode());
  EXPECT_EQ("Cannot Initialize Database because the Record Structure is not initialized",
            err.GetTopMessage());
}

TEST_F(ExportsTest, DestroyLeavesTheHandleAndDroppingItIsHarmless) {
  DestroyWzScanDBObject(WzScanDBPtr());  // nothing to do, nothing fails
  TempDir dir;
  std::string path = dir.path();
  WzScanDBPtr writer = OpenGeneric(path, {"/f"});
  Call(WzScanDBObjectClose, writer);
  DestroyWzScanDBObject(writer);
  writer.reset();

  // A table opened at the engine level holds the files' lock until the
  // object is destroyed: a second database cannot open them meanwhile.
  WzScanDBPtr handle = NewHandle();
  handle->initialize((path + "/WzScanDB").c_str());
  CKoError err;
  WzScanDBObjectOpen(handle, err, WZIndexing::kAccessReadWrite);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_EQ(TBL_IN_USE, Call(WzScanDBObjectInitialize, NewHandle(), path).GetCode());

  WzScanDB* const object = handle.get();
  WzScanDBPtr alias = handle;
  DestroyWzScanDBObject(handle);
  EXPECT_EQ(object, handle.get());  // neither reset nor released
  EXPECT_EQ(2, handle.use_count());
  EXPECT_TRUE(boost::get_deleter<CWzHandleDeleter>(alias)->destroyed);
  DestroyWzScanDBObject(alias);  // already destroyed: nothing more happens

  // The destructor closed the table: the files are free again.
  WzScanDBPtr reader = NewHandle();
  ASSERT_TRUE(Call(WzScanDBObjectInitialize, reader, path).IsSuccess());
  EXPECT_TRUE(Stored(reader, "/f"));
  Call(WzScanDBObjectClose, reader);
  handle.reset();  // the deleter knows the object is gone
  alias.reset();
}

// Empty and destroyed database handles are answered, never used: errno 22,
// made by the export itself, in every error argument (the file functions do
// not use their handle and take any); a neutral result where there is none.
TEST_F(ExportsTest, EmptyAndDestroyedDatabaseHandlesAreRefusedByEveryExport) {
  TempDir dir;
  std::string path = dir.path();
  WzScanDBPtr destroyed = OpenGeneric(path, {"/d/"});
  Call(WzScanDBObjectClose, destroyed);
  DestroyWzScanDBObject(destroyed);
  const WzScanDBRecordBasePtr d = Generic("/d", true), e = Generic("/e", true);
  WzScanDBRecordBasePtr item;
  std::string text;
  bool flag = false;
  std::vector<WzScanDBRecordBasePtr> items;
  for (const WzScanDBPtr& h : {WzScanDBPtr(), destroyed}) {
    const std::vector<std::pair<const char*, std::function<CKoError()>>> calls = {
        {"WzScanDBObjectInitialize", [&] { return Call(WzScanDBObjectInitialize, h, path); }},
        {"WzScanDBObjectOpen",
         [&] {
           CKoError err = Stale();
           WzScanDBObjectOpen(h, err, WZIndexing::kAccessReadOnly);
           return err;
         }},
        {"WzScanDBObjectClose", [&] { return Call(WzScanDBObjectClose, h); }},
        {"WzScanDBSuspendIndexing", [&] { return Call(WzScanDBSuspendIndexing, h); }},
        {"WzScanDBRebuildIndexing", [&] { return Call(WzScanDBRebuildIndexing, h); }},
        {"WzScanDBObjectAddDBRecord", [&] { return Call(WzScanDBObjectAddDBRecord, h, d); }},
        {"WzScanDBObjectCheckDBRecord",
         [&] { return Call(WzScanDBObjectCheckDBRecord, h, d, e, flag); }},
        {"WzScanDBObjectUpdateDBRecord", [&] { return Call(WzScanDBObjectUpdateDBRecord, h, d); }},
        {"WzScanDBObjectAddRecordWithoutCheck",
         [&] { return Call(WzScanDBObjectAddRecordWithoutCheck, h, d); }},
        {"WzScanDBObjectAddFile", [&] { return Call(WzScanDBObjectAddFile, h, d); }},
        {"WzScanDBObjectAddFolder", [&] { return Call(WzScanDBObjectAddFolder, h, d); }},
        {"WzScanDBObjectRemoveFile", [&] { return Call(WzScanDBObjectRemoveFile, h, d); }},
        {"WzScanDBObjectRemoveFolder", [&] { return Call(WzScanDBObjectRemoveFolder, h, d); }},
        {"WzScanDBObjectRenameFile", [&] { return Call(WzScanDBObjectRenameFile, h, d, e); }},
        {"WzScanDBObjectRenameFolder",
         [&] { return Call(WzScanDBObjectRenameFolder, h, d, e, "/d", "/e"); }},
        {"WzScanDBObjectRenameByKey", [&] { return Call(WzScanDBObjectRenameByKey, h, d, e); }},
        {"WzScanDBObjectValidateTree", [&] { return Call(WzScanDBObjectValidateTree, h, flag); }},
        {"WzScanDBObjectGetFirstItem",
         [&] { return Call(WzScanDBObjectGetFirstItem, h, d, item, text); }},
        {"WzScanDBObjectGetNextItem", [&] { return Call(WzScanDBObjectGetNextItem, h, item, text); }},
        {"WzScanDBObjectGetFolderItems",
         [&] { return Call(WzScanDBObjectGetFolderItems, h, d, items); }},
    };
    for (const auto& [name, call] : calls) {
      const CKoError err = call();
      EXPECT_EQ(EKoErrorKind::kErrNo, err.GetKind()) << name;
      EXPECT_EQ(22, err.GetCode()) << name;
      EXPECT_EQ(h ? "The database handle refers to a destroyed database object"
                  : "The database handle is NULL",
                err.GetTopMessage())
          << name;
      ASSERT_EQ(1u, err.GetFrames().size()) << name;
      EXPECT_STREQ("WzScanDB/WzScanDBExports", err.GetFrames()[0].location.file);
      EXPECT_EQ(0u, std::string(err.GetFrames()[0].location.function).find("void " +
                                                                         std::string(name) + "("))
          << err.GetFrames()[0].location.function;
    }
    EXPECT_FALSE(WzScanDBObjectIsInitialized(h));
    WzScanDBObjectSetRefTime(h, 5);
    EXPECT_EQ(TBL_BAD_ARGUMENT, GetFirstRecord(h, -1, d->getStructure()));
    EXPECT_EQ(TBL_BAD_ARGUMENT, GetNextRecord(h, -1, d->getStructure()));
  }
  EXPECT_TRUE(items.empty());
  EXPECT_EQ("", text);
}

// Record handles that cannot be used are refused before anything changes:
// a destroyed record by the export, an empty or wrong-type one by the member
// (errno 22 either way); the record functions give neutral results.
TEST_F(ExportsTest, EmptyDestroyedAndWrongTypeRecordsChangeNothing) {
  TempDir dir;
  WzScanDBPtr h = OpenGeneric(dir.path(), {"/d/", "/d/f"});
  WzScanDBRecordPtr gone;
  std::string gonePath = "/gone";
  CreateGlusterRecordObject(gone, gonePath, false, 7);
  DeleteGlusterRecordObject(gone);
  CBackupTimeRecordPtr flat;
  CreateBackupTimeRecord(flat, 1, 2);
  WzScanDBLustreRecordPtr lustre;
  CreateLustreEmptyRecordObject(lustre);
  const WzScanDBRecordBasePtr none, d = Generic("/d", true);
  WzScanDBRecordBasePtr item = d;
  std::string path = "kept";
  std::vector<WzScanDBRecordBasePtr> items{d};
  auto typeText = [](const std::string& type) {
    return "The given record of type " + type +
           " is not of the database's record type WzScanDBRecord";
  };
  const std::vector<std::string> before = Names(h);
  const std::vector<std::tuple<const char*, std::function<CKoError()>, std::string>> calls = {
      {"AddFile", [&] { return Call(WzScanDBObjectAddFile, h, gone); },
       "A record handle refers to a destroyed record object"},
      {"RenameFolder", [&] { return Call(WzScanDBObjectRenameFolder, h, d, none, "/d", "/e"); },
       "One or both of the given records for Rename Folder is NULL"},
      {"RenameFolder", [&] { return Call(WzScanDBObjectRenameFolder, h, d, flat, "/d", "/e"); },
       typeText("CBackupTimeRecord")},
      {"GetFolderItems", [&] { return Call(WzScanDBObjectGetFolderItems, h, none, items); },
       "The folder record to list the children of is NULL"},
      {"GetFolderItems", [&] { return Call(WzScanDBObjectGetFolderItems, h, lustre, items); },
       typeText("WzScanDBLustreRecord")},
      {"GetFirstItem", [&] { return Call(WzScanDBObjectGetFirstItem, h, none, item, path); },
       "The start folder of the item walk is NULL"},
      {"RenameFile", [&] { return Call(WzScanDBObjectRenameFile, h, flat, Generic("/new")); },
       typeText("CBackupTimeRecord")},
  };
  for (const auto& [name, call, top] : calls) {
    const CKoError err = call();
    EXPECT_EQ(22, err.GetCode()) << name;
    EXPECT_EQ(top, err.GetTopMessage()) << name;
  }
  EXPECT_EQ(before, Names(h));
  EXPECT_TRUE(items.empty());
  EXPECT_EQ(d, item);
  EXPECT_EQ("kept", path);
  Call(WzScanDBObjectClose, h);

  WzScanDBRecordBasePtr clone = d;
  CloneGlusterRecordObject(clone, gone);
  EXPECT_FALSE(clone);
  EXPECT_EQ(0u, GetGlusterRecordRefTime(gone));
  EXPECT_EQ(0u, GetLustreRecordRefTime(WzScanDBLustreRecordPtr()));
  WzScanDBRecordPtr converted = gone;
  ConvertBaseToGluster(converted, gone);
  EXPECT_FALSE(converted);
  std::string guid = "stale";
  WzScanDBGetParentGUID(gone, guid);
  EXPECT_EQ("", guid);
  struct stat status;
  std::memset(&status, 0xff, sizeof status);
  WzScanDBGetStatData(WzScanDBRecordPtr(), status);
  EXPECT_EQ(0, status.st_size);
}

}  // namespace
}  // namespace exportstest
