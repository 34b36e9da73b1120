#include "tools/skerrowctl/FreedesktopNotifier.h"

#include <iostream>
#include <map>

#include <sdbus-c++/sdbus-c++.h>

namespace skerrowctl {

namespace {
constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
}  // namespace

FreedesktopNotifier::FreedesktopNotifier() = default;
FreedesktopNotifier::~FreedesktopNotifier() {
  proxy_.reset();
  connection_.reset();
}

bool FreedesktopNotifier::notify(const DesktopNotice& notice) {
  try {
    if (!connection_) {
      connection_ = sdbus::createSessionBusConnection();
      proxy_ = sdbus::createProxy(*connection_, kService, kPath);
    }
    std::map<std::string, sdbus::Variant> hints;
    hints["urgency"] = sdbus::Variant(static_cast<uint8_t>(notice.failure ? 2 : 1));
    hints["category"] = sdbus::Variant(std::string(notice.failure ? "transfer.error" : "transfer.complete"));
    hints["desktop-entry"] = sdbus::Variant(std::string("skerrowctl-agent"));
    uint32_t id = 0;
    proxy_->callMethod("Notify")
        .onInterface(kService)
        .withArguments(std::string("Skerrow"), uint32_t(0), std::string("drive-harddisk"), notice.name, notice.body,
                       std::vector<std::string>{}, hints, int32_t(-1))
        .storeResultsTo(id);
    std::cerr << "skerrowctl agent: " << notice.name << ": " << notice.body << "\n";
    return true;
  } catch (const sdbus::Error& e) {
    std::cerr << "skerrowctl agent: could not show \"" << notice.name << "\": " << e.getMessage() << "\n";
    proxy_.reset();
    connection_.reset();
    return false;
  }
}

}  // namespace skerrowctl
