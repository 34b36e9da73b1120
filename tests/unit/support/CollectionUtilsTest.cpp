#include "Engine/support/CollectionUtils.h"

#include <gtest/gtest.h>

#include <regex>

#include "Engine/support/QSMakeObjectsPerformSelector.h"

using platform::Dictionary;
using platform::Value;

namespace {
struct Animal {
  virtual ~Animal() = default;
  std::string name;
  bool operator==(const Animal& o) const { return name == o.name; }
};
struct Dog : Animal {};
struct Cat : Animal {};

class Owner : public platform::KeyValueObservable {
 public:
  std::set<std::string> tags;
  std::any valueForKey(const std::string& key) const override {
    if (key == "tags") return tags;
    if (key == "label") return Value(Dictionary{{"text", Value("hello")}});
    return {};
  }
};

class Recorder : public platform::KeyValueObserver {
 public:
  std::vector<platform::KeyValueChangeInfo> changes;
  void observeValueForKeyPath_ofObject_change_context(const std::string&, const platform::KeyValueObservable*,
                                                      const platform::KeyValueChangeInfo& change, void*) override {
    changes.push_back(change);
  }
};
}  // namespace

// ---- Casts ----

TEST(CollectionUtilsTest, CastOfNoneAnswersNone) {
  std::shared_ptr<Animal> none;
  EXPECT_EQ(_cast<Dog>(none), nullptr);
  EXPECT_EQ(_castIf<Dog>(none), nullptr);
}

TEST(CollectionUtilsTest, CastNotNilOfNoneRaises) {
  std::shared_ptr<Animal> none;
  EXPECT_THROW(_castNotNil<Dog>(none), platform::Exception);
}

TEST(CollectionUtilsTest, CastKeepsObjectsOfTheClassAndRaisesOnOthers) {
  std::shared_ptr<Animal> dog = std::make_shared<Dog>();
  EXPECT_EQ(_cast<Dog>(dog).get(), dog.get());
  EXPECT_EQ(_cast<Animal>(dog).get(), dog.get());
  std::shared_ptr<Animal> cat = std::make_shared<Cat>();
  try {
    _cast<Dog>(cat);
    FAIL() << "no exception";
  } catch (const platform::Exception& e) {
    EXPECT_EQ(e.name(), "NSInvalidArgumentException");
    EXPECT_TRUE(std::regex_match(e.reason(), std::regex(R"(\(anonymous namespace\)::Dog required, but got \(anonymous namespace\)::Cat 0x[0-9a-f]+)")))
        << e.reason();
  }
  EXPECT_EQ(_castIf<Dog>(cat), nullptr);
}

TEST(CollectionUtilsTest, CastArrayOfChecksEveryElement) {
  std::vector<std::shared_ptr<Animal>> dogs = {std::make_shared<Dog>(), std::make_shared<Dog>()};
  EXPECT_EQ(_castArrayOf<Dog>(dogs).size(), 2u);
  dogs.push_back(std::make_shared<Cat>());
  EXPECT_THROW(_castArrayOf<Dog>(dogs), platform::Exception);
  EXPECT_FALSE(_castArrayOf<Dog>(std::optional<std::vector<std::shared_ptr<Animal>>>()).has_value());
}

TEST(CollectionUtilsTest, EqualWithNone) {
  std::shared_ptr<Animal> none, a = std::make_shared<Animal>(), b = std::make_shared<Animal>();
  a->name = b->name = "x";
  EXPECT_TRUE($equal(none, none));
  EXPECT_FALSE($equal(none, a));
  EXPECT_FALSE($equal(a, none));
  EXPECT_TRUE($equal(a, b));
  b->name = "y";
  EXPECT_FALSE($equal(a, b));
  EXPECT_TRUE($equal(std::optional<int>(), std::optional<int>()));
  EXPECT_FALSE($equal(std::optional<int>(1), std::optional<int>()));
}

TEST(CollectionUtilsTest, StringFromCString) {
  EXPECT_FALSE($string(nullptr));
  EXPECT_EQ($string("h\xc3\xa9"), "h\xc3\xa9");
}

// ---- Setters ----

TEST(CollectionUtilsTest, SetObjAndSetObjCopy) {
  std::shared_ptr<std::string> field;
  auto v = std::make_shared<std::string>("a");
  EXPECT_EQ(setObj(&field, v), v);
  EXPECT_EQ(field, v);
  EXPECT_EQ(setObj(&field, v), v);
  auto copied = setObjCopy(&field, std::make_shared<std::string>("b"));
  EXPECT_EQ(*field, "b");
  EXPECT_EQ(copied, field);
  auto w = std::make_shared<std::string>("c");
  setObjCopy(&field, w);
  EXPECT_NE(field, w);
  EXPECT_EQ(*field, "c");
}

