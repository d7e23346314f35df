// LogAt: sets the log level of g_ptrLogWriter and captures every line
// written, for one scope; the level is restored and the capture dropped when
// it ends.
//
//   LogAt log(6);
//   ... code under test ...
//   log->Find("...");                          // the CLogCapture
//   log.ExpectOnce("Text", 1234, 6, "CKoError WzScanDB::f()");
//
// Not thread-safe itself; the capture is.
#pragma once

#include <stdlib.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "runtime/LogCapture.h"
#include "runtime/LogWriter.h"

class LogAt {
 public:
  static constexpr int kAnyLevel = -100;

  explicit LogAt(int level) : saved_(g_ptrLogWriter->GetLevel()) {
    g_ptrLogWriter->SetLevel(level);
  }
  ~LogAt() { g_ptrLogWriter->SetLevel(saved_); }
  LogAt(const LogAt&) = delete;
  LogAt& operator=(const LogAt&) = delete;

  CLogCapture* operator->() const { return capture_.get(); }

  // `message` was written exactly once, at `line`, and at `level` and from
  // `function` when those are given.
  void ExpectOnce(const std::string& message, int line, int level = kAnyLevel,
                  const char* function = nullptr) const {
    const auto found = capture_->Find(message);
    ASSERT_EQ(1u, found.size()) << message;
    EXPECT_EQ(line, found[0].line) << message;
    if (level != kAnyLevel) { EXPECT_EQ(level, found[0].level) << message; }
    if (function) { EXPECT_EQ(function, found[0].function) << message; }
  }

 private:
  int saved_;
  std::shared_ptr<CLogCapture> capture_ = CLogCapture::Install();
};

// For a fixture's SetUp: no settings file, the log written nowhere but to the
// returned capture, at `level`. The caller removes the capture when done.
inline std::shared_ptr<CLogCapture> InstallQuietCapture(int level) {
  unsetenv("WZ_SETTINGS_FILE");
  g_ptrLogWriter->SetNone();
  g_ptrLogWriter->SetLevel(level);
  return CLogCapture::Install();
}
