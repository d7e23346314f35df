// Record images byte for byte, the slot order of the record interface and the
// schema descriptors of the three record types.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>

#include "WzScanDB/records/BackupTimeRecord.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"

namespace {

TEST(RecordLayout, ImagesHaveTheirExactSizesAndOffsets) {
  EXPECT_EQ(sizeof(WzScanDBKeyGUID), 16u);
  EXPECT_EQ(sizeof(LustreAPI::CLustreFID), 24u);
  EXPECT_EQ(sizeof(struct stat), 144u);

  EXPECT_EQ(sizeof(SRecordStructure), 440u);
  EXPECT_EQ(offsetof(SRecordStructure, guid), 0u);
  EXPECT_EQ(offsetof(SRecordStructure, parent_guid), 16u);
  EXPECT_EQ(offsetof(SRecordStructure, stat_data), 32u);
  EXPECT_EQ(offsetof(SRecordStructure, refTime), 176u);
  EXPECT_EQ(offsetof(SRecordStructure, flags), 180u);
  EXPECT_EQ(offsetof(SRecordStructure, sname), 181u);

  EXPECT_EQ(sizeof(SLustreRecord), 456u);
  EXPECT_EQ(offsetof(SLustreRecord, FID), 0u);
  EXPECT_EQ(offsetof(SLustreRecord, ParentFID), 24u);
  EXPECT_EQ(offsetof(SLustreRecord, stat_data), 48u);
  EXPECT_EQ(offsetof(SLustreRecord, refTime), 192u);
  EXPECT_EQ(offsetof(SLustreRecord, flags), 196u);
  EXPECT_EQ(offsetof(SLustreRecord, sname), 197u);

  EXPECT_EQ(sizeof(SBackupTimeRecordStructure), 24u);
  EXPECT_EQ(offsetof(SBackupTimeRecordStructure, inode), 0u);
  EXPECT_EQ(offsetof(SBackupTimeRecordStructure, ctime), 8u);
  EXPECT_EQ(offsetof(SBackupTimeRecordStructure, dummy), 16u);

  // The FID bytes inside a Lustre image: header word, then the lu_fid.
  LustreAPI::CLustreFIDPtr fid(new LustreAPI::CLustreFID(0x1122334455667788ULL, 0xAABBCCDD, 7));
  WzScanDBLustreRecord lustre(fid);
  const unsigned char* image = static_cast<const unsigned char*>(lustre.getStructure());
  const unsigned char expected[24] = {0,    0,    0,    0,    0,    0,    0,    0,
                                      0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11,
                                      0xDD, 0xCC, 0xBB, 0xAA, 7,    0,    0,    0};
  EXPECT_EQ(0, std::memcmp(image, expected, sizeof expected));
}

// Under the Itanium C++ ABI a pointer to a virtual member function holds
// 1 + the byte offset of its vtable slot. The destructor takes slots 0 and 1,
// so operation k of the interface (counting the destructor as 1) is slot k.
template <class PMF>
long Slot(PMF pmf) {
  static_assert(sizeof(PMF) == 2 * sizeof(long), "Itanium pointer to member function");
  long raw;
  std::memcpy(&raw, &pmf, sizeof raw);
  return raw % 8 == 1 ? (raw - 1) / 8 : -1;  // -1: not a virtual function
}

template <class R>
void ExpectInterfaceSlots() {
  EXPECT_EQ(Slot(&R::initializeFieldInformation), 2);
  EXPECT_EQ(Slot(&R::initializeIndexInformation), 3);
  EXPECT_EQ(Slot(&R::initializeSegmentInformation), 4);
  EXPECT_EQ(Slot(&R::getFieldInformation), 5);
  EXPECT_EQ(Slot(&R::getIndexInformation), 6);
  EXPECT_EQ(Slot(&R::getSegmentInformation), 7);
  EXPECT_EQ(Slot(&R::isVariableLength), 8);
  EXPECT_EQ(Slot(&R::numFields), 9);
  EXPECT_EQ(Slot(&R::numIndices), 10);
  EXPECT_EQ(Slot(&R::numSegments), 11);
  EXPECT_EQ(Slot(&R::recordSize), 12);
  EXPECT_EQ(Slot(&R::fixedRecordSize), 13);
  EXPECT_EQ(Slot(&R::isRoot), 14);
  EXPECT_EQ(Slot(&R::getRoot), 15);
  EXPECT_EQ(Slot(&R::keyIndex), 16);
  EXPECT_EQ(Slot(&R::parentIndex), 17);
  EXPECT_EQ(Slot(&R::getName), 18);
  EXPECT_EQ(Slot(&R::getFlags), 19);
  EXPECT_EQ(Slot(&R::setFlags), 20);
  EXPECT_EQ(Slot(&R::setRefTime), 21);
  EXPECT_EQ(Slot(&R::getRefTime), 22);
  EXPECT_EQ(Slot(&R::getStructure), 23);
  EXPECT_EQ(Slot(&R::setStructure), 24);
  EXPECT_EQ(Slot(&R::copyStandardFields), 25);
  EXPECT_EQ(Slot(&R::isDir), 26);
  EXPECT_EQ(Slot(&R::checkParent), 27);
  EXPECT_EQ(Slot(&R::prepareIndexKeyFromParent), 28);
  EXPECT_EQ(Slot(&R::prepareIndexKeyFromKey), 29);
  EXPECT_EQ(Slot(&R::prepareIndexKey), 30);
  EXPECT_EQ(Slot(&R::checkEqualOnIndex), 31);
  EXPECT_EQ(Slot(&R::toString), 32);
  EXPECT_EQ(Slot(&R::Clone), 33);
  EXPECT_EQ(Slot(&R::MakeObject), 34);
  EXPECT_EQ(Slot(&R::MakeParentObject), 35);
  EXPECT_EQ(Slot(&R::toCSVHeader), 36);
  EXPECT_EQ(Slot(&R::toCSV), 37);
}

TEST(RecordLayout, EveryTypePresentsTheInterfaceInSlotOrder) {
  ExpectInterfaceSlots<WzScanDBRecordBase>();
  ExpectInterfaceSlots<WzScanDBRecord>();
  ExpectInterfaceSlots<WzScanDBLustreRecord>();
  ExpectInterfaceSlots<CBackupTimeRecord>();
}

struct FieldRow {
  const char* name;
  uint64_t offset;
  int16_t type;
  int16_t length;
};
struct IndexRow {
  const char* name;
  int16_t keyLength;
  int keyType;
  int16_t duplicates, numSegments, segmentNumber;
};
struct SegmentRow {
  int16_t fieldNumber, segmentSize;
  char caseSensitive;
};

void ExpectSchema(WzScanDBRecordBase& r, const std::vector<FieldRow>& fields,
                  const std::vector<IndexRow>& indexes, const std::vector<SegmentRow>& segments) {
  // Twice: the initialize calls rebuild, they do not append.
  for (int round = 0; round < 2; ++round) {
    r.initializeFieldInformation();
    r.initializeIndexInformation();
    r.initializeSegmentInformation();
  }
  ASSERT_EQ(r.numFields(), static_cast<int>(fields.size()));
  ASSERT_EQ(r.numIndices(), static_cast<int>(indexes.size()));
  ASSERT_EQ(r.numSegments(), static_cast<int>(segments.size()));
  EXPECT_TRUE(r.isVariableLength());
  int lastOffsetEnd = 0;
  for (size_t i = 0; i < fields.size(); ++i) {
    SFields f = r.getFieldInformation(static_cast<int>(i));
    EXPECT_EQ(f.name, fields[i].name);
    EXPECT_EQ(f.offset, fields[i].offset) << f.name;
    EXPECT_EQ(f.type, fields[i].type) << f.name;
    EXPECT_EQ(f.length, fields[i].length) << f.name;
    lastOffsetEnd = static_cast<int>(f.offset + f.length);
  }
  EXPECT_LE(lastOffsetEnd, r.recordSize());
  EXPECT_EQ(r.fixedRecordSize(), static_cast<int>(fields.back().offset));
  for (size_t i = 0; i < indexes.size(); ++i) {
    SIndices x = r.getIndexInformation(static_cast<int>(i));
    EXPECT_EQ(x.name, indexes[i].name);
    EXPECT_EQ(x.keyLength, indexes[i].keyLength);
    EXPECT_EQ(static_cast<int>(x.keyType), indexes[i].keyType);
    EXPECT_EQ(x.duplicates, indexes[i].duplicates);
    EXPECT_EQ(x.nullKey, 0);
    EXPECT_EQ(x.emptyChar, 0);
    EXPECT_EQ(x.numSegments, indexes[i].numSegments);
    EXPECT_EQ(x.segmentNumber, indexes[i].segmentNumber);
    int sum = 0;
    for (int s = 0; s < x.numSegments; ++s)
      sum += r.getSegmentInformation(x.segmentNumber + s).segmentSize;
    EXPECT_EQ(sum, x.keyLength) << x.name;
  }
  for (size_t i = 0; i < segments.size(); ++i) {
    SSegments s = r.getSegmentInformation(static_cast<int>(i));
    EXPECT_EQ(s.fieldNumber, segments[i].fieldNumber);
    EXPECT_EQ(s.segmentSize, segments[i].segmentSize);
    EXPECT_EQ(s.caseSensitive, segments[i].caseSensitive);
  }
}

TEST(RecordLayout, SchemaDescriptorsOfTheThreeTypes) {
  WzScanDBRecord generic;
  EXPECT_EQ(generic.recordSize(), 440);
  EXPECT_EQ(generic.keyIndex(), 0);
  EXPECT_EQ(generic.parentIndex(), 1);
  ExpectSchema(generic,
               {{"guid", 0, 128, 16}, {"parent_guid", 16, 128, 16}, {"stat_data", 32, 128, 144},
                {"refTime", 176, 59, 4}, {"flags", 180, 24, 1}, {"sname", 181, 146, 255}},
               {{"guid", 16, 0, 0, 1, 0}, {"parent_guid_and_sname", 72, 12, 1, 2, 1}},
               {{0, 16, 1}, {1, 16, 1}, {5, 56, 1}});
  // The lists are the object's own: a copy carries them, a fresh record has none.
  WzScanDBRecord copy(generic);
  EXPECT_EQ(copy.getFieldInformation(5).name, "sname");

  WzScanDBLustreRecord lustre;
  EXPECT_EQ(lustre.recordSize(), 456);
  EXPECT_EQ(lustre.keyIndex(), 0);
  EXPECT_EQ(lustre.parentIndex(), 1);
  ExpectSchema(lustre,
               {{"FID", 0, 128, 24}, {"ParentFID", 24, 128, 24}, {"stat_data", 48, 128, 144},
                {"refTime", 192, 59, 4}, {"flags", 196, 24, 1}, {"sname", 197, 146, 255}},
               {{"FID", 24, 0, 0, 1, 0}, {"parent_FID_and_sname", 80, 12, 1, 2, 1}},
               {{0, 24, 1}, {1, 24, 1}, {5, 56, 1}});
  // Class-wide lists: any other instance answers from them.
  WzScanDBLustreRecord other;
  EXPECT_EQ(other.getIndexInformation(1).name, "parent_FID_and_sname");

  CBackupTimeRecord backup;
  EXPECT_EQ(backup.recordSize(), 24);
  EXPECT_EQ(backup.keyIndex(), 0);
  EXPECT_EQ(backup.parentIndex(), 0);
  ExpectSchema(backup, {{"inode", 0, 239, 8}, {"ctime", 8, 239, 8}, {"dummy", 16, 146, 4}},
               {{"inode", 8, 0, 0, 1, 0}}, {{0, 8, 0}});
}

}  // namespace
