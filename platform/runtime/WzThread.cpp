// WzThread and FXThread::Sleep.
#include "runtime/WzThread.h"

#include <ctime>
#include <cerrno>
#include <system_error>

WzThread::~WzThread() {
  if (thread_.joinable()) thread_.detach();
}

bool WzThread::Start(ThreadFunction function, void* argument, std::shared_ptr<void> keepAlive) {
  if (function == nullptr || thread_.joinable()) return false;
  auto slot = std::make_shared<void*>(nullptr);
  try {
    thread_ = std::thread([function, argument, slot, keepAlive = std::move(keepAlive)]() mutable {
      *slot = function(argument);
      // Released here, before the thread ends, so a joiner sees it released.
      keepAlive.reset();
    });
  } catch (const std::system_error&) {
    return false;
  }
  resultSlot_ = std::move(slot);
  result_ = nullptr;
  return true;
}

void* WzThread::Join() {
  if (!thread_.joinable() || thread_.get_id() == std::this_thread::get_id()) return nullptr;
  thread_.join();
  result_ = *resultSlot_;
  resultSlot_.reset();
  void* result = result_;
  result_ = nullptr;
  return result;
}

namespace FXThread {

void Sleep(unsigned milliseconds) {
  timespec remaining{static_cast<time_t>(milliseconds / 1000),
                     static_cast<long>(milliseconds % 1000) * 1000000L};
  while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
}

}  // namespace FXThread
