#include "platform/Workspace.h"

namespace platform {

NotificationCenter& workspaceNotificationCenter() {
  static NotificationCenter* center = new NotificationCenter();  // lives as long as the process
  return *center;
}

void postWorkspaceNotice(const char* name, const std::string& mountPath) {
  Notification n;
  n.name = name;
  n.userInfo.set(kNSDevicePathKey, Value(mountPath));
  workspaceNotificationCenter().post(n);
}

}  // namespace platform
