// The chain of nodes from a walk's starting folder down to the folder being
// visited, and the categories that chain gives an item (decided by the
// names of the folders between the starting folder and the item only).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Engine/files/QSFSNode.h"

// Categories as bits, in the order of kAllCategories (Pictures is bit 0).
using QSCategoryMask = uint8_t;
inline constexpr QSCategoryMask kQSPicturesMask = 1 << 0;
inline constexpr QSCategoryMask kQSMusicMask = 1 << 1;
inline constexpr QSCategoryMask kQSMoviesMask = 1 << 2;
inline constexpr QSCategoryMask kQSMailMask = 1 << 3;
inline constexpr QSCategoryMask kQSDocumentsMask = 1 << 4;
inline constexpr QSCategoryMask kQSOtherMask = 1 << 5;
// The identifiers of the categories set in `mask`, in the order of kAllCategories.
std::set<std::string> QSCategoriesOfMask(QSCategoryMask mask);
// Whether `name` equals `literal` ignoring case (as a case-insensitive like-match without wildcards).
bool QSNameIs(std::string_view name, const char* literal);

class QSFSNodeStack {
 public:
  void push(std::shared_ptr<QSFSNode> node) { stack_.push_back(std::move(node)); }
  void pop() {
    if (!stack_.empty()) stack_.pop_back();
  }
  std::shared_ptr<QSFSNode> top() const { return stack_.empty() ? nullptr : stack_.back(); }
  size_t size() const { return stack_.size(); }
  void removeAllObjects() { stack_.clear(); }
  const std::shared_ptr<QSFSNode>& at(size_t index) const { return stack_[index]; }

  // The categories of an item whose ancestors are on the stack (index 0 the
  // starting folder); `fileName` is the item's own name, or nothing.
  std::set<std::string> applicableCategories(std::optional<std::string_view> fileName) const;
  // The same as bits, for walks that count every file.
  QSCategoryMask applicableCategoryMask(std::optional<std::string_view> fileName) const;

  // The rule itself, given the names of the folders at stack indices 1 and 2
  // (when the stack is that deep) and the stack size.
  static QSCategoryMask categoriesFor(size_t stackSize, std::optional<std::string_view> firstFolder,
                                      std::optional<std::string_view> secondFolder,
                                      std::optional<std::string_view> fileName);

 private:
  std::vector<std::shared_ptr<QSFSNode>> stack_;
};
