// The commands that read a database: what they print, that they never
// change its files, and what they find wrong.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include <boost/make_shared.hpp>

#include "ToolFixture.h"
#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/WzScanDBRecord.h"

namespace {

class QueryTest : public ToolFixture {};

// A copy only readable (files 0444 in a folder 0555, read without the
// capabilities that let root write anyway) answers every read command as the
// original does, and its files stay as they were; stats and validate leave
// no visited marks behind in the original either.
TEST_F(QueryTest, ReadCommandsNeverChangeTheFiles) {
  MakeScratchTree();
  ASSERT_EQ(0, Scan(2000).status);
  const std::string copy = temp_ / "copy";
  ASSERT_EQ(0, Run({"copy", db_, copy}).status);
  for (const char* name : {"/WzScanDB.dat", "/WzScanDB.idx"}) ::chmod((copy + name).c_str(), 0444);
  ::chmod(copy.c_str(), 0555);
  const std::string before = Files(copy), original = Files(db_);
  for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
           {"ls", copy, T("a")}, {"walk", copy}, {"path", copy, T("b/c/g.txt")},
           {"find", copy, tree_, "-name", "*.txt"}, {"du", copy, tree_}, {"stats", copy},
           {"stats", copy, tree_}, {"csv", copy}, {"touched", copy, "--since", "0"},
           {"changed", copy}, {"validate", copy}, {"check", copy}}) {
    ToolResult result = Run(command, /*obeyPermissions=*/true);
    if (result.status == kCannotDropCapabilities) GTEST_SKIP() << "cannot drop CAP_DAC_OVERRIDE";
    EXPECT_EQ(0, result.status) << command[0] << ": " << result.err;
    EXPECT_EQ(Run(command).out, result.out) << command[0];
  }
  EXPECT_EQ(before, Files(copy));
  ::chmod(copy.c_str(), 0755);
  EXPECT_EQ(original, Files(db_));
}

// check reads every page: a damaged page of a database that was closed
// cleanly (which an open trusts) is named, exit 1, and nothing is changed.
// validate names a record whose parent is missing, exit 1, by name and, with
// --visited-bits, as the library's validateTree prints it.
TEST_F(QueryTest, CheckAndValidateFindWhatIsWrong) {
  MakeScratchTree();
  ASSERT_EQ(0, Scan(2000).status);
  ToolResult sound = Run({"check", db_});
  EXPECT_EQ(0, sound.status) << sound.err;
  EXPECT_EQ("pages: every page of both table files is sound\n"
            "indexes: every record is in every index under its own key\n"
            "consistent: all 12 records are reachable from the root\n",
            sound.out);
  {
    WzScanDB db(boost::make_shared<WzScanDBRecord>());
    ASSERT_TRUE(db.initialize(db_).IsSuccess());
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

  {  // the node offsets of every page past the two meta pages
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
  EXPECT_NE(std::string::npos, damaged.out.find("NOT consistent: a table file is damaged\n"
                                                "damaged: Table ")) << damaged.out;
  EXPECT_NE(std::string::npos, damaged.out.find("WzScanDB.dat is damaged (page ")) << damaged.out;
  EXPECT_EQ(before, Files(db_));
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
  for (const char* command : {"move", "copy"})
    ExpectFailure(Run({command, db_, temp_ / "elsewhere"}), 3, "in use by another process");
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
