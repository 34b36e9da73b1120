// A tally that the pipeline fills while it walks and copies.
#pragma once

#include "Engine/records/QSTally.h"

class QSMutableTally : public QSTally {
 public:
  QSMutableTally() = default;

  static std::shared_ptr<QSMutableTally> init() { return std::make_shared<QSMutableTally>(); }
  static std::shared_ptr<QSMutableTally> initWithTally(const std::shared_ptr<const QSTally>& other);

  // Adds `bytes` and `files` to a category of one view, creating its
  // counters at zero on first use.
  void increaseBytesBy_filesBy_forSourceCategory(int64_t bytes, int64_t files, const std::string& category);
  void increaseBytesBy_filesBy_forDestinationCategory(int64_t bytes, int64_t files, const std::string& category);
  void increaseBytesBy_filesBy_forTransferredCategory(int64_t bytes, int64_t files, const std::string& category);
  void increaseBytesBy_filesBy_forExpectedCategory(int64_t bytes, int64_t files, const std::string& category);

  // One file of `size` bytes.
  void tallyFileOfSize_forSourceCategory(int64_t size, const std::string& category);
  void tallyFileOfSize_forDestinationCategory(int64_t size, const std::string& category);

  // Empties all four maps.
  void clear();

 private:
  friend class QSTally;
  static void increase(Map& map, const std::string& category, int64_t bytes, int64_t files);
};
