// The conversion's state file on arbitrary bytes: reading it must never
// crash, hang or leak; whatever reads must write again and read back the
// same; and no path it yields may lead out of the legacy folder.  The
// time-stamp rule of legacy file names is fed the same bytes as a name.
#include <cstddef>
#include <cstdint>
#include <string>

#include "Engine/conversion/QSVessaArchiving.h"
#include "Engine/conversion/QSVessaConversionStrings.h"
#include "Engine/conversion/QSVessaStateArchive.h"
#include "platform/DateFormatter.h"
#include "platform/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  static const auto formatter = platform::DateFormatter::withPattern(sVessaTimeStampFormatterString);
  std::optional<platform::Date> date;
  const std::string plain = SeparateVessaVersionInfoFromFileName(bytes, *formatter, &date);
  if (plain.size() > bytes.size()) __builtin_trap();
  if (!date && plain != bytes) __builtin_trap();

  const auto computers = QSVessaStateArchive::unarchiveObjectWithData(bytes);
  if (!computers) return 0;
  for (const auto& computer : *computers) {
    if (!vessa_archive::isEntryName(computer->computerName())) __builtin_trap();
    for (const auto& user : computer->backedUpUsers()) {
      if (!vessa_archive::isRelativePath(user->relativePathToUserBackup())) __builtin_trap();
      for (const auto& category : user->backedUpCategories())
        if (!vessa_archive::isRelativePath(category->relativePathToCategoryBackup())) __builtin_trap();
    }
  }
  const auto again = QSVessaStateArchive::archivedDataWithRootObject(*computers);
  if (!again) __builtin_trap();
  const auto back = QSVessaStateArchive::unarchiveObjectWithData(*again);
  if (!back || back->size() != computers->size()) __builtin_trap();
  if (platform::PropertyList::fromBytes(*QSVessaStateArchive::archivedDataWithRootObject(*back)) !=
      platform::PropertyList::fromBytes(*again))
    __builtin_trap();
  return 0;
}
