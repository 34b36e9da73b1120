#include "Engine/files/QSFSNodeStack.h"

#include "Engine/records/QSCategoryIdentifiers.h"
#include "platform/UnicodeText.h"

bool QSNameIs(std::string_view name, const char* literal) { return platform::equalIgnoringCase(name, literal); }

std::set<std::string> QSCategoriesOfMask(QSCategoryMask mask) {
  std::set<std::string> out;
  for (size_t i = 0; i < kAllCategories.size(); ++i)
    if (mask & (1u << i)) out.insert(kAllCategories[i]);
  return out;
}

// The walk rule: the first folder below the starting folder decides
// (Pictures, Music, Movies, Documents); below "Library", "Mail" is Mail, a
// file directly in Library counts as Mail and Other, and the mail
// preferences file (in Library/Preferences or one folder below) is Mail;
// everything else is Other.
QSCategoryMask QSFSNodeStack::categoriesFor(size_t n, std::optional<std::string_view> f1,
                                            std::optional<std::string_view> f2,
                                            std::optional<std::string_view> fileName) {
  QSCategoryMask mask = 0;
  if (n > 1 && f1) {
    if (QSNameIs(*f1, "Pictures"))
      mask = kQSPicturesMask;
    else if (QSNameIs(*f1, "Music"))
      mask = kQSMusicMask;
    else if (QSNameIs(*f1, "Movies"))
      mask = kQSMoviesMask;
    else if (QSNameIs(*f1, "Documents"))
      mask = kQSDocumentsMask;
    else if (QSNameIs(*f1, "Library")) {
      if (n == 2) {
        mask = kQSMailMask | kQSOtherMask;
      } else if (f2 && QSNameIs(*f2, "Mail")) {
        mask = kQSMailMask;
      } else if (f2 && QSNameIs(*f2, "Preferences") && (n == 3 || n == 4)) {
        if (!fileName)
          mask = kQSMailMask | kQSOtherMask;
        else if (QSNameIs(*fileName, "com.apple.mail.plist"))
          mask = kQSMailMask;
      }
    }
  }
  return mask ? mask : kQSOtherMask;
}

QSCategoryMask QSFSNodeStack::applicableCategoryMask(std::optional<std::string_view> fileName) const {
  const size_t n = stack_.size();
  // Below the starting folder a node's path is its own name: no copy is needed.
  std::optional<std::string_view> f1, f2;
  if (n > 1) f1 = stack_[1]->path();
  if (n > 2) f2 = stack_[2]->path();
  return categoriesFor(n, f1, f2, fileName);
}

std::set<std::string> QSFSNodeStack::applicableCategories(std::optional<std::string_view> fileName) const {
  return QSCategoriesOfMask(applicableCategoryMask(fileName));
}
