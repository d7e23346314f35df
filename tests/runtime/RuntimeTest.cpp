// The agent runtime: file helpers (content copied exactly, also in short
// pieces after interruptions; destinations never half-written or replaced
// unless asked; moves across file systems by copy; failures naming the paths
// and the step), the log writer (gating, the written line, sinks, many
// threads, configuration, the settings file), and the texts it renders or
// derives (errors, paths, time stamps, counters added from many threads).
// System call faults are planted here.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "runtime/CTimeCounter.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/FXFile.h"
#include "runtime/FXPath.h"
#include "runtime/FXString.h"
#include "runtime/LogCapture.h"
#include "runtime/WZDebugFunction.h"
#include "runtime/WZPlatformInfo.h"
#include "runtime/WzcRandom.h"
#include "support/TempDir.h"

namespace {

// While set: write() puts at most `writeLimit` bytes per call,
// copy_file_range() fails with `copyRangeErrno`, the next `renameFailures`
// renames fail with `renameErrno`, renameat2() with flags fails as on a file
// system that cannot refuse to replace; the next `interrupts` writes fail
// with EINTR. `directorySyncs` counts fsync() calls on directories.
struct PlantedFaults {
  size_t writeLimit = 0;
  int copyRangeErrno = 0, renameFailures = 0, renameErrno = 0;
  bool noRenameFlags = false;
  int interrupts = 0, directorySyncs = 0;
} g_faults;
const PlantedFaults kAcrossFileSystems{0, 0, 1, EXDEV}, kInPieces{4093, EXDEV, 0, 0, false, 3};

bool RenameFails() {
  return g_faults.renameFailures > 0 && (--g_faults.renameFailures, (errno = g_faults.renameErrno) != 0);
}

}  // namespace

// Defined and exported by the executable, these take the C library's place
// for the runtime library too.
#define PLANTED extern "C" __attribute__((visibility("default")))
PLANTED ssize_t write(int fd, const void* data, size_t size) {
  if (g_faults.interrupts > 0) return --g_faults.interrupts, errno = EINTR, -1;
  return syscall(SYS_write, fd, data, g_faults.writeLimit ? std::min(size, g_faults.writeLimit) : size);
}
PLANTED ssize_t copy_file_range(int in, off64_t* inAt, int out, off64_t* outAt, size_t size, unsigned flags) {
  if (g_faults.copyRangeErrno) return errno = g_faults.copyRangeErrno, -1;
  return syscall(SYS_copy_file_range, in, inAt, out, outAt, size, flags);
}
PLANTED int fsync(int fd) {
  struct stat st;
  g_faults.directorySyncs += fstat(fd, &st) == 0 && S_ISDIR(st.st_mode);
  return static_cast<int>(syscall(SYS_fsync, fd));
}
PLANTED int rename(const char* from, const char* to) noexcept {
  return RenameFails() ? -1 : static_cast<int>(syscall(SYS_rename, from, to));
}
PLANTED int renameat2(int fromDir, const char* from, int toDir, const char* to, unsigned flags) noexcept {
  if (RenameFails() || (flags && g_faults.noRenameFlags && (errno = EINVAL) != 0)) return -1;
  return static_cast<int>(syscall(SYS_renameat2, fromDir, from, toDir, to, flags));
}

