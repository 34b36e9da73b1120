// Changes in whole file systems, as continuous backup reads them: the
// operating system's change notices for the file systems that hold the
// users' home folders, turned into plain events that name paths.
//
// Contract:
//  - `open` prepares the source; nothing is reported before it.  It fails
//    (with the system's reason) when the process may not watch file systems.
//  - `watchFolder` adds the file system holding a folder (a user's home) and
//    the folder itself as a watched subtree.  Events are reported only for
//    items whose folder lies at or below a watched subtree (a rename when
//    either side does); everything else on the file system is dropped by the
//    source, as cheaply as it can.  Folders on a file system that cannot be
//    watched are refused with the reason.  Safe from any thread after `open`.
//  - `readEvents` waits until events come and appends them in the order the
//    system reported them; it answers false once the source is closed (or has
//    failed for good), and never again true after that.  One reader thread.
//  - Changes made by this process itself are never reported (unless the
//    source was made to report them, for tests that make the changes
//    themselves).
//  - When the system had to drop events of a file system, one event of kind
//    Dropped names that file system's device; nothing tells which changes
//    were lost.
//  - An event the source cannot decode is reported as Undecodable, with the
//    system's raw type; the caller is expected to stop reading.
//  - `close` may be called from any thread; it ends a `readEvents` that waits.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

struct FileSystemEvent {
  enum class Kind : uint8_t {
    Created,          // a file (or link) was created: paths = {path}
    CreatedFolder,    // a folder was created: {path}
    Deleted,          // {path}
    AttributesChanged,  // mode, owner, times or extended attributes: {path}
    Renamed,          // {old path, new path}
    ClosedAfterWrite, // a file opened for writing was closed: {path}
    Dropped,          // events were lost: paths empty, `device` names the file system
    Undecodable,      // `rawType` holds what the system reported
  };
  Kind kind = Kind::Undecodable;
  std::vector<std::string> paths;
  uint64_t device = 0;  // st_dev of the file system the event happened on
  int64_t rawType = 0;
};

class FileSystemEventSource {
 public:
  virtual ~FileSystemEventSource() = default;

  // Prepares the source; false with the system's reason in `error`.
  virtual bool open(std::string* error) = 0;
  // The descriptor events are read from (for the start-up message), or -1.
  virtual int descriptor() const = 0;
  // Watches the file system holding `folder`, and `folder` as a subtree;
  // false with the reason when that file system cannot be watched.
  virtual bool watchFolder(const std::string& folder, std::string* why) = 0;
  // Waits for events and appends them to `events`; false once closed.
  virtual bool readEvents(std::vector<FileSystemEvent>* events) = 0;
  // Ends the source; a waiting readEvents returns false.
  virtual void close() = 0;
};

}  // namespace platform
