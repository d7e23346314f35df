// RenameCandidates: the entries a scan met that the database did not hold
// (arrivals) and the records it held that the file system no longer has
// (departures), kept until the whole tree has been read, then paired up as
// renames and moves by device and inode number.
//
// A pair must also agree on the kind (folder or not); a generic file must
// keep its size and modification time as well, so that a file deleted and
// another one created on its freed inode are not taken for a rename (Lustre
// FIDs are never reused: there the inode alone decides). Each departure pairs
// with at most one arrival, the first in scan order.
//
// At most `limit` entries of each side are kept (a few tens of MB); past it
// Add... answers false and the scan handles the entry at once as new or
// removed, so memory stays bounded whatever the size of the change.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <vector>

#include "RecordTypes.h"

struct Arrival {
  std::string path;
  std::string name;
  struct stat st = {};
  std::string parentKey;  // own key of the folder it arrived in
  bool hasIdentity = false;
  char identity[24] = {};
};

struct Departure {
  std::string path;
  std::vector<char> image;  // the record as stored
};

class RenameCandidates {
 public:
  RenameCandidates(RecordType type, size_t limit) : type_(type), limit_(limit) {}

  bool AddArrival(Arrival&& arrival);
  bool AddDeparture(Departure&& departure, const struct stat& st, bool isDir);

  const std::vector<Arrival>& arrivals() const { return arrivals_; }
  const std::vector<Departure>& departures() const { return departures_; }

  // For each arrival, the index of its departure, or -1.
  std::vector<long> Pair() const;

 private:
  struct DepartureKey {
    struct stat st;
    bool isDir;
  };
  RecordType type_;
  size_t limit_;
  std::vector<Arrival> arrivals_;
  std::vector<Departure> departures_;
  std::vector<DepartureKey> departureKeys_;
};