namespace {

using FXFile::WZCopyFile;
using FXFile::WZMoveFileEx;

// A directory, no log destination, settings file or planted fault, and a
// capture; leaves the writer's level and destination as they were.
class RuntimeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_ptrLogWriter->SetNone();
    for (const char* name : {"WZ_LOG_LEVEL", "WZ_LOG_FILE", "WZ_SETTINGS_FILE"}) unsetenv(name);
    g_faults = PlantedFaults();
    content.resize((1 << 20) + 17);  // a source of random content, more than one read buffer
    Wzc::getRand(&content[0], static_cast<int>(content.size()));
    Write("src", content);
    chmod((dir / "src").c_str(), 0640);
  }
  void TearDown() override {
    g_faults = PlantedFaults();
    capture->Remove();
    g_ptrLogWriter->SetLevel(savedLevel);
    g_ptrLogWriter->SetStderr();
  }
  void Write(const std::string& name, const std::string& text) { std::ofstream(dir / name) << text; }
  std::string Read(const std::string& name) {
    std::ostringstream out;
    out << std::ifstream(dir / name).rdbuf();
    return out.str() == content ? "content" : out.str();
  }
  // The lines of a file, each without its time stamp "YYYY-MM-DD hh:mm:ss.uuuuuu" (or "bad: <line>").
  std::vector<std::string> Lines(const std::string& name) const {
    std::ifstream in(dir / name);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
      lines.push_back(line.size() > 26 && line[4] == '-' && line[19] == '.' ? line.substr(26) : "bad: " + line);
    return lines;
  }
  // Each name in the directory, sorted, with its mode: shows leftover files.
  std::string Entries() const {
    std::map<std::string, unsigned> modes;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path()))
      modes[entry.path().filename()] = static_cast<unsigned>(entry.status().permissions());
    std::string text;
    for (const auto& [name, mode] : modes) text += name + FXString::Format("@%o ", mode);
    return text;
  }
  // Copies or moves `a` to `b` in the directory, with flags `f`.
  CKoError Copy(const std::string& a, const std::string& b, unsigned f) { return WZCopyFile(dir / a, dir / b, f); }
  CKoError Move(const std::string& a, const std::string& b, unsigned f) { return WZMoveFileEx(dir / a, dir / b, f); }

  const int savedLevel = g_ptrLogWriter->GetLevel();
  TempDir dir;
  std::string content;
  std::shared_ptr<CLogCapture> capture = CLogCapture::Install();
  const std::string tid = " [tid " + std::to_string(syscall(SYS_gettid)) + "] ";
};

TEST_F(RuntimeTest, CopiesAreExactOwnerOnlyAndReplaceOnlyWhenAsked) {
  ASSERT_TRUE(Copy("src", "copy", 0).IsSuccess());  // in the kernel
  g_faults = kInPieces;                             // as across file systems
  ASSERT_TRUE(Copy("src", "pieces", 0).IsSuccess());
  EXPECT_EQ(Read("copy") + Read("pieces"), "contentcontent");
  Write("dest", "old");
  EXPECT_EQ(Copy("src", "dest", 0).GetTopMessage(), "Cannot copy \"" + dir / "src" + "\" to \"" + dir / "dest" +
                                                        "\": cannot create the destination: File exists");
  // A copy that fails after its file was made removes it; the destination stays.
  g_faults = PlantedFaults{0, ENOSPC};
  EXPECT_EQ(Copy("src", "dest", FXFile::kCopyReplaceExisting).GetCode(), ENOSPC);
  EXPECT_EQ(Read("dest"), "old");
  g_faults = PlantedFaults();
  ASSERT_TRUE(Copy("src", "dest", FXFile::kCopyReplaceExisting).IsSuccess());
  EXPECT_EQ(Read("dest"), "content");
  // Neither a folder nor onto a folder, with and without the replace flag.
  mkdir((dir / "folder").c_str(), 0700);
  for (unsigned flags : {0u, 1u}) {
    EXPECT_EQ(Copy("folder", "to", flags).GetCode(), EISDIR);
    EXPECT_EQ(Copy("src", "folder", flags).GetCode(), flags ? EISDIR : EEXIST);
  }
  EXPECT_EQ(Entries(), "copy@600 dest@600 folder@700 pieces@600 src@640 ");
}

