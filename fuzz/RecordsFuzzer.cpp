// Fuzz target: arbitrary bytes as record images and record names.
//
// Byte 0 chooses the record type (generic, Lustre, backup-time) and how the
// rest of the input reaches it: as a record image through setStructure (the
// way records come back from a table file), or as the path or name given to a
// constructor. The record then answers every query the database puts to it:
// its texts (getName, toString, toCSV, toCSVHeader), its flags and times, the
// key requests of each index (own key, parent key, from parent), which the
// database's key builder turns into engine keys through a schema registered
// on a table object without files. Nothing may crash, and every key must fit
// the buffer its request asks for.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>

#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/BackupTimeRecord.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "runtime/LogWriter.h"

namespace {

constexpr int kTypes = 3;
WzScanDB* g_db[kTypes];

WzScanDBRecordBasePtr EmptyRecord(int type) {
  switch (type) {
    case 0: return boost::make_shared<WzScanDBRecord>();
    case 1: return boost::make_shared<WzScanDBLustreRecord>();
    default: return boost::make_shared<CBackupTimeRecord>();
  }
}

template <typename T>
T Take(const uint8_t*& data, size_t& size) {
  T value{};
  const size_t n = size < sizeof value ? size : sizeof value;
  std::memcpy(&value, data, n);
  data += n;
  size -= n;
  return value;
}

// A record of `type` built by a constructor from the input bytes.
WzScanDBRecordBasePtr Construct(int type, const uint8_t* data, size_t size) {
  switch (type) {
    case 0: {
      const bool isDir = size > 0 && (data[0] & 1);
      const std::string path(reinterpret_cast<const char*>(data), size);
      return boost::make_shared<WzScanDBRecord>(path, isDir, size * 0x9E3779B97F4A7C15ull);
    }
    case 1: {
      const auto seq = Take<uint64_t>(data, size);
      const auto oid = Take<uint32_t>(data, size);
      const auto parentSeq = Take<uint64_t>(data, size);
      const auto parentOid = Take<uint32_t>(data, size);
      auto fid = boost::make_shared<LustreAPI::CLustreFID>(seq, oid, 0);
      auto parent = boost::make_shared<LustreAPI::CLustreFID>(parentSeq, parentOid, 0);
      const std::string name(reinterpret_cast<const char*>(data), size);
      return boost::make_shared<WzScanDBLustreRecord>(fid, parent, name, (seq & 1) != 0, oid);
    }
    default: {
      const auto inode = Take<uint64_t>(data, size);
      const auto ctime = Take<uint64_t>(data, size);
      return boost::make_shared<CBackupTimeRecord>(inode, ctime);
    }
  }
}

void BuildKey(WzScanDB& db, SPrepareIndexKeyStructure request) {
  if (request.keyBufferSize <= 0 || request.keyBufferSize > 4096) std::abort();
  // Guard bytes after the buffer catch a key builder that writes past it.
  std::vector<char> buffer(static_cast<size_t>(request.keyBufferSize) + 64, '\x5A');
  CKoError error = db.prepareIndexKey(request, buffer.data(), request.keyBufferSize);
  if (error.IsError()) std::abort();  // a record's own request must always build
  for (size_t i = static_cast<size_t>(request.keyBufferSize); i < buffer.size(); ++i)
    if (buffer[i] != '\x5A') std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_ptrLogWriter->SetNone();
  g_ptrLogWriter->SetLevel(-2);
  for (int type = 0; type < kTypes; ++type) {
    g_db[type] = new WzScanDB(EmptyRecord(type));
    // Registers the schema only: no file is created or opened.
    g_db[type]->initialize(static_cast<const char*>("fuzz-records-table"));
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const int type = data[0] % kTypes;
  const bool fromImage = (data[0] / kTypes) % 2 == 0;
  ++data;
  --size;

  WzScanDBRecordBasePtr record;
  if (fromImage) {
    record = EmptyRecord(type);
    std::vector<uint8_t> image(static_cast<size_t>(record->recordSize()), 0);
    std::memcpy(image.data(), data, size < image.size() ? size : image.size());
    record->setStructure(image.data());
  } else {
    record = Construct(type, data, size);
  }

  record->getName();
  record->toString();
  record->toCSV();
  record->toCSVHeader();
  record->getFlags();
  record->getRefTime();
  record->isDir();
  record->setFlags(record->getFlags() | 2);
  record->setRefTime(record->getRefTime() + 1);

  WzScanDBRecordBasePtr clone = record->Clone();
  WzScanDBRecordBasePtr parent = record->MakeParentObject();
  WzScanDBRecordBasePtr root = record->getRoot();
  for (int index = 0; index < 2; ++index) {
    record->checkEqualOnIndex(clone, index);
    record->checkEqualOnIndex(root, index);
  }
  record->checkParent(parent);
  record->checkParent(root);
  clone->copyStandardFields(record);
  if (parent) parent->toString();  // the backup-time record has no parent

  WzScanDB& db = *g_db[type];
  const int indexes = type == 2 ? 1 : 2;
  for (int index = 0; index < indexes; ++index) BuildKey(db, record->prepareIndexKey(index));
  BuildKey(db, record->prepareIndexKeyFromKey());
  if (type != 2) BuildKey(db, record->prepareIndexKeyFromParent());
  return 0;
}
