// GetFirstRecord / GetNextRecord: the engine's reads, with its integer status
// handed back unchanged.
#include "ExportsTestSupport.h"
#include "table/TableStatus.h"

namespace exportstest {
namespace {

TEST_F(ExportsTest, RecordReadsReturnTheEngineStatusUnchanged) {
  TempDir dir;
  WzScanDBPtr h = OpenGeneric(dir.path(), {"/b/", "/a"});
  WzScanDBRecordBasePtr buffer = Generic("");
  void* bytes = buffer->getStructure();
  // Physical order is insertion order; the parent index sorts by name.
  EXPECT_EQ((std::vector<std::string>{"", "b", "a"}), Names(h));
  EXPECT_EQ((std::vector<std::string>{"", "a", "b"}), Names(h, 1));
  EXPECT_EQ(TBL_OK, GetFirstRecord(h, -1, bytes));
  EXPECT_EQ(TBL_OK, GetNextRecord(h, -1, bytes));
  EXPECT_EQ(TBL_OK, GetNextRecord(h, -1, bytes));
  EXPECT_EQ(TBL_NOT_FOUND, GetNextRecord(h, -1, bytes));
  EXPECT_EQ("a", buffer->getName());  // a failed read leaves the buffer alone

  EXPECT_EQ(TBL_BAD_ARGUMENT, GetFirstRecord(h, 99, bytes));
  EXPECT_EQ(TBL_BAD_ARGUMENT, GetFirstRecord(h, 0, nullptr));
  CKoError err;
  WzScanDBSuspendIndexing(h, err);
  EXPECT_EQ(TBL_INDEX_SUSPENDED, GetFirstRecord(h, 0, bytes));
  EXPECT_EQ(TBL_INDEX_SUSPENDED, GetNextRecord(h, 0, bytes));
  EXPECT_EQ(TBL_OK, GetFirstRecord(h, -1, bytes));
  WzScanDBRebuildIndexing(h, err);
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
  int firstRecord(int index, void* buffer) override { return Record('F', index, buffer, 0); }
  int nextRecord(int index, void* buffer) override { return Record('N', index, buffer, 1); }
  int Record(char which, int index, void* buffer, int offset) {
    calls.push_back(std::string(1, which) + std::to_string(index));
    buffers.push_back(buffer);
    return status + offset;
  }
  int status = 0;
  std::vector<std::string> calls;
  std::vector<void*> buffers;
};

TEST_F(ExportsTest, RecordReadsCallTheEngineVirtually) {
  auto* scripted = new ScriptedReads(Generic(""));
  WzScanDBPtr h(scripted);
  char buffer[8];
  for (int status : {-1000, -1, 0, int(TBL_NOT_FOUND), int(TBL_IO_ERROR), 123456}) {
    scripted->status = status;
    EXPECT_EQ(status, GetFirstRecord(h, 7, buffer));
    EXPECT_EQ(status + 1, GetNextRecord(h, -3, buffer + 1));
  }
  for (size_t i = 0; i < scripted->calls.size(); i += 2) {
    EXPECT_EQ("F7", scripted->calls[i]);
    EXPECT_EQ("N-3", scripted->calls[i + 1]);
    EXPECT_EQ(buffer, scripted->buffers[i]);
    EXPECT_EQ(buffer + 1, scripted->buffers[i + 1]);
  }
  EXPECT_EQ(12u, scripted->calls.size());
}

}  // namespace
}  // namespace exportstest
