// The command line: exit statuses and one-line errors, help and version, and
// what each command prints, in tables of commands run in order.
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "ToolFixture.h"
#include "WzScanDB/records/WzScanDBKeyGUID.h"

namespace {

class CommandsTest : public ToolFixture {};

// Every refusal is one line "wzscandb: ..." and its documented status, and
// creates nothing. Reference times are 32 bits: the largest is taken and
// nothing above it wraps (without --ref-time the next one would not fit).
TEST_F(CommandsTest, ErrorsAreOneLineWithTheDocumentedStatus) {
  MakeScratchTree();
  ASSERT_EQ(0, Scan(4294967295u).status);
  const std::string walk = Run({"walk", db_, tree_}).out, missing = temp_ / "no-such-dir",
                    empty = temp_ / "empty", x = temp_ / "x";
  ASSERT_EQ(0, ::mkdir(empty.c_str(), 0755));
  ExpectRows({
      {{"ls", missing}, 2, "does not exist"},
      {{"stats", empty}, 2, "WzScanDB.dat is missing"},
      {{"changed", empty}, 2, "WzScanDB.dat is missing"},
      {{"walk", T("keep.txt")}, 2, "is not a directory"},
      {{"scan", T("keep.txt"), "--db", x}, 2, "not a directory"},
      {{"scan", T("nothing"), "--db", x}, 2, "No such file"},
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
      {{"ls", db_, T("keep.txt")}, 2, "is a file, not a folder"},
      {{"walk", db_, T("link")}, 2, "is a symlink, not a folder"},
      {{"path", db_, T("missing")}, 2, "is not in the database"},
      {{"scan", tree_, "--db", db_}, 2, "fits in the records' 32 bits"},
      {{"scan", tree_, "--db", db_, "--ref-time", "4294967296"}, 2, "is above 4294967295"},
      {{"scan", tree_, "--db", db_, "--ref-time", "-5"}, 2, "not '-5'"},
      {{"walk", db_, tree_}, 0, walk, true},
      {{"--version"}, 0, "wzscandb 1.0.0\n", true},
      {{"--help"}, 0, "Exit status: 0 success"},
  });
  EXPECT_FALSE(std::filesystem::exists(missing) || std::filesystem::exists(x));
  // Every record: the root, the folders above the tree, the tree's nine.
  EXPECT_EQ(9 + std::count(tree_.begin(), tree_.end(), '/'),
            long(Run({"touched", db_, "--since", "4294967295"}).OutLines().size()));
  for (const char* command : {"scan", "ls", "walk", "path", "find", "du", "touched", "changed",
                              "validate", "stats", "csv", "copy", "move", "remove",
                              "rebuild-index", "guid", "record", "fid"}) {
    ToolResult help = Run({command, "--help"});
    EXPECT_EQ(0, help.status) << command;
    EXPECT_NE(std::string::npos, help.out.find(command)) << command;
    EXPECT_EQ(std::string::npos, help.out.find("Exit status")) << command;
  }
}

// A scanned tree with a fifo, a name that needs CSV quoting and a sparse file
// above 32 bits: what the read commands print of it; copy, move, remove and
// rebuild-index carry the database (and its kept report) as it is; the
// record commands show what the library makes of a path; the library's log
// goes to --log-file, or nowhere.
TEST_F(CommandsTest, CommandsPrintWhatTheDatabaseHolds) {
  MakeScratchTree();
  ASSERT_EQ(0, ::mkfifo(T("a/pipe").c_str(), 0644));
  WriteFile("co,m\"ma\nx", "12");
  ASSERT_EQ(0, ::truncate(T("keep.txt").c_str(), 5LL << 30));
  ToolResult scan = Scan(3000);
  ASSERT_EQ(0, scan.status) << scan.err;
  EXPECT_EQ("", scan.err);
  EXPECT_NE(std::string::npos, scan.out.find("summary: entries 11, folders 4, files 7"));
  const std::vector<std::string> ls = Run({"ls", db_, T("a")}).OutLines();
  ASSERT_EQ(3u, ls.size());
  EXPECT_EQ(0u, ls[0].rfind("f            3 ", 0)) << ls[0];
  EXPECT_NE(std::string::npos, ls[0].find(" ref 3000 f1.txt"));
  EXPECT_EQ(0u, ls[2].rfind("p ", 0)) << ls[2];
  EXPECT_EQ('l', Run({"ls", db_, tree_}).OutLines().back()[0]);
  const std::vector<std::string> du = Run({"du", db_, tree_, "--apparent-size"}).OutLines();
  ASSERT_EQ(4u, du.size());  // each folder after its contents: bytes, entries, path
  EXPECT_EQ("4\t" + T("a"), du[0].substr(du[0].find('\t') + 1));
  EXPECT_EQ("2\t" + T("b/c"), du[1].substr(du[1].find('\t') + 1));
  EXPECT_EQ("11\t" + T(""), du[3].substr(du[3].find('\t') + 1));
  EXPECT_GT(std::stoull(du[3]), 5ULL << 30);
  EXPECT_EQ(1u, Run({"du", db_, tree_, "-s"}).OutLines().size());

  const std::string walk = Run({"walk", db_, tree_}).out, changed = Run({"changed", db_}).out;
  const std::string copy = temp_ / "copy", moved = temp_ / "moved", log = temp_ / "library.log";
  ExpectRows({
      {{"stats", db_, tree_}, 0, "entries 11, folders 4, files 7"},
      {{"stats", db_, tree_, "--json"}, 0, "\"entries\":11,\"files\":7,\"folders\":4"},
      {{"csv", db_}, 0, "path,kind,size,mtime,mtime_nsec,ctime,ctime_nsec,inode,dev,ref,id,parent_id\r\n"},
      {{"csv", db_}, 0, "\r\n\"" + T("co,m\"\"ma\nx") + "\",file,2,"},
      {{"csv", db_}, 0, "\r\n" + T("keep.txt") + ",file,5368709120,"},
      {{"touched", db_, "--since", "3000"}, 0, "3000 " + T("b/c") + "/\n"},
      {{"touched", db_, "--since", "3001"}, 0, "", true},
      {{"changed", db_}, 0, "new        " + T("b/c/g.txt") + "\n"},
      {{"find", db_, tree_, "-name", "*.txt", "-type", "f", "-size", "-2"}, 0,
       T("a/f1.txt") + "\n" + T("a/f2.txt") + "\n" + T("b/c/g.txt") + "\n", true},
      {{"find", db_, tree_, "--mindepth", "1", "-type", "d", "-print0"}, 0,
       T("a") + '\0' + T("b") + '\0' + T("b/c") + '\0', true},
      {{"find", db_, tree_, "--size", "+1G"}, 0, T("keep.txt") + "\n", true},
      {{"path", db_, T("b/c/../c/g.txt")}, 0, T("b/c/g.txt") + "\n", true},
      {{"copy", db_, copy}, 0, ""},
      {{"walk", copy, tree_}, 0, walk, true},
      {{"changed", copy}, 0, changed, true},
      {{"move", copy, moved}, 0, ""},
      {{"walk", copy, tree_}, 2, "WzScanDB.dat is missing"},
      {{"changed", moved}, 0, changed, true},
      {{"rebuild-index", moved}, 0, ""},
      {{"walk", moved, tree_}, 0, walk, true},
      {{"remove", moved}, 0, ""},
      {{"remove", moved}, 2, "WzScanDB.dat is missing"},
      {{"guid", "/a/b"}, 0, WzScanDBKeyGUID("/a/b").toString() + "\n", true},
      {{"record", T("a/f1.txt"), "--ref-time", "7"}, 0, "Name : [f1.txt] Directory : [no]"},
      {{"record", T("a/f1.txt"), "--ref-time", "7"}, 0, "Size : [3] Update Time : [7]"},
      {{"record", T("a/f1.txt"), "--ref-time", "7"}, 0, "\n" + WzScanDBKeyGUID(T("a/f1.txt")).toString() +
                                                         "," + WzScanDBKeyGUID(T("a")).toString() + ",f1.txt,no,"},
      {{"--log-file", log, "ls", db_}, 0, " ref 3000 "},
  });
  EXPECT_TRUE(std::filesystem::is_empty(moved));
  EXPECT_NE(std::string::npos, ReadFile(log).find("Opened WzScanDB Read-Only at : " + db_ + "/WzScanDB"));
  EXPECT_EQ(std::string::npos, ReadFile(log).find(" L4 "));
  EXPECT_NE(std::string::npos, Run({"scan", tree_, "--db", db_, "--log-level", "4"})
                                   .err.find("Internal Initalize Completed"));
}

}  // namespace
