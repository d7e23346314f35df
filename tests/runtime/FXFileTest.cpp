// File helpers: content copied exactly, destinations never half-written or
// replaced unless asked, moves across file systems by copy, failures reported
// with errno and the paths. Faults of the system calls are planted here.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "PlantedFaults.h"
#include "runtime/FXFile.h"
#include "runtime/WzcRandom.h"
#include "support/TempDir.h"

PlantedFaults g_faults;

namespace {

bool PlantedRenameFailure() {
  if (g_faults.renameFailures <= 0) return false;
  --g_faults.renameFailures;
  errno = g_faults.renameErrno;
  return true;
}

}  // namespace

// Defined and exported by the executable, these take the C library's place
// for the runtime library too.
#define PLANTED extern "C" __attribute__((visibility("default")))
PLANTED ssize_t write(int fd, const void* data, size_t size) {
  if (g_faults.interrupts > 0) return --g_faults.interrupts, errno = EINTR, -1;
  const size_t limit = g_faults.writeLimit;
  return syscall(SYS_write, fd, data, limit && size > limit ? limit : size);
}
PLANTED ssize_t copy_file_range(int in, off64_t* inAt, int out, off64_t* outAt, size_t size, unsigned flags) {
  if (g_faults.copyRangeErrno) return errno = g_faults.copyRangeErrno, -1;
  return syscall(SYS_copy_file_range, in, inAt, out, outAt, size, flags);
}
PLANTED ssize_t read(int fd, void* data, size_t size) {
  if (g_faults.readInterrupts > 0) return --g_faults.readInterrupts, errno = EINTR, -1;
  return syscall(SYS_read, fd, data, size);
}
PLANTED int fsync(int fd) {
  struct stat st;
  if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) ++g_faults.directorySyncs;
  return static_cast<int>(syscall(SYS_fsync, fd));
}
PLANTED int fchmod(int fd, mode_t mode) noexcept {
  return g_faults.fchmodErrno ? errno = g_faults.fchmodErrno, -1 : static_cast<int>(syscall(SYS_fchmod, fd, mode));
}
PLANTED int rename(const char* from, const char* to) noexcept {
  return PlantedRenameFailure() ? -1 : static_cast<int>(syscall(SYS_rename, from, to));
}
PLANTED int renameat2(int fromDir, const char* from, int toDir, const char* to, unsigned flags) noexcept {
  if (PlantedRenameFailure()) return -1;
  if (flags && g_faults.noRenameFlags) return errno = EINVAL, -1;
  return static_cast<int>(syscall(SYS_renameat2, fromDir, from, toDir, to, flags));
}

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

unsigned Mode(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

class FXFileTest : public ::testing::Test {
 protected:
  void TearDown() override { g_faults = PlantedFaults(); }
  // The names in the directory, sorted: shows leftover temporary files.
  std::string Entries() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path()))
      names.insert(entry.path().filename());
    std::string text;
    for (const std::string& name : names) text += name + " ";
    return text;
  }
  TempDir dir;
};

TEST_F(FXFileTest, CopyIsExactOwnerOnlyAndReplacesOnlyWhenAsked) {
  const std::string content = RandomContent(1536 * 1024 + 17);
  WriteFile(dir / "src", content);
  chmod((dir / "src").c_str(), 0644);
  // In the kernel; then through read and write in short pieces, as when the
  // kernel cannot copy between the two file systems.
  for (PlantedFaults faults : {PlantedFaults(), PlantedFaults{4093, EXDEV, 0, 0, false, 3}}) {
    g_faults = faults;
    const std::string copy = dir / ("copy" + std::to_string(faults.writeLimit));
    ASSERT_TRUE(FXFile::WZCopyFile(dir / "src", copy, 0).IsSuccess());
    EXPECT_TRUE(ReadFile(copy) == content) << "via " << copy;
    EXPECT_EQ(Mode(copy), 0600u);
  }
  g_faults = PlantedFaults();
  WriteFile(dir / "empty", "");
  ASSERT_TRUE(FXFile::WZCopyFile(dir / "empty", dir / "empty-copy", 0).IsSuccess());
  EXPECT_EQ(ReadFile(dir / "empty-copy"), "");

  WriteFile(dir / "existing", "keep me");
  EXPECT_EQ(FXFile::WZCopyFile(dir / "src", dir / "existing", 0).GetCode(), EEXIST);
  EXPECT_EQ(ReadFile(dir / "existing"), "keep me");
  ASSERT_TRUE(FXFile::WZCopyFile(dir / "src", dir / "existing", FXFile::kCopyReplaceExisting).IsSuccess());
  EXPECT_TRUE(ReadFile(dir / "existing") == content);
  EXPECT_EQ(Entries(), "copy0 copy4093 empty empty-copy existing src ");
}

