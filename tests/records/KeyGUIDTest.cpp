// The 16-byte path identifier: MD5 of the path, null for the empty path, and
// its text form's byte order.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "WzScanDB/records/WzScanDBKeyGUID.h"

namespace {

std::string Hex(const unsigned char* bytes, int length) {
  std::string text;
  char pair[3];
  for (int i = 0; i < length; ++i) {
    std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
    text += pair;
  }
  return text;
}

TEST(KeyGUID, RFC1321TestSuite) {
  struct Case {
    const char* input;
    const char* digest;
  };
  // The empty string's digest (d41d8cd9...) is never used: the empty path is
  // the null identifier.
  const Case cases[] = {
      {"", "00000000000000000000000000000000"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"1234567890123456789012345678901234567890123456789012345678901234567890"
       "1234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const Case& c : cases) {
    WzScanDBKeyGUID constructed{std::string(c.input)};
    EXPECT_EQ(Hex(constructed.data(), 16), c.digest) << '"' << c.input << '"';
    WzScanDBKeyGUID assigned;
    assigned.generate();
    assigned = std::string(c.input);
    EXPECT_TRUE(assigned == constructed) << c.input;
  }
  // Bytes are hashed as they are: an embedded NUL counts, a trailing slash differs.
  EXPECT_FALSE(WzScanDBKeyGUID(std::string("a\0b", 3)) == WzScanDBKeyGUID(std::string("a")));
  EXPECT_FALSE(WzScanDBKeyGUID(std::string("/x/")) == WzScanDBKeyGUID(std::string("/x")));
  EXPECT_EQ(Hex(WzScanDBKeyGUID(std::string("/")).data(), 16), "6666cd76f96956469e7be39d750cc7d9");
}

TEST(KeyGUID, TextFormReadsEachHalfLittleEndian) {
  WzScanDBKeyGUID guid;
  EXPECT_EQ(guid.toString(), "0x" + std::string(32, '0'));
  for (int i = 0; i < 16; ++i) guid.data()[i] = static_cast<unsigned char>(i);
  EXPECT_EQ(guid.toString(), "0x0706050403020100" "0F0E0D0C0B0A0908");
  guid.data()[0] = 0xAB;
  guid.data()[15] = 0xCD;
  EXPECT_EQ(guid.toString(), "0x07060504030201AB" "CD0E0D0C0B0A0908");

  guid.clear();
  guid.initialize();
  EXPECT_FALSE(guid.empty());
  EXPECT_EQ(guid.toString(), "0x" + std::string(15, '0') + "1" + std::string(16, '0'));
}

TEST(KeyGUID, EmptyStringIsTheNullIdentifierAndTextIsRehashed) {
  WzScanDBKeyGUID empty{std::string()};
  EXPECT_TRUE(empty.empty());
  EXPECT_TRUE(empty == WzScanDBKeyGUID());
  EXPECT_TRUE(empty == WzScanDBKeyGUID::sNullGuid);
  WzScanDBKeyGUID root{std::string("/")};
  EXPECT_FALSE(root.empty());
  root = std::string();
  EXPECT_TRUE(root.empty());

  // There is no parser: assigning a text form hashes the text.
  WzScanDBKeyGUID original{std::string("/data/file")};
  WzScanDBKeyGUID fromText;
  fromText = original.toString();
  EXPECT_FALSE(fromText == original);
  EXPECT_TRUE(fromText == WzScanDBKeyGUID(original.toString()));
}

TEST(KeyGUID, GenerateFillsRandomBytes) {
  WzScanDBKeyGUID a;
  WzScanDBKeyGUID b;
  a.generate();
  b.generate();
  EXPECT_FALSE(a.empty());
  EXPECT_FALSE(a == b);
}

}  // namespace
