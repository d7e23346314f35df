#include "ScanProgress.h"

#include <cstdio>

ScanProgress::ScanProgress(bool enabled)
    : enabled_(enabled), start_(std::chrono::steady_clock::now()), lastDraw_(start_) {}

void ScanProgress::Tick(uint64_t entries) {
  if (!enabled_ || (entries & 255) != 0) return;
  auto now = std::chrono::steady_clock::now();
  if (now - lastDraw_ < std::chrono::milliseconds(250)) return;
  lastDraw_ = now;
  double seconds = std::chrono::duration<double>(now - start_).count();
  double rate = seconds > 0 ? entries / seconds : 0;
  std::fprintf(stderr, "\r%llu entries, %.0f entries/s   ", static_cast<unsigned long long>(entries),
               rate);
  std::fflush(stderr);
  drawn_ = true;
}

void ScanProgress::Clear() {
  if (!drawn_) return;
  std::fputs("\r\033[K", stderr);
  drawn_ = false;
}

void ScanProgress::Note(const std::string& line) {
  Clear();
  std::fprintf(stderr, "wzscandb: %s\n", line.c_str());
  std::fflush(stderr);
}

void ScanProgress::Finish() {
  Clear();
  std::fflush(stderr);
}
