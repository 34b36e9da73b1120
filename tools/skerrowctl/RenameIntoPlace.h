// The last step of writing a file through a temporary name: the rename
// that gives it its final name.
#pragma once

#include <string>

namespace skerrowctl {

// Renames `temporary` to `name`, both in the folder open as `folder`.
// With `replace` an existing file or link named `name` is replaced in one
// step (a folder is not: EISDIR or ENOTEMPTY).  Without it an existing
// `name` is kept and EEXIST answered, decided by the rename itself
// (RENAME_NOREPLACE), so an item that appears after any earlier check is
// kept too; on a file system that cannot rename that way, by a check just
// before a plain rename.  Answers 0 or the errno of the failure; the
// temporary item is left for the caller to remove.
int renameIntoPlace(int folder, const std::string& temporary, const std::string& name, bool replace);

}  // namespace skerrowctl
