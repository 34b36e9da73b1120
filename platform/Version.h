// The project's version, as the build system states it ("0.1.0").
#pragma once

namespace platform {

// The version both programs print for --version.
const char* projectVersion();

}  // namespace platform
