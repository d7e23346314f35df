#include "CrashWriter.h"

#include <unistd.h>

#include <cstring>
#include <random>

namespace crashtest {
namespace {

class Writer {
 public:
  Writer(WriterModel model, uint64_t seed, int fd)
      : model_(std::move(model)), rng_(seed), fd_(fd) {}

  [[noreturn]] void run(const std::string& name) {
    send(kBegin, kOpOpen, 0, 0);
    int status = table_.openTable(name);
    if (status != TBL_OK) fail(kOpOpen, status, 0);
    send(kAck, kOpOpen, 0, 0);
    // Half the writers rebuild in small sort runs, so a kill may land while
    // runs are spilled and merged.
    if (rng_() % 2) table_.setRebuildMemoryLimit(16 << 10);
    const uint32_t keys = uint32_t(model_.state.size());
    for (;;) {
      const uint32_t key = uint32_t(rng_() % keys);
      const unsigned dice = unsigned(rng_() % 1000);
      if (model_.state[key] == kAbsent) {
        if (dice < 8)
          suspendedBatch();
        else
          add(key);
      } else if (dice < 420) {
        modify(key, false);
      } else if (dice < 560) {
        modify(key, true);
      } else if (dice < 920) {
        erase(key);
      } else {
        duplicateAdd(key);
      }
    }
  }

 private:
  void send(Phase phase, Op op, uint32_t key, int64_t version, int status = 0) {
    Message m{seq_++, uint8_t(phase), uint8_t(op), uint16_t(status), key,
              uint32_t(version)};
    // A 16-byte write to a pipe is atomic; the parent reads continuously.
    if (::write(fd_, &m, sizeof m) != sizeof m) _exit(4);
  }

  [[noreturn]] void fail(Op op, int status, uint32_t key) {
    send(kFailed, op, key, 0, status == 0 ? 0xFFFF : status);
    _exit(3);
  }

  void add(uint32_t key) {
    const uint32_t v = model_.nextVersion[key]++;
    SGenericRecord rec = makeRecord(key, v);
    send(kBegin, kOpAdd, key, v);
    int status = table_.addRecord(&rec);
    if (status != TBL_OK) fail(kOpAdd, status, key);
    model_.state[key] = v;
    send(kAck, kOpAdd, key, v);
  }

  // Locates the stored record of `key` through index 0, or through index 1
  // (walking the duplicates of its parent+name prefix) when `byParent`.
  void locate(uint32_t key, bool byParent, Op op) {
    const SGenericRecord expected = makeRecord(key, uint32_t(model_.state[key]));
    SGenericRecord found;
    GenericKey k;
    int status = table_.buildKey(byParent ? 1 : 0, expected, &k);
    if (status != TBL_OK) fail(op, status, key);
    status = table_.getRecord(byParent ? 1 : 0, k.bytes, &found);
    while (status == TBL_OK && byParent &&
           std::memcmp(found.guid, expected.guid, sizeof found.guid) != 0) {
      GenericKey fk;
      table_.buildKey(1, found, &fk);
      if (fk.length != k.length || std::memcmp(fk.bytes, k.bytes, size_t(k.length)) != 0) {
        status = TBL_NOT_FOUND;  // left the run of equal keys without a match
        break;
      }
      status = table_.nextRecord(1, &found);
    }
    if (status != TBL_OK) fail(op, status, key);
    if (std::memcmp(&found, &expected, sizeof found) != 0) fail(op, 0, key);
  }

  void modify(uint32_t key, bool byParent) {
    const Op op = byParent ? kOpModifyByParent : kOpModify;
    locate(key, byParent, op);
    const uint32_t v = model_.nextVersion[key]++;
    SGenericRecord rec = makeRecord(key, v);
    send(kBegin, op, key, v);
    int status = table_.modifyRecord(&rec);
    if (status != TBL_OK) fail(op, status, key);
    model_.state[key] = v;
    send(kAck, op, key, v);
  }

  void erase(uint32_t key) {
    locate(key, false, kOpDelete);
    send(kBegin, kOpDelete, key, kAbsent);
    int status = table_.deleteRecord();
    if (status != TBL_OK) fail(kOpDelete, status, key);
    model_.state[key] = kAbsent;
    send(kAck, kOpDelete, key, kAbsent);
  }

  void duplicateAdd(uint32_t key) {
    // Same guid, other contents: the unique index must refuse it.
    SGenericRecord rec = makeRecord(key, model_.nextVersion[key] + 7);
    send(kBegin, kOpDuplicateAdd, key, model_.state[key]);
    int status = table_.addRecord(&rec);
    if (status != TBL_DUPLICATE_KEY) fail(kOpDuplicateAdd, status, key);
    send(kAck, kOpDuplicateAdd, key, model_.state[key]);
  }

  // Indexing off, a few adds that touch only the data file, then the rebuild.
  void suspendedBatch() {
    send(kBegin, kOpSuspend, 0, 0);
    if (table_.suspendIndexing() == -1) fail(kOpSuspend, 0, 0);
    send(kAck, kOpSuspend, 0, 0);
    const uint32_t keys = uint32_t(model_.state.size());
    const int count = 1 + int(rng_() % 40);
    for (int i = 0; i < count; ++i) {
      const uint32_t key = uint32_t(rng_() % keys);
      if (model_.state[key] == kAbsent) add(key);
    }
    send(kBegin, kOpRebuild, 0, 0);
    int status = table_.resumeIndexingAndRebuild();
    if (status != TBL_OK) fail(kOpRebuild, status, 0);
    send(kAck, kOpRebuild, 0, 0);
  }

  WriterModel model_;
  std::mt19937_64 rng_;
  int fd_;
  uint32_t seq_ = 0;
  GenericSchemaTable table_;
};

}  // namespace

void runWriter(const std::string& name, WriterModel model, uint64_t seed, int fd) {
  // The writer object is deliberately never destroyed: the process ends by
  // SIGKILL or _exit, never by an orderly close.
  auto* writer = new Writer(std::move(model), seed, fd);
  writer->run(name);
}

}  // namespace crashtest
