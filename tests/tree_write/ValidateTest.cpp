// validateTree and printStats, for the generic and the Lustre record.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "runtime/LogCapture.h"
#include "tree_write/TreeWriteFixture.h"

namespace {

constexpr const char* kValidateSig = "CKoError WzScanDB::validateTree(bool&)";
constexpr const char* kPrintStatsSig = "CKoError WzScanDB::printStats()";

template <class Tree>
class ValidateTest : public TreeWriteTest<Tree> {
 protected:
  // 3 folders and 5 files below the root, two levels deep.
  void BuildSmallTree() {
    this->AddFolder("/etc");
    this->AddFolder("/home");
    this->AddFolder("/home/ann");
    this->AddFile("/etc/hosts");
    this->AddFile("/home/ann/a.txt");
    this->AddFile("/home/ann/b.txt");
    this->AddFile("/home/notes");
    this->AddFile("/vmlinuz");
  }
  // Number of records of the table that carry the visited bit.
  size_t Marked() {
    size_t marked = 0;
    for (const WzScanDBRecordBasePtr& record : this->AllRecords())
      if (record->getFlags() & kRecordFlagVisited) ++marked;
    return marked;
  }
  std::vector<unsigned long> Counts(CLogCapture& capture, const char* suffix) {
    std::vector<unsigned long> counts;
    for (const CLogEntry& entry : capture.FindContaining(suffix))
      counts.push_back(std::stoul(entry.message));
    return counts;
  }
};
TYPED_TEST_SUITE(ValidateTest, TreeTypes, TreeTypeNames);

TYPED_TEST(ValidateTest, ConsistentTreeIsReportedAndLeftUnmarked) {
  this->BuildSmallTree();
  ScopedLogLevel level(5);
  auto capture = CLogCapture::Install();
  bool consistent = false;
  CKoError err = this->db_->validateTree(consistent);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_TRUE(consistent);
  EXPECT_TRUE(capture->FindContaining("Found a disconnected node").empty());
  EXPECT_EQ(0u, this->Marked());

  auto started = capture->Find(
      "Validate Function Called. Expensive Function, May Take Time. Performing BFS Search "
      "marking all nodes as visited.");
  ASSERT_EQ(1u, started.size());
  EXPECT_EQ(0, started[0].level);
  EXPECT_EQ(1037, started[0].line);
  EXPECT_EQ(kValidateSig, started[0].function);
  EXPECT_EQ(1u, capture->Find("Visited All Reachable Nodes from the Root. Now Checking if any "
                              "of the Nodes are disconnected.").size());
  auto done = capture->Find(
      "Marked all Nodes Reachable from Root as Not Visited. The Database is Consistent");
  ASSERT_EQ(1u, done.size());
  EXPECT_EQ(1082, done[0].line);
  EXPECT_EQ((std::vector<unsigned long>{8, 0}),
            this->Counts(*capture, " Records marked as Visited"));
  EXPECT_EQ((std::vector<unsigned long>{8, 0}),
            this->Counts(*capture, " Records marked as Not Visited"));
  for (const CLogEntry& entry : capture->FindContaining(" Records marked as ")) {
    EXPECT_EQ(5, entry.level);
  }
}

TYPED_TEST(ValidateTest, DisconnectedRecordsGiveOneLine) {
  this->BuildSmallTree();
  // Three records whose parents are not stored.
  std::vector<WzScanDBRecordBasePtr> orphans = {this->AddFile("/lost/o1"),
                                                this->AddFolder("/lost/o2"),
                                                this->AddFile("/lost/sub/o3")};
  ScopedLogLevel level(0);
  auto capture = CLogCapture::Install();
  bool consistent = true;
  ASSERT_TRUE(this->db_->validateTree(consistent).IsSuccess());
  EXPECT_FALSE(consistent);

  auto lines = capture->FindContaining("Found a disconnected node : ");
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(-1, lines[0].level);
  EXPECT_EQ(1065, lines[0].line);
  EXPECT_EQ(kValidateSig, lines[0].function);
  bool namesAnOrphan = false;
  for (const WzScanDBRecordBasePtr& orphan : orphans)
    if (lines[0].message == "Found a disconnected node : " + this->Stored(orphan)->toString() + "\n")
      namesAnOrphan = true;
  EXPECT_TRUE(namesAnOrphan) << lines[0].message;
  EXPECT_EQ(1u, capture->Find("Marked all Nodes Reachable from Root as Not Visited. The "
                              "Database is Not Consistent").size());
  EXPECT_EQ(0u, this->Marked());
}

// The scan trusts the stored visited bit: an unreachable record that is
// already marked in the table (here: stored with the bit set) is not found.
TYPED_TEST(ValidateTest, MarkedUnreachableRecordIsMissed) {
  this->BuildSmallTree();
  WzScanDBRecordBasePtr orphan = this->Make("/lost/marked", false);
  orphan->setFlags(kRecordFlagVisited);
  ASSERT_TRUE(this->db_->addFile(orphan).IsSuccess());
  bool consistent = false;
  ASSERT_TRUE(this->db_->validateTree(consistent).IsSuccess());
  EXPECT_TRUE(consistent);
  EXPECT_EQ(1u, this->Marked());  // the orphan keeps its bit

  this->AddFile("/lost/unmarked");
  ASSERT_TRUE(this->db_->validateTree(consistent).IsSuccess());
  EXPECT_FALSE(consistent);
}

TYPED_TEST(ValidateTest, OnlyTheRoot) {
  ScopedLogLevel level(5);
  auto capture = CLogCapture::Install();
  bool consistent = false;
  ASSERT_TRUE(this->db_->validateTree(consistent).IsSuccess());
  EXPECT_TRUE(consistent);
  ASSERT_EQ(1u, this->CountRecords());
  EXPECT_EQ(0u, this->Marked());
  EXPECT_EQ((std::vector<unsigned long>{0}), this->Counts(*capture, " Records marked as Visited"));
}

TYPED_TEST(ValidateTest, MissingRootFailsTheMarkingPass) {
  this->BuildSmallTree();
  ASSERT_TRUE(this->db_->removeFile(this->root_).IsSuccess());
  bool consistent = false;
  CKoError err = this->db_->validateTree(consistent);
  ASSERT_TRUE(err.IsError());
  EXPECT_TRUE(consistent);
  EXPECT_EQ(2, err.GetCode());
  EXPECT_EQ("getSubtree(" + this->db_->getRoot()->toString() + ") with validate = true Failed",
            err.GetTopMessage());
  EXPECT_EQ(1048, err.GetFrames().back().location.line);
}

TYPED_TEST(ValidateTest, PrintStatsCountsDescendantsAndLeavesThemMarked) {
  this->BuildSmallTree();
  this->AddFile("/lost/orphan");  // unreachable: neither counted nor marked
  testing::internal::CaptureStdout();
  CKoError err = this->db_->printStats();
  const std::string out = testing::internal::GetCapturedStdout();
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_EQ(
      "\nTotal Number of Records : 8 , Number of Directories : 3  , Number of Files : 5 \n", out);
  // Every reachable record, the root included, keeps the visited bit.
  EXPECT_EQ(9u, this->Marked());
  EXPECT_FALSE(this->Stored(this->Make("/lost/orphan", false))->getFlags() & kRecordFlagVisited);
  for (const char* path : {"/etc", "/home", "/home/ann", "/etc/hosts", "/home/ann/a.txt",
                           "/home/ann/b.txt", "/home/notes", "/vmlinuz"})
    EXPECT_TRUE(this->Stored(this->Make(path, false))->getFlags() & kRecordFlagVisited) << path;
  EXPECT_TRUE(this->Stored(this->root_)->getFlags() & kRecordFlagVisited);
}

TYPED_TEST(ValidateTest, PrintStatsWithoutRootReportsTheFailure) {
  ASSERT_TRUE(this->db_->removeFile(this->root_).IsSuccess());
  auto capture = CLogCapture::Install();
  testing::internal::CaptureStdout();
  CKoError err = this->db_->printStats();
  const std::string out = testing::internal::GetCapturedStdout();
  ASSERT_TRUE(err.IsError());
  EXPECT_EQ("Couldn't get the subtree to print the stats of the database", err.GetTopMessage());
  EXPECT_EQ(476, err.GetFrames().back().location.line);
  EXPECT_STREQ(kPrintStatsSig, err.GetFrames().back().location.function);

  auto lines = capture->FindContaining("Couldn't get the subtree due to : ");
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(-1, lines[0].level);
  EXPECT_EQ(472, lines[0].line);
  EXPECT_EQ(lines[0].message, out);  // the same text, without a newline
  EXPECT_NE(std::string::npos,
            out.find("is not present in the database to retrieve a subtree"));
}

}  // namespace
