// ExternalSorter: sorts fixed-size byte entries (compared with memcmp over the
// whole entry) in bounded memory.
//
// Entries are gathered in one in-memory run of at most `memoryBytes` (entries
// plus their sort permutation). A full run is sorted and spilled to an
// unlinked temporary file created next to `tempPrefix`; finish() then merges
// the runs with read buffers that together stay within `memoryBytes`. When
// everything fits in one run no file is written. Not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace wztable {

class ExternalSorter {
 public:
  ExternalSorter(size_t entrySize, size_t memoryBytes, std::string tempPrefix);
  ~ExternalSorter();
  ExternalSorter(const ExternalSorter&) = delete;
  ExternalSorter& operator=(const ExternalSorter&) = delete;

  // TBL_OK, or TBL_FILE_FULL / TBL_IO_ERROR when a run cannot be spilled.
  int add(const uint8_t* entry);
  // Ends the input; entries then come out in ascending order through next().
  int finish();
  // Points *entry at the next entry (valid until the following call); false
  // at the end. *status is set to a non-zero status on a read error.
  bool next(const uint8_t** entry, int* status);
  size_t spilledRuns() const { return runs_.size(); }

 private:
  // One spilled run: its byte range in the run file and a read buffer.
  struct Run {
    uint64_t start = 0;
    uint64_t end = 0;
    uint64_t offset = 0;  // next byte to read
    std::vector<uint8_t> buffer;
    size_t pos = 0;
    size_t len = 0;
    const uint8_t* current() const { return buffer.data() + pos; }
  };
  int spill();
  void sortBuffer();
  bool refill(Run& run, int* status);

  size_t entrySize_;
  size_t memoryBytes_;
  size_t maxEntries_;
  std::string tempPrefix_;
  std::vector<uint8_t> buffer_;
  std::vector<uint32_t> order_;
  std::vector<Run> runs_;
  int fd_ = -1;            // the run file
  uint64_t spilled_ = 0;   // bytes written to it
  std::vector<size_t> heap_;  // run numbers, smallest current entry first
  size_t cursor_ = 0;         // in-memory mode: position in order_
  bool merging_ = false;
  bool finished_ = false;
};

}  // namespace wztable
