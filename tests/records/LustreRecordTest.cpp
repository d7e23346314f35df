// The Lustre record: FIDs from the lookup (through a test resolver) and from
// callers, failure lines, header words, copies, root and text form.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <string>

#include "RecordTestSupport.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "lustre/GetFIDFromPath.h"
#include "support/TempDir.h"

namespace {

using LustreAPI::CLustreFID;
using LustreAPI::CLustreFIDPtr;
using LustreAPI::lu_fid;

// Resolves the paths of a small fake Lustre tree; anything else is ENOENT.
class FakeLustre {
 public:
  FakeLustre() {
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
  std::map<std::string, lu_fid> fids_{{"/lustre", {0x200000007ULL, 1, 0}},
                                      {"/lustre/dir", {0x200000400ULL, 0x1a, 0}},
                                      {"/lustre/dir/file", {0x200000400ULL, 0x1b, 0}}};
};

CLustreFIDPtr Fid(uint64_t sequence, uint32_t oid) { return CLustreFIDPtr(new CLustreFID(sequence, oid, 0)); }
SLustreRecord& Image(WzScanDBRecordBase& r) { return *static_cast<SLustreRecord*>(r.getStructure()); }
// The text form of a record with these fields.
std::string Text(const CLustreFID& fid, const CLustreFID& parent, const std::string& name, int flags, int time) {
  return "FID = [" + fid.toString() + "] : Parent FID = [" + parent.toString() + "] : Name = [" + name +
         "] : flags = [" + std::to_string(flags) + "] : Update Time = [" + std::to_string(time) + "]";
}

TEST(LustreRecord, PathConstructorsAskForBothFIDs) {
  FakeLustre lustre;
  ScopedLogCapture log;
  WzScanDBLustreRecord byPath("/lustre/dir/file");
  EXPECT_EQ(byPath.toString(), Text(lustre.Fid("/lustre/dir/file"), lustre.Fid("/lustre/dir"), "file", 0, 0));
  EXPECT_FALSE(byPath.isRoot());
  WzScanDBLustreRecord dir("/lustre/dir", true, 0x100000009ULL);
  EXPECT_EQ(dir.toString(), Text(lustre.Fid("/lustre/dir"), lustre.Fid("/lustre"), "dir", 1, 9));
  EXPECT_TRUE(byPath.checkParent(dir.Clone()));
  EXPECT_FALSE(dir.checkParent(byPath.Clone()));

  // With the parent given, the parent path is not looked up.
  WzScanDBLustreRecord withParent("/lustre/dir/file", Fid(0x300000000ULL, 4), false, 1);
  EXPECT_EQ(withParent.toString(), Text(lustre.Fid("/lustre/dir/file"), *Fid(0x300000000ULL, 4), "file", 0, 1));
  EXPECT_TRUE(WzScanDBLustreRecord("/lustre/dir/file", CLustreFIDPtr(), true, 1).isRoot());
  EXPECT_TRUE(log.Entries().empty());
}

TEST(LustreRecord, FailedLookupsLogAndLeaveFIDsEmpty) {
  const char kPath[] = "WzScanDBLustreRecord::WzScanDBLustreRecord(const string&)";
  const CLustreFID none;
  // The own FID's line names only the last component, the parent's the whole parent path.
  FakeLustre lustre;
  {
    ScopedLogCapture log;
    WzScanDBLustreRecord r("/elsewhere/deep/name", false, 0);
    EXPECT_EQ(r.toString(), Text(none, none, "name", 0, 0));
    ExpectLines(log, -1, "WzScanDBLustreRecord::WzScanDBLustreRecord(std::string, bool, long long unsigned int)",
                {"Cannot convert path to FID for Path name",
                 "Cannot convert path to FID for Path /elsewhere/deep"});
  }
  {
    ScopedLogCapture log;
    WzScanDBLustreRecord r("/lustre/dir/missing");
    EXPECT_EQ(r.toString(), Text(none, lustre.Fid("/lustre/dir"), "missing", 0, 0));
    ExpectLines(log, -1, kPath, {"Cannot convert path to FID for Path missing"});
  }
  {
    ScopedLogCapture log;
    WzScanDBLustreRecord r("/lustre/dir/missing", Fid(1, 2), false, 0);
    ExpectLines(log, -1,
                "WzScanDBLustreRecord::WzScanDBLustreRecord(std::string, LustreAPI::CLustreFIDPtr, bool, long "
                "long unsigned int)",
                {"Cannot convert path to FID for Path missing"});
  }
  // Off Lustre, through the real client: the lookups fail, the record is built.
  LustreAPI::ResetFIDResolver();
  TempDir dir;
  ScopedLogCapture log;
  WzScanDBLustreRecord r(dir / "absent");
  EXPECT_EQ(r.toString(), Text(none, none, "absent", 0, 0));
  ExpectLines(log, -1, kPath,
              {"Cannot convert path to FID for Path absent", "Cannot convert path to FID for Path " + dir.path()});
}

TEST(LustreRecord, ExplicitFIDsWidthsAndWrongTypeLines) {
  WzScanDBLustreRecord r(Fid(0x200000400ULL, 0x1a), Fid(0x200000400ULL, 0x2), "a/b", true, 3);
  EXPECT_EQ(r.toString(),  // the name is taken as given, not split
            "FID = [[0x200000400:0x1a:0x0]] : Parent FID = [[0x200000400:0x2:0x0]] : Name = [a/b] "
            ": flags = [1] : Update Time = [3]");
  EXPECT_TRUE(WzScanDBLustreRecord(Fid(1, 1), CLustreFIDPtr(), "top", false, 0).isRoot());
  WzScanDBLustreRecord probe(Fid(0x200000400ULL, 0x1a));  // everything after the FID is zero
  EXPECT_TRUE(AllZero(static_cast<const char*>(probe.getStructure()) + 24, 456 - 24));

  std::string longName(300, 'z');
  WzScanDBLustreRecord longRecord(Fid(1, 1), Fid(1, 2), longName, false, 0);
  EXPECT_EQ(WzScanDBLustreRecord(longRecord).getName(), longName.substr(0, 255));
  r.setFlags(0x1FF);
  EXPECT_EQ(r.getFlags(), 255);
  r.setRefTime(0xABCDEF012345ULL);
  EXPECT_EQ(r.getRefTime(), 0xEF012345ULL);

  {
    ScopedLogCapture log;
    EXPECT_FALSE(r.checkParent(WzScanDBRecordBasePtr(new WzScanDBRecord("/a"))));
    ExpectLines(log, -1, "virtual bool WzScanDBLustreRecord::checkParent(WzScanDBRecordBasePtr)",
                {"The given record is NULL or not of type WzScanDBLustreRecord\n"});
  }
  ScopedLogCapture log;
  EXPECT_FALSE(r.checkEqualOnIndex(WzScanDBRecordBasePtr(), 0));
  ExpectLines(log, -1, "virtual bool WzScanDBLustreRecord::checkEqualOnIndex(WzScanDBRecordBasePtr, int)",
              {"The given record is NULL or not of the type WzScanDBLustreRecord\n"});
}

TEST(LustreRecord, SetStructureKeepsHeaderWordsZeroAndCopyTakesTheFlagByte) {
  WzScanDBLustreRecord source(CLustreFIDPtr(new CLustreFID(5, 6, 7)), CLustreFIDPtr(new CLustreFID(8, 9, 10)),
                              "name", true, 12);
  unsigned char buffer[456];
  std::memcpy(buffer, source.getStructure(), sizeof buffer);
  std::memset(buffer, 0xFF, 8);        // own FID header word
  std::memset(buffer + 24, 0xFF, 8);   // parent FID header word
  std::memset(buffer + 452, 0xFF, 4);  // padding
  WzScanDBLustreRecord target;
  target.setStructure(buffer);
  const unsigned char* image = static_cast<const unsigned char*>(target.getStructure());
  EXPECT_TRUE(AllZero(image, 8) && AllZero(image + 24, 8) && AllZero(image + 452, 4));
  EXPECT_EQ(0, std::memcmp(image + 8, buffer + 8, 16));
  EXPECT_EQ(0, std::memcmp(image + 32, buffer + 32, 452 - 32));
  // Keys built afterwards carry zero header words.
  EXPECT_TRUE(AllZero(target.prepareIndexKey(0).segmentData[0], 8) &&
              AllZero(target.prepareIndexKey(1).segmentData[0], 8));
  std::memcpy(buffer, image, sizeof buffer);
  target.setStructure(nullptr);
  EXPECT_EQ(0, std::memcmp(buffer, image, sizeof buffer));

  // copyStandardFields takes the flag byte only; another type carries nothing it takes.
  WzScanDBRecordBasePtr from(new WzScanDBLustreRecord(Fid(1, 2), Fid(1, 1), "s", true, 4));
  from->setFlags(kRecordFlagDirectory | kRecordFlagVisited);
  Image(*from).stat_data.st_size = 99;
  WzScanDBLustreRecord to(Fid(1, 3), Fid(1, 1), "t", false, 8);
  EXPECT_TRUE(to.copyStandardFields(from).IsSuccess());
  EXPECT_EQ(to.toString(), Text(*Fid(1, 3), *Fid(1, 1), "t", 3, 8));
  EXPECT_EQ(Image(to).stat_data.st_size, 0);
  to.setFlags(0);
  EXPECT_TRUE(to.copyStandardFields(WzScanDBRecordBasePtr(new WzScanDBRecord("/g", true, 1))).IsSuccess());
  EXPECT_EQ(to.getFlags(), 0);
}

TEST(LustreRecord, RootCloneParentProbe) {
  WzScanDBLustreRecord r(Fid(0x200000400ULL, 0x1b), Fid(0x200000400ULL, 0x1a), "leaf", true, 6);
  WzScanDBRecordBasePtr root = r.getRoot();
  EXPECT_TRUE(root->isRoot());
  EXPECT_EQ(root->toString(), Text(CLustreFID(), CLustreFID(), "leaf", 1, 6));
  EXPECT_TRUE(r.checkParent(WzScanDBRecordBasePtr(new WzScanDBLustreRecord(Fid(0x200000400ULL, 0x1a)))));

  WzScanDBRecordBasePtr clone = r.Clone();
  EXPECT_EQ(0, std::memcmp(clone->getStructure(), r.getStructure(), 452));
  EXPECT_TRUE(clone->checkEqualOnIndex(WzScanDBRecordBasePtr(new WzScanDBLustreRecord(r)), 0));

  WzScanDBRecordBasePtr probe = r.MakeParentObject();
  ASSERT_TRUE(boost::dynamic_pointer_cast<WzScanDBLustreRecord>(probe));
  EXPECT_EQ(probe->toString(), Text(*Fid(0x200000400ULL, 0x1a), CLustreFID(), "", 0, 0));

  FakeLustre lustre;
  WzScanDBRecordBasePtr made = r.MakeObject("/lustre/dir/file");
  EXPECT_TRUE(boost::dynamic_pointer_cast<WzScanDBLustreRecord>(made)->getFID() == lustre.Fid("/lustre/dir/file"));
  EXPECT_EQ(made->toCSVHeader(), "Not Supported");
  EXPECT_EQ(made->toCSV(), "");
  ExpectHandles({root, clone, probe, made});
}

}  // namespace
