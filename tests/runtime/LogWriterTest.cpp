// The log writer: level gating before argument evaluation, the line format,
// destinations, sinks from many threads, configuration from the environment
// and the settings file, and the trace helpers that write through it.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "runtime/EvDebug.h"
#include "runtime/LogCapture.h"
#include "runtime/LogWriter.h"
#include "runtime/WZDebugFunction.h"
#include "support/TempDir.h"
#include "LogLineParser.h"

namespace {

// Restores the writer's level and destination and the environment the
// writer reads after each test.
class LogWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    savedLevel_ = g_ptrLogWriter->GetLevel();
    g_ptrLogWriter->SetNone();
    unsetenv("WZ_LOG_LEVEL");
    unsetenv("WZ_LOG_FILE");
    unsetenv("WZ_SETTINGS_FILE");
  }
  void TearDown() override {
    unsetenv("WZ_LOG_LEVEL");
    unsetenv("WZ_LOG_FILE");
    unsetenv("WZ_SETTINGS_FILE");
    g_ptrLogWriter->SetLevel(savedLevel_);
    g_ptrLogWriter->SetStderr();
  }
  int savedLevel_ = 0;
};

std::vector<std::string> ReadLines(const std::string& path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

int g_evaluations = 0;
int Expensive() {
  ++g_evaluations;
  return 99;
}

TEST_F(LogWriterTest, LevelGatesLinesAndTheirArguments) {
  auto capture = CLogCapture::Install();
  g_ptrLogWriter->SetLevel(4);
  g_evaluations = 0;

  WZ_LOG(5, "void f()", 1, "value %d", Expensive());
  EXPECT_EQ(g_evaluations, 0);
  g_ptrLogWriter->Write(5, "void f()", 2, "direct %d", 1);
  EXPECT_TRUE(capture->Entries().empty());

  WZ_LOG(4, "void f()", 3, "value %d\n", Expensive());
  WZ_LOG(-1, "void g(int)", 4, "error");
  EXPECT_EQ(g_evaluations, 1);
  auto entries = capture->Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].level, 4);
  EXPECT_EQ(entries[0].function, "void f()");
  EXPECT_EQ(entries[0].line, 3);
  EXPECT_EQ(entries[0].message, "value 99\n");  // kept exactly as formatted
  EXPECT_EQ(entries[0].threadId, static_cast<unsigned long>(syscall(SYS_gettid)));
  EXPECT_EQ(entries[1].level, -1);
  EXPECT_EQ(capture->Find("value 99\n").size(), 1u);
  EXPECT_EQ(capture->FindContaining("rro").size(), 1u);

  g_ptrLogWriter->SetLevel(-2);
  WZ_LOG(-1, "void g(int)", 5, "hidden %d", Expensive());
  EXPECT_EQ(g_evaluations, 1);
  EXPECT_EQ(capture->Entries().size(), 2u);

  capture->Clear();
  EXPECT_TRUE(capture->Entries().empty());
  capture->Remove();
  g_ptrLogWriter->SetLevel(0);
  WZ_LOG(0, "void f()", 6, "after removal");
  EXPECT_TRUE(capture->Entries().empty());
}

TEST_F(LogWriterTest, FileLinesCarryStampThreadLevelLocationAndOneNewline) {
  TempDir dir;
  const std::string path = dir / "agent.log";
  ASSERT_TRUE(g_ptrLogWriter->SetFile(path).IsSuccess());
  WZ_LOG(0, "static CKoError WzScanDB::move(const string&, const string&)", 321,
         "Moving %s from %s to %s completed successfully\n", "WzScanDB", "/a", "/b");
  WZ_LOG(-1, "void f()", 7, "no newline");
  g_ptrLogWriter->SetNone();
  WZ_LOG(0, "void f()", 8, "not written anywhere");

  auto lines = ReadLines(path);
  ASSERT_EQ(lines.size(), 2u);
  ParsedLogLine parsed;
  ASSERT_TRUE(ParseLogLine(lines[0], &parsed)) << lines[0];
  EXPECT_EQ(parsed.threadId, static_cast<unsigned long>(syscall(SYS_gettid)));
  EXPECT_EQ(parsed.level, 0);
  EXPECT_EQ(parsed.function, "static CKoError WzScanDB::move(const string&, const string&)");
  EXPECT_EQ(parsed.line, 321);
  EXPECT_EQ(parsed.message, "Moving WzScanDB from /a to /b completed successfully");
  ASSERT_TRUE(ParseLogLine(lines[1], &parsed)) << lines[1];
  EXPECT_EQ(parsed.level, -1);
  EXPECT_EQ(parsed.function, "void f()");
  EXPECT_EQ(parsed.line, 7);
  EXPECT_EQ(parsed.message, "no newline");

  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  CKoError error = g_ptrLogWriter->SetFile(dir / "missing/agent.log");
  EXPECT_EQ(error.GetKind(), EKoErrorKind::kErrNo);
  EXPECT_EQ(error.GetCode(), ENOENT);
}

