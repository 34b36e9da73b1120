#include "Engine/files/QSWalkMemo.h"

#include <algorithm>
#include <cstring>

namespace {

// An entry: a head byte, the name's length and bytes, then what the head
// byte does not say of the attributes.
//   bits 0-1  type
//   bits 2-3  creation time's source
//   bits 4-5  creation time: 0 written out, 1 the modification time, 2 zero
//   bit  6    modification nanoseconds zero (not written)
//   bit  7    size zero (not written)
// Written out: the size (varint), the modification seconds as the distance
// from the previous entry's (zigzag varint; the first entry's from 0), the
// modification nanoseconds (4 bytes), and a creation time written out as
// its distance in seconds from the previous entry's creation time (zigzag
// varint; files of one folder are often made together) and its
// nanoseconds (4 bytes).  Distances wrap around 64 bits, so that every
// time reads back exactly.
constexpr unsigned kCreationShift = 4;
constexpr unsigned kCreationWritten = 0;
constexpr unsigned kCreationIsModification = 1;
constexpr unsigned kCreationZero = 2;
constexpr unsigned kModificationNanosecondsZero = 1u << 6;
constexpr unsigned kSizeZero = 1u << 7;

// Blocks grow from small (a memo of a small place stays small) to a bound
// (so that at most one block is partly empty).
constexpr size_t kFirstBlockBytes = 4096;
constexpr size_t kLargestBlockBytes = 128 * 1024;

uint64_t zigzag(uint64_t value) {
  return (value << 1) ^ static_cast<uint64_t>(-static_cast<int64_t>(value >> 63));
}
uint64_t unzigzag(uint64_t value) { return (value >> 1) ^ static_cast<uint64_t>(-static_cast<int64_t>(value & 1)); }

size_t varintLength(uint64_t value) {
  size_t length = 1;
  while (value >= 0x80) {
    value >>= 7;
    ++length;
  }
  return length;
}

unsigned char* putVarint(unsigned char* at, uint64_t value) {
  while (value >= 0x80) {
    *at++ = static_cast<unsigned char>(value | 0x80);
    value >>= 7;
  }
  *at++ = static_cast<unsigned char>(value);
  return at;
}

const unsigned char* getVarint(const unsigned char* at, uint64_t* value) {
  uint64_t result = 0;
  for (unsigned shift = 0;; shift += 7) {
    const unsigned char byte = *at++;
    result |= static_cast<uint64_t>(byte & 0x7f) << shift;
    if (!(byte & 0x80)) break;
  }
  *value = result;
  return at;
}

unsigned char* put32(unsigned char* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) *at++ = static_cast<unsigned char>(value >> (8 * i));
  return at;
}

const unsigned char* get32(const unsigned char* at, uint32_t* value) {
  *value = static_cast<uint32_t>(at[0]) | static_cast<uint32_t>(at[1]) << 8 | static_cast<uint32_t>(at[2]) << 16 |
           static_cast<uint32_t>(at[3]) << 24;
  return at + 4;
}

// The seconds of `time` as a distance from `from`, wrapped to 64 bits.
uint64_t distance(int64_t time, int64_t from) {
  return zigzag(static_cast<uint64_t>(time) - static_cast<uint64_t>(from));
}
int64_t undistance(uint64_t written, int64_t from) {
  return static_cast<int64_t>(static_cast<uint64_t>(from) + unzigzag(written));
}

unsigned creationForm(const platform::FileAttributes& a) {
  if (a.creationTime == a.modificationTime) return kCreationIsModification;
  if (a.creationTime == platform::FileTime{}) return kCreationZero;
  return kCreationWritten;
}

