// The wzscandb tool, driven as an operator would drive it, on scratch trees.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "ToolRunner.h"
#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/WzScanDBKeyGUID.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "runtime/LogWriter.h"
#include "support/TempDir.h"

namespace {

using Paths = std::set<std::string>;

struct ScanReport {
  Paths added, changed, removed;
  std::map<std::string, double> summary;
};

ScanReport ParseScan(const ToolResult& result) {
  ScanReport report;
  for (const std::string& line : result.OutLines()) {
    std::string rest = line.size() > 9 ? line.substr(9) : "";
    if (line.rfind("new      ", 0) == 0) report.added.insert(rest);
    if (line.rfind("changed  ", 0) == 0) report.changed.insert(rest);
    if (line.rfind("removed  ", 0) == 0) report.removed.insert(rest);
    if (line.rfind("summary: ", 0) != 0) continue;
    // "summary: entries 9, folders 4, ..., entries/s 1200"
    std::istringstream fields(line.substr(9));
    for (std::string field; std::getline(fields, field, ',');) {
      std::istringstream pair(field);
      std::string key;
      double value = 0;
      if (pair >> key >> value) report.summary[key] = value;
    }
  }
  return report;
}

class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_ptrLogWriter->SetNone();  // this process's own library calls stay quiet
    ASSERT_EQ(0, ::mkdir((temp_ / "tree").c_str(), 0755));
    char* real = ::realpath((temp_ / "tree").c_str(), nullptr);
    ASSERT_NE(nullptr, real);
    tree_ = real;
    std::free(real);
    db_ = temp_ / "db";
  }

  ToolResult Run(const std::vector<std::string>& args) { return RunTool(args, temp_.path()); }

  ToolResult Scan(unsigned refTime) {
    return Run({"scan", tree_, "--db", db_, "--ref-time", std::to_string(refTime)});
  }

  std::string T(const std::string& relative) const {
    return relative.empty() ? tree_ : tree_ + "/" + relative;
  }

  void MakeDir(const std::string& relative) { ASSERT_EQ(0, ::mkdir(T(relative).c_str(), 0755)); }
  void WriteFile(const std::string& relative, const std::string& content) {
    std::ofstream(T(relative), std::ios::binary | std::ios::app) << content;
  }

  // a/{f1.txt f2.txt} b/c/g.txt keep.txt link -> a
  void MakeScratchTree() {
    MakeDir("a");
    WriteFile("a/f1.txt", "one");
    WriteFile("a/f2.txt", "two two");
    MakeDir("b");
    MakeDir("b/c");
    WriteFile("b/c/g.txt", "g");
    WriteFile("keep.txt", "keep");
    ASSERT_EQ(0, ::symlink("a", T("link").c_str()));
  }

  // Expects a failure: the given status and exactly one line on stderr that
  // contains `fragment`.
  void ExpectFailure(const ToolResult& result, int status, const std::string& fragment) {
    EXPECT_EQ(status, result.status) << result.err;
    ASSERT_EQ(1u, result.ErrLines().size()) << result.err;
    EXPECT_NE(std::string::npos, result.err.find(fragment)) << result.err;
    EXPECT_EQ(0u, result.err.rfind("wzscandb: ", 0)) << result.err;
  }

  TempDir temp_;
  std::string tree_;
  std::string db_;
};

