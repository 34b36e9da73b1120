#include "platform/Trash.h"

#include <gio/gio.h>

namespace platform {

bool Trash::moveToTrash(const std::string& path, std::string* message) {
  GFile* file = g_file_new_for_path(path.c_str());
  GError* error = nullptr;
  const gboolean ok = g_file_trash(file, nullptr, &error);
  if (!ok && message) *message = error ? error->message : "unknown error";
  if (error) g_error_free(error);
  g_object_unref(file);
  return ok;
}

}  // namespace platform
