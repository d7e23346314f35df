// Creating a database where other creators race, or where a create that was
// killed left files behind: one creator wins and the others are told the
// database is in use (106, never 105 "exists") for as long as the winner
// holds it, and whatever a killed create left, the next initialize makes or
// opens a database that works, leaving exactly its two files.
#include <dirent.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <set>
#include <thread>

#include "HostileSupport.h"
#include "concurrency/ForkedChild.h"

namespace hostile {
namespace {

std::set<std::string> FilesIn(const std::string& directory) {
  std::set<std::string> names;
  if (DIR* d = opendir(directory.c_str())) {
    while (dirent* e = readdir(d))
      if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") names.insert(e->d_name);
    closedir(d);
  }
  return names;
}

const std::set<std::string> kPair = {"WzScanDB.dat", "WzScanDB.idx"};

// "" for success, else the code and the origin message of the error.
std::string Answer(const CKoError& error) {
  return error.IsSuccess() ? "" : std::to_string(error.GetCode()) + " " + error.GetOriginMessage();
}

class CreateRace : public HostileTest {
 protected:
  // Exactly one racer made the database; every other one was told it is in
  // use, on the path it took (it found the data file, or went to create).
  void ExpectOneWinner(const std::vector<std::string>& answers) {
    const std::string inUse = TCtreeTable::errToString(TBL_IN_USE);
    EXPECT_EQ(1, std::count(answers.begin(), answers.end(), ""));
    for (const std::string& answer : answers)
      EXPECT_TRUE(answer.empty() || answer == "106 Failed to Create WzScanDB : " + inUse ||
                  answer == "106 Failed to Open an Existing WzScanDB : " + inUse)
          << answer;
  }

