// Threads and timing: a thread's argument kept alive until its function
// returns, joined or not; counters adding from many threads; scope timers.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "runtime/CAutoTimeCounter.h"
#include "runtime/CTimeCounter.h"
#include "runtime/CTimeStamp.h"
#include "runtime/WzThread.h"

namespace {

// A thread's argument: it waits for `release`, then doubles `value`.
struct Payload {
  std::shared_future<void> release;
  std::shared_ptr<std::atomic<int>> destroyed;
  int value;
  ~Payload() { ++*destroyed; }
};

void* UsePayload(void* argument) {
  auto* payload = static_cast<Payload*>(argument);
  payload->release.wait();
  payload->value *= 2;  // touches the argument after its owner let it go
  return reinterpret_cast<void*>(static_cast<intptr_t>(payload->value));
}

TEST(WzThreadTest, KeepAliveHoldsTheArgumentUntilTheFunctionReturns) {
  for (bool join : {true, false}) {
    SCOPED_TRACE(join ? "joined" : "never joined: detached, runs to its end");
    std::promise<void> release;
    auto destroyed = std::make_shared<std::atomic<int>>(0);
    auto thread = std::make_unique<WzThread>();
    EXPECT_EQ(thread->Join(), nullptr);  // never started
    {
      auto payload = std::shared_ptr<Payload>(new Payload{release.get_future().share(), destroyed, 21});
      ASSERT_TRUE(thread->Start(&UsePayload, payload.get(), payload));
      EXPECT_FALSE(thread->Start(&UsePayload, payload.get(), payload));  // already started
    }
    EXPECT_EQ(destroyed->load(), 0);
    if (!join) thread.reset();
    release.set_value();
    if (join) {
      EXPECT_EQ(reinterpret_cast<intptr_t>(thread->Join()), 42);
      EXPECT_EQ(destroyed->load(), 1);  // released by the time Join returns
      EXPECT_EQ(thread->Join(), nullptr);  // already joined
    }
    for (int i = 0; i < 500 && destroyed->load() == 0; ++i) FXThread::Sleep(2);
    EXPECT_EQ(destroyed->load(), 1);
  }
}

TEST(TimingTest, CountersAddFromManyThreadsAndScopesTimeThemselves) {
  CTimeCounter counter;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 25000; ++i) counter.Add(1000);
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter.AsString(), "samples=100000 total=100.000 ms mean=1.000 us");
  counter.Reset();
  const CTimeStamp start = CTimeStamp::Monotonic();
  {
    CAutoTimeCounter timer(&counter);
    CAutoTimeCounter nothing(nullptr);
    FXThread::Sleep(5);
  }
  EXPECT_EQ(counter.GetTotalSamples(), 1u);
  EXPECT_GE(counter.GetTotalTime(), 5000000LL);
  EXPECT_LE(counter.GetTotalTime(), CTimeStamp::Monotonic() - start);
}

}  // namespace