// Writes the entry at `at` (when not null) and gives its length.
// `previous` is the entry before it in its listing (zero times for the first).
size_t encode(const QSWalkMemo::Item& item, const platform::FileAttributes& previous, unsigned char* at) {
  const platform::FileAttributes& a = item.attributes;
  const unsigned creation = creationForm(a);
  const uint64_t modification = distance(a.modificationTime.seconds, previous.modificationTime.seconds);
  size_t length = 1 + varintLength(item.name.size()) + item.name.size() + varintLength(modification);
  if (a.size) length += varintLength(a.size);
  if (a.modificationTime.nanoseconds) length += 4;
  const uint64_t created = distance(a.creationTime.seconds, previous.creationTime.seconds);
  if (creation == kCreationWritten) length += varintLength(created) + 4;
  if (!at) return length;
  *at++ = static_cast<unsigned char>((static_cast<unsigned>(a.type) & 3) |
                                     (static_cast<unsigned>(a.creationSource) & 3) << 2 | creation << kCreationShift |
                                     (a.modificationTime.nanoseconds ? 0 : kModificationNanosecondsZero) |
                                     (a.size ? 0 : kSizeZero));
  at = putVarint(at, item.name.size());
  if (!item.name.empty()) std::memcpy(at, item.name.data(), item.name.size());
  at += item.name.size();
  if (a.size) at = putVarint(at, a.size);
  at = putVarint(at, modification);
  if (a.modificationTime.nanoseconds) at = put32(at, a.modificationTime.nanoseconds);
  if (creation == kCreationWritten) put32(putVarint(at, created), a.creationTime.nanoseconds);
  return length;
}

}  // namespace

bool QSWalkMemo::Listing::Reader::next(std::string_view* name, platform::FileAttributes* attributes) {
  if (left_ == 0) return false;
  --left_;
  const unsigned head = *at_++;
  uint64_t value;
  at_ = getVarint(at_, &value);
  *name = std::string_view(reinterpret_cast<const char*>(at_), value);
  at_ += value;
  platform::FileAttributes& a = *attributes;
  a = platform::FileAttributes();
  a.type = static_cast<platform::FileAttributes::Type>(head & 3);
  a.creationSource = static_cast<platform::FileAttributes::CreationSource>(head >> 2 & 3);
  if (!(head & kSizeZero)) at_ = getVarint(at_, &a.size);
  at_ = getVarint(at_, &value);
  a.modificationTime.seconds = modificationSeconds_ = undistance(value, modificationSeconds_);
  if (!(head & kModificationNanosecondsZero)) at_ = get32(at_, &a.modificationTime.nanoseconds);
  switch (head >> kCreationShift & 3) {
    case kCreationIsModification:
      a.creationTime = a.modificationTime;
      break;
    case kCreationWritten:
      at_ = getVarint(at_, &value);
      a.creationTime.seconds = undistance(value, creationSeconds_);
      at_ = get32(at_, &a.creationTime.nanoseconds);
      break;
    default:
      break;
  }
  creationSeconds_ = a.creationTime.seconds;
  return true;
}

std::vector<QSWalkMemo::Item> QSWalkMemo::Listing::items() const {
  std::vector<Item> items;
  items.reserve(count_);
  Reader reader(*this);
  std::string_view name;
  platform::FileAttributes attributes;
  while (reader.next(&name, &attributes)) items.push_back({std::string(name), attributes});
  return items;
}

bool QSWalkMemo::Listing::operator==(const Listing& other) const {
  // One way of writing each entry: the same entries are the same bytes.
  return count_ == other.count_ && byteLength_ == other.byteLength_ &&
         (byteLength_ == 0 || std::memcmp(bytes_, other.bytes_, byteLength_) == 0);
}

