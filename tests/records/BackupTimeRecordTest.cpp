// The backup-time record: a flat (inode, ctime) pair with no tree.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "RecordTestSupport.h"
#include "WzScanDB/records/BackupTimeRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"

namespace {

TEST(BackupTimeRecord, ImageAndTreelessBehaviour) {
  CBackupTimeRecord r(5, 7);
  const unsigned char expected[24] = {5, 0, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0, '0', 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(0, std::memcmp(r.getStructure(), expected, sizeof expected));
  EXPECT_EQ(r.toString(), "Inode : 5 , Ctime : 7");
  r.setRefTime(99);
  EXPECT_EQ(r.getRefTime(), 7u);
  r.setFlags(0xFF);
  EXPECT_EQ(r.getFlags(), 0);
  EXPECT_FALSE(r.isDir());
  EXPECT_FALSE(r.isRoot());
  EXPECT_FALSE(r.checkParent(WzScanDBRecordBasePtr(new CBackupTimeRecord(0, 0))));
  EXPECT_TRUE(r.copyStandardFields(WzScanDBRecordBasePtr(new CBackupTimeRecord(1, 2))).IsSuccess());
  EXPECT_EQ(0, std::memcmp(r.getStructure(), expected, sizeof expected));
  EXPECT_FALSE(r.MakeObject("/x"));
  EXPECT_FALSE(r.MakeParentObject());
  EXPECT_EQ(r.toCSVHeader(), "Not Supported");
  EXPECT_EQ(r.toCSV(), "");
  EXPECT_TRUE(CBackupTimeRecord(0, 0).isRoot());
  EXPECT_TRUE(AllZero(CBackupTimeRecord().getStructure(), 24));
  EXPECT_EQ(CBackupTimeRecord(18446744073709551615ULL, 1).toString(), "Inode : 18446744073709551615 , Ctime : 1");

  CBackupTimeRecord target;
  target.setStructure(r.getStructure());
  target.setStructure(nullptr);
  EXPECT_EQ(target.toString(), "Inode : 5 , Ctime : 7");
  EXPECT_EQ(static_cast<const void*>(target.prepareIndexKeyFromKey().segmentData[0]), target.getStructure());
}

TEST(BackupTimeRecord, EqualityRootAndClone) {
  WzScanDBRecordBasePtr a(new CBackupTimeRecord(5, 7));
  EXPECT_TRUE(a->checkEqualOnIndex(WzScanDBRecordBasePtr(new CBackupTimeRecord(5, 8)), 0));
  EXPECT_FALSE(a->checkEqualOnIndex(WzScanDBRecordBasePtr(new CBackupTimeRecord(6, 7)), 0));
  EXPECT_FALSE(a->checkEqualOnIndex(WzScanDBRecordBasePtr(new CBackupTimeRecord(5, 8)), 1));
  {
    ScopedLogCapture log;
    EXPECT_FALSE(a->checkEqualOnIndex(WzScanDBRecordBasePtr(new WzScanDBRecord("/a")), 0));
    ExpectLines(log, -1, "virtual bool CBackupTimeRecord::checkEqualOnIndex(WzScanDBRecordBasePtr, int)",
                {"The Given record is NULL or not of type CBackupTimeRecord"});
    EXPECT_EQ(log.Entries().at(0).line, 111);
  }
  WzScanDBRecordBasePtr root = a->getRoot();
  EXPECT_TRUE(root->isRoot());
  const unsigned char* rootImage = static_cast<const unsigned char*>(root->getStructure());
  EXPECT_TRUE(AllZero(rootImage, 16));
  EXPECT_EQ(rootImage[16], '0');  // dummy kept
  WzScanDBRecordBasePtr clone = a->Clone();
  EXPECT_NE(clone.get(), a.get());
  EXPECT_EQ(0, std::memcmp(clone->getStructure(), a->getStructure(), 24));
  ExpectHandles({root, clone});
}

}  // namespace