TEST_F(ToolTest, RescanReportsNewChangedAndRemovedEntriesAndKeepsTreeValid) {
  MakeScratchTree();
  ToolResult first = Scan(1000);
  ASSERT_EQ(0, first.status) << first.err;
  ScanReport report = ParseScan(first);
  EXPECT_EQ(9, report.summary["entries"]);
  EXPECT_EQ(4, report.summary["folders"]);
  EXPECT_EQ(5, report.summary["files"]);  // the symbolic link is a file, not followed
  EXPECT_EQ(9, report.summary["new"]);
  EXPECT_EQ(0, report.summary["changed"]);
  EXPECT_EQ(0, report.summary["removed"]);
  EXPECT_EQ(1u, report.added.count(T("link")));
  EXPECT_EQ(0u, report.added.count(T("link/f1.txt")));
  EXPECT_EQ(0, Run({"validate", db_}).status);

  // Unchanged tree, later pass: nothing to report.
  report = ParseScan(Scan(1001));
  EXPECT_EQ(9, report.summary["entries"]);
  EXPECT_TRUE(report.added.empty() && report.changed.empty() && report.removed.empty());

  WriteFile("a/new.txt", "fresh");
  WriteFile("a/f1.txt", " more");
  ASSERT_EQ(0, ::unlink(T("a/f2.txt").c_str()));
  ASSERT_EQ(0, ::rename(T("b").c_str(), T("b2").c_str()));

  ToolResult second = Scan(1002);
  ASSERT_EQ(0, second.status) << second.err;
  report = ParseScan(second);
  EXPECT_EQ((Paths{T("a/new.txt"), T("b2"), T("b2/c"), T("b2/c/g.txt")}), report.added);
  // Folders whose entries changed have a new modification time.
  EXPECT_EQ((Paths{T(""), T("a"), T("a/f1.txt")}), report.changed);
  EXPECT_EQ((Paths{T("a/f2.txt"), T("b"), T("b/c"), T("b/c/g.txt")}), report.removed);
  EXPECT_EQ(4, report.summary["new"]);
  EXPECT_EQ(3, report.summary["changed"]);
  EXPECT_EQ(4, report.summary["removed"]);
  EXPECT_EQ(9, report.summary["entries"]);

  ToolResult walk = Run({"walk", db_, tree_});
  ASSERT_EQ(0, walk.status) << walk.err;
  std::vector<std::string> expected{"a/",        "b2/",       "keep.txt", "link",
                                    "a/f1.txt",  "a/new.txt", "b2/c/",    "b2/c/g.txt"};
  EXPECT_EQ(expected, walk.OutLines());
  EXPECT_EQ(0, Run({"validate", db_}).status);

  // A reference time that is not above the last scan's would hide removals.
  ExpectFailure(Scan(1002), 2, "is not above 1002");
}

TEST_F(ToolTest, FolderReplacedByFileLosesItsOldContents) {
  MakeDir("x");
  MakeDir("x/y");
  WriteFile("x/y/z", "z");
  ASSERT_EQ(0, Scan(10).status);
  ASSERT_EQ(3u, std::filesystem::remove_all(T("x")));
  WriteFile("x", "now a file");
  ToolResult rescan = Scan(11);
  ASSERT_EQ(0, rescan.status) << rescan.err;
  ScanReport report = ParseScan(rescan);
  EXPECT_EQ((Paths{T("x/y"), T("x/y/z")}), report.removed);
  EXPECT_EQ(1u, report.changed.count(T("x")));
  ToolResult validate = Run({"validate", db_});
  EXPECT_EQ(0, validate.status) << validate.out;
  EXPECT_EQ((std::vector<std::string>{"x"}), Run({"walk", db_, tree_}).OutLines());
}

TEST_F(ToolTest, QueryCommandsAnswerFromTheDatabase) {
  MakeScratchTree();
  ToolResult scan = Scan(2000);
  ASSERT_EQ(0, scan.status) << scan.err;

  ToolResult ls = Run({"ls", db_, T("a")});
  ASSERT_EQ(0, ls.status) << ls.err;
  std::vector<std::string> lines = ls.OutLines();
  ASSERT_EQ(2u, lines.size()) << ls.out;
  EXPECT_EQ(0u, lines[0].rfind("f            3 ", 0)) << lines[0];  // kind and size of "one"
  EXPECT_NE(std::string::npos, lines[0].find(" ref 2000 f1.txt"));
  EXPECT_NE(std::string::npos, lines[1].find(" f2.txt"));
  // A trailing separator names the same folder.
  EXPECT_EQ(ls.out, Run({"ls", db_, T("a") + "/"}).out);

  ToolResult path = Run({"path", db_, T("b/c/g.txt")});
  ASSERT_EQ(0, path.status) << path.err;
  EXPECT_EQ(T("b/c/g.txt") + "\n", path.out);
  ExpectFailure(Run({"path", db_, T("missing")}), 2, "is not in the database");

  // Every record of the table was touched by the scan: the scanned entries,
  // the root and the folders above the tree.
  int ancestors = 0;
  for (char c : tree_) ancestors += c == '/';
  const size_t records = 9 + ancestors;
  ToolResult changed = Run({"changed", db_, "--since", "2000"});
  ASSERT_EQ(0, changed.status) << changed.err;
  EXPECT_EQ(records, changed.OutLines().size());
  EXPECT_NE(std::string::npos, changed.out.find("2000 " + T("b/c/g.txt") + "\n"));
  EXPECT_NE(std::string::npos, changed.out.find("2000 " + T("b/c") + "/\n"));
  EXPECT_EQ("", Run({"changed", db_, "--since", "2001"}).out);

  ToolResult csv = Run({"csv", db_});
  ASSERT_EQ(0, csv.status) << csv.err;
  lines = csv.OutLines();
  ASSERT_EQ(records + 1, lines.size());
  EXPECT_EQ("GUID,Parent GUID,Name,Directory,CTime,MTime,Size,Update Time", lines[0]);
  const std::string guid = WzScanDBKeyGUID(T("a/f2.txt")).toString();
  const std::string parent = WzScanDBKeyGUID(T("a")).toString();
  int hits = 0;
  for (const std::string& line : lines) {
    if (line.rfind(guid + ",", 0) != 0) continue;
    ++hits;
    EXPECT_EQ(0u, line.find(guid + "," + parent + ",f2.txt,no,")) << line;
    EXPECT_EQ(",7,2000", line.substr(line.size() - 7)) << line;  // size of "two two"
  }
  EXPECT_EQ(1, hits);

  ToolResult stats = Run({"stats", db_});
  ASSERT_EQ(0, stats.status) << stats.err;
  const std::string counts = "Total Number of Records : " + std::to_string(records - 1) +
                             " , Number of Directories : " + std::to_string(4 + ancestors - 1) +
                             "  , Number of Files : 5 ";
  EXPECT_NE(std::string::npos, stats.out.find(counts)) << stats.out;
  // stats leaves no visited marks behind: the flag byte is back to 1 or 0.
  EXPECT_EQ(0, Run({"validate", db_}).status);
  EXPECT_EQ(csv.out, Run({"csv", db_}).out);
}

