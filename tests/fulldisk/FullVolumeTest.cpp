// A database with no room to grow, on a small tmpfs (in a child with a mount
// namespace of its own; skipped where mounting is not permitted) and under
// a file size limit (RLIMIT_FSIZE in a child that ignores SIGXFSZ, as on a
// full disk). Filling it ends in the engine's "file full" status (112) with
// its text, the refused record not stored and every acknowledged one kept;
// with no room at all it opens read-write and read-only, reads everything,
// and refuses a write with 112, its text and a level -1 line naming the file
// that could not be made; once room is freed it writes again.
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
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

WzScanDBRecordBasePtr Generic(const std::string& path, bool isDir = false) {
  return boost::make_shared<WzScanDBRecord>(path, isDir, 0);
}

std::string FilePath(int serial) { return "/full/f" + std::to_string(serial); }

bool Stored(WzScanDB& db, const std::string& path) {
  bool found = false;
  return db.checkDBRecord(Generic(path), Generic(path), found).IsSuccess() && found;
}

// "" when `error` is the refusal of a full disk: 112 and its text.
std::string NotFull(const CKoError& error) {
  const std::string text = "Failed due to " + std::string(TCtreeTable::errToString(TBL_FILE_FULL));
  const bool full = error.GetKind() == EKoErrorKind::kInt && error.GetCode() == TBL_FILE_FULL &&
                    error.GetOriginMessage().find(text) != std::string::npos;
  return full ? "" : "refused with: " + error.AsString();
}

// Creates (files == 0) or opens the database in `directory` and adds files
// from `files` on until an add is refused with 112: the refused record is not
// stored, the last acknowledged one reads. "" when all held, else what did not.
std::string Fill(const std::string& directory, int& files) {
  WzScanDB db(Generic(""));
  CKoError error = db.initialize(directory);
  if (error.IsSuccess() && files == 0) error = db.addFolder(Generic("/", true));
  if (error.IsSuccess() && files == 0) error = db.addFolder(Generic("/full", true));
  if (error.IsError()) return "creating the database: " + error.AsString();
  const int first = files;
  while ((error = db.addFile(Generic(FilePath(files)))).IsSuccess()) ++files;
  std::string problem = NotFull(error);
  if (problem.empty() && (files == first || !Stored(db, FilePath(files - 1)) || Stored(db, FilePath(files))))
    problem = "no add went in, the last one acknowledged does not read, or the refused one is stored";
  db.close();
  return problem;
}

// With no room at all: the database opens, every one of `files` acknowledged
// files is there, an add is refused with 112, says which file could not be
// made, and stores nothing; a read-only open reads.
std::string OnFullVolume(const std::string& directory, int files, CLogCapture& log) {
  WzScanDB db(Generic(""));
  CKoError error = db.initialize(directory);
  if (error.IsError()) return "initialize on the full volume: " + error.AsString();
  for (int serial = 0; serial < files; ++serial)
    if (!Stored(db, FilePath(serial))) return "lost " + FilePath(serial);
  log.Clear();
  const std::string problem = NotFull(db.addFile(Generic(FilePath(files))));
  if (!problem.empty()) return "the add on the full volume " + problem;
  if (log.FindContaining("cannot create the log " + directory + "/WzScanDB.log").empty())
    return "no line says which file could not be made";
  if (Stored(db, FilePath(files))) return "the refused add left its record";
  db.close();
  WzScanDB reader(Generic(""));
  reader.initialize((directory + "/WzScanDB").c_str());  // the schema; answers -1 always
  const int status = reader.open(WZIndexing::kAccessReadOnly);
  if (status != TBL_OK) return "read-only open answered " + std::to_string(status);
  if (reader.numberOfRecords() != files + 2) return "read-only open counts another number";
  reader.close();
  return "";
}

// With room again: the database opens with every acknowledged file, takes
// `adds` more, and is consistent, its tree too.
std::string WritableAgain(const std::string& directory, int& files, int adds) {
  WzScanDB db(Generic(""));
  CKoError error = db.initialize(directory);
  for (int serial = 0; error.IsSuccess() && serial < files; ++serial)
    if (!Stored(db, FilePath(serial))) return "lost " + FilePath(serial);
  for (int i = 0; error.IsSuccess() && i < adds; ++i) error = db.addFile(Generic(FilePath(files++)));
  if (error.IsError()) return "with room again: " + error.AsString();
  bool consistent = false;
  const std::string problem = db.numberOfRecords() != files + 2            ? "another number of records"
                              : db.checkConsistency() != TBL_OK            ? "an inconsistent table"
                              : db.validateTree(consistent).IsError() || !consistent ? "a tree that does not validate"
                                                                           : "";
  db.close();
  return problem;
}

class FullVolume : public ::testing::Test {
 protected:
  void SetUp() override { capture = InstallQuietCapture(0); }
  void TearDown() override { capture->Remove(); }

  std::shared_ptr<CLogCapture> capture;
  TempDir dir;
};

TEST_F(FullVolume, FilledTmpfsRefusesWith112ClosesCleanAndWritesOnceRoomIsFreed) {
  constexpr int kSkipped = 77;
  const std::string volume = dir / "volume", db = volume + "/db", ballast = volume + "/ballast";
  ASSERT_EQ(0, mkdir(volume.c_str(), 0700));
  ForkedChild child([&](ForkedChild::Channel& channel) {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", volume.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "size=6m") != 0) {
      channel.report = std::string("cannot mount a tmpfs: ") + std::strerror(errno);
      return kSkipped;
    }
    std::ofstream(ballast, std::ios::binary) << std::string(3 << 20, 'b');
    mkdir(db.c_str(), 0700);
    int files = 0;
    if (!(channel.report = Fill(db, files)).empty()) return 1;
    // The close needed no more room than the session left: no log stays
    // for the next open to replay.
    if (access((db + "/WzScanDB.log").c_str(), F_OK) == 0) return channel.report = "close() left the log", 2;
    // 3 MiB freed: the first write after the open must grow both table
    // files, and neither may take the room the other needs.
    unlink(ballast.c_str());
    if (!(channel.report = WritableAgain(db, files, 1)).empty()) return 3;
    // Then a volume full to the last byte.
    std::ofstream filler(volume + "/filler", std::ios::binary);
    for (const std::string block(4096, 'x'); filler.write(block.data(), block.size());) {
    }
    filler.close();
    channel.report = OnFullVolume(db, files, *capture);
    return channel.report.empty() ? 0 : 4;
  });
  const ForkedChild::Result result = child.Wait();
  if (result.exited && result.status == kSkipped) GTEST_SKIP() << result.report;
  ASSERT_TRUE(result.exited && result.status == 0) << result.Describe();
}

TEST_F(FullVolume, FileSizeLimitRefusesWith112AndTheDatabaseWritesOnWithoutIt) {
  const std::string directory = dir.path();
  ForkedChild child([&](ForkedChild::Channel& channel) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = 4 << 20;
    int files = 0;
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 1;
    if (!(channel.report = Fill(directory, files)).empty()) return 2;
    limit.rlim_cur = 0;  // no room at all
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 3;
    if (!(channel.report = OnFullVolume(directory, files, *capture)).empty()) return 4;
    channel.report = std::to_string(files);
    return 0;
  });
  const ForkedChild::Result result = child.Wait();
  ASSERT_TRUE(result.exited && result.status == 0) << result.Describe();
  int files = std::stoi(result.report);
  EXPECT_GT(files, 1000);
  EXPECT_EQ("", WritableAgain(directory, files, 2000));
}

}  // namespace
