// Injected I/O errors: EIO or ENOSPC at each write, sync, truncate and
// allocate call site of a workload (the first and last call of each site;
// all of them with WZ_FAULT_ALL=1), and failed map growth: ENOMEM on its
// mmap, ENOSPC/EFBIG on its allocation (the disk staying full), a real
// address-space limit. Never a crash; the caller gets an engine status for
// the cause (and a level -1 line for a failed flush); reopened afterwards
// the table holds exactly the acknowledged writes and nothing that failed.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>

#include <gtest/gtest.h>

#include "faults/FaultHarness.h"
#include "support/TempDir.h"
#include "table/TableStatus.h"

namespace faults {
namespace {
namespace fs = std::filesystem;

constexpr unsigned kKeys = 3000;

struct Injection {
  long call = 0;         // the counted call that fails (first of them when sticky)
  std::string error;     // EIO, ENOSPC, EFBIG, ENOMEM
  bool sticky = false;   // every counted call after it fails too
  std::string what;      // for messages
};

struct Workload {
  std::string calls;               // classes counted
  int syncIntervalMs = 0;
  std::string ops = "700";
  std::map<std::string, std::string> env;
};

// The statuses that name an I/O cause.
bool ioStatus(int status) {
  return status == TBL_IO_ERROR || status == TBL_FILE_FULL || status == TBL_NO_MEMORY;
}

class IoErrors : public ::testing::Test {
 protected:
  void SetUp() override {
    start_ = root_ / "start";
    fs::create_directories(start_);
    base_ = applyAcked({}, runPlain({"table", start_, "21", "400", std::to_string(kKeys)}).ops);
  }

  RunOptions options(const Workload& w) const {
    RunOptions o;
    o.args = {"table", root_ / "run", "22", w.ops, std::to_string(kKeys)};
    o.syncIntervalMs = w.syncIntervalMs;
    o.logLimitMiB = 1;
    o.env = w.env;
    o.env["WZF_CALLS"] = w.calls;
    // Real syncs cost much on a busy disk and prove nothing here (the table
    // is reopened without a power loss); the shim still counts and fails them.
    o.env["WZF_NOSYNC"] = "1";
    return o;
  }

  std::vector<TracedCall> count(const Workload& w) {
    return countCalls(start_, root_ / "run", options(w), root_ / "trace");
  }

  // Runs the workload with `inj` and judges what the caller saw and what the
  // table holds after a reopen. `wanted`: the status a failure must carry
  // (0: any I/O status).
  void inject(const Workload& w, const Injection& inj, int wanted = 0) {
    SCOPED_TRACE(inj.what + " " + inj.error + (inj.sticky ? " from" : " at") + " call " +
                 std::to_string(inj.call));
    const std::string run = root_ / "run";
    fs::remove_all(run);
    copyDir(start_, run);
    RunOptions o = options(w);
    o.env["WZF_DIR"] = run;
    o.env["WZF_FAIL_AT"] = std::to_string(inj.call);
    o.env["WZF_ERRNO"] = inj.error;
    if (inj.sticky) o.env["WZF_FAIL_STICKY"] = "1";
    const WriterRun r = runWriter(o);
    ++runs_;
    ASSERT_EQ(r.signal, 0) << "the writer crashed";
    ASSERT_EQ(r.exitCode, 0);
    // The first failure the caller saw names an I/O cause.
    const int first = r.firstFailure;
    if (first) {
      ++failedRuns_;
      EXPECT_TRUE(wanted ? first == wanted : ioStatus(first)) << "first failure status " << first;
    }
    if (inj.what.find(" sync ") != std::string::npos) {
      // (suspendIndexing answers -1 whatever the cause: reported, without a status)
      EXPECT_TRUE(r.failed) << "a failed flush went unreported";
      EXPECT_FALSE(r.logged.empty()) << "a failed flush wrote no level -1 line";
    }
    const Content after = readTable(run, kKeys);
    ASSERT_EQ(after.status, 0) << "does not reopen: " << after.problem;
    ASSERT_EQ(after.problem, "");
    const State expected = applyAcked(base_, r.ops);
    EXPECT_TRUE(after.state == expected) << "the reopened table does not hold exactly the "
                                            "acknowledged writes: "
                                         << difference(after.state, expected);
  }

  void report(const char* what) const {
    std::printf("%s: %zu runs, %zu with a failure the caller saw\n", what, runs_, failedRuns_);
  }

  TempDir root_;
  std::string start_;
  State base_;
  size_t runs_ = 0, failedRuns_ = 0;
};

// Each call site (library and offset) of each workload: its first and last
// call, EIO and ENOSPC in turn; every call of it with WZ_FAULT_ALL.
TEST_F(IoErrors, EveryWriteSyncTruncateAndAllocateSite) {
  const bool all = std::getenv("WZ_FAULT_ALL") != nullptr;
  size_t sites = 0;
  for (int interval : {0, 60000}) {
    Workload w;
    w.calls = "write,sync,trunc,alloc";
    w.syncIntervalMs = interval;
    const auto calls = count(w);
    std::map<std::string, std::vector<long>> bySite;
    for (const TracedCall& c : calls) bySite[c.klass + " " + c.call + " " + c.site].push_back(c.n);
    sites += bySite.size();
    int turn = 0;
    for (const auto& [site, ns] : bySite) {
      std::set<long> picks{ns.front(), ns.back()};
      if (all) picks.insert(ns.begin(), ns.end());
      for (long n : picks)
        for (const char* error : {"EIO", "ENOSPC"}) {
          if (!all && (turn++ % 2)) continue;
          inject(w, {n, error, false, "interval " + std::to_string(interval) + " " + site});
          if (HasFatalFailure()) return;
        }
    }
  }
  std::printf("%zu call sites\n", sites);
  report("injected I/O errors");
}

// Failed growth: the address space refuses the map (ENOMEM on each mmap),
// or the disk is full from an allocation on (ENOSPC, EFBIG).
TEST_F(IoErrors, FailedGrowthAnswersItsCause) {
  const bool all = std::getenv("WZ_FAULT_ALL") != nullptr;
  Workload w;
  w.calls = "mmap";
  w.ops = "1500";
  const auto maps = count(w);
  ASSERT_GT(maps.size(), 4u) << "the workload does not grow its maps";
  for (const TracedCall& c : maps) inject(w, {c.n, "ENOMEM", false, "mmap"}, TBL_NO_MEMORY);
  w.calls = "alloc";
  const auto allocs = count(w);
  int turn = 0;
  for (const TracedCall& c : allocs)
    for (const char* error : {"ENOSPC", "EFBIG"})
      if (all || turn++ % 2) inject(w, {c.n, error, true, "full disk"}, TBL_FILE_FULL);
  report("failed growth");
}

// A real address-space limit a few MiB above the open table (ulimit -v in
// the child), with the log flushed by every write and by its thread.
TEST_F(IoErrors, AddressSpaceLimitAnswersNoMemory) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the address sanitizer's own maps do not live within an address-space limit";
#endif
  for (int interval : {0, 60000}) {
    Workload w;
    w.calls = "mmap";
    w.ops = "3000";
    w.syncIntervalMs = interval;
    w.env["FAULT_AS_HEADROOM_KB"] = "3072";
    inject(w, {1000000, "EIO", false, "ulimit -v, interval " + std::to_string(interval)}, TBL_NO_MEMORY);
  }
  report("address-space limit");
  EXPECT_GT(failedRuns_, 0u) << "the limit was never reached";
}

}  // namespace
}  // namespace faults
