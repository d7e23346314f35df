// WzcMD5: the MD5 digest (RFC 1321), on OpenSSL's libcrypto.
//
//   WzcMD5 md5;  md5.Update(data, length);  md5.Final(digest);
//
// Final() writes the 16 digest bytes in the digest's own order; afterwards the
// hasher starts over. Not thread-safe: one hasher per thread.
#pragma once

#include <memory>

#include "runtime/WzRuntimeExport.h"

class WZRT_API WzcMD5 {
 public:
  static constexpr int kDigestLength = 16;
  WzcMD5();
  ~WzcMD5();
  WzcMD5(const WzcMD5&) = delete;
  WzcMD5& operator=(const WzcMD5&) = delete;

  void Update(const void* data, int length);
  void Final(unsigned char digest[kDigestLength]);
  // One-shot digest of `length` bytes.
  static void Digest(const void* data, int length, unsigned char digest[kDigestLength]);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
