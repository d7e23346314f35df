#include "ListingSource.h"

ListingSource::ListingSource(const EntryFilter& filter, RecordType type, unsigned threads)
    : filter_(filter), type_(type) {
  if (threads <= 1) return;
  for (unsigned i = 0; i < threads; ++i) readers_.emplace_back([this] { ReaderLoop(); });
}

ListingSource::~ListingSource() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  work_.notify_all();
  for (std::thread& reader : readers_) reader.join();
}

void ListingSource::Prefetch(const std::string& path, bool identities) {
  if (readers_.empty() || slots_.count(path)) return;
  auto slot = std::make_shared<Slot>();
  slot->path = path;
  slot->identities = identities;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    queue_.push_back(slot);
  }
  slots_[path] = slot;
  work_.notify_one();
}

DirectoryListing ListingSource::Take(const std::string& path, bool identities) {
  auto found = slots_.find(path);
  if (found == slots_.end()) return ReadDirectory(path, filter_, type_, identities);
  std::shared_ptr<Slot> slot = found->second;
  slots_.erase(found);
  std::unique_lock<std::mutex> lock(mutex_);
  ready_.wait(lock, [&] { return slot->done; });
  return std::move(slot->listing);
}

void ListingSource::ReaderLoop() {
  for (;;) {
    std::shared_ptr<Slot> slot;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      work_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (stopping_) return;
      slot = queue_.front();
      queue_.pop_front();
    }
    DirectoryListing listing = ReadDirectory(slot->path, filter_, type_, slot->identities);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      slot->listing = std::move(listing);
      slot->done = true;
    }
    ready_.notify_all();
  }
}
