// Injected I/O errors: EIO or ENOSPC at each write, sync, truncate and
// allocate call site of a workload (the first and last call of each site;
// all of them with WZ_FAULT_ALL=1), and failed map growth: ENOMEM on its
// mmap, ENOSPC/EFBIG on its allocation (the disk staying full), a real
// address-space limit. Never a crash; the caller gets an engine status for
// the cause (and a level -1 line for a failed flush); reopened afterwards
// the table holds exactly the acknowledged writes and nothing that failed.
#include <set>

#include <gtest/gtest.h>

#include "faults/FaultHarness.h"
#include "table/TableStatus.h"

namespace faults {
namespace {

constexpr unsigned kKeys = 3000;

class IoErrors : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(start_);
    base_ = applyAcked({}, runWriter({{"table", start_, "21", "400", std::to_string(kKeys)}}).ops);
  }

  // Table mode on a copy of the start table, the shim counting `calls`.
  RunOptions options(const std::string& calls, int syncIntervalMs, const std::string& ops = "700") const {
    // Real syncs cost much on a busy disk and prove nothing here (the table
    // is reopened without a power loss); the shim still counts and fails them.
    RunOptions o({"table", run_, "22", ops, std::to_string(kKeys)}, {{"WZF_CALLS", calls}, {"WZF_NOSYNC", "1"}});
    o.syncIntervalMs = syncIntervalMs;
    o.logLimitMiB = 1;
    return o;
  }

  std::vector<TracedCall> count(const RunOptions& o) { return countCalls(start_, run_, o, root_ / "trace"); }

  // Runs `o` with counted call `call` failing with `error` (and every one
  // after it when `sticky`), then judges what the caller saw and what the
  // table holds once reopened. `wanted`: the status the first failure must
  // carry (0: any status that names an I/O cause).
  void inject(RunOptions o, long call, const std::string& error, bool sticky, const std::string& what, int wanted = 0) {
    SCOPED_TRACE(what + " " + error + (sticky ? " from" : " at") + " call " + std::to_string(call));
    o.env["WZF_FAIL_AT"] = std::to_string(call);
    o.env["WZF_ERRNO"] = error;
    if (sticky) o.env["WZF_FAIL_STICKY"] = "1";
    const WriterRun r = runOnCopy(start_, run_, o);
    ASSERT_TRUE(r.signal == 0 && r.exitCode == 0) << "the writer crashed: signal " << r.signal;
    const int first = r.firstFailure;
    failedRuns_ += first != 0;
    const bool io = first == TBL_IO_ERROR || first == TBL_FILE_FULL || first == TBL_NO_MEMORY;
    EXPECT_TRUE(!first || (wanted ? first == wanted : io)) << "first failure status " << first;
    if (what.find(" sync ") != std::string::npos) {
      // (suspendIndexing answers -1 whatever the cause: reported, without a status)
      EXPECT_TRUE(r.failed) << "a failed flush went unreported";
      EXPECT_FALSE(r.logged.empty()) << "a failed flush wrote no level -1 line";
    }
    const Content after = readEither(false, run_, kKeys, {}, {});
    ASSERT_EQ(after.status, 0) << "does not reopen: " << after.problem;
    ASSERT_EQ(after.problem, "");
    const State expected = applyAcked(base_, r.ops);
    EXPECT_TRUE(after.state == expected) << "the reopened table does not hold exactly the acknowledged writes: "
                                         << describe(after.state) << " instead of " << describe(expected);
  }

  TempDir root_;
  const std::string start_ = root_ / "start", run_ = root_ / "run";
  State base_;
  size_t failedRuns_ = 0;
  const bool all_ = std::getenv("WZ_FAULT_ALL") != nullptr;
};

// Each call site (library and offset) of each workload: its first and last
// call, EIO and ENOSPC in turn; every call of it, both errors, with WZ_FAULT_ALL.
TEST_F(IoErrors, EveryWriteSyncTruncateAndAllocateSite) {
  for (int interval : {0, 60000}) {
    const RunOptions o = options("write,sync,trunc,alloc", interval);
    std::map<std::string, std::vector<long>> bySite;
    for (const TracedCall& c : count(o)) bySite[c.klass + " " + c.call + " " + c.site].push_back(c.n);
    int turn = 0;
    for (const auto& [site, ns] : bySite) {
      std::set<long> picks{ns.front(), ns.back()};
      if (all_) picks.insert(ns.begin(), ns.end());
      for (long n : picks)
        for (const char* error : {"EIO", "ENOSPC"})
          if (all_ || turn++ % 2 == 0) {
            inject(o, n, error, false, "interval " + std::to_string(interval) + " " + site);
            if (HasFatalFailure()) return;
          }
    }
  }
  EXPECT_GT(failedRuns_, 10u) << "hardly any injected error reached the caller";
}

// Failed growth answers its cause: the address space refuses the map (ENOMEM
// on each mmap, or a real limit, ulimit -v, a few MiB above the open table,
// the log flushed by every write and by its thread), or the disk is full from
// an allocation on (ENOSPC, EFBIG).
TEST_F(IoErrors, FailedGrowthAnswersItsCause) {
  RunOptions o = options("mmap", 0, "1500");
  const auto maps = count(o);
  ASSERT_GT(maps.size(), 4u) << "the workload does not grow its maps";
  for (const TracedCall& c : maps) inject(o, c.n, "ENOMEM", false, "mmap", TBL_NO_MEMORY);
  o.env["WZF_CALLS"] = "alloc";
  int turn = 0;
  for (const TracedCall& c : count(o))
    for (const char* error : {"ENOSPC", "EFBIG"})
      if (all_ || turn++ % 2) inject(o, c.n, error, true, "full disk", TBL_FILE_FULL);
#if !defined(__SANITIZE_ADDRESS__)  // (the sanitizer's own maps do not live within such a limit)
  const size_t before = failedRuns_;
  for (int interval : {0, 60000}) {
    o = options("mmap", interval, "3000");
    o.env["FAULT_AS_HEADROOM_KB"] = "3072";
    inject(o, 1000000, "EIO", false, "ulimit -v, interval " + std::to_string(interval), TBL_NO_MEMORY);
  }
  EXPECT_EQ(failedRuns_, before + 2) << "the address-space limit was not reached";
#endif
}

}  // namespace
}  // namespace faults
