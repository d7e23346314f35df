// Inputs found by the fuzzers (fuzz/), replayed as the fuzzer fed them.
//
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

#include "HostileSupport.h"
#include "fuzz/LogReplayCase.h"
#include "support/GenericSchemaTable.h"

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

TEST(FuzzRegression, TablesWithDamagedPagesAreRefusedAtOpen) {
  const char* const inputs[] = {
      "table-lmdb-addRecord-03024121.bin", "table-lmdb-addRecord-commit-487999bd.bin",
      "table-lmdb-checkHeader-397fdee4.bin", "table-lmdb-edgeRead-1ce8e92b.bin",
      "table-lmdb-edgeRead-466929bf.bin",  "table-lmdb-keyedRead-88737f7b.bin",
      "table-lmdb-step-ba61245a.bin"};
  for (const char* name : inputs) {
    SCOPED_TRACE(name);
    const std::string input = Input(name);
    ASSERT_GT(input.size(), 5u);
    size_t datLength = 0;
    for (int b = 0; b < 4; ++b) datLength |= size_t(uint8_t(input[1 + b])) << (8 * b);
    const std::string files = input.substr(5);
    datLength = std::min(datLength, files.size());
    TempDir dir;
    const std::string table = dir / "WzScanDB";
    WriteBytes(table + ".dat", files.substr(0, datLength));
    WriteBytes(table + ".idx", files.substr(datLength));
    for (const auto mode : {WZIndexing::kAccessReadWrite, WZIndexing::kAccessReadOnly}) {
      GenericSchemaTable t;
      EXPECT_EQ(t.openTable(table, mode), TBL_BAD_FORMAT) << "mode " << mode;
    }
    EXPECT_EQ(ReadBytes(table + ".dat"), files.substr(0, datLength));
    EXPECT_EQ(ReadBytes(table + ".idx"), files.substr(datLength));
  }
}

TEST(FuzzRegression, DamagedForeignAndStaleLogsReplayToTheLastGoodWriteOrAreRefused) {
  std::shared_ptr<CLogCapture> capture = InstallQuietCapture(-1);
  const std::pair<const char*, const char*> cases[] = {
      {"log-own-whole.bin", "replayed 40 of 40"},
      {"log-own-cut.bin", "replayed 11 of 40"},
      {"log-own-swapped.bin", "replayed 5 of 40"},
      {"log-own-record-moved-to-end.bin", "replayed 31 of 40"},
      {"log-own-dropped-zeroed-flipped.bin", "replayed 36 of 40"},
      {"log-own-empty.bin", "nothing replayed"},
      {"log-own-zeroed.bin", "nothing replayed"},
      {"log-own-zero-tail.bin", "replayed 20 of 40"},
      {"log-own-header-zeroed.bin", "refused 110"},
      {"log-other-table.bin", "refused 118"},
      {"log-older-than-files.bin", "nothing replayed"},
      {"log-starts-after-files.bin", "refused 110"},
      {"log-forked-history.bin", "refused 110"},
      {"log-forked-history-cut.bin", "opened"},
  };
  for (const auto& [name, outcome] : cases) {
    SCOPED_TRACE(name);
    const std::string input = Input(name);
    const logreplay::Verdict verdict =
        logreplay::RunCase(reinterpret_cast<const uint8_t*>(input.data()), input.size());
    EXPECT_EQ("", verdict.failure);
    EXPECT_EQ(outcome, verdict.outcome);
  }
  capture->Remove();
}

}  // namespace
}  // namespace hostile
