// Schema registration: limits, type checks, queries, the hooks this
// engine lacks, status texts, and "already open".
#include <gtest/gtest.h>

#include <set>

#include "TableTestUtil.h"
#include "support/TempDir.h"

using namespace tabletest;

namespace {

// A table type that declares the scan database's limits.
class LimitedTable : public TCtreeTable {
 public:
  int registerTable() override { return internalRegisterTable(18, 12, 18); }
};

SchemaLayout manyFields(int count) {
  SchemaLayout layout{false, static_cast<unsigned>(count * 4), 0, {}, {}, {}};
  for (int f = 0; f < count; ++f)
    layout.fields.push_back({"f" + std::to_string(f), static_cast<unsigned long>(f * 4), kFieldUInt32, 4});
  layout.indexes.push_back({"first", 4, kKeyFixed, 0, 1, 0});
  layout.segments.push_back({0, 4, 1});
  return layout;
}

}  // namespace

TEST(TableSchemas, RegisteredLimitsAndTypesAreEnforced) {
  TempDir dir;
  LimitedTable table;
  EXPECT_EQ(defineSchema(table, dir / "t", manyFields(18)), TBL_OK);
  EXPECT_EQ(defineSchema(table, dir / "t", manyFields(19)), TBL_BAD_SCHEMA);
  // The base table's own limits are wider.
  TCtreeTable wide;
  EXPECT_EQ(defineSchema(wide, dir / "w", manyFields(19)), TBL_OK);

  SchemaLayout unknownType = smallSchema();
  unknownType.fields[3].type = 47;
  EXPECT_EQ(defineSchema(table, dir / "t", unknownType), TBL_BAD_SCHEMA);

  SchemaLayout wrongKeyLength = genericSchema();
  wrongKeyLength.indexes[1].keyLength = 70;  // segments add up to 72
  EXPECT_EQ(defineSchema(table, dir / "t", wrongKeyLength), TBL_BAD_SCHEMA);

  SchemaLayout badKeyType = genericSchema();
  badKeyType.indexes[0].keyType = static_cast<TKeyType>(4);
  EXPECT_EQ(defineSchema(table, dir / "t", badKeyType), TBL_BAD_SCHEMA);

  SchemaLayout partialInteger = smallSchema();
  partialInteger.segments[0].size = 4;  // half of a 64-bit field
  partialInteger.indexes[0].keyLength = 4;
  EXPECT_EQ(defineSchema(table, dir / "t", partialInteger), TBL_BAD_SCHEMA);

  SchemaLayout outside = genericSchema();
  outside.fields[5].length = 260;  // past the 440-byte record
  EXPECT_EQ(defineSchema(table, dir / "t", outside), TBL_BAD_SCHEMA);

  EXPECT_EQ(table.internalRegisterTable(0, 12, 18), TBL_BAD_SCHEMA);

  // An incomplete schema cannot be created or opened.
  TCtreeTable partial;
  ASSERT_EQ(partial.internalInitialize((dir / "p").c_str(), 1, 6, 2, 3, 440, 181), TBL_OK);
  EXPECT_EQ(partial.create(), TBL_NOT_DEFINED);
  EXPECT_EQ(partial.open(WZIndexing::kAccessReadWrite), TBL_NOT_DEFINED);
}

