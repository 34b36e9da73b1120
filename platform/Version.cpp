#include "platform/Version.h"

namespace platform {

// SKERROW_VERSION comes from the project() line of the top CMakeLists.txt.
const char* projectVersion() { return SKERROW_VERSION; }

}  // namespace platform
