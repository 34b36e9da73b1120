#include "tools/skerrowctl/RenameIntoPlace.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

namespace skerrowctl {

int renameIntoPlace(int folder, const std::string& temporary, const std::string& name, bool replace) {
  if (replace) return ::renameat(folder, temporary.c_str(), folder, name.c_str()) == 0 ? 0 : errno;
  if (::renameat2(folder, temporary.c_str(), folder, name.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
  struct stat st;
  if (::fstatat(folder, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) return EEXIST;
  return ::renameat(folder, temporary.c_str(), folder, name.c_str()) == 0 ? 0 : errno;
}

}  // namespace skerrowctl
