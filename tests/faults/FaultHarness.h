// FaultHarness: runs fault_writer (FaultWriter.cpp) under the shim
// (FaultShim.c) and judges what it left.
//
// runWriter starts the writer, with the shim preloaded and the given WZF_*
// variables and settings, and parses its report stream into operations and
// snapshots. readEither opens a directory the way a user would and answers
// what it holds, or why it cannot be trusted. matchPrefix decides whether
// that content is the state after some prefix of the operations: the only
// states that ever existed. makeRecord gives the table mode's record images.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/GenericSchemaTable.h"
#include "support/TempDir.h"

namespace faults {
namespace fs = std::filesystem;

// A number from the environment (a soak run's settings), or `fallback`.
inline unsigned long long envOr(const char* name, unsigned long long fallback) {
  const char* v = std::getenv(name);
  return v && *v ? std::strtoull(v, nullptr, 10) : fallback;
}

// key -> value; a key absent from the map is absent from the table.
using State = std::map<std::string, long long>;

struct Operation {
  std::string key;
  long long value = 0;  // -1: a delete
  bool acked = false;
  int failed = 0;       // the status of a failed operation
};

struct Snapshot {
  long id = 0;
  size_t begun = 0;     // operations begun before it (failed ones excluded)
  size_t acked = 0;     // operations acknowledged before it
  size_t durable = 0;   // acknowledged before a completed sync of the log began
};

struct WriterRun {
  int exitCode = -1;    // -1: ended by a signal
  int signal = 0;
  std::string output;
  std::vector<Operation> ops;       // in order, failed ones included
  std::vector<Snapshot> snapshots;
  std::vector<std::string> logged;  // L lines (level -1)
  int firstFailure = 0;             // status of the first F or E line
  bool failed = false;              // an F or E line, whatever its status
  size_t acked() const { return size_t(std::count_if(ops.begin(), ops.end(), [](auto& op) { return op.acked; })); }
};

struct RunOptions {
  RunOptions(std::vector<std::string> a = {}, std::map<std::string, std::string> e = {}) : args(a), env(e) {}
  std::vector<std::string> args;           // after the program name
  std::map<std::string, std::string> env;  // WZF_* and FAULT_*
  int syncIntervalMs = 60000;
  int logLimitMiB = 64;
};

// Runs the writer (under the shim when WZF_DIR is set) and parses its stream.
WriterRun runWriter(const RunOptions& options);

// A line of a shim trace: "n class call file site".
struct TracedCall {
  long n;
  std::string klass, call, file, site;
};
// Runs `options` on a fresh copy of `start` at `dir` (the directory the
// writer's arguments name), the shim watching it.
WriterRun runOnCopy(const std::string& start, const std::string& dir, RunOptions options);
// The same, answering the calls the shim counted.
std::vector<TracedCall> countCalls(const std::string& start, const std::string& dir, RunOptions options,
                                   const std::string& trace);

// What a directory holds. `status` is the open's status (0 ok), `problem` a
// consistency failure (empty when consistent).
struct Content {
  int status = 0;
  std::string problem;
  State state;
};
// What DIR holds, read as a user would. The generic table DIR/WzScanDB of
// table mode: open, checkConsistency, every record whole and under its own
// key (key ids below `keys`). The scan database in DIR (`database`):
// initialize, checkConsistency, validateTree, the record count, and the
// reference time of every key of `base` and `ops`.
Content readEither(bool database, const std::string& dir, unsigned keys, const State& base,
                   const std::vector<Operation>& ops);

// The largest p in [lo, hi] such that `base` with the first p successful
// operations of `ops` applied equals `actual`, or nothing.
std::optional<size_t> matchPrefix(const State& base, const std::vector<Operation>& ops,
                                  const State& actual, size_t lo, size_t hi);
// `base` with every acknowledged operation of `ops` applied.
State applyAcked(State base, const std::vector<Operation>& ops);

// Copies everything in `from` into `to` (made if missing).
void copyDir(const std::string& from, const std::string& to);
std::string describe(const State& s, size_t max = 8);

inline uint64_t mix64(uint64_t x) {
  x += 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

// The image of key `keyId` at `version`, a pure function of the two: parents
// from 48 folders (long runs of one index-1 prefix), names of every length up
// to the whole field, some sharing a 56-byte prefix (duplicate index-1 keys).
inline SGenericRecord makeRecord(uint32_t keyId, uint32_t version) {
  SGenericRecord r;
  std::memset(&r, 0, sizeof r);
  const uint64_t guid[2] = {mix64(2ULL * keyId + 1), mix64(2ULL * keyId + 2)};
  std::memcpy(r.guid, guid, 16);
  uint64_t h = mix64((uint64_t(keyId) << 32) ^ version);
  const uint64_t parent[2] = {mix64(h % 48), 0};
  std::memcpy(r.parent_guid, parent, 16);
  for (size_t i = 0; i < sizeof r.stat_data; i += 8) std::memcpy(r.stat_data + i, &(h = mix64(h)), 8);
  r.refTime = version;
  r.flags = uint8_t(version & 3);
  char tag[24];
  const int n = std::snprintf(tag, sizeof tag, "k%u.v%u", keyId, version);
  const size_t length = 24 + h % (sizeof r.sname - 23);  // 24 to 255 (no terminator)
  std::memset(r.sname, h % 3 ? 'z' : 'p', length - size_t(n));
  std::memcpy(r.sname + length - size_t(n), tag, size_t(n));
  return r;
}

}  // namespace faults
