// The engine beside the differential test (which owns records, keys, reads,
// bypass mode, suspended indexes and rebuilds): schema registration, status
// texts, argument checks, create / open statuses,
// read-only opens, storage sizes, record numbers, the log of a writer that
// did not close, an index file left behind its data file. (Damaged, foreign,
// missing and busy files: tests/table_badfiles; a full disk: tests/fulldisk;
// schema errors through the scan database: tests/core/MessagesTest.)
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "TableTestUtil.h"
#include "concurrency/ForkedChild.h"
#include "runtime/LogCapture.h"
#include "support/GenericSchemaTable.h"
#include "support/TempDir.h"

using namespace tabletest;

namespace {

// Also a readRun receiver that gives no buffer.
class TableFiles : public ::testing::Test, public TCtreeTable::RunReceiver {
 protected:
  void* buffer() override { return nullptr; }
  bool take() override { return true; }
  // The records a new table object finds; its check passes. A reader
  // refuses writes and changes no file.
  int64_t count(WZIndexing::TAccessEnum mode) {
    TCtreeTable reader;
    const std::string data = fileBytes(name + ".dat"), index = fileBytes(name + ".idx");
    EXPECT_EQ(openTable(reader, name, layout, mode), TBL_OK);
    EXPECT_EQ(reader.checkConsistency(), TBL_OK);
    const int64_t records = reader.numberOfRecords();
    if (mode != WZIndexing::kAccessReadOnly) return records;
    for (int status : {reader.addRecord(out.data()), reader.modifyRecord(out.data()), reader.deleteRecord()})
      EXPECT_EQ(status, TBL_READ_ONLY);
    EXPECT_EQ(reader.suspendIndexing(), -1);
    EXPECT_EQ(reader.close(), TBL_OK);
    EXPECT_TRUE(fileBytes(name + ".dat") == data && fileBytes(name + ".idx") == index) << "a reader changed a file";
    return records;
  }

