// An event source for unit tests: the test pushes the events the system
// would report, refuses folders or the whole source as the system would, and
// reads back which folders were watched.  Keeps the contract of
// FileSystemEventSource (readEvents waits, and answers false once closed).
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/FileSystemEventSource.h"

namespace platform {

class FakeFileSystemEventSource : public FileSystemEventSource {
 public:
  // Hands `events` to the reader in one read.
  void push(std::vector<FileSystemEvent> events);
  void push(FileSystemEvent event) { push(std::vector<FileSystemEvent>{std::move(event)}); }
  // Makes `open` fail with `error`.
  void failOpen(std::string error);
  // Makes watchFolder(folder) fail with `why`.
  void refuseFolder(const std::string& folder, std::string why);

  std::vector<std::string> watchedFolders() const;
  bool isOpen() const;
  bool isClosed() const;
  // How many pushed batches the reader has taken.
  size_t batchesRead() const;

  bool open(std::string* error) override;
  int descriptor() const override { return 42; }
  bool watchFolder(const std::string& folder, std::string* why) override;
  bool readEvents(std::vector<FileSystemEvent>* events) override;
  void close() override;

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::vector<FileSystemEvent>> batches_;
  std::optional<std::string> openError_;
  std::map<std::string, std::string> refused_;
  std::vector<std::string> watched_;
  bool open_ = false;
  bool closed_ = false;
  size_t batchesRead_ = 0;
};

}  // namespace platform