TEST(CollectionUtilsTest, IfSetObjWithAnEqualValueKeepsTheOldObject) {
  auto old = std::make_shared<std::string>("same");
  std::shared_ptr<std::string> field = old;
  EXPECT_FALSE(ifSetObj(&field, std::make_shared<std::string>("same")));
  EXPECT_EQ(field, old);
  EXPECT_FALSE(ifSetObj(&field, old));
  EXPECT_TRUE(ifSetObj(&field, std::make_shared<std::string>("other")));
  EXPECT_EQ(*field, "other");
  EXPECT_TRUE(ifSetObj(&field, std::shared_ptr<std::string>()));
  EXPECT_EQ(field, nullptr);
  auto n = std::make_shared<std::string>("new");
  EXPECT_TRUE(ifSetObjCopy(&field, n));
  EXPECT_NE(field, n);
  EXPECT_FALSE(ifSetObjCopy(&field, std::make_shared<std::string>("new")));
}

// ---- Collections ----

TEST(CollectionUtilsTest, DictofWithThreePairsWhoseSecondValueIsNoneYieldsTwoEntries) {
  const KeyValuePair pairs[] = {{"a", Value("1")}, {"b", std::nullopt}, {"c", Value::integer(3)}};
  const Dictionary d = _dictof(pairs, 3);
  EXPECT_EQ(d.size(), 2u);
  EXPECT_FALSE(d.contains("b"));
  Dictionary m = _mdictof({{"a", std::nullopt}, {"b", Value("2")}});
  m.set("c", Value("3"));
  EXPECT_EQ(m.size(), 2u);
  EXPECT_EQ(_dictof(pairs, 1).size(), 1u);
}

TEST(CollectionUtilsTest, ApplyOverAnEmptyCollectionAnswersAnEmptyArray) {
  std::vector<std::shared_ptr<Animal>> none;
  auto out = $apply(none, [](const std::shared_ptr<Animal>& a) { return std::optional<std::string>(a->name); },
                    std::string("?"));
  EXPECT_TRUE(out.empty());
}

TEST(CollectionUtilsTest, ApplyPutsTheDefaultInPlaceOfNone) {
  std::vector<int> numbers = {1, 2, 3};
  auto out = $apply(numbers, [](int n) { return n == 2 ? std::optional<int>() : std::optional<int>(n * 10); }, -1);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(*out[0], 10);
  EXPECT_EQ(*out[1], -1);
  EXPECT_EQ(*out[2], 30);
}

TEST(CollectionUtilsTest, ApplyKeyPath) {
  auto owner = std::make_shared<Owner>();
  owner->tags = {"x"};
  std::vector<std::shared_ptr<platform::KeyValueObservable>> objects = {owner, owner};
  auto tags = $applyKeyPath(objects, "tags", std::any(std::string("none")));
  ASSERT_EQ(tags.size(), 2u);
  EXPECT_EQ(std::any_cast<std::set<std::string>>(tags[0]), std::set<std::string>{"x"});
  auto missing = $applyKeyPath(objects, "nothing", std::any(std::string("none")));
  EXPECT_EQ(std::any_cast<std::string>(missing[1]), "none");
  auto nested = $applyKeyPath(objects, "label.text", std::any());
  EXPECT_EQ(std::any_cast<Value>(nested[0]), Value("hello"));
}

TEST(CollectionUtilsTest, ContainsObjectIdenticalTo) {
  auto a = std::make_shared<Animal>();
  auto b = std::make_shared<Animal>();
  std::vector<std::shared_ptr<Animal>> array = {a};
  EXPECT_TRUE(my_containsObjectIdenticalTo(array, a));
  EXPECT_FALSE(my_containsObjectIdenticalTo(array, b));  // equal, but another object
}

TEST(CollectionUtilsTest, UTF8ToStringTransformAndEnumerator) {
  EXPECT_EQ(my_UTF8ToString({'o', 'k'}), "ok");
  std::vector<int> v = {1, 2, 3};
  transformUsingFunction(v, [](int x) { return x * x; });
  EXPECT_EQ(v, (std::vector<int>{1, 4, 9}));
  int next = 0;
  addObjectsOfEnumerator(v, [&]() { return next < 2 ? std::optional<int>(++next) : std::optional<int>(); });
  EXPECT_EQ(v, (std::vector<int>{1, 4, 9, 1, 2}));
}

// ---- Boxing ----

TEST(CollectionUtilsTest, BoxByTypeCode) {
  int i = -5;
  auto boxed = _box(&i, "i");
  EXPECT_EQ(std::any_cast<QSNumber>(boxed).objCType, 'i');
  EXPECT_EQ(std::any_cast<QSNumber>(boxed).value.int64Value(), -5);
  const double d = 2.5;
  EXPECT_EQ(std::any_cast<QSNumber>(_box(&d, "rd")).value.doubleValue(), 2.5);  // leading const marker skipped
  EXPECT_EQ(std::any_cast<QSNumber>(box(static_cast<unsigned long long>(UINT64_MAX))).value.uint64Value(), UINT64_MAX);
  EXPECT_EQ(std::any_cast<QSNumber>(box('x')).objCType, 'c');
  EXPECT_EQ(std::any_cast<QSNumber>(box(1.5f)).value.doubleValue(), 1.5);
  const char* s = "text";
  EXPECT_EQ(std::any_cast<std::string>(_box(&s, "*")), "text");
  const char* null = nullptr;
  EXPECT_FALSE(_box(&null, "*").has_value());
  std::shared_ptr<void> object = std::make_shared<int>(7);
  EXPECT_EQ(std::any_cast<std::shared_ptr<void>>(_box(&object, "@")), object);
  struct Point {
    int x, y;
  } p{1, 2};
  auto opaque = std::any_cast<QSOpaqueValue>(_box(&p, "{Point=ii}", sizeof p));
  EXPECT_EQ(opaque.typeCode, "{Point=ii}");
  EXPECT_EQ(opaque.bytes.size(), sizeof p);
}

