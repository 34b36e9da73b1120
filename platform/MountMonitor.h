// Reports volumes being mounted and unmounted, as they happen.
//
// The monitor watches the kernel's mount table with libmount's monitor, as
// an io source of a run loop: while nothing changes it costs nothing (no
// timer, no polling).  On each wake-up it reads the volume service's mount
// list again, compares it with the list it saw before (a mount is its mount
// id with its mount point) and calls the callback once per difference:
// first the unmounts, in the old table's order, then the mounts, in the new
// table's order.  A wake-up with no difference calls nothing.  The first
// list is read by the constructor; mounts already there are not reported.
//
// A monitor belongs to its loop's thread: it is made, rescanned and
// destroyed there, and its callback runs there.  Destruction removes the
// io source.  When the kernel table cannot be watched (no libmount monitor)
// the monitor logs it and only `rescan` reports changes.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/RunLoop.h"
#include "platform/VolumeService.h"

struct libmnt_monitor;

namespace platform {

struct MountChange {
  enum Kind { Mounted, Unmounted };
  Kind kind = Mounted;
  std::string mountPoint;
};

class MountMonitor {
 public:
  using Callback = std::function<void(const MountChange& change)>;

  MountMonitor(RunLoop& loop, std::shared_ptr<VolumeService> service, Callback callback);
  ~MountMonitor();
  MountMonitor(const MountMonitor&) = delete;
  MountMonitor& operator=(const MountMonitor&) = delete;

  // Reads the mount list now and reports its differences from the last one.
  void rescan();
  // Whether the kernel's mount table is being watched.
  bool isWatching() const { return source_ != 0; }

 private:
  using Key = std::pair<int32_t, std::string>;
  void handleWakeUp();
  std::vector<Key> currentKeys() const;
  // Starts watching the kernel's mount table (logs why when it cannot).
  void watchKernelTable();

  RunLoop& loop_;
  std::shared_ptr<VolumeService> service_;
  Callback callback_;
  libmnt_monitor* monitor_ = nullptr;
  RunLoop::SourceId source_ = 0;
  std::vector<Key> snapshot_;
};

}  // namespace platform
