// Files and bytes per backup category in four views of one backup: source,
// destination, transferred and expected.
//
// Each view is a map from category identifier to a pair of counters
// [files, bytes]; a category appears in a map only after its first increase,
// and a missing category reads as zero files and zero bytes.  Counters are
// safe to read from any thread while the pipeline increases them; maps are
// changed only through their thread-safe accessors.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Engine/records/QSAtomicInteger.h"
#include "Engine/records/QSCategoryEntry.h"
#include "Engine/records/QSCoder.h"
#include "platform/ThreadSafeDictionary.h"

class QSMutableTally;

class QSTally {
 public:
  // [files, bytes].
  using Counters = std::vector<std::shared_ptr<QSAtomicInteger>>;
  using Map = platform::ThreadSafeDictionary<std::string, Counters>;
  static constexpr const char* kClassName = "QSTally";

  // Four new empty maps.
  QSTally();
  virtual ~QSTally() = default;
  QSTally(const QSTally&) = delete;
  QSTally& operator=(const QSTally&) = delete;

  static std::shared_ptr<QSTally> init() { return std::make_shared<QSTally>(); }
  // With nothing, as init; with a tally, copies of its four maps that share
  // its counters, so increases through either tally are seen by both.
  static std::shared_ptr<QSTally> initWithTally(const std::shared_ptr<const QSTally>& other);
  // Port coding: the four maps in the order source, destination, transferred, expected.
  static std::shared_ptr<QSTally> initWithCoder(QSDecoder& coder);
  void encodeWithCoder(QSEncoder& coder) const;
  static QSPortReplacement replacementObjectForPortCoder(const QSEncoder& coder);

  // Deep copies: the copy shares no counter with this tally.
  std::shared_ptr<QSTally> copy() const;
  std::shared_ptr<QSMutableTally> mutableCopy() const;

  const std::shared_ptr<Map>& srcMap() const { return srcMap_; }
  const std::shared_ptr<Map>& dstMap() const { return dstMap_; }
  const std::shared_ptr<Map>& transferMap() const { return transferMap_; }
  const std::shared_ptr<Map>& expectedMap() const { return expectedMap_; }
  void getSourceMap_destinationMap_transferMap_expectedMap(std::shared_ptr<Map>* source,
                                                           std::shared_ptr<Map>* destination,
                                                           std::shared_ptr<Map>* transfer,
                                                           std::shared_ptr<Map>* expected) const;

  void getSourceFileCount_byteCount_forCategory(int64_t* files, int64_t* bytes, const std::string& category) const;
  void getDestinationFileCount_byteCount_forCategory(int64_t* files, int64_t* bytes,
                                                     const std::string& category) const;
  void getTransferredFileCount_byteCount_forCategory(int64_t* files, int64_t* bytes,
                                                     const std::string& category) const;
  void getExpectedFileCount_byteCount_forCategory(int64_t* files, int64_t* bytes, const std::string& category) const;

  // The counter objects themselves, or nullptr.
  void getSourceFileCounter_byteCounter_forCategory(std::shared_ptr<QSAtomicInteger>* files,
                                                    std::shared_ptr<QSAtomicInteger>* bytes,
                                                    const std::string& category) const;
  void getDestinationFileCounter_byteCounter_forCategory(std::shared_ptr<QSAtomicInteger>* files,
                                                         std::shared_ptr<QSAtomicInteger>* bytes,
                                                         const std::string& category) const;

  // Totals.  The source total sums the categories of the source map; the
  // destination, transferred and expected totals sum the categories of the
  // destination map (a category with transferred or expected counts but no
  // destination entry is left out on purpose).
  void getTotalSourceFileCount_byteCount(int64_t* files, int64_t* bytes) const;
  void getTotalDestinationFileCount_byteCount(int64_t* files, int64_t* bytes) const;
  void getTotalTransferredFileCount_byteCount(int64_t* files, int64_t* bytes) const;
  void getTotalExpectedFileCount_byteCount(int64_t* files, int64_t* bytes) const;

  // The text table of the four views (see QSTally.cpp).
  std::string description() const;

 protected:
  static void counts(const Map& map, const std::string& category, int64_t* files, int64_t* bytes);
  static void total(const Map& map, const Map& keys, int64_t* files, int64_t* bytes);
  static std::shared_ptr<Map> deepCopy(const Map& map);
  // New maps holding the other tally's counters (shared).
  void shareCountersOf(const QSTally& other);
  // New maps holding copies of the other tally's counters.
  void copyCountersOf(const QSTally& other);

  std::shared_ptr<Map> srcMap_;
  std::shared_ptr<Map> dstMap_;
  std::shared_ptr<Map> transferMap_;
  std::shared_ptr<Map> expectedMap_;
};