unsigned char* QSWalkMemo::allocate(size_t length) {
  if (length == 0) return nullptr;
  std::vector<Block>& blocks = storage_->blocks;
  if (!blocks.empty() && blocks.back().capacity - blocks.back().used >= length) {
    Block& block = blocks.back();
    unsigned char* at = block.bytes.get() + block.used;
    block.used += length;
    return at;
  }
  const size_t grown = blocks.empty() ? kFirstBlockBytes : std::min(2 * blocks.back().capacity, kLargestBlockBytes);
  Block block;
  block.capacity = std::max(length, grown);
  block.bytes = std::make_unique_for_overwrite<unsigned char[]>(block.capacity);
  block.used = length;
  unsigned char* at = block.bytes.get();
  // A listing larger than a block has a block of its own; the block being
  // filled stays the one to fill.
  if (length > grown && !blocks.empty())
    blocks.insert(blocks.end() - 1, std::move(block));
  else
    blocks.push_back(std::move(block));
  return at;
}

void QSWalkMemo::count(const Range& range) {
  if (range.borrowed) {
    borrowedItems_ += range.count;
  } else {
    ownItems_ += range.count;
    storage_->items += range.count;
  }
}

void QSWalkMemo::record(const std::string& folder, const Range& range) {
  count(range);
  folders_[folder] = range;
}

void QSWalkMemo::addListing(const std::string& folder, const std::vector<Item>& items) {
  size_t length = 0;
  const platform::FileAttributes none;
  const platform::FileAttributes* previous = &none;
  for (const Item& item : items) {
    length += encode(item, *previous, nullptr);
    previous = &item.attributes;
  }
  unsigned char* const to = allocate(length);
  const Range range{to, static_cast<uint32_t>(length), static_cast<uint32_t>(items.size()), 0};
  unsigned char* at = to;
  previous = &none;
  for (const Item& item : items) {
    at += encode(item, *previous, at);
    previous = &item.attributes;
  }
  record(folder, range);
}

void QSWalkMemo::borrowFrom(const std::shared_ptr<const QSWalkMemo>& earlier) {
  base_ = !earlier ? nullptr : earlier->base_ ? earlier->base_ : earlier->storage_;
}

void QSWalkMemo::addListing(const std::string& folder, const Listing& listing) {
  // Borrowed, when they lie in the storage lent: nothing is copied.
  if (base_ && listing.storage_ == base_.get())
    record(folder, Range{listing.bytes_, listing.byteLength_, listing.count_, 1});
  else
    record(folder, copyIn(listing));
}

QSWalkMemo::Range QSWalkMemo::copyIn(const Listing& listing) {
  // A listing of this memo stays where it is while the copy is made: blocks never move.
  unsigned char* to = allocate(listing.byteLength_);
  if (listing.byteLength_) std::memcpy(to, listing.bytes_, listing.byteLength_);
  return Range{to, listing.byteLength_, listing.count_, 0};
}

void QSWalkMemo::stopBorrowing() {
  if (!base_) return;
  const auto own = [this](Range& range) {
    if (!range.borrowed) return;
    range = copyIn(Listing(base_.get(), range.bytes, range.byteLength, range.count));
    count(range);
  };
  for (auto& [path, range] : folders_) own(range);
  for (auto& folder : sealed_) own(folder.range);
  base_.reset();
  borrowedItems_ = 0;
}

std::optional<QSWalkMemo::Listing> QSWalkMemo::listingOf(const std::string& folder) const {
  // A listing added after the index was packed is the newer one.
  if (const auto it = folders_.find(folder); it != folders_.end()) return listingIn(it->second);
  if (folder.compare(0, sealedPrefix_.size(), sealedPrefix_) != 0) return std::nullopt;
  const std::string_view rest = std::string_view(folder).substr(sealedPrefix_.size());
  const auto it = std::lower_bound(sealed_.begin(), sealed_.end(), rest,
                                   [this](const SealedFolder& f, std::string_view path) { return sealedPath(f) < path; });
  if (it == sealed_.end() || sealedPath(*it) != rest) return std::nullopt;
  return listingIn(it->range);
}

size_t QSWalkMemo::Storage::byteCount() const {
  size_t bytes = sizeof(Storage) + blocks.capacity() * sizeof(Block);
  for (const Block& block : blocks) bytes += block.capacity;
  return bytes;
}

