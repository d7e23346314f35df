// CLogCapture: a log sink that keeps every written line in memory, for tests.
//
//   auto capture = CLogCapture::Install();   // starts capturing
//   ... code under test ...
//   capture->Entries();                      // what was written
//   capture->Remove();                       // or let the last pointer go
//
// Thread-safe. Only lines that pass the writer's level test reach it.
#pragma once

#include <memory>
#include <string>
#include <vector>
#include <mutex>

#include "runtime/LogWriter.h"

class WZRT_API CLogCapture : public CLogSink,
                             public std::enable_shared_from_this<CLogCapture> {
 public:
  // Creates a capture and installs it on g_ptrLogWriter.
  static std::shared_ptr<CLogCapture> Install();

  void Write(const CLogEntry& entry) override;
  void Remove();

  std::vector<CLogEntry> Entries() const;
  // Entries whose message equals `message` exactly.
  std::vector<CLogEntry> Find(const std::string& message) const;
  // Entries whose message contains `fragment`.
  std::vector<CLogEntry> FindContaining(const std::string& fragment) const;
  void Clear();

 private:
  mutable std::mutex mutex_;
  std::vector<CLogEntry> entries_;
};
