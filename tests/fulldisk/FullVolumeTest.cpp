// A database on a volume with no room left: it opens read-write and
// read-only, reads everything acknowledged, and a write answers the engine's
// "file full" status (112) with its text, plus a level -1 line naming the
// file that could not be made. Two kinds of "no room": a small tmpfs (in a
// child with a mount namespace of its own; skipped where mounting is not
// permitted) that the database fills itself, then, once closed, a filler
// file to the last byte; and a file size limit of 0 bytes.
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "concurrency/ForkedChild.h"
#include "support/LogAt.h"
#include "support/TempDir.h"
#include "table/TableStatus.h"

namespace {

constexpr int kSkipped = 77;

WzScanDBRecordBasePtr Generic(const std::string& path, bool isDir = false) {
  return boost::make_shared<WzScanDBRecord>(path, isDir, 0);
}

std::string FilePath(int serial) { return "/full/f" + std::to_string(serial); }

bool Stored(WzScanDB& db, const std::string& path) {
  bool found = false;
  return db.checkDBRecord(Generic(path), Generic(path), found).IsSuccess() && found;
}

// Adds files from `first` on until an add fails; answers how many went in.
int Fill(WzScanDB& db, int first, CKoError& refusal) {
  int serial = first;
  while ((refusal = db.addFile(Generic(FilePath(serial)))).IsSuccess()) ++serial;
  return serial - first;
}

// With no room left: the database opens, every one of `files` acknowledged
// files is there, an add is refused with 112 and says why, a read-only open
// reads. "" when all held, else what did not.
std::string OnFullVolume(const std::string& directory, int files, CLogCapture& log) {
  WzScanDB db(Generic(""));
  CKoError error = db.initialize(directory);
  if (error.IsError()) return "initialize on the full volume: " + error.AsString();
  for (int serial = 0; serial < files; ++serial)
    if (!Stored(db, FilePath(serial))) return "lost " + FilePath(serial);
  const std::string full = TCtreeTable::errToString(TBL_FILE_FULL);
  log.Clear();
  error = db.addFile(Generic(FilePath(files)));
  if (error.GetKind() != EKoErrorKind::kInt || error.GetCode() != TBL_FILE_FULL ||
      error.GetOriginMessage().find("Failed due to " + full) == std::string::npos)
    return "the add on the full volume answered: " + error.AsString();
  if (log.FindContaining("cannot create the log " + directory + "/WzScanDB.log").empty())
    return "no line says which file could not be made";
  if (Stored(db, FilePath(files))) return "the refused add left its record";
  db.close();
  WzScanDB reader(Generic(""));
  reader.initialize((directory + "/WzScanDB").c_str());  // the schema; answers -1 always
  int status = reader.open(WZIndexing::kAccessReadOnly);
  if (status != TBL_OK) return "read-only open answered " + std::to_string(status);
  if (reader.numberOfRecords() != files + 2) return "read-only open counts another number";
  reader.close();
  return "";
}

class FullVolume : public ::testing::Test {
 protected:
  void SetUp() override { capture = InstallQuietCapture(0); }
  void TearDown() override { capture->Remove(); }

  // Goes on without the limit: the next add goes in, nothing was lost.
  void ExpectWritableAgain(const std::string& directory, int files) {
    WzScanDB db(Generic(""));
    ASSERT_TRUE(db.initialize(directory).IsSuccess());
    EXPECT_TRUE(db.addFile(Generic(FilePath(files))).IsSuccess());
    EXPECT_EQ(files + 3, db.numberOfRecords());
    EXPECT_EQ(TBL_OK, db.checkConsistency());
    db.close();
  }

