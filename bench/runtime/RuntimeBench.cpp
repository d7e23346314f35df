// Per-record costs of the runtime. The database pays these on every table
// operation: a level test for each trace line, a scope timer, a CKoError
// return, and (for generic records) an MD5 of the path. Each case has a
// baseline doing the bare work, so results read as ratios.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <string>

#include "runtime/CAutoTimeCounter.h"
#include "runtime/CKoError.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/LogWriter.h"
#include "runtime/WzcMD5.h"

namespace {

const std::string kPath = "/mnt/fs/projects/alpha/build/output/objects/module_0042/file_17.o";

void BM_EmptyLoop(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(++i);
}
BENCHMARK(BM_EmptyLoop);

// A trace line above the current level: one relaxed load, no formatting.
void BM_LogDisabled(benchmark::State& state) {
  g_ptrLogWriter->SetLevel(0);
  int i = 0;
  for (auto _ : state) {
    WZ_LOG(7, "CKoError WzScanDB::addDBRecord(WzScanDBRecordBasePtr)", 1, "Adding %s", kPath.c_str());
    benchmark::DoNotOptimize(++i);
  }
}
BENCHMARK(BM_LogDisabled);

// The same line written, to no destination: formatting and stamping only.
void BM_LogEnabledNowhere(benchmark::State& state) {
  g_ptrLogWriter->SetNone();
  g_ptrLogWriter->SetLevel(7);
  for (auto _ : state)
    WZ_LOG(7, "CKoError WzScanDB::addDBRecord(WzScanDBRecordBasePtr)", 1, "Adding %s", kPath.c_str());
  g_ptrLogWriter->SetLevel(0);
  g_ptrLogWriter->SetStderr();
}
BENCHMARK(BM_LogEnabledNowhere);

void BM_AutoTimeCounter(benchmark::State& state) {
  CTimeCounter counter;
  for (auto _ : state) {
    CAutoTimeCounter timer(&counter);
    benchmark::ClobberMemory();
  }
  benchmark::DoNotOptimize(counter.GetTotalSamples());
}
BENCHMARK(BM_AutoTimeCounter);

__attribute__((noinline)) int ReturnInt(int x) { return x == -12345 ? 1 : 0; }
__attribute__((noinline)) CKoError ReturnSuccess(int x) {
  if (x == -12345)
    return FXErrorUtil::ErrorErrNo(FXCodeLocation("bench", "bench", __LINE__), 22, "never");
  return CKoError();
}

void BM_ReturnIntStatus(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(ReturnInt(++i));
}
BENCHMARK(BM_ReturnIntStatus);

void BM_ReturnSuccessError(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    CKoError error = ReturnSuccess(++i);
    benchmark::DoNotOptimize(error.IsError());
  }
}
BENCHMARK(BM_ReturnSuccessError);

// OpenSSL's one-shot digest: the floor for hashing a path.
void BM_Md5PathOpenSsl(benchmark::State& state) {
  unsigned char digest[16];
  unsigned int length = 0;
  for (auto _ : state) {
    EVP_Digest(kPath.data(), kPath.size(), digest, &length, EVP_md5(), nullptr);
    benchmark::DoNotOptimize(digest);
  }
}
BENCHMARK(BM_Md5PathOpenSsl);

// A fresh hasher per path, as a record key is made.
void BM_Md5PathWzcFresh(benchmark::State& state) {
  unsigned char digest[WzcMD5::kDigestLength];
  for (auto _ : state) {
    WzcMD5::Digest(kPath.data(), static_cast<int>(kPath.size()), digest);
    benchmark::DoNotOptimize(digest);
  }
}
BENCHMARK(BM_Md5PathWzcFresh);

// One hasher reused: Final() restarts it.
void BM_Md5PathWzcReused(benchmark::State& state) {
  unsigned char digest[WzcMD5::kDigestLength];
  WzcMD5 md5;
  for (auto _ : state) {
    md5.Update(kPath.data(), static_cast<int>(kPath.size()));
    md5.Final(digest);
    benchmark::DoNotOptimize(digest);
  }
}
BENCHMARK(BM_Md5PathWzcReused);

}  // namespace
