#include "Engine/conversion/QSVessaConversionEnvironment.h"

#include "Engine/conversion/QSVessaConversionStrings.h"
#include "platform/Log.h"
#include "platform/Process.h"
#include "platform/Trash.h"
#include "platform/VolumeTree.h"

namespace {

// Removes the leftovers inside `folder`'s entry `name` (a folder) and the
// entry itself when that empties it; answers whether the entry is gone.
bool removeLeftoversOf(platform::VolumeFolder& parent, const std::string& name) {
  platform::FileAttributes attributes;
  if (!parent.attributesOf(name, &attributes)) return true;
  if (!attributes.isDirectory()) return IsVessaConversionLeftover(name) && parent.removeEntry(name);
  auto folder = parent.openChild(name);
  if (!folder) return false;
  const auto entries = folder->entries();
  if (!entries) return false;
  bool emptied = true;
  for (const std::string& entry : *entries) emptied = removeLeftoversOf(*folder, entry) && emptied;
  folder.reset();
  return emptied && parent.removeEntry(name);
}

}  // namespace

QSVessaConversionEnvironment QSVessaConversionEnvironment::system() {
  QSVessaConversionEnvironment environment;
  environment.computerName = platform::Process::machineName();
  environment.renameFolder = renameFolderOnVolume;
  environment.moveToTrash = moveToTrashOnVolume;
  environment.isWritable = [](const platform::VolumeTree& volume, std::string* why) { return volume.isWritable(why); };
  environment.freeBytes = [](const platform::VolumeTree& volume) { return volume.freeBytes(); };
  return environment;
}

int QSVessaConversionEnvironment::renameFolderOnVolume(platform::VolumeTree& volume, const std::string& from,
                                                          const std::string& to) {
  const int result = volume.rename(from, to, false);
  if (result != 0) return result;
  // The new name is the state: it must reach the disk before work goes on under it.
  const auto parentOf = [](const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
  };
  if (auto folder = volume.openFolder(parentOf(to))) folder->synchronize();
  if (parentOf(from) != parentOf(to))
    if (auto folder = volume.openFolder(parentOf(from))) folder->synchronize();
  return 0;
}

bool QSVessaConversionEnvironment::moveToTrashOnVolume(platform::VolumeTree& volume, const std::string& relative) {
  platform::FileAttributes attributes;
  if (!volume.attributesAt(relative, &attributes)) return true;
  std::string why;
  if (volume.moveToTrash(relative, &why)) return true;
  std::string gioWhy;
  const std::string path = volume.rootPath() + "/" + relative;
  if (platform::Trash::moveToTrash(path, &gioWhy)) return true;
  platform::Log::format("Unable to move %s to the trash (%s; %s); removing only the conversion's own files",
                        path.c_str(), why.c_str(), gioWhy.c_str());
  return removeConversionLeftovers(volume, relative);
}

bool QSVessaConversionEnvironment::removeConversionLeftovers(platform::VolumeTree& volume,
                                                             const std::string& relative) {
  const auto slash = relative.rfind('/');
  const std::string folder = slash == std::string::npos ? std::string() : relative.substr(0, slash);
  const std::string name = slash == std::string::npos ? relative : relative.substr(slash + 1);
  auto parent = volume.openFolder(folder);
  return parent && removeLeftoversOf(*parent, name);
}
