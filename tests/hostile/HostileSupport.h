// Helpers of the hostile-input tests: a fixture with a quiet log capture and a
// temporary directory, file helpers, and a physical snapshot of a table (every
// record image in record-number order) to show that a refused call changed
// nothing.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

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
#include "concurrency/ForkedChild.h"
#include "runtime/LogCapture.h"
#include "support/LogAt.h"
#include "support/TempDir.h"

namespace hostile {

inline std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
inline void WriteBytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}
// The file type and permission bits of `path` itself (0: nothing there).
inline mode_t ModeOf(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}
inline bool Exists(const std::string& path) { return ModeOf(path) != 0; }
// The error's code and origin message, "" for success.
inline std::string Answer(const CKoError& error) {
  return error.IsSuccess() ? "" : std::to_string(error.GetCode()) + " " + error.GetOriginMessage();
}
inline std::string Engine(int status) { return TCtreeTable::errToString(status); }

inline WzScanDBRecordBasePtr Generic(const std::string& path, bool isDir = false) {
  return boost::make_shared<WzScanDBRecord>(path, isDir, 0);
}
inline WzScanDBRecordBasePtr Lustre(unsigned long long seq, unsigned oid, const std::string& name) {
  return boost::make_shared<WzScanDBLustreRecord>(boost::make_shared<LustreAPI::CLustreFID>(seq, oid, 0),
                                                  boost::make_shared<LustreAPI::CLustreFID>(seq, 1, 0), name, false, 0);
}

// Every record image of the open table in physical order.
inline std::vector<std::string> PhysicalSnapshot(WzScanDB& db) {
  std::vector<std::string> images;
  std::string buffer(440, '\0');
  for (int status = db.firstRecord(-1, &buffer[0]); status == TBL_OK; status = db.nextRecord(-1, &buffer[0]))
    images.push_back(buffer);
  return images;
}

// A quiet log (errors only, captured in memory) and a fresh directory.
class HostileTest : public ::testing::Test {
 protected:
  void SetUp() override { capture = InstallQuietCapture(0); }
  void TearDown() override { capture->Remove(); }

  // Creates a generic database in `directory` holding /, /a, /a/f1.../a/f<n>.
  static void MakeGenericDb(const std::string& directory, int files) {
    WzScanDB db(Generic(""));
    ASSERT_TRUE(db.initialize(directory).IsSuccess());
    ASSERT_TRUE(db.addFolder(Generic("/", true)).IsSuccess() && db.addFolder(Generic("/a", true)).IsSuccess());
    for (int i = 1; i <= files; ++i) ASSERT_TRUE(db.addFile(Generic("/a/f" + std::to_string(i))).IsSuccess());
    ASSERT_TRUE(db.close().IsSuccess());
  }
  std::string Sub(const std::string& name) {
    EXPECT_EQ(mkdir((dir / name).c_str(), 0700), 0);
    return dir / name;
  }

  std::shared_ptr<CLogCapture> capture;
  TempDir dir;
};

}  // namespace hostile
