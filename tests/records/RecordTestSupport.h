// Helpers shared by the record tests.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "WzScanDB/WzHandle.h"
#include "WzScanDB/records/WzScanDBRecordBase.h"
#include "runtime/LogCapture.h"

// Captures log lines for the life of the object.
class ScopedLogCapture {
 public:
  ScopedLogCapture() : capture_(CLogCapture::Install()) {}
  ~ScopedLogCapture() { capture_->Remove(); }
  std::vector<CLogEntry> Entries() const { return capture_->Entries(); }

 private:
  std::shared_ptr<CLogCapture> capture_;
};

// Expects exactly these captured lines, in order, each with this level and signature.
inline void ExpectLines(const ScopedLogCapture& log, int level, const std::string& function,
                        const std::vector<std::string>& messages) {
  std::vector<CLogEntry> entries = log.Entries();
  ASSERT_EQ(entries.size(), messages.size()) << messages[0];
  for (size_t i = 0; i < entries.size(); ++i) {
    EXPECT_EQ(entries[i].level, level);
    EXPECT_EQ(entries[i].function, function);
    EXPECT_EQ(entries[i].message, messages[i]);
    EXPECT_GT(entries[i].line, 0);
  }
}

inline bool AllZero(const void* data, size_t length) {
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  for (size_t i = 0; i < length; ++i)
    if (bytes[i]) return false;
  return true;
}

inline void InitSchema(WzScanDBRecordBase& r) {
  r.initializeFieldInformation();
  r.initializeIndexInformation();
  r.initializeSegmentInformation();
}

// Records that leave a record must carry the library's handle deleter, so a
// caller may drop them after an explicit delete.
inline void ExpectHandles(std::initializer_list<WzScanDBRecordBasePtr> records) {
  for (const WzScanDBRecordBasePtr& p : records)
    EXPECT_NE(boost::get_deleter<CWzHandleDeleter>(p), nullptr);
}
