#include "Engine/files/QSWalkMemo.h"

#include <algorithm>
#include <limits>

std::string_view QSWalkMemo::Listing::nameAt(size_t i) const {
  const Entry& e = memo_->entries_[first_ + i];
  return std::string_view(memo_->names_).substr(e.nameOffset, e.nameLength);
}

platform::FileAttributes QSWalkMemo::Listing::attributesAt(size_t i) const {
  const Entry& e = memo_->entries_[first_ + i];
  platform::FileAttributes a;
  a.type = e.type;
  a.size = e.size;
  a.creationSource = e.creationSource;
  a.creationTime = {e.creationSeconds, e.creationNanoseconds};
  a.modificationTime = {e.modificationSeconds, e.modificationNanoseconds};
  return a;
}

bool QSWalkMemo::Listing::operator==(const Listing& other) const {
  if (count_ != other.count_) return false;
  for (size_t i = 0; i < count_; ++i) {
    const Entry& a = memo_->entries_[first_ + i];
    const Entry& b = other.memo_->entries_[other.first_ + i];
    if (nameAt(i) != other.nameAt(i) || a.type != b.type || a.creationSource != b.creationSource ||
        a.modificationNanoseconds != b.modificationNanoseconds || a.creationNanoseconds != b.creationNanoseconds ||
        a.modificationSeconds != b.modificationSeconds || a.creationSeconds != b.creationSeconds || a.size != b.size)
      return false;
  }
  return true;
}

void QSWalkMemo::addListing(const std::string& folder, const std::vector<Item>& items) {
  const Range range{static_cast<uint32_t>(entries_.size()), static_cast<uint32_t>(items.size())};
  for (const Item& item : items) {
    // File names are at most 255 bytes on Linux; a longer one is cut rather than wrapped.
    const size_t length = std::min<size_t>(item.name.size(), std::numeric_limits<uint16_t>::max());
    const platform::FileAttributes& a = item.attributes;
    entries_.push_back(Entry{static_cast<uint32_t>(names_.size()), static_cast<uint16_t>(length), a.type,
                             a.creationSource, a.modificationTime.nanoseconds, a.creationTime.nanoseconds,
                             a.modificationTime.seconds, a.creationTime.seconds, a.size});
    names_.append(item.name, 0, length);
  }
  folders_[folder] = range;
}

void QSWalkMemo::borrowFrom(const std::shared_ptr<const QSWalkMemo>& earlier) {
  base_ = earlier && earlier->base_ ? earlier->base_ : earlier;
}

void QSWalkMemo::addListing(const std::string& folder, const Listing& listing) {
  if (base_ && listing.memo_ == base_.get()) {
    // Borrowed, when they lie in the storage lent: nothing is copied.
    if (listing.size() != 0) {
      const Entry& last = base_->entries_[listing.first_ + listing.size() - 1];
      borrowedNameBytes_ += last.nameOffset + last.nameLength - base_->entries_[listing.first_].nameOffset;
    }
    borrowedItems_ += listing.size();
    folders_[folder] = Range{listing.first_, listing.count_, true};
    return;
  }
  folders_[folder] = copyIn(listing);
}

QSWalkMemo::Range QSWalkMemo::copyIn(const Listing& listing) {
  const Range range{static_cast<uint32_t>(entries_.size()), static_cast<uint32_t>(listing.size())};
  if (listing.size() == 0) return range;
  const QSWalkMemo& from = *listing.memo_;
  const Entry* first = &from.entries_[listing.first_];
  const Entry* last = first + listing.size() - 1;
  // The listing's names lie side by side in its memo, in entry order.
  const uint32_t nameStart = first->nameOffset;
  const uint32_t nameEnd = last->nameOffset + last->nameLength;
  const uint32_t shift = static_cast<uint32_t>(names_.size());
  const size_t at = entries_.size();
  if (&from == this) {
    // Copied out first: growing would move what is being copied.
    const std::vector<Entry> entries(first, last + 1);
    const std::string names = names_.substr(nameStart, nameEnd - nameStart);
    entries_.insert(entries_.end(), entries.begin(), entries.end());
    names_.append(names);
  } else {
    entries_.insert(entries_.end(), first, last + 1);
    names_.append(std::string_view(from.names_).substr(nameStart, nameEnd - nameStart));
  }
  for (size_t i = at; i < entries_.size(); ++i) entries_[i].nameOffset = entries_[i].nameOffset - nameStart + shift;
  return range;
}

void QSWalkMemo::stopBorrowing() {
  if (!base_) return;
  entries_.reserve(entries_.size() + borrowedItems_);
  names_.reserve(names_.size() + borrowedNameBytes_);
  const auto own = [this](Range& range) {
    if (range.borrowed) range = copyIn(Listing(base_.get(), range.first, range.count));
  };
  for (auto& [path, range] : folders_) own(range);
  for (auto& folder : sealed_) own(folder.range);
  base_.reset();
  borrowedItems_ = 0;
  borrowedNameBytes_ = 0;
}

std::optional<QSWalkMemo::Listing> QSWalkMemo::listingOf(const std::string& folder) const {
  // A listing added after the index was packed is the newer one.
  if (const auto it = folders_.find(folder); it != folders_.end()) return listingIn(it->second);
  const auto it = std::lower_bound(sealed_.begin(), sealed_.end(), std::string_view(folder),
                                   [this](const SealedFolder& f, std::string_view path) { return sealedPath(f) < path; });
  if (it == sealed_.end() || sealedPath(*it) != folder) return std::nullopt;
  return listingIn(it->range);
}

size_t QSWalkMemo::byteCount() const {
  size_t bytes = entries_.capacity() * sizeof(Entry) + names_.capacity();
  bytes += sealed_.capacity() * sizeof(SealedFolder) + sealedPaths_.capacity();
  for (const auto& [path, range] : folders_) bytes += sizeof(range) + path.capacity() + 48;
  return bytes + (base_ ? base_->byteCount() : 0);
}

void QSWalkMemo::reserve(size_t items, size_t nameBytes, size_t folders) {
  entries_.reserve(items);
  names_.reserve(nameBytes);
  folders_.reserve(folders);
}

void QSWalkMemo::shrinkToFit() {
  // Borrowing pays while this memo's own listings are few beside what it
  // borrows and it uses most of the storage it keeps alive.
  if (base_ && (entries_.size() > borrowedItems_ / 8 || 2 * borrowedItems_ < base_->entries_.size())) stopBorrowing();
  // Each shrink is a copy: worth it only for room of more than an eighth.
  if (entries_.capacity() > entries_.size() + entries_.size() / 8) entries_.shrink_to_fit();
  if (names_.capacity() > names_.size() + names_.size() / 8) names_.shrink_to_fit();
  if (folders_.empty()) return;
  size_t pathBytes = sealedPaths_.size();
  for (const auto& [path, range] : folders_) pathBytes += path.size();
  sealed_.reserve(sealed_.size() + folders_.size());
  sealedPaths_.reserve(pathBytes);
  for (const auto& [path, range] : folders_) {
    sealed_.push_back({static_cast<uint32_t>(sealedPaths_.size()), static_cast<uint32_t>(path.size()), range});
    sealedPaths_ += path;
  }
  std::sort(sealed_.begin(), sealed_.end(),
            [this](const SealedFolder& a, const SealedFolder& b) { return sealedPath(a) < sealedPath(b); });
  std::unordered_map<std::string, Range>().swap(folders_);
}
