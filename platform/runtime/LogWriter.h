// The process-wide log writer g_ptrLogWriter.
//
// Every log line has a level. A line of level L is written when the writer's
// current level is at least L (default level 0: errors at -1 and life-cycle
// lines at 0 are written, trace at 1 and above is not). Use WZ_LOG, which
// tests the level before it evaluates its arguments, so that an expensive
// argument (a record's toString()) costs nothing when the line is not written.
//
// A written line goes to the destination (a file, standard error, or, by
// default, nowhere) as
//   "2026-11-22 03:16:50.123456 [tid 1234] L0 <function>:<line> <message>"
// and to every installed sink (CLogSink, below), whatever the destination.
// A library writes nothing on its own: the process that loads it decides
// where its log goes, by a sink that hands lines to its own logging, by
// SetFile/SetStderr, or through the configuration below.
//
// The starting level and destination come from the environment, then the
// settings file (WZPlatformInfo):
//   WZ_LOG_LEVEL=<int>      or setting "LogLevel" in section "Log"
//   WZ_LOG_FILE=<path>      or setting "LogFile" in section "Log";
//                           "-" means standard error, "off" nowhere (the
//                           default).
// All member functions are thread-safe.
#pragma once

#include <atomic>
#include <cstdarg>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "runtime/CKoError.h"
#include "runtime/WzRuntimeExport.h"

// One formatted log line as sinks receive it.
struct WZRT_API CLogEntry {
  int level;
  std::string function;
  int line;
  std::string message;
  unsigned long threadId;
};

// Receives every written line. Write may be called from any thread, and
// concurrently. The writer holds sinks weakly: a sink whose last owner lets
// it go is dropped, so the owner keeps it alive for as long as it listens.
class WZRT_API CLogSink {
 public:
  virtual ~CLogSink();
  virtual void Write(const CLogEntry& entry) = 0;
};

class WZRT_API CLogWriter {
 public:
  CLogWriter();
  ~CLogWriter();
  CLogWriter(const CLogWriter&) = delete;
  CLogWriter& operator=(const CLogWriter&) = delete;

  // True when a line of `level` would be written.
  bool IsEnabled(int level) const noexcept {
    return level <= level_.load(std::memory_order_relaxed);
  }
  int GetLevel() const noexcept { return level_.load(std::memory_order_relaxed); }
  void SetLevel(int level) noexcept { level_.store(level, std::memory_order_relaxed); }

  // Formats and writes one line if `level` is enabled.
  void Write(int level, const char* function, int line, const char* format, ...)
      __attribute__((format(printf, 5, 6)));
  void WriteV(int level, const char* function, int line, const char* format,
              va_list args);

  // Destinations. SetFile appends to `path` (created 0600 if missing).
  CKoError SetFile(const std::string& path);
  void SetStderr();
  void SetNone();

  void AddSink(const std::shared_ptr<CLogSink>& sink);
  void RemoveSink(const std::shared_ptr<CLogSink>& sink);

  // Re-reads WZ_LOG_LEVEL / WZ_LOG_FILE and the settings file. What none of
  // them sets keeps its current value; a malformed level or a log file that
  // cannot be opened is ignored with a warning line.
  void Configure();

 private:
  struct Impl;
  std::atomic<int> level_{0};
  std::unique_ptr<Impl> impl_;
};

// Never null; valid for the life of the process.
extern WZRT_API CLogWriter* g_ptrLogWriter;

#define WZ_LOG(level, function, line, ...)                                  \
  do {                                                                      \
    if (g_ptrLogWriter->IsEnabled(level))                                   \
      g_ptrLogWriter->Write((level), (function), (line), __VA_ARGS__);      \
  } while (0)
