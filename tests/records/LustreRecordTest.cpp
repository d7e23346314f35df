// The Lustre record: FIDs from the lookup (through a test resolver) and from
// callers, failure lines, header words, copies, root and text form.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <string>

#include "RecordTestSupport.h"
#include "WzScanDB/WzHandle.h"
#include "WzScanDB/records/BackupTimeRecord.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "lustre/GetFIDFromPath.h"
#include "support/TempDir.h"

namespace {

using LustreAPI::CLustreFID;
using LustreAPI::CLustreFIDPtr;
using LustreAPI::lu_fid;

const char kPathSignature[] = "WzScanDBLustreRecord::WzScanDBLustreRecord(const string&)";
const char kPathDirSignature[] =
    "WzScanDBLustreRecord::WzScanDBLustreRecord(std::string, bool, long long unsigned int)";
const char kPathParentSignature[] =
    "WzScanDBLustreRecord::WzScanDBLustreRecord(std::string, LustreAPI::CLustreFIDPtr, bool, long "
    "long unsigned int)";

// Resolves the paths of a small fake Lustre tree; anything else is ENOENT.
class FakeLustre {
 public:
  FakeLustre() {
    fids_["/lustre"] = {0x200000007ULL, 1, 0};
    fids_["/lustre/dir"] = {0x200000400ULL, 0x1a, 0};
    fids_["/lustre/dir/file"] = {0x200000400ULL, 0x1b, 0};
    LustreAPI::SetFIDResolver([this](const std::string& path, lu_fid& fid) {
      auto it = fids_.find(path);
      if (it == fids_.end()) return -ENOENT;
      fid = it->second;
      return 0;
    });
  }
  ~FakeLustre() { LustreAPI::ResetFIDResolver(); }
  CLustreFID Fid(const std::string& path) const { return CLustreFID(fids_.at(path)); }

 private:
  std::map<std::string, lu_fid> fids_;
};

const SLustreRecord& Image(WzScanDBRecordBase& r) {
  return *static_cast<const SLustreRecord*>(r.getStructure());
}

TEST(LustreRecord, PathConstructorsAskForBothFIDs) {
  FakeLustre lustre;
  ScopedLogCapture log;
  WzScanDBLustreRecord byPath("/lustre/dir/file");
  EXPECT_TRUE(byPath.getFID() == lustre.Fid("/lustre/dir/file"));
  EXPECT_TRUE(byPath.getParentFID() == lustre.Fid("/lustre/dir"));
  EXPECT_EQ(byPath.getName(), "file");
  EXPECT_EQ(byPath.getFlags(), 0);
  EXPECT_EQ(byPath.getRefTime(), 0u);
  EXPECT_FALSE(byPath.isRoot());

  WzScanDBLustreRecord dir("/lustre/dir", true, 0x100000009ULL);
  EXPECT_TRUE(dir.getFID() == lustre.Fid("/lustre/dir"));
  EXPECT_TRUE(dir.getParentFID() == lustre.Fid("/lustre"));
  EXPECT_TRUE(dir.isDir());
  EXPECT_EQ(dir.getRefTime(), 9u);
  EXPECT_TRUE(byPath.checkParent(dir.Clone()));
  EXPECT_FALSE(dir.checkParent(byPath.Clone()));

  // With the parent given, the parent path is not looked up.
  CLustreFIDPtr given(new CLustreFID(0x300000000ULL, 4, 0));
  WzScanDBLustreRecord withParent("/lustre/dir/file", given, false, 1);
  EXPECT_TRUE(withParent.getFID() == lustre.Fid("/lustre/dir/file"));
  EXPECT_TRUE(withParent.getParentFID() == *given);
  WzScanDBLustreRecord nullParent("/lustre/dir/file", CLustreFIDPtr(), true, 1);
  EXPECT_TRUE(nullParent.getParentFID().empty());
  EXPECT_TRUE(nullParent.isRoot());
  EXPECT_TRUE(log.Entries().empty());

  // Header words stay zero whatever the lookups wrote.
  for (WzScanDBLustreRecord* r : {&byPath, &dir, &withParent}) {
    EXPECT_EQ(Image(*r).FID.getHeaderWord(), 0u);
    EXPECT_EQ(Image(*r).ParentFID.getHeaderWord(), 0u);
  }
}

TEST(LustreRecord, FailedLookupsLogAndLeaveFIDsEmpty) {
  {
    FakeLustre lustre;
    ScopedLogCapture log;
    WzScanDBLustreRecord r("/elsewhere/deep/name", false, 0);
    EXPECT_TRUE(r.getFID().empty());
    EXPECT_TRUE(r.getParentFID().empty());
    EXPECT_EQ(r.getName(), "name");
    std::vector<CLogEntry> entries = log.Entries();
    ASSERT_EQ(entries.size(), 2u);
    // The own FID's line names only the last component, the parent's the path.
    EXPECT_EQ(entries[0].message, "Cannot convert path to FID for Path name");
    EXPECT_EQ(entries[1].message, "Cannot convert path to FID for Path /elsewhere/deep");
    for (const CLogEntry& e : entries) {
      EXPECT_EQ(e.level, -1);
      EXPECT_EQ(e.function, kPathDirSignature);
    }
  }
  {
    FakeLustre lustre;
    ScopedLogCapture log;
    WzScanDBLustreRecord r("/lustre/dir/missing");
    EXPECT_TRUE(r.getFID().empty());
    EXPECT_TRUE(r.getParentFID() == lustre.Fid("/lustre/dir"));
    ExpectOneLine(log, -1, kPathSignature, "Cannot convert path to FID for Path missing");
  }
  {
    FakeLustre lustre;
    ScopedLogCapture log;
    WzScanDBLustreRecord r("/lustre/dir/missing", CLustreFIDPtr(new CLustreFID(1, 2, 3)), false, 0);
    ExpectOneLine(log, -1, kPathParentSignature, "Cannot convert path to FID for Path missing");
  }
  {
    // Off Lustre, through the real client: the lookups fail, the record is built.
    TempDir dir;
    ScopedLogCapture log;
    WzScanDBLustreRecord r(dir / "absent");
    EXPECT_TRUE(r.getFID().empty());
    EXPECT_TRUE(r.getParentFID().empty());
    EXPECT_EQ(r.getName(), "absent");
    std::vector<CLogEntry> entries = log.Entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].message, "Cannot convert path to FID for Path absent");
    EXPECT_EQ(entries[1].message, "Cannot convert path to FID for Path " + dir.path());
    EXPECT_EQ(entries[0].function, kPathSignature);
  }
}

