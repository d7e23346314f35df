// killed_record_writer DBDIR ROUND SEED: opens (or creates) a generic scan
// database and performs random record operations until it is killed, in
// folder /k<ROUND>: add a file, update a file's reference time, delete a
// file. Before each operation it writes "B <op> <path> <refTime>" to
// standard output and after it returned success "A <op> <path> <refTime>",
// each line with one write(2), so a reader of the pipe knows every
// operation that was acknowledged and the one in flight when it died.
// op is G (add a folder), F (add a file), U (update), D (delete).
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "WzScanDB/WzScanDBExports.h"
#include "runtime/LogWriter.h"

namespace {

void Line(char phase, char op, const std::string& path, unsigned long long refTime) {
  const std::string text = std::string(1, phase) + " " + op + " " + path + " " +
                           std::to_string(refTime) + "\n";
  if (write(STDOUT_FILENO, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    _exit(3);
}

WzScanDBRecordBasePtr Generic(const std::string& path, bool isDir, unsigned long long refTime) {
  WzScanDBRecordPtr record;
  std::string text = path;
  CreateGlusterRecordObject(record, text, isDir, refTime);
  return record;
}

void Check(const CKoError& err, const std::string& what) {
  if (err.IsError()) {
    std::fprintf(stderr, "%s: %s\n", what.c_str(), err.AsString().c_str());
    _exit(4);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: killed_record_writer DBDIR ROUND SEED\n");
    return 2;
  }
  g_ptrLogWriter->SetNone();
  std::string directory = argv[1];
  const unsigned long long round = std::strtoull(argv[2], nullptr, 10);
  std::mt19937_64 rng(std::strtoull(argv[3], nullptr, 10));
  const unsigned long long refTime = 1000 + round;

  WzScanDBRecordPtr prototype;
  CreateGlusterEmptyRecordObject(prototype);
  WzScanDBPtr db;
  CreateWzScanDBObject(db, prototype);
  CKoError err;
  WzScanDBObjectInitialize(db, directory, err);
  Check(err, "initialize");
  WzScanDBObjectSetRefTime(db, refTime);

  const std::string folder = "/k" + std::to_string(round);
  for (const std::string& path : {std::string("/"), folder}) {
    Line('B', 'G', path, refTime);
    WzScanDBObjectAddFolder(db, Generic(path, true, 0), err);
    Check(err, "addFolder " + path);
    Line('A', 'G', path, refTime);
  }

  std::vector<std::string> live;
  for (unsigned long long serial = 0;; ++serial) {
    const unsigned roll = static_cast<unsigned>(rng() % 4);
    if (live.empty() || roll < 2) {
      const std::string path = folder + "/f" + std::to_string(serial);
      Line('B', 'F', path, refTime);
      WzScanDBObjectAddFile(db, Generic(path, false, 0), err);
      Check(err, "addFile " + path);
      Line('A', 'F', path, refTime);
      live.push_back(path);
      continue;
    }
    const size_t at = static_cast<size_t>(rng() % live.size());
    const std::string path = live[at];
    if (roll == 2) {
      const unsigned long long newTime = 2000000 + rng() % 1000000;
      Line('B', 'U', path, newTime);
      WzScanDBObjectUpdateDBRecord(db, Generic(path, false, newTime), err);
      Check(err, "update " + path);
      Line('A', 'U', path, newTime);
    } else {
      Line('B', 'D', path, 0);
      WzScanDBObjectRemoveFile(db, Generic(path, false, 0), err);
      Check(err, "removeFile " + path);
      Line('A', 'D', path, 0);
      live[at] = live.back();
      live.pop_back();
    }
  }
}
