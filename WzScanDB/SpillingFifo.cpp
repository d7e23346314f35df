// SpillingFifo: a byte-string queue with bounded memory.
#include "WzScanDB/SpillingFifo.h"

#include <cerrno>
#include <utility>

namespace WzScanDBInternal {

namespace {

// Each entry is its length as a base-128 number (7 bits per byte, low bits
// first, the high bit set on every byte but the last), then its bytes.
void AppendEntry(std::string& buffer, const char* data, size_t size) {
  size_t length = size;
  do {
    const unsigned char low = length & 0x7f;
    length >>= 7;
    buffer.push_back(static_cast<char>(length ? (low | 0x80) : low));
  } while (length);
  buffer.append(data, size);
}

// The entry at `pos` of `buffer`: true with its header length and data
// length when the whole entry is there.
bool ParseEntry(const std::string& buffer, size_t pos, size_t* header, size_t* length) {
  size_t value = 0;
  for (size_t i = 0, shift = 0; pos + i < buffer.size() && shift < 64; ++i, shift += 7) {
    const unsigned char byte = static_cast<unsigned char>(buffer[pos + i]);
    value |= static_cast<size_t>(byte & 0x7f) << shift;
    if (!(byte & 0x80)) {
      *header = i + 1;
      *length = value;
      return buffer.size() - pos - *header >= value;
    }
  }
  return false;
}

// Buffers larger than this are given back when the queue empties.
constexpr size_t kKeptCapacity = 64 << 10;

void Release(std::string& buffer) {
  buffer.clear();
  if (buffer.capacity() > kKeptCapacity) std::string().swap(buffer);
}

}  // namespace

SpillingFifo::SpillingFifo(size_t memoryBytes, std::string spillDirectory) {
  configure(memoryBytes, std::move(spillDirectory));
}

void SpillingFifo::configure(size_t memoryBytes, std::string spillDirectory) {
  half_ = memoryBytes / 2 > 0 ? memoryBytes / 2 : 1;
  spillDirectory_ = std::move(spillDirectory);
}

int SpillingFifo::push(const char* data, size_t size) {
  AppendEntry(back_, data, size);
  ++count_;
  if (back_.size() < half_) return 0;
  // Nothing older waiting: the back becomes the front, no file needed.
  if (frontPos_ == front_.size() && fileRead_ == fileWritten_) return takeBack();
  return spillBack();
}

int SpillingFifo::spillBack() {
  if (!file_.isOpen()) {
    const int error = file_.open(spillDirectory_);
    if (error) return error;
  }
  const int error = file_.write(fileWritten_, back_.data(), back_.size());
  if (error) return error;
  fileWritten_ += back_.size();
  back_.clear();
  return 0;
}

int SpillingFifo::pop(std::string& entry) {
  if (count_ == 0) return EINVAL;
  for (;;) {
    size_t header = 0;
    size_t length = 0;
    if (ParseEntry(front_, frontPos_, &header, &length)) {
      entry.assign(front_, frontPos_ + header, length);
      frontPos_ += header + length;
      if (--count_ == 0) reset();
      return 0;
    }
    // No whole entry left in the front: the file's come next, then the back's.
    if (fileRead_ < fileWritten_) {
      const int error = readMore();
      if (error) return error;
      continue;
    }
    if (frontPos_ != front_.size() || back_.empty()) return EIO;  // lost track of the entries
    const int error = takeBack();
    if (error) return error;
  }
}

// The front is used up and the file read to its end: the back's entries are
// the oldest, and the file can start over.
int SpillingFifo::takeBack() {
  front_.swap(back_);
  frontPos_ = 0;
  back_.clear();
  if (fileWritten_ == 0) return 0;
  fileRead_ = fileWritten_ = 0;
  return file_.truncate();
}

// Moves the unread rest of the front to its start and appends up to half
// the bound of the file's next bytes (the last entry may be cut; the next
// call completes it).
int SpillingFifo::readMore() {
  front_.erase(0, frontPos_);
  frontPos_ = 0;
  const uint64_t left = fileWritten_ - fileRead_;
  const size_t chunk = left < half_ ? static_cast<size_t>(left) : half_;
  const size_t at = front_.size();
  front_.resize(at + chunk);
  const int error = file_.read(fileRead_, &front_[at], chunk);
  if (error) {
    front_.resize(at);
    return error;
  }
  fileRead_ += chunk;
  file_.release(fileRead_);
  return 0;
}

void SpillingFifo::clear() {
  count_ = 0;
  reset();
}

void SpillingFifo::reset() {
  Release(front_);
  frontPos_ = 0;
  Release(back_);
  file_.close();
  fileRead_ = fileWritten_ = 0;
}

}  // namespace WzScanDBInternal
