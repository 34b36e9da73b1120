// The walk of a user's home folder: every folder, file and symbolic link
// that the exclusion rules admit is reported to the visitor (links as
// themselves, never followed; devices, sockets and pipes not at all).
//
// Exclusion of an item, on its file name and its path below the home
// folder (the suffix, "/Documents/a.txt"; the home folder's own is ""):
// the user's exclusion predicate on the suffix; then a file named
// "Database" (any case) is admitted unless it is the live mail database,
// without black-list tests; otherwise the black list on the name, then on
// the suffix.  An excluded folder is not entered and gets no callback.
#pragma once

#include <memory>

#include "Engine/files/FSDepthFirstTraversal.h"
#include "platform/RegexPredicate.h"

class FSSourceTraversal : public FSDepthFirstTraversal {
 public:
  using FSDepthFirstTraversal::FSDepthFirstTraversal;

  void recurseAtUserHome_withExclusionPredicate_visitor(const std::string& homeDirPath,
                                                        std::shared_ptr<const platform::RegexPredicate> predicate,
                                                        FSVisitor& visitor);

 protected:
  void _recurse(const std::string& path) override;
  bool _proceedForPath_attrs(const std::string& path, const std::string& name,
                             const platform::FileAttributes& attributes) const;

 private:
  // The item `name` of `parent` (none: the walk's top item) at `path`, examined as `attributes`.
  void visit(Folder* parent, const std::string& name, const std::string& path,
             const platform::FileAttributes& attributes);

  std::string homeDirPath_;
  std::shared_ptr<const platform::RegexPredicate> exclusionPredicate_;
  // The suffix of the item being examined; one buffer serves the whole walk.
  mutable std::string suffix_;
};
