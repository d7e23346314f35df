// Key building: field transforms and case folding byte by byte, and the
// argument checks of fillKeySegment / finishKey. (Key order, trimming,
// duplicates and prefix sets are the differential test's.)
#include <gtest/gtest.h>

#include "TableTestUtil.h"
#include "support/TempDir.h"

using namespace tabletest;

// The differential test compares every key the engine builds with its
// model's; these are the transforms spelled out byte by byte.
TEST(TableKeys, IntegersBecomeBigEndianAndOnlyCaseInsensitiveStringsFold) {
  TempDir dir;
  TCtreeTable small, generic;
  const SchemaLayout smallLayout = smallSchema(), genericLayout = SchemaLayout::generic();
  ASSERT_EQ(defineSchema(small, dir / "s", smallLayout), TBL_OK);
  ASSERT_EQ(defineSchema(generic, dir / "g", genericLayout), TBL_OK);
  auto a = smallRecord(0x0102030405060708ull, 0x0A0B, 0x41, "readme.txt");
  auto b = smallRecord(2, 0x0A0B, 0x61, "README.TXT");
  EXPECT_EQ(engineKey(small, smallLayout, 0, a.data()), (Image{1, 2, 3, 4, 5, 6, 7, 8}));
  // Inodes 0x41 and 0x61 ('A' and 'a' as bytes) are never folded together.
  EXPECT_EQ(engineKey(small, smallLayout, 2, a.data()), (Image{0, 0, 0, 0x41}));
  EXPECT_EQ(engineKey(small, smallLayout, 2, b.data()), (Image{0, 0, 0, 0x61}));
  Image folded = {0, 0, 0, 0, 0, 0, 0x0A, 0x0B};
  for (char c : std::string("README.TXT")) folded.push_back(uint8_t(c));
  folded.resize(24, 0);
  EXPECT_EQ(engineKey(small, smallLayout, 1, a.data()), folded);
  EXPECT_EQ(engineKey(small, smallLayout, 1, b.data()), folded);
  // The generic record's name segment is case-sensitive.
  auto lower = genericRecord(1, 9, "readme.txt"), upper = genericRecord(2, 9, "README.TXT");
  EXPECT_NE(engineKey(generic, genericLayout, 1, lower.data()), engineKey(generic, genericLayout, 1, upper.data()));
  EXPECT_EQ(engineKey(generic, genericLayout, 1, lower.data())[16], 'r');
}

TEST(TableKeys, KeyBuildingChecksItsArguments) {
  TempDir dir;
  TCtreeTable table;
  std::vector<char> buffer(104, 0x55);
  char* cursor = buffer.data();
  int remaining = 104, small = 15, tight = 10;
  uint8_t field[255] = {0x61, 0x62};
  EXPECT_EQ(table.fillKeySegment(&cursor, &remaining, field, 0, 0, 0), TBL_NOT_DEFINED);
  ASSERT_EQ(defineSchema(table, dir / "t", SchemaLayout::generic()), TBL_OK);
  EXPECT_EQ(table.fillKeySegment(nullptr, &remaining, field, 0, 0, 0), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.fillKeySegment(&cursor, nullptr, field, 0, 0, 0), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.fillKeySegment(&cursor, &remaining, nullptr, 0, 0, 0), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.fillKeySegment(&cursor, &remaining, field, 0, 2, 0), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.fillKeySegment(&cursor, &remaining, field, 0, 0, 1), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.fillKeySegment(&cursor, &remaining, field, 0, -1, 0), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.fillKeySegment(&cursor, &small, field, 0, 0, 0), TBL_BAD_ARGUMENT);
  EXPECT_EQ(cursor, buffer.data());  // nothing written or moved on failure
  EXPECT_EQ(remaining, 104);

  // A prefix key: only the parent segment, then finishKey pads the name part.
  ASSERT_EQ(table.fillKeySegment(&cursor, &remaining, field, 0, 1, 0), TBL_OK);
  EXPECT_EQ(remaining, 88);
  ASSERT_EQ(table.finishKey(&cursor, &remaining, 1, 0), TBL_OK);
  EXPECT_EQ(cursor, buffer.data() + 72);
  EXPECT_EQ(remaining, 32);
  EXPECT_EQ(std::vector<char>(buffer.begin(), buffer.begin() + 3), (std::vector<char>{0x61, 0x62, 0}));
  EXPECT_EQ(std::vector<char>(buffer.begin() + 16, buffer.begin() + 72), std::vector<char>(56, 0));
  EXPECT_EQ(buffer[72], 0x55);  // spare bytes untouched

  cursor = buffer.data();
  EXPECT_EQ(table.finishKey(&cursor, &tight, 0, 0), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.finishKey(&cursor, &remaining, 0, 1), TBL_BAD_ARGUMENT);
}
