// What the table engine sees of a record: its image byte for byte, the key
// bytes of each index, the schema descriptors, and the slot order of the
// record interface.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "RecordTestSupport.h"
#include "support/LogAt.h"

namespace {

typedef std::function<WzScanDBRecordBasePtr()> Make;
template <class R, class... Args>
Make New(Args... args) {
  return [=] { return WzMakeHandle<WzScanDBRecordBase>(new R(args...)); };
}
const std::string kMd5AB = "aee31d71a4dce5fe24481547cc863476", kMd5A = "0639767f3e9eaad729b54037a7e2abf5";
const std::string kMd5Root = "6666cd76f96956469e7be39d750cc7d9";
// The FID (0x1122334455667788, 0xAABBCCDD, 7) after its zero header word.
const std::string kFidBytes = "8877665544332211ddccbbaa07";

WzScanDBRecordBasePtr Lustre() {
  return WzMakeHandle<WzScanDBRecordBase>(
      new WzScanDBLustreRecord(Fid(0x1122334455667788ULL, 0xAABBCCDD, 7), Fid(0x200000400, 0x1a), "a/b", true,
                               0x100000003ULL));
}

std::string Repeat(const std::string& text, int times) {
  std::string repeated;
  while (times-- > 0) repeated += text;
  return repeated;
}

// Generic image: guid @0, parent guid @16, status @32, reference time @176,
// flags @180, name @181. Lustre: FID @0 and parent FID @24 (each a zero
// header word and the lu_fid), status @48, reference time @192, flags @196,
// name @197. Backup time: inode @0, ctime @8, "0" @16.
TEST(RecordLayout, ImagesByteForByte) {
  FakeLustre lustre;
  LogAt log(0);
  const std::pair<Make, std::string> rows[] = {
      {New<WzScanDBRecord>("/a/b", true, 0x100000005ULL), "440: @0 " + kMd5AB + kMd5A + " @176 05 @180 0162"},
      {New<WzScanDBRecord>("/a/b/"), "440: @0 f218dc3054693d47457e30c57b8b2425" + kMd5A + " @181 62"},
      {New<WzScanDBRecord>("/"), "440: @0 " + kMd5Root},
      {New<WzScanDBRecord>(), "440:"},
      {[] {  // an image read in: all but the padding
         unsigned char buffer[440];
         std::memset(buffer, 0xAB, sizeof buffer);
         WzScanDBRecordBasePtr r = New<WzScanDBRecord>()();
         r->setStructure(buffer);
         return r;
       },
       "440: @0 " + Repeat("ab", 436)},
      {[] { return WzScanDBRecord("/a/b", true, 5).getRoot(); }, "440: @0 " + kMd5Root + " @176 05 @180 0162"},
      {[] { return WzScanDBRecord("/a/b/c").MakeParentObject(); }, "440: @0 " + kMd5AB},
      {[] { return WzScanDBRecord("/a/b").MakeObject("/a/b/c")->MakeParentObject(); }, "440: @0 " + kMd5AB},
      {Lustre, "456: @8 " + kFidBytes + " @33 04 @36 02 @40 1a @192 03 @196 01612f62"},
      {New<WzScanDBLustreRecord>(Fid(0x1122334455667788ULL, 0xAABBCCDD, 7)), "456: @8 " + kFidBytes},
      {New<WzScanDBLustreRecord>(), "456:"},
      {[] { return Lustre()->getRoot(); }, "456: @192 03 @196 01612f62"},
      {[] { return Lustre()->MakeParentObject(); }, "456: @9 04 @12 02 @16 1a"},
      {[] { return Lustre()->Clone(); }, "456: @8 " + kFidBytes + " @33 04 @36 02 @40 1a @192 03 @196 01612f62"},
      // Header words and padding of an image read in are not taken over.
      {[] {
         unsigned char buffer[456];
         std::memcpy(buffer, Lustre()->getStructure(), sizeof buffer);
         for (int at : {0, 24, 452}) std::memset(buffer + at, 0xFF, at == 452 ? 4 : 8);
         WzScanDBRecordBasePtr r = WzMakeHandle<WzScanDBRecordBase>(new WzScanDBLustreRecord());
         r->setStructure(buffer);
         return r;
       },
       "456: @8 " + kFidBytes + " @33 04 @36 02 @40 1a @192 03 @196 01612f62"},
      {New<WzScanDBLustreRecord>(std::string("/lustre/dir/file"), true, 9ULL),
       "456: @9 04 @12 02 @16 1b @33 04 @36 02 @40 1a @192 09 @196 0166696c65"},
      {New<WzScanDBLustreRecord>(std::string("/lustre/dir/file"), Fid(7, 8, 9), false, 1ULL),
       "456: @9 04 @12 02 @16 1b @32 07 @40 08 @44 09 @192 01 @197 66696c65"},
      {New<CBackupTimeRecord>(5ULL, 7ULL), "24: @0 05 @8 07 @16 30"},
      {[] {  // an image read in
         WzScanDBRecordBasePtr r = New<CBackupTimeRecord>()();
         r->setStructure(CBackupTimeRecord(5, 7).getStructure());
         return r;
       },
       "24: @0 05 @8 07 @16 30"},
      {New<CBackupTimeRecord>(), "24:"},
      {[] { return CBackupTimeRecord(5, 7).getRoot(); }, "24: @16 30"},
      {[] { return CBackupTimeRecord(~0ULL, 1).Clone(); }, "24: @0 ffffffffffffffff01 @16 30"},
  };
  for (size_t i = 0; i < sizeof rows / sizeof rows[0]; ++i) {
    WzScanDBRecordBasePtr r = rows[i].first();
    EXPECT_EQ(Image(*r), rows[i].second) << "row " << i;
    // Every record the library makes may be dropped after an explicit delete.
    EXPECT_NE(boost::get_deleter<CWzHandleDeleter>(r), nullptr) << "row " << i;
  }
  EXPECT_TRUE(log->Entries().empty()) << "every FID was found";

  // A 300-byte name keeps 255 bytes and no NUL; the identifier hashes all of it.
  std::string name(300, 'q');
  name[254] = 'E';
  WzScanDBRecord longName("/d/" + name);
  EXPECT_EQ(longName.getName(), name.substr(0, 255));
  EXPECT_FALSE(longName.checkEqualOnIndex(WzScanDBRecordBasePtr(new WzScanDBRecord("/d/" + name + "x")), 0));
  EXPECT_EQ(WzScanDBLustreRecord(WzScanDBLustreRecord(Fid(1, 1), Fid(1, 2), name, false, 0)).getName(),
            name.substr(0, 255));
}

// The key of `request` as the engine builds it: segment i contributes
// segmentSize bytes from segmentData[i].
std::string KeyBytes(WzScanDBRecordBase& r, const SPrepareIndexKeyStructure& request) {
  if (request.numSegments == 0) return "0:";
  const SIndices index = r.getIndexInformation(request.indexNumber);
  EXPECT_EQ(request.keyBufferSize, index.keyLength + 32);
  EXPECT_EQ(request.numSegments, index.numSegments);
  std::string key;
  for (int i = 0; i < request.numSegments; ++i) {
    EXPECT_EQ(request.segmentNumbers[i], i);
    EXPECT_EQ(request.segmentModes[i] + request.finishMode, 0);
    const int size = r.getSegmentInformation(index.segmentNumber + request.segmentNumbers[i]).segmentSize;
    key.append(static_cast<const char*>(request.segmentData[i]), size);
  }
  EXPECT_EQ(static_cast<int>(key.size()), index.keyLength);
  return Bytes(key.data(), key.size());
}

TEST(RecordLayout, KeyBytesOfEveryIndexAndOfTheChildrenStart) {
  const int kFromParent = -1;
  const std::tuple<Make, int, std::string> rows[] = {
      {New<WzScanDBRecord>("/a/b"), 0, "16: @0 " + kMd5AB},
      {New<WzScanDBRecord>("/a/b"), 1, "72: @0 " + kMd5A + "62"},
      {New<WzScanDBRecord>("/d/" + std::string(60, 'n')), 1,
       "72: @0 0c606f9929ab0de4b9d1961ce5dfdadf" + Repeat("6e", 56)},
      {New<WzScanDBRecord>("/a/b"), kFromParent, "72: @0 " + kMd5AB},
      {New<WzScanDBRecord>("/a/b"), 7, "0:"},
      {Lustre, 0, "24: @8 " + kFidBytes},
      {Lustre, 1, "80: @9 04 @12 02 @16 1a @24 612f62"},
      {Lustre, kFromParent, "80: @8 " + kFidBytes},
      {New<CBackupTimeRecord>(5ULL, 7ULL), 0, "8: @0 05"},
      {New<CBackupTimeRecord>(5ULL, 7ULL), 1, "0:"},
      {New<CBackupTimeRecord>(5ULL, 7ULL), kFromParent, "0:"},
  };
  for (const auto& [make, index, bytes] : rows) {
    WzScanDBRecordBasePtr r = make();
    InitSchema(*r);
    const SPrepareIndexKeyStructure request = index == kFromParent ? r->prepareIndexKeyFromParent()
                                                                   : r->prepareIndexKey(index);
    EXPECT_EQ(KeyBytes(*r, request), bytes) << r->toString() << " index " << index;
    EXPECT_TRUE(index != kFromParent || !request.numSegments || request.indexNumber == r->parentIndex());
    EXPECT_EQ(index == 0 ? KeyBytes(*r, r->prepareIndexKeyFromKey()) : bytes, bytes);
  }
}

// The descriptors as text: "name@offset type/length" per field; per index
// "name length type dup nullKey emptyChar numSegments first"; per segment
// "field/size/case". initialize runs twice: it must rebuild, not append.
std::string Schema(WzScanDBRecordBase& r) {
  InitSchema(r);
  InitSchema(r);
  std::string text = FXString::Format("size %d fixed %d key %d parent %d %s\n", r.recordSize(), r.fixedRecordSize(),
                                      r.keyIndex(), r.parentIndex(), r.isVariableLength() ? "variable" : "fixed");
  for (int i = 0; i < r.numFields(); ++i) {
    SFields f = r.getFieldInformation(i);
    text += FXString::Format("%s@%zu %d/%d ", f.name.c_str(), size_t(f.offset), int(f.type), int(f.length));
  }
  text += "\n";
  for (int i = 0; i < r.numIndices(); ++i) {
    SIndices x = r.getIndexInformation(i);
    text += FXString::Format("%s %d %d %d %d %d %d %d, ", x.name.c_str(), int(x.keyLength), int(x.keyType),
                             int(x.duplicates), int(x.nullKey), int(x.emptyChar), int(x.numSegments),
                             int(x.segmentNumber));
  }
  text += "\n";
  for (int i = 0; i < r.numSegments(); ++i) {
    SSegments g = r.getSegmentInformation(i);
    text += FXString::Format("%d/%d/%d ", int(g.fieldNumber), int(g.segmentSize), int(g.caseSensitive));
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
  CBackupTimeRecord backup;
  EXPECT_EQ(Schema(backup),
            "size 24 fixed 16 key 0 parent 0 variable\n"
            "inode@0 239/8 ctime@8 239/8 dummy@16 146/4 \n"
            "inode 8 0 0 0 0 1 0, \n"
            "0/8/0 ");
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

template <class R>
void ExpectInterfaceSlots(const char* type) {
  const long slots[] = {
      Slot(&R::initializeFieldInformation), Slot(&R::initializeIndexInformation),
      Slot(&R::initializeSegmentInformation), Slot(&R::getFieldInformation), Slot(&R::getIndexInformation),
      Slot(&R::getSegmentInformation), Slot(&R::isVariableLength), Slot(&R::numFields), Slot(&R::numIndices),
      Slot(&R::numSegments), Slot(&R::recordSize), Slot(&R::fixedRecordSize), Slot(&R::isRoot), Slot(&R::getRoot),
      Slot(&R::keyIndex), Slot(&R::parentIndex), Slot(&R::getName), Slot(&R::getFlags), Slot(&R::setFlags),
      Slot(&R::setRefTime), Slot(&R::getRefTime), Slot(&R::getStructure), Slot(&R::setStructure),
      Slot(&R::copyStandardFields), Slot(&R::isDir), Slot(&R::checkParent), Slot(&R::prepareIndexKeyFromParent),
      Slot(&R::prepareIndexKeyFromKey), Slot(&R::prepareIndexKey), Slot(&R::checkEqualOnIndex),
      Slot(&R::toString), Slot(&R::Clone), Slot(&R::MakeObject), Slot(&R::MakeParentObject),
      Slot(&R::toCSVHeader), Slot(&R::toCSV)};
  for (size_t k = 0; k < sizeof slots / sizeof slots[0]; ++k)
    EXPECT_EQ(slots[k], long(k) + 2) << type << " operation " << k;
}

TEST(RecordLayout, EveryTypePresentsTheInterfaceInSlotOrder) {
  ExpectInterfaceSlots<WzScanDBRecordBase>("base");
  ExpectInterfaceSlots<WzScanDBRecord>("generic");
  ExpectInterfaceSlots<WzScanDBLustreRecord>("Lustre");
  ExpectInterfaceSlots<CBackupTimeRecord>("backup time");
}

}  // namespace
