// Helpers of the hostile-input tests: a fixture with a quiet log capture and a
// temporary directory, file helpers, and a physical snapshot of a table (every
// record image in record-number order) to show that a refused call changed
// nothing.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/BackupTimeRecord.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "runtime/LogCapture.h"
#include "runtime/LogWriter.h"
#include "support/TempDir.h"
#include "support/LogAt.h"

namespace hostile {

inline std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteBytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

inline bool IsSymlink(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

inline bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

inline mode_t ModeOf(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

inline WzScanDBRecordBasePtr Generic(const std::string& path, bool isDir = false) {
  return boost::make_shared<WzScanDBRecord>(path, isDir, 0);
}

inline WzScanDBRecordBasePtr Lustre(unsigned long long seq, unsigned oid, const std::string& name) {
  auto fid = boost::make_shared<LustreAPI::CLustreFID>(seq, oid, 0);
  auto parent = boost::make_shared<LustreAPI::CLustreFID>(seq, 1, 0);
  return boost::make_shared<WzScanDBLustreRecord>(fid, parent, name, false, 0);
}

// Every record image of the open table in physical order.
inline std::vector<std::string> PhysicalSnapshot(WzScanDB& db, int recordSize) {
  std::vector<std::string> images;
  std::string buffer(static_cast<size_t>(recordSize), '\0');
  int status = db.firstRecord(-1, &buffer[0]);
  while (status == TBL_OK) {
    images.push_back(buffer);
    status = db.nextRecord(-1, &buffer[0]);
  }
  EXPECT_EQ(status, TBL_NOT_FOUND);
  return images;
}

// Equal snapshots, or which record differs (without printing whole images).
inline ::testing::AssertionResult SameImages(const std::vector<std::string>& actual,
                                             const std::vector<std::string>& expected) {
  if (actual.size() != expected.size())
    return ::testing::AssertionFailure()
           << actual.size() << " records where " << expected.size() << " were expected";
  for (size_t i = 0; i < actual.size(); ++i)
    if (actual[i] != expected[i])
      return ::testing::AssertionFailure() << "record " << i << " of " << actual.size() << " differs";
  return ::testing::AssertionSuccess();
}

// A quiet log (errors only, captured in memory) and a fresh directory.
class HostileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    capture = InstallQuietCapture(0);
  }
  void TearDown() override { capture->Remove(); }

  // Creates a generic database in `directory` holding /, /a, /a/f1.../a/f<n>.
  void MakeGenericDb(const std::string& directory, int files) {
    WzScanDB db(Generic(""));
    ASSERT_TRUE(db.initialize(directory).IsSuccess());
    ASSERT_TRUE(db.addFolder(Generic("/", true)).IsSuccess());
    ASSERT_TRUE(db.addFolder(Generic("/a", true)).IsSuccess());
    for (int i = 1; i <= files; ++i)
      ASSERT_TRUE(db.addFile(Generic("/a/f" + std::to_string(i))).IsSuccess());
    ASSERT_TRUE(db.close().IsSuccess());
  }

  std::shared_ptr<CLogCapture> capture;
  TempDir dir;
};

}  // namespace hostile
