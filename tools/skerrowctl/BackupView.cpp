#include "tools/skerrowctl/BackupView.h"

#include <algorithm>
#include <sys/stat.h>

#include "platform/Path.h"

namespace skerrowctl {

namespace {

std::string parentOf(const std::string& path) { return platform::deletingLastPathComponent(path); }

}  // namespace

BackupView BackupView::build(const BackupTreeListing& listing, std::optional<platform::Date> at) {
  BackupView view;
  Node& root = view.nodes_[""];
  root.folder = true;
  root.mode = 0700;
  for (const auto& folder : listing.folders) {
    Node& node = view.nodes_[folder.path];
    node.folder = true;
    node.mode = folder.mode & 07777;
    if (node.mode == 0) node.mode = 0700;
    node.modificationTime = folder.modificationTime;
    node.accessTime = folder.modificationTime;
  }
  for (const auto& file : listing.files) {
    const StoredVersion* v = versionAt(file.versions, at);
    if (!v) continue;
    Node& node = view.nodes_[file.path];
    node.link = v->isSymbolicLink;
    node.mode = v->mode & 07777;
    node.uid = v->uid;
    node.gid = v->gid;
    node.size = v->size;
    node.modificationTime = v->modificationTime;
    node.accessTime = v->accessTime;
    const std::string folder = parentOf(file.path);
    node.stored = folder.empty() ? v->fileName : folder + "/" + v->fileName;
    ++view.files_;
  }
  // Owners of folders: those of the root folder's files, or of the first file found.
  for (auto& [path, node] : view.nodes_) {
    if (path.empty()) continue;
    const std::string parent = parentOf(path);
    auto it = view.nodes_.find(parent);
    if (it == view.nodes_.end()) {
      // A file whose folder the listing did not name: make the folder.
      Node folder;
      folder.folder = true;
      folder.mode = 0700;
      it = view.nodes_.emplace(parent, folder).first;
    }
    it->second.children.push_back(platform::lastPathComponent(path));
  }
  uint32_t uid = 0, gid = 0;
  for (const auto& [path, node] : view.nodes_)
    if (!node.folder) {
      uid = node.uid;
      gid = node.gid;
      break;
    }
  for (auto& [path, node] : view.nodes_) {
    if (!node.folder) continue;
    std::sort(node.children.begin(), node.children.end());
    node.children.erase(std::unique(node.children.begin(), node.children.end()), node.children.end());
    node.uid = uid;
    node.gid = gid;
  }
  return view;
}

const BackupView::Node* BackupView::find(const std::string& path) const {
  std::string key = path;
  while (!key.empty() && key.front() == '/') key.erase(0, 1);
  while (!key.empty() && key.back() == '/') key.pop_back();
  const auto it = nodes_.find(key);
  return it == nodes_.end() ? nullptr : &it->second;
}

}  // namespace skerrowctl
