#include "Engine/files/QSCreationDateCache.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <string_view>

#include "platform/AtomicFile.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/Path.h"

namespace {

// Never destroyed: a walk ahead of time may still be running on its own
// thread while the process exits.
std::mutex& registryLock = *new std::mutex;
std::string& storeFolder = *new std::string;  // under registryLock

constexpr char kMagic[16] = "skerrow-cdc-v1\n";
constexpr size_t kHeaderSize = 16 + 8 + 8 + 8 + 8;  // magic, folder inode, birth seconds, nanoseconds, count
constexpr size_t kMaximumEntries = 64u << 20;

uint64_t checksum(const char* bytes, size_t size) {  // FNV-1a
  uint64_t hash = 14695981039346656037ull;
  for (size_t i = 0; i < size; ++i) hash = (hash ^ static_cast<unsigned char>(bytes[i])) * 1099511628211ull;
  return hash;
}

template <class T>
void put(std::string* out, T value) {
  out->append(reinterpret_cast<const char*>(&value), sizeof value);
}

template <class T>
T get(std::string_view in, size_t at) {
  T value;
  std::memcpy(&value, in.data() + at, sizeof value);
  return value;
}

}  // namespace

std::shared_ptr<QSCreationDateCache> QSCreationDateCache::forBackupFolder(const std::string& path) {
  static auto& registry = *new std::map<std::string, std::shared_ptr<QSCreationDateCache>>;
  std::lock_guard<std::mutex> lock(registryLock);
  auto& cache = registry[path];
  if (!cache) {
    const std::string name = platform::lastPathComponent(path);
    const bool kept = !storeFolder.empty() && !name.empty() && name != "/" && name != "." && name != "..";
    cache = std::make_shared<QSCreationDateCache>(
        path, kept ? platform::appendingPathComponent(storeFolder, "creationdates-" + name + ".cache") : std::string());
  }
  return cache;
}

void QSCreationDateCache::setStoreFolder(const std::string& folder) {
  std::lock_guard<std::mutex> lock(registryLock);
  storeFolder = folder;
}

QSCreationDateCache::QSCreationDateCache(std::string folderPath, std::string file)
    : folderPath_(std::move(folderPath)), file_(std::move(file)) {
  if (!file_.empty()) load();
}

std::string QSCreationDateCache::encode(const platform::FileAttributes& identity, std::span<const Entry> entries) {
  static_assert(sizeof(Entry) == 32, "entries are kept as they lie in memory");
  std::string bytes;
  // Sized once: grown by appending, the buffer of a large cache would be
  // copied as it doubles and, for a moment, held two and a half times over.
  bytes.reserve(kHeaderSize + entries.size() * sizeof(Entry) + sizeof(uint64_t));
  bytes.append(kMagic, sizeof kMagic);
  put<uint64_t>(&bytes, identity.inode);
  put<int64_t>(&bytes, identity.creationTime.seconds);
  put<uint64_t>(&bytes, identity.creationTime.nanoseconds);
  put<uint64_t>(&bytes, entries.size());
  bytes.append(reinterpret_cast<const char*>(entries.data()), entries.size() * sizeof(Entry));
  put<uint64_t>(&bytes, checksum(bytes.data(), bytes.size()));
  return bytes;
}

