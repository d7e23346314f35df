// auto_lock: holds an FXCriticalSection or FXMutex for the life of a scope.
#pragma once

template <class TLock>
class auto_lock {
 public:
  explicit auto_lock(TLock& lock) : lock_(lock) { lock_.Lock(); }
  ~auto_lock() { lock_.Unlock(); }
  auto_lock(const auto_lock&) = delete;
  auto_lock& operator=(const auto_lock&) = delete;

 private:
  TLock& lock_;
};
