// The wzscandb scan of a generated tree, killed with SIGKILL at a random
// moment, round after round (a first scan into an empty database, then
// rescans of a changed tree): after each kill the database opens with a
// consistent table, and a new scan completes with a tree that validates.
// WZ_KILLED_ROUNDS and WZ_KILLED_SEED change the run (scripts/killed-soak.sh).
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "support/OpenGenericDatabase.h"
#include "support/TempDir.h"

extern char** environ;

namespace {

// Starts wzscandb with `args`, its output discarded.
pid_t Start(const std::vector<std::string>& args) {
  std::vector<char*> argv{const_cast<char*>(WZSCANDB_TOOL)};
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  EXPECT_EQ(0, posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ));
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

// Its exit status; -1 when a signal ended it.
int Wait(pid_t pid) {
  int status = 0;
  EXPECT_EQ(pid, waitpid(pid, &status, 0));
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void MakeFolder(const std::string& folder, int files) {
  ASSERT_EQ(0, mkdir(folder.c_str(), 0700)) << folder;
  for (int i = 0; i < files; ++i) {
    const int fd = open((folder + "/f" + std::to_string(i)).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
  }
}

TEST(ScanKilledTest, KilledScansLeaveAnOpenableConsistentDatabase) {
  const char* seedText = std::getenv("WZ_KILLED_SEED");
  const char* roundsText = std::getenv("WZ_KILLED_ROUNDS");
  const unsigned seed = seedText && *seedText ? unsigned(std::strtoul(seedText, nullptr, 10)) : std::random_device()();
  const int rounds = roundsText && *roundsText ? std::atoi(roundsText) : 3;
  std::cout << "WZ_KILLED_SEED=" << seed << std::endl;
  std::mt19937 rng(seed);
  TempDir dir;
  const std::string tree = dir / "tree", database = dir / "db";
  ASSERT_EQ(0, mkdir(tree.c_str(), 0700));
  ASSERT_EQ(0, mkdir(database.c_str(), 0700));
  for (int i = 0; i < 40; ++i) ASSERT_NO_FATAL_FAILURE(MakeFolder(tree + "/d" + std::to_string(i), 1000));
  const std::vector<std::string> scan{"scan", tree, "--db", database, "--list", "0"};
  int killedMidway = 0;
  unsigned scanMs = 1500;  // of the last complete scan: kills fall in its first 90%
  for (int round = 0; round < rounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    if (round > 0) {  // new entries and gone ones for the rescan to write
      ASSERT_NO_FATAL_FAILURE(MakeFolder(tree + "/n" + std::to_string(round), 500));
      std::filesystem::remove_all(tree + "/d" + std::to_string(round % 40));
    }
    const pid_t killed = Start(scan);
    std::this_thread::sleep_for(std::chrono::milliseconds(std::uniform_int_distribution<unsigned>(10, scanMs * 9 / 10)(rng)));
    kill(killed, SIGKILL);
    killedMidway += Wait(killed) == -1;
    CKoError err;
    WzScanDBPtr db = OpenGenericDatabase(database, err);
    ASSERT_TRUE(err.IsSuccess()) << err.AsString();
    std::string report;
    EXPECT_EQ(0, db->checkConsistency(&report)) << report;
    WzScanDBObjectClose(db, err);
    ASSERT_TRUE(err.IsSuccess()) << err.AsString();
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(0, Wait(Start(scan)));
    scanMs = unsigned(std::max<long long>(
        20, std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count()));
    ASSERT_EQ(0, Wait(Start({"validate", database})));
  }
  std::cout << killedMidway << " of " << rounds << " scans killed before they ended" << std::endl;
  EXPECT_GT(killedMidway, 0) << "no kill landed inside a scan";
}

}  // namespace
