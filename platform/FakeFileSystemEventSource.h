// An event source for unit tests: the test pushes the events the system
// would report, refuses folders or the whole source as the system would, and
// reads back which folders were watched.  Keeps the contract of
// FileSystemEventSource (readEvents waits, and answers false once closed; a
// drain is finished once every batch pushed before it was read).  A test can
// hold the batches back, as a reader that has not got to them yet, to see
// who waits for them.  Events are handed over as pushed: the fake does not
// filter them by the watched folders.
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

  // While held, the reader takes no batch and finishes no drain.
  void holdBatches();
  void releaseBatches();

  std::vector<std::string> watchedFolders() const;
  std::vector<std::string> unwatchedFolders() const;
  bool isOpen() const;
  bool isClosed() const;
  // How many pushed batches the reader has taken.
  size_t batchesRead() const;
  // How many drains were asked for.
  uint64_t drainsRequested() const;

  bool open(std::string* error) override;
  int descriptor() const override { return 42; }
  bool watchFolder(const std::string& folder, std::string* why) override;
  bool unwatchFolder(const std::string& folder) override;
  bool readEvents(std::vector<FileSystemEvent>* events) override;
  uint64_t requestDrain() override;
  uint64_t drained() const override;
  void close() override;

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::vector<FileSystemEvent>> batches_;
  std::optional<std::string> openError_;
  std::map<std::string, std::string> refused_;
  std::vector<std::string> watched_;
  std::vector<std::string> unwatched_;
  bool held_ = false;
  uint64_t requested_ = 0;
  uint64_t drained_ = 0;
  bool open_ = false;
  bool closed_ = false;
  size_t batchesRead_ = 0;
};

}  // namespace platform
