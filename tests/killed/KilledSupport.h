// Helpers of the killed-process tests: a generic database opened in this
// process through the exported functions, and the number of rounds and the
// random seed, which a soak run sets through WZ_KILLED_ROUNDS and
// WZ_KILLED_SEED.
#pragma once

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
#include <thread>

#include "WzScanDB/WzScanDBExports.h"
#include "support/OpenGenericDatabase.h"
#include "runtime/LogWriter.h"

namespace killedtest {

inline int Rounds(int fallback) {
  const char* text = std::getenv("WZ_KILLED_ROUNDS");
  return text && *text ? std::atoi(text) : fallback;
}

// The seed of this run, printed so that a failing run can be repeated.
inline unsigned Seed(const char* test) {
  const char* text = std::getenv("WZ_KILLED_SEED");
  const unsigned seed = text && *text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10))
                                      : std::random_device()();
  std::cout << test << ": WZ_KILLED_SEED=" << seed << std::endl;
  return seed;
}

inline void SleepMs(unsigned ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }


inline WzScanDBRecordBasePtr Generic(const std::string& path, bool isDir) {
  WzScanDBRecordPtr record;
  std::string text = path;
  CreateGlusterRecordObject(record, text, isDir, 0);
  return record;
}

}  // namespace killedtest
