// The writer side of the crash test and what it shares with the checker.
//
// runWriter runs in a forked child, applies random writes to the table and
// reports each one over a pipe: a Begin message before the call and an Ack
// once the call returned success. It never returns; the parent ends it with
// SIGKILL. The image of record `keyId` at `version` is a pure function of the
// two numbers, so the checker knows every byte the table must hold from the
// (keyId, version) pairs alone.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/GenericSchemaTable.h"

namespace crashtest {

inline uint64_t mix64(uint64_t x) {
  x += 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

inline void fillGuid(uint32_t id, uint8_t* out) {
  const uint64_t half[2] = {mix64(2ULL * id + 1), mix64(2ULL * id + 2)};
  std::memcpy(out, half, 16);
}

// Parents are drawn from 48 folder identifiers above every key, so index 1
// holds long runs of one prefix. Names vary in length up to the whole field
// without a terminator; a 56-byte shared prefix gives duplicate keys.
inline SGenericRecord makeRecord(uint32_t keyId, uint32_t version) {
  SGenericRecord r;
  std::memset(&r, 0, sizeof r);
  fillGuid(keyId, r.guid);
  const uint64_t h = mix64((uint64_t(keyId) << 32) ^ version);
  fillGuid(0x40000000u + uint32_t(h % 48), r.parent_guid);
  uint64_t s = h;
  for (size_t i = 0; i < sizeof r.stat_data; i += 8) {
    s = mix64(s);
    std::memcpy(r.stat_data + i, &s, 8);
  }
  r.refTime = version;
  r.flags = uint8_t(version & 3);
  switch ((h >> 8) % 5) {
    case 0: std::snprintf(r.sname, sizeof r.sname, "k%u.v%u", keyId, version); break;
    case 1: std::snprintf(r.sname, sizeof r.sname, "file-%07u-%06u.dat", keyId, version % 1000000); break;
    case 2:
      std::memset(r.sname, 'p', 56);
      std::snprintf(r.sname + 56, sizeof r.sname - 56, "-%u-%u", keyId, version);
      break;
    case 3:
      std::snprintf(r.sname, sizeof r.sname, "Mixed_Case_Name_%u_%u_%s", keyId, version,
                    "with a tail that makes the variable part longer");
      break;
    default:
      std::memset(r.sname, 'z', sizeof r.sname);
      std::snprintf(r.sname, 24, "full-%u-%u", keyId, version);
      r.sname[std::strlen(r.sname)] = 'z';
  }
  return r;
}

// Messages the writer sends over the pipe; 16 bytes, so each write is atomic.
enum Phase : uint8_t { kBegin, kAck, kFailed };
enum Op : uint8_t {
  kOpOpen,
  kOpAdd,
  kOpModify,          // located through index 0
  kOpModifyByParent,  // located through index 1, key bytes change
  kOpDelete,
  kOpDuplicateAdd,  // must be refused and change nothing
  kOpSuspend,
  kOpRebuild,
  kOpReopen,  // a close (a checkpoint, the log removed) and an open
};
inline bool isRecordOp(uint8_t op) { return op >= kOpAdd && op <= kOpDuplicateAdd; }

struct Message {
  uint32_t seq;
  uint8_t phase;
  uint8_t op;
  uint16_t status;   // engine status of a failed operation; 0xFFFF: wrong record read
  uint32_t keyId;
  uint32_t version;  // version after the operation; kAbsent for a delete
};
static_assert(sizeof(Message) == 16, "pipe messages are 16 bytes");

constexpr int64_t kAbsent = -1;

struct WriterModel {
  std::vector<int64_t> state;         // per key: kAbsent or the stored version
  std::vector<uint32_t> nextVersion;  // per key: the next unused version
};

// Opens the table `name`, then writes forever; `model` is the table's content
// when the writer starts. A step that does not behave as the model predicts
// is reported as a Failed message and ends the process with code 3.
[[noreturn]] void runWriter(const std::string& name, WriterModel model, uint64_t seed, int fd);

}  // namespace crashtest
