// GetFirstRecord / GetNextRecord: the engine's reads, with its integer status
// handed back unchanged.
#include "ExportsTestSupport.h"
#include "table/TableStatus.h"

namespace exportstest {
namespace {

TEST_F(ExportsTest, RecordReadsReturnTheEngineStatusUnchanged) {
  TempDir dir;
  WzScanDBPtr h = OpenGeneric(dir.path());
  Add(h, "/b", true);
  Add(h, "/a", false);
  WzScanDBRecordBasePtr buffer = Generic("", false);
  void* bytes = buffer->getStructure();

  // Physical order: insertion order, then the engine's end status.
  EXPECT_EQ((std::vector<std::string>{"", "b", "a"}), Names(h));
  EXPECT_EQ(TBL_OK, GetFirstRecord(h, -1, bytes));
  EXPECT_EQ(TBL_OK, GetNextRecord(h, -1, bytes));
  EXPECT_EQ(TBL_OK, GetNextRecord(h, -1, bytes));
  EXPECT_EQ(TBL_NOT_FOUND, GetNextRecord(h, -1, bytes));
  EXPECT_EQ("a", buffer->getName());  // a failed read leaves the buffer alone

  // Parent index (1): the root's children sorted by name come after the root.
  std::vector<std::string> byParent;
  for (int status = GetFirstRecord(h, 1, bytes); status == TBL_OK && byParent.size() < 10;
       status = GetNextRecord(h, 1, bytes))
    byParent.push_back(buffer->getName());
  EXPECT_EQ((std::vector<std::string>{"", "a", "b"}), byParent);

  // Statuses other than success and the end pass through as they are.
  EXPECT_EQ(TBL_BAD_ARGUMENT, GetFirstRecord(h, 99, bytes));
  EXPECT_EQ(h->firstRecord(99, bytes), GetFirstRecord(h, 99, bytes));
  EXPECT_EQ(TBL_BAD_ARGUMENT, GetFirstRecord(h, 0, nullptr));
  CKoError err;
  WzScanDBSuspendIndexing(h, err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_EQ(TBL_INDEX_SUSPENDED, GetFirstRecord(h, 0, bytes));
  EXPECT_EQ(TBL_OK, GetFirstRecord(h, -1, bytes));
  EXPECT_EQ(TBL_INDEX_SUSPENDED, GetNextRecord(h, 0, bytes));
  WzScanDBRebuildIndexing(h, err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_EQ(TBL_OK, GetFirstRecord(h, 0, bytes));

  WzScanDBObjectClose(h, err);
  EXPECT_EQ(TBL_NOT_OPEN, GetFirstRecord(h, -1, bytes));
  EXPECT_EQ(TBL_NOT_OPEN, GetNextRecord(h, -1, bytes));
}

// A table whose reads answer scripted statuses: the exported reads must call
// the engine virtually and hand back index, buffer and status untouched.
class ScriptedReads : public WzScanDB {
 public:
  explicit ScriptedReads(WzScanDBRecordBasePtr prototype) : WzScanDB(prototype) {}
  int firstRecord(int index, void* buffer) override {
    calls.push_back({'F', index, buffer});
    return status;
  }
  int nextRecord(int index, void* buffer) override {
    calls.push_back({'N', index, buffer});
    return status + 1;
  }
  struct Call {
    char which;
    int index;
    void* buffer;
  };
  int status = 0;
  std::vector<Call> calls;
};

TEST_F(ExportsTest, RecordReadsCallTheEngineVirtually) {
  auto* scripted = new ScriptedReads(Generic("", false));
  WzScanDBPtr h(scripted);
  char buffer[8];
  for (int status : {-1000, -1, 0, int(TBL_NOT_FOUND), int(TBL_IO_ERROR), 123456}) {
    scripted->status = status;
    EXPECT_EQ(status, GetFirstRecord(h, 7, buffer));
    EXPECT_EQ(status + 1, GetNextRecord(h, -3, buffer + 1));
  }
  ASSERT_EQ(12u, scripted->calls.size());
  for (size_t i = 0; i < scripted->calls.size(); i += 2) {
    EXPECT_EQ('F', scripted->calls[i].which);
    EXPECT_EQ(7, scripted->calls[i].index);
    EXPECT_EQ(buffer, scripted->calls[i].buffer);
    EXPECT_EQ('N', scripted->calls[i + 1].which);
    EXPECT_EQ(-3, scripted->calls[i + 1].index);
    EXPECT_EQ(buffer + 1, scripted->calls[i + 1].buffer);
  }
}

}  // namespace
}  // namespace exportstest
