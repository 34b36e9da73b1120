// A managed backup: one user's home folder on one machine, copied into a
// storage folder on one backup disk.
//
// Three serialised forms exist: the database archive (`archive`), the
// on-disk metadata (`metadataForBackupDir`) and the port coding
// (`encodeWithCoder`).  The setters of the version depth, the schedule, the
// persistence and the mount point post their notification on every call
// (also when the value does not change), synchronously, on the calling
// thread, with the entry as object; a change of a category's schedule posts
// QSScheduledCategoriesChangedNotification with the entry as object.
//
// Entries are plain objects without locks: they are changed on the main
// thread, and pipeline threads read copies of their fields.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "Engine/records/QSCategoryEntry.h"
#include "Engine/records/QSCoder.h"
#include "platform/Date.h"
#include "platform/KeyValueObserving.h"
#include "platform/RegexPredicate.h"
#include "platform/Value.h"

inline constexpr const char* QSVersionDepthChangedNotification = "QSVersionDepthChangedNotification";
inline constexpr const char* QSScheduledCategoriesChangedNotification = "QSScheduledCategoriesChangedNotification";
inline constexpr const char* QSScheduledStatusChangedNotification = "QSScheduledStatusChangedNotification";
inline constexpr const char* QSMountPointChangedNotification = "QSMountPointChangedNotification";
inline constexpr const char* QSPersistentStatusChangedNotification = "QSPersistentStatusChangedNotification";

class QSBackupEntry : public platform::KeyValueObserver, public std::enable_shared_from_this<QSBackupEntry> {
 public:
  using CategoryMap = std::map<std::string, std::shared_ptr<QSCategoryEntry>>;
  static constexpr const char* kClassName = "QSBackupEntry";

  // The period of entries read from a backup disk: one hour.
  static constexpr double defaultPeriod() { return 3600.0; }

  // A fresh entry: empty names, one unscheduled category per identifier of
  // kAllCategories, not persistent, not scheduled, the distant past as
  // completion date, period 0.0, version depth 0, no exclusion expression.
  static std::shared_ptr<QSBackupEntry> initWithUID(const std::string& uid);
  // From the database archive: persistent, keeps its schedule state.
  static std::shared_ptr<QSBackupEntry> initWithArchive(const platform::Dictionary& archive);
  // From a backup disk's metadata: not persistent, not scheduled, default period.
  static std::shared_ptr<QSBackupEntry> initWithBackupDirMetadata(const platform::Dictionary& metadata);
  // From the port coding.
  static std::shared_ptr<QSBackupEntry> initWithCoder(QSDecoder& coder);

  ~QSBackupEntry() override;
  QSBackupEntry(const QSBackupEntry&) = delete;
  QSBackupEntry& operator=(const QSBackupEntry&) = delete;

  platform::Dictionary archive() const;
  platform::Dictionary metadataForBackupDir() const;
  platform::Array categoriesArchive() const;
  void encodeWithCoder(QSEncoder& coder) const;
  static QSPortReplacement replacementObjectForPortCoder(const QSEncoder& coder);

  // Copies uid, schedule, persistence, names, home, categories (deeply),
  // mount point, BSD name and exclusion expression, through the setters;
  // completion date, period, version depth and volume name keep their
  // initial values.
  std::shared_ptr<QSBackupEntry> mutableCopy() const;

  const std::string& uid() const { return uid_; }
  const std::string& machineName() const { return machineName_; }
  const std::string& sourceFormat() const { return sourceFormat_; }
  const std::string& shortUserName() const { return shortUserName_; }
  const std::string& longUserName() const { return longUserName_; }
  const std::string& userHome() const { return userHome_; }
  const std::string& name() const { return userHome_; }
  const std::string& BSDName() const { return BSDName_; }
  const std::string& mountPoint() const { return mountPoint_; }
  const std::string& volumeName() const { return volumeName_; }
  const CategoryMap& managedCategories() const { return managedCategories_; }
  bool isPersistent() const { return isPersistent_; }
  bool isScheduled() const { return isScheduled_; }
  platform::Date completionDate() const { return completionDate_; }
  double period() const { return period_; }
  uint32_t versionDepth() const { return versionDepth_; }
  const std::optional<std::string>& exclusionExpression() const { return exclusionExpression_; }
  const std::shared_ptr<const platform::RegexPredicate>& exclusionFilter() const { return exclusionFilter_; }
  // The mount point followed directly by "qs skerrow.skstor" (no separator).
  std::string backupDirectoryPath() const;

  void setMachineName(const std::string& value) { machineName_ = value; }
  void setShortUserName(const std::string& value) { shortUserName_ = value; }
  void setLongUserName(const std::string& value) { longUserName_ = value; }
  void setUserHome(const std::string& value) { userHome_ = value; }
  void setVolumeName(const std::string& value) { volumeName_ = value; }
  void setBSDName(const std::string& value) { BSDName_ = value; }
  void setCompletionDate(platform::Date value) { completionDate_ = value; }
  void setPeriod(double value) { period_ = value; }
  void setSourceFormatHFSPlus();
  void setVersionDepth(uint32_t value);
  void setScheduled(bool value);
  void setPersistent(bool value);
  void setMountPoint(const std::string& value);
  // Keeps the expression and compiles the filter "SELF MATCHES[c] %@" from
  // it; nothing removes both.  An expression that does not compile is kept
  // (so nothing the user set is lost) with no filter, and the problem is logged.
  void setExclusionExpression(const std::optional<std::string>& expression);

  // Category management.
  void addCategoryWithIdentifier(const std::string& identifier);
  void removeCategoryWithIdentifier(const std::string& identifier);
  std::shared_ptr<QSCategoryEntry> categoryWithIdentifier(const std::string& identifier) const;
  std::set<std::string> scheduledCategories() const;
  // Replaces every category by a mutable copy of the argument's; the
  // argument's entries are never shared.
  void setManagedCategories(const CategoryMap& categories);

  std::string description() const;

  void observeValueForKeyPath_ofObject_change_context(const std::string& keyPath,
                                                      const platform::KeyValueObservable* object,
                                                      const platform::KeyValueChangeInfo& change,
                                                      void* context) override;

  struct Passkey {
    explicit Passkey() = default;
  };
  QSBackupEntry(Passkey, std::string uid);

 private:
  void post(const char* name);
  void storeAndObserve(const std::string& key, const std::shared_ptr<QSCategoryEntry>& category);
  void writeOwnerFields(class QSMutableBackupAttributes& attributes) const;
  void removeAllCategories();
  void readCommonFields(const platform::Dictionary& dictionary);
  void readCategories(const platform::Dictionary& dictionary);

  std::string uid_;
  std::string machineName_;
  std::string sourceFormat_;
  std::string shortUserName_;
  std::string longUserName_;
  std::string userHome_;
  std::string BSDName_;
  std::string mountPoint_;
  std::string volumeName_;
  CategoryMap managedCategories_;
  bool isPersistent_ = false;
  bool isScheduled_ = false;
  platform::Date completionDate_ = platform::Date::distantPast();
  double period_ = 0.0;
  uint32_t versionDepth_ = 0;
  std::optional<std::string> exclusionExpression_;
  std::shared_ptr<const platform::RegexPredicate> exclusionFilter_;
};
