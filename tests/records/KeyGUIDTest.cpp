// The 16-byte path identifier: MD5 of the path, null for the empty path, and
// its text form's byte order.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "WzScanDB/records/WzScanDBKeyGUID.h"

namespace {

std::string Hex(const WzScanDBKeyGUID& guid) {
  std::string text;
  char pair[3];
  for (int i = 0; i < 16; ++i) {
    std::snprintf(pair, sizeof pair, "%02x", guid.data()[i]);
    text += pair;
  }
  return text;
}

TEST(KeyGUID, RFC1321TestSuiteAndTheNullIdentifier) {
  // The empty string's digest (d41d8cd9...) is never used: the empty path is
  // the null identifier.
  const std::pair<const char*, const char*> cases[] = {
      {"", "00000000000000000000000000000000"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
      {"/", "6666cd76f96956469e7be39d750cc7d9"},
  };
  for (const auto& [input, digest] : cases) {
    SCOPED_TRACE(input);
    WzScanDBKeyGUID constructed{std::string(input)};
    EXPECT_EQ(Hex(constructed), digest);
    WzScanDBKeyGUID assigned;
    assigned.generate();
    assigned = std::string(input);
    EXPECT_TRUE(assigned == constructed);
  }
  EXPECT_TRUE(WzScanDBKeyGUID(std::string()).empty());
  EXPECT_TRUE(WzScanDBKeyGUID(std::string()) == WzScanDBKeyGUID::sNullGuid);
  // Bytes are hashed as they are: an embedded NUL counts, a trailing slash differs.
  EXPECT_FALSE(WzScanDBKeyGUID(std::string("a\0b", 3)) == WzScanDBKeyGUID(std::string("a")));
  EXPECT_FALSE(WzScanDBKeyGUID(std::string("/x/")) == WzScanDBKeyGUID(std::string("/x")));
}

TEST(KeyGUID, TextFormReadsEachHalfLittleEndian) {
  WzScanDBKeyGUID guid;
  EXPECT_EQ(guid.toString(), "0x" + std::string(32, '0'));
  for (int i = 0; i < 16; ++i) guid.data()[i] = static_cast<unsigned char>(i);
  guid.data()[0] = 0xAB;
  guid.data()[15] = 0xCD;
  EXPECT_EQ(guid.toString(), "0x07060504030201AB" "CD0E0D0C0B0A0908");

  guid.clear();
  guid.initialize();
  EXPECT_EQ(guid.toString(), "0x" + std::string(15, '0') + "1" + std::string(16, '0'));

  WzScanDBKeyGUID random;
  random.generate();
  EXPECT_FALSE(random.empty());
}

}  // namespace
