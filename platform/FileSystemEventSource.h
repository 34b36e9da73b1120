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
//  - `unwatchFolder` ends what `watchFolder` began for that folder (named as
//    it was then, or by the same resolved path): nothing below it is
//    reported any more, except where another watched subtree holds it.  When
//    no watched subtree is left on a file system, the source lets go of it
//    entirely.  A file system that was unmounted may be unwatched (its mark
//    went with it).  The source never keeps a watched file system busy: it
//    can be unmounted at any time.  Safe from any thread after `open`.
//  - `readEvents` waits until events come and appends them in the order the
//    system reported them; it answers false once the source is closed (or has
//    failed for good), and never again true after that.  It may also return
//    true having appended nothing, after it finished a drain (below).  One
//    reader thread.
//  - `requestDrain` (any thread) answers a ticket, a number larger than every
//    one answered before, and makes the reader drain: read everything the
//    system has queued, in a read that begins after the request.  Once
//    `drained()` answers the ticket or more, every event the system queued
//    before the request was made has been appended by a `readEvents` call
//    that has returned (or dropped by the source's own rules).  The reader
//    asks `drained()` after `readEvents` returns: the answer covers the events
//    that call appended.  A closed source never answers a ticket.
//  - Changes made by this process itself are never reported (unless the
//    source was made to report them, for tests that make the changes
//    themselves).
//  - When the system had to drop events of a file system, one event of kind
//    Dropped names that file system's device; nothing tells which changes
//    were lost.  A change the source cannot place (the path of its folder
//    cannot be read for now) is reported the same way.  A change in a folder
//    that is gone by the time it is read is left out (the folder's removal
//    is reported), and a rename of which one side's folder is gone is
//    reported as the creation or deletion of the other side.
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
    Modified,         // a file's data was written (it may still be open): {path}
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
  // Stops reporting events at or below `folder`; false when it was not watched.
  virtual bool unwatchFolder(const std::string& folder) = 0;
  // Waits for events (or a drain to finish) and appends them to `events`;
  // false once closed.
  virtual bool readEvents(std::vector<FileSystemEvent>* events) = 0;
  // Asks the reader for a drain; answers its ticket (see above).
  virtual uint64_t requestDrain() = 0;
  // The largest ticket whose drain has finished, 0 before any.
  virtual uint64_t drained() const = 0;
  // Ends the source; a waiting readEvents returns false.
  virtual void close() = 0;
};

}  // namespace platform