size_t QSWalkMemo::byteCount() const {
  size_t bytes = storage_->byteCount();
  bytes += sealed_.capacity() * sizeof(SealedFolder) + sealedPaths_.capacity() + sealedPrefix_.capacity();
  for (const auto& [path, range] : folders_) bytes += sizeof(range) + path.capacity() + 48;
  return bytes + (base_ ? base_->byteCount() : 0);
}

void QSWalkMemo::reserveFolders(size_t folders) { folders_.reserve(folders); }

void QSWalkMemo::shrinkToFit() {
  // Borrowing pays while this memo's own listings are few beside what it
  // borrows and it uses most of the storage it keeps alive.
  if (base_ && (ownItems_ > borrowedItems_ / 8 || 2 * borrowedItems_ < base_->items)) stopBorrowing();
  // The block being filled, moved to one of the size it uses when more
  // than an eighth of it is empty; the listings in it are pointed there.
  // Not once the storage is lent: what borrows points into it too.
  std::vector<Block>& blocks = storage_->blocks;
  if (!blocks.empty() && blocks.back().capacity - blocks.back().used > blocks.back().capacity / 8 &&
      storage_.use_count() == 1) {
    Block& last = blocks.back();
    const unsigned char* const from = last.bytes.get();
    const unsigned char* const end = from + last.used;
    auto moved = last.used ? std::make_unique_for_overwrite<unsigned char[]>(last.used) : nullptr;
    if (last.used) std::memcpy(moved.get(), from, last.used);
    const auto repoint = [&](Range& range) {
      if (!range.borrowed && range.bytes >= from && range.bytes < end) range.bytes = moved.get() + (range.bytes - from);
    };
    for (auto& [path, range] : folders_) repoint(range);
    for (auto& folder : sealed_) repoint(folder.range);
    if (last.used) {
      last.bytes = std::move(moved);
      last.capacity = last.used;
    } else {
      blocks.pop_back();
    }
  }
  blocks.shrink_to_fit();
  if (!folders_.empty()) packIndex();
}

void QSWalkMemo::packIndex() {
  // Every folder by its whole path; a folder listed again since the last
  // packing keeps its newer listing.
  std::string earlierPaths;
  earlierPaths.reserve(sealed_.size() * sealedPrefix_.size() + sealedPaths_.size());
  for (const auto& folder : sealed_) earlierPaths.append(sealedPrefix_).append(sealedPath(folder));
  std::vector<std::pair<std::string_view, Range>> all;
  all.reserve(sealed_.size() + folders_.size());
  size_t at = 0;
  for (const auto& folder : sealed_) {
    const size_t length = sealedPrefix_.size() + folder.pathLength;
    if (!folders_.count(std::string(std::string_view(earlierPaths).substr(at, length))))
      all.emplace_back(std::string_view(earlierPaths).substr(at, length), folder.range);
    at += length;
  }
  for (const auto& [path, range] : folders_) all.emplace_back(path, range);
  std::sort(all.begin(), all.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  // The paths share the place walked: kept once, the rest of each path after it.
  const std::string_view first = all.front().first, last = all.back().first;
  size_t common = 0;
  while (common < first.size() && common < last.size() && first[common] == last[common]) ++common;
  std::string prefix(first.substr(0, common));
  std::string paths;
  size_t pathBytes = 0;
  for (const auto& [path, range] : all) pathBytes += path.size() - common;
  paths.reserve(pathBytes);
  std::vector<SealedFolder> sealed;
  sealed.reserve(all.size());
  for (const auto& [path, range] : all) {
    sealed.push_back({static_cast<uint32_t>(paths.size()), static_cast<uint32_t>(path.size() - common), range});
    paths.append(path.substr(common));
  }
  sealed_ = std::move(sealed);
  sealedPaths_ = std::move(paths);
  sealedPrefix_ = std::move(prefix);
  std::unordered_map<std::string, Range>().swap(folders_);
}