TEST_F(RuntimeTest, MovesReplaceOnlyWhenAskedAlsoWithoutKernelSupportOrAcrossFileSystems) {
  for (bool fallback : {false, true}) {
    SCOPED_TRACE(fallback ? "renameat2 cannot refuse: checked first" : "renameat2 refuses");
    g_faults.noRenameFlags = fallback;
    Write("a", "alpha");
    Write("b", "beta");
    EXPECT_EQ(Move("a", "b", 0).GetCode(), EEXIST);
    ASSERT_TRUE(Move("a", "c", 0).IsSuccess() && Move("c", "b", FXFile::kMoveReplaceExisting).IsSuccess());
    EXPECT_TRUE(Read("b") == "alpha" && FXFile::RemoveFile(dir / "b").IsSuccess());
  }
  // Across file systems: a synced copy keeping mode and times, then the
  // source goes; both directory entries are made durable.
  const timespec times[2] = {{1600000000, 0}, {1650000000, 123456789}};
  ASSERT_EQ(utimensat(AT_FDCWD, (dir / "src").c_str(), times, 0), 0);
  Write("dest", "old");
  g_faults = kAcrossFileSystems;
  EXPECT_EQ(Move("src", "dest", 0).GetTopMessage(),
            "Cannot move \"" + dir / "src" + "\" to \"" + dir / "dest" +
                "\" across file systems: cannot rename the copy into place: File exists");
  g_faults = kAcrossFileSystems;
  ASSERT_TRUE(Move("src", "dest", FXFile::kMoveReplaceExisting).IsSuccess());
  EXPECT_EQ(g_faults.directorySyncs, 2);
  EXPECT_EQ(Read("dest"), "content");
  FXFile::CFileData data;
  ASSERT_TRUE(FXFile::CFileData::FromPath(dir / "dest", data).IsSuccess());
  EXPECT_EQ(data.GetModificationTime().ToUnixSeconds(), 1650000000);
  EXPECT_EQ(Entries(), "dest@640 ");
  // The other failure texts.
  const std::string absent = dir / "absent";
  EXPECT_EQ(Move("absent", "dest", 1).GetTopMessage(),
            "Cannot move \"" + absent + "\" to \"" + dir / "dest" + "\": No such file or directory");
  EXPECT_EQ(FXFile::RemoveFile(absent).GetTopMessage(), "Cannot remove \"" + absent + "\": No such file or directory");
  EXPECT_EQ(FXFile::CFileData::FromPath(absent, data).GetTopMessage(),
            "Cannot read the status of \"" + absent + "\": No such file or directory");
}

int g_evaluations = 0;
int Expensive() { return ++g_evaluations, 99; }

TEST_F(RuntimeTest, LevelGatesLinesAndTheirArgumentsAndSinksHearWhatPasses) {
  g_ptrLogWriter->SetLevel(1);
  WZ_LOG(2, "void f()", 1, "value %d", Expensive());
  { WZDebugFunction trace(2, "void g()"); }
  g_ptrLogWriter->SetLevel(2);
  WZ_LOG(2, "void f()", 3, "value %d\n", Expensive());
  { WZDebugFunction trace(2, "void g()"); }
  // A removed sink hears nothing more; one whose last owner let it go is dropped.
  capture->Remove();
  std::weak_ptr<CLogCapture> other = CLogCapture::Install();
  EXPECT_TRUE(other.expired());
  WZ_LOG(-1, "void f()", 5, "after removal %d", Expensive());
  EXPECT_EQ(g_evaluations, 2);
  std::vector<std::string> lines;  // the sink gets each message as formatted
  for (const CLogEntry& e : capture->Entries())
    lines.push_back(std::to_string(e.level) + " " + e.function + " " + e.message);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0] + lines[1], "2 void f() value 99\n2 void g() Entering void g()");
  EXPECT_EQ(lines[2].substr(0, 34) + lines[2].substr(lines[2].size() - 7, 1) + lines[2].substr(lines[2].size() - 3),
            "2 void g() Leaving void g() after . ms");
}

