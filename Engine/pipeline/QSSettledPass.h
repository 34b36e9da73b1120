// A backup pass that found nothing to do: what it counted, what it was
// counted with, and where the change journal stood when its two walks
// began.  As long as nothing changed in the home folder nor in the backup
// folder since those marks, and the settings are the same, a pass of the
// same backup would read the same items, build the same trees, find
// nothing to do again and count the same: QSSettledPasses lets it take
// these counts instead of walking.
//
// A plain value, never changed once kept; any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "Engine/records/QSMutableTally.h"

struct QSSettledPass {
  // What decides what a pass reads and counts, besides the two folders.
  struct Settings {
    std::optional<std::string> exclusionExpression;  // the home's exclusion filter, none without
    std::optional<std::set<std::string>> categories;  // the backup's categories (the token's context)
    uint32_t versionDepth = 0;
    bool operator==(const Settings&) const = default;
  };

  std::string home;
  std::string destination;
  uint64_t homeMark = 0;         // the journal's clock before the home walk read anything
  uint64_t destinationMark = 0;  // the same for the backup-folder walk
  uint64_t device = 0;           // the backup folder itself
  uint64_t inode = 0;
  Settings settings;
  // A deep copy of the pass's tally once its dry run had ended: source,
  // destination and expected counts (no copy was made, so nothing was transferred).
  std::shared_ptr<const QSTally> tally;

  // Adds the source counts to `tally`, as the home walk does.
  void addSourceCountsTo(QSMutableTally& tally) const;
  // Adds the destination and expected counts to `tally`, as the backup-folder
  // walk and the dry run do.
  void addDestinationCountsTo(QSMutableTally& tally) const;
};
