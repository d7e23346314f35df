// Inputs found by the fuzzers (fuzz/), replayed as the fuzzer fed them.
//
// record-*.bin: byte 0 chooses the record type and the way in (0: a generic
// record image through setStructure), the rest is the image.
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "HostileSupport.h"

namespace hostile {
namespace {

std::string Input(const std::string& name) {
  const std::string bytes = ReadBytes(std::string(WZ_HOSTILE_INPUTS) + "/" + name);
  EXPECT_FALSE(bytes.empty()) << name;
  return bytes;
}

long long Clamped(long long seconds) {
  const long long limit = LLONG_MAX / 1000000000LL;
  return seconds > limit ? limit : seconds < -limit ? -limit : seconds;
}

TEST(FuzzRegression, RecordImageWithFileTimesBeyondATimestamp) {
  // A status whose file time (about 1.8 billion years) overflowed the
  // nanosecond timestamp of toString and toCSV.
  const std::string input = Input("record-huge-ctime.bin");
  ASSERT_EQ(input[0], 0);
  std::string image = input.substr(1);
  image.resize(440, '\0');
  WzScanDBRecord record;
  record.setStructure(&image[0]);

  struct stat st;
  std::memcpy(&st, image.data() + 32, sizeof st);
  ASSERT_GT(std::max<long long>(st.st_ctim.tv_sec, st.st_mtim.tv_sec), LLONG_MAX / 1000000000LL);
  const std::string ctime = std::to_string(Clamped(st.st_ctim.tv_sec));
  const std::string mtime = std::to_string(Clamped(st.st_mtim.tv_sec));
  EXPECT_NE(record.toString().find("CTime : [" + ctime + "] MTime : [" + mtime + "]"),
            std::string::npos)
      << record.toString();
  EXPECT_NE(record.toCSV().find("," + ctime + "," + mtime + ","), std::string::npos)
      << record.toCSV();

  // Both ends of the range, and ordinary times unchanged.
  for (long long seconds : {LLONG_MAX, LLONG_MIN, -5LL, 1700000000LL}) {
    st.st_ctim.tv_sec = seconds;
    std::memcpy(&image[32], &st, sizeof st);
    record.setStructure(&image[0]);
    EXPECT_NE(record.toString().find("CTime : [" + std::to_string(Clamped(seconds)) + "]"),
              std::string::npos)
        << seconds;
  }
}

}  // namespace
}  // namespace hostile