// Lines go to the file whole, with stamp, thread, level and location and one
// newline, also when the file takes them in pieces after interruptions and
// from many threads at once (per thread in order); writing keeps errno.
TEST_F(RuntimeTest, FileLinesAreWholeAlsoWrittenInPiecesFromManyThreads) {
  ASSERT_TRUE(g_ptrLogWriter->SetFile(dir / "agent.log").IsSuccess());
  g_faults = PlantedFaults{7, 0, 0, 0, false, 2};
  WZ_LOG(0, "static CKoError WzScanDB::move(const string&, const string&)", 321,
         "Moving %s from %s to %s completed successfully\n", "WzScanDB", "/a", "/b");
  errno = EACCES;
  WZ_LOG(-1, "void f()", 7, "no newline");
  EXPECT_EQ(errno, EACCES);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 100; ++i) WZ_LOG(0, "void f()", t, "line %d %s", i, std::string(40, 'a' + t).c_str());
    });
  for (auto& thread : threads) thread.join();
  const std::vector<std::string> lines = Lines("agent.log");
  ASSERT_EQ(lines.size(), 402u);
  EXPECT_EQ(lines[0], tid +
                          "L0 static CKoError WzScanDB::move(const string&, const string&):321 Moving WzScanDB from "
                          "/a to /b completed successfully");
  EXPECT_EQ(lines[1], tid + "L-1 void f():7 no newline");
  std::vector<int> next(4, 0);
  for (size_t n = 2; n < lines.size(); ++n) {
    int t = 0, i = -1, at = 0;
    ASSERT_EQ(sscanf(lines[n].c_str(), " [tid %*d] L0 void f():%d line %d %n", &t, &i, &at), 2) << lines[n];
    EXPECT_EQ(lines[n].substr(at) + " " + std::to_string(i),
              std::string(40, 'a' + t) + " " + std::to_string(next[t]++));
  }
  EXPECT_EQ(Entries(), "agent.log@600 src@640 ");
  EXPECT_EQ(g_ptrLogWriter->SetFile(dir / "missing/agent.log").GetTopMessage(),
            "Cannot open log file \"" + dir / "missing/agent.log" + "\": No such file or directory");
}

TEST_F(RuntimeTest, ConfigurationAndSettings) {
  // The settings file: sections and names in any case, CRLF lines, a byte
  // order mark, quotes, the last of repeated names, a broken header ending
  // its section; a malformed number is one warning and leaves the value.
  Write("settings.ini", "\xEF\xBB\xBF[Log]\r\nLogLevel = 3\r\nLogFile = \"" + dir / "settings.log" +
                            "\"\r\n[ ~FileSystemAgent ]\r\n"
                            "  n=  1  \r\nN = -2\r\nTooBig = 2147483648\r\n[broken\nN = 9\n");
  setenv("WZ_SETTINGS_FILE", (dir / "settings.ini").c_str(), 1);
  int value = 1234, big = 1234;
  EXPECT_TRUE(WZPlatformInfo::getRegInt("~filesystemagent", "N", &value) && value == -2);
  EXPECT_FALSE(WZPlatformInfo::getRegInt("~FileSystemAgent", "TooBig", &big) || big != 1234);
  ASSERT_EQ(capture->Entries().size(), 1u);
  EXPECT_EQ(capture->Entries()[0].message,
            "Setting \"TooBig\" in section \"~FileSystemAgent\" is not a whole number: \"2147483648\"");
  // The log's level and file come from the environment, else from the
  // settings; a writer being built warns through its own destination.
  g_ptrLogWriter->Configure();
  WZ_LOG(3, "void f()", 1, "a line");
  EXPECT_EQ(Lines("settings.log"), std::vector<std::string>{tid + "L3 void f():1 a line"});
  setenv("WZ_LOG_LEVEL", "verbose", 1);
  setenv("WZ_LOG_FILE", (dir / "env.log").c_str(), 1);
  EXPECT_EQ(CLogWriter().GetLevel(), 0) << "not the settings' 3";
  EXPECT_NE(Lines("env.log").at(0).find(" Ignoring malformed log level \"verbose\""), std::string::npos);
  EXPECT_EQ(capture->Entries().size(), 2u) << "the warning, and the line, and nothing from the writer being built";
}

