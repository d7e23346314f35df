// WzScanDBObjectOpen, GetFirstRecord and GetNextRecord: the engine's open and
// reads, its integer status handed back unchanged (open wraps it in its own
// error at its own location).
#include "ExportsTestSupport.h"
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

// The files of a closed database reopened at the engine level: the object is
// registered with initialize(const char*) and opened by WzScanDBObjectOpen.
TEST_F(ExportsTest, OpenAndReadsOfARealTable) {
  TempDir dir, emptyDir;
  Call(WzScanDBObjectClose, OpenGeneric(dir.path(), {"/b/", "/a"}));
  auto registered = [](const std::string& directory) {
    WzScanDBPtr handle = NewHandle();
    handle->initialize((directory + "/WzScanDB").c_str());
    return handle;
  };
  WzScanDBPtr h = registered(dir.path());
  CKoError err = Stale();
  WzScanDBObjectOpen(h, err, WZIndexing::kAccessCreate);  // open does not create
  ExpectOpenError(err, TBL_BAD_ARGUMENT);
  // Success overwrites whatever the caller's variable held.
  err = Stale();
  WzScanDBObjectOpen(h, err, WZIndexing::kAccessReadWrite);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();

  // Physical order is insertion order; the parent index sorts by name.
  EXPECT_EQ((std::vector<std::string>{"", "b", "a"}), Names(h));
  EXPECT_EQ((std::vector<std::string>{"", "a", "b"}), Names(h, 1));
  WzScanDBRecordBasePtr buffer = Generic("");
  void* bytes = buffer->getStructure();
  EXPECT_EQ(TBL_OK, GetFirstRecord(h, -1, bytes));
  EXPECT_EQ(TBL_OK, GetNextRecord(h, -1, bytes));
  EXPECT_EQ(TBL_OK, GetNextRecord(h, -1, bytes));
  EXPECT_EQ(TBL_NOT_FOUND, GetNextRecord(h, -1, bytes));
  EXPECT_EQ("a", buffer->getName());  // a failed read leaves the buffer alone
  EXPECT_EQ(TBL_BAD_ARGUMENT, GetFirstRecord(h, 99, bytes));
  EXPECT_EQ(TBL_BAD_ARGUMENT, GetFirstRecord(h, 0, nullptr));
  EXPECT_OK(Call(WzScanDBSuspendIndexing, h));
  EXPECT_EQ(TBL_INDEX_SUSPENDED, GetFirstRecord(h, 0, bytes));
  EXPECT_EQ(TBL_INDEX_SUSPENDED, GetNextRecord(h, 0, bytes));
  EXPECT_EQ(TBL_OK, GetFirstRecord(h, -1, bytes));
  EXPECT_OK(Call(WzScanDBRebuildIndexing, h));
  EXPECT_EQ(TBL_OK, GetFirstRecord(h, 0, bytes));

  // Opening an open table, files another object holds, missing files;
  // nothing is logged for any failure.
  capture->Clear();
  WzScanDBObjectOpen(h, err, WZIndexing::kAccessReadWrite);
  ExpectOpenError(err, TBL_ALREADY_OPEN);
  WzScanDBObjectOpen(registered(dir.path()), err, WZIndexing::kAccessReadWrite);
  ExpectOpenError(err, TBL_IN_USE);
  WzScanDBObjectOpen(registered(emptyDir.path()), err, WZIndexing::kAccessReadWrite);
  ExpectOpenError(err, TBL_FILE_MISSING);
  EXPECT_TRUE(capture->Entries().empty());
  EXPECT_OK(Call(WzScanDBObjectClose, h));
  EXPECT_EQ(TBL_NOT_OPEN, GetFirstRecord(h, -1, bytes));
  EXPECT_EQ(TBL_NOT_OPEN, GetNextRecord(h, -1, bytes));
}

// A table whose open and reads answer scripted statuses: the exported
// functions must call the engine virtually and hand back mode, index, buffer
// and status untouched.
class ScriptedEngine : public WzScanDB {
 public:
  explicit ScriptedEngine(WzScanDBRecordBasePtr prototype) : WzScanDB(prototype) {}
  int open(WZIndexing::TAccessEnum mode) override { return Called("O", mode, nullptr, 0); }
  int firstRecord(int index, void* buffer) override { return Called("F", index, buffer, 0); }
  int nextRecord(int index, void* buffer) override { return Called("N", index, buffer, 1); }
  int Called(const char* which, int argument, void* buffer, int offset) {
    calls.push_back(which + std::to_string(argument));
    buffers.push_back(buffer);
    return status + offset;
  }
  int status = 0;
  std::vector<std::string> calls;
  std::vector<void*> buffers;
};

TEST_F(ExportsTest, OpenAndReadsCallTheEngineVirtuallyAndKeepAnyStatus) {
  auto* scripted = new ScriptedEngine(Generic(""));
  WzScanDBPtr h(scripted);
  char buffer[8];
  CKoError err = Stale();
  WzScanDBObjectOpen(h, err, WZIndexing::kAccessReadOnly);
  EXPECT_TRUE(err.IsSuccess());
  for (int status : {-1000, -1, 1, int(TBL_NOT_FOUND), int(TBL_BAD_FORMAT), 123456}) {
    scripted->status = status;
    EXPECT_EQ(status, GetFirstRecord(h, 7, buffer));
    EXPECT_EQ(status + 1, GetNextRecord(h, -3, buffer + 1));
    WzScanDBObjectOpen(h, err, WZIndexing::kAccessReadWrite);
    ExpectOpenError(err, status);
  }
  ASSERT_EQ(19u, scripted->calls.size());
  EXPECT_EQ("O2", scripted->calls[0]);
  for (size_t i = 1; i < scripted->calls.size(); i += 3) {
    EXPECT_EQ("F7", scripted->calls[i]);
    EXPECT_EQ("N-3", scripted->calls[i + 1]);
    EXPECT_EQ("O1", scripted->calls[i + 2]);
    EXPECT_EQ(buffer, scripted->buffers[i]);
    EXPECT_EQ(buffer + 1, scripted->buffers[i + 1]);
  }
}

}  // namespace
}  // namespace exportstest