// ---- Sets ----

TEST(CollectionUtilsTest, SetOperationsReuseTheirArguments) {
  using Set = QSSetPtr<std::string>;
  Set empty = std::make_shared<const std::set<std::string>>();
  Set a = std::make_shared<const std::set<std::string>>(std::set<std::string>{"x", "y"});
  Set b = std::make_shared<const std::set<std::string>>(std::set<std::string>{"y", "z"});
  Set none;
  EXPECT_EQ(my_differenceOfSet_andSet(empty, b), empty);
  EXPECT_EQ(my_differenceOfSet_andSet(a, none), a);
  EXPECT_EQ(my_differenceOfSet_andSet(a, empty), a);
  EXPECT_TRUE(my_differenceOfSet_andSet(a, a)->empty());
  EXPECT_EQ(*my_differenceOfSet_andSet(a, b), (std::set<std::string>{"x"}));
  EXPECT_EQ(my_intersectionOfSet_andSet(a, a), a);
  EXPECT_EQ(my_intersectionOfSet_andSet(empty, b), empty);
  EXPECT_EQ(my_intersectionOfSet_andSet(a, empty), empty);
  EXPECT_EQ(*my_intersectionOfSet_andSet(a, b), (std::set<std::string>{"y"}));
  EXPECT_EQ(my_unionOfSet_andSet(a, a), a);
  EXPECT_EQ(my_unionOfSet_andSet(a, empty), a);
  EXPECT_EQ(my_unionOfSet_andSet(empty, b), b);
  EXPECT_EQ(*my_unionOfSet_andSet(a, b), (std::set<std::string>{"x", "y", "z"}));
}

// ---- Observed set mutation ----

TEST(CollectionUtilsTest, ObservedSetMutation) {
  Owner owner;
  Recorder r;
  owner.addObserver_forKeyPath_options_context(&r, "tags", platform::kKeyValueObservingOptionNew, nullptr);
  EXPECT_TRUE(kvAddToSet(&owner, "tags", owner.tags, std::string("a")));
  EXPECT_FALSE(kvAddToSet(&owner, "tags", owner.tags, std::string("a")));
  ASSERT_EQ(r.changes.size(), 1u);
  EXPECT_EQ(r.changes[0].kind, platform::KeyValueChange::Insertion);
  EXPECT_EQ(std::any_cast<std::set<std::string>>(r.changes[0].objects), std::set<std::string>{"a"});
  EXPECT_EQ(std::any_cast<std::set<std::string>>(r.changes[0].newValue), std::set<std::string>{"a"});
  EXPECT_FALSE(kvRemoveFromSet(&owner, "tags", owner.tags, std::string("b")));
  EXPECT_TRUE(kvRemoveFromSet(&owner, "tags", owner.tags, std::string("a")));
  ASSERT_EQ(r.changes.size(), 2u);
  EXPECT_EQ(r.changes[1].kind, platform::KeyValueChange::Removal);
  EXPECT_TRUE(owner.tags.empty());
  EXPECT_FALSE(kvSetSet(&owner, "tags", owner.tags, std::optional<std::set<std::string>>()));
  EXPECT_TRUE(kvSetSet(&owner, "tags", owner.tags, std::optional<std::set<std::string>>({"p", "q"})));
  EXPECT_EQ(r.changes.back().kind, platform::KeyValueChange::Replacement);
  EXPECT_EQ(owner.tags.size(), 2u);
  EXPECT_TRUE(kvSetSet(&owner, "tags", owner.tags, std::optional<std::set<std::string>>()));
  EXPECT_TRUE(owner.tags.empty());
  owner.removeObserver_forKeyPath(&r, "tags");
}

// ---- Per-string callback ----

namespace {
struct Lister {
  std::vector<std::string> seen;
  void examine(const std::string& name, int* context) {
    seen.push_back(name + ":" + std::to_string(*context));
    ++*context;
  }
};
}  // namespace

TEST(CollectionUtilsTest, PerStringCallbackCallsTheTargetOncePerStringInOrder) {
  Lister lister;
  int context = 0;
  auto call = QSMakeObjectsPerformSelector<Lister, int>::initWithTarget_selector_object(&lister, &Lister::examine, &context);
  makeStringPerformObjectSelector("one", call);
  makeObjectsPerformSelector({"two", "three"}, call);
  EXPECT_EQ(lister.seen, (std::vector<std::string>{"one:0", "two:1", "three:2"}));
  Lister* target = nullptr;
  int* object = nullptr;
  call.getTarget_selector_object(&target, nullptr, &object);
  EXPECT_EQ(target, &lister);
  EXPECT_EQ(object, &context);
}
