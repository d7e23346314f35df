// ImageList: record images of one type stored back to back in one buffer, as
// the children of a folder are read from the table. Grows by whole images;
// the pointer of an image stays valid until the list grows again.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <numeric>
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

  // Puts the images in the order `less(a, b)` of their bytes defines, in
  // place: one image's worth of extra memory besides the permutation.
  template <typename Less>
  void sort(Less less) {
    std::vector<size_t> order(count_);
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return less(at(a), at(b)); });
    std::vector<char> held(recordSize_);
    for (size_t start = 0; start < count_; ++start) {
      if (order[start] == start) continue;
      // Walk the cycle through `start`: position i takes the image at order[i].
      std::memcpy(held.data(), at(start), recordSize_);
      size_t i = start;
      while (order[i] != start) {
        size_t from = order[i];
        std::memcpy(at(i), at(from), recordSize_);
        order[i] = i;
        i = from;
      }
      std::memcpy(at(i), held.data(), recordSize_);
      order[i] = i;
    }
  }

 private:
  size_t recordSize_;
  size_t count_ = 0;
  std::vector<char> bytes_;
};
