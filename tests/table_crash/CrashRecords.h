// Deterministic record contents for the crash test: the image of record
// `keyId` at `version` is a pure function of the two numbers, so the writer
// process only has to report (keyId, version) for the checker to know every
// byte the table must hold.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "support/GenericSchemaTable.h"

namespace crashtest {

inline uint64_t mix64(uint64_t x) {
  x += 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

inline void fillGuid(uint32_t id, uint8_t* out) {
  const uint64_t a = mix64(2ULL * id + 1), b = mix64(2ULL * id + 2);
  std::memcpy(out, &a, 8);
  std::memcpy(out + 8, &b, 8);
}

// Folders are a small set of identifiers above every record identifier, so
// many records share a parent and index 1 holds long runs of one prefix.
constexpr uint32_t kFolderBase = 0x40000000u;
constexpr uint32_t kFolders = 48;

inline SGenericRecord makeRecord(uint32_t keyId, uint32_t version) {
  SGenericRecord r;
  std::memset(&r, 0, sizeof r);
  fillGuid(keyId, r.guid);
  const uint64_t h = mix64((uint64_t(keyId) << 32) ^ version);
  fillGuid(kFolderBase + uint32_t(h % kFolders), r.parent_guid);
  uint64_t s = h;
  for (size_t i = 0; i < sizeof r.stat_data; i += 8) {
    s = mix64(s);
    std::memcpy(r.stat_data + i, &s, 8);
  }
  r.refTime = version;
  r.flags = uint8_t(version & 3);
  switch ((h >> 8) % 5) {
    case 0:  // short
      std::snprintf(r.sname, sizeof r.sname, "k%u.v%u", keyId, version);
      break;
    case 1:  // the benchmark's typical 20 bytes
      std::snprintf(r.sname, sizeof r.sname, "file-%07u-%06u.dat", keyId, version % 1000000);
      break;
    case 2:  // 56-byte shared prefix: index 1 sees duplicate keys
      std::memset(r.sname, 'p', 56);
      std::snprintf(r.sname + 56, sizeof r.sname - 56, "-%u-%u", keyId, version);
      break;
    case 3:  // medium, case-mixed
      std::snprintf(r.sname, sizeof r.sname, "Mixed_Case_Name_%u_%u_%s", keyId, version,
                    "with a tail that makes the variable part longer");
      break;
    default:  // the whole field, no terminating NUL
      std::memset(r.sname, 'z', sizeof r.sname);
      std::snprintf(r.sname, 24, "full-%u-%u", keyId, version);
      r.sname[std::strlen(r.sname)] = 'z';
      break;
  }
  return r;
}

// Messages the writer sends over the pipe; 16 bytes, so each write is atomic.
enum Phase : uint8_t { kBegin = 0, kAck = 1, kFailed = 2 };
enum Op : uint8_t {
  kOpOpen = 0,
  kOpAdd = 1,
  kOpModify = 2,          // located through index 0
  kOpModifyByParent = 3,  // located through index 1, key bytes change
  kOpDelete = 4,
  kOpDuplicateAdd = 5,    // must be refused and change nothing
  kOpSuspend = 6,
  kOpRebuild = 7,
};

struct Message {
  uint32_t seq;
  uint8_t phase;
  uint8_t op;
  uint16_t status;  // engine status of a failed operation
  uint32_t keyId;
  uint32_t version;  // version after the operation; kAbsent for a delete
};
static_assert(sizeof(Message) == 16, "pipe messages are 16 bytes");

constexpr int64_t kAbsent = -1;

}  // namespace crashtest
