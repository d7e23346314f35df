// ScanProgress: the progress line of a scan on standard error.
//
// When enabled (standard error is a terminal) Tick() redraws one line,
// "\r<entries> entries, <rate> entries/s", at most four times a second; the
// clock is read only every 256 entries, so Tick() costs next to nothing.
// Note() writes a message line without tearing the progress line. When
// disabled only Note() writes. Not thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

class ScanProgress {
 public:
  explicit ScanProgress(bool enabled);

  void Tick(uint64_t entries);
  void Note(const std::string& line);
  // Clears the progress line.
  void Finish();

 private:
  void Clear();

  bool enabled_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point lastDraw_;
};
