// A process doing random record operations (killed_record_writer) killed
// with SIGKILL at random moments: every operation it acknowledged is in the
// database afterwards, the one in flight is either done or not done, nothing
// else changed, and the table and the tree are consistent.

#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "KilledSupport.h"
#include "support/TempDir.h"

namespace {

using namespace killedtest;

struct Operation {
  char op = 0;  // G add folder, F add file, U update, D delete file
  std::string path;
  unsigned long long refTime = 0;
};

// What the database must hold: folders, and files with their reference time.
struct Expected {
  std::set<std::string> folders;
  std::map<std::string, unsigned long long> files;

  void apply(const Operation& op) {
    if (op.op == 'G') folders.insert(op.path);
    if (op.op == 'F' || op.op == 'U') files[op.path] = op.refTime;
    if (op.op == 'D') files.erase(op.path);
  }
};

// Acknowledged operations in order, and the one begun but not acknowledged.
bool ParseAcks(const std::string& text, std::vector<Operation>& acked, Operation& pending) {
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    char phase = 0;
    Operation op;
    if (!(fields >> phase >> op.op >> op.path >> op.refTime)) return false;
    if (phase == 'B') {
      pending = op;
    } else if (phase == 'A' && pending.op == op.op && pending.path == op.path) {
      acked.push_back(op);
      pending = Operation();
    } else {
      return false;
    }
  }
  return true;
}

// The stored reference time of `path`, or -1 when it is not stored.
long long StoredRefTime(const WzScanDBPtr& db, const std::string& path) {
  WzScanDBRecordBasePtr out = Generic(path, false);
  bool found = false;
  CKoError err;
  WzScanDBObjectCheckDBRecord(db, Generic(path, false), out, found, err);
  EXPECT_TRUE(err.IsSuccess()) << path << ": " << err.AsString();
  return found ? static_cast<long long>(out->getRefTime()) : -1;
}

TEST(RecordWriterKilledTest, AcknowledgedOperationsSurviveTheKill) {
  const unsigned seed = Seed("RecordWriterKilledTest");
  std::mt19937 rng(seed);
  TempDir dir;
  const std::string database = dir.path();
  Expected expected;
  size_t totalAcked = 0;

  const int rounds = Rounds(6);
  for (int round = 0; round < rounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    std::string output;
    {
      ChildProcess writer({KILLED_RECORD_WRITER, database, std::to_string(round),
                           std::to_string(rng())},
                          true);
      SleepMs(std::uniform_int_distribution<unsigned>(100, 1500)(rng));
      writer.Kill();
      ASSERT_EQ(-1, writer.Wait()) << "the writer ended by itself";
      output = writer.ReadAll();
    }
    std::vector<Operation> acked;
    Operation pending;
    ASSERT_TRUE(ParseAcks(output, acked, pending)) << output;
    for (const Operation& op : acked) expected.apply(op);
    totalAcked += acked.size();

    CKoError err;
    WzScanDBPtr db = OpenGenericDatabase(database, err);
    ASSERT_TRUE(err.IsSuccess()) << err.AsString();
    std::string report;
    EXPECT_EQ(0, db->checkConsistency(&report)) << report;

    // The operation in flight: done or not done, nothing in between.
    if (pending.op != 0) {
      const long long stored = StoredRefTime(db, pending.path);
      const bool wasFile = expected.files.count(pending.path) != 0;
      const long long before = wasFile ? static_cast<long long>(expected.files[pending.path]) : -1;
      const long long after = pending.op == 'D' ? -1 : static_cast<long long>(pending.refTime);
      if (pending.op != 'G') {
        EXPECT_TRUE(stored == before || stored == after)
            << pending.op << " " << pending.path << ": stored " << stored;
        if (stored == after) expected.apply(pending);
      } else if (stored != -1) {
        expected.apply(pending);
      }
    }

    for (const std::string& folder : expected.folders)
      EXPECT_NE(-1, StoredRefTime(db, folder)) << "lost folder " << folder;
    for (const auto& [path, refTime] : expected.files)
      EXPECT_EQ(static_cast<long long>(refTime), StoredRefTime(db, path)) << path;
    EXPECT_EQ(static_cast<int64_t>(expected.folders.size() + expected.files.size()),
              db->numberOfRecords());
    bool consistent = false;
    WzScanDBObjectValidateTree(db, consistent, err);
    EXPECT_TRUE(err.IsSuccess()) << err.AsString();
    EXPECT_TRUE(consistent);
    WzScanDBObjectClose(db, err);
    ASSERT_TRUE(err.IsSuccess()) << err.AsString();
    ASSERT_FALSE(HasFailure());
  }
  std::cout << totalAcked << " operations acknowledged in " << rounds << " rounds" << std::endl;
  // Each round acknowledges its two folders at least; most rounds far more.
  EXPECT_GT(totalAcked, static_cast<size_t>(2 * rounds));
}

}  // namespace
