// One backup category of a backup entry: whether it takes part in backups,
// and an opaque dictionary of client data, stored and returned untouched.
//
// The "scheduled" key is observable (KeyValueObservable): every call of
// setScheduled announces one change, also when the value does not change.
// Category entries are plain objects without locks.
#pragma once

#include <any>
#include <memory>
#include <string>

#include "Engine/records/QSCoder.h"
#include "platform/KeyValueObserving.h"
#include "platform/Value.h"

// How a record goes over the connection: as a copy of itself, or as a proxy.
enum class QSPortReplacement { ByCopy, ByReference };

class QSCategoryEntry : public platform::KeyValueObservable {
 public:
  static constexpr const char* kScheduledKey = "scheduled";
  static constexpr const char* kClassName = "QSCategoryEntry";

  // Identifier copied, user info empty, not scheduled.
  static std::shared_ptr<QSCategoryEntry> initWithIdentifier(const std::string& identifier);
  // From a category archive: "scheduled" (missing reads as NO), "user-info"
  // (missing reads as empty), "identifier".
  static std::shared_ptr<QSCategoryEntry> initWithArchive(const platform::Dictionary& archive);
  // Port coding: isScheduled, then identifier, then userInfo.
  static std::shared_ptr<QSCategoryEntry> initWithCoder(QSDecoder& coder);

  // {"identifier", "user-info", "scheduled"}.
  platform::Dictionary archive() const;
  void encodeWithCoder(QSEncoder& coder) const;
  // By copy unless the coder asks for a reference.
  static QSPortReplacement replacementObjectForPortCoder(const QSEncoder& coder);

  // A new entry with the same identifier, the same user-info object and the same schedule.
  std::shared_ptr<QSCategoryEntry> mutableCopy() const;

  bool isScheduled() const { return isScheduled_; }
  void setScheduled(bool scheduled);
  const std::string& identifier() const { return identifier_; }
  const std::shared_ptr<const platform::Dictionary>& userInfo() const { return userInfo_; }
  // Keeps the new dictionary; setting the same object again does nothing.
  void setUserInfo(std::shared_ptr<const platform::Dictionary> userInfo);

  // "\n   isScheduled: %@\n      userInfo: %@\n"; an empty user info prints "(empty)".
  std::string description() const;

  std::any valueForKey(const std::string& key) const override;

  struct Passkey {
    explicit Passkey() = default;
  };
  QSCategoryEntry(Passkey, std::string identifier);

 private:
  bool isScheduled_ = false;
  std::shared_ptr<const platform::Dictionary> userInfo_;
  std::string identifier_;
};
