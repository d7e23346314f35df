// Fuzz target: a table's data and index files made of arbitrary bytes.
//
// Input layout: byte 0 holds option bits (1: open read-only, 2: after the
// walks, add and delete one record), bytes 1-4 the length of the data file's
// part (little-endian, clamped), then the data file's bytes, then the index
// file's bytes. The pair is written as WzScanDB.dat / WzScanDB.idx in a
// private directory and opened with the generic record's schema. Whatever
// open answers, nothing may crash or hang; a table that opens is walked in
// physical order and along both indexes (both directions), every record read
// is looked up again by its keys, and the consistency check runs.
//
// With WZ_FUZZ_WRITE_SEEDS=<dir> in the environment, the target instead writes
// a few well-formed inputs (real tables) into <dir> and exits: scripts/fuzz.sh
// uses them as the starting corpus.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "runtime/LogWriter.h"
#include "support/GenericSchemaTable.h"

namespace {

constexpr size_t kHeaderBytes = 5;
constexpr int kMaxSteps = 4096;  // bound on each walk: a damaged tree must not loop us

std::string g_dir;

std::string TableName() { return g_dir + "/WzScanDB"; }

void WriteFile(const std::string& path, const uint8_t* data, size_t size) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) std::abort();
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n <= 0) std::abort();
    data += n;
    size -= static_cast<size_t>(n);
  }
  ::close(fd);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void Walk(GenericSchemaTable& table, int index, bool forward) {
  SGenericRecord record;
  int status = forward ? table.firstRecord(index, &record) : table.lastRecord(index, &record);
  for (int steps = 0; status == TBL_OK && steps < kMaxSteps; ++steps)
    status = forward ? table.nextRecord(index, &record) : table.previousRecord(index, &record);
}

// Reads records in physical order and looks each one up on both indexes.
void LookUpEach(GenericSchemaTable& table) {
  std::vector<SGenericRecord> records;
  SGenericRecord record;
  int status = table.firstRecord(-1, &record);
  while (status == TBL_OK && records.size() < 64) {
    records.push_back(record);
    status = table.nextRecord(-1, &record);
  }
  for (const SGenericRecord& stored : records) {
    for (int index = 0; index < 2; ++index) {
      GenericKey key;
      if (table.buildKey(index, stored, &key) != TBL_OK) continue;
      table.getRecord(index, key.bytes, &record);
      table.getGTERecord(index, key.bytes, &record);
      table.getLTRecord(index, key.bytes, &record);
    }
  }
  for (int n = 1; n <= 8; ++n) table.readByOffset(&record, n, sizeof record);
}

void AddAndDelete(GenericSchemaTable& table) {
  SGenericRecord record{};
  std::memset(record.guid, 0xA5, sizeof record.guid);
  std::strcpy(record.sname, "fuzz-probe");
  if (table.addRecord(&record) != TBL_OK) return;
  GenericKey key;
  if (table.buildKey(0, record, &key) == TBL_OK && table.getRecord(0, key.bytes, &record) == TBL_OK)
    table.deleteRecord();
}

void MakeSeed(const std::string& outDir, const char* name, int records, int deleted) {
  GenericSchemaTable table;
  if (table.createTable(TableName()) != TBL_OK) std::abort();
  for (int i = 0; i < records; ++i) {
    SGenericRecord record{};
    std::memcpy(record.guid, &i, sizeof i);
    const int parent = i / 7;
    std::memcpy(record.parent_guid, &parent, sizeof parent);
    std::snprintf(record.sname, sizeof record.sname, "entry-%d-%s", i,
                  i % 5 == 0 ? "with-a-name-long-enough-to-pass-the-56-byte-key-prefix-of-index-1"
                             : "x");
    record.refTime = static_cast<uint32_t>(i * 13);
    record.flags = static_cast<uint8_t>(i & 1);
    if (table.addRecord(&record) != TBL_OK) std::abort();
  }
  for (int i = 0; i < deleted; ++i) {
    SGenericRecord record;
    if (table.firstRecord(0, &record) != TBL_OK || table.deleteRecord() != TBL_OK) std::abort();
  }
  table.close();
  const std::string dat = ReadFile(TableName() + ".dat");
  const std::string idx = ReadFile(TableName() + ".idx");
  ::unlink((TableName() + ".dat").c_str());
  ::unlink((TableName() + ".idx").c_str());
  for (uint8_t options = 0; options < 4; ++options) {
    std::string input(1, static_cast<char>(options));
    const uint32_t datLength = static_cast<uint32_t>(dat.size());
    for (int b = 0; b < 4; ++b) input.push_back(static_cast<char>((datLength >> (8 * b)) & 0xFF));
    input += dat + idx;
    std::ofstream(outDir + "/" + name + "-" + std::to_string(options), std::ios::binary) << input;
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_ptrLogWriter->SetNone();
  g_ptrLogWriter->SetLevel(-2);
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/wz-fuzz-table-XXXXXX";
  if (!mkdtemp(pattern.data())) std::abort();
  g_dir = pattern;
  if (const char* seeds = std::getenv("WZ_FUZZ_WRITE_SEEDS")) {
    MakeSeed(seeds, "empty", 0, 0);
    MakeSeed(seeds, "small", 40, 5);
    MakeSeed(seeds, "multipage", 600, 50);
    ::rmdir(g_dir.c_str());
    std::exit(0);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kHeaderBytes) return 0;
  const uint8_t options = data[0];
  size_t datLength = data[1] | (data[2] << 8) | (data[3] << 16) | (static_cast<size_t>(data[4]) << 24);
  data += kHeaderBytes;
  size -= kHeaderBytes;
  if (datLength > size) datLength = size;
  const std::string dat = TableName() + ".dat", idx = TableName() + ".idx";
  WriteFile(dat, data, datLength);
  WriteFile(idx, data + datLength, size - datLength);
  {
    GenericSchemaTable table;
    const auto mode = (options & 1) ? WZIndexing::kAccessReadOnly : WZIndexing::kAccessReadWrite;
    if (table.openTable(TableName(), mode) == TBL_OK) {
      for (int index = -1; index < 2; ++index) {
        Walk(table, index, true);
        Walk(table, index, false);
      }
      LookUpEach(table);
      std::string report;
      table.checkConsistency(&report);
      table.numberOfRecords();
      if (options & 2) AddAndDelete(table);
      table.close();
    }
  }
  ::unlink(dat.c_str());
  ::unlink(idx.c_str());
  return 0;
}
