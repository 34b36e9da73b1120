// Whether a volume can take a conversion before anything on it is renamed:
// it must be writable and have room for what the conversion writes (the new
// backups' folders and information lists, the state file, written twice and
// each time beside its temporary copy, the folders of the target tree, the
// record of new backups).  Renamed files need no room.
#include <string>

#include "Engine/conversion/QSVessaConversion.h"

namespace {

// What the legacy tree of one computer holds.
struct LegacyCounts {
  uint64_t users = 0;
  uint64_t folders = 0;
  uint64_t files = 0;
  uint64_t nameBytes = 0;
};

void count(platform::VolumeFolder& folder, LegacyCounts* counts, unsigned depth) {
  const auto entries = folder.entriesWithTypes();
  if (!entries) return;
  for (const auto& entry : *entries) {
    counts->nameBytes += entry.name.size();
    if (folder.typeOf(entry) != platform::VolumeFolder::Entry::Type::Directory) {
      ++counts->files;
      continue;
    }
    ++counts->folders;
    if (depth >= 256) continue;
    if (auto child = folder.openChild(entry.name)) count(*child, counts, depth + 1);
  }
}

// An information list with six managed categories and long names, as written.
constexpr uint64_t kInformationListBytes = 4096;
// The state file holds, per file, version and folder, its names and dates.
constexpr uint64_t kStateBytesPerItem = 256;

uint64_t blocks(uint64_t bytes, uint64_t blockSize) { return (bytes + blockSize - 1) / blockSize; }

}  // namespace

bool QSVessaConversion::volumeAllowsConversion(int32_t foundState, std::string* why) {
  if (!environment_.isWritable(*volume_, why)) return false;
  LegacyCounts counts;
  if (auto computer = volume_->openFolder(folderNameForState(foundState) + "/" + environment_.computerName)) {
    if (const auto users = computer->entries())
      for (const std::string& user : *users)
        if (auto folder = computer->openChild(user)) {
          ++counts.users;
          count(*folder, &counts, 0);
        }
  }
  const uint64_t block = volume_->blockSize();
  const uint64_t stateFile = kStateBytesPerItem * (counts.files + counts.folders + counts.users) + counts.nameBytes * 2;
  const uint64_t needed =
      block * (counts.users * (1 + blocks(kInformationListBytes, block)) + counts.folders + 2) +
      2 * block * blocks(stateFile, block);
  const auto free = environment_.freeBytes(*volume_);
  if (free && *free < needed) {
    *why = "the volume has " + std::to_string(*free) + " bytes free and the conversion needs " + std::to_string(needed) +
           " for the new backups' information lists, its state and the new folders";
    return false;
  }
  return true;
}
