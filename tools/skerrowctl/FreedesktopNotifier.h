// Desktop notifications through the freedesktop notification service
// (org.freedesktop.Notifications on the user's session bus), as every Linux
// desktop shows them.  The summary is the notice's name ("Finished
// backup"); failures are sent with critical urgency.  The connection is
// made on first use and made again after a failure, so the agent survives
// a notification service that restarts.
#pragma once

#include <memory>

#include "tools/skerrowctl/AgentWatch.h"

namespace sdbus {
class IConnection;
class IProxy;
}  // namespace sdbus

namespace skerrowctl {

class FreedesktopNotifier : public Notifier {
 public:
  FreedesktopNotifier();
  ~FreedesktopNotifier() override;
  bool notify(const DesktopNotice& notice) override;

 private:
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> proxy_;
};

}  // namespace skerrowctl
