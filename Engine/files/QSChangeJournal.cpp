#include "Engine/files/QSChangeJournal.h"

#include <algorithm>

#include "platform/Path.h"

namespace {

std::string folderOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return std::string();
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

}  // namespace

QSChangeJournal& QSChangeJournal::shared() {
  // Never freed: the watcher's thread may note changes until the process ends.
  static QSChangeJournal& journal = *new QSChangeJournal();
  return journal;
}

void QSChangeJournal::follow(const std::string& root, const std::optional<std::string>& resolvedRoot) {
  std::lock_guard<std::mutex> lock(lock_);
  auto [it, added] = roots_.try_emplace(root);
  if (added) it->second.followedAt = ++clock_;
  if (resolvedRoot && *resolvedRoot != root) it->second.resolved = *resolvedRoot;
}

void QSChangeJournal::unfollow(const std::string& root) {
  std::lock_guard<std::mutex> lock(lock_);
  roots_.erase(root);
}

bool QSChangeJournal::isFollowing(const std::string& root) const {
  std::lock_guard<std::mutex> lock(lock_);
  return roots_.count(root) != 0;
}

bool QSChangeJournal::place(const std::string& path, std::string* placed) const {
  for (const auto& [root, state] : roots_) {
    if (platform::isAtOrBelow(path, root)) {
      *placed = path;
      return true;
    }
    if (!state.resolved.empty() && platform::isAtOrBelow(path, state.resolved)) {
      *placed = root + path.substr(state.resolved.size());
      return true;
    }
  }
  return false;
}

void QSChangeJournal::stamp(std::unordered_map<std::string, Mark>& into, const std::string& path) {
  into[path] = clock_;
}

void QSChangeJournal::forgetIfFull() {
  if (folders_.size() + subtrees_.size() <= capacity_) return;
  folders_.clear();
  subtrees_.clear();
  forgottenAt_ = clock_;
}

void QSChangeJournal::forgetChangesUpTo(Mark mark) {
  std::lock_guard<std::mutex> lock(lock_);
  if (mark <= forgottenAt_) return;
  const auto dropOld = [mark](std::unordered_map<std::string, Mark>& changes) {
    for (auto it = changes.begin(); it != changes.end();) it = it->second <= mark ? changes.erase(it) : std::next(it);
  };
  dropOld(folders_);
  dropOld(subtrees_);
  forgottenAt_ = std::min(mark, clock_);
}

void QSChangeJournal::noteOwnFolder(const std::string& folder) {
  std::string path = folder;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  std::lock_guard<std::mutex> lock(lock_);
  if (std::find(ownFolders_.begin(), ownFolders_.end(), path) == ownFolders_.end()) ownFolders_.push_back(path);
}

void QSChangeJournal::noteEvent(const platform::FileSystemEvent& event) {
  using Kind = platform::FileSystemEvent::Kind;
  switch (event.kind) {
    case Kind::Created:
    case Kind::CreatedFolder:
    case Kind::Deleted:
    case Kind::Renamed:
      for (const auto& path : event.paths) noteStructuralChange(path);
      return;
    case Kind::AttributesChanged:
    case Kind::ClosedAfterWrite:
    case Kind::Modified:
      for (const auto& path : event.paths) noteContentChange(path);
      return;
    case Kind::Dropped:
    case Kind::Undecodable:
      noteDoubt();
      return;
  }
  // A kind this journal does not know: nothing can be told any more.
  noteDoubt();
}

void QSChangeJournal::noteContentChange(const std::string& path) {
  std::lock_guard<std::mutex> lock(lock_);
  std::string placed;
  if (!place(path, &placed)) return;
  ++clock_;
  stamp(folders_, folderOf(placed));
  forgetIfFull();
}

void QSChangeJournal::noteStructuralChange(const std::string& path) {
  std::lock_guard<std::mutex> lock(lock_);
  std::string placed;
  if (!place(path, &placed)) return;
  ++clock_;
  const std::string folder = folderOf(placed);
  stamp(folders_, folder);
  stamp(folders_, folderOf(folder));
  stamp(subtrees_, placed);
  forgetIfFull();
}

void QSChangeJournal::noteDoubt() {
  std::lock_guard<std::mutex> lock(lock_);
  ++clock_;
  for (auto& [root, state] : roots_) state.doubtAt = clock_;
}

void QSChangeJournal::noteDoubtAbout(const std::string& root) {
  std::lock_guard<std::mutex> lock(lock_);
  ++clock_;
  for (auto& [followed, state] : roots_)
    if (platform::isAtOrBelow(followed, root) || platform::isAtOrBelow(root, followed)) state.doubtAt = clock_;
}

QSChangeJournal::Mark QSChangeJournal::now() const {
  std::lock_guard<std::mutex> lock(lock_);
  return clock_;
}

bool QSChangeJournal::canTellLocked(const std::string& root, Mark mark) const {
  // The followed root that holds `root` (a backup folder below a disk's followed folder, say).
  const Root* holder = nullptr;
  for (const auto& [followed, state] : roots_)
    if (platform::isAtOrBelow(root, followed) && (!holder || state.followedAt > holder->followedAt)) holder = &state;
  return holder && holder->followedAt <= mark && holder->doubtAt <= mark && forgottenAt_ <= mark;
}

bool QSChangeJournal::canTell(const std::string& root, Mark mark) const {
  std::lock_guard<std::mutex> lock(lock_);
  return canTellLocked(root, mark);
}

std::optional<QSChangedFolders> QSChangeJournal::changesSince(const std::string& root, Mark mark) const {
  std::lock_guard<std::mutex> lock(lock_);
  if (!canTellLocked(root, mark)) return std::nullopt;
  QSChangedFolders changes;
  for (const auto& [path, when] : folders_)
    if (when > mark && platform::isAtOrBelow(path, root)) changes.addFolder(path);
  for (const auto& [path, when] : subtrees_)
    if (when > mark && (platform::isAtOrBelow(path, root) || platform::isAtOrBelow(root, path))) changes.addSubtree(path);
  for (const auto& own : ownFolders_) {
    if (!platform::isAtOrBelow(own, root) && !platform::isAtOrBelow(root, own)) continue;
    changes.addSubtree(own);
    changes.addFolder(folderOf(own));
  }
  return changes;
}

void QSChangeJournal::setSynchronizer(std::function<bool()> synchronize) {
  std::lock_guard<std::mutex> lock(lock_);
  synchronize_ = synchronize ? std::make_shared<const std::function<bool()>>(std::move(synchronize)) : nullptr;
  // Whatever happened while nobody synchronized is unknown.
  ++clock_;
  for (auto& [root, state] : roots_) state.doubtAt = clock_;
}

std::optional<QSChangeJournal::Mark> QSChangeJournal::synchronizedMark() {
  std::shared_ptr<const std::function<bool()>> synchronize;
  {
    std::lock_guard<std::mutex> lock(lock_);
    synchronize = synchronize_;
  }
  // Called outside the lock: the watcher notes changes here while it catches up.
  if (!synchronize || !(*synchronize)()) return std::nullopt;
  return now();
}

size_t QSChangeJournal::size() const {
  std::lock_guard<std::mutex> lock(lock_);
  return folders_.size() + subtrees_.size();
}