TEST(TableSchemas, queriesAndUnsupportedHooks) {
  TempDir dir;
  TCtreeTable table;
  ASSERT_EQ(defineSchema(table, dir / "t", genericSchema()), TBL_OK);
  EXPECT_EQ(table.getFieldsCount(), 6);
  EXPECT_EQ(table.getIndexesCount(), 2);
  EXPECT_EQ(table.getFieldType(5), kFieldString);
  EXPECT_EQ(table.getFieldOffset(5), 181);
  EXPECT_EQ(table.getFieldLength(2), 144);
  EXPECT_EQ(table.getFieldUnsignedFlag(3), 1);
  EXPECT_EQ(table.getFieldUnsignedFlag(0), 0);
  EXPECT_EQ(table.getFieldType(6), -1);
  EXPECT_EQ(table.getFieldNameSize(1), 12);
  char name[32];
  ASSERT_EQ(table.getFieldName(1, name, sizeof name), TBL_OK);
  EXPECT_STREQ(name, "parent_guid");
  EXPECT_EQ(table.getFieldName(1, name, 11), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.getIndexNameSize(1), 22);
  ASSERT_EQ(table.getIndexName(1, name, sizeof name), TBL_OK);
  EXPECT_STREQ(name, "parent_guid_and_sname");
  EXPECT_EQ(table.getIndexName(2, name, sizeof name), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.getFieldOrderCount(), 6);
  EXPECT_EQ(table.getFieldIdInOrder(4), 4);
  EXPECT_EQ(table.getFieldIdInOrder(6), -1);
  EXPECT_EQ(table.shellOrder(9), TBL_BAD_ARGUMENT);

  int version = 0;
  EXPECT_EQ(table.shellUtilities(), TBL_NOT_SUPPORTED);
  EXPECT_EQ(table.alternateViewer(0, name), TBL_NOT_SUPPORTED);
  EXPECT_EQ(table.alternateEditor(0, name, 1), TBL_NOT_SUPPORTED);
  EXPECT_EQ(table.adjustTableVersion("t", version), TBL_NOT_SUPPORTED);
  EXPECT_EQ(table.processIndexVersionExternal(version), TBL_NOT_SUPPORTED);
  EXPECT_EQ(table.processTableVersionExternal(version), TBL_NOT_SUPPORTED);
  EXPECT_FALSE(table.createHugeFile());
  EXPECT_GT(table.hugeFileIncr(), 0);
  EXPECT_STREQ(table.getTableType(), "TCtreeTable");
}

TEST(TableSchemas, EveryStatusHasItsOwnText) {
  std::set<std::string> texts;
  for (int status : {0, 101, 102, 103, 104, 105, 106, 107, 108, 109, 110, 111, 112, 113, 114, 115,
                     116, 117, 118, 119}) {
    std::string text = TCtreeTable::errToString(status);
    EXPECT_FALSE(text.empty());
    EXPECT_EQ(text.find("unknown"), std::string::npos) << status;
    EXPECT_TRUE(texts.insert(text).second) << "duplicate text for " << status;
  }
  EXPECT_STREQ(TCtreeTable::errToString(999), "unknown table status 999");
  EXPECT_STREQ(TCtreeTable::errToString(-7), "unknown table status -7");
}

TEST(TableSchemas, DefinitionCreateAndOpenOnAnOpenTableChangeNothing) {
  TempDir dir;
  TCtreeTable table;
  ASSERT_EQ(createTable(table, dir / "t", genericSchema()), TBL_OK);
  EXPECT_EQ(table.internalInitialize((dir / "x").c_str(), 0, 1, 1, 1, 8, 8), TBL_ALREADY_OPEN);
  EXPECT_EQ(table.setNextField("x", 0, kFieldBinary, 4), TBL_ALREADY_OPEN);
  EXPECT_EQ(table.setNextIndex("x", 4, kKeyFixed, 0, 0, 0, 1, 0), TBL_ALREADY_OPEN);
  EXPECT_EQ(table.setNextSegment(0, 4, 1), TBL_ALREADY_OPEN);
  EXPECT_EQ(table.initializeComplete(), TBL_ALREADY_OPEN);
  EXPECT_EQ(table.internalRegisterTable(1, 1, 1), TBL_ALREADY_OPEN);
  EXPECT_EQ(table.initialize((dir / "x").c_str()), TBL_ALREADY_OPEN);
  EXPECT_EQ(table.create(), TBL_ALREADY_OPEN);
  EXPECT_EQ(table.open(WZIndexing::kAccessReadWrite), TBL_ALREADY_OPEN);
  EXPECT_EQ(table.getFieldsCount(), 6);
  auto image = genericRecord(1, 2, "still works");
  EXPECT_EQ(table.addRecord(image.data()), TBL_OK);
  EXPECT_EQ(fileSize(dir / "x.dat"), -1);
}
