// The backup-time record: a flat (inode, ctime) pair with no tree.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "RecordTestSupport.h"
#include "WzScanDB/WzHandle.h"
#include "WzScanDB/records/BackupTimeRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"

namespace {

TEST(BackupTimeRecord, ImageAndTreelessBehaviour) {
  CBackupTimeRecord r(5, 7);
  const unsigned char expected[24] = {5, 0, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0,
                                      0, 0, 0, 0, '0', 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(0, std::memcmp(r.getStructure(), expected, sizeof expected));
  EXPECT_EQ(r.toString(), "Inode : 5 , Ctime : 7");
  EXPECT_EQ(r.getRefTime(), 7u);
  r.setRefTime(99);
  EXPECT_EQ(r.getRefTime(), 7u);
  r.setFlags(0xFF);
  EXPECT_EQ(r.getFlags(), 0);
  EXPECT_EQ(r.getName(), "");
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
  CBackupTimeRecord empty;
  EXPECT_TRUE(empty.isRoot());
  EXPECT_EQ(0, std::memcmp(empty.getStructure(), std::string(24, '\0').data(), 24));
  EXPECT_EQ(CBackupTimeRecord(18446744073709551615ULL, 1).toString(),
            "Inode : 18446744073709551615 , Ctime : 1");
}

TEST(BackupTimeRecord, EqualityRootCloneAndStructure) {
  WzScanDBRecordBasePtr a(new CBackupTimeRecord(5, 7));
  WzScanDBRecordBasePtr sameInode(new CBackupTimeRecord(5, 8));
  WzScanDBRecordBasePtr other(new CBackupTimeRecord(6, 7));
  EXPECT_TRUE(a->checkEqualOnIndex(sameInode, 0));
  EXPECT_FALSE(a->checkEqualOnIndex(other, 0));
  EXPECT_FALSE(a->checkEqualOnIndex(sameInode, 1));
  {
    ScopedLogCapture log;
    EXPECT_FALSE(a->checkEqualOnIndex(WzScanDBRecordBasePtr(new WzScanDBRecord("/a")), 0));
    std::vector<CLogEntry> entries = log.Entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].level, -1);
    EXPECT_EQ(entries[0].line, 111);
    EXPECT_EQ(entries[0].function,
              "virtual bool CBackupTimeRecord::checkEqualOnIndex(WzScanDBRecordBasePtr, int)");
    EXPECT_EQ(entries[0].message, "The Given record is NULL or not of type CBackupTimeRecord");
  }

  WzScanDBRecordBasePtr root = a->getRoot();
  EXPECT_TRUE(root->isRoot());
  const unsigned char* rootImage = static_cast<const unsigned char*>(root->getStructure());
  EXPECT_EQ(0, std::memcmp(rootImage, std::string(16, '\0').data(), 16));
  EXPECT_EQ(rootImage[16], '0');  // dummy kept

  WzScanDBRecordBasePtr clone = a->Clone();
  EXPECT_NE(clone.get(), a.get());
  EXPECT_EQ(0, std::memcmp(clone->getStructure(), a->getStructure(), 24));
  EXPECT_NE(boost::get_deleter<CWzHandleDeleter>(root), nullptr);
  EXPECT_NE(boost::get_deleter<CWzHandleDeleter>(clone), nullptr);

  CBackupTimeRecord target;
  target.setStructure(a->getStructure());
  EXPECT_EQ(target.toString(), "Inode : 5 , Ctime : 7");
  target.setStructure(nullptr);
  EXPECT_EQ(target.toString(), "Inode : 5 , Ctime : 7");
  EXPECT_EQ(static_cast<const void*>(target.prepareIndexKeyFromKey().segmentData[0]),
            target.getStructure());
}

}  // namespace
