// What the file-system watcher tells its delegate (the server), on the
// watcher's own thread.  Both calls must return quickly: the watcher reads
// nothing while they run, and the kernel drops events when its queue fills.
#pragma once

#include <cstdint>
#include <memory>

class QSFSWatcherEvent;

class QSFSWatcherDelegate {
 public:
  virtual ~QSFSWatcherDelegate() = default;
  // One event; nothing (nullptr) after events were dropped.
  virtual void handleFSEvent(const std::shared_ptr<const QSFSWatcherEvent>& event) = 0;
  // Events of the file system with device number `device` were dropped;
  // called just before the dropped-events (nullptr) event.
  virtual void fsWatcherDidDropEventsOnDevice(uint64_t device) = 0;
};
