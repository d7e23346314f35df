// Every input the fuzzers (fuzz/) found, in tests/hostile/inputs, replayed as
// the fuzzer fed it:
// record-*.bin: byte 0 chooses the record type and the way in (0: a generic
// record image through setStructure), the rest is the image.
// table-lmdb-*.bin: byte 0 holds the fuzzer's options, bytes 1-4 the length
// of the data file (little-endian), then the data file and the index file.
// Each is a table whose meta pages are sound and a later page damaged; the
// name says where LMDB crashed on it before open checked every page.
// log-*.bin: inputs of fuzz_log_replay (fuzz/LogReplayCase.h: a table beside
// a damaged, foreign or out-of-date log), each with the outcome it must have.
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <filesystem>
#include <map>

#include "HostileSupport.h"
#include "fuzz/LogReplayCase.h"
#include "support/GenericSchemaTable.h"

namespace hostile {
namespace {

// A file time as toString and toCSV show it: clamped to what a nanosecond
// timestamp holds.
std::string Clamped(long long seconds) {
  const long long limit = LLONG_MAX / 1000000000LL;
  return std::to_string(std::clamp(seconds, -limit, limit));
}

TEST(FuzzRegression, EveryInputReplaysToItsOutcome) {
  std::shared_ptr<CLogCapture> capture = InstallQuietCapture(-1);
  const std::map<std::string, std::string> logOutcomes = {
      {"log-own-whole.bin", "replayed 40 of 40"},          {"log-own-cut.bin", "replayed 11 of 40"},
      {"log-own-swapped.bin", "replayed 5 of 40"},         {"log-own-record-moved-to-end.bin", "replayed 31 of 40"},
      {"log-own-dropped-zeroed-flipped.bin", "replayed 36 of 40"}, {"log-own-empty.bin", "nothing replayed"},
      {"log-own-zeroed.bin", "nothing replayed"},          {"log-own-zero-tail.bin", "replayed 20 of 40"},
      {"log-own-header-zeroed.bin", "refused 110"},        {"log-other-table.bin", "refused 118"},
      {"log-older-than-files.bin", "nothing replayed"},    {"log-starts-after-files.bin", "refused 110"},
      {"log-forked-history.bin", "refused 110"},           {"log-forked-history-cut.bin", "opened"}};
  size_t replayed = 0;
  for (const auto& entry : std::filesystem::directory_iterator(WZ_HOSTILE_INPUTS)) {
    const std::string name = entry.path().filename(), input = ReadBytes(entry.path());
    SCOPED_TRACE(name);
    ASSERT_FALSE(input.empty());
    ++replayed;
    if (name.rfind("log-", 0) == 0) {
      const auto verdict = logreplay::RunCase(reinterpret_cast<const uint8_t*>(input.data()), input.size());
      EXPECT_EQ("", verdict.failure);
      EXPECT_EQ(logOutcomes.count(name) ? logOutcomes.at(name) : "(an outcome to add to this test)", verdict.outcome);
    } else if (name.rfind("table-lmdb-", 0) == 0) {
      // Refused at open, read-write and read-only, and left as they were.
      size_t datLength = 0;
      for (int b = 0; b < 4; ++b) datLength |= size_t(uint8_t(input[1 + b])) << (8 * b);
      const std::string dat = input.substr(5, datLength), idx = input.substr(5 + dat.size());
      TempDir dir;
      WriteBytes(dir / "WzScanDB.dat", dat);
      WriteBytes(dir / "WzScanDB.idx", idx);
      for (const auto mode : {WZIndexing::kAccessReadWrite, WZIndexing::kAccessReadOnly})
        EXPECT_EQ(GenericSchemaTable().openTable(dir / "WzScanDB", mode), TBL_BAD_FORMAT) << "mode " << mode;
      EXPECT_TRUE(ReadBytes(dir / "WzScanDB.dat") == dat && ReadBytes(dir / "WzScanDB.idx") == idx);
    } else {
      // A status whose file time (about 1.8 billion years) overflowed the
      // nanosecond timestamp of toString and toCSV; then both ends of the
      // range, and ordinary times unchanged.
      ASSERT_EQ(input[0], 0);
      std::string image = input.substr(1);
      image.resize(440, '\0');
      WzScanDBRecord record;
      record.setStructure(&image[0]);
      struct stat st;
      std::memcpy(&st, image.data() + 32, sizeof st);
      ASSERT_GT(std::max<long long>(st.st_ctim.tv_sec, st.st_mtim.tv_sec), LLONG_MAX / 1000000000LL);
      const std::string ctime = Clamped(st.st_ctim.tv_sec), mtime = Clamped(st.st_mtim.tv_sec);
      EXPECT_NE(record.toString().find("CTime : [" + ctime + "] MTime : [" + mtime + "]"), std::string::npos);
      EXPECT_NE(record.toCSV().find("," + ctime + "," + mtime + ","), std::string::npos) << record.toCSV();
      for (long long seconds : {LLONG_MAX, LLONG_MIN, -5LL, 1700000000LL}) {
        st.st_ctim.tv_sec = seconds;
        std::memcpy(&image[32], &st, sizeof st);
        record.setStructure(&image[0]);
        EXPECT_NE(record.toString().find("CTime : [" + Clamped(seconds) + "]"), std::string::npos) << seconds;
      }
    }
  }
  EXPECT_EQ(replayed, 22u) << "inputs replayed";
  capture->Remove();
}

}  // namespace
}  // namespace hostile
