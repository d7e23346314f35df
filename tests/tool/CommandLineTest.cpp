// The command line: exit statuses and one-line errors, help and version,
// the file commands, the record commands, and where the library's log goes.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "ToolFixture.h"
#include "WzScanDB/records/WzScanDBKeyGUID.h"

namespace {

class CommandLineTest : public ToolFixture {};

TEST_F(CommandLineTest, ErrorsAreOneLineWithTheDocumentedStatus) {
  MakeScratchTree();
  ASSERT_EQ(0, Scan(4000).status);
  const std::string missing = temp_ / "no-such-dir";
  const std::string empty = temp_ / "empty";
  ASSERT_EQ(0, ::mkdir(empty.c_str(), 0755));
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string fragment;
  };
  const std::vector<Case> cases = {
      {{"ls", missing}, 2, "does not exist"},
      {{"stats", empty}, 2, "WzScanDB.dat is missing"},
      {{"changed", empty}, 2, "WzScanDB.dat is missing"},
      {{"walk", T("keep.txt")}, 2, "is not a directory"},
      {{"scan", T("keep.txt"), "--db", temp_ / "x"}, 2, "not a directory"},
      {{"scan", T("nothing"), "--db", temp_ / "x"}, 2, "No such file"},
      {{"ls", db_, "--type", "lustre"}, 3, "is not a lustre scan database"},
      {{"csv", db_, "--type", "backup-time"}, 3, "is not a backup-time scan database"},
      {{"scan", tree_, "--db", db_, "--type", "lustre"}, 2, "no FID"},
      {{"fid", tree_}, 2, "not on a Lustre file system"},
      {{"copy", db_, db_}, 2, "already holds a scan database"},
      {{}, 2, "subcommand"},
      {{"frobnicate"}, 2, "unknown subcommand 'frobnicate' (see"},
      {{"wlak", db_}, 2, "did you mean 'walk'?"},
      {{"--log-level", "3", "sacn"}, 2, "did you mean 'scan'?"},
      {{"ls"}, 2, "DBDIR"},
      {{"scan", tree_}, 2, "--db"},
      {{"ls", db_, "--type", "nonsense"}, 2, "nonsense"},
      {{"touched", db_, "--since", "-1"}, 2, "not '-1'"},
      {{"touched", db_, "--since", "soon"}, 2, "not 'soon'"},
      {{"du", db_, "-d", "-2"}, 2, "not '-2'"},
      {{"scan", tree_, "--db", db_, "--threads", "0"}, 2, "--threads takes 1 or more"},
      {{"find", db_, "-type", "q"}, 2, "unknown kind 'q'"},
      {{"ls", db_, "-0", "--json"}, 2, "excludes"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.args.empty() ? "(none)" : each.args[0]);
    ExpectFailure(Run(each.args), each.status, each.fragment);
  }
  EXPECT_FALSE(std::filesystem::exists(missing));  // nothing created
  EXPECT_FALSE(std::filesystem::exists(temp_ / "x"));

  EXPECT_EQ("wzscandb 1.0.0\n", Run({"--version"}).out);
  ToolResult help = Run({"--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_NE(std::string::npos, help.out.find("Exit status: 0 success"));
  for (const char* command : {"scan", "ls", "walk", "path", "find", "du", "touched", "changed",
                              "validate", "stats", "csv", "copy", "move", "remove",
                              "rebuild-index", "guid", "record", "fid"}) {
    ToolResult sub = Run({command, "--help"});
    EXPECT_EQ(0, sub.status) << command;
    EXPECT_NE(std::string::npos, sub.out.find(command)) << command;
    EXPECT_EQ(std::string::npos, sub.out.find("Exit status")) << command;
  }
}

TEST_F(CommandLineTest, FileCommandsCopyMoveRemoveAndRebuild) {
  MakeScratchTree();
  ASSERT_EQ(0, Scan(6000).status);
  const std::string walk = Run({"walk", db_, tree_}).out;
  const std::string changed = Run({"changed", db_}).out;
  const std::string copy = temp_ / "copy";
  const std::string moved = temp_ / "moved";

  ASSERT_EQ(0, Run({"copy", db_, copy}).status);
  EXPECT_EQ(walk, Run({"walk", copy, tree_}).out);
  EXPECT_EQ(changed, Run({"changed", copy}).out);  // the kept report goes along
  ASSERT_EQ(0, Run({"move", copy, moved}).status);
  ExpectFailure(Run({"walk", copy, tree_}), 2, "WzScanDB.dat is missing");
  EXPECT_EQ(changed, Run({"changed", moved}).out);
  ToolResult rebuild = Run({"rebuild-index", moved});
  ASSERT_EQ(0, rebuild.status) << rebuild.err;
  EXPECT_EQ(walk, Run({"walk", moved, tree_}).out);
  ASSERT_EQ(0, Run({"remove", moved}).status);
  EXPECT_TRUE(std::filesystem::is_empty(moved));
  ExpectFailure(Run({"remove", moved}), 2, "WzScanDB.dat is missing");
}

TEST_F(CommandLineTest, RecordCommandsShowWhatTheLibraryMakesOfAPath) {
  EXPECT_EQ(WzScanDBKeyGUID("/a/b").toString() + "\n", Run({"guid", "/a/b"}).out);
  WriteFile("file", "12345");
  std::vector<std::string> lines = Run({"record", T("file"), "--ref-time", "7"}).OutLines();
  ASSERT_EQ(3u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find("Name : [file] Directory : [no]"));
  EXPECT_NE(std::string::npos, lines[0].find("Size : [5] Update Time : [7]"));
  EXPECT_EQ(0u, lines[2].find(WzScanDBKeyGUID(T("file")).toString() + "," +
                              WzScanDBKeyGUID(tree_).toString() + ",file,no,"));
}

TEST_F(CommandLineTest, LibraryLogGoesToTheLogFileOrNowhere) {
  MakeScratchTree();
  ToolResult quiet = Scan(9000);
  ASSERT_EQ(0, quiet.status);
  EXPECT_EQ("", quiet.err);
  const std::string log = temp_ / "library.log";
  ToolResult logged = Run({"--log-file", log, "ls", db_});
  ASSERT_EQ(0, logged.status) << logged.err;
  EXPECT_EQ("", logged.err);
  std::ifstream in(log);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(std::string::npos, text.find("Opened WzScanDB Read-Only at : " + db_ + "/WzScanDB"));
  EXPECT_EQ(std::string::npos, text.find(" L4 "));
  EXPECT_NE(std::string::npos, Run({"scan", tree_, "--db", db_, "--log-level", "4"}).err.find("Internal Initalize Completed"));
}

}  // namespace