TEST(LustreRecord, ExplicitFIDsNameAndProbe) {
  CLustreFIDPtr fid(new CLustreFID(0x200000400ULL, 0x1a, 0));
  CLustreFIDPtr parent(new CLustreFID(0x200000400ULL, 0x2, 0));
  WzScanDBLustreRecord r(fid, parent, "a/b", true, 3);
  EXPECT_EQ(r.getName(), "a/b");  // taken as given, not split
  EXPECT_TRUE(r.getFID() == *fid);
  EXPECT_TRUE(r.getParentFID() == *parent);
  EXPECT_TRUE(r.isDir());
  EXPECT_EQ(r.toString(),
            "FID = [[0x200000400:0x1a:0x0]] : Parent FID = [[0x200000400:0x2:0x0]] : Name = [a/b] "
            ": flags = [1] : Update Time = [3]");

  WzScanDBLustreRecord noParent(fid, CLustreFIDPtr(), "top", false, 0);
  EXPECT_TRUE(noParent.isRoot());

  WzScanDBLustreRecord probe(fid);
  EXPECT_TRUE(probe.getFID() == *fid);
  EXPECT_TRUE(probe.getParentFID().empty());
  EXPECT_EQ(probe.getName(), "");
  EXPECT_EQ(0, std::memcmp(static_cast<const char*>(probe.getStructure()) + 24,
                           std::string(456 - 24, '\0').data(), 456 - 24));

  std::string longName(300, 'z');
  WzScanDBLustreRecord longRecord(fid, parent, longName, false, 0);
  EXPECT_EQ(longRecord.getName(), longName.substr(0, 255));
  WzScanDBLustreRecord copy(longRecord);
  EXPECT_EQ(copy.getName(), longName.substr(0, 255));

  r.setFlags(0x1FF);
  EXPECT_EQ(r.getFlags(), 255);
  r.setRefTime(0xABCDEF012345ULL);
  EXPECT_EQ(r.getRefTime(), 0xEF012345ULL);
}

TEST(LustreRecord, FailureLinesOfWrongTypes) {
  WzScanDBLustreRecord r(CLustreFIDPtr(new CLustreFID(1, 1, 0)));
  WzScanDBRecordBasePtr generic(new WzScanDBRecord("/a"));
  {
    ScopedLogCapture log;
    EXPECT_FALSE(r.checkParent(generic));
    ExpectOneLine(log, -1, "virtual bool WzScanDBLustreRecord::checkParent(WzScanDBRecordBasePtr)",
                  "The given record is NULL or not of type WzScanDBLustreRecord\n");
  }
  {
    ScopedLogCapture log;
    EXPECT_FALSE(r.checkEqualOnIndex(WzScanDBRecordBasePtr(), 0));
    ExpectOneLine(log, -1,
                  "virtual bool WzScanDBLustreRecord::checkEqualOnIndex(WzScanDBRecordBasePtr, int)",
                  "The given record is NULL or not of the type WzScanDBLustreRecord\n");
  }
}