void QSCreationDateCache::load() {
  platform::FileAttributes folder;
  if (!platform::FileManager::attributesAtPath(folderPath_, &folder) || !folder.isDirectory()) return;
  auto file = platform::MappedFile::open(file_, kHeaderSize + kMaximumEntries * sizeof(Entry) + 8);
  if (!file) return;
  auto ignore = [&](const char* why) { platform::Log::format("Ignored the creation-date cache %s: %s", file_.c_str(), why); };
  const std::string_view bytes(file->data(), file->size());
  if (bytes.size() < kHeaderSize + 8 || bytes.compare(0, sizeof kMagic, std::string_view(kMagic, sizeof kMagic)) != 0)
    return ignore("not a cache");
  const uint64_t count = get<uint64_t>(bytes, 40);
  if (count > kMaximumEntries || bytes.size() != kHeaderSize + count * sizeof(Entry) + 8) return ignore("damaged");
  if (get<uint64_t>(bytes, bytes.size() - 8) != checksum(bytes.data(), bytes.size() - 8)) return ignore("damaged");
  if (get<uint64_t>(bytes, 16) != folder.inode || get<int64_t>(bytes, 24) != folder.creationTime.seconds ||
      get<uint64_t>(bytes, 32) != folder.creationTime.nanoseconds)
    return;  // another folder now has this path: nothing of it applies
  // A mapping begins on a page, so the entries after the 48-byte header
  // lie aligned as in memory.
  const std::span<const Entry> entries(reinterpret_cast<const Entry*>(bytes.data() + kHeaderSize), count);
  for (size_t i = 1; i < entries.size(); ++i)
    if (entries[i - 1].inode > entries[i].inode) return ignore("damaged");
  std::lock_guard<std::mutex> lock(lock_);
  std::vector<Entry>().swap(known_);
  mapped_ = std::move(file);
  mappedEntries_ = entries;
  device_ = folder.device;
  onFile_ = true;
}

std::span<const QSCreationDateCache::Entry> QSCreationDateCache::known() const {
  return mapped_ ? mappedEntries_ : std::span<const Entry>(known_);
}

void QSCreationDateCache::keep() {
  if (file_.empty()) return;
  platform::FileAttributes folder;
  if (!platform::FileManager::attributesAtPath(folderPath_, &folder) || !folder.isDirectory()) return;
  std::string bytes;
  {
    std::lock_guard<std::mutex> lock(lock_);
    if (device_ != folder.device) return;
    if (renewed_) {
      renewed_ = false;
      onFile_ = false;
      bytes = encode(folder, known());
    }
  }
  if (!bytes.empty()) {
    if (!platform::AtomicFile::write(file_, bytes, 0600)) {
      platform::Log::format("Unable to keep the creation-date cache %s", file_.c_str());
      return;  // the entries stay in memory
    }
    std::lock_guard<std::mutex> lock(lock_);
    if (!renewed_) onFile_ = true;  // unless a walk changed them since they were encoded
  }
  // Between walks the entries live in the file only: the next walk maps
  // it again rather than the engine holding 32 bytes a copy while it waits.
  std::lock_guard<std::mutex> lock(lock_);
  if (!onFile_ || walking_ || released_) return;
  releasedCount_ = known().size();
  std::vector<Entry>().swap(known_);
  mapped_.reset();
  mappedEntries_ = {};
  released_ = true;
}

bool QSCreationDateCache::fill(platform::FileAttributes* a) {
  if (a->changeTime == platform::FileTime{}) return false;  // a file system that gives no change time
  std::unique_lock<std::mutex> lock(lock_);
  if (released_) {
    // The first copy a walk examines maps the file again (a warm walk that
    // reads no folder of copies never needs it).
    released_ = false;
    onFile_ = false;
    lock.unlock();
    load();  // a file gone or no longer matching leaves the cache empty
    lock.lock();
  }
  const auto known = this->known();
  if (known.empty() || a->device != device_) return false;
  const auto it = std::lower_bound(known.begin(), known.end(), a->inode,
                                   [](const Entry& e, uint64_t inode) { return e.inode < inode; });
  if (it == known.end() || it->inode != a->inode) return false;
  if (it->changeSeconds != a->changeTime.seconds || it->changeNanoseconds != a->changeTime.nanoseconds) return false;
  if (it->creation & kStored) {
    a->creationTime = platform::FileTime{it->creationSeconds, it->creation & ~kStored};
    a->creationSource = platform::FileAttributes::CreationSource::StoredAttribute;
  }
  // Without a stored date the copy's own birth time, already read, stands.
  // The walk saw the copy as it is known: it stays known.
  if (walkDevice_ == 0) walkDevice_ = a->device;
  if (seen_.size() != known.size()) seen_.assign(known.size(), false);
  seen_[static_cast<size_t>(it - known.begin())] = true;
  return true;
}

