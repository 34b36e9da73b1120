#include "Engine/files/QSRecordedWalk.h"

#include <limits>

namespace {

// How walks build a path from a folder's and a name.
std::string join(const std::string& folder, const std::string& name) {
  if (!folder.empty() && folder.back() == '/') return folder + name;
  return folder + "/" + name;
}

}  // namespace

void QSRecordedWalk::startTraversalOfPath(const std::string& path) {
  if (started_) unplayable_ = true;  // one walk per recording
  started_ = true;
  top_ = path;
}

void QSRecordedWalk::finishTraversalOfPath(const std::string& path) {
  if (path != top_ || !open_.empty() || groupOpen_) unplayable_ = true;
  finished_ = true;
  open_.clear();
  open_.shrink_to_fit();
  openAttributes_.clear();
  openAttributes_.shrink_to_fit();
}

bool QSRecordedWalk::nameBelowOpenFolder(const std::string& path, std::string* name) const {
  if (open_.empty()) {
    // The top item itself, recorded by its full path.
    *name = path;
    return path == top_;
  }
  const std::string& folder = open_.back();
  const size_t skip = !folder.empty() && folder.back() == '/' ? folder.size() : folder.size() + 1;
  if (path.size() <= skip || path.compare(0, folder.size(), folder) != 0) return false;
  name->assign(path, skip);
  return join(folder, *name) == path;
}

void QSRecordedWalk::add(Kind kind, const std::string& name, uint32_t payload, uint32_t count) {
  if (groupOpen_) unplayable_ = true;  // only the group's own finish may follow its start
  if (names_.size() + name.size() > std::numeric_limits<uint32_t>::max() ||
      name.size() > std::numeric_limits<uint16_t>::max()) {
    unplayable_ = true;
    return;
  }
  steps_.push_back(
      Step{static_cast<uint32_t>(names_.size()), static_cast<uint16_t>(name.size()), kind, payload, count});
  names_ += name;
}

bool QSRecordedWalk::startVisitAtPath_attributes(const std::string& path, const platform::FileAttributes& attributes) {
  std::string name;
  if (!started_ || finished_ || !nameBelowOpenFolder(path, &name)) {
    unplayable_ = true;
    return false;
  }
  add(Kind::StartItem, name, static_cast<uint32_t>(attributes_.size()), 0);
  openAttributes_.push_back(static_cast<uint32_t>(attributes_.size()));
  attributes_.push_back(attributes);
  open_.push_back(path);
  return true;
}

void QSRecordedWalk::finishVisitAtPath_attributes(const std::string& path, const platform::FileAttributes& attributes) {
  if (open_.empty() || open_.back() != path) {
    unplayable_ = true;
    return;
  }
  open_.pop_back();
  const uint32_t started = openAttributes_.back();
  openAttributes_.pop_back();
  // A walk finishes an item with the attributes it started it with: they are kept once.
  if (attributes_[started] == attributes) {
    add(Kind::FinishItem, std::string(), started, 0);
    return;
  }
  add(Kind::FinishItem, std::string(), static_cast<uint32_t>(attributes_.size()), 0);
  attributes_.push_back(attributes);
}

void QSRecordedWalk::reserveForCopies(size_t copies) {
  // One step per group of copies (there are at most as many groups as
  // copies) and two per folder, which are far fewer; a name of about 20
  // bytes per group.  Room short of the need doubles, so the margin is kept.
  steps_.reserve(copies + copies / 4 + 1024);
  versions_.reserve(copies + 1024);
  names_.reserve(copies * 24 + 4096);
}

void QSRecordedWalk::startVisitOfGroup_atPath(const QSFSVersionArray& versions, const std::string& path) {
  std::string name;
  if (open_.empty() || !nameBelowOpenFolder(path, &name)) {
    unplayable_ = true;
    return;
  }
  add(Kind::Group, name, static_cast<uint32_t>(versions_.size()), static_cast<uint32_t>(versions.size()));
  versions_.insert(versions_.end(), versions.begin(), versions.end());
  groupOpen_ = true;
}

void QSRecordedWalk::finishVisitOfGroup_atPath(const QSFSVersionArray& versions, const std::string& path) {
  // The group step plays both calls: the finish must come right after its
  // start, with the same copies and path.
  const Step* start = steps_.empty() ? nullptr : &steps_.back();
  std::string name;
  if (!groupOpen_ || !start || start->kind != Kind::Group || start->count != versions.size() ||
      !nameBelowOpenFolder(path, &name) || names_.compare(start->nameOffset, start->nameLength, name) != 0) {
    unplayable_ = true;
    return;
  }
  groupOpen_ = false;
  for (size_t i = 0; i < versions.size(); ++i)
    if (versions_[start->payload + i] != versions[i]) unplayable_ = true;
}

const platform::FileAttributes* QSRecordedWalk::topAttributes() const {
  if (steps_.empty() || steps_.front().kind != Kind::StartItem) return nullptr;
  return &attributes_[steps_.front().payload];
}

void QSRecordedWalk::playTo(FSVisitor& visitor, const std::atomic<bool>* stop) const {
  if (!isComplete()) return;
  visitor.startTraversalOfPath(top_);
  std::vector<std::string> paths;  // the items started and not finished
  QSFSVersionArray group;
  std::string path;  // one buffer for every step's path
  auto pathOf = [&](const Step& step) -> std::string& {
    const std::string_view name(names_.data() + step.nameOffset, step.nameLength);
    if (paths.empty()) {
      path.assign(name);
    } else {
      path.assign(paths.back());
      if (path.empty() || path.back() != '/') path.push_back('/');
      path.append(name);
    }
    return path;
  };
  for (size_t i = 0; i < steps_.size(); ++i) {
    if (stop && stop->load(std::memory_order_relaxed)) break;
    const Step& step = steps_[i];
    switch (step.kind) {
      case Kind::StartItem: {
        pathOf(step);
        if (visitor.startVisitAtPath_attributes(path, attributes_[step.payload])) {
          paths.push_back(path);
          break;
        }
        // Declined: the item's contents are skipped, its finish is made.
        size_t depth = 1;
        while (depth > 0 && ++i < steps_.size()) {
          if (steps_[i].kind == Kind::StartItem) ++depth;
          if (steps_[i].kind == Kind::FinishItem) --depth;
        }
        if (i < steps_.size()) visitor.finishVisitAtPath_attributes(path, attributes_[steps_[i].payload]);
        break;
      }
      case Kind::FinishItem:
        visitor.finishVisitAtPath_attributes(paths.back(), attributes_[step.payload]);
        paths.pop_back();
        break;
      case Kind::Group: {
        group.assign(versions_.begin() + step.payload, versions_.begin() + step.payload + step.count);
        pathOf(step);
        visitor.startVisitOfGroup_atPath(group, path);
        if (stop && stop->load(std::memory_order_relaxed)) break;
        visitor.finishVisitOfGroup_atPath(group, path);
        break;
      }
    }
  }
  visitor.finishTraversalOfPath(top_);
}
