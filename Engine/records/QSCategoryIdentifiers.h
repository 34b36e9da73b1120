// The six backup categories.  Every walk over all categories uses the order
// of kAllCategories.  The constants are constant-initialised, so they are
// usable from any static initialiser.
#pragma once

#include <array>

inline constexpr const char* kPicturesCategoryIdentifier = "Pictures";
inline constexpr const char* kMusicCategoryIdentifier = "Music";
inline constexpr const char* kMoviesCategoryIdentifier = "Movies";
inline constexpr const char* kEmailCategoryIdentifier = "Mail";
inline constexpr const char* kDocumentsCategoryIdentifier = "Documents";
inline constexpr const char* kOtherCategoryIdentifier = "Other";

// Pictures, Music, Movies, Mail, Documents, Other.
inline constexpr std::array<const char*, 6> kAllCategories = {
    kPicturesCategoryIdentifier, kMusicCategoryIdentifier,     kMoviesCategoryIdentifier,
    kEmailCategoryIdentifier,    kDocumentsCategoryIdentifier, kOtherCategoryIdentifier,
};
