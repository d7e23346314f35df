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

// The descriptors as text: "name@offset type/length" per field; per index
// "name length type dup nullKey emptyChar numSegments first"; per segment
// "field/size/case". initialize runs twice: it must rebuild, not append.
std::string Schema(WzScanDBRecordBase& r) {
  InitSchema(r);
  InitSchema(r);
  std::string text = "size " + std::to_string(r.recordSize()) + " fixed " + std::to_string(r.fixedRecordSize()) +
                     " key " + std::to_string(r.keyIndex()) + " parent " + std::to_string(r.parentIndex()) +
                     (r.isVariableLength() ? " variable\n" : " fixed\n");
  for (int i = 0; i < r.numFields(); ++i) {
    SFields f = r.getFieldInformation(i);
    text += f.name + "@" + std::to_string(f.offset) + " " + std::to_string(f.type) + "/" +
            std::to_string(f.length) + " ";
  }
  text += "\n";
  for (int i = 0; i < r.numIndices(); ++i) {
    SIndices x = r.getIndexInformation(i);
    for (int v : {int(x.keyLength), int(x.keyType), int(x.duplicates), int(x.nullKey), int(x.emptyChar),
                  int(x.numSegments), int(x.segmentNumber)})
      x.name += " " + std::to_string(v);
    text += x.name + ", ";
  }
  text += "\n";
  for (int i = 0; i < r.numSegments(); ++i) {
    SSegments g = r.getSegmentInformation(i);
    text += std::to_string(g.fieldNumber) + "/" + std::to_string(g.segmentSize) + "/" +
            std::to_string(g.caseSensitive) + " ";
  }
  return text;
}

TEST(RecordLayout, SchemaDescriptorsOfTheThreeTypes) {
  WzScanDBRecord generic;
  EXPECT_EQ(Schema(generic),
            "size 440 fixed 181 key 0 parent 1 variable\n"
            "guid@0 128/16 parent_guid@16 128/16 stat_data@32 128/144 "
            "refTime@176 59/4 flags@180 24/1 sname@181 146/255 \n"
            "guid 16 0 0 0 0 1 0, parent_guid_and_sname 72 12 1 0 0 2 1, \n"
            "0/16/1 1/16/1 5/56/1 ");
  // The generic lists are the object's own: a copy carries them.
  EXPECT_EQ(WzScanDBRecord(generic).getFieldInformation(5).name, "sname");

  WzScanDBLustreRecord lustre;
  EXPECT_EQ(Schema(lustre),
            "size 456 fixed 197 key 0 parent 1 variable\n"
            "FID@0 128/24 ParentFID@24 128/24 stat_data@48 128/144 "
            "refTime@192 59/4 flags@196 24/1 sname@197 146/255 \n"
            "FID 24 0 0 0 0 1 0, parent_FID_and_sname 80 12 1 0 0 2 1, \n"
            "0/24/1 1/24/1 5/56/1 ");
  // The Lustre lists are class-wide: any other instance answers from them.
  EXPECT_EQ(WzScanDBLustreRecord().getIndexInformation(1).name, "parent_FID_and_sname");

  CBackupTimeRecord backup;
  EXPECT_EQ(Schema(backup),
            "size 24 fixed 16 key 0 parent 0 variable\n"
            "inode@0 239/8 ctime@8 239/8 dummy@16 146/4 \n"
            "inode 8 0 0 0 0 1 0, \n"
            "0/8/0 ");
}

}  // namespace
