// SpillingFifo: a first-in-first-out queue of byte strings that keeps at most
// a set amount of memory, whatever it holds.
//
// Entries are packed one after the other (a length, then the bytes) in two
// buffers: the front, which pop() reads, and the back, which push() fills.
// When the back reaches half the memory bound while older entries are still
// waiting, it is appended to a ScratchFile (in the directory given, else the
// system's temporary directory), and the front is refilled from that file in
// order as it drains; the file goes when the queue is empty or cleared. So a
// queue that stays within the bound never touches the disk, and one that does
// not costs a sequential write and read of what did not fit.
//
// push() and pop() return 0 or the errno value of a failed spill or read
// back; the queue keeps its entries after a failed push. Not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "WzScanDB/ScratchFile.h"

namespace WzScanDBInternal {

class SpillingFifo {
 public:
  SpillingFifo(size_t memoryBytes, std::string spillDirectory);
  SpillingFifo(const SpillingFifo&) = delete;
  SpillingFifo& operator=(const SpillingFifo&) = delete;

  // New bound and spill directory, for the data pushed from now on.
  void configure(size_t memoryBytes, std::string spillDirectory);

  bool empty() const { return count_ == 0; }
  uint64_t size() const { return count_; }

  int push(const char* data, size_t size);
  int push(const std::string& entry) { return push(entry.data(), entry.size()); }
  // Takes the oldest entry into `entry`. The queue must not be empty.
  int pop(std::string& entry);
  // Drops every entry and the file.
  void clear();

 private:
  int spillBack();
  int readMore();
  int takeBack();
  void reset();

  size_t half_;
  std::string spillDirectory_;
  std::string front_;      // entries being read, from frontPos_ on
  size_t frontPos_ = 0;
  std::string back_;       // entries pushed since the last spill
  ScratchFile file_;       // entries older than back_, newer than front_
  uint64_t fileRead_ = 0;  // bytes of the file already in front_
  uint64_t fileWritten_ = 0;
  uint64_t count_ = 0;
};

}  // namespace WzScanDBInternal
