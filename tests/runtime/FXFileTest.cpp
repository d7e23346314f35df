// File helpers: content copied exactly, destinations never followed or
// half-written, failures reported with errno and the paths.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
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
long CountEntries(const std::string& dir) {
  auto entries = std::filesystem::directory_iterator(dir);
  return std::distance(begin(entries), end(entries));
}

unsigned Mode(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

// The error's code, and whether its message names every given text.
std::string Failure(const CKoError& error, std::initializer_list<std::string> named) {
  std::string text = error.GetKind() == EKoErrorKind::kErrNo ? std::to_string(error.GetCode()) : error.AsString();
  for (const std::string& name : named)
    if (error.GetTopMessage().find(name) == std::string::npos) text += " without " + name;
  return text;
}

// Planted links at copy destinations are covered through the database's
// copy in the hostile-files tests.
TEST(FXFileTest, CopyMakesAnExactOwnerOnlyCopyAndReplacesOnlyWhenAsked) {
  TempDir dir;
  const std::string content = RandomContent(3 * 1024 * 1024 + 17);
  WriteFile(dir / "src", content);
  chmod((dir / "src").c_str(), 0644);
  ASSERT_TRUE(FXFile::WZCopyFile(dir / "src", dir / "copy", 0).IsSuccess());
  EXPECT_EQ(ReadFile(dir / "copy"), content);
  EXPECT_EQ(Mode(dir / "copy") & 07777, 0600u);
  WriteFile(dir / "empty", "");
  ASSERT_TRUE(FXFile::WZCopyFile(dir / "empty", dir / "empty-copy", 0).IsSuccess());
  EXPECT_TRUE(FXFile::Exists(dir / "empty-copy"));

  // Flag 0 leaves an existing destination as it is; flag 1 replaces it and
  // leaves no temporary file behind.
  WriteFile(dir / "existing", "keep me");
  EXPECT_EQ(Failure(FXFile::WZCopyFile(dir / "src", dir / "existing", 0), {dir / "existing", "File exists"}),
            std::to_string(EEXIST));
  EXPECT_EQ(ReadFile(dir / "existing"), "keep me");
  ASSERT_TRUE(FXFile::WZCopyFile(dir / "src", dir / "existing", FXFile::kCopyReplaceExisting).IsSuccess());
  EXPECT_EQ(ReadFile(dir / "existing"), content);
  EXPECT_EQ(CountEntries(dir.path()), 5);
}

TEST(FXFileTest, CopyFailuresLeaveNothingBehind) {
  TempDir dir;
  EXPECT_EQ(Failure(FXFile::WZCopyFile(dir / "absent", dir / "to", 0), {dir / "absent"}), std::to_string(ENOENT));
  mkdir((dir / "folder").c_str(), 0700);
  WriteFile(dir / "src", "x");
  const std::pair<std::string, std::string> fail[] = {
      {"folder", "to"}, {"absent", "to"}, {"src", "no-dir/to"}, {"src", "folder"}};
  const int codes[][2] = {{EISDIR, EISDIR}, {ENOENT, ENOENT}, {ENOENT, ENOENT}, {EEXIST, EISDIR}};
  for (int i = 0; i < 4; ++i)
    for (int flags : {0, 1})
      EXPECT_EQ(FXFile::WZCopyFile(dir / fail[i].first, dir / fail[i].second, flags).GetCode(), codes[i][flags])
          << fail[i].first << " -> " << fail[i].second << " flags " << flags;
  EXPECT_EQ(CountEntries(dir.path()), 2);  // replacing a directory failed, and its temporary copy went

  // A file size limit makes a copy fail with EFBIG after the destination was
  // created and partly written.
  WriteFile(dir / "big", RandomContent(2 * 1024 * 1024));
  struct rlimit saved, limited;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  limited = saved;
  limited.rlim_cur = 512 * 1024;
  auto savedSignal = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
  CKoError fresh = FXFile::WZCopyFile(dir / "big", dir / "copy", 0);
  CKoError replacing = FXFile::WZCopyFile(dir / "big", dir / "big", 1);
  setrlimit(RLIMIT_FSIZE, &saved);
  signal(SIGXFSZ, savedSignal);
  EXPECT_EQ(fresh.GetCode(), EFBIG);
  EXPECT_EQ(replacing.GetCode(), EFBIG);
  EXPECT_EQ(CountEntries(dir.path()), 3);  // no partial copy, no temporary
  EXPECT_EQ(std::filesystem::file_size(dir / "big"), 2u * 1024 * 1024);
}

TEST(FXFileTest, MoveRenamesOrRefusesAndRemoveUnlinks) {
  TempDir dir;
  WriteFile(dir / "a", "alpha");
  WriteFile(dir / "b", "beta");
  EXPECT_EQ(FXFile::WZMoveFileEx(dir / "a", dir / "b", 0).GetCode(), EEXIST);
  EXPECT_EQ(ReadFile(dir / "a") + ReadFile(dir / "b"), "alphabeta");
  ASSERT_TRUE(FXFile::WZMoveFileEx(dir / "a", dir / "b", FXFile::kMoveReplaceExisting).IsSuccess());
  EXPECT_FALSE(FXFile::Exists(dir / "a"));
  ASSERT_TRUE(FXFile::WZMoveFileEx(dir / "b", dir / "c", 0).IsSuccess());
  EXPECT_EQ(ReadFile(dir / "c"), "alpha");
  EXPECT_EQ(Failure(FXFile::WZMoveFileEx(dir / "a", dir / "d", 1), {dir / "a", dir / "d"}), std::to_string(ENOENT));

  ASSERT_TRUE(FXFile::RemoveFile(dir / "c").IsSuccess());
  EXPECT_FALSE(FXFile::Exists(dir / "c"));
  EXPECT_EQ(Failure(FXFile::RemoveFile(dir / "c"), {"No such file or directory"}), std::to_string(ENOENT));
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
  EXPECT_EQ(Mode(dir / "dest") & 07777, 0640u);  // a move keeps the file's permissions
  EXPECT_EQ(CountEntries(dir.path()), 1);
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
  ASSERT_TRUE(FXFile::CFileData::FromPath(dir / "f", data).IsSuccess());
  EXPECT_EQ(data.GetSize(), 5u);
  struct stat st;
  ASSERT_EQ(stat((dir / "f").c_str(), &st), 0);
  EXPECT_EQ(data.GetModificationTime().ToUnixSeconds(), st.st_mtim.tv_sec);
  ASSERT_TRUE(FXFile::CFileData::FromPath(dir / "link", data).IsSuccess());
  EXPECT_TRUE(S_ISLNK(data.GetMode()));
  ASSERT_TRUE(FXFile::CFileData::FromPath(dir.path(), data).IsSuccess());
  EXPECT_TRUE(data.IsDirectory());
  EXPECT_EQ(FXFile::CFileData::FromPath(dir / "absent", data).GetCode(), ENOENT);
}

}  // namespace
