// The log writer and the settings file: level gating before argument
// evaluation, the written line, sinks and many threads, configuration from
// the environment and the settings file, the trace helpers, and the setting
// reader's findings and warnings.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "LogLineParser.h"
#include "PlantedFaults.h"
#include "runtime/EvDebug.h"
#include "runtime/LogCapture.h"
#include "runtime/LogWriter.h"
#include "runtime/WZDebugFunction.h"
#include "runtime/WZPlatformInfo.h"
#include "support/TempDir.h"

namespace {

// Starts each test with no destination, no settings file and a capture;
// leaves the writer's level and destination as they were.
class LogWriterTest : public ::testing::Test {
 protected:
  void SetUp() override { g_ptrLogWriter->SetNone(); ClearEnvironment(); }
  void TearDown() override {
    ClearEnvironment();
    g_faults = PlantedFaults();
    capture_->Remove();
    g_ptrLogWriter->SetLevel(savedLevel_);
    g_ptrLogWriter->SetStderr();
  }
  static void ClearEnvironment() {
    for (const char* name : {"WZ_LOG_LEVEL", "WZ_LOG_FILE", "WZ_SETTINGS_FILE"}) unsetenv(name);
  }
  void UseSettings(const std::string& text) {
    std::ofstream(dir_ / "settings.ini", std::ios::binary | std::ios::trunc) << text;
    setenv("WZ_SETTINGS_FILE", (dir_ / "settings.ini").c_str(), 1);
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

// " [tid N] " of this thread.
std::string Tid() { return " [tid " + std::to_string(syscall(SYS_gettid)) + "] "; }

int g_evaluations = 0;
int Expensive() { return ++g_evaluations, 99; }

TEST_F(LogWriterTest, LevelGatesLinesAndTheirArguments) {
  g_ptrLogWriter->SetLevel(4);
  WZ_LOG(5, "void f()", 1, "value %d", Expensive());
  g_ptrLogWriter->Write(5, "void f()", 2, "direct %d", 1);
  WZ_LOG(4, "void f()", 3, "value %d\n", Expensive());
  WZ_LOG(-1, "void g(int)", 4, "error");
  g_ptrLogWriter->SetLevel(-2);
  WZ_LOG(-1, "void g(int)", 5, "hidden %d", Expensive());
  EXPECT_EQ(g_evaluations, 1);
  auto entries = capture_->Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(std::to_string(entries[0].level) + " " + entries[0].function + ":" + std::to_string(entries[0].line) +
                " " + entries[0].message,
            "4 void f():3 value 99\n");  // the sink gets the message as formatted
  EXPECT_EQ(entries[1].level, -1);

  // A removed sink hears nothing more; one whose last owner let it go is dropped.
  capture_->Remove();
  g_ptrLogWriter->SetLevel(0);
  WZ_LOG(0, "void f()", 6, "after removal");
  EXPECT_EQ(capture_->Entries().size(), 2u);
  std::weak_ptr<CLogCapture> other = CLogCapture::Install();
  EXPECT_TRUE(other.expired());
  WZ_LOG(0, "void f()", 7, "written with no sink");
}

TEST_F(LogWriterTest, FileLinesCarryStampThreadLevelLocationAndOneNewline) {
  const std::string path = dir_ / "agent.log";
  ASSERT_TRUE(g_ptrLogWriter->SetFile(path).IsSuccess());
  g_faults = PlantedFaults{7, 0, 0, 0, false, 2};  // the file takes each line in pieces, after interruptions
  WZ_LOG(0, "static CKoError WzScanDB::move(const string&, const string&)", 321,
         "Moving %s from %s to %s completed successfully\n", "WzScanDB", "/a", "/b");
  WZ_LOG(-1, "void f()", 7, "no newline");
  g_faults = PlantedFaults();

  auto lines = ReadLines(path);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(WithoutStamp(lines[0]), Tid() + "L0 static CKoError WzScanDB::move(const string&, const string&):321 "
                                            "Moving WzScanDB from /a to /b completed successfully");
  EXPECT_EQ(WithoutStamp(lines[1]), Tid() + "L-1 void f():7 no newline");
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(g_ptrLogWriter->SetFile(dir_ / "missing/agent.log").GetTopMessage(),
            "Cannot open log file \"" + dir_ / "missing/agent.log" + "\": No such file or directory");

  // Writing keeps errno, even when a sink changes it.
  struct ErrnoSink : CLogSink {
    void Write(const CLogEntry&) override { errno = EBADF; }
  };
  auto sink = std::make_shared<ErrnoSink>();
  g_ptrLogWriter->AddSink(sink);
  errno = EACCES;
  WZ_LOG(0, "void f()", 1, "open failed");
  EXPECT_EQ(errno, EACCES);
  g_ptrLogWriter->RemoveSink(sink);
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

  auto lines = ReadLines(path);
  ASSERT_EQ(lines.size(), size_t(kThreads * kLines));
  std::vector<int> next(kThreads, 0);
  for (const auto& line : lines) {
    int t = -1, i = -1, at = 0;
    ASSERT_TRUE(sscanf(WithoutStamp(line).c_str(), " [tid %*d] L0 void worker():%d thread %*d line %d %n", &t, &i,
                       &at) == 2 && t >= 0 && t < kThreads) << line;
    EXPECT_EQ(i, next[t]++) << line;
    EXPECT_EQ(WithoutStamp(line).substr(at), std::string(100, 'a' + t)) << line;
  }
}

TEST_F(LogWriterTest, DebugFunctionAndEvDebugWriteTheirLines) {
  g_ptrLogWriter->SetLevel(1);
  { WZDebugFunction trace(2, "CKoError WzScanDB::rebuildIndex()"); }
  EXPECT_TRUE(capture_->Entries().empty());
  g_ptrLogWriter->SetLevel(2);
  { WZDebugFunction trace(2, "CKoError WzScanDB::rebuildIndex()"); }
  EvDebug::Error("WzScanDBKey::generate", "%s", "getrandom failed");
  auto entries = capture_->Entries();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].level, 2);
  EXPECT_EQ(entries[0].function, "CKoError WzScanDB::rebuildIndex()");
  EXPECT_EQ(entries[0].message, "Entering CKoError WzScanDB::rebuildIndex()");
  const std::string leaving = "Leaving CKoError WzScanDB::rebuildIndex() after ";
  ASSERT_EQ(entries[1].message.compare(0, leaving.size(), leaving), 0) << entries[1].message;
  const std::string elapsed = entries[1].message.substr(leaving.size());
  EXPECT_TRUE(elapsed.size() > 7 && MatchesShape(elapsed, std::string(elapsed.size() - 7, '9') + ".999 ms"))
      << elapsed;
  EXPECT_EQ(entries[2].level, -1);
  EXPECT_EQ(entries[2].message, "WzScanDBKey::generate: getrandom failed");
}

TEST_F(LogWriterTest, ConfigureTakesTheEnvironmentBeforeTheSettings) {
  // Each step: environment level and file (null: unset), then what a line of
  // the level reached and where it went.
  UseSettings("[Log]\nLogLevel = 3\nLogFile = " + dir_ / "settings.log" + "\n");
  const std::tuple<const char*, const char*, int, const char*> steps[] = {
      {nullptr, nullptr, 3, "settings.log"}, {"6", "env.log", 6, "env.log"}, {"lots", "off", 6, nullptr}};
  for (const auto& [level, file, expected, written] : steps) {
    level ? setenv("WZ_LOG_LEVEL", level, 1) : unsetenv("WZ_LOG_LEVEL");
    const std::string path = file && std::string(file) != "off" ? dir_ / file : file ? file : "";
    file ? setenv("WZ_LOG_FILE", path.c_str(), 1) : unsetenv("WZ_LOG_FILE");
    g_ptrLogWriter->Configure();
    EXPECT_EQ(g_ptrLogWriter->GetLevel(), expected);
    WZ_LOG(expected, "void f()", 1, "a line");
    EXPECT_EQ(written ? ReadLines(dir_ / written).size() : 1u, 1u) << written;
  }
  EXPECT_EQ(ReadLines(dir_ / "settings.log").size() + ReadLines(dir_ / "env.log").size(), 2u);
  EXPECT_EQ(capture_->Find("Ignoring malformed log level \"lots\"").size(), 1u);

  // A writer being built must not log through g_ptrLogWriter (the first one
  // is built before that exists): its warnings go to its own destination.
  capture_->Clear();
  UseSettings("[Log]\nLogLevel = verbose\n");
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

// The value read for (section, name), or "untouched" when the call fails and leaves it.
std::string Setting(const char* section, const char* name) {
  int value = 1234;
  bool found = WZPlatformInfo::getRegInt(section, name, &value);
  return found ? std::to_string(value) : value == 1234 ? "untouched" : "changed on failure";
}

TEST_F(LogWriterTest, SettingsFileValuesAndWarnings) {
  const char kAgent[] = "~FileSystemAgent";
  EXPECT_EQ(Setting(kAgent, "nWzScanDBPerformanceLoggingInterval"), "untouched");  // no file named
  UseSettings(
      "\xEF\xBB\xBF; agent settings\r\n"
      "[Other]\r\nnWzScanDBPerformanceLoggingInterval = 5\r\n\r\n"
      "[ ~FileSystemAgent ]\r\n"
      "# interval in seconds\r\n"
      "  nWzScanDBPerformanceLoggingInterval=  300  \r\n"
      "Negative = -17\r\nName = \"quoted text\"\r\nnot a setting line\r\nRepeated = 1\r\nRepeated = 2\r\n"
      "\xEF\xBB\xBFMarked = 1\r\n"  // a byte order mark only counts at the start of the file
      "Words = ten\r\nTrailing = 10s\r\nEmpty =\r\nTooBig = 2147483648\r\nBiggest = 2147483647\r\n"
      "[broken\nNegative = 9\n[Later]\nNegative = 8\n");
  const char* rows[][3] = {
      {kAgent, "nWzScanDBPerformanceLoggingInterval", "300"}, {"~filesystemagent", "NEGATIVE", "-17"},
      {kAgent, "Repeated", "2"}, {kAgent, "Biggest", "2147483647"}, {"Later", "Negative", "8"},
      {"Missing", "Negative", "untouched"}, {kAgent, "Missing", "untouched"}, {"Other", "Negative", "untouched"},
      {kAgent, "Words", "untouched"}, {kAgent, "Trailing", "untouched"}, {kAgent, "Empty", "untouched"},
      {kAgent, "TooBig", "untouched"}, {kAgent, "Marked", "untouched"}};
  for (const auto& row : rows) EXPECT_EQ(Setting(row[0], row[1]), row[2]) << row[0] << " " << row[1];
  std::string text = "unchanged";
  EXPECT_FALSE(WZPlatformInfo::getRegString(kAgent, "not a setting line", &text));
  EXPECT_TRUE(WZPlatformInfo::getRegString(kAgent, "Name", &text));
  EXPECT_EQ(text, "quoted text");

  // A malformed number is one warning naming setting, section and text.
  auto warnings = capture_->Entries();
  ASSERT_EQ(warnings.size(), 4u);
  for (const auto& entry : warnings) EXPECT_EQ(entry.level, -1);
  EXPECT_EQ(warnings[0].message, "Setting \"Words\" in section \"~FileSystemAgent\" is not a whole number: \"ten\"");
  EXPECT_EQ(warnings[3].message,
            "Setting \"TooBig\" in section \"~FileSystemAgent\" is not a whole number: \"2147483648\"");
}

}  // namespace
