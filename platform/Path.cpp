#include "platform/Path.h"

namespace platform {

std::string appendingPathComponent(std::string_view folder, std::string_view name) {
  if (folder.empty()) return std::string(name);
  while (!name.empty() && name.front() == '/') name.remove_prefix(1);
  while (folder.size() > 1 && folder.back() == '/') folder.remove_suffix(1);
  if (name.empty()) return std::string(folder);
  std::string out;
  out.reserve(folder.size() + 1 + name.size());
  out.append(folder);
  if (out.back() != '/') out.push_back('/');
  out.append(name);
  return out;
}

namespace {

std::string_view withoutTrailingSlashes(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}

}  // namespace

std::string lastPathComponent(std::string_view path) { return std::string(lastPathComponentView(path)); }

std::string_view lastPathComponentView(std::string_view path) {
  path = withoutTrailingSlashes(path);
  if (path == "/") return "/";
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string deletingLastPathComponent(std::string_view path) {
  path = withoutTrailingSlashes(path);
  const size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return "";
  if (slash == 0) return path.size() > 1 ? "/" : "";
  return std::string(withoutTrailingSlashes(path.substr(0, slash)));
}

bool isAtOrBelow(std::string_view path, std::string_view folder) {
  if (folder.empty() || path.substr(0, folder.size()) != folder) return false;
  return path.size() == folder.size() || folder.back() == '/' || path[folder.size()] == '/';
}

}  // namespace platform