void QSCreationDateCache::beginWalk(platform::FileTime now) {
  std::lock_guard<std::mutex> lock(lock_);
  walking_ = true;
  rememberBefore_ = now.seconds - margin_;
  seen_.assign(known().size(), false);
  fresh_.clear();
  walkDevice_ = 0;
}

void QSCreationDateCache::setRecentChangeMargin(int64_t seconds) {
  std::lock_guard<std::mutex> lock(lock_);
  margin_ = seconds;
}

void QSCreationDateCache::remember(const platform::FileAttributes& a) {
  const bool stored = a.creationSource == platform::FileAttributes::CreationSource::StoredAttribute;
  const Entry entry{a.inode, a.changeTime.seconds, stored ? a.creationTime.seconds : 0, a.changeTime.nanoseconds,
                    stored ? (a.creationTime.nanoseconds | kStored) : 0};
  if (a.changeTime == platform::FileTime{}) return;
  std::lock_guard<std::mutex> lock(lock_);
  if (a.changeTime.seconds >= rememberBefore_) return;
  // A walk that crosses onto another device (a disk mounted inside the
  // backup folder) remembers only the first device's copies.
  if (walkDevice_ == 0) walkDevice_ = a.device;
  if (a.device != walkDevice_) return;
  fresh_.push_back(entry);
}

void QSCreationDateCache::finishWalk(bool completed) {
  std::lock_guard<std::mutex> lock(lock_);
  if (completed) {
    const auto byInode = [](const Entry& x, const Entry& y) { return x.inode < y.inode; };
    // A walk that completed without examining a single copy (an emptied
    // backup folder) never brought the entries back: none of them was seen.
    const size_t before = released_ ? releasedCount_ : known().size();
    released_ = false;
    const bool counted = walkDevice_ == device_ && seen_.size() == known().size();
    const size_t kept = counted ? static_cast<size_t>(std::count(seen_.begin(), seen_.end(), true)) : 0;
    // Only a walk that found a copy new, changed or gone has anything to
    // keep; otherwise the entries stay where they are, in memory or mapped.
    if (kept != before || !fresh_.empty()) {
      renewed_ = true;
      if (mapped_) {
        // From here on the entries are the engine's own.
        known_.reserve(kept + fresh_.size());
        for (size_t i = 0; counted && i < seen_.size(); ++i)
          if (seen_[i]) known_.push_back(mappedEntries_[i]);
        mapped_.reset();
        mappedEntries_ = {};
      } else {
        size_t at = 0;
        for (size_t i = 0; counted && i < known_.size(); ++i)
          if (seen_[i]) known_[at++] = known_[i];
        known_.resize(kept);
      }
      std::sort(fresh_.begin(), fresh_.end(), byInode);
      known_.insert(known_.end(), fresh_.begin(), fresh_.end());
      std::inplace_merge(known_.begin(), known_.begin() + static_cast<std::ptrdiff_t>(kept), known_.end(), byInode);
      // A copy with several names (hard links) is remembered once.
      known_.erase(std::unique(known_.begin(), known_.end(),
                               [](const Entry& x, const Entry& y) { return x.inode == y.inode; }),
                   known_.end());
    }
    if (walkDevice_ != 0) device_ = walkDevice_;
  }
  seen_.clear();
  seen_.shrink_to_fit();
  fresh_.clear();
  fresh_.shrink_to_fit();
  walkDevice_ = 0;
  walking_ = false;
}

size_t QSCreationDateCache::count() const {
  std::lock_guard<std::mutex> lock(lock_);
  return released_ ? releasedCount_ : known().size();
}
