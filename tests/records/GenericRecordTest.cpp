// The generic scan record: construction from paths, setters, failure lines,
// copies, root and text forms.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "RecordTestSupport.h"
#include "WzScanDB/WzHandle.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"

namespace {

const SRecordStructure& Image(WzScanDBRecordBase& r) {
  return *static_cast<const SRecordStructure*>(r.getStructure());
}

bool AllZero(const void* data, size_t length) {
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  for (size_t i = 0; i < length; ++i)
    if (bytes[i]) return false;
  return true;
}

TEST(GenericRecord, BuiltFromAPath) {
  WzScanDBRecord r("/a/b");
  EXPECT_TRUE(r.getGUID() == WzScanDBKeyGUID(std::string("/a/b")));
  EXPECT_TRUE(r.getParentGUID() == WzScanDBKeyGUID(std::string("/a")));
  EXPECT_EQ(r.getName(), "b");
  EXPECT_EQ(r.getFlags(), 0);
  EXPECT_EQ(r.getRefTime(), 0u);
  EXPECT_TRUE(AllZero(&Image(r).stat_data, sizeof(struct stat)));
  EXPECT_FALSE(r.isRoot());
  EXPECT_FALSE(r.isDir());
  // Everything after the name's NUL, padding included, is zero.
  EXPECT_TRUE(AllZero(Image(r).sname + 1, 440 - 181 - 1));

  WzScanDBRecord dir("/a/b", true, 4294967301ULL);
  EXPECT_EQ(dir.getFlags(), 1);
  EXPECT_TRUE(dir.isDir());
  EXPECT_EQ(dir.getRefTime(), 5u);
  WzScanDBRecord file("/a/b", false, 7);
  EXPECT_EQ(file.getFlags(), 0);

  WzScanDBRecord empty;
  EXPECT_TRUE(AllZero(empty.getStructure(), 440));
  EXPECT_TRUE(empty.isRoot());
  EXPECT_EQ(empty.getName(), "");
}

TEST(GenericRecord, SettersKeepTheStoredWidths) {
  WzScanDBRecord r("/x");
  r.setFlags(0x1FF);
  EXPECT_EQ(r.getFlags(), 255);
  EXPECT_EQ(Image(r).flags, 255);
  r.setFlags(kRecordFlagVisited);
  EXPECT_FALSE(r.isDir());
  r.setFlags(kRecordFlagVisited | kRecordFlagDirectory);
  EXPECT_TRUE(r.isDir());
  r.setRefTime(0x1234567890ULL);
  EXPECT_EQ(r.getRefTime(), 0x34567890ULL);
  r.setRefTime(0xFFFFFFFFULL);
  EXPECT_EQ(r.getRefTime(), 0xFFFFFFFFULL);  // zero-extended, not sign-extended
}

TEST(GenericRecord, NameOf300CharactersKeeps255Bytes) {
  std::string name(300, 'q');
  name[254] = 'E';
  name[255] = 'X';
  WzScanDBRecord r("/dir/" + name, false, 0);
  EXPECT_EQ(std::memchr(Image(r).sname, 0, 255), nullptr);
  EXPECT_EQ(r.getName(), name.substr(0, 255));
  EXPECT_TRUE(r.getGUID() == WzScanDBKeyGUID("/dir/" + name));
  // The full name of 255 bytes also fits exactly.
  WzScanDBRecord exact("/dir/" + name.substr(0, 255));
  EXPECT_EQ(exact.getName(), name.substr(0, 255));
}

TEST(GenericRecord, WrongTypeFailureLines) {
  WzScanDBRecord r("/a/b");
  WzScanDBRecordBasePtr lustre(new WzScanDBLustreRecord());
  {
    ScopedLogCapture log;
    EXPECT_FALSE(r.checkParent(lustre));
    ExpectOneLine(log, -1, "virtual bool WzScanDBRecord::checkParent(WzScanDBRecordBasePtr)",
                  "The given record is nullptr or it is not of type WzScanDBRecord");
  }
  {
    ScopedLogCapture log;
    EXPECT_FALSE(r.checkParent(WzScanDBRecordBasePtr()));
    ExpectOneLine(log, -1, "virtual bool WzScanDBRecord::checkParent(WzScanDBRecordBasePtr)",
                  "The given record is nullptr or it is not of type WzScanDBRecord");
  }
  {
    ScopedLogCapture log;
    EXPECT_FALSE(r.checkEqualOnIndex(lustre, 0));
    ExpectOneLine(log, -1,
                  "virtual bool WzScanDBRecord::checkEqualOnIndex(WzScanDBRecordBasePtr, int)",
                  "The given record is nullptr or is not of type WzScanDBRecord");
  }
  {
    // copyStandardFields from another type: an error, nothing copied, nothing logged.
    ScopedLogCapture log;
    WzScanDBLustreRecord* source = new WzScanDBLustreRecord();
    WzScanDBRecordBasePtr sourcePtr(source);
    source->setFlags(3);
    unsigned char before[440];
    std::memcpy(before, r.getStructure(), sizeof before);
    CKoError error = r.copyStandardFields(sourcePtr);
    ASSERT_TRUE(error.IsError());
    EXPECT_EQ(error.GetKind(), EKoErrorKind::kErrNo);
    EXPECT_EQ(error.GetCode(), 1);
    EXPECT_EQ(error.GetOriginMessage(), "The given record is not of the type WzScanDBRecord");
    ASSERT_EQ(error.GetFrames().size(), 1u);
    EXPECT_STREQ(error.GetFrames()[0].location.file, "WzScanDB/WzScanDBRecord");
    EXPECT_STREQ(error.GetFrames()[0].location.function,
                 "virtual CKoError WzScanDBRecord::copyStandardFields(WzScanDBRecordBasePtr)");
    EXPECT_EQ(0, std::memcmp(before, r.getStructure(), sizeof before));
    EXPECT_TRUE(log.Entries().empty());
  }
}

TEST(GenericRecord, CopyStandardFieldsTakesFlagsAndStatusOnly) {
  WzScanDBRecord* source = new WzScanDBRecord("/src/file", true, 11);
  WzScanDBRecordBasePtr sourcePtr(source);
  source->setFlags(kRecordFlagDirectory | kRecordFlagVisited);
  SRecordStructure& image = *static_cast<SRecordStructure*>(source->getStructure());
  image.stat_data.st_size = 1234;
  image.stat_data.st_mtim.tv_sec = 1700000000;

  WzScanDBRecord target("/dst/other", false, 22);
  EXPECT_TRUE(target.copyStandardFields(sourcePtr).IsSuccess());
  EXPECT_EQ(target.getFlags(), 3);
  EXPECT_EQ(0, std::memcmp(&Image(target).stat_data, &image.stat_data, sizeof(struct stat)));
  EXPECT_EQ(target.getName(), "other");
  EXPECT_EQ(target.getRefTime(), 22u);
  EXPECT_TRUE(target.getGUID() == WzScanDBKeyGUID(std::string("/dst/other")));
}

TEST(GenericRecord, StructureRoundTripLeavesPadding) {
  WzScanDBRecord r("/a/b", true, 9);
  unsigned char buffer[440];
  std::memset(buffer, 0xEE, sizeof buffer);
  WzScanDBRecord source("/c/d", false, 3);
  std::memcpy(buffer, source.getStructure(), 436);
  unsigned char* image = static_cast<unsigned char*>(r.getStructure());
  image[437] = 0x5A;
  r.setStructure(buffer);
  EXPECT_EQ(0, std::memcmp(image, buffer, 436));
  EXPECT_EQ(image[436], 0);
  EXPECT_EQ(image[437], 0x5A);
  EXPECT_EQ(r.getName(), "d");

  unsigned char before[440];
  std::memcpy(before, image, sizeof before);
  r.setStructure(nullptr);
  EXPECT_EQ(0, std::memcmp(before, image, sizeof before));
}

TEST(GenericRecord, RootParentProbeAndCopies) {
  WzScanDBRecord prototype;
  WzScanDBRecordBasePtr root = prototype.getRoot();
  ASSERT_TRUE(root);
  EXPECT_TRUE(root->isRoot());
  WzScanDBRecordPtr typedRoot = boost::dynamic_pointer_cast<WzScanDBRecord>(root);
  ASSERT_TRUE(typedRoot);
  EXPECT_TRUE(typedRoot->getGUID() == WzScanDBKeyGUID(std::string("/")));
  EXPECT_TRUE(typedRoot->getParentGUID().empty());
  EXPECT_EQ(root->getName(), "");

  WzScanDBRecord child("/x");
  EXPECT_TRUE(child.checkParent(root));
  EXPECT_FALSE(child.checkParent(WzScanDBRecordBasePtr(new WzScanDBRecord("/y"))));

  // getRoot keeps the caller's other fields.
  WzScanDBRecord named("/a/b", true, 5);
  WzScanDBRecordBasePtr namedRoot = named.getRoot();
  EXPECT_TRUE(namedRoot->isRoot());
  EXPECT_EQ(namedRoot->getName(), "b");
  EXPECT_EQ(namedRoot->getRefTime(), 5u);

  WzScanDBRecord grandChild("/a/b/c");
  WzScanDBRecordBasePtr probe = grandChild.MakeParentObject();
  WzScanDBRecordPtr typedProbe = boost::dynamic_pointer_cast<WzScanDBRecord>(probe);
  ASSERT_TRUE(typedProbe);
  EXPECT_TRUE(typedProbe->getGUID() == WzScanDBKeyGUID(std::string("/a/b")));
  EXPECT_TRUE(typedProbe->getParentGUID().empty());
  EXPECT_EQ(probe->getName(), "");
  EXPECT_TRUE(grandChild.checkParent(WzScanDBRecordBasePtr(new WzScanDBRecord("/a/b"))));

  WzScanDBRecordBasePtr made = grandChild.MakeObject("/m/n");
  EXPECT_TRUE(boost::dynamic_pointer_cast<WzScanDBRecord>(made)->getGUID() ==
              WzScanDBKeyGUID(std::string("/m/n")));

  grandChild.initializeFieldInformation();
  WzScanDBRecordBasePtr clone = grandChild.Clone();
  EXPECT_NE(clone.get(), &grandChild);
  EXPECT_EQ(0, std::memcmp(clone->getStructure(), grandChild.getStructure(), 440));
  EXPECT_EQ(clone->getFieldInformation(0).name, "guid");
  // Every record that leaves a record carries the library's handle deleter.
  for (const WzScanDBRecordBasePtr& p : {root, probe, made, clone})
    EXPECT_NE(boost::get_deleter<CWzHandleDeleter>(p), nullptr);
}

TEST(GenericRecord, TextAndCSVForms) {
  WzScanDBRecord empty;
  const std::string zeros = "0x" + std::string(32, '0');
  EXPECT_EQ(empty.toCSV(), zeros + "," + zeros + ",,no,0,0,0,0");
  EXPECT_EQ(empty.toCSVHeader(), "GUID,Parent GUID,Name,Directory,CTime,MTime,Size,Update Time");

  WzScanDBRecord r("/a/b", true, 4294967295ULL);
  SRecordStructure& image = *static_cast<SRecordStructure*>(r.getStructure());
  image.stat_data.st_size = 0x100000005LL;  // truncated to 32 bits
  image.stat_data.st_mtim.tv_sec = 1700000001;
  image.stat_data.st_ctim.tv_sec = 1700000002;
  const std::string guid = WzScanDBKeyGUID(std::string("/a/b")).toString();
  const std::string parent = WzScanDBKeyGUID(std::string("/a")).toString();
  EXPECT_EQ(r.toString(), "GUID : [" + guid + "] Parent GUID : [" + parent +
                              "] Name : [b] Directory : [yes] CTime : [1700000002] MTime : "
                              "[1700000001] Size : [5] Update Time : [-1]");
  EXPECT_EQ(r.toCSV(), guid + "," + parent + ",b,yes,1700000002,1700000001,5,-1");
}

}  // namespace
