// scan: what it must never lose, and its options.
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

#include "ScanModel.h"
#include "ToolFixture.h"

namespace {

class ScanTest : public ToolFixture {};

// Folder "locked" can be listed but not entered: its entries cannot be
// stat'ed. They and everything below them must keep their records.
TEST_F(ScanTest, EntriesThatCannotBeReadKeepTheirRecords) {
  MakeScratchTree();
  MakeDir("locked");
  MakeDir("locked/sub");
  WriteFile("locked/sub/x", "x");
  WriteFile("locked/y", "y");
  ASSERT_EQ(0, Scan(10).status);
  const std::string before = Run({"walk", db_, tree_}).out;

  for (mode_t mode : {0644, 0}) {
    ASSERT_EQ(0, ::chmod(T("locked").c_str(), mode));
    ToolResult rescan = Run({"scan", tree_, "--db", db_, "--json"}, /*obeyPermissions=*/true);
    ::chmod(T("locked").c_str(), 0755);
    if (rescan.status == kCannotDropCapabilities) GTEST_SKIP() << "cannot drop CAP_DAC_OVERRIDE";
    EXPECT_EQ(5, rescan.status) << rescan.err;
    ScanSets sets = ParseJsonReport(rescan.out, tree_);
    EXPECT_TRUE(sets.removed.empty() && sets.added.empty()) << Describe(sets);
    EXPECT_EQ(mode ? (std::set<std::string>{"locked/sub", "locked/y"}) : std::set<std::string>{"locked"},
              sets.unreadable);
    EXPECT_NE(std::string::npos, rescan.err.find("cannot read " + T(mode ? "locked/y" : "locked")));
    EXPECT_EQ(before, Run({"walk", db_, tree_}).out);
  }
  ToolResult readable = Scan(4000000000u, {"--json"});
  EXPECT_EQ(0, readable.status) << readable.err;
  ScanSets sets = ParseJsonReport(readable.out, tree_);
  EXPECT_TRUE(sets.added.empty() && sets.removed.empty()) << Describe(sets);
}

// Reference times are 32 bits: the largest is taken, nothing above it wraps.
TEST_F(ScanTest, ReferenceTimeNeverWraps) {
  MakeScratchTree();
  ASSERT_EQ(0, Scan(4294967295u).status);
  const std::string walk = Run({"walk", db_, tree_}).out;
  ExpectFailure(Run({"scan", tree_, "--db", db_}), 2, "fits in the records' 32 bits");
  ExpectFailure(Run({"scan", tree_, "--db", db_, "--ref-time", "4294967296"}), 2, "is above 4294967295");
  ExpectFailure(Run({"scan", tree_, "--db", db_, "--ref-time", "-5"}), 2, "not '-5'");
  EXPECT_EQ(walk, Run({"walk", db_, tree_}).out);
  // Every record: the root, the folders above the tree, the tree's nine.
  EXPECT_EQ(9 + std::count(tree_.begin(), tree_.end(), '/'),
            static_cast<long>(Run({"touched", db_, "--since", "4294967295"}).OutLines().size()));
}

// Lustre records are keyed by FID: a path without one is not in the
// database, and "/" has a record of its own below the FID-less root.
TEST_F(ScanTest, LustrePathsResolveThroughFids) {
  MakeScratchTree();
  auto lustre = [this](std::vector<std::string> args) {
    args.insert(args.begin(), "--simulate-lustre-fids");
    args.insert(args.end(), {"--type", "lustre"});
    return Run(args);
  };
  ASSERT_EQ(0, lustre({"scan", tree_, "--db", db_, "--ref-time", "8000"}).status);
  ExpectFailure(lustre({"path", db_, "/nonexistent"}), 2, "has no Lustre FID");
  ExpectFailure(lustre({"ls", db_, "/nonexistent"}), 2, "has no Lustre FID");
  std::vector<std::string> walk = lustre({"walk", db_}).OutLines();
  ASSERT_FALSE(walk.empty());
  EXPECT_EQ(walk[0].substr(0, 1), tree_.substr(1, 1));  // relative, no empty line or "/"
  EXPECT_EQ(1u, std::count(walk.begin(), walk.end(), tree_.substr(1) + "/b/c/g.txt"));
  std::vector<std::string> touched = lustre({"touched", db_, "--since", "0"}).OutLines();
  EXPECT_EQ(1, std::count(touched.begin(), touched.end(), "8000 /"));

  ASSERT_EQ(0, ::rename(T("b").c_str(), T("a/b2").c_str()));
  ToolResult moved = lustre({"scan", tree_, "--db", db_, "--ref-time", "8001", "--json"});
  ASSERT_EQ(0, moved.status) << moved.err;
  ScanSets sets = ParseJsonReport(moved.out, tree_);
  EXPECT_EQ((std::set<std::pair<std::string, std::string>>{{"b", "a/b2"}}), sets.renamed);
  EXPECT_TRUE(sets.added.empty() && sets.removed.empty()) << Describe(sets);
  EXPECT_EQ(T("a/b2/c/g.txt") + "\n", lustre({"path", db_, T("a/b2/c/g.txt")}).out);
  EXPECT_EQ(0, lustre({"validate", db_}).status);
}

// --exclude, --dry-run, --report, --list and --threads.
TEST_F(ScanTest, OptionsShapeWhatIsScannedAndReported) {
  MakeScratchTree();
  for (int i = 0; i < 30; ++i) WriteFile("a/many" + std::to_string(i), "x");
  ASSERT_EQ(0, Scan(100).status);

  // Excluded entries the database held are reported removed, with why.
  // Globs match a name, a path below the tree, or an absolute path.
  const std::vector<std::string> excludes = {"--exclude", "many1*", "--exclude", "b/c",
                                             "--exclude", T("link")};
  std::vector<std::string> args = {"--json"};
  args.insert(args.end(), excludes.begin(), excludes.end());
  ToolResult excluded = Scan(101, args);
  ASSERT_EQ(0, excluded.status) << excluded.err;
  ScanSets sets = ParseJsonReport(excluded.out, tree_);
  EXPECT_EQ(14u, sets.removed.size()) << Describe(sets);  // many1, many10..19, b/c, b/c/g.txt, link
  EXPECT_EQ(1u, sets.removed.count("b/c/g.txt"));
  EXPECT_EQ(1u, sets.removed.count("link"));
  EXPECT_NE(std::string::npos, excluded.out.find("\"reasons\":[\"excluded\"]"));

  // A dry run reports what the real scan then does, and writes nothing.
  WriteFile("a/fresh", "new");
  ASSERT_TRUE(std::filesystem::remove(T("keep.txt")));
  auto files = [this] {
    std::string all;
    for (const char* name : {"/WzScanDB.dat", "/WzScanDB.idx", "/WzScanDB.changes"}) {
      std::ifstream in(db_ + name, std::ios::binary);
      all += std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }
    return all;
  };
  const std::string unchanged = files();
  args = {"--json", "--dry-run"};
  args.insert(args.end(), excludes.begin(), excludes.end());
  ToolResult dry = Scan(102, args);
  ASSERT_EQ(0, dry.status) << dry.err;
  EXPECT_EQ(unchanged, files());
  const std::string report = temp_ / "report.txt";
  args = {"--list", "1", "--report", report, "--threads", "3"};
  args.insert(args.end(), excludes.begin(), excludes.end());
  ToolResult real = Scan(102, args);
  ASSERT_EQ(0, real.status) << real.err;
  EXPECT_EQ(Describe(ParseJsonReport(dry.out, tree_)),
            Describe(ParseJsonReport(Run({"changed", db_, "--json"}).out, tree_)));
  std::ifstream in(report);
  std::string full((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(std::string::npos, full.find("removed    " + T("keep.txt")));
  EXPECT_NE(std::string::npos, full.find("new        " + T("a/fresh")));
  EXPECT_NE(std::string::npos, real.out.find("...        and "));  // --list 1 cut the listing

  // Threads read ahead; the writer's order, and so the report, is the same.
  for (int i = 0; i < 20; ++i) {
    MakeDir("d" + std::to_string(i));
    WriteFile("d" + std::to_string(i) + "/f", std::to_string(i));
  }
  ASSERT_EQ(0, Run({"copy", db_, temp_ / "db2"}).status);
  std::vector<std::string> outputs;
  for (std::string threads : {"1", "4"}) {
    ToolResult scan = Run({"scan", tree_, "--db", threads == "1" ? db_ : temp_ / "db2",
                           "--ref-time", "103", "-0", "--threads", threads});
    ASSERT_EQ(0, scan.status) << scan.err;
    outputs.push_back(scan.out);
  }
  EXPECT_EQ(outputs[0], outputs[1]);
  EXPECT_EQ(Run({"walk", db_, tree_, "--json"}).out, Run({"walk", temp_ / "db2", tree_, "--json"}).out);
}

// -x records a mount point below the scanned folder but not what is in it.
TEST_F(ScanTest, OneFileSystemStopsAtMountPoints) {
  struct stat dev, pts;
  if (::stat("/dev", &dev) != 0 || ::stat("/dev/pts", &pts) != 0 || dev.st_dev == pts.st_dev)
    GTEST_SKIP() << "/dev/pts is not a mount point here";
  ToolResult scan = Run({"scan", "/dev", "--db", db_, "-x", "--json"});
  ASSERT_TRUE(scan.status == 0 || scan.status == 5) << scan.err;
  ScanSets sets = ParseJsonReport(scan.out, "/dev");
  EXPECT_EQ(1u, sets.added.count("pts"));
  for (const std::string& path : sets.added) EXPECT_NE(0u, path.rfind("pts/", 0)) << path;
}

}  // namespace
