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
WzScanDBKeyGUID Guid(const std::string& path) { return WzScanDBKeyGUID(path); }
// The CSV line of a record with these identifiers, followed by `rest`.
std::string Csv(const std::string& path, const std::string& parent, const std::string& rest) {
  return Guid(path).toString() + "," + Guid(parent).toString() + "," + rest;
}

TEST(GenericRecord, BuiltFromAPathWithStoredWidths) {
  WzScanDBRecord r("/a/b");
  EXPECT_EQ(r.toCSV(), Csv("/a/b", "/a", "b,no,0,0,0,0"));
  EXPECT_FALSE(r.isRoot());
  // Status, time, flags and everything after the name's NUL, padding included, are zero.
  EXPECT_TRUE(AllZero(&Image(r).stat_data, 181 - 32));
  EXPECT_TRUE(AllZero(Image(r).sname + 1, 440 - 181 - 1));
  EXPECT_EQ(WzScanDBRecord("/a/b", true, 4294967301ULL).toCSV(), Csv("/a/b", "/a", "b,yes,0,0,0,5"));
  EXPECT_TRUE(AllZero(WzScanDBRecord().getStructure(), 440));
  EXPECT_TRUE(WzScanDBRecord().isRoot());
  EXPECT_EQ(WzScanDBRecord().toCSVHeader(), "GUID,Parent GUID,Name,Directory,CTime,MTime,Size,Update Time");

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
  EXPECT_EQ(longName.toCSV(), Csv("/dir/" + name, "/dir", name.substr(0, 255) + ",no,0,0,0,0"));

  // Status times and size as the text forms show them: size and update time in 32 bits.
  WzScanDBRecord dir("/a/b", true, 4294967295ULL);
  Image(dir).stat_data.st_size = 0x100000005LL;
  Image(dir).stat_data.st_mtim.tv_sec = 1700000001;
  Image(dir).stat_data.st_ctim.tv_sec = 1700000002;
  EXPECT_EQ(dir.toCSV(), Csv("/a/b", "/a", "b,yes,1700000002,1700000001,5,-1"));
  EXPECT_EQ(dir.toString(), "GUID : [" + Guid("/a/b").toString() + "] Parent GUID : [" + Guid("/a").toString() +
                                "] Name : [b] Directory : [yes] CTime : [1700000002] MTime : "
                                "[1700000001] Size : [5] Update Time : [-1]");
}

TEST(GenericRecord, WrongTypeFailureLinesAndCopyStandardFields) {
  WzScanDBRecord r("/a/b");
  for (const WzScanDBRecordBasePtr& other :
       {WzScanDBRecordBasePtr(new WzScanDBLustreRecord()), WzScanDBRecordBasePtr()}) {
    ScopedLogCapture log;
    EXPECT_FALSE(r.checkParent(other));
    ExpectLines(log, -1, "virtual bool WzScanDBRecord::checkParent(WzScanDBRecordBasePtr)",
                {"The given record is nullptr or it is not of type WzScanDBRecord"});
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
    EXPECT_EQ(error.AsString(),
              "Error (errno 1: Operation not permitted)\n  at WzScanDB/WzScanDBRecord:" +
                  std::to_string(error.GetFrames().at(0).location.line) +
                  " virtual CKoError WzScanDBRecord::copyStandardFields(WzScanDBRecordBasePtr): "
                  "The given record is not of the type WzScanDBRecord");
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
  EXPECT_EQ(target.toCSV(), Csv("/dst/other", "/dst", "other,yes,0,1700000000,1234,22"));
}

TEST(GenericRecord, RootParentProbeAndCopies) {
  WzScanDBRecord named("/a/b", true, 5);
  WzScanDBRecordBasePtr root = named.getRoot();
  EXPECT_TRUE(root->isRoot());
  EXPECT_EQ(root->toCSV(), Csv("/", "", "b,yes,0,0,0,5"));  // keeps the caller's other fields
  EXPECT_TRUE(WzScanDBRecord("/x").checkParent(root));
  EXPECT_FALSE(WzScanDBRecord("/x").checkParent(WzScanDBRecordBasePtr(new WzScanDBRecord("/y"))));

  WzScanDBRecord grandChild("/a/b/c");
  WzScanDBRecordBasePtr probe = grandChild.MakeParentObject();
  ASSERT_TRUE(boost::dynamic_pointer_cast<WzScanDBRecord>(probe));
  EXPECT_EQ(probe->toCSV(), Csv("/a/b", "", ",no,0,0,0,0"));
  EXPECT_TRUE(grandChild.checkParent(WzScanDBRecordBasePtr(new WzScanDBRecord("/a/b"))));
  WzScanDBRecordBasePtr made = grandChild.MakeObject("/m/n");
  EXPECT_EQ(made->toCSV(), Csv("/m/n", "/m", "n,no,0,0,0,0"));

  grandChild.initializeFieldInformation();
  WzScanDBRecordBasePtr clone = grandChild.Clone();
  EXPECT_NE(clone.get(), &grandChild);
  EXPECT_EQ(0, std::memcmp(clone->getStructure(), grandChild.getStructure(), 440));
  clone->setStructure(nullptr);  // nothing to copy: the image stays
  EXPECT_EQ(0, std::memcmp(clone->getStructure(), grandChild.getStructure(), 440));
  EXPECT_EQ(clone->getFieldInformation(0).name, "guid");
  ExpectHandles({root, probe, made, clone});
}

}  // namespace
