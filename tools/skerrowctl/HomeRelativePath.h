// A file of a user's home folder named by its path below the home
// ("Documents/report.txt"), which is also its folder's path below the
// backup folder: a backup mirrors the home folder by relative path.
//
// Paths are resolved as text: "." and empty components are dropped and
// ".." removes the component before it; no symbolic link is looked at, on
// either side.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/skerrowctl/VersionError.h"

namespace skerrowctl {

class HomeRelativePath {
 public:
  // Resolves what the user typed: an absolute path inside `home`, or a
  // path relative to `home`.  `home` must be absolute.  Refused, with an
  // InvalidPath error and nothing answered: an empty path, an absolute path
  // outside the home folder ("/home/annex/a" is outside "/home/ann"), a
  // path whose ".." components lead above the home folder (even if later
  // components come back into it), and a path that names the home folder
  // itself.  A ".." that stays inside ("Documents/../Pictures/a.jpg") is
  // accepted.
  static std::optional<HomeRelativePath> resolve(const std::string& home, const std::string& typed,
                                                 VersionError* error = nullptr);

  // The components joined with "/": "Documents/report.txt".  Never empty.
  const std::string& path() const { return path_; }
  // The folder part ("Documents"); "" for a file directly in the home folder.
  std::string folder() const;
  // The last component: "report.txt".
  const std::string& fileName() const { return components_.back(); }
  const std::vector<std::string>& components() const { return components_; }

 private:
  explicit HomeRelativePath(std::vector<std::string> components);

  std::vector<std::string> components_;
  std::string path_;
};

}  // namespace skerrowctl