TEST(LustreRecord, SetStructureKeepsHeaderWordsZero) {
  WzScanDBLustreRecord source(CLustreFIDPtr(new CLustreFID(5, 6, 7)),
                              CLustreFIDPtr(new CLustreFID(8, 9, 10)), "name", true, 12);
  unsigned char buffer[456];
  std::memcpy(buffer, source.getStructure(), sizeof buffer);
  std::memset(buffer, 0xFF, 8);       // own FID header word
  std::memset(buffer + 24, 0xFF, 8);  // parent FID header word
  std::memset(buffer + 452, 0xFF, 4); // padding

  WzScanDBLustreRecord target;
  target.setStructure(buffer);
  const unsigned char* image = static_cast<const unsigned char*>(target.getStructure());
  EXPECT_EQ(0, std::memcmp(image, std::string(8, '\0').data(), 8));
  EXPECT_EQ(0, std::memcmp(image + 24, std::string(8, '\0').data(), 8));
  EXPECT_EQ(0, std::memcmp(image + 8, buffer + 8, 16));
  EXPECT_EQ(0, std::memcmp(image + 32, buffer + 32, 452 - 32));
  EXPECT_EQ(0, std::memcmp(image + 452, std::string(4, '\0').data(), 4));
  EXPECT_EQ(target.getName(), "name");
  EXPECT_EQ(target.getRefTime(), 12u);

  // Keys built afterwards carry zero header words.
  const unsigned char* key0 =
      static_cast<const unsigned char*>(target.prepareIndexKey(0).segmentData[0]);
  const unsigned char* key1 =
      static_cast<const unsigned char*>(target.prepareIndexKey(1).segmentData[0]);
  EXPECT_EQ(0, std::memcmp(key0, std::string(8, '\0').data(), 8));
  EXPECT_EQ(0, std::memcmp(key1, std::string(8, '\0').data(), 8));

  unsigned char before[456];
  std::memcpy(before, image, sizeof before);
  target.setStructure(nullptr);
  EXPECT_EQ(0, std::memcmp(before, image, sizeof before));
}

TEST(LustreRecord, CopyStandardFieldsTakesTheFlagByteOnly) {
  WzScanDBLustreRecord* source = new WzScanDBLustreRecord(
      CLustreFIDPtr(new CLustreFID(1, 2, 0)), CLustreFIDPtr(new CLustreFID(1, 1, 0)), "s", true, 4);
  WzScanDBRecordBasePtr sourcePtr(source);
  source->setFlags(kRecordFlagDirectory | kRecordFlagVisited);
  static_cast<SLustreRecord*>(source->getStructure())->stat_data.st_size = 99;

  WzScanDBLustreRecord target(CLustreFIDPtr(new CLustreFID(1, 3, 0)),
                              CLustreFIDPtr(new CLustreFID(1, 1, 0)), "t", false, 8);
  EXPECT_TRUE(target.copyStandardFields(sourcePtr).IsSuccess());
  EXPECT_EQ(target.getFlags(), 3);
  EXPECT_EQ(Image(target).stat_data.st_size, 0);
  EXPECT_EQ(target.getRefTime(), 8u);
  EXPECT_EQ(target.getName(), "t");

  // Another type carries nothing this type takes.
  target.setFlags(0);
  WzScanDBRecord* generic = new WzScanDBRecord("/g", true, 1);
  EXPECT_TRUE(target.copyStandardFields(WzScanDBRecordBasePtr(generic)).IsSuccess());
  EXPECT_EQ(target.getFlags(), 0);
}

TEST(LustreRecord, RootCloneParentProbe) {
  CLustreFIDPtr fid(new CLustreFID(0x200000400ULL, 0x1b, 0));
  CLustreFIDPtr parent(new CLustreFID(0x200000400ULL, 0x1a, 0));
  WzScanDBLustreRecord r(fid, parent, "leaf", true, 6);

  WzScanDBRecordBasePtr root = r.getRoot();
  EXPECT_TRUE(root->isRoot());
  EXPECT_EQ(root->toString(),
            "FID = [[0x0:0x0:0x0]] : Parent FID = [[0x0:0x0:0x0]] : Name = [leaf] : flags = [1] "
            ": Update Time = [6]");
  EXPECT_TRUE(r.checkParent(WzScanDBRecordBasePtr(new WzScanDBLustreRecord(parent))));

  WzScanDBRecordBasePtr clone = r.Clone();
  EXPECT_EQ(0, std::memcmp(clone->getStructure(), r.getStructure(), 452));
  EXPECT_TRUE(clone->checkEqualOnIndex(WzScanDBRecordBasePtr(new WzScanDBLustreRecord(r)), 0));

  WzScanDBRecordBasePtr probe = r.MakeParentObject();
  WzScanDBLustreRecordPtr typedProbe = boost::dynamic_pointer_cast<WzScanDBLustreRecord>(probe);
  ASSERT_TRUE(typedProbe);
  EXPECT_TRUE(typedProbe->getFID() == *parent);
  EXPECT_TRUE(typedProbe->getParentFID().empty());
  EXPECT_EQ(probe->getName(), "");
  EXPECT_EQ(probe->getFlags(), 0);

  FakeLustre lustre;
  WzScanDBRecordBasePtr made = r.MakeObject("/lustre/dir/file");
  EXPECT_TRUE(boost::dynamic_pointer_cast<WzScanDBLustreRecord>(made)->getFID() ==
              lustre.Fid("/lustre/dir/file"));
  EXPECT_EQ(made->toCSVHeader(), "Not Supported");
  EXPECT_EQ(made->toCSV(), "");

  for (const WzScanDBRecordBasePtr& p : {root, clone, probe, made})
    EXPECT_NE(boost::get_deleter<CWzHandleDeleter>(p), nullptr);
}

}  // namespace
