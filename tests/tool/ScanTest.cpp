// scan: Lustre records, the null-separated report, and the options that
// shape what is scanned and reported.
#include <sys/stat.h>

#include <filesystem>

#include "ScanModel.h"

namespace {

class ScanTest : public ToolFixture {};

// Lustre records are keyed by FID: a path without one is not in the
// database, and "/" has a record of its own below the FID-less root. A moved
// folder is a rename, which -0 reports as "renamed\tREASONS\tNEW\0OLD\0",
// after the folders that lost and gained an entry; a new file has "-" for
// reasons.
TEST_F(ScanTest, LustrePathsResolveThroughFids) {
  MakeScratchTree();
  auto lustre = [this](std::vector<std::string> args) {
    args.insert(args.begin(), "--simulate-lustre-fids");
    args.insert(args.end(), {"--type", "lustre"});
    return args;
  };
  const std::string relative = tree_.substr(1);  // the walk's paths have no leading '/'
  ExpectRows({
      {lustre({"scan", tree_, "--db", db_, "--ref-time", "8000"}), 0, "summary: entries 9"},
      {lustre({"path", db_, "/nonexistent"}), 2, "has no Lustre FID"},
      {lustre({"ls", db_, "/nonexistent"}), 2, "has no Lustre FID"},
      {lustre({"walk", db_}), 0, "\n" + relative + "/b/c/g.txt\n"},
      {lustre({"touched", db_, "--since", "0"}), 0, "8000 /\n"},
  });
  // Relative paths from the top folder down, folders ending in '/', no line for "/".
  EXPECT_EQ(0u, Run(lustre({"walk", db_})).out.find(relative.substr(0, relative.find('/')) + "/\n"));
  ASSERT_EQ(0, ::rename(T("b").c_str(), T("a/b2").c_str()));
  WriteFile("a/new", "n");
  ToolResult moved = Run(lustre({"scan", tree_, "--db", db_, "--ref-time", "8001", "-0"}));
  ASSERT_EQ(0, moved.status) << moved.err;
  EXPECT_EQ("changed\tmtime,ctime\t" + T("") + '\0' + "changed\tmtime,ctime\t" + T("a") + '\0' +
                "renamed\tctime\t" + T("a/b2") + '\0' + T("b") + '\0' + "new\t-\t" + T("a/new") +
                '\0',
            moved.out);
  EXPECT_EQ(T("a/b2/c/g.txt") + "\n", Run(lustre({"path", db_, T("a/b2/c/g.txt")})).out);
  EXPECT_EQ(0, Run(lustre({"validate", db_})).status);
}

// Excluded entries the database held are reported removed, with why; globs
// match a name, a path below the tree, or an absolute path. A dry run
// reports what the real scan then does, and writes nothing. --report keeps
// the whole listing that --list cuts. Threads read ahead; the writer's
// order, and so the report, is the same.
TEST_F(ScanTest, OptionsShapeWhatIsScannedAndReported) {
  MakeScratchTree();
  for (int i = 0; i < 30; ++i) WriteFile("a/many" + std::to_string(i), "x");
  ASSERT_EQ(0, Scan(100).status);
  auto scan = [&](unsigned refTime, std::vector<std::string> args) {
    args.insert(args.end(), {"--exclude", "many1*", "--exclude", "b/c", "--exclude", T("link")});
    return Scan(refTime, args);
  };
  ToolResult excluded = scan(101, {"--json"});
  ASSERT_EQ(0, excluded.status) << excluded.err;
  Report expected{"removed a/many1", "removed b/c", "removed b/c/g.txt", "removed link"};
  for (int i = 10; i < 20; ++i) expected.insert("removed a/many" + std::to_string(i));
  EXPECT_EQ(expected, ParseJsonReport(excluded.out, tree_));
  EXPECT_NE(std::string::npos, excluded.out.find("\"reasons\":[\"excluded\"]"));

  WriteFile("a/fresh", "new");
  ASSERT_TRUE(std::filesystem::remove(T("keep.txt")));
  const std::string unchanged = Files(db_);
  ToolResult dry = scan(102, {"--json", "--dry-run"});
  ASSERT_EQ(0, dry.status) << dry.err;
  EXPECT_EQ(unchanged, Files(db_));
  EXPECT_EQ((Report{"changed  (ctime mtime)", "changed a (ctime mtime)", "new a/fresh",
                    "removed keep.txt"}),
            ParseJsonReport(dry.out, tree_));
  const std::string report = temp_ / "report.txt";
  ToolResult real = scan(102, {"--list", "1", "--report", report, "--threads", "3"});
  ASSERT_EQ(0, real.status) << real.err;
  EXPECT_EQ(ParseJsonReport(dry.out, tree_), ParseJsonReport(Run({"changed", db_, "--json"}).out, tree_));
  const std::string full = ReadFile(report);
  EXPECT_NE(std::string::npos, full.find("removed    " + T("keep.txt")));
  EXPECT_NE(std::string::npos, full.find("new        " + T("a/fresh")));
  EXPECT_NE(std::string::npos, real.out.find("...        and "));  // --list 1 cut the listing

  for (int i = 0; i < 20; ++i) WriteFile("d" + std::to_string(i), std::to_string(i));
  ASSERT_EQ(0, Run({"copy", db_, temp_ / "db2"}).status);
  ToolResult one = Run({"scan", tree_, "--db", db_, "--ref-time", "103", "-0", "--threads", "1"});
  ToolResult four = Run({"scan", tree_, "--db", temp_ / "db2", "--ref-time", "103", "-0", "--threads", "4"});
  ASSERT_EQ(0, one.status + four.status) << one.err << four.err;
  EXPECT_EQ(one.out, four.out);
  EXPECT_EQ(Run({"walk", db_, tree_, "--json"}).out, Run({"walk", temp_ / "db2", tree_, "--json"}).out);
}

// -x records a mount point below the scanned folder but not what is in it.
TEST_F(ScanTest, OneFileSystemStopsAtMountPoints) {
  struct stat dev, pts;
  if (::stat("/dev", &dev) != 0 || ::stat("/dev/pts", &pts) != 0 || dev.st_dev == pts.st_dev)
    GTEST_SKIP() << "/dev/pts is not a mount point here";
  ToolResult scan = Run({"scan", "/dev", "--db", db_, "-x", "--json"});
  ASSERT_TRUE(scan.status == 0 || scan.status == 5) << scan.err;
  const Report report = ParseJsonReport(scan.out, "/dev");
  EXPECT_EQ(1u, report.count("new pts"));
  for (const std::string& line : report) EXPECT_NE(0u, line.rfind("new pts/", 0)) << line;
}

}  // namespace
