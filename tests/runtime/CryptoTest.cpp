// MD5 against the RFC 1321 test suite; the random source.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "runtime/WzcMD5.h"
#include "runtime/WzcRandom.h"

namespace {

TEST(CryptoTest, Md5MatchesRfc1321SuiteInOneCallAndInPieces) {
  const std::pair<std::string, const char*> suite[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  auto hex = [](const unsigned char* digest) {
    char text[2 * WzcMD5::kDigestLength + 1];
    for (int i = 0; i < WzcMD5::kDigestLength; ++i) snprintf(text + 2 * i, 3, "%02x", digest[i]);
    return std::string(text);
  };
  unsigned char digest[WzcMD5::kDigestLength];
  WzcMD5 md5;
  for (const auto& [input, expected] : suite) {
    WzcMD5::Digest(input.data(), static_cast<int>(input.size()), digest);
    EXPECT_EQ(hex(digest), expected) << "\"" << input << "\"";
    // Fed in pieces through one reused hasher: Final starts it over.
    for (size_t i = 0; i < input.size(); i += 7)
      md5.Update(input.data() + i, static_cast<int>(std::min<size_t>(7, input.size() - i)));
    md5.Final(digest);
    EXPECT_EQ(hex(digest), expected) << "\"" << input << "\" in pieces";
  }
}

TEST(CryptoTest, GetRandFillsEveryByte) {
  // 4096 bytes: the chance that a given position is zero in all of 8 fills is
  // 2^-64, so every position must turn non-zero at least once.
  std::vector<unsigned char> seen(4096, 0), buffer(4096);
  std::set<std::vector<unsigned char>> blocks;
  for (int round = 0; round < 8; ++round) {
    std::fill(buffer.begin(), buffer.end(), 0);
    Wzc::getRand(buffer.data(), static_cast<int>(buffer.size()));
    for (size_t i = 0; i < buffer.size(); ++i) seen[i] |= buffer[i];
    blocks.insert(buffer);
  }
  EXPECT_EQ(std::count(seen.begin(), seen.end(), 0), 0);
  EXPECT_EQ(blocks.size(), 8u);
  unsigned char guard = 0xAA;
  Wzc::getRand(&guard, 0);
  EXPECT_EQ(guard, 0xAA);
  EXPECT_THROW(Wzc::getRand(&guard, -1), WzException);
}

}  // namespace
