// Fuzz target: a table opened beside a damaged, foreign or out-of-date
// write-ahead log (LogReplayCase.h says what each input means and what the
// open must do). Any broken expectation aborts with its reason.
//
// With WZ_FUZZ_WRITE_SEEDS=<dir>, writes the seed inputs into <dir> and
// exits; with WZ_FUZZ_OUTCOMES set, prints each input's outcome (to sort a
// corpus into regression inputs).
#include <cstdio>
#include <cstdlib>

#include "LogReplayCase.h"
#include "runtime/LogWriter.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_ptrLogWriter->SetNone();
  g_ptrLogWriter->SetLevel(-2);
  if (const char* seeds = std::getenv("WZ_FUZZ_WRITE_SEEDS")) {
    logreplay::WriteSeeds(seeds);
    std::exit(0);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const logreplay::Verdict verdict = logreplay::RunCase(data, size);
  if (std::getenv("WZ_FUZZ_OUTCOMES")) std::fprintf(stderr, "outcome: %s\n", verdict.outcome.c_str());
  if (!verdict.failure.empty()) {
    std::fprintf(stderr, "log replay: %s (%s)\n", verdict.failure.c_str(), verdict.outcome.c_str());
    std::abort();
  }
  return 0;
}
