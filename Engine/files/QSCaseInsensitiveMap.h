// Maps keyed by file name, ignoring letter case: every key is lower-cased
// (full Unicode lower-casing in the root locale) before it is used, so
// "Photo.JPG" and "photo.jpg" are one key.  Backup volumes compare names
// this way.  Keys enumerate in the order they were first added.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/UnicodeText.h"

// Entries in insertion order under lower-cased keys, with a hash index.
template <class V>
class QSLowerCasedEntries {
 public:
  // The entry of the key, or nullptr.
  V* find(const std::string& key) {
    auto it = index_.find(platform::lowercase(key));
    return it == index_.end() ? nullptr : &entries_[it->second].second;
  }
  const V* find(const std::string& key) const { return const_cast<QSLowerCasedEntries*>(this)->find(key); }
  // The entry of the key, made from `make()` when absent.
  template <class Make>
  V& findOrAdd(const std::string& key, Make&& make) {
    std::string lower = platform::lowercase(key);
    auto it = index_.find(lower);
    if (it == index_.end()) {
      it = index_.emplace(lower, entries_.size()).first;
      entries_.emplace_back(std::move(lower), make());
    }
    return entries_[it->second].second;
  }
  void remove(const std::string& key) {
    auto it = index_.find(platform::lowercase(key));
    if (it == index_.end()) return;
    const size_t at = it->second;
    index_.erase(it);
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(at));
    for (auto& [k, i] : index_)
      if (i > at) --i;
  }
  void clear() {
    index_.clear();
    entries_.clear();
  }
  const std::vector<std::pair<std::string, V>>& entries() const { return entries_; }

 private:
  std::unordered_map<std::string, size_t> index_;
  std::vector<std::pair<std::string, V>> entries_;
};

template <class V>
class QSCaseInsensitiveMap {
 public:
  void setObject_forKey(V object, const std::string& key) {
    entries_.findOrAdd(key, [] { return V(); }) = std::move(object);
  }
  // The object for the key, or nothing.
  std::optional<V> objectForKey(const std::string& key) const {
    const V* found = entries_.find(key);
    if (!found) return std::nullopt;
    return *found;
  }
  void removeObjectForKey(const std::string& key) { entries_.remove(key); }
  void removeAllObjects() { entries_.clear(); }
  uint32_t count() const { return static_cast<uint32_t>(entries_.entries().size()); }
  // The lower-cased keys.
  std::vector<std::string> keyEnumerator() const {
    std::vector<std::string> keys;
    for (const auto& e : entries_.entries()) keys.push_back(e.first);
    return keys;
  }
  std::vector<V> objectEnumerator() const {
    std::vector<V> objects;
    for (const auto& e : entries_.entries()) objects.push_back(e.second);
    return objects;
  }

 private:
  QSLowerCasedEntries<V> entries_;
};

// A case-insensitive map to lists: each key collects the objects added
// under it, in the order added, duplicates included.
template <class V>
class QSCaseInsensitiveMultiMap {
 public:
  void addObject_forKey(V object, const std::string& key) {
    entries_.findOrAdd(key, [] { return std::vector<V>(); }).push_back(std::move(object));
  }
  // The objects under the key, or nothing when the key is absent.
  const std::vector<V>* objectsForKey(const std::string& key) const { return entries_.find(key); }
  // The same, as a list to enumerate in insertion order.
  std::optional<std::vector<V>> objectEnumeratorForKey(const std::string& key) const {
    const std::vector<V>* objects = objectsForKey(key);
    if (!objects) return std::nullopt;
    return *objects;
  }
  // Removes the key with all its objects.
  void removeAllObjectsForKey(const std::string& key) { entries_.remove(key); }
  // The lower-cased keys, in the order they were first added.
  std::vector<std::string> keyEnumerator() const {
    std::vector<std::string> keys;
    for (const auto& e : entries_.entries()) keys.push_back(e.first);
    return keys;
  }
  size_t count() const { return entries_.entries().size(); }

 private:
  QSLowerCasedEntries<std::vector<V>> entries_;
};
