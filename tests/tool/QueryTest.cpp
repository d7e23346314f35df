// The commands that read a database: what they print, and that they never
// change its files.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <boost/make_shared.hpp>

#include "ToolFixture.h"
#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/WzScanDBRecord.h"

namespace {

class QueryTest : public ToolFixture {
 protected:
  std::string Files(const std::string& dir) {
    std::string all;
    for (const char* name : {"/WzScanDB.dat", "/WzScanDB.idx"}) {
      std::ifstream in(dir + name, std::ios::binary);
      all += std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }
    return all;
  }
};

TEST_F(QueryTest, ReadCommandsNeverChangeTheFiles) {
  MakeScratchTree();
  ASSERT_EQ(0, Scan(2000).status);
  // A copy only readable: files 0444 in a folder 0555, read without the
  // capabilities that let root write anyway.
  const std::string copy = temp_ / "copy";
  ASSERT_EQ(0, Run({"copy", db_, copy}).status);
  for (const char* name : {"/WzScanDB.dat", "/WzScanDB.idx"}) ::chmod((copy + name).c_str(), 0444);
  ::chmod(copy.c_str(), 0555);
  const std::string before = Files(copy);
  const std::vector<std::vector<std::string>> commands = {
      {"ls", copy, T("a")}, {"walk", copy}, {"path", copy, T("b/c/g.txt")},
      {"find", copy, tree_, "-name", "*.txt"}, {"du", copy, tree_}, {"stats", copy},
      {"stats", copy, tree_}, {"csv", copy}, {"touched", copy, "--since", "0"},
      {"changed", copy}, {"validate", copy}, {"check", copy}};
  for (const auto& command : commands) {
    ToolResult result = Run(command, /*obeyPermissions=*/true);
    if (result.status == kCannotDropCapabilities) GTEST_SKIP() << "cannot drop CAP_DAC_OVERRIDE";
    EXPECT_EQ(0, result.status) << command[0] << ": " << result.err;
    EXPECT_EQ(Run(command).out, result.out) << command[0];
  }
  EXPECT_EQ(before, Files(copy));
  ::chmod(copy.c_str(), 0755);
  // stats and validate used to leave visited marks behind.
  const std::string original = Files(db_);
  EXPECT_EQ(0, Run({"stats", db_}).status);
  EXPECT_EQ(0, Run({"validate", db_}).status);
  EXPECT_EQ(original, Files(db_));
}

// check reads every page: a damaged page of a database that was closed
// cleanly (which an open trusts) is named, exit 1, and nothing is changed.
TEST_F(QueryTest, CheckReadsEveryPage) {
  MakeScratchTree();
  ASSERT_EQ(0, Scan(2000).status);
  ToolResult sound = Run({"check", db_});
  EXPECT_EQ(0, sound.status) << sound.err;
  EXPECT_EQ(
      "pages: every page of both table files is sound\n"
      "indexes: every record is in every index under its own key\n"
      "consistent: all 12 records are reachable from the root\n",
      sound.out);
  {
    // The node offsets of every page past the two meta pages.
    const auto pages = std::filesystem::file_size(db_ + "/WzScanDB.dat") / 4096;
    std::fstream dat(db_ + "/WzScanDB.dat", std::ios::in | std::ios::out | std::ios::binary);
    for (uintmax_t page = 2; page < pages; ++page) {
      dat.seekp(static_cast<std::streamoff>(page * 4096 + 16));
      dat.write(std::string(64, '\xff').data(), 64);
    }
  }
  const std::string before = Files(db_);
  ToolResult damaged = Run({"check", db_});
  EXPECT_EQ(1, damaged.status);
  EXPECT_NE(damaged.out.find("NOT consistent: a table file is damaged\ndamaged: Table "), std::string::npos)
      << damaged.out;
  EXPECT_NE(damaged.out.find("WzScanDB.dat is damaged (page "), std::string::npos) << damaged.out;
  EXPECT_EQ(before, Files(db_));
}

TEST_F(QueryTest, CommandsPrintWhatTheDatabaseHolds) {
  MakeScratchTree();
  ASSERT_EQ(0, ::mkfifo(T("a/pipe").c_str(), 0644));
  WriteFile("co,m\"ma\nx", "12");
  ASSERT_EQ(0, ::truncate(T("keep.txt").c_str(), 5LL << 30));  // sparse, above 32 bits
  ToolResult scan = Scan(3000);
  ASSERT_EQ(0, scan.status) << scan.err;
  EXPECT_NE(std::string::npos, scan.out.find("summary: entries 11, folders 4, files 7"));
  EXPECT_NE(std::string::npos, Run({"stats", db_, tree_}).out.find("entries 11, folders 4, files 7"));
  EXPECT_NE(std::string::npos,
            Run({"stats", db_, tree_, "--json"}).out.find("\"entries\":11,\"files\":7,\"folders\":4"));

  std::vector<std::string> ls = Run({"ls", db_, T("a")}).OutLines();
  ASSERT_EQ(3u, ls.size());
  EXPECT_EQ(0u, ls[0].rfind("f            3 ", 0)) << ls[0];
  EXPECT_NE(std::string::npos, ls[0].find(" ref 3000 f1.txt"));
  EXPECT_EQ(0u, ls[2].rfind("p ", 0)) << ls[2];
  EXPECT_EQ('l', Run({"ls", db_, tree_}).OutLines().back()[0]);
  ExpectFailure(Run({"ls", db_, T("keep.txt")}), 2, "is a file, not a folder");
  ExpectFailure(Run({"walk", db_, T("link")}), 2, "is a symlink, not a folder");
  ExpectFailure(Run({"path", db_, T("missing")}), 2, "is not in the database");

  // csv: RFC 4180 quoting, 64-bit sizes, nanoseconds, the path.
  std::string csv = Run({"csv", db_}).out;
  EXPECT_EQ(0u, csv.rfind("path,kind,size,mtime,mtime_nsec,ctime,ctime_nsec,inode,dev,ref,id,parent_id\r\n", 0));
  EXPECT_NE(std::string::npos, csv.find("\r\n\"" + T("co,m\"\"ma\nx") + "\",file,2,"));
  EXPECT_NE(std::string::npos, csv.find("\r\n" + T("keep.txt") + ",file,5368709120,"));

  // find and du walk the stored tree.
  EXPECT_EQ((std::vector<std::string>{T("a/f1.txt"), T("a/f2.txt"), T("b/c/g.txt")}),
            Run({"find", db_, tree_, "-name", "*.txt", "-type", "f", "-size", "-2"}).OutLines());
  EXPECT_EQ(T("a") + '\0' + T("b") + '\0' + T("b/c") + '\0',
            Run({"find", db_, tree_, "--mindepth", "1", "-type", "d", "-print0"}).out);
  EXPECT_EQ(std::vector<std::string>{T("keep.txt")}, Run({"find", db_, tree_, "--size", "+1G"}).OutLines());
  // du: each folder after its contents, "<bytes>\t<entries>\t<path>" of whole sub-trees.
  std::vector<std::string> du = Run({"du", db_, tree_, "--apparent-size"}).OutLines();
  ASSERT_EQ(4u, du.size());
  auto tail = [](const std::string& line) { return line.substr(line.find('\t') + 1); };
  EXPECT_EQ("4\t" + T("a"), tail(du[0]));
  EXPECT_EQ("2\t" + T("b/c"), tail(du[1]));
  EXPECT_EQ("11\t" + T(""), tail(du[3]));
  EXPECT_GT(std::stoull(du[3]), 5ULL << 30);
  EXPECT_EQ(1u, Run({"du", db_, tree_, "-s"}).OutLines().size());

  // touched: every record the scan met, by full path; changed: the report.
  EXPECT_NE(std::string::npos, Run({"touched", db_, "--since", "3000"}).out.find("3000 " + T("b/c") + "/\n"));
  EXPECT_EQ("", Run({"touched", db_, "--since", "3001"}).out);
  EXPECT_NE(std::string::npos, Run({"changed", db_}).out.find("new        " + T("b/c/g.txt") + "\n"));
  EXPECT_EQ(T("b/c/g.txt") + "\n", Run({"path", db_, T("b/c/../c/g.txt")}).out);
}

TEST_F(QueryTest, ValidateNamesDisconnectedRecords) {
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
  EXPECT_NE(std::string::npos, validate.out.find("disconnected: ?/orphan")) << validate.out;
  ToolResult library = Run({"validate", db_, "--visited-bits"});
  EXPECT_EQ(1, library.status) << library.err;
  EXPECT_NE(std::string::npos, library.out.find("Name : [orphan]")) << library.out;
}

// A database another process holds read-write refuses writers and removal;
// read-only commands share it and read what its writer last committed.
TEST_F(QueryTest, DatabaseHeldByAnotherProcessRefusesWritersAndServesReaders) {
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
  ExpectFailure(Run({"scan", tree_, "--db", db_, "--ref-time", "5001"}), 3, "in use by another process");
  ExpectFailure(Run({"remove", db_}), 3, "in use by another process");
  std::vector<std::string> whileHeld;
  for (const char* command : {"walk", "stats", "validate"}) {
    const auto run = Run({command, db_});
    EXPECT_EQ(0, run.status) << command << ": " << run.err;
    whileHeld.push_back(run.out);
  }
  ::close(release[1]);
  int status = 0;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  ::close(ready[0]);
  size_t i = 0;
  for (const char* command : {"walk", "stats", "validate"}) EXPECT_EQ(whileHeld[i++], Run({command, db_}).out);
}

}  // namespace
