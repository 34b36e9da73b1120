#include "tools/skerrowctl/HomeRelativePath.h"

#include <cstddef>
#include <utility>

namespace skerrowctl {
namespace {

void refuse(VersionError* error, std::string message) {
  if (error) *error = VersionError{VersionErrorKind::InvalidPath, std::move(message)};
}

// The components of `path` with "." and empty ones dropped and each ".."
// taking away the one before it.  False when a ".." has nothing left to take
// away, which for a path read below some folder means it leaves that folder.
bool normalize(const std::string& path, std::vector<std::string>* components) {
  components->clear();
  size_t start = 0;
  while (start <= path.size()) {
    size_t slash = path.find('/', start);
    if (slash == std::string::npos) slash = path.size();
    const std::string part = path.substr(start, slash - start);
    start = slash + 1;
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      if (components->empty()) return false;
      components->pop_back();
      continue;
    }
    components->push_back(part);
  }
  return true;
}

}  // namespace

HomeRelativePath::HomeRelativePath(std::vector<std::string> components) : components_(std::move(components)) {
  for (const std::string& c : components_) {
    if (!path_.empty()) path_ += '/';
    path_ += c;
  }
}

std::string HomeRelativePath::folder() const {
  const size_t slash = path_.find_last_of('/');
  return slash == std::string::npos ? std::string() : path_.substr(0, slash);
}

std::optional<HomeRelativePath> HomeRelativePath::resolve(const std::string& home, const std::string& typed,
                                                          VersionError* error) {
  if (typed.empty()) {
    refuse(error, "No path was given");
    return std::nullopt;
  }
  if (home.empty() || home.front() != '/') {
    refuse(error, "The home folder must be an absolute path: \"" + home + "\"");
    return std::nullopt;
  }
  std::vector<std::string> homeComponents;
  if (!normalize(home, &homeComponents)) {
    refuse(error, "The home folder path leads above the root folder: \"" + home + "\"");
    return std::nullopt;
  }

  std::vector<std::string> relative;
  if (typed.front() == '/') {
    std::vector<std::string> components;
    bool inside = normalize(typed, &components) && components.size() >= homeComponents.size();
    for (size_t i = 0; inside && i < homeComponents.size(); ++i) inside = components[i] == homeComponents[i];
    if (!inside) {
      refuse(error, "\"" + typed + "\" is not inside the home folder " + home);
      return std::nullopt;
    }
    relative.assign(components.begin() + static_cast<std::ptrdiff_t>(homeComponents.size()), components.end());
  } else if (!normalize(typed, &relative)) {
    refuse(error, "\"" + typed + "\" leads outside the home folder " + home);
    return std::nullopt;
  }
  if (relative.empty()) {
    refuse(error, "\"" + typed + "\" is the home folder itself, not a file in it");
    return std::nullopt;
  }
  if (error) *error = VersionError{};
  return HomeRelativePath(std::move(relative));
}

}  // namespace skerrowctl