TEST_F(LogWriterTest, LinesFromManyThreadsArriveWholeAndInOrder) {
  TempDir dir;
  const std::string path = dir / "threads.log";
  ASSERT_TRUE(g_ptrLogWriter->SetFile(path).IsSuccess());
  auto capture = CLogCapture::Install();
  constexpr int kThreads = 4, kLines = 400;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i)
        WZ_LOG(0, "void worker()", t, "thread %d line %d %s", t, i, std::string(100, 'a' + t).c_str());
    });
  }
  for (auto& thread : threads) thread.join();
  g_ptrLogWriter->SetNone();
  capture->Remove();

  auto entries = capture->Entries();
  ASSERT_EQ(entries.size(), static_cast<size_t>(kThreads * kLines));
  std::vector<int> next(kThreads, 0);
  for (const auto& entry : entries) {
    int t = -1, i = -1;
    ASSERT_EQ(sscanf(entry.message.c_str(), "thread %d line %d", &t, &i), 2);
    ASSERT_EQ(t, entry.line);
    EXPECT_EQ(i, next[t]++);
  }

  auto lines = ReadLines(path);
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
  ParsedLogLine parsed;
  for (const auto& line : lines) {
    ASSERT_TRUE(ParseLogLine(line, &parsed)) << line;
    ASSERT_GE(parsed.message.size(), 100u) << line;
    EXPECT_EQ(parsed.message.substr(parsed.message.size() - 100), std::string(100, 'a' + parsed.line));
  }
}

TEST_F(LogWriterTest, SinkIsDroppedWithItsLastOwner) {
  auto capture = CLogCapture::Install();
  std::weak_ptr<CLogCapture> watch = capture;
  WZ_LOG(0, "void f()", 1, "seen");
  EXPECT_EQ(capture->Entries().size(), 1u);
  capture.reset();
  EXPECT_TRUE(watch.expired());
  WZ_LOG(0, "void f()", 2, "written with no sink");
}

TEST_F(LogWriterTest, DebugFunctionAndEvDebugWriteTheirLines) {
  auto capture = CLogCapture::Install();
  g_ptrLogWriter->SetLevel(1);
  { WZDebugFunction trace(2, "CKoError WzScanDB::rebuildIndex()"); }
  EXPECT_TRUE(capture->Entries().empty());

  g_ptrLogWriter->SetLevel(2);
  { WZDebugFunction trace(2, "CKoError WzScanDB::rebuildIndex()"); }
  auto entries = capture->Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].level, 2);
  EXPECT_EQ(entries[0].message, "Entering CKoError WzScanDB::rebuildIndex()");
  EXPECT_EQ(entries[0].function, "CKoError WzScanDB::rebuildIndex()");
  const std::string leaving = "Leaving CKoError WzScanDB::rebuildIndex() after ";
  ASSERT_EQ(entries[1].message.compare(0, leaving.size(), leaving), 0) << entries[1].message;
  const std::string elapsed = entries[1].message.substr(leaving.size());
  ASSERT_GT(elapsed.size(), 7u) << elapsed;
  EXPECT_TRUE(MatchesShape(elapsed, std::string(elapsed.size() - 7, '9') + ".999 ms")) << elapsed;

  capture->Clear();
  g_ptrLogWriter->SetLevel(0);
  EvDebug::Error("WzScanDBKey::generate", "%s", "getrandom failed");
  entries = capture->Entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].level, -1);
  EXPECT_EQ(entries[0].message, "WzScanDBKey::generate: getrandom failed");
  capture->Remove();
}

