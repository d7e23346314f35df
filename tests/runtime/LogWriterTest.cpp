// The log writer: level gating before argument evaluation, the line format,
// destinations, sinks from many threads, configuration from the environment
// and the settings file, and the trace helpers that write through it.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "LogLineParser.h"
#include "runtime/EvDebug.h"
#include "runtime/LogCapture.h"
#include "runtime/LogWriter.h"
#include "runtime/WZDebugFunction.h"
#include "support/TempDir.h"

namespace {

// Starts each test with no destination and leaves the writer's level, its
// destination and the environment it reads as they were.
class LogWriterTest : public ::testing::Test {
 protected:
  void SetUp() override { g_ptrLogWriter->SetNone(); ClearEnvironment(); }
  void TearDown() override {
    ClearEnvironment();
    g_ptrLogWriter->SetLevel(savedLevel_);
    g_ptrLogWriter->SetStderr();
  }
  static void ClearEnvironment() {
    for (const char* name : {"WZ_LOG_LEVEL", "WZ_LOG_FILE", "WZ_SETTINGS_FILE"}) unsetenv(name);
  }
  int savedLevel_ = g_ptrLogWriter->GetLevel();
  TempDir dir_;
  std::shared_ptr<CLogCapture> capture_ = CLogCapture::Install();
};

std::vector<std::string> ReadLines(const std::string& path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// " [tid N] " for this thread or `id`.
std::string Tid(long id = syscall(SYS_gettid)) { return " [tid " + std::to_string(id) + "] "; }

int g_evaluations = 0;
int Expensive() { ++g_evaluations; return 99; }

TEST_F(LogWriterTest, LevelGatesLinesAndTheirArguments) {
  g_ptrLogWriter->SetLevel(4);
  WZ_LOG(5, "void f()", 1, "value %d", Expensive());
  EXPECT_EQ(g_evaluations, 0);
  g_ptrLogWriter->Write(5, "void f()", 2, "direct %d", 1);
  EXPECT_TRUE(capture_->Entries().empty());

  WZ_LOG(4, "void f()", 3, "value %d\n", Expensive());
  WZ_LOG(-1, "void g(int)", 4, "error");
  EXPECT_EQ(g_evaluations, 1);
  auto entries = capture_->Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].level, 4);
  EXPECT_EQ(entries[0].function, "void f()");
  EXPECT_EQ(entries[0].line, 3);
  EXPECT_EQ(entries[0].message, "value 99\n");  // kept exactly as formatted
  EXPECT_EQ(entries[1].level, -1);

  g_ptrLogWriter->SetLevel(-2);
  WZ_LOG(-1, "void g(int)", 5, "hidden %d", Expensive());
  EXPECT_EQ(g_evaluations, 1);
  EXPECT_EQ(capture_->Entries().size(), 2u);

  // A removed sink hears nothing more; one whose last owner let it go is dropped.
  capture_->Remove();
  g_ptrLogWriter->SetLevel(0);
  WZ_LOG(0, "void f()", 6, "after removal");
  EXPECT_EQ(capture_->Entries().size(), 2u);
  auto other = CLogCapture::Install();
  std::weak_ptr<CLogCapture> watch = other;
  other.reset();
  EXPECT_TRUE(watch.expired());
  WZ_LOG(0, "void f()", 7, "written with no sink");
}

TEST_F(LogWriterTest, FileLinesCarryStampThreadLevelLocationAndOneNewline) {
  const std::string path = dir_ / "agent.log";
  ASSERT_TRUE(g_ptrLogWriter->SetFile(path).IsSuccess());
  WZ_LOG(0, "static CKoError WzScanDB::move(const string&, const string&)", 321,
         "Moving %s from %s to %s completed successfully\n", "WzScanDB", "/a", "/b");
  WZ_LOG(-1, "void f()", 7, "no newline");

  auto lines = ReadLines(path);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(WithoutStamp(lines[0]), Tid() + "L0 static CKoError WzScanDB::move(const string&, const string&):321 "
                                            "Moving WzScanDB from /a to /b completed successfully");
  EXPECT_EQ(WithoutStamp(lines[1]), Tid() + "L-1 void f():7 no newline");
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(g_ptrLogWriter->SetFile(dir_ / "missing/agent.log").AsString().substr(0, 42),
            "Error (errno 2: No such file or directory)");
}

TEST_F(LogWriterTest, LinesFromManyThreadsArriveWholeAndInOrder) {
  const std::string path = dir_ / "threads.log";
  ASSERT_TRUE(g_ptrLogWriter->SetFile(path).IsSuccess());
  constexpr int kThreads = 4, kLines = 400;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i)
        WZ_LOG(0, "void worker()", t, "thread %d line %d %s", t, i, std::string(100, 'a' + t).c_str());
    });
  for (auto& thread : threads) thread.join();
  g_ptrLogWriter->SetNone();

  auto entries = capture_->Entries();
  ASSERT_EQ(entries.size(), size_t(kThreads * kLines));
  std::vector<int> next(kThreads, 0);
  for (const auto& entry : entries) {
    int t = -1, i = -1;
    ASSERT_EQ(sscanf(entry.message.c_str(), "thread %d line %d", &t, &i), 2);
    ASSERT_EQ(t, entry.line);
    EXPECT_EQ(i, next[t]++);
  }
  auto lines = ReadLines(path);
  ASSERT_EQ(lines.size(), size_t(kThreads * kLines));
  for (const auto& line : lines) {
    int t = -1;
    size_t at = line.find("] L0 void worker():");
    ASSERT_NE(at, std::string::npos) << line;
    ASSERT_EQ(sscanf(line.c_str() + at, "] L0 void worker():%d", &t), 1) << line;
    EXPECT_EQ(WithoutStamp(line).substr(line.size() - 126), std::string(100, 'a' + t));
  }
}

