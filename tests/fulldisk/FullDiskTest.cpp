// Adding records under a lowered file size limit (RLIMIT_FSIZE in a child
// process that ignores SIGXFSZ, as on a full disk) ends in a clear engine
// status, TBL_FILE_FULL or TBL_IO_ERROR, carried by the CKoError; every
// record acknowledged before is kept, the refused one is not stored, and
// without the limit the database works on.

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "WzScanDB/WzScanDBExports.h"
#include "runtime/LogWriter.h"
#include "support/OpenGenericDatabase.h"
#include "support/TempDir.h"
#include "table/TableStatus.h"

namespace {

// How a limited child ended; written to a pipe as three numbers.
struct FillResult {
  int acknowledged = -1;  // files added with success in this run
  long long kind = -1;    // EKoErrorKind of the first failure
  long long code = -1;    // its code
};

WzScanDBRecordBasePtr Generic(const std::string& path, bool isDir) {
  WzScanDBRecordPtr record;
  std::string text = path;
  CreateGlusterRecordObject(record, text, isDir, 0);
  return record;
}

std::string FilePath(int serial) { return "/full/f" + std::to_string(serial); }

bool Stored(const WzScanDBPtr& db, const std::string& path) {
  WzScanDBRecordBasePtr out = Generic(path, false);
  bool found = false;
  CKoError err;
  WzScanDBObjectCheckDBRecord(db, Generic(path, false), out, found, err);
  EXPECT_TRUE(err.IsSuccess()) << err.AsString();
  return found;
}

// In a child limited to `limitBytes` per file: open the database, add files
// from serial `first` on until an add fails, check that reads still work,
// close. The child's exit status says which step went wrong.
FillResult FillInChild(const std::string& directory, rlim_t limitBytes, int first) {
  int fds[2];
  EXPECT_EQ(0, pipe(fds));
  const pid_t child = fork();
  EXPECT_GE(child, 0);
  if (child == 0) {
    close(fds[0]);
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = {limitBytes, limitBytes};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(10);
    CKoError err;
    WzScanDBPtr db = OpenGenericDatabase(directory, err);
    if (err.IsError()) _exit(11);
    WzScanDBObjectAddFolder(db, Generic("/", true), err);
    if (err.IsError()) _exit(12);
    WzScanDBObjectAddFolder(db, Generic("/full", true), err);
    if (err.IsError()) _exit(13);
    FillResult result;
    int serial = first;
    for (; serial < first + 1000000; ++serial) {
      WzScanDBObjectAddFile(db, Generic(FilePath(serial), false), err);
      if (err.IsError()) break;
    }
    result.acknowledged = serial - first;
    result.kind = static_cast<long long>(err.GetKind());
    result.code = err.GetCode();
    // Reads still answer after the refusal.
    if (result.acknowledged > 0 && !Stored(db, FilePath(serial - 1))) _exit(14);
    char text[96];
    const int length = std::snprintf(text, sizeof text, "%d %lld %lld", result.acknowledged,
                                     result.kind, result.code);
    if (write(fds[1], text, static_cast<size_t>(length)) != length) _exit(15);
    WzScanDBObjectClose(db, err);
    _exit(0);
  }
  close(fds[1]);
  char text[96] = {};
  size_t used = 0;
  for (ssize_t n; (n = read(fds[0], text + used, sizeof text - 1 - used)) > 0;)
    used += static_cast<size_t>(n);
  close(fds[0]);
  int status = 0;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status)) << "child ended by signal " << WTERMSIG(status);
  EXPECT_EQ(0, WEXITSTATUS(status));
  FillResult result;
  EXPECT_EQ(3, std::sscanf(text, "%d %lld %lld", &result.acknowledged, &result.kind,
                           &result.code))
      << text;
  return result;
}

TEST(FullDiskTest, FileSizeLimitGivesEngineStatusAndKeepsAcknowledgedRecords) {
  TempDir dir;
  int total = 0;
  // Twice: a new database filled to 4 MiB, then the same one reopened under
  // a limit of 8 MiB and filled on.
  for (rlim_t limit : {rlim_t(4) << 20, rlim_t(8) << 20}) {
    SCOPED_TRACE("limit " + std::to_string(limit));
    const FillResult result = FillInChild(dir.path(), limit, total);
    ASSERT_FALSE(HasFailure());
    EXPECT_GT(result.acknowledged, 1000);
    EXPECT_EQ(static_cast<long long>(EKoErrorKind::kInt), result.kind);
    EXPECT_TRUE(result.code == TBL_FILE_FULL || result.code == TBL_IO_ERROR) << result.code;
    total += result.acknowledged;

    CKoError err;
    WzScanDBPtr db = OpenGenericDatabase(dir.path(), err);
    ASSERT_TRUE(err.IsSuccess()) << err.AsString();
    std::string report;
    EXPECT_EQ(0, db->checkConsistency(&report)) << report;
    EXPECT_EQ(total + 2, db->numberOfRecords());
    for (int serial = 0; serial < total; ++serial)
      ASSERT_TRUE(Stored(db, FilePath(serial))) << "lost " << FilePath(serial);
    EXPECT_FALSE(Stored(db, FilePath(total))) << "the refused add left its record";
    WzScanDBObjectClose(db, err);
    ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  }

  // Without a limit the database grows on.
  CKoError err;
  WzScanDBPtr db = OpenGenericDatabase(dir.path(), err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  for (int serial = total; serial < total + 2000; ++serial) {
    WzScanDBObjectAddFile(db, Generic(FilePath(serial), false), err);
    ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  }
  WzScanDBObjectRemoveFile(db, Generic(FilePath(0), false), err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  std::string report;
  EXPECT_EQ(0, db->checkConsistency(&report)) << report;
  EXPECT_EQ(total + 2000 - 1 + 2, db->numberOfRecords());
  bool consistent = false;
  WzScanDBObjectValidateTree(db, consistent, err);
  ASSERT_TRUE(err.IsSuccess()) << err.AsString();
  EXPECT_TRUE(consistent);
  WzScanDBObjectClose(db, err);
}

}  // namespace
