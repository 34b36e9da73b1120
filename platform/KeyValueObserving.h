// Key-value observation: an object announces changes of its named
// properties to observers registered for those keys.
//
// A class that wants to be observed derives from KeyValueObservable, wraps
// each change of a property in willChangeValueForKey / didChangeValueForKey
// (or the set-mutation forms), and answers valueForKey for the old and new
// values that observers may ask for.  Observers are called synchronously on
// the thread that made the change, once per completed change, in
// registration order.  Observers are not owned: an observer must remove
// itself before it is destroyed.
#pragma once

#include <any>
#include <mutex>
#include <string>
#include <vector>

namespace platform {

enum class KeyValueChange { Setting = 1, Insertion = 2, Removal = 3, Replacement = 4 };
enum class KeyValueSetMutation { Union = 1, Minus = 2, Intersect = 3, Set = 4 };

// Observation options (bit flags).
enum KeyValueObservingOptions : unsigned {
  kKeyValueObservingOptionNew = 1,
  kKeyValueObservingOptionOld = 2,
  kKeyValueObservingOptionInitial = 4,
  kKeyValueObservingOptionPrior = 8,
};

struct KeyValueChangeInfo {
  KeyValueChange kind = KeyValueChange::Setting;
  std::any oldValue;  // with the Old option
  std::any newValue;  // with the New option
  // For set mutations: the objects of the mutation (a std::set of the element type).
  std::any objects;
  bool isPrior = false;
};

class KeyValueObservable;

class KeyValueObserver {
 public:
  virtual ~KeyValueObserver() = default;
  virtual void observeValueForKeyPath_ofObject_change_context(const std::string& keyPath,
                                                              const KeyValueObservable* object,
                                                              const KeyValueChangeInfo& change, void* context) = 0;
};

class KeyValueObservable {
 public:
  KeyValueObservable() = default;
  KeyValueObservable(const KeyValueObservable&) = delete;
  KeyValueObservable& operator=(const KeyValueObservable&) = delete;
  virtual ~KeyValueObservable() = default;

  void addObserver_forKeyPath_options_context(KeyValueObserver* observer, const std::string& keyPath,
                                              unsigned options, void* context);
  // Removes one registration of the observer for the key path (the latest).
  // Once it returns, no call to that observer is under way on any thread
  // (it waits for one in progress), so the observer may then be destroyed.
  // An observer may remove itself from inside its own observation call.
  void removeObserver_forKeyPath(KeyValueObserver* observer, const std::string& keyPath);
  size_t observationCount(const std::string& keyPath) const;

  // The current value of a property, for the Old/New options.  Classes
  // answer their observable keys; unknown keys answer an empty value.
  virtual std::any valueForKey(const std::string& key) const;

  void willChangeValueForKey(const std::string& key);
  void didChangeValueForKey(const std::string& key);
  void willChangeValueForKey_withSetMutation_usingObjects(const std::string& key, KeyValueSetMutation mutation,
                                                          std::any objects);
  void didChangeValueForKey_withSetMutation_usingObjects(const std::string& key, KeyValueSetMutation mutation,
                                                         std::any objects);

 private:
  struct Registration {
    KeyValueObserver* observer;
    std::string keyPath;
    unsigned options;
    void* context;
  };
  struct Pending {
    std::string key;
    std::any oldValue;
  };
  std::vector<Registration> registrationsFor(const std::string& key) const;
  void notify(const std::string& key, const KeyValueChangeInfo& change, bool prior);
  void beginChange(const std::string& key, KeyValueChange kind, std::any objects);
  void endChange(const std::string& key, KeyValueChange kind, std::any objects);

  mutable std::recursive_mutex mutex_;
  // Held while an observer is called, and by removal: the two never overlap.
  mutable std::recursive_mutex notifying_;
  std::vector<Registration> registrations_;
  std::vector<Pending> pending_;
};

}  // namespace platform
