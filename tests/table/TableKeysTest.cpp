// Key building: field transforms, case folding, compressed-key trimming and
// the argument checks of fillKeySegment / finishKey.
#include <gtest/gtest.h>

#include "TableTestUtil.h"
#include "support/TempDir.h"

using namespace tabletest;

TEST(TableKeys, IntegersBecomeBigEndianAndAreNeverCaseFolded) {
  TempDir dir;
  TCtreeTable table;
  const SchemaLayout layout = smallSchema();
  ASSERT_EQ(createTable(table, dir / "t", layout), TBL_OK);

  auto a = smallRecord(0x0102030405060708ull, 1, 0x41, "x");
  auto key = engineKey(table, layout, 0, a.data());
  EXPECT_EQ(key, (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));

  // Inodes 0x41 and 0x61 ('A' and 'a' as bytes) stay apart on the inode index.
  auto b = smallRecord(2, 1, 0x61, "y");
  ASSERT_EQ(table.addRecord(a.data()), TBL_OK);
  ASSERT_EQ(table.addRecord(b.data()), TBL_OK);
  std::vector<uint8_t> out(64);
  auto inodeKey = engineKey(table, layout, 2, b.data());
  EXPECT_EQ(inodeKey, (std::vector<uint8_t>{0, 0, 0, 0x61}));
  ASSERT_EQ(table.getRecord(2, inodeKey.data(), out.data()), TBL_OK);
  EXPECT_EQ(out, b);
  ASSERT_EQ(table.nextRecord(2, out.data()), TBL_NOT_FOUND);  // no other record under 0x61

  // Keys sort by value, not by little-endian bytes.
  for (uint64_t id : {0xFF00ull, 0x100ull, 0x3ull}) {
    auto r = smallRecord(id, 2, 7, "z");
    ASSERT_EQ(table.addRecord(r.data()), TBL_OK);
  }
  std::vector<uint64_t> ids;
  for (int rc = table.firstRecord(0, out.data()); rc == TBL_OK; rc = table.nextRecord(0, out.data())) {
    uint64_t id;
    std::memcpy(&id, out.data(), 8);
    ids.push_back(id);
  }
  EXPECT_EQ(ids, (std::vector<uint64_t>{2, 3, 0x100, 0xFF00, 0x0102030405060708ull}));
}

TEST(TableKeys, StringsFoldOnlyInCaseInsensitiveSegments) {
  TempDir dir;
  const SchemaLayout small = smallSchema();
  TCtreeTable folded;
  ASSERT_EQ(createTable(folded, dir / "small", small), TBL_OK);
  auto lower = smallRecord(1, 5, 1, "readme.txt");
  auto upper = smallRecord(2, 5, 2, "README.TXT");
  EXPECT_EQ(engineKey(folded, small, 1, lower.data()), engineKey(folded, small, 1, upper.data()));
  ASSERT_EQ(folded.addRecord(lower.data()), TBL_OK);
  ASSERT_EQ(folded.addRecord(upper.data()), TBL_OK);
  // Both are duplicates of one key, in insertion order.
  auto key = engineKey(folded, small, 1, upper.data());
  std::vector<uint8_t> out(64);
  ASSERT_EQ(folded.getRecord(1, key.data(), out.data()), TBL_OK);
  EXPECT_EQ(out, lower);
  ASSERT_EQ(folded.nextRecord(1, out.data()), TBL_OK);
  EXPECT_EQ(out, upper);

  const SchemaLayout generic = genericSchema();
  TCtreeTable exact;
  ASSERT_EQ(createTable(exact, dir / "generic", generic), TBL_OK);
  auto a = genericRecord(1, 9, "readme.txt");
  auto b = genericRecord(2, 9, "README.TXT");
  EXPECT_NE(engineKey(exact, generic, 1, a.data()), engineKey(exact, generic, 1, b.data()));
}

