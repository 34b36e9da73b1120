// The desktop's notices about volumes: mounted and unmounted, posted on
// the workspace notification centre with the mount path under
// "NSDevicePath" in the user info.
#pragma once

#include "platform/NotificationCenter.h"

namespace platform {

inline constexpr const char* NSWorkspaceDidMountNotification = "NSWorkspaceDidMountNotification";
inline constexpr const char* NSWorkspaceDidUnmountNotification = "NSWorkspaceDidUnmountNotification";
inline constexpr const char* kNSDevicePathKey = "NSDevicePath";

// The centre the volume notices are posted on (separate from the default centre).
NotificationCenter& workspaceNotificationCenter();

// Posts a mount or unmount notice for `mountPath` on the workspace centre.
void postWorkspaceNotice(const char* name, const std::string& mountPath);

}  // namespace platform