  std::shared_ptr<CLogCapture> capture;
  TempDir dir;
};

// Runs `body` in a child with a 6 MiB tmpfs mounted at `volume` (its own
// mount namespace, so the mount goes away with it); skips the test where
// mounting is not permitted.
#define RUN_ON_TMPFS(volume, body)                                                             \
  do {                                                                                         \
    ASSERT_EQ(0, mkdir((volume).c_str(), 0700));                                               \
    ForkedChild child([&](ForkedChild::Channel& channel) {                                     \
      if (unshare(CLONE_NEWNS) != 0 ||                                                         \
          mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||                   \
          mount("tmpfs", (volume).c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "size=6m") != 0) {   \
        channel.report = std::string("cannot mount a tmpfs: ") + std::strerror(errno);         \
        return kSkipped;                                                                       \
      }                                                                                        \
      return body(channel);                                                                    \
    });                                                                                        \
    const ForkedChild::Result result = child.Wait();                                           \
    if (result.exited && result.status == kSkipped) GTEST_SKIP() << result.report;             \
    ASSERT_TRUE(result.exited && result.status == 0) << result.Describe();                     \
    if (!result.report.empty()) std::printf("[ figures  ] %s\n", result.report.c_str());     \
  } while (0)

// Creates a database in `directory` and adds files until the volume is full;
// the refusal is 112 with its text, leaves nothing, and reads go on.
int FillVolume(const std::string& directory, int& files, std::string& report) {
  mkdir(directory.c_str(), 0700);
  WzScanDB db(Generic(""));
  CKoError error = db.initialize(directory);
  if (error.IsSuccess()) error = db.addFolder(Generic("/", true));
  if (error.IsSuccess()) error = db.addFolder(Generic("/full", true));
  if (error.IsError()) {
    report = "creating the database: " + error.AsString();
    return 1;
  }
  CKoError refusal;
  files = Fill(db, 0, refusal);
  if (refusal.GetKind() != EKoErrorKind::kInt || refusal.GetCode() != TBL_FILE_FULL ||
      refusal.GetOriginMessage().find("Failed due to " + std::string(TCtreeTable::errToString(
                                          TBL_FILE_FULL))) == std::string::npos) {
    report = "the volume filled up with: " + refusal.AsString();
    return 2;
  }
  if (!Stored(db, FilePath(files - 1)) || Stored(db, FilePath(files))) return 3;
  db.close();
  return 0;
}

void FillWithFiller(const std::string& path) {
  std::ofstream filler(path, std::ios::binary);
  const std::string block(4096, 'x');
  while (filler.write(block.data(), block.size())) {
  }
}

TEST_F(FullVolume, FilledTmpfsOpensReadsAndRefusesWritesWith112) {
  const std::string volume = dir / "volume";
  RUN_ON_TMPFS(volume, [&](ForkedChild::Channel& channel) {
    // The database fills the volume itself.
    int files = 0;
    if (int failed = FillVolume(volume + "/first", files, channel.report)) return failed;
    std::filesystem::remove_all(volume + "/first");
    // A database closed cleanly, then a volume full to the last byte.
    const std::string directory = volume + "/db";
    mkdir(directory.c_str(), 0700);
    {
      WzScanDB db(Generic(""));
      if (db.initialize(directory).IsError() || db.addFolder(Generic("/", true)).IsError() ||
          db.addFolder(Generic("/full", true)).IsError())
        return 4;
      for (int serial = 0; serial < 200; ++serial)
        if (db.addFile(Generic(FilePath(serial))).IsError()) return 5;
      db.close();
    }
    FillWithFiller(volume + "/filler");
    channel.report = OnFullVolume(directory, 200, *capture);
    if (!channel.report.empty()) return 6;
    channel.report = "a 6 MiB tmpfs took " + std::to_string(files) + " files before the first 112";
    return 0;
  });
}

TEST_F(FullVolume, RoomFreedAfterTheDatabaseFilledTheVolumeLetsItOpenAndWrite) {
  // 3 MiB of ballast, freed once the database has filled the rest: the
  // first write after the open must grow both table files, and neither may
  // take the room the other needs.
  const std::string volume = dir / "volume";
  RUN_ON_TMPFS(volume, [&](ForkedChild::Channel& channel) {
    std::ofstream(volume + "/ballast", std::ios::binary) << std::string(3 << 20, 'b');
    int files = 0;
    const std::string directory = volume + "/db";
    if (int failed = FillVolume(directory, files, channel.report)) return failed;
    ::unlink((volume + "/ballast").c_str());
    WzScanDB db(Generic(""));
    CKoError error = db.initialize(directory);
    for (int serial = 0; error.IsSuccess() && serial < files; ++serial)
      if (!Stored(db, FilePath(serial))) return 4;
    if (error.IsSuccess()) error = db.addFile(Generic(FilePath(files)));
    channel.report = error.IsError() ? "with 3 MiB freed: " + error.AsString() : "";
    db.close();
    return error.IsError() ? 5 : 0;
  });
}

// A session that filled the volume still closes with everything it
// acknowledged in the table files: the close needs no more room than the
// session left, and no log stays for the next open to replay.
TEST_F(FullVolume, ACloseOnAVolumeTheSessionFilledCommitsWhatWasAcknowledged) {
  const std::string volume = dir / "volume";
  RUN_ON_TMPFS(volume, [&](ForkedChild::Channel& channel) {
    std::ofstream(volume + "/ballast", std::ios::binary) << std::string(1 << 20, 'b');
    int files = 0;
    const std::string directory = volume + "/db";
    if (int failed = FillVolume(directory, files, channel.report)) return failed;
    struct stat st;
    if (::stat((directory + "/WzScanDB.log").c_str(), &st) == 0) {
      channel.report = "close() left the log: its writes are not in the table files";
      return 4;
    }
    return 0;
  });
}

TEST_F(FullVolume, FileSizeLimitOfZeroOpensReadsAndRefusesWritesWith112) {
  const std::string directory = dir.path();
  constexpr int kFiles = 200;
  {
    WzScanDB db(Generic(""));
    ASSERT_TRUE(db.initialize(directory).IsSuccess());
    ASSERT_TRUE(db.addFolder(Generic("/", true)).IsSuccess());
    ASSERT_TRUE(db.addFolder(Generic("/full", true)).IsSuccess());
    for (int serial = 0; serial < kFiles; ++serial)
      ASSERT_TRUE(db.addFile(Generic(FilePath(serial))).IsSuccess());
    db.close();
  }
  ForkedChild child([&](ForkedChild::Channel& channel) {
    signal(SIGXFSZ, SIG_IGN);
    const struct rlimit none = {0, 0};
    if (setrlimit(RLIMIT_FSIZE, &none) != 0) return 1;
    channel.report = OnFullVolume(directory, kFiles, *capture);
    return channel.report.empty() ? 0 : 2;
  });
  const ForkedChild::Result result = child.Wait();
  ASSERT_TRUE(result.exited && result.status == 0) << result.Describe();
  ExpectWritableAgain(directory, kFiles);
}

}  // namespace
