// CLogCapture: in-memory log sink for tests.
#include "runtime/LogCapture.h"

std::shared_ptr<CLogCapture> CLogCapture::Install() {
  auto capture = std::make_shared<CLogCapture>();
  g_ptrLogWriter->AddSink(capture);
  return capture;
}

void CLogCapture::Write(const CLogEntry& entry) {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.push_back(entry);
}

void CLogCapture::Remove() { g_ptrLogWriter->RemoveSink(shared_from_this()); }

std::vector<CLogEntry> CLogCapture::Entries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_;
}

std::vector<CLogEntry> CLogCapture::Find(const std::string& message) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<CLogEntry> found;
  for (const auto& entry : entries_)
    if (entry.message == message) found.push_back(entry);
  return found;
}

std::vector<CLogEntry> CLogCapture::FindContaining(const std::string& fragment) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<CLogEntry> found;
  for (const auto& entry : entries_)
    if (entry.message.find(fragment) != std::string::npos) found.push_back(entry);
  return found;
}

void CLogCapture::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.clear();
}
