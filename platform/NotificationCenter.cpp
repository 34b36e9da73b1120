#include "platform/NotificationCenter.h"

#include <algorithm>

namespace platform {

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter* center = new NotificationCenter();  // never destroyed: posts may come during exit
  return *center;
}

NotificationCenter::ObserverId NotificationCenter::addObserver(const std::string& name, const void* sender,
                                                               Callback callback) {
  std::lock_guard<std::mutex> lock(mutex_);
  const ObserverId id = nextId_++;
  observers_.push_back(
      Observer{id, name, sender, std::make_shared<Callback>(std::move(callback)), std::make_shared<bool>(false)});
  return id;
}

void NotificationCenter::removeObserver(ObserverId id) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = std::find_if(observers_.begin(), observers_.end(), [id](const Observer& o) { return o.id == id; });
  if (it == observers_.end()) return;
  *it->removed = true;
  observers_.erase(it);
}

void NotificationCenter::post(const Notification& notification) {
  std::vector<Observer> matching;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Observer& o : observers_)
      if ((o.name.empty() || o.name == notification.name) && (!o.sender || o.sender == notification.sender))
        matching.push_back(o);
  }
  for (const Observer& o : matching) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (*o.removed) continue;
    }
    (*o.callback)(notification);
  }
}

size_t NotificationCenter::observerCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return observers_.size();
}

ScopedObserver& ScopedObserver::operator=(ScopedObserver&& other) noexcept {
  if (this != &other) {
    reset();
    center_ = other.center_;
    id_ = other.id_;
    other.center_ = nullptr;
  }
  return *this;
}

void ScopedObserver::reset() {
  if (center_) center_->removeObserver(id_);
  center_ = nullptr;
}

}  // namespace platform
