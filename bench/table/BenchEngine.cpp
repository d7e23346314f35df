// The table engine under test, driven the way the scan database drives it:
// locate by key, then modify or delete the current record.
#include <sys/stat.h>

#include <cstring>

#include "BenchBackend.h"

uint64_t fileBytes(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? uint64_t(st.st_size) : 0;
}

namespace {

class EngineBackend : public BenchBackend {
 public:
  const char* name() const override { return "engine"; }

  void create(const std::string& directory) override {
    name_ = directory + "/WzScanDB";
    table_ = std::make_unique<GenericSchemaTable>();
    check(table_->createTable(name_), "create");
  }

  void reopen() override {
    close();
    table_ = std::make_unique<GenericSchemaTable>();
    check(table_->openTable(name_), "open");
  }

  void close() override {
    if (table_) check(table_->close(), "close");
    table_.reset();
  }

  uint64_t bytesOnDisk() const override {
    return fileBytes(name_ + ".dat") + fileBytes(name_ + ".idx");
  }

  void add(const SGenericRecord& record) override {
    SGenericRecord copy = record;
    check(table_->addRecord(&copy), "addRecord");
  }

  bool read(const uint8_t guid[16], SGenericRecord* out) override {
    locateKey(guid);
    const int status = table_->getRecord(0, key_.bytes, out);
    if (status == TBL_NOT_FOUND) return false;
    check(status, "getRecord");
    return true;
  }

  uint64_t children(const uint8_t parent[16]) override {
    SGenericRecord probe;
    std::memset(&probe, 0, sizeof probe);
    std::memcpy(probe.parent_guid, parent, 16);
    check(table_->buildKey(1, probe, &key_), "key 1");
    SGenericRecord rec;
    uint64_t count = 0;
    int status = table_->getGTERecord(1, key_.bytes, &rec);
    while (status == TBL_OK && std::memcmp(rec.parent_guid, parent, 16) == 0) {
      ++count;
      status = table_->nextRecord(1, &rec);
    }
    if (status != TBL_OK && status != TBL_NOT_FOUND) check(status, "children");
    return count;
  }

  void modify(const SGenericRecord& record) override {
    SGenericRecord current, copy = record;
    if (!read(record.guid, &current)) benchFail(name(), "modify: record missing", 0);
    check(table_->modifyRecord(&copy), "modifyRecord");
  }

  void remove(const uint8_t guid[16]) override {
    SGenericRecord current;
    if (!read(guid, &current)) benchFail(name(), "delete: record missing", 0);
    check(table_->deleteRecord(), "deleteRecord");
  }

  uint64_t walk() override {
    SGenericRecord rec;
    uint64_t count = 0;
    int status = table_->firstRecord(-1, &rec);
    for (; status == TBL_OK; status = table_->nextRecord(-1, &rec)) ++count;
    if (status != TBL_NOT_FOUND) check(status, "walk");
    return count;
  }

  void rebuild() override {
    if (table_->suspendIndexing() == -1) benchFail(name(), "suspendIndexing", -1);
    check(table_->resumeIndexingAndRebuild(), "resumeIndexingAndRebuild");
  }

 private:
  void locateKey(const uint8_t guid[16]) {
    SGenericRecord probe;
    std::memcpy(probe.guid, guid, 16);
    check(table_->buildKey(0, probe, &key_), "key 0");
  }

  void check(int status, const char* what) {
    if (status != TBL_OK) {
      std::fprintf(stderr, "engine: %s: %s\n", what, TCtreeTable::errToString(status));
      benchFail(name(), what, status);
    }
  }

  std::string name_;
  std::unique_ptr<GenericSchemaTable> table_;
  GenericKey key_;
};

}  // namespace

std::unique_ptr<BenchBackend> makeEngineBackend() { return std::make_unique<EngineBackend>(); }
