// Shared by the conversion's unit tests: a volume in a temporary folder, a
// conversion of it with a chosen computer name, a delegate that records what
// it is told, and small writers of legacy files.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Engine/conversion/QSBackupConverterProtocol.h"
#include "Engine/conversion/QSVessaConversion.h"
#include "Engine/files/QSBlackList.h"
#include "Engine/support/QSCUtilities.h"
#include "platform/DateFormatter.h"
#include "platform/PropertyList.h"
#include "tests/support/LegacyLayout.h"
#include "tests/support/TempDir.h"

namespace skerrow_test {

inline constexpr const char* kTestComputer = "Studio Mac";

class RecordingConversionDelegate : public QSBackupConverterDelegate {
 public:
  void conversionChangedState_forMountPath(const std::string& state, const std::string& mountPath) override {
    std::lock_guard<std::mutex> lock(mutex_);
    states_.push_back(state);
    mountPaths_.push_back(mountPath);
  }
  void conversionDidFinishByConverter_withNewUIDs(const std::shared_ptr<QSBackupConverterProtocol>& converter,
                                                  const std::vector<std::string>& newUIDs) override {
    std::lock_guard<std::mutex> lock(mutex_);
    finishedBy_ = converter;
    finished_.push_back(newUIDs);
  }
  std::vector<std::string> states() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return states_;
  }
  std::vector<std::string> mountPaths() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return mountPaths_;
  }
  std::vector<std::vector<std::string>> finished() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return finished_;
  }
  std::shared_ptr<QSBackupConverterProtocol> finishedBy() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return finishedBy_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> states_;
  std::vector<std::string> mountPaths_;
  std::vector<std::vector<std::string>> finished_;
  std::shared_ptr<QSBackupConverterProtocol> finishedBy_;
};

// The shipped black list, whatever another test installed before.
inline void useShippedBlackList() {
  const auto shipped = platform::PropertyList::readFile(QSBlackList::defaultSettingsFilePath());
  QSBlackList::initializeWithInfoDictionary(shipped && shipped->isDictionary() ? *shipped->asDictionary()
                                                                            : platform::Dictionary());
}

// A conversion environment for a temporary folder: the test's computer name,
// and the trash on the folder itself (never the user's home trash).
inline QSVessaConversionEnvironment testEnvironment(const std::string& computer = kTestComputer) {
  QSVessaConversionEnvironment environment = QSVessaConversionEnvironment::system();
  environment.computerName = computer;
  environment.moveToTrash = [](platform::VolumeTree& volume, const std::string& relative) {
    platform::FileAttributes attributes;
    if (!volume.attributesAt(relative, &attributes)) return true;
    return volume.moveToTrash(relative) || QSVessaConversionEnvironment::removeConversionLeftovers(volume, relative);
  };
  return environment;
}

inline std::unique_ptr<QSVessaConversion> conversionOf(const std::string& volume, QSBackupConverterDelegate* delegate,
                                                       QSVessaConversionEnvironment environment = testEnvironment()) {
  return QSVessaConversion::initWithPath_delegate(volume, delegate, std::move(environment));
}

inline bool isFolder(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}
inline bool exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

inline platform::Date gmt(int year, int month, int day, int hour, int minute, int second) {
  struct tm t {};
  t.tm_year = year - 1900;
  t.tm_mon = month - 1;
  t.tm_mday = day;
  t.tm_hour = hour;
  t.tm_min = minute;
  t.tm_sec = second;
  return platform::Date::dateWithTimeIntervalSince1970(static_cast<double>(::timegm(&t)));
}

inline std::vector<std::string> runGenerator(const TempDir& dir, const std::vector<std::string>& arguments) {
  std::vector<std::string> all = {"--computer", kTestComputer, "--manifest", dir / "manifest.tsv"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  all.push_back(dir / "volume");
  const CommandResult made = makeLegacyLayout(all);
  if (made.exitCode != 0) return {"generator failed: " + made.output};
  return {};
}

}  // namespace skerrow_test

namespace skerrow_test {

// Writes legacy files by hand into a state folder of a temporary volume.
class LegacyWriter {
 public:
  LegacyWriter(const TempDir& dir, std::string state = "QS Tidevault") : dir_(dir), state_(std::move(state)) {}

  std::string volume() const { return dir_ / "volume"; }
  std::string stateFolder() const { return volume() + "/" + state_; }
  // <state>/<computer>/<user>/<category>, with plan settings.
  std::string category(const std::string& computer, const std::string& user, const std::string& category,
                       int64_t numberOfVersions = 5, const std::vector<std::string>& exclusions = {}) const {
    const std::string folder = stateFolder() + "/" + computer + "/" + user + "/" + category;
    platform::Dictionary device;
    device.set("numberOfVersions", platform::Value::integer(numberOfVersions));
    platform::Array directories;
    for (const auto& e : exclusions) directories.emplace_back(e);
    platform::Dictionary filters;
    filters.set("directory", platform::Value(std::move(directories)));
    platform::Dictionary settings;
    settings.set("DeviceInfo", platform::Value(std::move(device)));
    settings.set("ExclusionFilters", platform::Value(std::move(filters)));
    std::filesystem::create_directories(folder);
    platform::PropertyList::writeFile(folder + "/.VessaBackupPlanSettings.plist", platform::Value(std::move(settings)));
    return folder;
  }
  // The folder of a category's files below the user's home path.
  std::string files(const std::string& computer, const std::string& user, const std::string& category) const {
    std::string home = QSCHomeDirectoryForUser(user);
    const std::string folder = stateFolder() + "/" + computer + "/" + user + "/" + category + home;
    std::filesystem::create_directories(folder);
    return folder;
  }
  static void write(const std::string& path, const std::string& bytes, int64_t modified = 1300000000) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
    const struct timespec times[2] = {{modified, 0}, {modified, 0}};
    ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
  }
  static std::string read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  }
  // A per-file property list with one entry per (last modified, creation) pair.
  static void plist(const std::string& folder, const std::string& name,
                    const std::vector<std::pair<platform::Date, platform::Date>>& entries) {
    platform::Array list;
    for (const auto& [modified, created] : entries) {
      platform::Dictionary d;
      d.set("createDate", platform::Value(modified));
      d.set("lastModifiedDate", platform::Value(modified));
      d.set("creationDate", platform::Value(created));
      list.push_back(platform::Value(std::move(d)));
    }
    platform::PropertyList::writeFile(folder + "/.Vessa " + name + ".plist", platform::Value(std::move(list)));
  }

 private:
  const TempDir& dir_;
  std::string state_;
};

}  // namespace skerrow_test