TEST(TextTest, ErrorsRenderKindCodeAndFramesTopFirst) {
  const FXCodeLocation inner("WzScanDB/records/Inner", "int Inner::read(int)", 10);
  const CKoError origin = FXErrorUtil::ErrorInt(inner, 101, "engine said %s", "no key");
  const CKoError pushed =
      origin.Push(FXCodeLocation("WzScanDB/WzScanDB", "CKoError WzScanDB::outer()", 20), "addFile() Failed");
  const std::string at = "\n  at WzScanDB/records/Inner:10 int Inner::read(int): ", big(5000, 'x');
  EXPECT_EQ(pushed.AsString(),
            "Error (status 101)\n  at WzScanDB/WzScanDB:20 CKoError WzScanDB::outer(): addFile() "
            "Failed" +
                at + "engine said no key");
  EXPECT_EQ(FXErrorUtil::ErrorWin32(inner, 774, "%s", "x").AsString(),
            "Error (win32 774: An error occurred while performing index maintenance.)" + at + "x");
  EXPECT_EQ(FXErrorUtil::ErrorErrNo(inner, ENOENT, "<%s>", big.c_str()).AsString(),
            "Error (errno 2: No such file or directory)" + at + "<" + big + ">");  // longer than a stack buffer
}

// A path split into "parent|name", the path being either output.
std::string Split(const std::string& path) {
  std::string parent = path, name, other = path;
  FXPath::SplitParentPath(parent, parent, name);
  FXPath::SplitParentPath(other, name, other);
  return parent + "|" + other;
}
// `path` with `tail` appended, or with the trailing delimiter if none.
std::string Join(std::string path, const char* tail = nullptr) {
  tail ? FXPath::Append(path, tail, 0) : FXPath::AppendTrailingDelimiter(path);
  return path;
}

TEST(TextTest, PathsSplitAndJoin) {
  std::string got;  // "parent|name" of each path
  for (const char* path : {"/a/b", "/", "/y/a///", "", "a/b/c", "//a//b", "//a"}) got += Split(path) + " ";
  EXPECT_EQ(got, "/a|b | /y|a | a/b|c //a|b /|a ");
  got.clear();  // each path and tail joined; without a tail, the path with its trailing delimiter
  const char* joins[][2] = {{"/x/", "a/b"}, {"", "a/b"},   {"/x/", ""},    {"/x//", "//a"},
                            {"/x", "/a/"},  {"", nullptr}, {"a", nullptr}, {"/", nullptr}};
  for (const auto& c : joins) got += Join(c[0], c[1]) + " ";
  EXPECT_EQ(got, "/x/a/b a/b /x/ /x/a /x/a/ / a/ / ");
  EXPECT_EQ(FXPath::Append(got, "a", 1).GetCode(), EINVAL);
}

TEST(TextTest, StampsAndCountersAlsoFromManyThreads) {
  EXPECT_EQ(
      CTimeStamp::FromNanoseconds(1700000000123456789LL).AsString() + "|" + CTimeStamp::FromNanoseconds(-1).AsString(),
      "2023-11-14 22:13:20.123456|1969-12-31 23:59:59.999999");

  // Counters add from many threads at once. (Scopes timing themselves: the
  // samples of each database operation, in tests/core. The
  // statistics thread of a database, started, joined at close or outliving
  // its database, is in tests/core.)
  CTimeCounter counter;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 25000; ++i) counter.Add(1000);
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter.AsString(), "samples=100000 total=100.000 ms mean=1.000 us");
}

}  // namespace
