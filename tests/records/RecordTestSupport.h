// Helpers shared by the record tests.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "runtime/LogCapture.h"

// Captures log lines for the life of the object.
class ScopedLogCapture {
 public:
  ScopedLogCapture() : capture_(CLogCapture::Install()) {}
  ~ScopedLogCapture() { capture_->Remove(); }
  std::vector<CLogEntry> Entries() const { return capture_->Entries(); }
  void Clear() { capture_->Clear(); }

 private:
  std::shared_ptr<CLogCapture> capture_;
};

// Expects exactly one captured line, with this level, signature and text.
inline void ExpectOneLine(const ScopedLogCapture& log, int level, const std::string& function,
                          const std::string& message) {
  std::vector<CLogEntry> entries = log.Entries();
  ASSERT_EQ(entries.size(), 1u) << message;
  EXPECT_EQ(entries[0].level, level);
  EXPECT_EQ(entries[0].function, function);
  EXPECT_EQ(entries[0].message, message);
  EXPECT_GT(entries[0].line, 0);
}
