// The wzscandb scan of a generated tree of 100 000 entries, killed with
// SIGKILL at a random moment, round after round (a first scan into an empty
// database, then rescans of a changed tree): after each kill the database
// opens with a consistent table, and a new scan completes with a tree that
// validates.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "KilledSupport.h"
#include "support/TempDir.h"

namespace {

using namespace killedtest;

constexpr int kFolders = 100;
constexpr int kFilesPerFolder = 1000;

void MakeFolder(const std::string& folder, int files) {
  ASSERT_EQ(0, mkdir(folder.c_str(), 0700)) << folder;
  for (int i = 0; i < files; ++i) {
    const std::string path = folder + "/f" + std::to_string(i);
    const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << path;
    close(fd);
  }
}

int RunTool(const std::vector<std::string>& args) {
  std::vector<std::string> argv{WZSCANDB_TOOL};
  argv.insert(argv.end(), args.begin(), args.end());
  ChildProcess tool(argv, false);
  return tool.Wait();
}

TEST(ScanKilledTest, KilledScansLeaveAnOpenableConsistentDatabase) {
  const unsigned seed = Seed("ScanKilledTest");
  std::mt19937 rng(seed);
  TempDir dir;
  const std::string tree = dir / "tree";
  const std::string database = dir / "db";
  ASSERT_EQ(0, mkdir(tree.c_str(), 0700));
  ASSERT_EQ(0, mkdir(database.c_str(), 0700));
  for (int i = 0; i < kFolders; ++i)
    ASSERT_NO_FATAL_FAILURE(MakeFolder(tree + "/d" + std::to_string(i), kFilesPerFolder));

  const std::vector<std::string> scan{"scan", tree, "--db", database, "--list", "0"};
  const int rounds = Rounds(3);
  int killedMidway = 0;
  // Kills fall in the first 90% of the last complete scan's duration.
  unsigned scanMs = 3000;
  for (int round = 0; round < rounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    if (round > 0) {  // new entries and gone ones for the rescan to write
      ASSERT_NO_FATAL_FAILURE(MakeFolder(tree + "/n" + std::to_string(round), 500));
      std::filesystem::remove_all(tree + "/d" + std::to_string(round % kFolders));
    }
    {
      std::vector<std::string> argv{WZSCANDB_TOOL};
      argv.insert(argv.end(), scan.begin(), scan.end());
      ChildProcess tool(argv, false);
      SleepMs(std::uniform_int_distribution<unsigned>(10, scanMs * 9 / 10)(rng));
      tool.Kill();
      if (tool.Wait() == -1) ++killedMidway;
    }
    {
      CKoError err;
      WzScanDBPtr db = OpenGenericDatabase(database, err);
      ASSERT_TRUE(err.IsSuccess()) << err.AsString();
      std::string report;
      EXPECT_EQ(0, db->checkConsistency(&report)) << report;
      WzScanDBObjectClose(db, err);
      ASSERT_TRUE(err.IsSuccess()) << err.AsString();
    }
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(0, RunTool(scan));
    scanMs = static_cast<unsigned>(std::max<long long>(
        20, std::chrono::duration_cast<std::chrono::milliseconds>(
                std::chrono::steady_clock::now() - start)
                .count()));
    ASSERT_EQ(0, RunTool({"validate", database}));
  }
  std::cout << killedMidway << " of " << rounds << " scans killed before they ended" << std::endl;
}

}  // namespace