TEST_F(ToolTest, ValidateExitsWithOneOnADisconnectedRecord) {
  MakeScratchTree();
  ASSERT_EQ(0, Scan(3000).status);
  {
    WzScanDB db(boost::make_shared<WzScanDBRecord>());
    ASSERT_TRUE(db.initialize(db_).IsSuccess());
    db.setRefTime(3000);
    ASSERT_TRUE(db.addFile(boost::make_shared<WzScanDBRecord>("/nowhere/orphan")).IsSuccess());
    ASSERT_TRUE(db.close().IsSuccess());
  }
  ToolResult validate = Run({"validate", db_});
  EXPECT_EQ(1, validate.status) << validate.err;
  EXPECT_NE(std::string::npos, validate.out.find("NOT consistent")) << validate.out;
  EXPECT_NE(std::string::npos, validate.out.find("Name : [orphan]")) << validate.out;
}

TEST_F(ToolTest, ErrorsAreOneLineWithTheDocumentedStatus) {
  const std::string missing = temp_ / "no-such-dir";
  ExpectFailure(Run({"ls", missing}), 2, "does not exist");
  ExpectFailure(Run({"validate", missing}), 2, "does not exist");
  EXPECT_FALSE(std::ifstream(missing).good());  // nothing created

  const std::string empty = temp_ / "empty";
  ASSERT_EQ(0, ::mkdir(empty.c_str(), 0755));
  ExpectFailure(Run({"stats", empty}), 2, "WzScanDB.dat is missing");
  WriteFile("plain", "not a database directory");
  ExpectFailure(Run({"walk", T("plain")}), 2, "is not a directory");
  ExpectFailure(Run({"scan", T("plain"), "--db", temp_ / "file-db"}), 2, "not a directory");
  ExpectFailure(Run({"scan", T("nothing"), "--db", temp_ / "file-db"}), 2, "No such file");
  EXPECT_FALSE(std::filesystem::exists(temp_ / "file-db"));  // refused before creating anything
  ASSERT_EQ(0, ::unlink(T("plain").c_str()));
  ExpectFailure(Run({"csv", empty}), 2, "WzScanDB.dat is missing");
  struct stat st;
  EXPECT_NE(0, ::stat((empty + "/WzScanDB.dat").c_str(), &st));

  MakeScratchTree();
  ASSERT_EQ(0, Scan(4000).status);
  ExpectFailure(Run({"ls", db_, "--type", "lustre"}), 3, "is not a lustre scan database");
  ExpectFailure(Run({"csv", db_, "--type", "backup-time"}), 3, "is not a backup-time scan database");
  ExpectFailure(Run({"scan", tree_, "--db", db_, "--type", "lustre"}), 2, "no FID");

  ExpectFailure(Run({}), 2, "subcommand");
  ExpectFailure(Run({"frobnicate"}), 2, "unknown subcommand 'frobnicate'");
  ExpectFailure(Run({"--log-level", "3", "ls"}), 2, "DBDIR");
  ExpectFailure(Run({"scan", tree_}), 2, "--db");
  ExpectFailure(Run({"ls", db_, "--type", "nonsense"}), 2, "nonsense");
  ExpectFailure(Run({"changed", db_, "--since", "soon"}), 2, "soon");
  ExpectFailure(Run({"scan", tree_, "--db", db_, "--ref-time", "4294967296"}), 2, "32-bit");

  for (const char* command : {"scan", "ls", "walk", "path", "changed", "validate", "stats", "csv",
                              "copy", "move", "remove", "rebuild-index", "guid", "record", "fid"}) {
    ToolResult help = Run({command, "--help"});
    EXPECT_EQ(0, help.status) << command;
    EXPECT_NE(std::string::npos, help.out.find(command)) << command;
  }
}

