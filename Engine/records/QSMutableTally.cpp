#include "Engine/records/QSMutableTally.h"

std::shared_ptr<QSMutableTally> QSMutableTally::initWithTally(const std::shared_ptr<const QSTally>& other) {
  auto tally = std::make_shared<QSMutableTally>();
  if (other) tally->shareCountersOf(*other);
  return tally;
}

// Increase of one category of one map: the counters are created at zero on
// first use (inserted only if no other thread inserted them first), then the
// file and byte counters are each increased in one locked step.
void QSMutableTally::increase(Map& map, const std::string& category, int64_t bytes, int64_t files) {
  auto add = [&](const Counters& counters) {
    if (counters.size() < 2 || !counters[0] || !counters[1]) return false;
    counters[0]->addValue(files);
    counters[1]->addValue(bytes);
    return true;
  };
  bool added = false;
  if (map.withObjectForKey(category, [&](const Counters& counters) { added = add(counters); })) {
    if (added) return;
    // A damaged entry (from a decoded stream): replace it.
    map.threadSafeSetObject_forKey({QSAtomicInteger::initWithValue(0), QSAtomicInteger::initWithValue(0)}, category);
  }
  const Counters counters = map.threadSafeSetObjectIfAbsent_forKey(
      {QSAtomicInteger::initWithValue(0), QSAtomicInteger::initWithValue(0)}, category);
  add(counters);
}

void QSMutableTally::increaseBytesBy_filesBy_forSourceCategory(int64_t bytes, int64_t files,
                                                               const std::string& category) {
  increase(*srcMap_, category, bytes, files);
}
void QSMutableTally::increaseBytesBy_filesBy_forDestinationCategory(int64_t bytes, int64_t files,
                                                                    const std::string& category) {
  increase(*dstMap_, category, bytes, files);
}
void QSMutableTally::increaseBytesBy_filesBy_forTransferredCategory(int64_t bytes, int64_t files,
                                                                    const std::string& category) {
  increase(*transferMap_, category, bytes, files);
}
void QSMutableTally::increaseBytesBy_filesBy_forExpectedCategory(int64_t bytes, int64_t files,
                                                                 const std::string& category) {
  increase(*expectedMap_, category, bytes, files);
}

void QSMutableTally::tallyFileOfSize_forSourceCategory(int64_t size, const std::string& category) {
  increaseBytesBy_filesBy_forSourceCategory(size, 1, category);
}
void QSMutableTally::tallyFileOfSize_forDestinationCategory(int64_t size, const std::string& category) {
  increaseBytesBy_filesBy_forDestinationCategory(size, 1, category);
}

void QSMutableTally::clear() {
  srcMap_->removeAllObjects();
  dstMap_->removeAllObjects();
  transferMap_->removeAllObjects();
  expectedMap_->removeAllObjects();
}
