// An entry of a legacy category folder: a file with its versions
// (VessaFile) or a folder of further entries (VessaFolder).
//
// Every object keeps the conversion it belongs to (not owned), set when it
// is made and again after it is read back from the state file
// (setVessConverter).  The conversion gives the volume, the current state
// folder and the time-stamp formatter.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "platform/Value.h"

class QSVessaConversion;
class VessaFileObject;

namespace platform {
class VolumeFolder;
}

// Entries of a folder by name.
using VessaFileObjects = std::map<std::string, std::shared_ptr<VessaFileObject>>;

// A folder on the volume during movement: its handle and its path relative
// to the volume root (for the log and the list of files left behind).
struct VessaPlace {
  platform::VolumeFolder& folder;
  std::string relativePath;
};

class VessaFileObject {
 public:
  virtual ~VessaFileObject() = default;

  virtual bool isFile() const = 0;
  virtual bool isDirectory() const = 0;

  // Sets the conversion of this object (and of everything below it).
  virtual void setVessConverter(QSVessaConversion* converter) { converter_ = converter; }
  QSVessaConversion* converter() const { return converter_; }

  // Gives the versions new names in the engine's syntax; `name` is the
  // entry's plain name.  Safe to repeat after an interruption.
  virtual void performPathReassignmentWithOriginalName(const std::string& name) = 0;
  // Moves the entry `objectKey` of `source` into `target`; false when a
  // move or a folder creation fails (a version whose new name is taken
  // stays where it is and is not a failure).
  virtual bool moveFilesToTargetFolderHierarchy_objectKey_relativePathToSourceFolder(const VessaPlace& target,
                                                                                      const std::string& objectKey,
                                                                                      const VessaPlace& source) = 0;

  virtual platform::Dictionary archive() const = 0;
  // A file or folder from its archive; nullptr when the archive is not one.
  static std::shared_ptr<VessaFileObject> initWithArchive(const platform::Value& archive);

 protected:
  QSVessaConversion* converter_ = nullptr;
};

// The entries of a legacy folder read recursively into file and folder
// objects: subfolders become VessaFolder entries, per-file property lists
// attach to the file of the same plain name, stamped files become versions
// of the file named by their stamp-free name, and plan settings, the state
// file and files the black list rejects are left out.  Nothing is followed
// through a symbolic link; what cannot be read is left out.
VessaFileObjects CreateTreeOfVessaContentsAtPath(platform::VolumeFolder& folder, const std::string& relativePath,
                                                 QSVessaConversion* converter);
