// Record images byte for byte, the slot order of the record interface and the
// schema descriptors of the three record types.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>

#include "RecordTestSupport.h"
#include "WzScanDB/records/BackupTimeRecord.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"

namespace {

TEST(RecordLayout, ImagesHaveTheirExactSizesAndOffsets) {
  const size_t rows[][2] = {
      {sizeof(WzScanDBKeyGUID), 16}, {sizeof(LustreAPI::CLustreFID), 24}, {sizeof(struct stat), 144},
      {sizeof(SRecordStructure), 440}, {offsetof(SRecordStructure, guid), 0},
      {offsetof(SRecordStructure, parent_guid), 16}, {offsetof(SRecordStructure, stat_data), 32},
      {offsetof(SRecordStructure, refTime), 176}, {offsetof(SRecordStructure, flags), 180},
      {offsetof(SRecordStructure, sname), 181},
      {sizeof(SLustreRecord), 456}, {offsetof(SLustreRecord, FID), 0},
      {offsetof(SLustreRecord, ParentFID), 24}, {offsetof(SLustreRecord, stat_data), 48},
      {offsetof(SLustreRecord, refTime), 192}, {offsetof(SLustreRecord, flags), 196},
      {offsetof(SLustreRecord, sname), 197},
      {sizeof(SBackupTimeRecordStructure), 24}, {offsetof(SBackupTimeRecordStructure, inode), 0},
      {offsetof(SBackupTimeRecordStructure, ctime), 8}, {offsetof(SBackupTimeRecordStructure, dummy), 16}};
  for (size_t i = 0; i < sizeof rows / sizeof rows[0]; ++i) EXPECT_EQ(rows[i][0], rows[i][1]) << "row " << i;

  // The FID bytes inside a Lustre image: header word, then the lu_fid.
  WzScanDBLustreRecord lustre(
      LustreAPI::CLustreFIDPtr(new LustreAPI::CLustreFID(0x1122334455667788ULL, 0xAABBCCDD, 7)));
  const unsigned char expected[24] = {0, 0, 0, 0, 0, 0, 0, 0, 0x88, 0x77, 0x66, 0x55,
                                      0x44, 0x33, 0x22, 0x11, 0xDD, 0xCC, 0xBB, 0xAA, 7, 0, 0, 0};
  EXPECT_EQ(0, std::memcmp(lustre.getStructure(), expected, sizeof expected));
}

// Under the Itanium C++ ABI a pointer to a virtual member function holds
// 1 + the byte offset of its vtable slot. The destructor takes slots 0 and 1,
// so the k-th operation after it must sit in slot k + 2.
template <class PMF>
long Slot(PMF pmf) {
  static_assert(sizeof(PMF) == 2 * sizeof(long), "Itanium pointer to member function");
  long raw;
  std::memcpy(&raw, &pmf, sizeof raw);
  return raw % 8 == 1 ? (raw - 1) / 8 : -1;  // -1: not a virtual function
}

template <class... PMF>
void ExpectSlotsInOrder(const char* type, PMF... pmfs) {
  const long slots[] = {Slot(pmfs)...};
  for (size_t k = 0; k < sizeof...(PMF); ++k) EXPECT_EQ(slots[k], long(k) + 2) << type << " operation " << k;
}

template <class R>
void ExpectInterfaceSlots(const char* type) {
  ExpectSlotsInOrder(type, &R::initializeFieldInformation, &R::initializeIndexInformation,
                     &R::initializeSegmentInformation, &R::getFieldInformation, &R::getIndexInformation,
                     &R::getSegmentInformation, &R::isVariableLength, &R::numFields, &R::numIndices,
                     &R::numSegments, &R::recordSize, &R::fixedRecordSize, &R::isRoot, &R::getRoot,
                     &R::keyIndex, &R::parentIndex, &R::getName, &R::getFlags, &R::setFlags,
                     &R::setRefTime, &R::getRefTime, &R::getStructure, &R::setStructure,
                     &R::copyStandardFields, &R::isDir, &R::checkParent, &R::prepareIndexKeyFromParent,
                     &R::prepareIndexKeyFromKey, &R::prepareIndexKey, &R::checkEqualOnIndex, &R::toString,
                     &R::Clone, &R::MakeObject, &R::MakeParentObject, &R::toCSVHeader, &R::toCSV);
}

TEST(RecordLayout, EveryTypePresentsTheInterfaceInSlotOrder) {
  ExpectInterfaceSlots<WzScanDBRecordBase>("base");
  ExpectInterfaceSlots<WzScanDBRecord>("generic");
  ExpectInterfaceSlots<WzScanDBLustreRecord>("Lustre");
  ExpectInterfaceSlots<CBackupTimeRecord>("backup time");
}

struct FieldRow { const char* name; uint64_t offset; int16_t type, length; };
struct IndexRow { const char* name; int16_t keyLength; int keyType; int16_t duplicates, numSegments, segmentNumber; };
struct SegmentRow { int16_t fieldNumber, segmentSize; char caseSensitive; };

void ExpectSchema(WzScanDBRecordBase& r, int size, int parentIndex, const std::vector<FieldRow>& fields,
                  const std::vector<IndexRow>& indexes, const std::vector<SegmentRow>& segments) {
  InitSchema(r);
  InitSchema(r);  // the initialize calls rebuild, they do not append
  EXPECT_EQ(r.recordSize(), size);
  EXPECT_EQ(r.keyIndex(), 0);
  EXPECT_EQ(r.parentIndex(), parentIndex);
  EXPECT_TRUE(r.isVariableLength());
  ASSERT_EQ(r.numFields(), static_cast<int>(fields.size()));
  ASSERT_EQ(r.numIndices(), static_cast<int>(indexes.size()));
  ASSERT_EQ(r.numSegments(), static_cast<int>(segments.size()));
  for (size_t i = 0; i < fields.size(); ++i) {
    SFields f = r.getFieldInformation(static_cast<int>(i));
    SCOPED_TRACE(f.name);
    EXPECT_EQ(f.name, fields[i].name);
    EXPECT_EQ(f.offset, fields[i].offset);
    EXPECT_EQ(f.type, fields[i].type);
    EXPECT_EQ(f.length, fields[i].length);
  }
  EXPECT_LE(fields.back().offset + fields.back().length, uint64_t(size));
  EXPECT_EQ(r.fixedRecordSize(), static_cast<int>(fields.back().offset));
  for (size_t i = 0; i < indexes.size(); ++i) {
    SIndices x = r.getIndexInformation(static_cast<int>(i));
    SCOPED_TRACE(x.name);
    EXPECT_EQ(x.name, indexes[i].name);
    EXPECT_EQ(x.keyLength, indexes[i].keyLength);
    EXPECT_EQ(static_cast<int>(x.keyType), indexes[i].keyType);
    EXPECT_EQ(x.duplicates, indexes[i].duplicates);
    EXPECT_EQ(x.nullKey, 0);
    EXPECT_EQ(x.emptyChar, 0);
    EXPECT_EQ(x.numSegments, indexes[i].numSegments);
    EXPECT_EQ(x.segmentNumber, indexes[i].segmentNumber);
  }
  for (size_t i = 0; i < segments.size(); ++i) {
    SSegments s = r.getSegmentInformation(static_cast<int>(i));
    EXPECT_EQ(s.fieldNumber, segments[i].fieldNumber) << "segment " << i;
    EXPECT_EQ(s.segmentSize, segments[i].segmentSize) << "segment " << i;
    EXPECT_EQ(s.caseSensitive, segments[i].caseSensitive) << "segment " << i;
  }
}

TEST(RecordLayout, SchemaDescriptorsOfTheThreeTypes) {
  WzScanDBRecord generic;
  ExpectSchema(generic, 440, 1,
               {{"guid", 0, 128, 16}, {"parent_guid", 16, 128, 16}, {"stat_data", 32, 128, 144},
                {"refTime", 176, 59, 4}, {"flags", 180, 24, 1}, {"sname", 181, 146, 255}},
               {{"guid", 16, 0, 0, 1, 0}, {"parent_guid_and_sname", 72, 12, 1, 2, 1}},
               {{0, 16, 1}, {1, 16, 1}, {5, 56, 1}});
  // The generic lists are the object's own: a copy carries them.
  EXPECT_EQ(WzScanDBRecord(generic).getFieldInformation(5).name, "sname");

  WzScanDBLustreRecord lustre;
  ExpectSchema(lustre, 456, 1,
               {{"FID", 0, 128, 24}, {"ParentFID", 24, 128, 24}, {"stat_data", 48, 128, 144},
                {"refTime", 192, 59, 4}, {"flags", 196, 24, 1}, {"sname", 197, 146, 255}},
               {{"FID", 24, 0, 0, 1, 0}, {"parent_FID_and_sname", 80, 12, 1, 2, 1}},
               {{0, 24, 1}, {1, 24, 1}, {5, 56, 1}});
  // The Lustre lists are class-wide: any other instance answers from them.
  EXPECT_EQ(WzScanDBLustreRecord().getIndexInformation(1).name, "parent_FID_and_sname");

  CBackupTimeRecord backup;
  ExpectSchema(backup, 24, 0, {{"inode", 0, 239, 8}, {"ctime", 8, 239, 8}, {"dummy", 16, 146, 4}},
               {{"inode", 8, 0, 0, 1, 0}}, {{0, 8, 0}});
}

}  // namespace
