// Schema registration: limits and type checks, introspection, the hooks this
// engine lacks, status texts, and "already open".
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "TableTestUtil.h"
#include "support/GenericSchemaTable.h"
#include "support/TempDir.h"

using namespace tabletest;

TEST(TableSchemas, RegistrationRefusesWhatTheEngineCannotStore) {
  TempDir dir;
  auto manyFields = [](int count) {
    SchemaLayout layout{false, unsigned(count * 4), 0, {}, {{"first", 4, kKeyFixed, 0, 1, 0}}, {{0, 4, 1}}};
    for (int f = 0; f < count; ++f)
      layout.fields.push_back({"f" + std::to_string(f), static_cast<unsigned long>(f * 4), kFieldUInt32, 4});
    return layout;
  };
  GenericSchemaTable limited;  // declares the scan database's limits 18, 12, 18
  EXPECT_EQ(defineSchema(limited, dir / "t", manyFields(18)), TBL_OK);
  EXPECT_EQ(defineSchema(limited, dir / "t", manyFields(19)), TBL_BAD_SCHEMA);
  TCtreeTable wide;  // the base table's own limits are wider
  EXPECT_EQ(defineSchema(wide, dir / "w", manyFields(19)), TBL_OK);
  EXPECT_EQ(limited.internalRegisterTable(0, 12, 18), TBL_BAD_SCHEMA);

  const std::pair<const char*, std::function<void(SchemaLayout&)>> refused[] = {
      {"unknown field type", [](SchemaLayout& l) { l.fields[3].type = 47; }},
      {"key length not the segments' sum", [](SchemaLayout& l) { l.indexes[1].keyLength = 70; }},
      {"unknown key type", [](SchemaLayout& l) { l.indexes[0].keyType = TKeyType(4); }},
      {"half of a 64-bit integer field",
       [](SchemaLayout& l) {
         l = smallSchema();
         l.segments[0].size = 4;
         l.indexes[0].keyLength = 4;
       }},
      {"field past the record", [](SchemaLayout& l) { l.fields[5].length = 260; }},
  };
  for (const auto& [what, change] : refused) {
    SCOPED_TRACE(what);
    SchemaLayout layout = SchemaLayout::generic();
    change(layout);
    EXPECT_EQ(defineSchema(limited, dir / "t", layout), TBL_BAD_SCHEMA);
  }

  // An incomplete schema cannot be created or opened.
  TCtreeTable partial;
  ASSERT_EQ(partial.internalInitialize((dir / "p").c_str(), 1, 6, 2, 3, 440, 181), TBL_OK);
  EXPECT_EQ(partial.create(), TBL_NOT_DEFINED);
  EXPECT_EQ(partial.open(WZIndexing::kAccessReadWrite), TBL_NOT_DEFINED);
}

// Introspection beyond reading back what was registered: derived flags, name
// sizes, out-of-range numbers.
TEST(TableSchemas, IntrospectionUnsupportedHooksAndStatusTexts) {
  TempDir dir;
  TCtreeTable table;
  ASSERT_EQ(defineSchema(table, dir / "t", SchemaLayout::generic()), TBL_OK);
  EXPECT_EQ(table.getFieldUnsignedFlag(3), 1);
  EXPECT_EQ(table.getFieldUnsignedFlag(0), 0);
  EXPECT_EQ(table.getFieldType(6), -1);
  // Name sizes count the terminating NUL; a buffer one byte short is refused.
  EXPECT_EQ(table.getFieldNameSize(1), 12);
  char name[32];
  ASSERT_EQ(table.getFieldName(1, name, sizeof name), TBL_OK);
  EXPECT_STREQ(name, "parent_guid");
  EXPECT_EQ(table.getFieldName(1, name, 11), TBL_BAD_ARGUMENT);
  EXPECT_EQ(table.getIndexNameSize(1), 22);
  ASSERT_EQ(table.getIndexName(1, name, sizeof name), TBL_OK);
  EXPECT_STREQ(name, "parent_guid_and_sname");
  EXPECT_EQ(table.getIndexName(2, name, sizeof name), TBL_BAD_ARGUMENT);
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

  std::set<std::string> texts;
  for (int status = 100; status <= 119; ++status) {
    const std::string text = TCtreeTable::errToString(status == 100 ? 0 : status);
    EXPECT_EQ(text.find("unknown"), std::string::npos) << status;
    EXPECT_TRUE(!text.empty() && texts.insert(text).second) << "no text of its own for " << status;
  }
  EXPECT_STREQ(TCtreeTable::errToString(999), "unknown table status 999");
  EXPECT_STREQ(TCtreeTable::errToString(-7), "unknown table status -7");
}

TEST(TableSchemas, DefinitionCreateAndOpenOnAnOpenTableChangeNothing) {
  TempDir dir;
  TCtreeTable table;
  ASSERT_EQ(createTable(table, dir / "t", SchemaLayout::generic()), TBL_OK);
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
