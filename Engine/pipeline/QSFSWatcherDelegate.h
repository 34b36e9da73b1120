// What the file-system watcher tells its delegate (the server), on the
// watcher's own thread.  Every call must return quickly: the watcher reads
// nothing while they run, and the kernel drops events when its queue fills.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/FileSystemEventSource.h"

class QSFSWatcherEvent;

class QSFSWatcherDelegate {
 public:
  virtual ~QSFSWatcherDelegate() = default;
  // Every change the watcher reads, of every kind (writes to a file still
  // open included), in the order read, each before handleFSEvent hears of it
  // (writes never reach handleFSEvent: a file is copied once it is closed).
  // Not called for dropped events (fsWatcherDidDropEventsOnDevice is) or
  // undecodable ones (they end the reader).  Once QSFSWatcher::synchronize
  // answers true, this call has returned for every change made before it.
  virtual void fsWatcherDidSeeChange(const platform::FileSystemEvent& /*event*/) {}
  // One event; nothing (nullptr) after events were dropped.
  virtual void handleFSEvent(const std::shared_ptr<const QSFSWatcherEvent>& event) = 0;
  // Events of the file system with device number `device` were dropped;
  // called just before the dropped-events (nullptr) event.
  virtual void fsWatcherDidDropEventsOnDevice(uint64_t device) = 0;
};
