// ImageList: record images of one type stored back to back in one buffer, as
// the children of a folder are read from the table. Grows by whole images;
// the pointer of an image stays valid until the list grows again.
#pragma once

#include <cstddef>
#include <vector>

class ImageList {
 public:
  explicit ImageList(size_t recordSize = 0) : recordSize_(recordSize) {}

  void reset(size_t recordSize) {
    recordSize_ = recordSize;
    bytes_.clear();
    count_ = 0;
  }
  size_t size() const { return count_; }
  bool empty() const { return count_ == 0; }
  size_t recordSize() const { return recordSize_; }
  char* at(size_t i) { return bytes_.data() + i * recordSize_; }
  const char* at(size_t i) const { return bytes_.data() + i * recordSize_; }

  // A new image at the end, zero-filled.
  char* append() {
    bytes_.resize((count_ + 1) * recordSize_);
    return at(count_++);
  }
  void pop_back() {
    --count_;
    bytes_.resize(count_ * recordSize_);
  }
  void clear() {
    bytes_.clear();
    count_ = 0;
  }

 private:
  size_t recordSize_;
  size_t count_ = 0;
  std::vector<char> bytes_;
};
