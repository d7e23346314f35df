// Index maintenance: stale indexes rebuilt on open, a unique index meeting a
// duplicate, the bounded-memory sort spilling runs. (Suspended writes and
// rebuilds amid random operations: the differential test.)
#include <gtest/gtest.h>

#include <filesystem>

#include "TableTestUtil.h"
#include "runtime/LogCapture.h"
#include "support/TempDir.h"

using namespace tabletest;

namespace {

std::vector<std::string> childNames(TCtreeTable& table, const SchemaLayout& layout, uint8_t parent) {
  auto key = engineKey(table, layout, 1, genericRecord(0, parent, "").data());
  Image out(440);
  std::vector<std::string> names;
  for (int rc = table.firstInSet(1, key.data(), out.data(), 16); rc == TBL_OK; rc = table.nextInSet(1, out.data()))
    names.emplace_back(reinterpret_cast<const char*>(out.data() + 181));
  return names;
}

}  // namespace

TEST(TableRebuild, StaleIndexIsRebuiltOnOpenWithALogLine) {
  TempDir dir;
  const std::string name = dir / "t";
  const SchemaLayout layout = SchemaLayout::generic();
  {
    // Indexing left suspended when the table was closed.
    TCtreeTable table;
    ASSERT_EQ(createTable(table, name, layout), TBL_OK);
    ASSERT_NE(table.suspendIndexing(), -1);
    for (int i = 1; i <= 30; ++i) {
      auto image = genericRecord(static_cast<uint8_t>(i), 3, "f" + std::to_string(i));
      ASSERT_EQ(table.addRecord(image.data()), TBL_OK);
    }
  }
  auto capture = CLogCapture::Install();
  {
    TCtreeTable table;
    ASSERT_EQ(openTable(table, name, layout), TBL_OK);
    EXPECT_EQ(capture->FindContaining("Rebuilding the indexes of table " + name).size(), 1u);
    EXPECT_EQ(table.checkConsistency(), TBL_OK);
    EXPECT_EQ(childNames(table, layout, 3).size(), 30u);
  }
  // An index file that is behind its data file (the state a process killed
  // between the two commits leaves) is rebuilt from the data file, which the
  // open must not change.
  const std::string oldIndex = fileBytes(name + ".idx");
  {
    TCtreeTable table;
    ASSERT_EQ(openTable(table, name, layout), TBL_OK);
    auto image = genericRecord(99, 3, "late");
    ASSERT_EQ(table.addRecord(image.data()), TBL_OK);
    Image out(440);
    ASSERT_EQ(table.readByOffset(out.data(), 1, 440), TBL_OK);
    ASSERT_EQ(table.deleteRecord(), TBL_OK);
  }
  writeFile(name + ".idx", oldIndex);
  const std::string data = fileBytes(name + ".dat");
  capture->Clear();
  TCtreeTable table;
  ASSERT_EQ(openTable(table, name, layout), TBL_OK);
  EXPECT_EQ(capture->FindContaining("the index file is behind the data file").size(), 1u);
  capture->Remove();
  EXPECT_EQ(table.checkConsistency(), TBL_OK);
  Image out(440);
  ASSERT_EQ(table.getRecord(0, engineKey(table, layout, 0, genericRecord(99, 0, "").data()).data(), out.data()), TBL_OK);
  EXPECT_EQ(out, genericRecord(99, 3, "late"));
  EXPECT_EQ(table.getRecord(0, engineKey(table, layout, 0, genericRecord(1, 0, "").data()).data(), out.data()),
            TBL_NOT_FOUND) << "deleted record found through the stale index";
  ASSERT_EQ(table.close(), TBL_OK);
  EXPECT_TRUE(fileBytes(name + ".dat") == data) << "open changed the data file";
}

TEST(TableRebuild, UniqueDuplicateKeepsIndexingSuspendedAndLosesNothing) {
  TempDir dir;
  TCtreeTable table;
  ASSERT_EQ(createTable(table, dir / "t", SchemaLayout::generic()), TBL_OK);
  ASSERT_NE(table.suspendIndexing(), -1);
  auto a = genericRecord(7, 1, "a"), b = genericRecord(7, 1, "b"), c = genericRecord(8, 1, "c");
  for (auto* r : {&a, &b, &c}) ASSERT_EQ(table.addRecord(r->data()), TBL_OK);
  EXPECT_EQ(table.resumeIndexingAndRebuild(), TBL_DUPLICATE_KEY);
  // Still suspended after a reopen; the open succeeds and says why.
  ASSERT_EQ(table.close(), TBL_OK);
  auto capture = CLogCapture::Install();
  ASSERT_EQ(table.open(WZIndexing::kAccessReadWrite), TBL_OK);
  EXPECT_EQ(capture->FindContaining("indexing stays suspended").size(), 1u);
  capture->Remove();
  Image out(440);
  EXPECT_EQ(table.firstRecord(1, out.data()), TBL_INDEX_SUSPENDED);
  EXPECT_EQ(table.checkConsistency(), TBL_INDEX_SUSPENDED);
  std::vector<Image> seen;
  for (int rc = table.firstRecord(-1, out.data()); rc == TBL_OK; rc = table.nextRecord(-1, out.data()))
    seen.push_back(out);
  EXPECT_EQ(seen, (std::vector<Image>{a, b, c}));
  // Without the clash the rebuild succeeds and unique checks are back.
  ASSERT_EQ(table.readByOffset(out.data(), 2, 440), TBL_OK);
  ASSERT_EQ(table.deleteRecord(), TBL_OK);
  ASSERT_EQ(table.resumeIndexingAndRebuild(), TBL_OK);
  EXPECT_EQ(table.checkConsistency(), TBL_OK);
  EXPECT_EQ(table.addRecord(b.data()), TBL_DUPLICATE_KEY);
}

TEST(TableRebuild, SortSpillsRunsInBoundedMemory) {
  TempDir dir;
  const SchemaLayout layout = SchemaLayout::generic();
  TCtreeTable table;
  ASSERT_EQ(createTable(table, dir / "t", layout), TBL_OK);
  ASSERT_NE(table.suspendIndexing(), -1);
  // 3000 records, added in an order unlike their key order.
  for (int i = 0; i < 3000; ++i) {
    const int scrambled = (i * 7919) % 3000;
    auto image = genericRecord(0, uint8_t(scrambled % 5), "n" + std::to_string(scrambled));
    std::memcpy(image.data(), &scrambled, sizeof scrambled);
    ASSERT_EQ(table.addRecord(image.data()), TBL_OK);
  }
  // 4 KiB of sort memory: about 50 entries a run, so dozens of runs merge.
  table.setRebuildMemoryLimit(4096);
  ASSERT_EQ(table.resumeIndexingAndRebuild(), TBL_OK);
  std::string report;
  EXPECT_EQ(table.checkConsistency(&report), TBL_OK) << report;
  namespace fs = std::filesystem;  // t.dat, t.idx and the open table's t.log: no run file left behind
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 3);
  for (uint8_t parent = 0; parent < 5; ++parent) {
    auto names = childNames(table, layout, parent);
    EXPECT_EQ(names.size(), 600u);
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  }
}
