// The root of the classes whose objects travel as "any object": arguments
// handed to delegates, objects kept in thread dictionaries.  Receivers find
// the concrete class with _castIf / std::dynamic_pointer_cast.
#pragma once

#include <memory>

namespace platform {

class Object : public std::enable_shared_from_this<Object> {
 public:
  Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  virtual ~Object() = default;

  // This object as a shared pointer of its own class.
  template <class T>
  std::shared_ptr<T> self() {
    return std::static_pointer_cast<T>(shared_from_this());
  }
  // This object as a weak pointer of its own class; empty while the object
  // is being destroyed (or was never owned by a shared pointer).
  template <class T>
  std::weak_ptr<T> weakSelf() {
    return std::static_pointer_cast<T>(weak_from_this().lock());
  }
};

}  // namespace platform
