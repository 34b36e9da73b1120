// The file-system event source of Linux: fanotify.
//
// Each watched file system gets a notification group of its own with one
// file-system mark (FAN_MARK_FILESYSTEM) that reports creations, deletions,
// attribute changes, writes, closes after writing and renames (FAN_RENAME,
// which carries the old and the new name in one event), each with the
// folder's file handle and the entry's name (FAN_REPORT_DFID_NAME).  A group
// per file system is what lets a queue overflow name the file system that
// lost events, and what lets go of a file system (closing the group drops its
// mark) when its last watched subtree is unwatched.
//
// Writes (FAN_MODIFY) come once per write(2), but the kernel merges an event
// with an identical one still queued for the same file, and the reader lets
// events gather for a moment before it reads: a file written continuously
// costs about one event per read of the reader, not one per write.
//
// Paths are made from the handles: the folder is opened by its handle
// (open_by_handle_at on a descriptor of the watched file system, opened for
// the read that needs it and closed after, so that the source never keeps a
// disk from being unmounted) and its path read back, then the name is
// appended.  Each folder's path and whether it lies in a watched subtree are
// cached by handle, so an event in a folder seen before costs a table look-up
// and no system call: events outside every watched subtree are dropped before
// any path is made.  A folder renamed or moved anywhere on the file system
// empties that file system's cache, since the paths of everything below it
// changed.  Events of this process are dropped first of all (see
// FileSystemEventSource).
//
// A drain reads every group until the kernel has nothing more for it, in
// reads begun after the request: fanotify queues an event in the system call
// that makes the change, so that takes every change made before the request.
//
// Needs CAP_SYS_ADMIN (fanotify) and CAP_DAC_READ_SEARCH (open_by_handle_at).
// File systems without usable file handles or file-system ids (FUSE, some
// network file systems) are refused with the kernel's reason.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/FileSystemEventSource.h"

namespace platform {

class FanotifyEventSource : public FileSystemEventSource {
 public:
  struct Options {
    // Drop the events this process causes (off only for tests that make changes themselves).
    bool ignoreOwnProcess = true;
    // Folders remembered per file system before the cache is emptied.
    size_t folderCacheLimit = 65536;
    // Report writes (FAN_MODIFY); off only to measure what reporting them costs.
    bool reportWrites = true;
  };

  FanotifyEventSource();
  explicit FanotifyEventSource(Options options);
  ~FanotifyEventSource() override;
  FanotifyEventSource(const FanotifyEventSource&) = delete;
  FanotifyEventSource& operator=(const FanotifyEventSource&) = delete;

  bool open(std::string* error) override;
  int descriptor() const override;
  bool watchFolder(const std::string& folder, std::string* why) override;
  bool unwatchFolder(const std::string& folder) override;
  bool readEvents(std::vector<FileSystemEvent>* events) override;
  uint64_t requestDrain() override;
  uint64_t drained() const override;
  void close() override;

  // How many folder handles were opened to learn a path (tests, benchmarks).
  uint64_t folderLookups() const;
  // How many event records were read from the kernel, and how many reads
  // took them (benchmarks).
  uint64_t recordsRead() const;
  uint64_t readsMade() const;

  // Decodes a buffer laid out as the kernel's reads are, for a file system
  // with device `device` and no watched subtree (only dropped-events and
  // undecodable events come out); for tests and fuzzing of malformed input.
  // The buffer may hold any bytes: no descriptor named in it is closed.
  static std::vector<FileSystemEvent> decodeRecords(const char* buffer, size_t length, uint64_t device);

 private:
  struct Group;
  struct Subtree {
    std::string given;     // as watchFolder was given it
    std::string resolved;  // its real path then
  };
  struct Folder {
    bool inside = false;   // at or below a watched subtree
    bool known = false;    // the path could be read
    bool gone = false;     // the folder no longer exists (its removal is an event of its own)
    std::string path;
  };

  void decode(Group& group, const char* buffer, size_t length, std::vector<FileSystemEvent>* events);
  const Folder* folderFor(Group& group, const std::string& key, const void* handle);
  bool isInside(const Group& group, const std::string& path) const;
  bool openMount(Group& group);
  void wakeReader();
  uint64_t markMask() const;

  const Options options_;
  // Whether the descriptors events carry are this process's to close (false
  // when decoding bytes that did not come from the kernel).
  bool ownsEventDescriptors_ = true;
  FileDescriptor wake_;   // an eventfd that ends the reader's wait
  FileDescriptor spare_;  // the group made by open, used by the first file system
  int spareNumber_ = -1;
  // Shared with the reader, which may be reading a group being unwatched.
  std::vector<std::shared_ptr<Group>> groups_;
  bool closed_ = false;
  uint64_t requested_ = 0;           // the last drain ticket handed out
  std::atomic<uint64_t> drained_{0};  // the last one drained
  uint64_t folderLookups_ = 0;
  uint64_t recordsRead_ = 0;
  uint64_t readsMade_ = 0;
  int ownProcess_ = 0;
  std::vector<char> buffer_;
  Folder unknown_;  // what folderFor answers for a folder it could not open this time
  mutable std::mutex mutex_;
};

}  // namespace platform
