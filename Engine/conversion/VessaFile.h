// A legacy file: the versions the older product kept of it, its per-file
// property list, and the new names the versions get in the engine's syntax.
//
// The lists versionsOfFile, timeStampsOfVersionsOfFile and
// lastModifiedDatesOfVersionsOfFile run in parallel (a missing date is
// nothing); versionsOfFileForQSBackup holds the new names given so far, in
// the same order, never more than there are versions.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Engine/conversion/VessaFileObject.h"

class VessaFile : public VessaFileObject {
 public:
  static constexpr const char* kClassName = "VessaFile";

  explicit VessaFile(std::string relativePathToFile) : relativePathToFile_(std::move(relativePathToFile)) {}

  bool isFile() const override { return true; }
  bool isDirectory() const override { return false; }

  // A version read from the folder: its legacy name and its stamp's date.
  void addVersion(const std::string& legacyName, std::optional<platform::Date> timeStamp);
  void setVessaPropertyList(std::optional<platform::Array> list) { vessaPropertyList_ = std::move(list); }

  // Only a file with a property list takes part: the versions are first put
  // in order (cleanUpVersionsOfFile) and then named `name` version 0, 1, ...
  // in that order; names already given are kept.
  void performPathReassignmentWithOriginalName(const std::string& name) override;
  // Matches the property list's entries with the versions by their
  // creation dates and stamps, and puts the versions in the list's order
  // with its last-modified dates; versions no entry names follow.
  void cleanUpVersionsOfFile();

  bool moveFilesToTargetFolderHierarchy_objectKey_relativePathToSourceFolder(const VessaPlace& target,
                                                                              const std::string& objectKey,
                                                                              const VessaPlace& source) override;

  platform::Dictionary archive() const override;
  static std::shared_ptr<VessaFile> initWithArchive(const platform::Dictionary& archive);

  const std::string& relativePathToFile() const { return relativePathToFile_; }
  const std::optional<platform::Array>& vessaPropertyList() const { return vessaPropertyList_; }
  const std::vector<std::string>& versionsOfFile() const { return versionsOfFile_; }
  const std::vector<std::optional<platform::Date>>& timeStampsOfVersionsOfFile() const { return timeStamps_; }
  const std::vector<std::optional<platform::Date>>& lastModifiedDatesOfVersionsOfFile() const {
    return lastModifiedDates_;
  }
  const std::vector<std::string>& versionsOfFileForQSBackup() const { return versionsOfFileForQSBackup_; }

 private:
  std::string relativePathToFile_;
  std::optional<platform::Array> vessaPropertyList_;
  std::vector<std::string> versionsOfFile_;
  std::vector<std::optional<platform::Date>> timeStamps_;
  std::vector<std::optional<platform::Date>> lastModifiedDates_;
  std::vector<std::string> versionsOfFileForQSBackup_;
};
