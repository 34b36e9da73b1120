#include "Engine/files/QSDestinationTraits.h"

#include <cmath>

#include "platform/FileManager.h"

QSDestinationTraits QSDestinationTraits::probe(const std::string& folder) {
  QSDestinationTraits traits;
  if (const auto volume = platform::FileManager::probeVolumeTraits(folder)) {
    traits.timeGranularity =
        volume->timeGranularityNanoseconds <= 1 ? 0 : static_cast<double>(volume->timeGranularityNanoseconds) * 1e-9;
    traits.keepsCreationDate = volume->keepsUserAttributes;
  }
  return traits;
}

bool QSIsUnchangedCopy(const QSFSFileAttributes& source, const QSFSFileAttributes& stored,
                       const QSDestinationTraits& traits) {
  if (source.size != stored.size) return false;
  const bool sameModification = traits.timeGranularity > 0
                                    ? std::fabs(source.modificationDate - stored.modificationDate) < traits.timeGranularity
                                    : source.modificationDate == stored.modificationDate;
  if (!sameModification) return false;
  // A symbolic link cannot carry the creation-date attribute, so a stored
  // link's creation date is its own: it does not take part.
  if (!source.fileTypeIsARegularFile) return true;
  // A copy without the creation-date attribute (converted from an older
  // backup) cannot say its source's creation date: it counts as equal.
  return !traits.keepsCreationDate || !stored.creationDateKnown || source.creationDate == stored.creationDate;
}
