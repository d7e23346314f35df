#include "ForkSafety.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <vector>

namespace wztable {
namespace {

// Held across fork() (prepare/parent/child), so the child sees a list that
// no other thread was changing.
std::mutex registryMutex;
std::vector<int>* registry = nullptr;

void prepare() { registryMutex.lock(); }
void parent() { registryMutex.unlock(); }
void child() {
  // Only close(): the child of a threaded process may run async-signal-safe
  // calls only until it execs.
  if (registry)
    for (int fd : *registry) ::close(fd);
  if (registry) registry->clear();
  registryMutex.unlock();
}

void install() {
  static std::once_flag once;
  std::call_once(once, [] {
    registry = new std::vector<int>();
    registry->reserve(16);
    pthread_atfork(prepare, parent, child);
  });
}

}  // namespace

void closeInForkChildren(int fd) {
  if (fd < 0) return;
  install();
  std::lock_guard<std::mutex> lock(registryMutex);
  registry->push_back(fd);
}

void keepInForkChildren(int fd) {
  if (fd < 0 || !registry) return;
  std::lock_guard<std::mutex> lock(registryMutex);
  registry->erase(std::remove(registry->begin(), registry->end(), fd), registry->end());
}

}  // namespace wztable
