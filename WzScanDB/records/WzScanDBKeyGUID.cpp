#include "WzScanDB/records/WzScanDBKeyGUID.h"

#include <cstdio>
#include <cstring>
#include <type_traits>

#include "runtime/EvDebug.h"
#include "runtime/WzException.h"
#include "runtime/WzcMD5.h"
#include "runtime/WzcRandom.h"

static_assert(sizeof(WzScanDBKeyGUID) == 16, "the identifier is exactly 16 bytes");
static_assert(std::is_standard_layout<WzScanDBKeyGUID>::value, "stored inside record images");
static_assert(std::is_trivially_copyable<WzScanDBKeyGUID>::value, "copied as raw bytes");
static_assert(!std::is_polymorphic<WzScanDBKeyGUID>::value, "no vtable in a record image");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the text form reads little-endian halves");

const WzScanDBKeyGUID WzScanDBKeyGUID::sNullGuid;

WzScanDBKeyGUID::WzScanDBKeyGUID(const std::string& text) : bytes_{} { *this = text; }

WzScanDBKeyGUID& WzScanDBKeyGUID::operator=(const std::string& text) {
  WzcMD5 md5;
  md5.Update(text.data(), static_cast<int>(text.length()));
  md5.Final(bytes_);
  // The empty path means "no parent": the null identifier, not MD5("").
  if (text.empty()) clear();
  return *this;
}

bool WzScanDBKeyGUID::operator==(const WzScanDBKeyGUID& other) const noexcept {
  return std::memcmp(bytes_, other.bytes_, kLength) == 0;
}

void WzScanDBKeyGUID::clear() noexcept { std::memset(bytes_, 0, kLength); }

void WzScanDBKeyGUID::generate() {
  try {
    Wzc::getRand(bytes_, kLength);
  } catch (const WzException& e) {
    EvDebug::Error("WzScanDBKey::generate", "%s", e.GetMessage());
  }
}

std::string WzScanDBKeyGUID::toString() const {
  unsigned long long low = 0;
  unsigned long long high = 0;
  std::memcpy(&low, bytes_, 8);  // little-endian host: byte 7 is the top digit pair
  std::memcpy(&high, bytes_ + 8, 8);
  char text[40];
  std::snprintf(text, sizeof text, "0x%016llX%016llX", low, high);
  return text;
}
