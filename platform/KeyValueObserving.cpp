#include "platform/KeyValueObserving.h"

#include <algorithm>

namespace platform {
namespace {

KeyValueChange changeKindFor(KeyValueSetMutation mutation) {
  switch (mutation) {
    case KeyValueSetMutation::Union: return KeyValueChange::Insertion;
    case KeyValueSetMutation::Minus:
    case KeyValueSetMutation::Intersect: return KeyValueChange::Removal;
    case KeyValueSetMutation::Set: return KeyValueChange::Replacement;
  }
  return KeyValueChange::Setting;
}

}  // namespace

void KeyValueObservable::addObserver_forKeyPath_options_context(KeyValueObserver* observer,
                                                                const std::string& keyPath, unsigned options,
                                                                void* context) {
  if (!observer) return;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    registrations_.push_back(Registration{observer, keyPath, options, context});
  }
  if (options & kKeyValueObservingOptionInitial) {
    KeyValueChangeInfo change;
    if (options & kKeyValueObservingOptionNew) change.newValue = valueForKey(keyPath);
    observer->observeValueForKeyPath_ofObject_change_context(keyPath, this, change, context);
  }
}

void KeyValueObservable::removeObserver_forKeyPath(KeyValueObserver* observer, const std::string& keyPath) {
  std::lock_guard<std::recursive_mutex> calls(notifying_);
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  for (auto it = registrations_.rbegin(); it != registrations_.rend(); ++it) {
    if (it->observer == observer && it->keyPath == keyPath) {
      registrations_.erase(std::next(it).base());
      return;
    }
  }
}

size_t KeyValueObservable::observationCount(const std::string& keyPath) const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return static_cast<size_t>(std::count_if(registrations_.begin(), registrations_.end(),
                                           [&](const Registration& r) { return r.keyPath == keyPath; }));
}

std::any KeyValueObservable::valueForKey(const std::string&) const { return {}; }

std::vector<KeyValueObservable::Registration> KeyValueObservable::registrationsFor(const std::string& key) const {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  std::vector<Registration> out;
  for (const auto& r : registrations_)
    if (r.keyPath == key) out.push_back(r);
  return out;
}

void KeyValueObservable::notify(const std::string& key, const KeyValueChangeInfo& change, bool prior) {
  for (const Registration& r : registrationsFor(key)) {
    if (prior && !(r.options & kKeyValueObservingOptionPrior)) continue;
    std::lock_guard<std::recursive_mutex> calls(notifying_);
    {
      // Skip observers removed by an earlier observer of this very change.
      std::lock_guard<std::recursive_mutex> lock(mutex_);
      const bool stillRegistered =
          std::any_of(registrations_.begin(), registrations_.end(), [&](const Registration& live) {
            return live.observer == r.observer && live.keyPath == r.keyPath;
          });
      if (!stillRegistered) continue;
    }
    KeyValueChangeInfo filtered;
    filtered.kind = change.kind;
    filtered.objects = change.objects;
    filtered.isPrior = prior;
    if (r.options & kKeyValueObservingOptionOld) filtered.oldValue = change.oldValue;
    if (!prior && (r.options & kKeyValueObservingOptionNew)) filtered.newValue = change.newValue;
    r.observer->observeValueForKeyPath_ofObject_change_context(key, this, filtered, r.context);
  }
}

void KeyValueObservable::beginChange(const std::string& key, KeyValueChange kind, std::any objects) {
  if (registrationsFor(key).empty()) {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    pending_.push_back(Pending{key, {}});
    return;
  }
  std::any old = valueForKey(key);
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    pending_.push_back(Pending{key, old});
  }
  KeyValueChangeInfo change;
  change.kind = kind;
  change.oldValue = std::move(old);
  change.objects = std::move(objects);
  notify(key, change, true);
}

void KeyValueObservable::endChange(const std::string& key, KeyValueChange kind, std::any objects) {
  KeyValueChangeInfo change;
  change.kind = kind;
  change.objects = std::move(objects);
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    for (auto it = pending_.rbegin(); it != pending_.rend(); ++it) {
      if (it->key == key) {
        change.oldValue = std::move(it->oldValue);
        pending_.erase(std::next(it).base());
        break;
      }
    }
  }
  if (registrationsFor(key).empty()) return;
  change.newValue = valueForKey(key);
  notify(key, change, false);
}

void KeyValueObservable::willChangeValueForKey(const std::string& key) {
  beginChange(key, KeyValueChange::Setting, {});
}

void KeyValueObservable::didChangeValueForKey(const std::string& key) { endChange(key, KeyValueChange::Setting, {}); }

void KeyValueObservable::willChangeValueForKey_withSetMutation_usingObjects(const std::string& key,
                                                                            KeyValueSetMutation mutation,
                                                                            std::any objects) {
  beginChange(key, changeKindFor(mutation), std::move(objects));
}

void KeyValueObservable::didChangeValueForKey_withSetMutation_usingObjects(const std::string& key,
                                                                           KeyValueSetMutation mutation,
                                                                           std::any objects) {
  endChange(key, changeKindFor(mutation), std::move(objects));
}

}  // namespace platform
