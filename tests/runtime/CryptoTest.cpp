// MD5 against the RFC 1321 test suite; the random source.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "runtime/WzcMD5.h"
#include "runtime/WzcRandom.h"

namespace {

std::string Hex(const unsigned char* bytes, int length) {
  std::string text;
  char two[3];
  for (int i = 0; i < length; ++i) {
    snprintf(two, sizeof two, "%02x", bytes[i]);
    text += two;
  }
  return text;
}

TEST(CryptoTest, Md5MatchesRfc1321Suite) {
  const std::pair<const char*, const char*> suite[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  unsigned char digest[WzcMD5::kDigestLength];
  WzcMD5 md5;
  for (const auto& [text, expected] : suite) {
    const std::string input = text;
    WzcMD5::Digest(input.data(), static_cast<int>(input.size()), digest);
    EXPECT_EQ(Hex(digest, WzcMD5::kDigestLength), expected) << "\"" << input << "\"";

    // Fed in pieces through one reused hasher: Final starts it over.
    for (size_t i = 0; i < input.size(); i += 7)
      md5.Update(input.data() + i, static_cast<int>(std::min<size_t>(7, input.size() - i)));
    md5.Final(digest);
    EXPECT_EQ(Hex(digest, WzcMD5::kDigestLength), expected) << "\"" << input << "\" in pieces";
  }
}

TEST(CryptoTest, GetRandFillsEveryByte) {
  // 4096 bytes: the chance that a given position is zero in all of 8 fills is
  // 2^-64, so every position must turn non-zero at least once.
  std::vector<unsigned char> seen(4096, 0);
  std::set<std::string> blocks;
  for (int round = 0; round < 8; ++round) {
    std::vector<unsigned char> buffer(4096, 0);
    Wzc::getRand(buffer.data(), static_cast<int>(buffer.size()));
    for (size_t i = 0; i < buffer.size(); ++i) seen[i] |= buffer[i];
    blocks.insert(std::string(buffer.begin(), buffer.end()));
  }
  for (size_t i = 0; i < seen.size(); ++i) ASSERT_NE(seen[i], 0) << "byte " << i;
  EXPECT_EQ(blocks.size(), 8u);

  unsigned char guard[4] = {0xAA, 0xAA, 0xAA, 0xAA};
  Wzc::getRand(guard + 1, 0);
  EXPECT_EQ(guard[1], 0xAA);
  EXPECT_THROW(Wzc::getRand(guard, -1), WzException);
}

}  // namespace
