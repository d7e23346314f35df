#include "CrashWriter.h"

#include <unistd.h>

#include <random>

namespace crashtest {
namespace {

class Writer {
 public:
  Writer(WriterModel model, uint64_t seed, int fd) : model_(std::move(model)), rng_(seed), fd_(fd) {}

  [[noreturn]] void run(const std::string& name) {
    send(kBegin, kOpOpen, 0, 0);
    if (int status = table_.openTable(name)) fail(kOpOpen, status, 0);
    send(kAck, kOpOpen, 0, 0);
    // Half the writers rebuild in small sort runs, so a kill may land while
    // runs are spilled and merged.
    if (rng_() % 2) table_.setRebuildMemoryLimit(16 << 10);
    for (;;) {
      if (rng_() % 400 == 0) {
        write(kOpReopen, 0, 0, TBL_OK, [&] {
          const int status = table_.close();
          return status != TBL_OK ? status : table_.openTable(name);
        });
        continue;
      }
      const uint32_t key = uint32_t(rng_() % model_.state.size());
      const unsigned dice = unsigned(rng_() % 1000);
      if (model_.state[key] == kAbsent) dice < 8 ? suspendedBatch() : add(key);
      else if (dice < 420) modify(key, false);
      else if (dice < 560) modify(key, true);
      else if (dice < 920) erase(key);
      else duplicateAdd(key);
    }
  }

 private:
  void send(Phase phase, Op op, uint32_t key, int64_t version, int status = 0) {
    const Message m{seq_++, uint8_t(phase), uint8_t(op), uint16_t(status), key, uint32_t(version)};
    if (::write(fd_, &m, sizeof m) != sizeof m) _exit(4);
  }
  [[noreturn]] void fail(Op op, int status, uint32_t key) {
    send(kFailed, op, key, 0, status == 0 ? 0xFFFF : status);
    _exit(3);
  }
  // Runs one acknowledged write: Begin, the call, then Ack or Failed.
  template <typename Call>
  void write(Op op, uint32_t key, int64_t version, int want, Call call) {
    send(kBegin, op, key, version);
    if (int status = call(); status != want) fail(op, status, key);
    send(kAck, op, key, version);
  }

  void add(uint32_t key) {
    const uint32_t v = model_.nextVersion[key]++;
    SGenericRecord rec = makeRecord(key, v);
    write(kOpAdd, key, v, TBL_OK, [&] { return table_.addRecord(&rec); });
    model_.state[key] = v;
  }

  // Makes the stored record of `key` current through index 0, or through
  // index 1 (walking the duplicates of its parent+name key) when `byParent`.
  void locate(uint32_t key, bool byParent, Op op) {
    const int index = byParent ? 1 : 0;
    const SGenericRecord expected = makeRecord(key, uint32_t(model_.state[key]));
    SGenericRecord found;
    GenericKey k, fk;
    int status = table_.buildKey(index, expected, &k);
    if (status == TBL_OK) status = table_.getRecord(index, k.bytes, &found);
    while (status == TBL_OK && std::memcmp(found.guid, expected.guid, 16) != 0 && byParent) {
      table_.buildKey(1, found, &fk);
      if (fk.length != k.length || std::memcmp(fk.bytes, k.bytes, size_t(k.length)) != 0)
        status = TBL_NOT_FOUND;  // left the run of equal keys without a match
      else
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
    write(op, key, v, TBL_OK, [&] { return table_.modifyRecord(&rec); });
    model_.state[key] = v;
  }

  void erase(uint32_t key) {
    locate(key, false, kOpDelete);
    write(kOpDelete, key, kAbsent, TBL_OK, [&] { return table_.deleteRecord(); });
    model_.state[key] = kAbsent;
  }

  // Same guid, other contents: the unique index must refuse it.
  void duplicateAdd(uint32_t key) {
    SGenericRecord rec = makeRecord(key, model_.nextVersion[key] + 7);
    write(kOpDuplicateAdd, key, model_.state[key], TBL_DUPLICATE_KEY, [&] { return table_.addRecord(&rec); });
  }

  // Indexing off, a few adds that touch only the data file, then the rebuild.
  void suspendedBatch() {
    write(kOpSuspend, 0, 0, 0, [&] { return table_.suspendIndexing() == -1 ? -1 : 0; });
    for (int i = 0, count = 1 + int(rng_() % 40); i < count; ++i) {
      const uint32_t key = uint32_t(rng_() % model_.state.size());
      if (model_.state[key] == kAbsent) add(key);
    }
    write(kOpRebuild, 0, 0, TBL_OK, [&] { return table_.resumeIndexingAndRebuild(); });
  }

  WriterModel model_;
  std::mt19937_64 rng_;
  int fd_;
  uint32_t seq_ = 0;
  GenericSchemaTable table_;
};

}  // namespace

void runWriter(const std::string& name, WriterModel model, uint64_t seed, int fd) {
  // Never destroyed: the process ends by SIGKILL or _exit, never by a close.
  (new Writer(std::move(model), seed, fd))->run(name);
}

}  // namespace crashtest
