// core_bench: what the scan database layer costs on top of the table engine.
//
// Two tables with the generic 440-byte schema, one driven through WzScanDB
// (addDBRecord, checkDBRecord, updateDBRecord) and one through the bare
// engine doing the same work with the same keys (addRecord; key build +
// getRecord; key build + getRecord + modifyRecord). The records are made
// from their number by the same cheap function on both sides, so only the
// layer differs. The phases run in alternating chunks so that a change in
// machine load hits both sides alike. Prints ns/op and the ratio per phase.
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <boost/make_shared.hpp>

#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "runtime/CTimeStamp.h"
#include "runtime/LogWriter.h"
#include "support/GenericSchemaTable.h"
#include "support/TempDir.h"

namespace {

uint64_t Mix(uint64_t x) {  // splitmix64: MD5-like spread of the identifiers
  x += 0x9E3779B97F4A7C15ULL;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
  return x ^ (x >> 31);
}

// Record number `i` in a folder of 1000 entries, with reference time `t`.
void MakeImage(uint64_t i, uint32_t t, SGenericRecord* image) {
  std::memset(image, 0, sizeof *image);
  uint64_t id[2] = {Mix(2 * i), Mix(2 * i + 1)};
  uint64_t parent[2] = {Mix(~(i / 1000)), Mix(i / 1000)};
  std::memcpy(image->guid, id, 16);
  std::memcpy(image->parent_guid, parent, 16);
  image->refTime = t;
  std::snprintf(image->sname, sizeof image->sname, "file-%llu.dat", (unsigned long long)i);
}

double Now() { return CTimeStamp::Monotonic().Nanoseconds() / 1e9; }

struct Phase {
  const char* name;
  double engine = 0, layer = 0;
  int failures = 0;
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"WzScanDB layer cost against the bare table engine"};
  uint64_t records = 1000000;
  int chunks = 10;
  double target = 1.30;
  std::string base;
  app.add_option("-n,--records", records, "records per phase");
  app.add_option("--chunks", chunks, "alternating chunks per phase");
  app.add_option("--target", target, "largest acceptable layer/engine ratio");
  app.add_option("--dir", base, "directory for the two databases (default: a temporary one)");
  CLI11_PARSE(app, argc, argv);

  g_ptrLogWriter->SetNone();
  TempDir temp;
  if (base.empty()) base = temp.path();
  const std::string engineDir = base + "/engine", layerDir = base + "/layer";
  mkdir(engineDir.c_str(), 0700);
  mkdir(layerDir.c_str(), 0700);

  GenericSchemaTable engine;
  if (int status = engine.createTable(engineDir + "/WzScanDB")) {
    std::fprintf(stderr, "engine table: %s\n", TCtreeTable::errToString(status));
    return 1;
  }
  WzScanDB db(boost::make_shared<WzScanDBRecord>());
  CKoError error = db.initialize(layerDir);
  if (error.IsError()) {
    std::fprintf(stderr, "database: %s\n", error.AsString().c_str());
    return 1;
  }

  SGenericRecord image, readBack;
  GenericKey key;
  auto record = boost::make_shared<WzScanDBRecord>();
  WzScanDBRecordBasePtr recordBase = record;
  WzScanDBRecordBasePtr out = record->Clone();
  SGenericRecord* recordImage = static_cast<SGenericRecord*>(record->getStructure());

  Phase add{"add"}, check{"check"}, update{"update"};
  struct Step {
    Phase* phase;
    std::function<bool(uint64_t)> engine, layer;
  };
  std::vector<Step> steps = {
      {&add, [&](uint64_t i) {
         MakeImage(i, 1, &image);
         return engine.addRecord(&image) == TBL_OK;
       },
       [&](uint64_t i) {
         MakeImage(i, 1, recordImage);
         return db.addDBRecord(recordBase).IsSuccess();
       }},
      {&check, [&](uint64_t i) {
         MakeImage(i, 1, &image);
         return engine.buildKey(0, image, &key) == TBL_OK &&
                engine.getRecord(0, key.bytes, &readBack) == TBL_OK;
       },
       [&](uint64_t i) {
         MakeImage(i, 1, recordImage);
         bool found = false;
         return db.checkDBRecord(recordBase, out, found).IsSuccess() && found;
       }},
      {&update, [&](uint64_t i) {
         MakeImage(i, 2, &image);
         return engine.buildKey(0, image, &key) == TBL_OK &&
                engine.getRecord(0, key.bytes, &readBack) == TBL_OK &&
                engine.modifyRecord(&image) == TBL_OK;
       },
       [&](uint64_t i) {
         MakeImage(i, 2, recordImage);
         return db.updateDBRecord(recordBase).IsSuccess();
       }},
  };

  const uint64_t chunk = (records + chunks - 1) / chunks;
  for (Step& step : steps) {
    for (uint64_t from = 0; from < records; from += chunk) {
      const uint64_t to = std::min(records, from + chunk);
      double start = Now();
      for (uint64_t i = from; i < to; ++i) step.phase->failures += !step.engine(i);
      double middle = Now();
      for (uint64_t i = from; i < to; ++i) step.phase->failures += !step.layer(i);
      double end = Now();
      step.phase->engine += middle - start;
      step.phase->layer += end - middle;
    }
  }
  db.close();
  engine.close();

  std::printf("%-8s %14s %14s %8s  (%llu records, target ratio <= %.2f)\n", "phase",
              "engine ns/op", "layer ns/op", "ratio", (unsigned long long)records, target);
  bool ok = true;
  for (Phase* phase : {&add, &check, &update}) {
    double ratio = phase->layer / phase->engine;
    ok = ok && ratio <= target && phase->failures == 0;
    std::printf("%-8s %14.0f %14.0f %8.3f%s\n", phase->name, phase->engine * 1e9 / records,
                phase->layer * 1e9 / records, ratio,
                phase->failures ? "  (operations failed!)" : "");
  }
  std::printf("%s\n", ok ? "within target" : "NOT within target");
  return ok ? 0 : 2;
}
