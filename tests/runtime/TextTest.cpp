// Texts the runtime renders or derives: error values, formatting, path
// splitting and joining, MD5, random bytes, time stamps and counters.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <string>
#include <vector>

#include "LogLineParser.h"
#include "runtime/CTimeCounter.h"
#include "runtime/CTimeStamp.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/FXPath.h"
#include "runtime/FXString.h"
#include "runtime/WzcMD5.h"
#include "runtime/WzcRandom.h"

namespace {

const FXCodeLocation kInner("WzScanDB/records/Inner", "int Inner::read(int)", 10);
const FXCodeLocation kOuter("WzScanDB/WzScanDB", "CKoError WzScanDB::outer()", 20);

TEST(TextTest, ErrorsRenderKindCodeAndFramesTopFirst) {
  const CKoError origin = FXErrorUtil::ErrorErrNo(kInner, ENOENT, "no record %d", 7);
  const CKoError pushed = origin.Push(kOuter, "addFile() Failed");
  EXPECT_EQ(origin.GetFrames().size(), 1u);  // Push leaves the original alone
  EXPECT_EQ(pushed.GetOriginMessage() + "|" + pushed.GetTopMessage(), "no record 7|addFile() Failed");
  EXPECT_EQ(pushed.GetCode(), ENOENT);
  EXPECT_TRUE(CKoError().Push(kOuter, "x").IsSuccess()) << "nothing to push onto";

  const std::string at = "\n  at WzScanDB/records/Inner:10 int Inner::read(int): ";
  const std::string big(5000, 'x');  // longer than the formatter's stack buffer
  const std::pair<CKoError, std::string> rows[] = {
      {pushed, "Error (errno 2: No such file or directory)\n"
               "  at WzScanDB/WzScanDB:20 CKoError WzScanDB::outer(): addFile() Failed" + at + "no record 7"},
      {FXErrorUtil::ErrorInt(kInner, 101, "engine said %s", "no key"),
       "Error (status 101)" + at + "engine said no key"},
      {FXErrorUtil::ErrorWin32(kInner, kWin32NoMoreFiles),
       "Error (win32 18: There are no more files.)" + at + "There are no more files."},
      {FXErrorUtil::ErrorWin32(kInner, 774, "Rebuild Index Failed due to %s", "x"),
       "Error (win32 774: An error occurred while performing index maintenance.)" + at +
           "Rebuild Index Failed due to x"},
      {FXErrorUtil::ErrorWin32(kInner, 4242), "Error (win32 4242)" + at + "Win32 error 4242"},
      {FXErrorUtil::ErrorErrNo(kInner, -5, "<%s>", big.c_str()), "Error (errno -5)" + at + "<" + big + ">"},
      {CKoError(), "Success"},
  };
  for (const auto& [error, text] : rows) EXPECT_EQ(error.AsString(), text);
  EXPECT_EQ(FXString::Format("%d-%s", 42, ""), "42-");

  CKoError reset = pushed;
  reset.Success();
  EXPECT_TRUE(reset.IsSuccess() && reset.GetFrames().empty() && reset.GetCode() == 0);
}

TEST(TextTest, PathsSplitAndJoin) {
  // path, parent, name
  const char* splits[][3] = {
      {"/a/b", "/a", "b"},    {"/a", "/", "a"},      {"/", "", ""},       {"/y/a///", "/y", "a"},
      {"", "", ""},           {"a", "", "a"},        {"a/", "", "a"},     {"a/b/c", "a/b", "c"},
      {"/a//b", "/a", "b"},   {"//a//b", "//a", "b"}, {"//a", "/", "a"},  {"/a b/c d", "/a b", "c d"}};
  for (const auto& c : splits) {
    std::string parent = "stale", name = "stale";
    EXPECT_TRUE(FXPath::SplitParentPath(c[0], parent, name).IsSuccess());
    EXPECT_EQ(parent + "|" + name, std::string(c[1]) + "|" + c[2]) << "path \"" << c[0] << "\"";
  }
  std::string path = "/p/q/r", other;  // the path may be either output
  FXPath::SplitParentPath(path, path, other);
  FXPath::SplitParentPath(path, other, path);
  EXPECT_EQ(other + "|" + path, "/p|q");

  const char* trailing[][2] = {{"", "/"}, {"a", "a/"}, {"a/", "a/"}, {"/", "/"}};
  for (const auto& c : trailing) {
    std::string text = c[0];
    EXPECT_TRUE(FXPath::AppendTrailingDelimiter(text).IsSuccess());
    EXPECT_EQ(text, c[1]) << "text \"" << c[0] << "\"";
  }
  const char* joins[][3] = {{"/x/", "a/b", "/x/a/b"}, {"/x", "a", "/x/a"}, {"", "a/b", "a/b"}, {"/x/", "", "/x/"},
                            {"/", "a", "/a"},         {"/x//", "//a", "/x/a"}, {"/x", "/a/", "/x/a/"}};
  for (const auto& c : joins) {
    std::string joined = c[0];
    EXPECT_TRUE(FXPath::Append(joined, c[1], 0).IsSuccess());
    EXPECT_EQ(joined, c[2]) << "\"" << c[0] << "\" + \"" << c[1] << "\"";
  }
  std::string self = "/s";
  FXPath::Append(self, self, 0);
  EXPECT_EQ(self, "/s/s");
  EXPECT_EQ(FXPath::Append(self, "a", 1).GetCode(), EINVAL);
  EXPECT_EQ(self, "/s/s");
}

// The RFC 1321 digests are checked through the path identifier in the record
// tests; here one hasher is reused: Final starts it over.
TEST(TextTest, Md5HasherIsReusableAndRandomBytesAreRandom) {
  WzcMD5 md5;
  for (int round = 0; round < 2; ++round) {
    unsigned char digest[WzcMD5::kDigestLength];
    md5.Update("a", 1);
    md5.Update("bc", 2);
    md5.Final(digest);
    std::string hex;
    for (unsigned char byte : digest) hex += FXString::Format("%02x", byte);
    EXPECT_EQ(hex, "900150983cd24fb0d6963f7d28e17f72") << "round " << round;
  }

  // Every byte of a 4096-byte buffer turns non-zero within 8 fills (a miss
  // has chance 2^-64 per byte), and no two fills agree.
  std::vector<unsigned char> seen(4096, 0), buffer(4096);
  std::set<std::vector<unsigned char>> fills;
  for (int round = 0; round < 8; ++round) {
    std::fill(buffer.begin(), buffer.end(), 0);
    Wzc::getRand(buffer.data(), static_cast<int>(buffer.size()));
    for (size_t i = 0; i < buffer.size(); ++i) seen[i] |= buffer[i];
    fills.insert(buffer);
  }
  EXPECT_EQ(std::count(seen.begin(), seen.end(), 0), 0);
  EXPECT_EQ(fills.size(), 8u);
  EXPECT_THROW(Wzc::getRand(buffer.data(), -1), WzException);
}

TEST(TextTest, TimeStampsAndCountersRender) {
  const std::pair<CTimeStamp, const char*> stamps[] = {
      {CTimeStamp(), "1970-01-01 00:00:00.000000"},
      {CTimeStamp::FromUnixSeconds(1700000000), "2023-11-14 22:13:20.000000"},
      {CTimeStamp::FromNanoseconds(1700000000123456789LL), "2023-11-14 22:13:20.123456"},
      {CTimeStamp::FromNanoseconds(-1), "1969-12-31 23:59:59.999999"}};
  for (const auto& [stamp, text] : stamps) EXPECT_EQ(stamp.AsString(), text);
  EXPECT_EQ(CTimeStamp::FromNanoseconds(-1).ToUnixSeconds(), -1);
  const CTimeStamp now = CTimeStamp::Now();
  EXPECT_GT(now.ToUnixSeconds(), 1700000000);
  EXPECT_TRUE(MatchesShape(now.AsString(), kStampShape)) << now.AsString();

  CTimeCounter counter;
  EXPECT_EQ(counter.AsString(), "samples=0 total=0.000 ms mean=0.000 us");
  counter.Add(1000);
  counter.Add(2000);
  EXPECT_EQ(counter.AsString(), "samples=2 total=0.003 ms mean=1.500 us");
  counter.Reset();
  EXPECT_EQ(counter.GetTotalSamples() + counter.GetTotalTime(), 0);
}

}  // namespace
