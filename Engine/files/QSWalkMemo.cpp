#include "Engine/files/QSWalkMemo.h"

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

std::optional<QSWalkMemo::Listing> QSWalkMemo::listingOf(const std::string& folder) const {
  const auto it = folders_.find(folder);
  if (it == folders_.end()) return std::nullopt;
  return Listing(this, it->second.first, it->second.count);
}

size_t QSWalkMemo::byteCount() const {
  size_t bytes = entries_.capacity() * sizeof(Entry) + names_.capacity();
  for (const auto& [path, range] : folders_) bytes += sizeof(range) + path.capacity() + 48;
  return bytes;
}

void QSWalkMemo::shrinkToFit() {
  entries_.shrink_to_fit();
  names_.shrink_to_fit();
}
