// FaultHarness: runs fault_writer under the shim and judges what it left.
//
// runWriter starts the writer with the shim preloaded and the given WZF_*
// variables and settings, and returns its report stream (FaultWriter.cpp,
// FaultShim.c) parsed into operations, syncs and snapshots. readTable and
// readDatabase open a directory the way a user would and return what it
// holds, or why it cannot be trusted. matchPrefix decides whether that
// content is the state after some prefix of the operations: the only states
// that ever existed.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace faults {

// key -> value; a key absent from the map is absent from the table.
using State = std::map<std::string, long long>;

struct Operation {
  unsigned long seq = 0;
  std::string key;
  long long value = 0;  // -1: a delete
  bool acked = false;
  long ackUs = 0;
  int failed = 0;       // the status of a failed operation
};

struct Snapshot {
  long id = 0;
  long us = 0;
  size_t begun = 0;     // operations begun before it (failed ones excluded)
  size_t acked = 0;     // operations acknowledged before it
  size_t durable = 0;   // acknowledged, and covered by a log sync completed before it
};

struct WriterRun {
  int exitCode = -1;    // -1: ended by a signal
  int signal = 0;
  std::string output;
  std::vector<Operation> ops;       // in order, failed ones included
  std::vector<Snapshot> snapshots;
  std::vector<std::string> errors;  // E lines
  std::vector<std::string> logged;  // L lines (level -1)
  size_t logSyncs = 0;              // completed syncs of the log
  int firstFailure = 0;             // status of the first F or E line
  bool failed = false;              // an F or E line, whatever its status
};

struct RunOptions {
  std::vector<std::string> args;           // after the program name
  std::map<std::string, std::string> env;  // WZF_* and others
  int syncIntervalMs = 1000;
  int logLimitMiB = 64;
  bool shim = true;
  std::string limitAs;                     // ulimit -v, KiB ("" none)
};

WriterRun runWriter(const RunOptions& options);
// Lines of a shim trace: "n class call file site".
struct TracedCall {
  long n;
  std::string klass, call, file, site;
};
std::vector<TracedCall> readTrace(const std::string& path);

// What a directory holds. `status` is the open's engine status (0 ok),
// `problem` a consistency failure (empty when consistent).
struct Content {
  int status = 0;
  std::string problem;
  State state;
};
// The generic table DIR/WzScanDB as fault_writer's table mode writes it:
// open, checkConsistency, every record whole and under its own key.
Content readTable(const std::string& dir, unsigned keys);
// The scan database in DIR: initialize, checkConsistency, validateTree, the
// record count, and the reference time of every key of `keys`.
Content readDatabase(const std::string& dir, const std::vector<std::string>& keys);

// The largest p in [lo, hi] such that `base` with the first p successful
// operations of `ops` applied equals `actual`, or nothing.
std::optional<size_t> matchPrefix(const State& base, const std::vector<Operation>& ops,
                                  const State& actual, size_t lo, size_t hi);
// `base` with every acknowledged operation of `ops` applied.
State applyAcked(State base, const std::vector<Operation>& ops);
// The successful-or-in-flight operations of `ops` (failed ones dropped).
std::vector<Operation> notFailed(const std::vector<Operation>& ops);

// Copies everything in `from` into `to` (made if missing).
void copyDir(const std::string& from, const std::string& to);
std::string describe(const State& s, size_t max = 8);
// The keys whose values differ, as "key: actual/expected" (absent: -).
std::string difference(const State& actual, const State& expected, size_t max = 6);

}  // namespace faults

namespace faults {

// A directory the writer works on and how to judge it afterwards.
struct Subject {
  bool database = false;
  unsigned keys = 400;  // table mode
  // Reads `dir` (readTable or readDatabase with every key of `base` and `ops`).
  Content read(const std::string& dir, const State& base, const std::vector<Operation>& ops) const;
};

// Runs the writer without the shim (setup): `args` after the program name.
WriterRun runPlain(const std::vector<std::string>& args, int syncIntervalMs = 60000);
// Counts the calls of `options` (WZF_CALLS as set) on a copy of `start`
// made at `dir` (the directory the writer's arguments name).
std::vector<TracedCall> countCalls(const std::string& start, const std::string& dir,
                                   RunOptions options, const std::string& trace);

}  // namespace faults
