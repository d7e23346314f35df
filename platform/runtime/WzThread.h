// WzThread: one thread running a C-style function with a void* argument.
//
// Start() runs `function(argument)` on a new thread. `keepAlive`, when given,
// is held by the thread until the function returns, so the argument it owns
// outlives the thread even if everyone else lets it go; the thread lets it
// go before Join() returns. Join() waits for the function and returns its
// result. Destroying a WzThread that was started and
// not joined detaches the thread, which then runs to its end on its own.
#pragma once

#include <memory>
#include <thread>

#include "runtime/WzRuntimeExport.h"

class WZRT_API WzThread {
 public:
  typedef void* (*ThreadFunction)(void*);

  WzThread() = default;
  ~WzThread();
  WzThread(const WzThread&) = delete;
  WzThread& operator=(const WzThread&) = delete;

  // False when the thread is already started or cannot be created.
  bool Start(ThreadFunction function, void* argument,
             std::shared_ptr<void> keepAlive = nullptr);
  // Waits for the thread; returns the function's result (null if never
  // started or already joined).
  void* Join();
  bool IsStarted() const { return thread_.joinable(); }

 private:
  std::thread thread_;
  // The function's result, written by the thread. Shared with the thread so
  // that a detached thread never writes into a destroyed WzThread.
  std::shared_ptr<void*> resultSlot_;
  void* result_ = nullptr;
};

namespace FXThread {
WZRT_API void Sleep(unsigned milliseconds);
}  // namespace FXThread
