// Creation, destruction, initialisation and the open call of database
// handles through the exported functions.
#include <boost/weak_ptr.hpp>

#include "ExportsTestSupport.h"
#include "WzScanDB/WzHandle.h"
#include "table/TableStatus.h"

namespace exportstest {
namespace {

void ExpectOpenError(const CKoError& err, int status) {
  ASSERT_TRUE(err.IsError());
  EXPECT_EQ(EKoErrorKind::kErrNo, err.GetKind());
  EXPECT_EQ(status, err.GetCode());
  ASSERT_EQ(1u, err.GetFrames().size()) << err.AsString();
  const CKoErrorFrame& frame = err.GetFrames()[0];
  EXPECT_STREQ("WzScanDB/WzScanDBExports", frame.location.file);
  EXPECT_STREQ("void WzScanDBObjectOpen(WzScanDBPtr, CKoError&, WZIndexing::TAccessEnum)",
               frame.location.function);
  EXPECT_EQ(70, frame.location.line);
  EXPECT_EQ("Failed to open Scan DB", frame.message);
}

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
  CKoError err = Stale();
  WzScanDBObjectInitialize(handle, path, err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_TRUE(WzScanDBObjectIsInitialized(handle));
  WzScanDBObjectAddFile(handle, Generic("/f"), err);
  EXPECT_TRUE(Stored(handle, "/f"));
  err = Stale();
  WzScanDBObjectClose(handle, err);
  EXPECT_TRUE(err.IsSuccess());
  EXPECT_FALSE(WzScanDBObjectIsInitialized(handle));

  // A null prototype gives a database that refuses to initialise.
  WzScanDBPtr empty;
  CreateWzScanDBObject(empty, WzScanDBRecordBasePtr());
  ASSERT_TRUE(empty);
  WzScanDBObjectInitialize(empty, path, err);
  EXPECT_EQ(22, err.GetCode());
  EXPECT_EQ("Cannot Initialize Database because the Record Structure is not initialized",
            err.GetTopMessage());
}

TEST_F(ExportsTest, DestroyLeavesTheHandleAndDroppingItIsHarmless) {
  DestroyWzScanDBObject(WzScanDBPtr());  // nothing to do, nothing fails
  TempDir dir;
  std::string path = dir.path();
  CKoError err;
  WzScanDBPtr writer = OpenGeneric(path, {"/f"});
  WzScanDBObjectClose(writer, err);
  DestroyWzScanDBObject(writer);
  writer.reset();

  // A table opened at the engine level holds the files' lock until the
  // object is destroyed: a second database cannot open them meanwhile.
  WzScanDBPtr handle = NewHandle();
  handle->initialize((path + "/WzScanDB").c_str());
  WzScanDBObjectOpen(handle, err, WZIndexing::kAccessReadWrite);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  WzScanDBObjectInitialize(NewHandle(), path, err);
  EXPECT_EQ(TBL_IN_USE, err.GetCode());

  WzScanDB* const object = handle.get();
  WzScanDBPtr alias = handle;
  DestroyWzScanDBObject(handle);
  EXPECT_EQ(object, handle.get());  // neither reset nor released
  EXPECT_EQ(2, handle.use_count());
  EXPECT_TRUE(boost::get_deleter<CWzHandleDeleter>(alias)->destroyed);
  DestroyWzScanDBObject(alias);  // already destroyed: nothing more happens

  // The destructor closed the table: the files are free again.
  WzScanDBPtr reader = NewHandle();
  WzScanDBObjectInitialize(reader, path, err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_TRUE(Stored(reader, "/f"));
  WzScanDBObjectClose(reader, err);
  handle.reset();  // the deleter knows the object is gone
  alias.reset();
}

// The files of a closed database reopened at the engine level: the object is
// registered with initialize(const char*) and opened by WzScanDBObjectOpen.
TEST_F(ExportsTest, OpenReportsTheEngineStatusAtItsOwnLocation) {
  TempDir dir, emptyDir;
  CKoError err;
  WzScanDBObjectClose(OpenGeneric(dir.path(), {"/d/", "/d/f"}), err);
  auto registered = [](const std::string& directory) {
    WzScanDBPtr handle = NewHandle();
    handle->initialize((directory + "/WzScanDB").c_str());
    return handle;
  };
  WzScanDBPtr handle = registered(dir.path());
  err = Stale();
  WzScanDBObjectOpen(handle, err, WZIndexing::kAccessCreate);  // open does not create
  ExpectOpenError(err, TBL_BAD_ARGUMENT);

  // Success overwrites whatever the caller's variable held.
  err = Stale();
  WzScanDBObjectOpen(handle, err, WZIndexing::kAccessReadWrite);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_TRUE(err.GetFrames().empty());
  EXPECT_EQ((std::vector<std::string>{"", "d", "f"}), Names(handle));

  // Opening an open table, files another object holds, missing files;
  // nothing is logged for any failure.
  capture->Clear();
  err = Stale();
  WzScanDBObjectOpen(handle, err, WZIndexing::kAccessReadWrite);
  ExpectOpenError(err, TBL_ALREADY_OPEN);
  WzScanDBObjectOpen(registered(dir.path()), err, WZIndexing::kAccessReadOnly);
  ExpectOpenError(err, TBL_IN_USE);
  WzScanDBObjectOpen(registered(emptyDir.path()), err, WZIndexing::kAccessReadWrite);
  ExpectOpenError(err, TBL_FILE_MISSING);
  EXPECT_TRUE(capture->Entries().empty());
}

// The open call reaches the engine virtually and passes the mode through.
class ScriptedOpen : public WzScanDB {
 public:
  explicit ScriptedOpen(WzScanDBRecordBasePtr prototype) : WzScanDB(prototype) {}
  int open(WZIndexing::TAccessEnum mode) override {
    modes.push_back(mode);
    return status;
  }
  int status = 0;
  std::vector<int> modes;
};

TEST_F(ExportsTest, OpenCallsTheEngineVirtuallyAndKeepsAnyStatus) {
  auto* scripted = new ScriptedOpen(Generic(""));
  WzScanDBPtr handle(scripted);
  CKoError err = Stale();
  WzScanDBObjectOpen(handle, err, WZIndexing::kAccessReadOnly);
  EXPECT_TRUE(err.IsSuccess());
  for (int status : {-1, 1, int(TBL_BAD_FORMAT), 70000}) {
    scripted->status = status;
    WzScanDBObjectOpen(handle, err, WZIndexing::kAccessReadWrite);
    ExpectOpenError(err, status);
  }
  EXPECT_EQ((std::vector<int>{2, 1, 1, 1, 1}), scripted->modes);
}

}  // namespace
}  // namespace exportstest