TEST(TableKeys, CompressedKeysKeepOrderAndMatchPrefixes) {
  TempDir dir;
  TCtreeTable table;
  const SchemaLayout layout = genericSchema();
  ASSERT_EQ(createTable(table, dir / "t", layout), TBL_OK);
  // Names sharing their first 56 bytes give one key; a byte after the
  // terminator makes another, greater one; the all-zero key is stored too.
  const std::string shared(56, 'n');
  std::vector<std::vector<uint8_t>> images = {
      genericRecord(1, 7, shared + "-one"), genericRecord(2, 7, shared + "-two"),
      genericRecord(3, 7, "ab"),            genericRecord(4, 7, "ab"),
      genericRecord(5, 0, ""),              genericRecord(6, 7, "")};
  images[3][181 + 40] = 1;  // "ab", then a byte after the terminator
  images[3][0] = 4;
  for (auto& image : images) ASSERT_EQ(table.addRecord(image.data()), TBL_OK);

  auto walk = [&](int index) {
    std::vector<uint8_t> out(440), order;
    for (int rc = table.firstRecord(index, out.data()); rc == TBL_OK;
         rc = table.nextRecord(index, out.data()))
      order.push_back(out[0]);
    return order;
  };
  EXPECT_EQ(walk(1), (std::vector<uint8_t>{5, 6, 3, 4, 1, 2}));

  // The all-zero key (root's parent, empty name) is found exactly.
  std::vector<uint8_t> zero(72 + 32, 0), out(440);
  ASSERT_EQ(table.getRecord(1, zero.data(), out.data()), TBL_OK);
  EXPECT_EQ(out, images[4]);

  // The children of parent 7: a 16-byte prefix set, in key order.
  auto probe = genericRecord(0, 7, "");
  auto start = engineKey(table, layout, 1, probe.data());
  std::vector<uint8_t> children;
  for (int rc = table.firstInSet(1, start.data(), out.data(), 16); rc == TBL_OK;
       rc = table.nextInSet(1, out.data()))
    children.push_back(out[0]);
  EXPECT_EQ(children, (std::vector<uint8_t>{6, 3, 4, 1, 2}));
  ASSERT_EQ(table.lastInSet(1, start.data(), out.data(), 16), TBL_OK);
  EXPECT_EQ(out[0], 2);
  ASSERT_EQ(table.previousInSet(1, out.data()), TBL_OK);
  EXPECT_EQ(out[0], 1);

  // Two names equal in their first 56 bytes: one key, two duplicates.
  auto longKey = engineKey(table, layout, 1, images[0].data());
  EXPECT_EQ(longKey, engineKey(table, layout, 1, images[1].data()));
  ASSERT_EQ(table.getLTERecord(1, longKey.data(), out.data()), TBL_OK);
  EXPECT_EQ(out[0], 2);  // the last duplicate
  ASSERT_EQ(table.getGTRecord(1, longKey.data(), out.data()), TBL_NOT_FOUND);
}

TEST(TableKeys, KeyBuildingChecksItsArguments) {
  TempDir dir;
  TCtreeTable table;
  const SchemaLayout layout = genericSchema();
  std::vector<char> buffer(104, 0x55);
  char* cursor = buffer.data();
  int remaining = 104;
  uint8_t field[255] = {0x61, 0x62};
  EXPECT_EQ(table.fillKeySegment(&cursor, &remaining, field, 0, 0, 0), TBL_NOT_DEFINED);
  ASSERT_EQ(defineSchema(table, dir / "t", layout), TBL_OK);

  EXPECT_EQ(table.fillKeySegment(nullptr, &remaining, field, 0, 0, 0), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.fillKeySegment(&cursor, nullptr, field, 0, 0, 0), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.fillKeySegment(&cursor, &remaining, nullptr, 0, 0, 0), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.fillKeySegment(&cursor, &remaining, field, 0, 2, 0), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.fillKeySegment(&cursor, &remaining, field, 0, 0, 1), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.fillKeySegment(&cursor, &remaining, field, 0, -1, 0), TBL_BAD_ARGUMENT);
  int small = 15;
  EXPECT_EQ(table.fillKeySegment(&cursor, &small, field, 0, 0, 0), TBL_BAD_ARGUMENT);
  EXPECT_EQ(cursor, buffer.data());  // nothing written or moved on failure
  EXPECT_EQ(remaining, 104);

  // A prefix key: only the parent segment, then finishKey pads the name part.
  ASSERT_EQ(table.fillKeySegment(&cursor, &remaining, field, 0, 1, 0), TBL_OK);
  EXPECT_EQ(remaining, 88);
  ASSERT_EQ(table.finishKey(&cursor, &remaining, 1, 0), TBL_OK);
  EXPECT_EQ(cursor, buffer.data() + 72);
  EXPECT_EQ(remaining, 32);
  EXPECT_EQ(buffer[0], 0x61);
  EXPECT_EQ(buffer[16], 0);
  EXPECT_EQ(buffer[71], 0);
  EXPECT_EQ(buffer[72], 0x55);  // spare bytes untouched

  cursor = buffer.data();
  int tight = 10;
  EXPECT_EQ(table.finishKey(&cursor, &tight, 0, 0), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.finishKey(&cursor, &remaining, 0, 1), TBL_BAD_ARGUMENT);
}
