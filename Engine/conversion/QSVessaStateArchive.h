// The state file of a conversion (".vessaToQSConversionStateInfo"): the
// examined computers with everything below them, as a property list that
// describes itself (written as XML, read in either format; XML keeps dates
// to the whole second, as the older product's lists have them):
//
//   { "$archiver": "QSVessaConversion", "$version": 1,
//     "root": [ <VessaComputerBackup archive>, ... ] }
//
// where every object is a dictionary with "$class" and the keys of its
// fields (see QSVessaArchiving.h and each Vessa class).  Reading is strict:
// anything else, or any object that does not decode, reads as nothing.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Engine/conversion/VessaComputerBackup.h"

class QSVessaStateArchive {
 public:
  static constexpr const char* kArchiverKey = "$archiver";
  static constexpr const char* kArchiverName = "QSVessaConversion";
  static constexpr const char* kVersionKey = "$version";
  static constexpr int64_t kVersion = 1;
  static constexpr const char* kRootKey = "root";

  using Computers = std::vector<std::shared_ptr<VessaComputerBackup>>;

  // The bytes of the state file; nothing only if serialising fails.
  static std::optional<std::string> archivedDataWithRootObject(const Computers& computers);
  // The computers of a state file's bytes, or nothing.
  static std::optional<Computers> unarchiveObjectWithData(const std::string& bytes);
};
