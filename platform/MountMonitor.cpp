#include "platform/MountMonitor.h"

#include <libmount/libmount.h>
#include <poll.h>

#include <cstring>
#include <set>

#include "platform/Log.h"

namespace platform {

namespace {

// Enough for any burst of changes; a bound so a monitor that keeps
// answering cannot hold the loop.
constexpr int kMaxEventsPerWakeUp = 4096;

}  // namespace

MountMonitor::MountMonitor(RunLoop& loop, std::shared_ptr<VolumeService> service, Callback callback)
    : loop_(loop), service_(std::move(service)), callback_(std::move(callback)) {
  // The table is watched before it is first read: a change made between the
  // two wakes the monitor, and a disk pulled and plugged in again meanwhile
  // (which may get back its old mount id) is not taken for one never moved.
  watchKernelTable();
  snapshot_ = currentKeys();
}

void MountMonitor::watchKernelTable() {
  monitor_ = mnt_new_monitor();
  if (!monitor_) {
    Log::line("Cannot watch the mount table: no libmount monitor");
    return;
  }
  int rc = mnt_monitor_enable_kernel(monitor_, 1);
  const int fd = rc == 0 ? mnt_monitor_get_fd(monitor_) : rc;
  if (rc != 0 || fd < 0) {
    Log::format("Cannot watch the mount table: %s", std::strerror(fd < 0 ? -fd : -rc));
    mnt_unref_monitor(monitor_);
    monitor_ = nullptr;
    return;
  }
  source_ = loop_.addIoSource(
      fd, [] { return RunLoop::IoInterest{POLLIN, std::nullopt}; }, [this](uint32_t) { handleWakeUp(); });
}

MountMonitor::~MountMonitor() {
  if (source_ != 0) loop_.removeSource(source_);
  if (monitor_) mnt_unref_monitor(monitor_);
}

void MountMonitor::handleWakeUp() {
  // Consume what woke us; the list itself is read from the service.
  if (monitor_) {
    for (int i = 0; i < kMaxEventsPerWakeUp; ++i) {
      const char* filename = nullptr;
      int type = 0;
      if (mnt_monitor_next_change(monitor_, &filename, &type) != 0) break;
    }
  }
  rescan();
}

std::vector<MountMonitor::Key> MountMonitor::currentKeys() const {
  std::vector<Key> keys;
  for (const MountedVolume& v : service_->mountedVolumes()) keys.emplace_back(v.mountId, v.mountPoint);
  return keys;
}

void MountMonitor::rescan() {
  std::vector<Key> now = currentKeys();
  const std::set<Key> before(snapshot_.begin(), snapshot_.end());
  const std::set<Key> after(now.begin(), now.end());
  std::vector<MountChange> changes;
  for (const Key& k : snapshot_)
    if (!after.count(k)) changes.push_back({MountChange::Unmounted, k.second});
  for (const Key& k : now)
    if (!before.count(k)) changes.push_back({MountChange::Mounted, k.second});
  snapshot_ = std::move(now);
  // The callback may end the monitor: nothing of it is used after the first call.
  const Callback callback = callback_;
  for (const MountChange& change : changes) callback(change);
}

}  // namespace platform