TEST_F(LogWriterTest, ConfigureReadsEnvironmentBeforeSettings) {
  TempDir dir;
  auto capture = CLogCapture::Install();
  const std::string settings = dir / "agent.ini";
  std::ofstream(settings) << "[Log]\nLogLevel = 3\nLogFile = " << (dir / "from-settings.log")
                          << "\n";
  setenv("WZ_SETTINGS_FILE", settings.c_str(), 1);

  g_ptrLogWriter->Configure();
  EXPECT_EQ(g_ptrLogWriter->GetLevel(), 3);
  WZ_LOG(3, "void f()", 1, "to the settings file");
  EXPECT_EQ(ReadLines(dir / "from-settings.log").size(), 1u);

  setenv("WZ_LOG_LEVEL", "6", 1);
  setenv("WZ_LOG_FILE", (dir / "from-env.log").c_str(), 1);
  g_ptrLogWriter->Configure();
  EXPECT_EQ(g_ptrLogWriter->GetLevel(), 6);
  WZ_LOG(6, "void f()", 2, "to the environment's file");
  EXPECT_EQ(ReadLines(dir / "from-env.log").size(), 1u);
  EXPECT_EQ(ReadLines(dir / "from-settings.log").size(), 1u);

  setenv("WZ_LOG_LEVEL", "lots", 1);
  setenv("WZ_LOG_FILE", "off", 1);
  g_ptrLogWriter->Configure();
  EXPECT_EQ(g_ptrLogWriter->GetLevel(), 6);
  EXPECT_EQ(capture->Find("Ignoring malformed log level \"lots\"").size(), 1u);
  WZ_LOG(0, "void f()", 3, "nowhere");
  EXPECT_EQ(ReadLines(dir / "from-env.log").size(), 1u);
  capture->Remove();
}

TEST_F(LogWriterTest, NewWriterWarnsAboutBadSettingsThroughItself) {
  // A writer being built must not log through g_ptrLogWriter: the first one
  // is built before that pointer exists. Its warnings go to its own file.
  TempDir dir;
  auto capture = CLogCapture::Install();
  const std::string settings = dir / "agent.ini";
  std::ofstream(settings) << "[Log]\nLogLevel = verbose\n";
  setenv("WZ_SETTINGS_FILE", settings.c_str(), 1);
  setenv("WZ_LOG_FILE", (dir / "own.log").c_str(), 1);
  {
    CLogWriter writer;
    EXPECT_EQ(writer.GetLevel(), 0);
  }
  auto lines = ReadLines(dir / "own.log");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find(" L-1 void CLogWriter::Configure():"), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find("Ignoring malformed log level \"verbose\""), std::string::npos);
  EXPECT_TRUE(capture->Entries().empty());

  setenv("WZ_LOG_FILE", (dir / "missing/own.log").c_str(), 1);
  setenv("WZ_LOG_LEVEL", "2", 1);
  CLogWriter fallback;  // keeps standard error, takes the level
  EXPECT_EQ(fallback.GetLevel(), 2);
  capture->Remove();
}

// A sink that fails the way a system call does, leaving errno changed.
class ErrnoClobberingSink : public CLogSink {
 public:
  void Write(const CLogEntry&) override { errno = EBADF; }
};

TEST_F(LogWriterTest, WritingKeepsErrnoAndForkedChildReportsItsOwnThreadId) {
  auto sink = std::make_shared<ErrnoClobberingSink>();
  g_ptrLogWriter->AddSink(sink);
  errno = EACCES;
  WZ_LOG(0, "void f()", 1, "open failed");
  EXPECT_EQ(errno, EACCES);
  g_ptrLogWriter->RemoveSink(sink);

  TempDir dir;
  ASSERT_TRUE(g_ptrLogWriter->SetFile(dir / "fork.log").IsSuccess());
  WZ_LOG(0, "void f()", 2, "parent");  // caches the parent's thread id
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    WZ_LOG(0, "void f()", 3, "child");
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  g_ptrLogWriter->SetNone();
  auto lines = ReadLines(dir / "fork.log");
  ASSERT_EQ(lines.size(), 2u);
  ParsedLogLine parent, inChild;
  ASSERT_TRUE(ParseLogLine(lines[0], &parent));
  ASSERT_TRUE(ParseLogLine(lines[1], &inChild));
  EXPECT_EQ(parent.threadId, static_cast<unsigned long>(syscall(SYS_gettid)));
  EXPECT_EQ(inChild.message, "child");
  EXPECT_EQ(inChild.threadId, static_cast<unsigned long>(child));
}

}  // namespace
