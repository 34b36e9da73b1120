// A per-string callback: a target, an operation of the target taking
// (string, extra object), and the extra object.  None of the three is owned.
//
//   QSMakeObjectsPerformSelector<Lister, Context> call(&lister, &Lister::examine, &context);
//   makeStringPerformObjectSelector("a name", call);      // lister.examine("a name", &context)
//   makeObjectsPerformSelector(names, call);               // once per name, in order
#pragma once

#include <string>
#include <vector>

template <class Target, class Object>
class QSMakeObjectsPerformSelector {
 public:
  using Selector = void (Target::*)(const std::string&, Object*);

  QSMakeObjectsPerformSelector(Target* target, Selector selector, Object* object)
      : target_(target), selector_(selector), object_(object) {}
  static QSMakeObjectsPerformSelector initWithTarget_selector_object(Target* target, Selector selector,
                                                                     Object* object) {
    return QSMakeObjectsPerformSelector(target, selector, object);
  }

  void getTarget_selector_object(Target** target, Selector* selector, Object** object) const {
    if (target) *target = target_;
    if (selector) *selector = selector_;
    if (object) *object = object_;
  }

 private:
  Target* target_;
  Selector selector_;
  Object* object_;
};

// Calls the performer's target with the string itself and the extra object.
template <class Target, class Object>
void makeStringPerformObjectSelector(const std::string& string,
                                     const QSMakeObjectsPerformSelector<Target, Object>& performer) {
  Target* target = nullptr;
  typename QSMakeObjectsPerformSelector<Target, Object>::Selector selector = nullptr;
  Object* object = nullptr;
  performer.getTarget_selector_object(&target, &selector, &object);
  if (target && selector) (target->*selector)(string, object);
}

// makeStringPerformObjectSelector for every string of the array, in order.
template <class Target, class Object>
void makeObjectsPerformSelector(const std::vector<std::string>& strings,
                                const QSMakeObjectsPerformSelector<Target, Object>& performer) {
  for (const std::string& s : strings) makeStringPerformObjectSelector(s, performer);
}