  TempDir dir;
  const std::string name = dir / "t";
  const SchemaLayout layout = SchemaLayout::generic();
  TCtreeTable table;
  Image out = Image(440);
};
using TableSchemas = TableFiles;

TEST_F(TableSchemas, RegistrationRefusesWhatTheEngineCannotStore) {
  // 19 fields where the scan database's limits (18 fields, 12 indexes, 18
  // segments) allow 18, while the base table's own limits are wider; half of
  // a 64-bit integer field as a segment; a field past the record.
  SchemaLayout many{false, 19 * 4, 0, {}, {{"first", 4, kKeyFixed, 0, 1, 0}}, {{0, 4, 1}}}, half = smallSchema();
  for (int f = 0; f < 19; ++f) many.fields.push_back({"f" + std::to_string(f), f * 4ul, kFieldUInt32, 4});
  SchemaLayout past = layout, eighteen = many;
  eighteen.fields.pop_back();
  half.segments[0].size = half.indexes[0].keyLength = 4;
  past.fields[5].length = 260;
  GenericSchemaTable limited;
  for (const SchemaLayout* refused : {&many, &half, &past})
    EXPECT_EQ(defineSchema(limited, name, *refused), TBL_BAD_SCHEMA);
  EXPECT_EQ(defineSchema(limited, name, eighteen), TBL_OK);
  EXPECT_EQ(defineSchema(table, name, many), TBL_OK);
  // An incomplete schema cannot be created or opened.
  TCtreeTable partial;
  ASSERT_EQ(partial.internalInitialize((dir / "p").c_str(), 1, 6, 2, 3, 440, 181), TBL_OK);
  for (int status : {partial.create(), partial.open(WZIndexing::kAccessReadWrite)}) EXPECT_EQ(status, TBL_NOT_DEFINED);
}

// A text of its own for every status.
TEST_F(TableSchemas, StatusTexts) {
  std::set<std::string> texts;
  for (int status = 100; status <= 121; ++status) {
    const std::string text = TCtreeTable::errToString(status == 100 ? 0 : status);
    EXPECT_TRUE(text.find("unknown") == std::string::npos && texts.insert(text).second) << status;
  }
  EXPECT_STREQ(TCtreeTable::errToString(999), "unknown table status 999");
  EXPECT_STREQ(TCtreeTable::errToString(-7), "unknown table status -7");
}

// Bad arguments are refused without writing or moving anything; on an open
// table every definition, create and open is refused and changes nothing.
TEST_F(TableSchemas, ArgumentChecksAndDefinitionsOnAnOpenTable) {
  std::vector<char> buffer(104, 0x55);
  char* cursor = buffer.data();
  int remaining = 104, small = 15, tight = 10;
  uint8_t field[255] = {0x61, 0x62};
  Image key(104);
  TableFiles& run = *this;
  EXPECT_EQ(table.fillKeySegment(&cursor, &remaining, field, 0, 0, 0), TBL_NOT_DEFINED);
  EXPECT_EQ(table.readRun(1, key.data(), 16, run), TBL_NOT_OPEN);
  ASSERT_EQ(openTable(table, name, layout, WZIndexing::kAccessCreate), TBL_OK);
  ASSERT_EQ(table.addRecord(genericRecord(1, 1, "a").data()), TBL_OK);
  for (int status : {table.fillKeySegment(nullptr, &remaining, field, 0, 0, 0), table.finishKey(&cursor, &tight, 0, 0),
                     table.fillKeySegment(&cursor, nullptr, field, 0, 0, 0), table.finishKey(&cursor, &remaining, 0, 1),
                     table.fillKeySegment(&cursor, &remaining, nullptr, 0, 0, 0), table.firstRecord(0, nullptr),
                     table.fillKeySegment(&cursor, &remaining, field, 0, 2, 0), table.readRun(1, nullptr, 16, run),
                     table.fillKeySegment(&cursor, &remaining, field, 0, 0, 1), table.readRun(5, key.data(), 16, run),
                     table.fillKeySegment(&cursor, &remaining, field, 0, -1, 0), table.readRun(1, key.data(), 0, run),
                     table.fillKeySegment(&cursor, &small, field, 0, 0, 0), table.readRun(1, key.data(), 73, run),
                     table.getRecord(-1, key.data(), out.data()), table.getRecord(2, key.data(), out.data()),
                     table.readByOffset(out.data(), 0, 440), table.readRun(1, key.data(), -1, run)})
    EXPECT_EQ(status, TBL_BAD_ARGUMENT);
  EXPECT_TRUE(cursor == buffer.data() && remaining == 104) << "moved by a refused call";
  // A prefix key: only the parent segment, then finishKey pads the name part;
  // the spare bytes stay untouched.
  ASSERT_EQ(table.fillKeySegment(&cursor, &remaining, field, 0, 1, 0), TBL_OK);
  EXPECT_EQ(remaining, 88);
  ASSERT_EQ(table.finishKey(&cursor, &remaining, 1, 0), TBL_OK);
  EXPECT_EQ(cursor - buffer.data(), 72);
  EXPECT_EQ(remaining, 32);
  EXPECT_EQ(std::string(buffer.begin(), buffer.end()), "ab" + std::string(70, '\0') + std::string(32, 0x55));
  for (int status : {table.internalInitialize((dir / "x").c_str(), 0, 1, 1, 1, 8, 8), table.setNextSegment(0, 4, 1),
                     table.setNextField("x", 0, kFieldBinary, 4), table.setNextIndex("x", 4, kKeyFixed, 0, 0, 0, 1, 0),
                     table.initializeComplete(), table.create(), table.open(WZIndexing::kAccessReadWrite)})
    EXPECT_EQ(status, TBL_ALREADY_OPEN);
  EXPECT_EQ(table.getFieldsCount(), 6);
  EXPECT_EQ(table.addRecord(genericRecord(2, 2, "still works").data()), TBL_OK);
  EXPECT_FALSE(std::filesystem::exists(dir / "x.dat"));
}

// A reader shares the files with a writer and reads what its last
// checkpoint committed. Records are stored trimmed of their zero tails and
// read back whole; files shrink on close and reuse freed pages; record
// numbers are never reused.
TEST_F(TableFiles, ReadersStorageSizesAndRecordNumbers) {
  ASSERT_EQ(defineSchema(table, name, layout), TBL_OK);
  EXPECT_EQ(table.open(WZIndexing::kAccessCreate), TBL_BAD_ARGUMENT);
  ASSERT_EQ(table.create(), TBL_OK);
  auto full = genericRecord(0xF1, 1, std::string(255, 'z'));
  full[439] = 0x7F;
  ASSERT_EQ(table.addRecord(full.data()), TBL_OK);
  ASSERT_EQ(table.close(), TBL_OK);
  EXPECT_EQ(table.close(), TBL_NOT_OPEN);
  ASSERT_EQ(table.open(WZIndexing::kAccessReadWrite), TBL_OK);
  for (int i = 0; i < 2000; ++i) {
    auto image = genericRecord(0, static_cast<uint8_t>(i % 7), "file-name-of-20-byte");
    std::memcpy(image.data(), &i, sizeof i), std::memset(image.data() + 32, 0x11, 144);
    ASSERT_EQ(table.addRecord(image.data()), TBL_OK);
  }
  EXPECT_EQ(count(WZIndexing::kAccessReadOnly), 1);
  Image fixed(440, 0xEE);
  ASSERT_EQ(table.readFixedByOffset(fixed.data(), 1, 440), TBL_OK);
  EXPECT_TRUE(std::equal(full.begin(), full.begin() + 181, fixed.begin()) && fixed[181] == 0xEE) << "fixed part only";
  namespace fs = std::filesystem;
  const auto openSize = fs::file_size(name + ".dat");
  ASSERT_EQ(table.close(), TBL_OK);
  const auto dataSize = fs::file_size(name + ".dat");
  EXPECT_LT(dataSize, openSize);
  // 20-byte names: both files together well under 400 bytes per record, the
  // data file far less than 440.
  EXPECT_LT(dataSize + fs::file_size(name + ".idx"), 2001u * 400);
  EXPECT_LT(dataSize, 2001u * 300);
  ASSERT_EQ(table.open(WZIndexing::kAccessReadWrite), TBL_OK);
  for (int rc = table.firstRecord(-1, out.data()); rc == TBL_OK; rc = table.nextRecord(-1, out.data()))
    ASSERT_EQ(table.deleteRecord(), TBL_OK);
  ASSERT_EQ(table.close(), TBL_OK);
  EXPECT_LE(fs::file_size(name + ".dat"), dataSize + 64 * 1024);
  ASSERT_EQ(table.open(WZIndexing::kAccessReadWrite), TBL_OK);
  ASSERT_EQ(table.addRecord(full.data()), TBL_OK);
  ASSERT_EQ(table.readByOffset(out.data(), 2002, 440), TBL_OK);
  EXPECT_EQ(out, full);
  // initialize(name) points the defined schema at another table's files.
  ASSERT_EQ(table.close(), TBL_OK);
  ASSERT_EQ(table.initialize((name + "-other").c_str()), TBL_OK);
  ASSERT_EQ(table.create(), TBL_OK);
  EXPECT_TRUE(fs::exists(name + "-other.dat") && table.numberOfRecords() == 0 &&
              table.initialize(name.c_str()) == TBL_ALREADY_OPEN);
}

// A writer that ends without close() leaves its log: the next read-write open
// replays it (every page checked), a read-only open reads the last checkpoint,
// and settle() brings the closed files to a clean state knowing no schema.
TEST_F(TableFiles, LogReplayAndIndexRebuildAtOpen) {
  auto write = [&](int from, int to) {
    const auto result = ForkedChild([&](ForkedChild::Channel&) {
      int status = openTable(table, name, layout, from ? WZIndexing::kAccessReadWrite : WZIndexing::kAccessCreate);
      for (int i = from; status == TBL_OK && i < to; ++i)
        status = table.addRecord(genericRecord(uint8_t(i), 1, "n" + std::to_string(i)).data());
      return status;  // no close: the log stays
    }).Wait();
    ASSERT_TRUE(result.exited && result.status == TBL_OK && std::filesystem::exists(name + ".log")) << result.Describe();
  };
  write(0, 30);
  EXPECT_EQ(count(WZIndexing::kAccessReadOnly), 0);  // nothing was checkpointed
  EXPECT_EQ(count(WZIndexing::kAccessReadWrite), 30);
  EXPECT_FALSE(std::filesystem::exists(name + ".log"));
  write(30, 45);
  EXPECT_EQ(TCtreeTable::settle(name.c_str()), TBL_OK);
  EXPECT_FALSE(std::filesystem::exists(name + ".log"));
  EXPECT_EQ(TCtreeTable::settle(name.c_str()), TBL_OK);  // nothing left to do
  EXPECT_EQ(count(WZIndexing::kAccessReadOnly), 45);

  // An index file that is behind its data file (the state a process killed
  // between the two commits leaves) is rebuilt from the data file, which the
  // open must not change, and the open says so.
  const std::string oldIndex = fileBytes(name + ".idx");
  ASSERT_EQ(openTable(table, name, layout), TBL_OK);
  ASSERT_EQ(table.addRecord(genericRecord(99, 3, "late").data()), TBL_OK);
  ASSERT_EQ(table.readByOffset(out.data(), 1, 440), TBL_OK);
  ASSERT_EQ(table.deleteRecord(), TBL_OK);
  ASSERT_EQ(table.close(), TBL_OK);
  std::ofstream(name + ".idx", std::ios::binary | std::ios::trunc) << oldIndex;
  const std::string data = fileBytes(name + ".dat");
  auto capture = CLogCapture::Install();
  ASSERT_EQ(table.open(WZIndexing::kAccessReadWrite), TBL_OK);
  EXPECT_EQ(capture->FindContaining("Rebuilding the indexes of table " + name +
                                    " during open: the index file is behind the data file").size(), 1u);
  capture->Remove();
  auto key = [&](uint8_t guid) { return engineKey(table, layout, 0, genericRecord(guid, 0, "").data()); };
  ASSERT_EQ(table.getRecord(0, key(99).data(), out.data()), TBL_OK);
  EXPECT_EQ(out, genericRecord(99, 3, "late"));
  EXPECT_EQ(table.getRecord(0, key(0).data(), out.data()), TBL_NOT_FOUND) << "deleted record found through the index";
  EXPECT_EQ(table.checkConsistency(), TBL_OK);
  ASSERT_EQ(table.close(), TBL_OK);
  EXPECT_TRUE(fileBytes(name + ".dat") == data) << "open changed the data file";
}

}  // namespace
