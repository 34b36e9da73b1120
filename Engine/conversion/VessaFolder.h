// A legacy folder: its entries by name.  It moves by making the same folder
// in the target (with the legacy folder's mode, owner and modification
// time) and moving each entry into it.
#pragma once

#include "Engine/conversion/VessaFileObject.h"

class VessaFolder : public VessaFileObject {
 public:
  static constexpr const char* kClassName = "VessaFolder";

  VessaFolder() = default;
  explicit VessaFolder(VessaFileObjects fileObjects) : fileObjects_(std::move(fileObjects)) {}

  bool isFile() const override { return false; }
  bool isDirectory() const override { return true; }

  void setVessConverter(QSVessaConversion* converter) override;
  void performPathReassignmentWithOriginalName(const std::string& name) override;
  bool moveFilesToTargetFolderHierarchy_objectKey_relativePathToSourceFolder(const VessaPlace& target,
                                                                              const std::string& objectKey,
                                                                              const VessaPlace& source) override;

  platform::Dictionary archive() const override;
  static std::shared_ptr<VessaFolder> initWithArchive(const platform::Dictionary& archive);

  const VessaFileObjects& fileObjects() const { return fileObjects_; }

 private:
  VessaFileObjects fileObjects_;
};
