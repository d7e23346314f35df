// WzcMD5 on OpenSSL's EVP interface.
#include "runtime/WzcMD5.h"

#include <openssl/evp.h>

#include "runtime/WzException.h"

struct WzcMD5::Impl {
  EVP_MD_CTX* context = nullptr;
  ~Impl() { EVP_MD_CTX_free(context); }
};

namespace {
// The MD5 implementation, fetched once: with OpenSSL 3 an init from EVP_md5()
// looks the provider's implementation up again on every call, which costs as
// much as hashing a path. Never freed (hashers may run during process exit).
const EVP_MD* Md5() {
  static const EVP_MD* const md = [] {
    const EVP_MD* fetched = EVP_MD_fetch(nullptr, "MD5", nullptr);
    return fetched ? fetched : EVP_md5();
  }();
  return md;
}

void Init(EVP_MD_CTX* context) {
  if (EVP_DigestInit_ex(context, Md5(), nullptr) != 1)
    throw WzException("MD5: cannot initialise the digest");
}
}  // namespace

WzcMD5::WzcMD5() : impl_(new Impl) {
  impl_->context = EVP_MD_CTX_new();
  if (impl_->context == nullptr) throw WzException("MD5: cannot allocate a digest context");
  Init(impl_->context);
}

WzcMD5::~WzcMD5() = default;

void WzcMD5::Update(const void* data, int length) {
  if (length < 0) throw WzException("MD5: negative length");
  if (length == 0) return;
  if (EVP_DigestUpdate(impl_->context, data, static_cast<size_t>(length)) != 1)
    throw WzException("MD5: update failed");
}

void WzcMD5::Final(unsigned char digest[kDigestLength]) {
  unsigned int written = 0;
  if (EVP_DigestFinal_ex(impl_->context, digest, &written) != 1 || written != kDigestLength)
    throw WzException("MD5: final failed");
  Init(impl_->context);
}

void WzcMD5::Digest(const void* data, int length, unsigned char digest[kDigestLength]) {
  WzcMD5 md5;
  md5.Update(data, length);
  md5.Final(digest);
}
