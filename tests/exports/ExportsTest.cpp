// The exported database functions, called through the linked library: each
// forwards its arguments in the caller's order to one member and hands back
// that member's error whole, over whatever the caller's variable held; open
// and the record reads hand back the engine's status; empty, destroyed and
// wrong-type handles are answered with errno 22 and change nothing. (Every
// export succeeding, reached through dlsym, is in tests/client.)
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/weak_ptr.hpp>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "WzScanDB/WzHandle.h"
#include "WzScanDB/WzScanDBExports.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/FXFile.h"
#include "support/LogAt.h"
#include "support/TempDir.h"
#include "table/TableStatus.h"

namespace {

// An error the caller left in its variable: must never survive a call.
CKoError Stale() { return FXErrorUtil::ErrorErrNo(FXCodeLocation("tests/exports", "Stale()", 1), 99, "stale"); }
// Calls an exported function whose last argument is the error.
template <class Fn, class... Args>
CKoError Call(Fn fn, Args&&... args) {
  CKoError err = Stale();
  fn(std::forward<Args>(args)..., err);
  return err;
}
CKoError Open(const WzScanDBPtr& h, WZIndexing::TAccessEnum access = WZIndexing::kAccessReadWrite) {
  CKoError err = Stale();
  WzScanDBObjectOpen(h, err, access);
  return err;
}
WzScanDBRecordBasePtr Generic(std::string path, bool isDir = false) {
  WzScanDBRecordPtr record;
  CreateGlusterRecordObject(record, path, isDir, 0);
  return record;
}
WzScanDBPtr NewHandle() {
  WzScanDBPtr handle;
  CreateWzScanDBObject(handle, Generic(""));
  return handle;
}
// A handle for the files in `directory`, registered with the engine-level initialize, not opened.
WzScanDBPtr Registered(const std::string& directory) {
  WzScanDBPtr handle = NewHandle();
  handle->initialize((directory + "/WzScanDB").c_str());
  return handle;
}
// A generic database opened in `directory` through the exports, holding the
// root folder, /d and /d/f.
WzScanDBPtr OpenGeneric(std::string directory) {
  WzScanDBPtr handle = NewHandle();
  EXPECT_TRUE(Call(WzScanDBObjectInitialize, handle, directory).IsSuccess());
  for (const char* folder : {"/", "/d"}) Call(WzScanDBObjectAddFolder, handle, Generic(folder, true));
  EXPECT_TRUE(Call(WzScanDBObjectAddFile, handle, Generic("/d/f")).IsSuccess());
  return handle;
}
bool Stored(const WzScanDBPtr& handle, const std::string& path) {
  bool found = false;
  EXPECT_TRUE(Call(WzScanDBObjectCheckDBRecord, handle, Generic(path), Generic(""), found).IsSuccess());
  return found;
}

class ExportsTest : public ::testing::Test {
 protected:
  void SetUp() override { capture = InstallQuietCapture(0); }
  void TearDown() override { capture->Remove(); }
  std::shared_ptr<CLogCapture> capture;
};

// Each export taking a database handle: its name, the call through it and
// the member's own (none for close and open), and whether the member fails
// in words of its own on an opened database (else on one never initialised).
struct Export {
  const char* name;
  std::function<CKoError(const WzScanDBPtr&)> exported;
  std::function<CKoError(WzScanDB&)> direct;
  bool opened;
};
std::vector<Export> Exports() {
  static const WzScanDBRecordBasePtr none, absent = Generic("/absent"), other = Generic("/other"),
                                           folder = Generic("/absentFolder", true), n = Generic("/n", true);
  static WzScanDBRecordBasePtr item;
  static std::string text;
  static std::vector<WzScanDBRecordBasePtr> items;
  static bool flag;
  // clang-format off
#define EXPORT(name, opened, member, ...)                                                                  \
  Export{#name, [](const WzScanDBPtr& h) { return Call(name, h, ##__VA_ARGS__); },                       \
         [](WzScanDB& db) { return db.member(__VA_ARGS__); }, opened}
  // clang-format on
  return {
      EXPORT(WzScanDBObjectAddFile, true, addFile, none),
      EXPORT(WzScanDBObjectAddFolder, true, addFolder, none),
      EXPORT(WzScanDBObjectRemoveFile, true, removeFile, none),
      EXPORT(WzScanDBObjectRemoveFolder, true, removeFolder, none),
      EXPORT(WzScanDBObjectRenameFile, true, renameFile, none, absent),
      EXPORT(WzScanDBObjectRenameByKey, true, renameByKey, absent, other),
      EXPORT(WzScanDBObjectRenameFolder, true, renameFolder, folder, n, "/absentFolder", "/n"),
      EXPORT(WzScanDBObjectAddRecordWithoutCheck, true, addRecordWithoutCheck, none),
      EXPORT(WzScanDBObjectCheckDBRecord, true, checkDBRecord, absent, none, flag),
      EXPORT(WzScanDBObjectUpdateDBRecord, true, updateDBRecord, absent),
      EXPORT(WzScanDBObjectGetFirstItem, true, getFirstItem, folder, item, text),
      EXPORT(WzScanDBObjectInitialize, false, initialize, text = ""),
      EXPORT(WzScanDBObjectAddDBRecord, false, addDBRecord, absent),
      EXPORT(WzScanDBObjectGetFolderItems, false, getChildren, folder, items),
      EXPORT(WzScanDBObjectValidateTree, false, validateTree, flag),
      EXPORT(WzScanDBSuspendIndexing, false, suspendIndex),
      EXPORT(WzScanDBRebuildIndexing, false, rebuildIndex),
      EXPORT(WzScanDBObjectGetNextItem, false, getNextItem, item, text),
      {"WzScanDBObjectClose", [](const WzScanDBPtr& h) { return Call(WzScanDBObjectClose, h); }, nullptr, false},
      {"WzScanDBObjectOpen", [](const WzScanDBPtr& h) { return Open(h); }, nullptr, false},
  };
#undef EXPORT
}

TEST_F(ExportsTest, EveryExportHandsBackItsMembersOwnErrorWholeAndRefusesUnusableHandles) {
  TempDir dir;
  const WzScanDBPtr opened = OpenGeneric(dir.path()), never = NewHandle();
  WzScanDBPtr destroyed = NewHandle();
  DestroyWzScanDBObject(destroyed);
  for (const Export& e : Exports()) {
    SCOPED_TRACE(e.name);
    if (e.direct) {  // the member's own error, so the right member with the arguments in order
      const WzScanDBPtr& h = e.opened ? opened : never;
      const CKoError direct = e.direct(*h);
      ASSERT_TRUE(direct.IsError());
      EXPECT_EQ(e.exported(h).AsString(), direct.AsString());
    }
    // Empty and destroyed database handles: errno 22 made by the export itself.
    for (const WzScanDBPtr& h : {WzScanDBPtr(), destroyed}) {
      const CKoError err = e.exported(h);
      ASSERT_EQ(err.GetFrames().size(), 1u);
      EXPECT_EQ(std::to_string(err.GetCode()) + " " + err.GetTopMessage(),
                h ? "22 The database handle refers to a destroyed database object" : "22 The database handle is NULL");
      EXPECT_EQ(err.GetKind(), EKoErrorKind::kErrNo);
      EXPECT_STREQ(err.GetFrames()[0].location.file, "WzScanDB/WzScanDBExports");
      EXPECT_EQ(std::string(err.GetFrames()[0].location.function).rfind("void " + std::string(e.name) + "(", 0), 0u);
      // and a neutral result where there is no error
      EXPECT_FALSE(WzScanDBObjectIsInitialized(h));
      WzScanDBObjectSetRefTime(h, 5);
      EXPECT_EQ(GetFirstRecord(h, -1, Generic("")->getStructure()), TBL_BAD_ARGUMENT);
      EXPECT_EQ(GetNextRecord(h, -1, Generic("")->getStructure()), TBL_BAD_ARGUMENT);
    }
  }
  Call(WzScanDBObjectClose, opened);
}

TEST_F(ExportsTest, FileFunctionsKeepTheCallersOrderAndTakeAnyHandle) {
  TempDir a, b, none;
  Call(WzScanDBObjectClose, OpenGeneric(a.path()));
  const WzScanDBPtr h;
  EXPECT_TRUE(Call(WzScanDBObjectCopy, h, a.path(), b.path()).IsSuccess());
  EXPECT_TRUE(Call(WzScanDBObjectRemove, h, a.path()).IsSuccess());
  EXPECT_TRUE(Call(WzScanDBObjectMove, h, b.path(), a.path()).IsSuccess());
  EXPECT_TRUE(FXFile::Exists(a / "WzScanDB.idx") && !FXFile::Exists(b / "WzScanDB.dat"));
  // Failures are the members' own errors, naming the directories in order.
  const std::string x = none.path(), y = b.path();
  EXPECT_EQ(Call(WzScanDBObjectMove, h, x, y).AsString(), WzScanDB::move(x, y).AsString());
  EXPECT_EQ(Call(WzScanDBObjectCopy, h, x, y).AsString(), WzScanDB::copy(x, y).AsString());
  EXPECT_EQ(Call(WzScanDBObjectRemove, h, x).AsString(), WzScanDB::remove(x).AsString());
}

// A generic record that refuses to be cloned, which every lookup does first.
struct UncloneableRecord : WzScanDBRecord {
  UncloneableRecord(const std::string& path, bool isDir) : WzScanDBRecord(path, isDir, 0) {}
  WzScanDBRecordBasePtr Clone() override { throw std::runtime_error("clone refused"); }
};

// Nothing is caught: the exception reaches the caller, and the function's
// own copies of the record handles are gone by then.
TEST_F(ExportsTest, ExceptionsPassThroughAndReleaseTheCopies) {
  TempDir dir;
  WzScanDBPtr h = OpenGeneric(dir.path());
  WzScanDBRecordBasePtr record(new UncloneableRecord("/f", false)), target = Generic("/g");
  EXPECT_THROW(Call(WzScanDBObjectRenameByKey, h, record, target), std::runtime_error);
  EXPECT_TRUE(record.use_count() == 1 && target.use_count() == 1);
  EXPECT_TRUE(Call(WzScanDBObjectAddFile, h, Generic("/f")).IsSuccess() && Stored(h, "/f")) << "it goes on working";
  Call(WzScanDBObjectClose, h);
}

// The open error: errno kind, the engine's status as its code, one frame at
// the export's own location.
void ExpectOpenError(const CKoError& err, int status) {
  ASSERT_EQ(err.GetFrames().size(), 1u) << err.AsString();
  EXPECT_EQ(err.GetKind(), EKoErrorKind::kErrNo);
  EXPECT_EQ(err.GetCode(), status);
  const CKoErrorFrame& frame = err.GetFrames()[0];
  EXPECT_EQ(std::string(frame.location.file) + ":" + std::to_string(frame.location.line) + " " +
                frame.location.function + ": " + frame.message,
            "WzScanDB/WzScanDBExports:70 void WzScanDBObjectOpen(WzScanDBPtr, CKoError&, WZIndexing::TAccessEnum): "
            "Failed to open Scan DB");
}

// The files of a closed database reopened at the engine level.
TEST_F(ExportsTest, OpenAndReadsOfARealTableHandBackTheEnginesStatus) {
  TempDir dir, emptyDir;
  Call(WzScanDBObjectClose, OpenGeneric(dir.path()));
  WzScanDBPtr h = Registered(dir.path());
  ExpectOpenError(Open(h, WZIndexing::kAccessCreate), TBL_BAD_ARGUMENT);  // open does not create
  ASSERT_TRUE(Open(h).IsSuccess());
  capture->Clear();
  ExpectOpenError(Open(h), TBL_ALREADY_OPEN);
  ExpectOpenError(Open(Registered(dir.path())), TBL_IN_USE);
  ExpectOpenError(Open(Registered(emptyDir.path())), TBL_FILE_MISSING);
  EXPECT_TRUE(capture->Entries().empty()) << "nothing is logged for a failure";

  // Physical order is insertion order; a failed read leaves the buffer alone.
  WzScanDBRecordBasePtr buffer = Generic("");
  void* bytes = buffer->getStructure();
  std::string names;
  for (int s = GetFirstRecord(h, -1, bytes); s == TBL_OK; s = GetNextRecord(h, -1, bytes))
    names += buffer->getName() + "|";
  EXPECT_EQ(names, "|d|f|");
  EXPECT_EQ(GetNextRecord(h, -1, bytes), TBL_NOT_FOUND);
  EXPECT_EQ(buffer->getName(), "f");
  EXPECT_EQ(GetFirstRecord(h, 0, nullptr), TBL_BAD_ARGUMENT);
  EXPECT_TRUE(Call(WzScanDBObjectClose, h).IsSuccess());
  EXPECT_EQ(GetNextRecord(h, -1, bytes), TBL_NOT_OPEN);
}

TEST_F(ExportsTest, CreateAndDestroyHandles) {
  WzScanDBRecordPtr prototype;
  CreateGlusterEmptyRecordObject(prototype);
  WzScanDBPtr handle;
  CreateWzScanDBObject(handle, prototype);
  boost::weak_ptr<WzScanDB> first = handle;
  CreateWzScanDBObject(handle, prototype);
  EXPECT_TRUE(first.expired()) << "a second create into the handle releases the first object";
  EXPECT_EQ(prototype.use_count(), 1) << "each database holds a clone of the prototype";
  // The caller destroys its prototype outright; the database must not notice
  // (under AddressSanitizer a shared prototype would be a use after free).
  DeleteGlusterRecordObject(prototype);
  TempDir dir;
  std::string path = dir.path();
  ASSERT_TRUE(Call(WzScanDBObjectInitialize, handle, path).IsSuccess());
  EXPECT_TRUE(Call(WzScanDBObjectAddFile, handle, Generic("/f")).IsSuccess() && Stored(handle, "/f"));
  ASSERT_TRUE(Call(WzScanDBObjectClose, handle).IsSuccess());

  // A table opened at the engine level holds its files until its object is
  // destroyed; destroying leaves the handle as it is, and destroying again or
  // dropping the handle afterwards is harmless.
  DestroyWzScanDBObject(WzScanDBPtr());
  WzScanDBPtr opened = Registered(path), alias = opened;
  ASSERT_TRUE(Open(opened).IsSuccess());
  EXPECT_EQ(Call(WzScanDBObjectInitialize, NewHandle(), path).GetCode(), TBL_IN_USE);
  WzScanDB* const object = opened.get();
  DestroyWzScanDBObject(opened);
  EXPECT_TRUE(opened.get() == object && opened.use_count() == 2);
  EXPECT_TRUE(boost::get_deleter<CWzHandleDeleter>(alias)->destroyed);
  DestroyWzScanDBObject(alias);
  WzScanDBPtr reader = NewHandle();
  ASSERT_TRUE(Call(WzScanDBObjectInitialize, reader, path).IsSuccess()) << "the destructor closed the table";
  EXPECT_TRUE(Stored(reader, "/f"));
  Call(WzScanDBObjectClose, reader);
}

// Record handles that cannot be used are refused before anything changes: a
// destroyed record by the export, a wrong-type one by the member (errno 22
// either way); the record functions give neutral results for them.
TEST_F(ExportsTest, DestroyedAndWrongTypeRecordsChangeNothing) {
  TempDir dir;
  WzScanDBPtr h = OpenGeneric(dir.path());
  WzScanDBRecordPtr gone;
  std::string gonePath = "/gone";
  CreateGlusterRecordObject(gone, gonePath, false, 7);
  DeleteGlusterRecordObject(gone);
  WzScanDBLustreRecordPtr lustre;
  CreateLustreEmptyRecordObject(lustre);
  const WzScanDBRecordBasePtr d = Generic("/d", true);
  std::vector<WzScanDBRecordBasePtr> items{d};
  for (const auto& [err, top] : {std::make_pair(Call(WzScanDBObjectRenameFolder, h, d, gone, "/d", "/e"),
                                                "A record handle refers to a destroyed record object"),
                                 std::make_pair(Call(WzScanDBObjectGetFolderItems, h, lustre, items),
                                                "The given record of type WzScanDBLustreRecord is not of the "
                                                "database's record type WzScanDBRecord")})
    EXPECT_EQ(std::to_string(err.GetCode()) + " " + err.GetTopMessage(), std::string("22 ") + top);
  EXPECT_TRUE(items.empty() && Stored(h, "/d/f") && !Stored(h, "/e/f"));
  Call(WzScanDBObjectClose, h);

  WzScanDBRecordBasePtr clone = d;
  WzScanDBRecordPtr converted = gone;
  std::string guid = "stale";
  struct stat status;
  std::memset(&status, 0xff, sizeof status);
  CloneGlusterRecordObject(clone, gone);
  ConvertBaseToGluster(converted, gone);
  WzScanDBGetParentGUID(gone, guid);
  WzScanDBGetStatData(WzScanDBRecordPtr(), status);
  EXPECT_TRUE(!clone && !converted && guid.empty() && status.st_size == 0);
  EXPECT_EQ(GetGlusterRecordRefTime(gone) + GetLustreRecordRefTime(WzScanDBLustreRecordPtr()), 0u);
}

}  // namespace