TEST_F(ToolTest, LibraryLogGoesToTheLogFileOrNowhere) {
  MakeScratchTree();
  ToolResult quiet = Scan(9000);
  ASSERT_EQ(0, quiet.status);
  EXPECT_EQ("", quiet.err);  // no library lines unless asked for

  const std::string log = temp_ / "library.log";
  ToolResult logged = Run({"--log-file", log, "ls", db_});
  ASSERT_EQ(0, logged.status) << logged.err;
  EXPECT_EQ("", logged.err);
  std::ifstream in(log);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(std::string::npos, text.find("Opened an Existing WzScanDB Database at : " + db_ + "/WzScanDB"));
  EXPECT_EQ(std::string::npos, text.find(" L4 "));  // level 0 unless --log-level says more

  ToolResult traced = Run({"ls", db_, "--log-level", "4"});
  ASSERT_EQ(0, traced.status);
  EXPECT_NE(std::string::npos, traced.err.find("Internal Initalize Completed"));
}

TEST_F(ToolTest, DatabaseHeldByAnotherProcessIsRefused) {
  MakeScratchTree();
  ASSERT_EQ(0, Scan(5000).status);
  int ready[2], release[2];
  ASSERT_EQ(0, ::pipe(ready));
  ASSERT_EQ(0, ::pipe(release));
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(ready[0]);
    ::close(release[1]);
    WzScanDB db(boost::make_shared<WzScanDBRecord>());
    char byte = db.initialize(db_).IsSuccess() ? 'y' : 'n';
    (void)!::write(ready[1], &byte, 1);
    (void)!::read(release[0], &byte, 1);  // returns when the parent closes its end
    db.close();
    ::_exit(0);
  }
  ::close(ready[1]);
  ::close(release[0]);
  char byte = 0;
  ASSERT_EQ(1, ::read(ready[0], &byte, 1));
  EXPECT_EQ('y', byte);

  ExpectFailure(Run({"ls", db_}), 3, "in use by another process");
  ExpectFailure(Run({"scan", tree_, "--db", db_, "--ref-time", "5001"}), 3, "in use by another process");
  ExpectFailure(Run({"remove", db_}), 3, "in use by another process");
  struct stat st;
  EXPECT_EQ(0, ::stat((db_ + "/WzScanDB.dat").c_str(), &st));

  ::close(release[1]);
  int status = 0;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  ::close(ready[0]);
  EXPECT_EQ(0, Run({"ls", db_}).status);
}

TEST_F(ToolTest, FileCommandsCopyMoveRemoveAndRebuild) {
  MakeScratchTree();
  ASSERT_EQ(0, Scan(6000).status);
  const std::string walk = Run({"walk", db_, tree_}).out;
  const std::string copy = temp_ / "copy";
  const std::string moved = temp_ / "moved";

  ASSERT_EQ(0, Run({"copy", db_, copy}).status);
  EXPECT_EQ(walk, Run({"walk", copy, tree_}).out);
  ExpectFailure(Run({"copy", db_, copy}), 3, "already holds a scan database");

  ASSERT_EQ(0, Run({"move", copy, moved}).status);
  ExpectFailure(Run({"walk", copy, tree_}), 2, "WzScanDB.dat is missing");
  EXPECT_EQ(walk, Run({"walk", moved, tree_}).out);

  ToolResult rebuild = Run({"rebuild-index", moved});
  ASSERT_EQ(0, rebuild.status) << rebuild.err;
  EXPECT_EQ(walk, Run({"walk", moved, tree_}).out);
  EXPECT_EQ(0, Run({"validate", moved}).status);

  ASSERT_EQ(0, Run({"remove", moved}).status);
  struct stat st;
  EXPECT_NE(0, ::stat((moved + "/WzScanDB.dat").c_str(), &st));
  EXPECT_NE(0, ::stat((moved + "/WzScanDB.idx").c_str(), &st));
  ExpectFailure(Run({"remove", moved}), 2, "WzScanDB.dat is missing");
}

