// OwnMemory: the process's own memory (RssAnon of /proc/self/status: heap,
// stacks, anonymous maps; not the pages of mapped files such as the table),
// sampled every 2 ms by a thread so that a phase's peak is seen. start()
// gives back freed heap first (malloc_trim), so that what an earlier phase
// freed is not counted as this one's; peakSinceStart() - atStart() is what a
// phase held at most beyond what was there before it. Values in KiB.
#pragma once

#include <malloc.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

class OwnMemory {
 public:
  OwnMemory() : thread_([this] { run(); }) {}
  ~OwnMemory() {
    stop_ = true;
    thread_.join();
  }
  OwnMemory(const OwnMemory&) = delete;
  OwnMemory& operator=(const OwnMemory&) = delete;

  static long nowKb() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
      if (line.compare(0, 8, "RssAnon:") == 0) return std::atol(line.c_str() + 8);
    return -1;
  }

  void start() {
    malloc_trim(0);
    start_ = nowKb();
    peak_ = start_;
  }
  long atStart() const { return start_; }
  long peakSinceStart() {
    sample();
    return peak_;
  }

 private:
  void sample() {
    const long now = nowKb();
    long seen = peak_.load();
    while (now > seen && !peak_.compare_exchange_weak(seen, now)) {
    }
  }
  void run() {
    while (!stop_) {
      sample();
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }

  std::atomic<bool> stop_{false};
  std::atomic<long> peak_{0};
  long start_ = 0;
  std::thread thread_;
};
