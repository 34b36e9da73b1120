#include "Engine/records/QSTally.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "Engine/records/QSCategoryIdentifiers.h"
#include "Engine/records/QSMutableTally.h"

namespace {

void encodeMap(QSEncoder& coder, const QSTally::Map& map) {
  const auto contents = map.snapshot();
  coder.beginDictionary(contents.size());
  for (const auto& [category, counters] : contents) {
    coder.encodeString(category);
    coder.beginArray(counters.size());
    for (const auto& counter : counters) {
      if (counter)
        coder.encodeObject(QSAtomicInteger::kClassName, *counter);
      else
        coder.encodeObject(QSAtomicInteger::kClassName, QSAtomicInteger(0));
    }
    coder.endArray();
  }
  coder.endDictionary();
}

std::shared_ptr<QSTally::Map> decodeMap(QSDecoder& coder) {
  auto map = std::make_shared<QSTally::Map>();
  const size_t count = coder.beginDictionary();
  for (size_t i = 0; i < count; ++i) {
    std::string category = coder.decodeString();
    QSTally::Counters counters;
    const size_t n = coder.beginArray();
    for (size_t j = 0; j < n; ++j) counters.push_back(coder.decodeObject<QSAtomicInteger>(QSAtomicInteger::kClassName));
    coder.endArray();
    map->threadSafeSetObject_forKey(std::move(counters), category);
  }
  coder.endDictionary();
  return map;
}

// Right-aligns `text` in `width` by prefixing spaces; the width is never
// smaller than the text here.
std::string filledString(const std::string& text, size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

std::string unsignedText(int64_t v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%llu", static_cast<unsigned long long>(v));
  return buf;
}

const char* rowLabel(const std::string& category) {
  if (category == kPicturesCategoryIdentifier) return "  Pictures:";
  if (category == kMusicCategoryIdentifier) return "     Music:";
  if (category == kMoviesCategoryIdentifier) return "    Movies:";
  if (category == kEmailCategoryIdentifier) return "      Mail:";
  if (category == kDocumentsCategoryIdentifier) return " Documents:";
  return "     Other:";
}

}  // namespace

QSTally::QSTally()
    : srcMap_(std::make_shared<Map>()),
      dstMap_(std::make_shared<Map>()),
      transferMap_(std::make_shared<Map>()),
      expectedMap_(std::make_shared<Map>()) {}

std::shared_ptr<QSTally> QSTally::initWithTally(const std::shared_ptr<const QSTally>& other) {
  auto tally = std::make_shared<QSTally>();
  if (other) tally->shareCountersOf(*other);
  return tally;
}

void QSTally::shareCountersOf(const QSTally& other) {
  std::shared_ptr<Map> src, dst, transfer, expected;
  other.getSourceMap_destinationMap_transferMap_expectedMap(&src, &dst, &transfer, &expected);
  srcMap_ = std::make_shared<Map>(*src);
  dstMap_ = std::make_shared<Map>(*dst);
  transferMap_ = std::make_shared<Map>(*transfer);
  expectedMap_ = std::make_shared<Map>(*expected);
}

void QSTally::copyCountersOf(const QSTally& other) {
  srcMap_ = deepCopy(*other.srcMap_);
  dstMap_ = deepCopy(*other.dstMap_);
  transferMap_ = deepCopy(*other.transferMap_);
  expectedMap_ = deepCopy(*other.expectedMap_);
}

std::shared_ptr<QSTally> QSTally::initWithCoder(QSDecoder& coder) {
  auto tally = std::make_shared<QSTally>();
  tally->srcMap_ = decodeMap(coder);
  tally->dstMap_ = decodeMap(coder);
  tally->transferMap_ = decodeMap(coder);
  tally->expectedMap_ = decodeMap(coder);
  return tally;
}

void QSTally::encodeWithCoder(QSEncoder& coder) const {
  encodeMap(coder, *srcMap_);
  encodeMap(coder, *dstMap_);
  encodeMap(coder, *transferMap_);
  encodeMap(coder, *expectedMap_);
}

QSPortReplacement QSTally::replacementObjectForPortCoder(const QSEncoder& coder) {
  return coder.isByref() ? QSPortReplacement::ByReference : QSPortReplacement::ByCopy;
}

std::shared_ptr<QSTally::Map> QSTally::deepCopy(const Map& map) {
  auto out = std::make_shared<Map>();
  for (const auto& [category, counters] : map.snapshot()) {
    Counters copies;
    for (const auto& counter : counters) copies.push_back(counter ? counter->mutableCopy() : nullptr);
    out->threadSafeSetObject_forKey(std::move(copies), category);
  }
  return out;
}

std::shared_ptr<QSTally> QSTally::copy() const {
  auto tally = std::make_shared<QSTally>();
  tally->copyCountersOf(*this);
  return tally;
}

std::shared_ptr<QSMutableTally> QSTally::mutableCopy() const {
  auto tally = std::make_shared<QSMutableTally>();
  tally->copyCountersOf(*this);
  return tally;
}

void QSTally::getSourceMap_destinationMap_transferMap_expectedMap(std::shared_ptr<Map>* source,
                                                                  std::shared_ptr<Map>* destination,
                                                                  std::shared_ptr<Map>* transfer,
                                                                  std::shared_ptr<Map>* expected) const {
  if (source) *source = srcMap_;
  if (destination) *destination = dstMap_;
  if (transfer) *transfer = transferMap_;
  if (expected) *expected = expectedMap_;
}

void QSTally::counts(const Map& map, const std::string& category, int64_t* files, int64_t* bytes) {
  int64_t f = 0, b = 0;
  if (auto counters = map.threadSafeObjectForKey(category)) {
    if (counters->size() >= 2 && (*counters)[0] && (*counters)[1]) {
      f = (*counters)[0]->value();
      b = (*counters)[1]->value();
    }
  }
  if (files) *files = f;
  if (bytes) *bytes = b;
}

void QSTally::getSourceFileCount_byteCount_forCategory(int64_t* files, int64_t* bytes,
                                                       const std::string& category) const {
  counts(*srcMap_, category, files, bytes);
}
void QSTally::getDestinationFileCount_byteCount_forCategory(int64_t* files, int64_t* bytes,
                                                            const std::string& category) const {
  counts(*dstMap_, category, files, bytes);
}
void QSTally::getTransferredFileCount_byteCount_forCategory(int64_t* files, int64_t* bytes,
                                                            const std::string& category) const {
  counts(*transferMap_, category, files, bytes);
}
void QSTally::getExpectedFileCount_byteCount_forCategory(int64_t* files, int64_t* bytes,
                                                         const std::string& category) const {
  counts(*expectedMap_, category, files, bytes);
}

namespace {
void counters(const QSTally::Map& map, const std::string& category, std::shared_ptr<QSAtomicInteger>* files,
              std::shared_ptr<QSAtomicInteger>* bytes) {
  std::shared_ptr<QSAtomicInteger> f, b;
  if (auto pair = map.threadSafeObjectForKey(category)) {
    if (pair->size() >= 1) f = (*pair)[0];
    if (pair->size() >= 2) b = (*pair)[1];
  }
  if (files) *files = f;
  if (bytes) *bytes = b;
}
}  // namespace

void QSTally::getSourceFileCounter_byteCounter_forCategory(std::shared_ptr<QSAtomicInteger>* files,
                                                           std::shared_ptr<QSAtomicInteger>* bytes,
                                                           const std::string& category) const {
  counters(*srcMap_, category, files, bytes);
}

void QSTally::getDestinationFileCounter_byteCounter_forCategory(std::shared_ptr<QSAtomicInteger>* files,
                                                                std::shared_ptr<QSAtomicInteger>* bytes,
                                                                const std::string& category) const {
  counters(*dstMap_, category, files, bytes);
}

void QSTally::total(const Map& map, const Map& keys, int64_t* files, int64_t* bytes) {
  int64_t f = 0, b = 0;
  for (const std::string& category : keys.allKeys()) {
    int64_t cf = 0, cb = 0;
    counts(map, category, &cf, &cb);
    f += cf;
    b += cb;
  }
  if (files) *files = f;
  if (bytes) *bytes = b;
}

void QSTally::getTotalSourceFileCount_byteCount(int64_t* files, int64_t* bytes) const {
  total(*srcMap_, *srcMap_, files, bytes);
}
void QSTally::getTotalDestinationFileCount_byteCount(int64_t* files, int64_t* bytes) const {
  total(*dstMap_, *dstMap_, files, bytes);
}
void QSTally::getTotalTransferredFileCount_byteCount(int64_t* files, int64_t* bytes) const {
  total(*transferMap_, *dstMap_, files, bytes);
}
void QSTally::getTotalExpectedFileCount_byteCount(int64_t* files, int64_t* bytes) const {
  total(*expectedMap_, *dstMap_, files, bytes);
}

// The table: one row per category of kAllCategories, the file and byte
// counts of each view.  File counts are right-aligned to the longest file
// count (F), byte counts to the longest byte count or the word "Source" (B).
// The fixed header words are not aligned to these widths.
std::string QSTally::description() const {
  const std::array<const Map*, 4> views = {srcMap_.get(), dstMap_.get(), transferMap_.get(), expectedMap_.get()};
  std::array<std::array<std::string, 8>, kAllCategories.size()> cells;
  size_t fileWidth = 0, byteWidth = std::string("Source").size();
  for (size_t row = 0; row < kAllCategories.size(); ++row) {
    for (size_t view = 0; view < views.size(); ++view) {
      int64_t files = 0, bytes = 0;
      counts(*views[view], kAllCategories[row], &files, &bytes);
      cells[row][view * 2] = unsignedText(files);
      cells[row][view * 2 + 1] = unsignedText(bytes);
      fileWidth = std::max(fileWidth, cells[row][view * 2].size());
      byteWidth = std::max(byteWidth, cells[row][view * 2 + 1].size());
    }
  }
  std::string out = "\n";
  out += "            " + std::string(fileWidth, ' ') + "  " + filledString("Source", byteWidth) +
         " | Destination        | Transferred        | Expected\n";
  for (size_t row = 0; row < kAllCategories.size(); ++row) {
    const auto& c = cells[row];
    out += std::string(rowLabel(kAllCategories[row])) + " " + filledString(c[0], fileWidth) + "  " +
           filledString(c[1], byteWidth) + " | " + filledString(c[2], fileWidth) + "  " + filledString(c[3], byteWidth) +
           " | " + filledString(c[4], fileWidth) + "  " + filledString(c[5], byteWidth) + " | " +
           filledString(c[6], fileWidth) + "  " + filledString(c[7], byteWidth) + "\n";
  }
  return out;
}
