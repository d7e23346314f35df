// WzScanDBKeyGUID: the 128-bit identifier of a generic scan record.
//
// The identifier of a path is the MD5 digest (RFC 1321) of the path's bytes,
// exactly as given (no normalisation); the empty string has the null
// identifier (all zero), which marks an entry without a parent. The object is
// exactly 16 bytes with no vtable, so it lives inside record images and is
// copied and compared as raw bytes.
//
// The text form is "0x%016llX%016llX" of the first and the last 8 bytes, each
// read as a little-endian 64-bit integer: storage bytes 7..0 come first, then
// 15..8. There is no parser: assigning a string always hashes it.
//
// A plain value: distinct objects may be used from different threads.
#pragma once

#include <cstdint>
#include <string>

#include "WzScanDB/WzScanDBExport.h"

class WZSCANDB_API WzScanDBKeyGUID {
 public:
  static constexpr int kLength = 16;

  // The null identifier.
  constexpr WzScanDBKeyGUID() noexcept : bytes_{} {}
  // The identifier of `text`; the null identifier for the empty string.
  explicit WzScanDBKeyGUID(const std::string& text);
  WzScanDBKeyGUID& operator=(const std::string& text);

  bool operator==(const WzScanDBKeyGUID& other) const noexcept;
  bool operator!=(const WzScanDBKeyGUID& other) const noexcept { return !(*this == other); }

  // True when all 16 bytes are zero.
  bool empty() const noexcept { return *this == sNullGuid; }
  void clear() noexcept;
  // Sets the first byte to 1, leaving the others: a cleared identifier
  // becomes a non-empty marker value.
  void initialize() noexcept { bytes_[0] = 1; }
  // Fills the identifier with random bytes. A failing random source is
  // logged and leaves the bytes as they were.
  void generate();

  std::string toString() const;

  // The 16 bytes in storage order.
  const unsigned char* data() const noexcept { return bytes_; }
  unsigned char* data() noexcept { return bytes_; }

  // All zero; set up when the library is loaded.
  static const WzScanDBKeyGUID sNullGuid;

 private:
  unsigned char bytes_[kLength];
};
