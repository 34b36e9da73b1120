#include "Engine/files/QSFSChildMap.h"

#include "Engine/files/QSFSNode.h"
#include "platform/Exception.h"
#include "platform/UnicodeText.h"

namespace {

// The key a name is filed under, made only for names that are not plain
// ASCII (an ASCII name is compared and hashed in place, without a copy).
std::string lowerName(std::string_view name) { return platform::lowercase(std::string(name)); }

uint64_t fnv(std::string_view bytes, bool lowerAscii) {
  uint64_t h = 1469598103934665603ull;  // FNV-1a
  for (char c : bytes) {
    h ^= static_cast<unsigned char>(lowerAscii && c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    h *= 1099511628211ull;
  }
  return h;
}

}  // namespace

uint64_t QSFSChildMap::hashOf(std::string_view name) {
  return platform::isAscii(name) ? fnv(name, true) : fnv(lowerName(name), false);
}

size_t QSFSChildMap::probe(std::string_view name, uint64_t hash, bool* found) const {
  const size_t mask = slots_.size() - 1;
  const uint64_t tag = hash >> 32;
  for (size_t i = static_cast<size_t>(hash) & mask;; i = (i + 1) & mask) {
    const uint64_t slot = slots_[i];
    if (slot == 0) {
      *found = false;
      return i;
    }
    if ((slot >> 32) == tag && platform::equalIgnoringCase(entries_[(slot & 0xffffffffu) - 1]->fileNameView(), name)) {
      *found = true;
      return i;
    }
  }
}

void QSFSChildMap::rebuild(size_t capacity) {
  slots_.assign(capacity, 0);
  const size_t mask = capacity - 1;
  for (size_t e = 0; e < entries_.size(); ++e) {
    const uint64_t hash = hashOf(entries_[e]->fileNameView());
    size_t i = static_cast<size_t>(hash) & mask;
    while (slots_[i] != 0) i = (i + 1) & mask;
    slots_[i] = ((hash >> 32) << 32) | (e + 1);
  }
}

void QSFSChildMap::setNode(Node node) {
  ++mutations_;
  if ((entries_.size() + 1) * 4 > slots_.size() * 3) rebuild(slots_.empty() ? 4 : slots_.size() * 2);
  const std::string_view name = node->fileNameView();
  const uint64_t hash = hashOf(name);
  bool found = false;
  const size_t i = probe(name, hash, &found);
  if (found) {
    entries_[(slots_[i] & 0xffffffffu) - 1] = std::move(node);
    return;
  }
  entries_.push_back(std::move(node));
  slots_[i] = ((hash >> 32) << 32) | entries_.size();
}

QSFSChildMap::Node QSFSChildMap::objectForKey(std::string_view name) const {
  if (entries_.empty()) return nullptr;
  bool found = false;
  const size_t i = probe(name, hashOf(name), &found);
  return found ? entries_[(slots_[i] & 0xffffffffu) - 1] : nullptr;
}

void QSFSChildMap::removeObjectForKey(const std::string& name) {
  if (entries_.empty()) return;
  bool found = false;
  const size_t i = probe(name, hashOf(name), &found);
  if (!found) return;
  ++mutations_;
  entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>((slots_[i] & 0xffffffffu) - 1));
  rebuild(slots_.size());
}

void QSFSChildMap::removeAllObjects() {
  ++mutations_;
  entries_.clear();
  slots_.clear();
}

void QSFSChildMap::enumerate(const std::function<void(const Node&)>& visit) const {
  const uint64_t before = mutations_;
  for (size_t i = 0; i < entries_.size(); ++i) {
    const Node child = entries_[i];  // the visit may change the map: hold the child, not a reference into it
    visit(child);
    if (mutations_ != before)
      platform::Exception::raise("NSGenericException", "Collection was mutated while being enumerated.");
  }
}

std::vector<std::string> QSFSChildMap::keyEnumerator() const {
  std::vector<std::string> keys;
  keys.reserve(entries_.size());
  for (const Node& n : entries_) keys.push_back(lowerName(n->fileNameView()));
  return keys;
}
