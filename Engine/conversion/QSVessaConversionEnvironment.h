// What a conversion takes from the machine it runs on, gathered so that
// tests (and the crash-test harness) can stand in for parts of it.
//
//  - computerName: this machine's computer name; only the legacy computer
//    folder of that name is converted.
//  - renameFolder: renames a folder of the volume (paths relative to its
//    root) without replacing anything, and makes the rename durable;
//    answers 0 or the errno.  Every state change and the renames of
//    clean-up (the target folder, the new backup folders, the legacy folder
//    back to "QS Tidevault") go through it.
//  - moveToTrash: moves an item of the volume (a path relative to its root)
//    to the trash on that volume; when it cannot, it removes only what a
//    conversion may remove (legacy property lists, plan settings, the state
//    file, folders left empty) and keeps the rest.  Answers whether nothing
//    is left at the path.
//  - isWritable, freeBytes: what the volume allows before a conversion
//    begins to change it.
//
// system() gives the real ones: the machine's name, renames beneath the
// volume root, the freedesktop.org trash at the volume's root (then GIO's
// trash), and the volume's own answers.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace platform {
class VolumeTree;
}

struct QSVessaConversionEnvironment {
  std::string computerName;
  std::function<int(platform::VolumeTree& volume, const std::string& from, const std::string& to)> renameFolder;
  std::function<bool(platform::VolumeTree& volume, const std::string& relative)> moveToTrash;
  std::function<bool(const platform::VolumeTree& volume, std::string* why)> isWritable;
  std::function<std::optional<uint64_t>(const platform::VolumeTree& volume)> freeBytes;

  static QSVessaConversionEnvironment system();

  // The default parts, for environments that replace only some.
  static int renameFolderOnVolume(platform::VolumeTree& volume, const std::string& from, const std::string& to);
  static bool moveToTrashOnVolume(platform::VolumeTree& volume, const std::string& relative);
  // Removes below `relative` only what a conversion may remove, bottom-up;
  // answers whether nothing is left at the path.
  static bool removeConversionLeftovers(platform::VolumeTree& volume, const std::string& relative);
};