TEST_F(FXFileTest, FailedCopiesLeaveNothingBehind) {
  mkdir((dir / "folder").c_str(), 0700);
  WriteFile(dir / "src", "x");
  WriteFile(dir / "dest", "old");
  const std::pair<std::string, std::string> fail[] = {
      {"folder", "to"}, {"absent", "to"}, {"src", "no-dir/to"}, {"src", "folder"}};
  const int codes[][2] = {{EISDIR, EISDIR}, {ENOENT, ENOENT}, {ENOENT, ENOENT}, {EEXIST, EISDIR}};
  for (int i = 0; i < 4; ++i)
    for (int flags : {0, 1})
      EXPECT_EQ(FXFile::WZCopyFile(dir / fail[i].first, dir / fail[i].second, flags).GetCode(), codes[i][flags])
          << fail[i].first << " -> " << fail[i].second << " flags " << flags;
  // The copy fails after the destination (or its temporary) was created.
  g_faults.copyRangeErrno = ENOSPC;
  EXPECT_EQ(FXFile::WZCopyFile(dir / "src", dir / "new", 0).GetCode(), ENOSPC);
  EXPECT_EQ(FXFile::WZCopyFile(dir / "src", dir / "dest", 1).GetCode(), ENOSPC);
  EXPECT_EQ(ReadFile(dir / "dest"), "old");
  EXPECT_EQ(Entries(), "dest folder src ");
}

TEST_F(FXFileTest, MoveReplacesOnlyWhenAskedAlsoWithoutKernelSupport) {
  for (bool fallback : {false, true}) {
    SCOPED_TRACE(fallback ? "renameat2 cannot refuse: checked first" : "renameat2 refuses");
    g_faults.noRenameFlags = fallback;
    WriteFile(dir / "a", "alpha");
    WriteFile(dir / "b", "beta");
    EXPECT_EQ(FXFile::WZMoveFileEx(dir / "a", dir / "b", 0).GetCode(), EEXIST);
    EXPECT_EQ(ReadFile(dir / "a") + ReadFile(dir / "b"), "alphabeta");
    ASSERT_TRUE(FXFile::WZMoveFileEx(dir / "a", dir / "c", 0).IsSuccess());
    ASSERT_TRUE(FXFile::WZMoveFileEx(dir / "c", dir / "b", FXFile::kMoveReplaceExisting).IsSuccess());
    EXPECT_EQ(Entries(), "b ");
    EXPECT_EQ(ReadFile(dir / "b"), "alpha");
    ASSERT_TRUE(FXFile::RemoveFile(dir / "b").IsSuccess());
  }
  mkdir((dir / "folder").c_str(), 0700);
  EXPECT_EQ(FXFile::RemoveFile(dir / "folder").GetCode(), EISDIR);
  EXPECT_TRUE(FXFile::Exists(dir / "folder"));
}

