// One file-system change as the watcher reports it: its type (the kernel's
// event type, see kfseNames) and its path arguments in the order they were
// reported (one path; a rename has the old path and then the new one).
// Events are made by the watcher's thread and only read afterwards.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/Object.h"

// Event types.
inline constexpr int32_t FSE_CREATE_FILE = 0;
inline constexpr int32_t FSE_DELETE = 1;
inline constexpr int32_t FSE_STAT_CHANGED = 2;
inline constexpr int32_t FSE_RENAME = 3;
inline constexpr int32_t FSE_CONTENT_MODIFIED = 4;
inline constexpr int32_t FSE_EXCHANGE = 5;
inline constexpr int32_t FSE_FINDER_INFO_CHANGED = 6;
inline constexpr int32_t FSE_CREATE_DIR = 7;
inline constexpr int32_t FSE_CHOWN = 8;
inline constexpr int32_t FSE_XATTR_MODIFIED = 9;
inline constexpr int32_t FSE_XATTR_REMOVED = 10;
inline constexpr int32_t kFSEventTypeCount = 11;

// The name of each type, indexed by type.
extern const char* const kfseNames[kFSEventTypeCount];

class QSFSWatcherEvent : public platform::Object {
 public:
  explicit QSFSWatcherEvent(int32_t type) : type_(type) {}
  static std::shared_ptr<QSFSWatcherEvent> initWithType(int32_t type) {
    return std::make_shared<QSFSWatcherEvent>(type);
  }

  void addArgument(std::string path) { args_.push_back(std::move(path)); }
  const std::vector<std::string>& arguments() const { return args_; }
  int32_t type() const { return type_; }

  // "<QSFSWatcherEvent: 0x...>, type: FSE_RENAME, path: <first path>"
  // ("(null)" for an event without a path, "?" for a type without a name).
  std::string description() const;

 private:
  int32_t type_;
  std::vector<std::string> args_;
};
