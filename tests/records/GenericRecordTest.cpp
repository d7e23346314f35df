// The generic scan record: construction from paths, stored widths, failure
// lines, copies, root and text forms.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "RecordTestSupport.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"

namespace {

SRecordStructure& Image(WzScanDBRecordBase& r) { return *static_cast<SRecordStructure*>(r.getStructure()); }
WzScanDBKeyGUID Guid(const char* path) { return WzScanDBKeyGUID(std::string(path)); }

TEST(GenericRecord, BuiltFromAPathWithStoredWidths) {
  WzScanDBRecord r("/a/b");
  EXPECT_TRUE(r.getGUID() == Guid("/a/b"));
  EXPECT_TRUE(r.getParentGUID() == Guid("/a"));
  EXPECT_EQ(r.getName(), "b");
  EXPECT_EQ(r.getFlags(), 0);
  EXPECT_FALSE(r.isRoot());
  // Status, time, flags and everything after the name's NUL, padding included, are zero.
  EXPECT_TRUE(AllZero(&Image(r).stat_data, 181 - 32));
  EXPECT_TRUE(AllZero(Image(r).sname + 1, 440 - 181 - 1));

  WzScanDBRecord dir("/a/b", true, 4294967301ULL);
  EXPECT_EQ(dir.getFlags(), 1);
  EXPECT_TRUE(dir.isDir());
  EXPECT_EQ(dir.getRefTime(), 5u);
  EXPECT_TRUE(AllZero(WzScanDBRecord().getStructure(), 440));
  EXPECT_TRUE(WzScanDBRecord().isRoot());

  r.setFlags(0x1FF);
  EXPECT_EQ(Image(r).flags, 255);
  r.setFlags(kRecordFlagVisited);
  EXPECT_FALSE(r.isDir());
  r.setRefTime(0x1234567890ULL);
  EXPECT_EQ(r.getRefTime(), 0x34567890ULL);
  r.setRefTime(0xFFFFFFFFULL);
  EXPECT_EQ(r.getRefTime(), 0xFFFFFFFFULL);  // zero-extended, not sign-extended

  // A 300-character name keeps 255 bytes without a NUL; the identifier hashes all of it.
  std::string name(300, 'q');
  name[254] = 'E';
  name[255] = 'X';
  WzScanDBRecord longName("/dir/" + name, false, 0);
  EXPECT_EQ(std::memchr(Image(longName).sname, 0, 255), nullptr);
  EXPECT_EQ(longName.getName(), name.substr(0, 255));
  EXPECT_TRUE(longName.getGUID() == WzScanDBKeyGUID("/dir/" + name));
}

TEST(GenericRecord, WrongTypeFailureLinesAndCopyStandardFields) {
  WzScanDBRecord r("/a/b");
  const char kCheckParent[] = "virtual bool WzScanDBRecord::checkParent(WzScanDBRecordBasePtr)";
  for (const WzScanDBRecordBasePtr& other : {WzScanDBRecordBasePtr(new WzScanDBLustreRecord()), WzScanDBRecordBasePtr()}) {
    ScopedLogCapture log;
    EXPECT_FALSE(r.checkParent(other));
    ExpectLines(log, -1, kCheckParent, {"The given record is nullptr or it is not of type WzScanDBRecord"});
  }
  {
    ScopedLogCapture log;
    EXPECT_FALSE(r.checkEqualOnIndex(WzScanDBRecordBasePtr(new WzScanDBLustreRecord()), 0));
    ExpectLines(log, -1, "virtual bool WzScanDBRecord::checkEqualOnIndex(WzScanDBRecordBasePtr, int)",
                {"The given record is nullptr or is not of type WzScanDBRecord"});
  }
  {
    // From another type: an error, nothing copied, nothing logged.
    ScopedLogCapture log;
    WzScanDBRecordBasePtr lustre(new WzScanDBLustreRecord());
    lustre->setFlags(3);
    const SRecordStructure before = Image(r);
    CKoError error = r.copyStandardFields(lustre);
    ASSERT_TRUE(error.IsError());
    EXPECT_EQ(error.GetKind(), EKoErrorKind::kErrNo);
    EXPECT_EQ(error.GetCode(), 1);
    EXPECT_EQ(error.GetOriginMessage(), "The given record is not of the type WzScanDBRecord");
    ASSERT_EQ(error.GetFrames().size(), 1u);
    EXPECT_STREQ(error.GetFrames()[0].location.file, "WzScanDB/WzScanDBRecord");
    EXPECT_STREQ(error.GetFrames()[0].location.function,
                 "virtual CKoError WzScanDBRecord::copyStandardFields(WzScanDBRecordBasePtr)");
    EXPECT_EQ(0, std::memcmp(&before, r.getStructure(), 440));
    EXPECT_TRUE(log.Entries().empty());
  }
  // From its own type: flags and status only.
  WzScanDBRecordBasePtr source(new WzScanDBRecord("/src/file", true, 11));
  source->setFlags(kRecordFlagDirectory | kRecordFlagVisited);
  Image(*source).stat_data.st_size = 1234;
  Image(*source).stat_data.st_mtim.tv_sec = 1700000000;
  WzScanDBRecord target("/dst/other", false, 22);
  EXPECT_TRUE(target.copyStandardFields(source).IsSuccess());
  EXPECT_EQ(target.getFlags(), 3);
  EXPECT_EQ(0, std::memcmp(&Image(target).stat_data, &Image(*source).stat_data, sizeof(struct stat)));
  EXPECT_EQ(target.getName(), "other");
  EXPECT_EQ(target.getRefTime(), 22u);
  EXPECT_TRUE(target.getGUID() == Guid("/dst/other"));
}

TEST(GenericRecord, StructureRoundTripLeavesPadding) {
  WzScanDBRecord r("/a/b", true, 9);
  unsigned char buffer[440];
  std::memset(buffer, 0xEE, sizeof buffer);
  std::memcpy(buffer, WzScanDBRecord("/c/d", false, 3).getStructure(), 436);
  unsigned char* image = static_cast<unsigned char*>(r.getStructure());
  image[437] = 0x5A;
  r.setStructure(buffer);
  EXPECT_EQ(0, std::memcmp(image, buffer, 436));
  EXPECT_EQ(image[436], 0);
  EXPECT_EQ(image[437], 0x5A);
  EXPECT_EQ(r.getName(), "d");
  std::memcpy(buffer, image, sizeof buffer);
  r.setStructure(nullptr);
  EXPECT_EQ(0, std::memcmp(buffer, image, sizeof buffer));
}

TEST(GenericRecord, RootParentProbeAndCopies) {
  WzScanDBRecord named("/a/b", true, 5);
  WzScanDBRecordBasePtr root = named.getRoot();
  WzScanDBRecordPtr typedRoot = boost::dynamic_pointer_cast<WzScanDBRecord>(root);
  ASSERT_TRUE(typedRoot);
  EXPECT_TRUE(root->isRoot());
  EXPECT_TRUE(typedRoot->getGUID() == Guid("/"));
  EXPECT_TRUE(typedRoot->getParentGUID().empty());
  // getRoot keeps the caller's other fields.
  EXPECT_EQ(root->getName(), "b");
  EXPECT_EQ(root->getRefTime(), 5u);
  EXPECT_TRUE(WzScanDBRecord("/x").checkParent(root));
  EXPECT_FALSE(WzScanDBRecord("/x").checkParent(WzScanDBRecordBasePtr(new WzScanDBRecord("/y"))));

  WzScanDBRecord grandChild("/a/b/c");
  WzScanDBRecordBasePtr probe = grandChild.MakeParentObject();
  WzScanDBRecordPtr typedProbe = boost::dynamic_pointer_cast<WzScanDBRecord>(probe);
  ASSERT_TRUE(typedProbe);
  EXPECT_TRUE(typedProbe->getGUID() == Guid("/a/b"));
  EXPECT_TRUE(typedProbe->getParentGUID().empty());
  EXPECT_EQ(probe->getName(), "");
  EXPECT_TRUE(grandChild.checkParent(WzScanDBRecordBasePtr(new WzScanDBRecord("/a/b"))));

  WzScanDBRecordBasePtr made = grandChild.MakeObject("/m/n");
  EXPECT_TRUE(boost::dynamic_pointer_cast<WzScanDBRecord>(made)->getGUID() == Guid("/m/n"));
  grandChild.initializeFieldInformation();
  WzScanDBRecordBasePtr clone = grandChild.Clone();
  EXPECT_NE(clone.get(), &grandChild);
  EXPECT_EQ(0, std::memcmp(clone->getStructure(), grandChild.getStructure(), 440));
  EXPECT_EQ(clone->getFieldInformation(0).name, "guid");
  ExpectHandles({root, probe, made, clone});
}

TEST(GenericRecord, TextAndCSVForms) {
  const std::string zeros = "0x" + std::string(32, '0');
  EXPECT_EQ(WzScanDBRecord().toCSV(), zeros + "," + zeros + ",,no,0,0,0,0");
  EXPECT_EQ(WzScanDBRecord().toCSVHeader(), "GUID,Parent GUID,Name,Directory,CTime,MTime,Size,Update Time");

  WzScanDBRecord r("/a/b", true, 4294967295ULL);
  Image(r).stat_data.st_size = 0x100000005LL;  // truncated to 32 bits
  Image(r).stat_data.st_mtim.tv_sec = 1700000001;
  Image(r).stat_data.st_ctim.tv_sec = 1700000002;
  const std::string guid = Guid("/a/b").toString(), parent = Guid("/a").toString();
  EXPECT_EQ(r.toString(), "GUID : [" + guid + "] Parent GUID : [" + parent +
                              "] Name : [b] Directory : [yes] CTime : [1700000002] MTime : "
                              "[1700000001] Size : [5] Update Time : [-1]");
  EXPECT_EQ(r.toCSV(), guid + "," + parent + ",b,yes,1700000002,1700000001,5,-1");
}

}  // namespace