  // The directory holds the two files of a database that opens and works.
  void ExpectWorkingDatabase(const std::string& directory) {
    WzScanDB db(Generic(""));
    CKoError error = db.initialize(directory);
    ASSERT_TRUE(error.IsSuccess()) << error.AsString();
    EXPECT_TRUE(db.addFolder(Generic("/", true)).IsSuccess());
    EXPECT_EQ(db.checkConsistency(), TBL_OK);
    EXPECT_TRUE(db.close().IsSuccess());
    EXPECT_EQ(kPair, FilesIn(directory));
  }
};

TEST_F(CreateRace, RacersGetInUseWhileTheWinnerHoldsTheDatabase) {
  constexpr int kRacers = 6;
  for (int round = 0; round < 6; ++round) {
    const bool processes = round % 2 == 1;
    SCOPED_TRACE((processes ? "processes, round " : "threads, round ") + std::to_string(round));
    const std::string directory = dir / ("race" + std::to_string(round));
    ASSERT_EQ(mkdir(directory.c_str(), 0700), 0);
    std::vector<std::string> answers(kRacers);
    if (processes) {
      // Each holds what it got until the parent hangs up.
      std::vector<std::unique_ptr<ForkedChild>> racers;
      for (int i = 0; i < kRacers; ++i)
        racers.emplace_back(new ForkedChild([&](ForkedChild::Channel& channel) {
          channel.Listen();
          WzScanDB db(Generic(""));
          channel.report = Answer(db.initialize(directory));
          channel.Tell('r');
          channel.Listen();
          db.close();
          return 0;
        }));
      for (auto& racer : racers) racer->Say();
      for (auto& racer : racers) EXPECT_EQ('r', racer->Heard());
      for (auto& racer : racers) racer->Hangup();
      for (int i = 0; i < kRacers; ++i) {
        const ForkedChild::Result result = racers[i]->Wait();
        EXPECT_TRUE(result.exited && result.status == 0) << result.Describe();
        answers[i] = result.report;
      }
    } else {
      std::vector<std::unique_ptr<WzScanDB>> dbs;
      for (int i = 0; i < kRacers; ++i) dbs.emplace_back(new WzScanDB(Generic("")));
      std::atomic<bool> go(false);
      std::vector<std::thread> racers;
      for (int i = 0; i < kRacers; ++i)
        racers.emplace_back([&, i] {
          while (!go.load()) std::this_thread::yield();
          answers[i] = Answer(dbs[i]->initialize(directory));
        });
      go = true;
      for (std::thread& racer : racers) racer.join();
      for (auto& db : dbs) db->close();
    }
    ExpectOneWinner(answers);
    ExpectWorkingDatabase(directory);
  }
}

TEST_F(CreateRace, WhatAKilledCreateLeftIsClearedByTheNextInitialize) {
  // A log and an index file of another database, as a move or a kill could
  // leave them without their data file.
  const std::string other = dir / "other";
  ASSERT_EQ(mkdir(other.c_str(), 0700), 0);
  std::string otherLog;
  {
    WzScanDB db(Generic(""));
    ASSERT_TRUE(db.initialize(other).IsSuccess());
    ASSERT_TRUE(db.addFolder(Generic("/", true)).IsSuccess());
    otherLog = ReadBytes(other + "/WzScanDB.log");
    db.close();
  }
  ASSERT_GT(otherLog.size(), 4096u);
  const std::string otherIndex = ReadBytes(other + "/WzScanDB.idx");
  const std::vector<std::vector<std::pair<std::string, std::string>>> leftovers = {
      {{"WzScanDB.dat.creating", "half a data file"}},
      {{"WzScanDB.idx.creating", ""}, {"WzScanDB.dat.creating", std::string(8192, '\0')}},
      {{"WzScanDB.idx", otherIndex}},
      {{"WzScanDB.log", otherLog}},
      {{"WzScanDB.log", ""}},
      {{"WzScanDB.log", std::string(4096, '\0')}},
      {{"WzScanDB.idx", otherIndex}, {"WzScanDB.log", otherLog}, {"WzScanDB.idx.creating", "x"}},
  };
  int round = 0;
  for (const auto& files : leftovers) {
    const std::string directory = dir / ("left" + std::to_string(round++));
    SCOPED_TRACE(directory);
    ASSERT_EQ(mkdir(directory.c_str(), 0700), 0);
    for (const auto& [name, bytes] : files) WriteBytes(directory + "/" + name, bytes);
    WzScanDB db(Generic(""));
    CKoError error = db.initialize(directory);
    ASSERT_TRUE(error.IsSuccess()) << error.AsString();
    EXPECT_EQ(db.numberOfRecords(), 0);
    db.close();
    ExpectWorkingDatabase(directory);
  }
}

TEST_F(CreateRace, AKillAtAnyMomentOfACreateLeavesADirectoryThatInitializes) {
  // How long a create takes in a child, to spread the kills over it.
  auto createIn = [](const std::string& directory) {
    return [directory](ForkedChild::Channel&) {
      WzScanDB db(Generic(""));
      return db.initialize(directory).IsSuccess() ? 0 : 1;
    };
  };
  ASSERT_EQ(mkdir((dir / "timed").c_str(), 0700), 0);
  const auto started = std::chrono::steady_clock::now();
  ASSERT_EQ(0, ForkedChild(createIn(dir / "timed")).Wait().status);
  const long span =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - started)
          .count();
  std::mt19937 rng(7);
  int beforeDataFile = 0;
  constexpr int kKills = 30;
  for (int round = 0; round < kKills; ++round) {
    const std::string directory = dir / ("killed" + std::to_string(round));
    SCOPED_TRACE(directory);
    ASSERT_EQ(mkdir(directory.c_str(), 0700), 0);
    {
      ForkedChild child(createIn(directory));
      const long delay = std::uniform_int_distribution<long>(0, span)(rng);
      const timespec pause = {delay / 1000000, (delay % 1000000) * 1000};
      nanosleep(&pause, nullptr);
      child.Kill();
      child.Wait();
    }
    beforeDataFile += !Exists(directory + "/WzScanDB.dat");
    ExpectWorkingDatabase(directory);
  }
  std::printf("[ figures  ] %d kills over a create of %ld us: %d before the data file was named\n",
              kKills, span, beforeDataFile);
}

}  // namespace
}  // namespace hostile
