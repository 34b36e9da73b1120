// A process-wide notification centre: synchronous delivery on the posting
// thread, observers chosen by name and sender.
//
// A notification carries a name, the posting object (any shared object, or
// none) and a user-info dictionary.  Observers register for a name (or any
// name) and for one sender (or any sender) and are called in registration
// order.  Observers may add and remove observers, and post, from within
// their callback; an observer removed while a post is under way is not
// called after its removal returns (unless the removal happens on another
// thread in the very middle of that observer's call).
#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Value.h"

namespace platform {

struct Notification {
  std::string name;
  // The posting object; `object` holds it as a std::shared_ptr<T>, `sender` its address.
  std::any object;
  const void* sender = nullptr;
  Dictionary userInfo;

  // The posting object as a T, or nullptr when it is none or of another type.
  template <class T>
  std::shared_ptr<T> objectAs() const {
    if (const auto* p = std::any_cast<std::shared_ptr<T>>(&object)) return *p;
    return nullptr;
  }
};

class NotificationCenter {
 public:
  using Callback = std::function<void(const Notification&)>;
  using ObserverId = uint64_t;

  // The default centre of the process.
  static NotificationCenter& defaultCenter();

  NotificationCenter() = default;
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  // Registers `callback` for notifications named `name` (empty: any name) from
  // `sender` (nullptr: any sender).  Answers an id for removal.
  ObserverId addObserver(const std::string& name, const void* sender, Callback callback);
  void removeObserver(ObserverId id);

  // Delivers synchronously, on the calling thread, to every matching observer.
  template <class T>
  void post(const std::string& name, const std::shared_ptr<T>& object, Dictionary userInfo = {}) {
    Notification n;
    n.name = name;
    n.sender = object.get();
    if (object) n.object = object;
    n.userInfo = std::move(userInfo);
    post(n);
  }
  void post(const Notification& notification);

  size_t observerCount() const;

 private:
  struct Observer {
    ObserverId id;
    std::string name;
    const void* sender;
    std::shared_ptr<Callback> callback;
    std::shared_ptr<bool> removed;
  };
  mutable std::mutex mutex_;
  std::vector<Observer> observers_;
  ObserverId nextId_ = 1;
};

// Removes its observer when destroyed.
class ScopedObserver {
 public:
  ScopedObserver() = default;
  ScopedObserver(NotificationCenter& center, NotificationCenter::ObserverId id) : center_(&center), id_(id) {}
  ScopedObserver(ScopedObserver&& other) noexcept : center_(other.center_), id_(other.id_) { other.center_ = nullptr; }
  ScopedObserver& operator=(ScopedObserver&& other) noexcept;
  ~ScopedObserver() { reset(); }
  void reset();

 private:
  NotificationCenter* center_ = nullptr;
  NotificationCenter::ObserverId id_ = 0;
};

}  // namespace platform
