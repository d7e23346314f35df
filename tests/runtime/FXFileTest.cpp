// File helpers: content copied exactly, destinations never followed or
// half-written, failures reported with errno and the paths.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <filesystem>
#include <csignal>
#include <fstream>
#include <sstream>
#include <string>

#include "runtime/FXFile.h"
#include "runtime/WzcRandom.h"
#include "support/TempDir.h"

namespace {

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::string RandomContent(size_t size) {
  std::string content(size, '\0');
  Wzc::getRand(&content[0], static_cast<int>(size));
  return content;
}

// Number of entries in `dir`: shows leftover temporary files.
int CountEntries(const std::string& dir) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    (void)entry;
    ++count;
  }
  return count;
}

TEST(FXFileTest, CopyMakesAnExactOwnerOnlyCopyAndRefusesExistingDestinations) {
  TempDir dir;
  const std::string content = RandomContent(3 * 1024 * 1024 + 17);
  WriteFile(dir / "src", content);
  chmod((dir / "src").c_str(), 0644);

  ASSERT_TRUE(FXFile::WZCopyFile(dir / "src", dir / "copy", 0).IsSuccess());
  EXPECT_EQ(ReadFile(dir / "copy"), content);
  struct stat st;
  ASSERT_EQ(stat((dir / "copy").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);

  // Flag 0: an existing destination stays as it is.
  WriteFile(dir / "existing", "keep me");
  CKoError error = FXFile::WZCopyFile(dir / "src", dir / "existing", 0);
  EXPECT_EQ(error.GetKind(), EKoErrorKind::kErrNo);
  EXPECT_EQ(error.GetCode(), EEXIST);
  EXPECT_NE(error.GetTopMessage().find(dir / "existing"), std::string::npos);
  EXPECT_NE(error.GetTopMessage().find("File exists"), std::string::npos);
  EXPECT_EQ(ReadFile(dir / "existing"), "keep me");

  // Flag 1 replaces it, and leaves no temporary file behind.
  ASSERT_TRUE(FXFile::WZCopyFile(dir / "src", dir / "existing", FXFile::kCopyReplaceExisting)
                  .IsSuccess());
  EXPECT_EQ(ReadFile(dir / "existing"), content);
  EXPECT_EQ(CountEntries(dir.path()), 3);

  WriteFile(dir / "empty", "");
  ASSERT_TRUE(FXFile::WZCopyFile(dir / "empty", dir / "empty-copy", 0).IsSuccess());
  EXPECT_TRUE(FXFile::Exists(dir / "empty-copy"));
  EXPECT_EQ(ReadFile(dir / "empty-copy"), "");
}

TEST(FXFileTest, CopyNeverFollowsALinkPlantedAtTheDestination) {
  TempDir dir;
  WriteFile(dir / "src", "secret data");
  WriteFile(dir / "victim", "victim content");
  ASSERT_EQ(symlink((dir / "victim").c_str(), (dir / "planted").c_str()), 0);
  ASSERT_EQ(symlink((dir / "nowhere").c_str(), (dir / "dangling").c_str()), 0);

  CKoError error = FXFile::WZCopyFile(dir / "src", dir / "planted", 0);
  EXPECT_EQ(error.GetCode(), EEXIST);
  EXPECT_EQ(ReadFile(dir / "victim"), "victim content");
  EXPECT_EQ(FXFile::WZCopyFile(dir / "src", dir / "dangling", 0).GetCode(), EEXIST);
  EXPECT_FALSE(FXFile::Exists(dir / "nowhere"));

  // Replacing swaps the link itself for a file; its target is untouched.
  ASSERT_TRUE(FXFile::WZCopyFile(dir / "src", dir / "planted", 1).IsSuccess());
  EXPECT_EQ(ReadFile(dir / "victim"), "victim content");
  struct stat st;
  ASSERT_EQ(lstat((dir / "planted").c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(ReadFile(dir / "planted"), "secret data");
}

TEST(FXFileTest, CopyFailuresLeaveNothingBehind) {
  TempDir dir;
  CKoError missing = FXFile::WZCopyFile(dir / "absent", dir / "to", 0);
  EXPECT_EQ(missing.GetKind(), EKoErrorKind::kErrNo);
  EXPECT_EQ(missing.GetCode(), ENOENT);
  EXPECT_NE(missing.GetTopMessage().find(dir / "absent"), std::string::npos);
  EXPECT_FALSE(FXFile::Exists(dir / "to"));

  mkdir((dir / "folder").c_str(), 0700);
  EXPECT_EQ(FXFile::WZCopyFile(dir / "folder", dir / "to", 0).GetCode(), EISDIR);
  EXPECT_EQ(FXFile::WZCopyFile(dir / "folder", dir / "to", 1).GetCode(), EISDIR);
  EXPECT_EQ(FXFile::WZCopyFile(dir / "absent", dir / "to", 1).GetCode(), ENOENT);
  WriteFile(dir / "src", "x");
  EXPECT_EQ(FXFile::WZCopyFile(dir / "src", dir / "no-dir/to", 0).GetCode(), ENOENT);
  // Replacing a directory with a file fails, and the temporary copy goes.
  EXPECT_EQ(FXFile::WZCopyFile(dir / "src", dir / "folder", 1).GetCode(), EISDIR);
  EXPECT_EQ(CountEntries(dir.path()), 2);
}

TEST(FXFileTest, CopyThatFailsMidwayRemovesThePartialDestination) {
  TempDir dir;
  WriteFile(dir / "big", RandomContent(2 * 1024 * 1024));
  // A file size limit makes the copy fail with EFBIG after the destination
  // was created and partly written.
  struct rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  struct rlimit limited = saved;
  limited.rlim_cur = 512 * 1024;
  auto savedSignal = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
  CKoError fresh = FXFile::WZCopyFile(dir / "big", dir / "copy", 0);
  CKoError replacing = FXFile::WZCopyFile(dir / "big", dir / "big", 1);
  setrlimit(RLIMIT_FSIZE, &saved);
  signal(SIGXFSZ, savedSignal);

  EXPECT_EQ(fresh.GetCode(), EFBIG);
  EXPECT_EQ(replacing.GetCode(), EFBIG);
  EXPECT_FALSE(FXFile::Exists(dir / "copy"));
  EXPECT_EQ(CountEntries(dir.path()), 1);  // no temporary left either
  struct stat st;
  ASSERT_EQ(stat((dir / "big").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 2 * 1024 * 1024);
}

TEST(FXFileTest, MoveRenamesOrRefusesAndRemoveUnlinks) {
  TempDir dir;
  WriteFile(dir / "a", "alpha");
  WriteFile(dir / "b", "beta");

  CKoError refused = FXFile::WZMoveFileEx(dir / "a", dir / "b", 0);
  EXPECT_EQ(refused.GetCode(), EEXIST);
  EXPECT_EQ(ReadFile(dir / "a"), "alpha");
  EXPECT_EQ(ReadFile(dir / "b"), "beta");

  ASSERT_TRUE(FXFile::WZMoveFileEx(dir / "a", dir / "b", FXFile::kMoveReplaceExisting).IsSuccess());
  EXPECT_FALSE(FXFile::Exists(dir / "a"));
  EXPECT_EQ(ReadFile(dir / "b"), "alpha");

  ASSERT_TRUE(FXFile::WZMoveFileEx(dir / "b", dir / "c", 0).IsSuccess());
  EXPECT_EQ(ReadFile(dir / "c"), "alpha");

  CKoError missing = FXFile::WZMoveFileEx(dir / "a", dir / "d", 1);
  EXPECT_EQ(missing.GetCode(), ENOENT);
  EXPECT_NE(missing.GetTopMessage().find(dir / "a"), std::string::npos);
  EXPECT_NE(missing.GetTopMessage().find(dir / "d"), std::string::npos);

  ASSERT_TRUE(FXFile::RemoveFile(dir / "c").IsSuccess());
  EXPECT_FALSE(FXFile::Exists(dir / "c"));
  CKoError gone = FXFile::RemoveFile(dir / "c");
  EXPECT_EQ(gone.GetCode(), ENOENT);
  EXPECT_NE(gone.GetTopMessage().find("No such file or directory"), std::string::npos);
  mkdir((dir / "folder").c_str(), 0700);
  EXPECT_TRUE(FXFile::RemoveFile(dir / "folder").IsError());
  EXPECT_TRUE(FXFile::Exists(dir / "folder"));
}

TEST(FXFileTest, MoveAcrossFileSystemsCopiesSyncsAndUnlinks) {
  struct statfs tmpFs, shmFs;
  TempDir dir;
  if (statfs(dir.path().c_str(), &tmpFs) != 0 || statfs("/dev/shm", &shmFs) != 0 ||
      tmpFs.f_type == shmFs.f_type || access("/dev/shm", W_OK) != 0)
    GTEST_SKIP() << "/dev/shm is not a separate writable file system";
  char pattern[] = "/dev/shm/wzruntime-test-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const std::string other = pattern;

  const std::string content = RandomContent(1024 * 1024 + 5);
  WriteFile(other + "/src", content);
  chmod((other + "/src").c_str(), 0640);
  WriteFile(dir / "dest", "old");

  EXPECT_EQ(FXFile::WZMoveFileEx(other + "/src", dir / "dest", 0).GetCode(), EEXIST);
  EXPECT_TRUE(FXFile::Exists(other + "/src"));

  ASSERT_TRUE(FXFile::WZMoveFileEx(other + "/src", dir / "dest", 1).IsSuccess());
  EXPECT_FALSE(FXFile::Exists(other + "/src"));
  EXPECT_EQ(ReadFile(dir / "dest"), content);
  struct stat st;
  ASSERT_EQ(stat((dir / "dest").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);  // a move keeps the file's permissions
  EXPECT_EQ(CountEntries(dir.path()), 1);

  // And back again, to a new name.
  ASSERT_TRUE(FXFile::WZMoveFileEx(dir / "dest", other + "/back", 0).IsSuccess());
  EXPECT_EQ(ReadFile(other + "/back"), content);
  EXPECT_EQ(CountEntries(dir.path()), 0);
  std::filesystem::remove_all(other);
}

TEST(FXFileTest, FileDataViewsLstat) {
  TempDir dir;
  WriteFile(dir / "f", "12345");
  ASSERT_EQ(symlink("f", (dir / "link").c_str()), 0);
  FXFile::CFileData data;
  EXPECT_EQ(data.GetSize(), 0u);
  ASSERT_TRUE(FXFile::CFileData::FromPath(dir / "f", data).IsSuccess());
  EXPECT_EQ(data.GetSize(), 5u);
  EXPECT_FALSE(data.IsDirectory());
  struct stat st;
  ASSERT_EQ(stat((dir / "f").c_str(), &st), 0);
  EXPECT_EQ(data.GetModificationTime().ToUnixSeconds(), st.st_mtim.tv_sec);
  ASSERT_TRUE(FXFile::CFileData::FromPath(dir / "link", data).IsSuccess());
  EXPECT_TRUE(S_ISLNK(data.GetMode()));
  ASSERT_TRUE(FXFile::CFileData::FromPath(dir.path(), data).IsSuccess());
  EXPECT_TRUE(data.IsDirectory());
  CKoError error = FXFile::CFileData::FromPath(dir / "absent", data);
  EXPECT_EQ(error.GetCode(), ENOENT);
}

}  // namespace
