// BenchBackend: one storage under test in the table benchmark (the engine,
// plain LMDB, SQLite), driven through the same operations with the same
// durability: every write is its own committed transaction. A backend aborts
// the program on any unexpected result; a benchmark of a wrong answer is
// worthless.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "support/GenericSchemaTable.h"

class BenchBackend {
 public:
  virtual ~BenchBackend() = default;
  virtual const char* name() const = 0;

  // Creates empty storage under `directory` and opens it.
  virtual void create(const std::string& directory) = 0;
  // Closes (flushing everything to the files) and opens again.
  virtual void reopen() = 0;
  virtual void close() = 0;
  // Bytes of all files of the storage, measured while closed.
  virtual uint64_t bytesOnDisk() const = 0;

  virtual void add(const SGenericRecord& record) = 0;
  // Exact read by guid; false when absent.
  virtual bool read(const uint8_t guid[16], SGenericRecord* out) = 0;
  // Every record whose parent is `parent`, in (parent, name) order, through a
  // greater-or-equal read followed by next reads. Returns the count.
  virtual uint64_t children(const uint8_t parent[16]) = 0;
  // Replaces the record with the same guid (located by guid first).
  virtual void modify(const SGenericRecord& record) = 0;
  virtual void remove(const uint8_t guid[16]) = 0;
  // Visits every record in storage order; returns the count.
  virtual uint64_t walk() = 0;
  // Rebuilds both indexes from the records.
  virtual void rebuild() = 0;
};

std::unique_ptr<BenchBackend> makeEngineBackend();
std::unique_ptr<BenchBackend> makeLmdbBackend();
std::unique_ptr<BenchBackend> makeSqliteBackend();

[[noreturn]] inline void benchFail(const char* backend, const char* what, long long code) {
  std::fprintf(stderr, "%s: %s failed (%lld)\n", backend, what, code);
  std::exit(2);
}

// Bytes of one file, 0 when it does not exist.
uint64_t fileBytes(const std::string& path);