TEST_F(LogWriterTest, DebugFunctionAndEvDebugWriteTheirLines) {
  g_ptrLogWriter->SetLevel(1);
  { WZDebugFunction trace(2, "CKoError WzScanDB::rebuildIndex()"); }
  EXPECT_TRUE(capture_->Entries().empty());

  g_ptrLogWriter->SetLevel(2);
  { WZDebugFunction trace(2, "CKoError WzScanDB::rebuildIndex()"); }
  auto entries = capture_->Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].level, 2);
  EXPECT_EQ(entries[0].message, "Entering CKoError WzScanDB::rebuildIndex()");
  EXPECT_EQ(entries[0].function, "CKoError WzScanDB::rebuildIndex()");
  const std::string leaving = "Leaving CKoError WzScanDB::rebuildIndex() after ";
  ASSERT_EQ(entries[1].message.compare(0, leaving.size(), leaving), 0) << entries[1].message;
  const std::string elapsed = entries[1].message.substr(leaving.size());
  ASSERT_GT(elapsed.size(), 7u) << elapsed;
  EXPECT_TRUE(MatchesShape(elapsed, std::string(elapsed.size() - 7, '9') + ".999 ms")) << elapsed;

  capture_->Clear();
  g_ptrLogWriter->SetLevel(0);
  EvDebug::Error("WzScanDBKey::generate", "%s", "getrandom failed");
  entries = capture_->Entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].level, -1);
  EXPECT_EQ(entries[0].message, "WzScanDBKey::generate: getrandom failed");
}

TEST_F(LogWriterTest, ConfigureReadsEnvironmentBeforeSettings) {
  const std::string settings = dir_ / "agent.ini";
  std::ofstream(settings) << "[Log]\nLogLevel = 3\nLogFile = " << (dir_ / "from-settings.log") << "\n";
  setenv("WZ_SETTINGS_FILE", settings.c_str(), 1);
  g_ptrLogWriter->Configure();
  EXPECT_EQ(g_ptrLogWriter->GetLevel(), 3);
  WZ_LOG(3, "void f()", 1, "to the settings file");
  EXPECT_EQ(ReadLines(dir_ / "from-settings.log").size(), 1u);

  setenv("WZ_LOG_LEVEL", "6", 1);
  setenv("WZ_LOG_FILE", (dir_ / "from-env.log").c_str(), 1);
  g_ptrLogWriter->Configure();
  EXPECT_EQ(g_ptrLogWriter->GetLevel(), 6);
  WZ_LOG(6, "void f()", 2, "to the environment's file");
  EXPECT_EQ(ReadLines(dir_ / "from-env.log").size(), 1u);
  EXPECT_EQ(ReadLines(dir_ / "from-settings.log").size(), 1u);

  setenv("WZ_LOG_LEVEL", "lots", 1);
  setenv("WZ_LOG_FILE", "off", 1);
  g_ptrLogWriter->Configure();
  EXPECT_EQ(g_ptrLogWriter->GetLevel(), 6);
  EXPECT_EQ(capture_->Find("Ignoring malformed log level \"lots\"").size(), 1u);
  WZ_LOG(0, "void f()", 3, "nowhere");
  EXPECT_EQ(ReadLines(dir_ / "from-env.log").size(), 1u);

  // A writer being built must not log through g_ptrLogWriter: the first one
  // is built before that pointer exists. Its warnings go to its own file.
  capture_->Clear();
  std::ofstream(settings, std::ios::trunc) << "[Log]\nLogLevel = verbose\n";
  unsetenv("WZ_LOG_LEVEL");
  setenv("WZ_LOG_FILE", (dir_ / "own.log").c_str(), 1);
  EXPECT_EQ(CLogWriter().GetLevel(), 0);
  auto lines = ReadLines(dir_ / "own.log");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(WithoutStamp(lines[0]).rfind(Tid() + "L-1 void CLogWriter::Configure():", 0), 0u) << lines[0];
  EXPECT_NE(lines[0].find(" Ignoring malformed log level \"verbose\""), std::string::npos);
  EXPECT_TRUE(capture_->Entries().empty());
  setenv("WZ_LOG_FILE", (dir_ / "missing/own.log").c_str(), 1);
  setenv("WZ_LOG_LEVEL", "2", 1);
  EXPECT_EQ(CLogWriter().GetLevel(), 2);  // keeps standard error, takes the level
}

// A sink that fails the way a system call does, leaving errno changed.
class ErrnoClobberingSink : public CLogSink {
 public:
  void Write(const CLogEntry&) override { errno = EBADF; }
};

TEST_F(LogWriterTest, WritingKeepsErrno) {
  auto sink = std::make_shared<ErrnoClobberingSink>();
  g_ptrLogWriter->AddSink(sink);
  ASSERT_TRUE(g_ptrLogWriter->SetFile(dir_ / "errno.log").IsSuccess());
  errno = EACCES;
  WZ_LOG(0, "void f()", 1, "open failed");
  EXPECT_EQ(errno, EACCES);
  g_ptrLogWriter->RemoveSink(sink);
}

}  // namespace