TEST_F(ToolTest, RecordCommandsShowWhatTheLibraryMakesOfAPath) {
  ToolResult guid = Run({"guid", "/a/b"});
  ASSERT_EQ(0, guid.status);
  EXPECT_EQ(WzScanDBKeyGUID("/a/b").toString() + "\n", guid.out);

  WriteFile("file", "12345");
  ToolResult record = Run({"record", T("file"), "--ref-time", "7"});
  ASSERT_EQ(0, record.status) << record.err;
  std::vector<std::string> lines = record.OutLines();
  ASSERT_EQ(3u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find("Name : [file] Directory : [no]"));
  EXPECT_NE(std::string::npos, lines[0].find("Size : [5] Update Time : [7]"));
  EXPECT_EQ("GUID,Parent GUID,Name,Directory,CTime,MTime,Size,Update Time", lines[1]);
  EXPECT_EQ(0u, lines[2].find(WzScanDBKeyGUID(T("file")).toString() + "," +
                              WzScanDBKeyGUID(tree_).toString() + ",file,no,"));
  EXPECT_NE(std::string::npos, Run({"record", "/not/there", "--dir"}).out.find("Directory : [yes]"));

  ExpectFailure(Run({"fid", tree_}), 4, "not on a Lustre file system");
}

// Lustre records are keyed by FID, which survives a rename: a renamed folder
// is the same record under a new name, and its contents stay where they are.
TEST_F(ToolTest, LustreScanFollowsFidsThroughRenames) {
  MakeScratchTree();
  auto lustre = [this](std::vector<std::string> args) {
    args.insert(args.begin(), "--simulate-lustre-fids");
    args.insert(args.end(), {"--type", "lustre"});
    return Run(args);
  };
  ToolResult first = lustre({"scan", tree_, "--db", db_, "--ref-time", "8000"});
  ASSERT_EQ(0, first.status) << first.err;
  EXPECT_EQ(9, ParseScan(first).summary["new"]);
  EXPECT_EQ(0, lustre({"validate", db_}).status);

  ASSERT_EQ(0, ::rename(T("b").c_str(), T("b2").c_str()));
  ASSERT_EQ(0, ::unlink(T("a/f2.txt").c_str()));
  ToolResult second = lustre({"scan", tree_, "--db", db_, "--ref-time", "8001"});
  ASSERT_EQ(0, second.status) << second.err;
  ScanReport report = ParseScan(second);
  EXPECT_TRUE(report.added.empty());
  EXPECT_EQ((Paths{T(""), T("a"), T("b2")}), report.changed);
  EXPECT_EQ((Paths{T("a/f2.txt")}), report.removed);

  ToolResult validate = lustre({"validate", db_});
  EXPECT_EQ(0, validate.status) << validate.out;
  ToolResult walk = lustre({"walk", db_, tree_});
  ASSERT_EQ(0, walk.status) << walk.err;
  EXPECT_EQ((std::vector<std::string>{"a/", "b2/", "keep.txt", "link", "a/f1.txt", "b2/c/",
                                      "b2/c/g.txt"}),
            walk.OutLines());
  EXPECT_EQ(T("b2/c/g.txt") + "\n", lustre({"path", db_, T("b2/c/g.txt")}).out);
  ExpectFailure(Run({"ls", db_}), 3, "is not a generic scan database");
  ExpectFailure(lustre({"csv", db_}), 2, "no CSV form");
}

TEST_F(ToolTest, UnreadableDirectoryIsReportedAndItsRecordsKept) {
  MakeScratchTree();
  ASSERT_EQ(0, Scan(7000).status);
  ASSERT_EQ(0, ::chmod(T("b").c_str(), 0));
  ToolResult rescan = RunTool({"scan", tree_, "--db", db_, "--ref-time", "7001"}, temp_.path(),
                              /*obeyPermissions=*/true);
  ::chmod(T("b").c_str(), 0755);
  if (rescan.status == kCannotDropCapabilities) GTEST_SKIP() << "cannot drop CAP_DAC_OVERRIDE";
  ASSERT_EQ(0, rescan.status) << rescan.err;
  EXPECT_NE(std::string::npos, rescan.err.find("cannot read directory " + T("b") + ": Permission denied"))
      << rescan.err;
  ScanReport report = ParseScan(rescan);
  EXPECT_TRUE(report.removed.empty());
  EXPECT_EQ(1, report.summary["unreadable"]);
  EXPECT_EQ(7, report.summary["entries"]);  // all but b/c and b/c/g.txt; b itself is recorded
  EXPECT_NE(std::string::npos, Run({"walk", db_, tree_}).out.find("b/c/g.txt"));
  EXPECT_EQ(0, Run({"validate", db_}).status);
}

}  // namespace
