// Creating a database where other creators race, or where a create that was
// killed left files behind: one creator wins and the others are told the
// database is in use (106, never 105 "exists") for as long as the winner
// holds it, and whatever a killed create left, the next initialize makes or
// opens a database that works, leaving exactly its two files. A forked
// child does not keep its parent's hold on the files.
#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <set>
#include <thread>

#include "HostileSupport.h"

namespace hostile {
namespace {

class CreateRace : public HostileTest {
 protected:
  // The directory holds the two files of a database that opens and works.
  static void ExpectWorkingDatabase(const std::string& directory) {
    WzScanDB db(Generic(""));
    ASSERT_EQ(Answer(db.initialize(directory)), "");
    EXPECT_EQ(db.numberOfRecords(), 0) << "a record that is not this database's";
    EXPECT_TRUE(db.addFolder(Generic("/", true)).IsSuccess());
    EXPECT_EQ(db.checkConsistency(), TBL_OK);
    EXPECT_TRUE(db.close().IsSuccess());
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) names.insert(entry.path().filename());
    EXPECT_EQ(names, (std::set<std::string>{"WzScanDB.dat", "WzScanDB.idx"}));
  }
};

// Six creators at once, as threads of one process or as processes (each
// holding what it got until all have answered): exactly one made the
// database; every other one was told it is in use, on the path it took (it
// found the data file, or went to create).
TEST_F(CreateRace, RacersGetInUseWhileTheWinnerHoldsTheDatabase) {
  constexpr int kRacers = 6;
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const std::string directory = Sub("race" + std::to_string(round));
    std::vector<std::string> answers(kRacers);
    if (round % 2) {
      std::vector<std::unique_ptr<ForkedChild>> racers;
      for (int i = 0; i < kRacers; ++i)
        racers.emplace_back(new ForkedChild([&](ForkedChild::Channel& channel) {
          WzScanDB db(Generic(""));
          channel.Listen();
          channel.report = Answer(db.initialize(directory));
          channel.Tell('r');
          return channel.Listen() ? 1 : 0;
        }));
      for (auto& racer : racers) racer->Say();
      for (auto& racer : racers) EXPECT_EQ('r', racer->Heard());
      for (auto& racer : racers) racer->Hangup();
      for (int i = 0; i < kRacers; ++i) answers[i] = racers[i]->Wait().report;
    } else {
      std::vector<std::unique_ptr<WzScanDB>> dbs;
      std::atomic<bool> go(false);
      std::vector<std::thread> racers;
      for (int i = 0; i < kRacers; ++i) {
        dbs.emplace_back(new WzScanDB(Generic("")));
        racers.emplace_back([&, i] {
          while (!go.load()) std::this_thread::yield();
          answers[i] = Answer(dbs[i]->initialize(directory));
        });
      }
      go = true;
      for (std::thread& racer : racers) racer.join();
      for (auto& db : dbs) db->close();
    }
    EXPECT_EQ(1, std::count(answers.begin(), answers.end(), ""));
    for (const std::string& answer : answers)
      EXPECT_TRUE(answer.empty() || answer == "106 Failed to Create WzScanDB : " + Engine(TBL_IN_USE) ||
                  answer == "106 Failed to Open an Existing WzScanDB : " + Engine(TBL_IN_USE))
          << answer;
    ExpectWorkingDatabase(directory);
  }
}

// A log and an index file of another database, as a move or a kill could
// leave them without their data file, temporary files of a create: each
// cleared by the next initialize. (Kills at every step of a create:
// tests/faults/KillPointsTest.)
TEST_F(CreateRace, WhatAKilledCreateLeftIsClearedByTheNextInitialize) {
  const std::string other = Sub("other");
  std::string otherLog;
  {
    WzScanDB db(Generic(""));
    ASSERT_TRUE(db.initialize(other).IsSuccess() && db.addFolder(Generic("/", true)).IsSuccess());
    ASSERT_GT((otherLog = ReadBytes(other + "/WzScanDB.log")).size(), 4096u);
    db.close();
  }
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
  for (size_t round = 0; round < leftovers.size(); ++round) {
    const std::string directory = Sub("left" + std::to_string(round));
    SCOPED_TRACE(directory);
    for (const auto& [name, bytes] : leftovers[round]) WriteBytes(directory + "/" + name, bytes);
    ExpectWorkingDatabase(directory);
  }
}

// A process that forks while it holds a database open: the child (which
// lives on without exec, as a forked worker would) must not keep the
// parent's hold on the files once the parent has closed them.
using ForkedChildLock = HostileTest;

TEST_F(ForkedChildLock, TheParentsCloseReleasesTheFilesWhileTheChildLivesOn) {
  const std::string inUse = "106 Failed to Open an Existing WzScanDB : " + Engine(TBL_IN_USE);
  WzScanDB parent(Generic("")), second(Generic("")), next(Generic("")), third(Generic(""));
  ASSERT_TRUE(parent.initialize(dir.path()).IsSuccess());
  ASSERT_TRUE(parent.addFolder(Generic("/", true)).IsSuccess());  // the log and its flusher too
  // The child only waits: it neither uses nor closes anything it inherited.
  ForkedChild child([](ForkedChild::Channel& channel) { return channel.Listen() ? 1 : 0; });
  EXPECT_EQ(Answer(second.initialize(dir.path())), inUse) << "a second writer beside the parent";
  ASSERT_TRUE(parent.close().IsSuccess());
  ASSERT_EQ(Answer(next.initialize(dir.path())), "") << "the child kept the parent's hold";
  bool found = false;
  EXPECT_TRUE(next.checkDBRecord(Generic("/", true), Generic("/", true), found).IsSuccess() && found);
  EXPECT_TRUE(next.addFile(Generic("/f")).IsSuccess());
  EXPECT_EQ(Answer(third.initialize(dir.path())), inUse) << "the new writer holds the files as the parent did";
  next.close();
  child.Hangup();
  EXPECT_EQ(child.Wait().Describe(), "exit 0");
}

}  // namespace
}  // namespace hostile
