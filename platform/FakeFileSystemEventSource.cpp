#include "platform/FakeFileSystemEventSource.h"

#include <algorithm>

namespace platform {

void FakeFileSystemEventSource::push(std::vector<FileSystemEvent> events) {
  std::lock_guard<std::mutex> lock(mutex_);
  batches_.push_back(std::move(events));
  changed_.notify_all();
}

void FakeFileSystemEventSource::failOpen(std::string error) {
  std::lock_guard<std::mutex> lock(mutex_);
  openError_ = std::move(error);
}

void FakeFileSystemEventSource::refuseFolder(const std::string& folder, std::string why) {
  std::lock_guard<std::mutex> lock(mutex_);
  refused_[folder] = std::move(why);
}

void FakeFileSystemEventSource::holdBatches() {
  std::lock_guard<std::mutex> lock(mutex_);
  held_ = true;
}

void FakeFileSystemEventSource::releaseBatches() {
  std::lock_guard<std::mutex> lock(mutex_);
  held_ = false;
  changed_.notify_all();
}

std::vector<std::string> FakeFileSystemEventSource::unwatchedFolders() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return unwatched_;
}

std::vector<std::string> FakeFileSystemEventSource::watchedFolders() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return watched_;
}

bool FakeFileSystemEventSource::isOpen() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return open_;
}

bool FakeFileSystemEventSource::isClosed() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return closed_;
}

size_t FakeFileSystemEventSource::batchesRead() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return batchesRead_;
}

uint64_t FakeFileSystemEventSource::drainsRequested() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requested_;
}

bool FakeFileSystemEventSource::open(std::string* error) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (openError_) {
    if (error) *error = *openError_;
    return false;
  }
  open_ = true;
  return true;
}

bool FakeFileSystemEventSource::watchFolder(const std::string& folder, std::string* why) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (const auto it = refused_.find(folder); it != refused_.end()) {
    if (why) *why = it->second;
    return false;
  }
  watched_.push_back(folder);
  return true;
}

bool FakeFileSystemEventSource::unwatchFolder(const std::string& folder) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = std::find(watched_.begin(), watched_.end(), folder);
  if (it == watched_.end()) return false;
  watched_.erase(it);
  unwatched_.push_back(folder);
  return true;
}

bool FakeFileSystemEventSource::readEvents(std::vector<FileSystemEvent>* events) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return closed_ || (!held_ && (!batches_.empty() || requested_ > drained_)); });
  if (closed_) return false;
  if (!batches_.empty()) {
    for (auto& event : batches_.front()) events->push_back(std::move(event));
    batches_.pop_front();
    ++batchesRead_;
  }
  // Every batch pushed before the drains asked so far has been taken.
  if (batches_.empty()) drained_ = requested_;
  changed_.notify_all();
  return true;
}

uint64_t FakeFileSystemEventSource::requestDrain() {
  std::lock_guard<std::mutex> lock(mutex_);
  changed_.notify_all();
  return ++requested_;
}

uint64_t FakeFileSystemEventSource::drained() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return drained_;
}

void FakeFileSystemEventSource::close() {
  std::lock_guard<std::mutex> lock(mutex_);
  closed_ = true;
  changed_.notify_all();
}

}  // namespace platform
