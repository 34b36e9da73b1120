#include "Engine/pipeline/QSSettledPass.h"

namespace {

// Calls `add(category, bytes, files)` for every category of `map`, present
// even at zero, so that the copy has the same categories as the original.
template <class Add>
void forEachCategory(const std::shared_ptr<QSTally::Map>& map, Add add) {
  if (!map) return;
  for (const auto& [category, counters] : map->snapshot()) {
    if (counters.size() < 2 || !counters[0] || !counters[1]) continue;
    add(category, counters[1]->value(), counters[0]->value());
  }
}

}  // namespace

void QSSettledPass::addSourceCountsTo(QSMutableTally& into) const {
  if (!tally) return;
  forEachCategory(tally->srcMap(), [&](const std::string& category, int64_t bytes, int64_t files) {
    into.increaseBytesBy_filesBy_forSourceCategory(bytes, files, category);
  });
}

void QSSettledPass::addDestinationCountsTo(QSMutableTally& into) const {
  if (!tally) return;
  forEachCategory(tally->dstMap(), [&](const std::string& category, int64_t bytes, int64_t files) {
    into.increaseBytesBy_filesBy_forDestinationCategory(bytes, files, category);
  });
  forEachCategory(tally->expectedMap(), [&](const std::string& category, int64_t bytes, int64_t files) {
    into.increaseBytesBy_filesBy_forExpectedCategory(bytes, files, category);
  });
}