TEST_F(FXFileTest, MoveAcrossFileSystemsCopiesKeepsModeAndTimesThenUnlinks) {
  const std::string content = RandomContent(1024 * 1024 + 5);
  WriteFile(dir / "src", content);
  chmod((dir / "src").c_str(), 0640);
  const timespec times[2] = {{1600000000, 0}, {1650000000, 123456789}};
  ASSERT_EQ(utimensat(AT_FDCWD, (dir / "src").c_str(), times, 0), 0);
  WriteFile(dir / "dest", "old");
  g_faults.renameErrno = EXDEV;

  g_faults.renameFailures = 1;
  EXPECT_EQ(FXFile::WZMoveFileEx(dir / "src", dir / "dest", 0).GetCode(), EEXIST);
  EXPECT_EQ(ReadFile(dir / "dest"), "old");
  EXPECT_EQ(Entries(), "dest src ");
  g_faults.renameFailures = 1;
  g_faults.directorySyncs = 0;
  ASSERT_TRUE(FXFile::WZMoveFileEx(dir / "src", dir / "dest", FXFile::kMoveReplaceExisting).IsSuccess());
  EXPECT_EQ(g_faults.directorySyncs, 2) << "the new entry and the removed one are made durable";
  EXPECT_EQ(Entries(), "dest ");
  EXPECT_TRUE(ReadFile(dir / "dest") == content);
  EXPECT_EQ(Mode(dir / "dest"), 0640u);
  FXFile::CFileData data;
  ASSERT_TRUE(FXFile::CFileData::FromPath(dir / "dest", data).IsSuccess());
  EXPECT_EQ(data.GetModificationTime().ToUnixSeconds(), 1650000000);
  EXPECT_EQ(data.GetSize(), content.size());

  // A copy that cannot take the source's mode is not moved into place.
  WriteFile(dir / "src", "x");
  g_faults.renameFailures = 1;
  g_faults.fchmodErrno = EPERM;
  EXPECT_EQ(FXFile::WZMoveFileEx(dir / "src", dir / "dest", FXFile::kMoveReplaceExisting).GetCode(), EPERM);
  EXPECT_EQ(Entries(), "dest src ");
  EXPECT_TRUE(ReadFile(dir / "dest") == content);
  // Only regular files are moved by copying.
  mkdir((dir / "folder").c_str(), 0700);
  g_faults.renameFailures = 1;
  EXPECT_EQ(FXFile::WZMoveFileEx(dir / "folder", dir / "moved", 0).GetCode(), EXDEV);
  EXPECT_EQ(Entries(), "dest folder src ");
}

TEST_F(FXFileTest, FailureTextsNameThePathsAndTheStep) {
  WriteFile(dir / "src", "x");
  WriteFile(dir / "dest", "old");
  ASSERT_EQ(symlink("src", (dir / "link").c_str()), 0);
  const std::string s = dir / "src", d = dir / "dest", a = dir / "absent";
  FXFile::CFileData data;
  const std::pair<CKoError, std::string> rows[] = {
      {FXFile::RemoveFile(a), "Cannot remove \"" + a + "\": No such file or directory"},
      {FXFile::WZCopyFile(s, d, 0),
       "Cannot copy \"" + s + "\" to \"" + d + "\": cannot create the destination: File exists"},
      {FXFile::WZCopyFile(a, d, 1),
       "Cannot copy \"" + a + "\" to \"" + d + "\": cannot open the source: No such file or directory"},
      {FXFile::WZMoveFileEx(a, d, 1), "Cannot move \"" + a + "\" to \"" + d + "\": No such file or directory"},
      {(g_faults = PlantedFaults{0, 0, 1, EXDEV}, FXFile::WZMoveFileEx(s, d, 0)),
       "Cannot move \"" + s + "\" to \"" + d +
           "\" across file systems: cannot rename the copy into place: File exists"},
      {FXFile::CFileData::FromPath(a, data),
       "Cannot read the status of \"" + a + "\": No such file or directory"},
  };
  for (const auto& [error, text] : rows) {
    EXPECT_EQ(error.GetKind(), EKoErrorKind::kErrNo);
    EXPECT_EQ(error.GetTopMessage(), text);
  }
  // The status is that of the link itself.
  ASSERT_TRUE(FXFile::CFileData::FromPath(dir / "link", data).IsSuccess());
  EXPECT_TRUE(S_ISLNK(data.GetMode()));
  ASSERT_TRUE(FXFile::CFileData::FromPath(dir.path(), data).IsSuccess());
  EXPECT_TRUE(data.IsDirectory());
}

}  // namespace
