#include "ExternalSorter.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "table/TableStatus.h"

namespace wztable {

namespace {

int statusFromWriteErrno(int err) {
  return (err == ENOSPC || err == EFBIG || err == EDQUOT) ? TBL_FILE_FULL : TBL_IO_ERROR;
}

}  // namespace

ExternalSorter::ExternalSorter(size_t entrySize, size_t memoryBytes, std::string tempPrefix)
    : entrySize_(entrySize), memoryBytes_(memoryBytes), tempPrefix_(std::move(tempPrefix)) {
  maxEntries_ = memoryBytes_ / (entrySize_ + sizeof(uint32_t));
  if (maxEntries_ < 16) maxEntries_ = 16;
}

ExternalSorter::~ExternalSorter() {
  if (fd_ >= 0) ::close(fd_);
}

int ExternalSorter::add(const uint8_t* entry) {
  if (buffer_.size() / entrySize_ >= maxEntries_) {
    int status = spill();
    if (status != TBL_OK) return status;
  }
  buffer_.insert(buffer_.end(), entry, entry + entrySize_);
  return TBL_OK;
}

void ExternalSorter::sortBuffer() {
  const size_t count = buffer_.size() / entrySize_;
  order_.resize(count);
  for (size_t i = 0; i < count; ++i) order_[i] = static_cast<uint32_t>(i);
  const uint8_t* base = buffer_.data();
  const size_t size = entrySize_;
  std::sort(order_.begin(), order_.end(), [base, size](uint32_t a, uint32_t b) {
    return std::memcmp(base + a * size, base + b * size, size) < 0;
  });
}

int ExternalSorter::spill() {
  sortBuffer();
  if (fd_ < 0) {
    // One unlinked file holds every run, one after the other.
    std::string pattern = tempPrefix_ + ".sortXXXXXX";
    fd_ = mkostemp(pattern.data(), O_CLOEXEC);
    if (fd_ < 0) return statusFromWriteErrno(errno);
    ::unlink(pattern.c_str());
  }
  const int fd = fd_;
  Run run;
  run.start = spilled_;
  run.offset = spilled_;
  std::vector<uint8_t> out;
  out.reserve(std::min<size_t>(1 << 20, buffer_.size()) + entrySize_);
  auto flush = [&]() -> int {
    size_t done = 0;
    while (done < out.size()) {
      ssize_t n = pwrite(fd, out.data() + done, out.size() - done,
                         static_cast<off_t>(spilled_ + done));
      if (n < 0) {
        if (errno == EINTR) continue;
        return statusFromWriteErrno(errno);
      }
      done += static_cast<size_t>(n);
    }
    spilled_ += out.size();
    out.clear();
    return TBL_OK;
  };
  for (uint32_t i : order_) {
    const uint8_t* entry = buffer_.data() + static_cast<size_t>(i) * entrySize_;
    out.insert(out.end(), entry, entry + entrySize_);
    if (out.size() >= (1 << 20)) {
      int status = flush();
      if (status != TBL_OK) return status;
    }
  }
  int status = flush();
  if (status != TBL_OK) return status;
  run.end = spilled_;
  runs_.push_back(std::move(run));
  buffer_.clear();
  order_.clear();
  return TBL_OK;
}

bool ExternalSorter::refill(Run& run, int* status) {
  if (run.pos < run.len) return true;
  if (run.offset >= run.end) return false;
  size_t want = std::min<uint64_t>(run.buffer.size(), run.end - run.offset);
  size_t got = 0;
  while (got < want) {
    ssize_t n = pread(fd_, run.buffer.data() + got, want - got,
                      static_cast<off_t>(run.offset + got));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *status = TBL_IO_ERROR;
      return false;
    }
    got += static_cast<size_t>(n);
  }
  run.offset += got;
  run.pos = 0;
  run.len = got;
  return true;
}

int ExternalSorter::finish() {
  finished_ = true;
  if (runs_.empty()) {
    sortBuffer();
    cursor_ = 0;
    return TBL_OK;
  }
  if (!buffer_.empty()) {
    int status = spill();
    if (status != TBL_OK) return status;
  }
  std::vector<uint8_t>().swap(buffer_);
  std::vector<uint32_t>().swap(order_);
  merging_ = true;
  size_t perRun = memoryBytes_ / runs_.size();
  perRun = std::max<size_t>(perRun, 16 * entrySize_);
  perRun = perRun / entrySize_ * entrySize_;
  for (Run& run : runs_) run.buffer.resize(perRun);
  return TBL_OK;
}

bool ExternalSorter::next(const uint8_t** entry, int* status) {
  *status = TBL_OK;
  if (!finished_) return false;
  if (!merging_) {
    if (cursor_ >= order_.size()) return false;
    *entry = buffer_.data() + static_cast<size_t>(order_[cursor_++]) * entrySize_;
    return true;
  }
  const size_t size = entrySize_;
  auto greater = [this, size](size_t a, size_t b) {
    return std::memcmp(runs_[a].current(), runs_[b].current(), size) > 0;
  };
  if (heap_.empty() && cursor_ == 0) {
    // First call: load every run and build the heap.
    cursor_ = 1;
    for (size_t r = 0; r < runs_.size(); ++r) {
      if (refill(runs_[r], status)) heap_.push_back(r);
      else if (*status != TBL_OK) return false;
    }
    std::make_heap(heap_.begin(), heap_.end(), greater);
  } else if (!heap_.empty()) {
    // Advance the run whose entry was handed out last.
    std::pop_heap(heap_.begin(), heap_.end(), greater);
    Run& run = runs_[heap_.back()];
    run.pos += size;
    if (refill(run, status)) {
      std::push_heap(heap_.begin(), heap_.end(), greater);
    } else {
      if (*status != TBL_OK) return false;
      heap_.pop_back();
    }
  }
  if (heap_.empty()) return false;
  *entry = runs_[heap_.front()].current();
  return true;
}

}  // namespace wztable
