// readRun: one call that returns what getGTERecord and then nextRecord would,
// up to the first key outside a prefix, and leaves the same current record.
#include <gtest/gtest.h>

#include "TableTestUtil.h"
#include "support/TempDir.h"

using namespace tabletest;

namespace {

// Collects the first byte (guid pattern) of every record; refuses the one
// whose guid byte is `refuse`. Counts the buffers asked for.
class Collector : public TCtreeTable::RunReceiver {
 public:
  explicit Collector(int refuse = -1) : refuse_(refuse) {}
  void* buffer() override {
    ++buffers;
    image.assign(440, 0xEE);
    return image.data();
  }
  bool take() override {
    taken.push_back(image[0]);
    return image[0] != refuse_;
  }
  Image image, taken;
  int buffers = 0;

 private:
  int refuse_;
};

class TableRun : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(createTable(table, dir / "t", layout), TBL_OK);
    // Parent 7 holds five records, two of them sharing one 56-byte name key;
    // parents 6 and 8 frame it, so the run has neighbours on both sides.
    const std::string shared(56, 'n');
    for (auto image : {genericRecord(1, 7, "delta"), genericRecord(2, 6, "zulu"),
                       genericRecord(3, 7, shared + "-b"), genericRecord(4, 8, "alpha"),
                       genericRecord(5, 7, "alpha"), genericRecord(6, 7, shared + "-a"),
                       genericRecord(9, 7, "charlie"), genericRecord(10, 8, "")})
      ASSERT_EQ(table.addRecord(image.data()), TBL_OK);
  }
  Image childrenKey(uint8_t parent) { return engineKey(table, layout, 1, genericRecord(0, parent, "").data()); }
  // The guid byte that nextRecord(1) reads from the current record on.
  int following() {
    Image out(440);
    return table.nextRecord(1, out.data()) == TBL_OK ? out[0] : -1;
  }

  TempDir dir;
  TCtreeTable table;
  const SchemaLayout layout = SchemaLayout::generic();
};

TEST_F(TableRun, ReadsThePrefixRunAndLeavesTheCurrentRecordOnItsEnd) {
  // The same run through getGTERecord/nextRecord, for comparison.
  auto key = childrenKey(7);
  Image out(440), expected;
  for (int rc = table.getGTERecord(1, key.data(), out.data()); rc == TBL_OK && out[16] == 7;
       rc = table.nextRecord(1, out.data()))
    expected.push_back(out[0]);
  ASSERT_EQ(expected, (Image{5, 9, 1, 3, 6}));
  const int afterManual = following();

  Collector all;
  EXPECT_EQ(table.readRun(1, key.data(), 16, all), TBL_OK);
  EXPECT_EQ(all.taken, expected);
  EXPECT_EQ(all.buffers, 5);  // the record of parent 8 that ends the run is not read
  EXPECT_EQ(all.image, genericRecord(6, 7, std::string(56, 'n') + "-a"));  // whole image, zero tail
  EXPECT_EQ(table.currentRecordNumber(), 8);  // on (8, "") that ended the run
  EXPECT_EQ(following(), afterManual);

  // A refusal ends the run on the refused record.
  Collector refusing(1);
  EXPECT_EQ(table.readRun(1, key.data(), 16, refusing), TBL_OK);
  EXPECT_EQ(refusing.taken, (Image{5, 9, 1}));
  EXPECT_EQ(table.currentRecordNumber(), 1);
  EXPECT_EQ(following(), 3);

  // The last parent runs into the end of the index: current is its last record.
  Collector last;
  EXPECT_EQ(table.readRun(1, childrenKey(8).data(), 16, last), TBL_NOT_FOUND);
  EXPECT_EQ(last.taken, (Image{10, 4}));
  EXPECT_EQ(table.currentRecordNumber(), 4);
  EXPECT_EQ(following(), -1);

  // No child: nothing read, current on the next parent's first entry.
  Collector none;
  EXPECT_EQ(table.readRun(1, childrenKey(5).data(), 16, none), TBL_OK);
  EXPECT_TRUE(none.taken.empty());
  EXPECT_EQ(none.buffers, 0);
  EXPECT_EQ(table.currentRecordNumber(), 2);

  // Prefix 0 is the whole index from the key on.
  Collector rest;
  EXPECT_EQ(table.readRun(1, childrenKey(8).data(), 0, rest), TBL_NOT_FOUND);
  EXPECT_EQ(rest.taken, (Image{10, 4}));
}

TEST_F(TableRun, BypassModeArgumentsAndSuspendedIndexes) {
  Image out(440);
  ASSERT_EQ(table.firstRecord(-1, out.data()), TBL_OK);
  table.setBypassMode(true);
  Collector bypassed;
  EXPECT_EQ(table.readRun(1, childrenKey(7).data(), 16, bypassed), TBL_OK);
  EXPECT_EQ(bypassed.taken.size(), 5u);
  EXPECT_EQ(table.currentRecordNumber(), 1);  // left where it was
  table.setBypassMode(false);
  ASSERT_EQ(table.nextRecord(-1, out.data()), TBL_OK);
  EXPECT_EQ(out[0], 2);

  auto key = childrenKey(7);
  Collector unused;
  EXPECT_EQ(table.readRun(1, key.data(), 73, unused), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.readRun(1, key.data(), -1, unused), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.readRun(1, nullptr, 16, unused), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.readRun(5, key.data(), 16, unused), TBL_BAD_ARGUMENT);
  ASSERT_NE(table.suspendIndexing(), -1);
  EXPECT_EQ(table.readRun(1, key.data(), 16, unused), TBL_INDEX_SUSPENDED);
  EXPECT_EQ(unused.buffers, 0);
  ASSERT_EQ(table.resumeIndexingAndRebuild(), TBL_OK);
  EXPECT_EQ(table.readRun(1, key.data(), 16, unused), TBL_OK);
  EXPECT_EQ(unused.taken.size(), 5u);
  table.close();
  EXPECT_EQ(table.readRun(1, key.data(), 16, unused), TBL_NOT_OPEN);
}

}  // namespace
