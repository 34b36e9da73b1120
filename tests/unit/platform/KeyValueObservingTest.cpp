#include "platform/KeyValueObserving.h"

#include <gtest/gtest.h>

#include <set>

using namespace platform;

namespace {

class Box : public KeyValueObservable {
 public:
  int value = 0;
  std::set<std::string> tags;
  void setValue(int v) {
    willChangeValueForKey("value");
    value = v;
    didChangeValueForKey("value");
  }
  std::any valueForKey(const std::string& key) const override {
    if (key == "value") return value;
    if (key == "tags") return tags;
    return {};
  }
};

class Recorder : public KeyValueObserver {
 public:
  struct Call {
    std::string keyPath;
    KeyValueChangeInfo change;
    void* context;
  };
  std::vector<Call> calls;
  void observeValueForKeyPath_ofObject_change_context(const std::string& keyPath, const KeyValueObservable*,
                                                      const KeyValueChangeInfo& change, void* context) override {
    calls.push_back({keyPath, change, context});
  }
};

}  // namespace

TEST(KeyValueObservingTest, ObserverGetsOldAndNewValuesOncePerChange) {
  Box box;
  Recorder r;
  int context = 0;
  box.addObserver_forKeyPath_options_context(&r, "value", kKeyValueObservingOptionNew | kKeyValueObservingOptionOld,
                                             &context);
  box.setValue(5);
  box.setValue(5);
  ASSERT_EQ(r.calls.size(), 2u);
  EXPECT_EQ(std::any_cast<int>(r.calls[0].change.oldValue), 0);
  EXPECT_EQ(std::any_cast<int>(r.calls[0].change.newValue), 5);
  EXPECT_EQ(r.calls[0].context, &context);
  EXPECT_EQ(r.calls[0].change.kind, KeyValueChange::Setting);
}

TEST(KeyValueObservingTest, OptionsDecideWhatTheObserverSees) {
  Box box;
  Recorder r;
  box.addObserver_forKeyPath_options_context(&r, "value", 0, nullptr);
  box.setValue(1);
  ASSERT_EQ(r.calls.size(), 1u);
  EXPECT_FALSE(r.calls[0].change.oldValue.has_value());
  EXPECT_FALSE(r.calls[0].change.newValue.has_value());
}

TEST(KeyValueObservingTest, PriorAndInitialOptions) {
  Box box;
  box.value = 3;
  Recorder r;
  box.addObserver_forKeyPath_options_context(
      &r, "value", kKeyValueObservingOptionInitial | kKeyValueObservingOptionPrior | kKeyValueObservingOptionNew,
      nullptr);
  ASSERT_EQ(r.calls.size(), 1u);
  EXPECT_EQ(std::any_cast<int>(r.calls[0].change.newValue), 3);
  box.setValue(4);
  ASSERT_EQ(r.calls.size(), 3u);
  EXPECT_TRUE(r.calls[1].change.isPrior);
  EXPECT_FALSE(r.calls[2].change.isPrior);
}

TEST(KeyValueObservingTest, RemovedObserverSeesNothing) {
  Box box;
  Recorder r;
  box.addObserver_forKeyPath_options_context(&r, "value", 0, nullptr);
  box.removeObserver_forKeyPath(&r, "value");
  box.setValue(2);
  EXPECT_TRUE(r.calls.empty());
  EXPECT_EQ(box.observationCount("value"), 0u);
}

TEST(KeyValueObservingTest, OtherKeysAreNotReported) {
  Box box;
  Recorder r;
  box.addObserver_forKeyPath_options_context(&r, "tags", 0, nullptr);
  box.setValue(2);
  EXPECT_TRUE(r.calls.empty());
}

TEST(KeyValueObservingTest, SetMutationsCarryTheirKindAndObjects) {
  Box box;
  Recorder r;
  box.addObserver_forKeyPath_options_context(&r, "tags", kKeyValueObservingOptionNew, nullptr);
  box.willChangeValueForKey_withSetMutation_usingObjects("tags", KeyValueSetMutation::Union,
                                                         std::set<std::string>{"x"});
  box.tags.insert("x");
  box.didChangeValueForKey_withSetMutation_usingObjects("tags", KeyValueSetMutation::Union,
                                                        std::set<std::string>{"x"});
  ASSERT_EQ(r.calls.size(), 1u);
  EXPECT_EQ(r.calls[0].change.kind, KeyValueChange::Insertion);
  EXPECT_EQ(std::any_cast<std::set<std::string>>(r.calls[0].change.objects), std::set<std::string>{"x"});
}
