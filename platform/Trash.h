// The freedesktop.org trash, through GIO: an item goes to the trash of its
// own volume (".Trash-<uid>" at the volume's top, or the user's home trash
// on the home's file system).
#pragma once

#include <string>

namespace platform {

class Trash {
 public:
  // Moves the item to the trash; false (with GIO's message) when it cannot.
  static bool moveToTrash(const std::string& path, std::string* message = nullptr);
};

}  // namespace platform
