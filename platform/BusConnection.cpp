#include "platform/BusConnection.h"

#include <poll.h>

#include <sdbus-c++/Error.h>

#include "platform/Exception.h"

namespace platform {

BusConnection::BusConnection(std::unique_ptr<sdbus::IConnection> connection) : connection_(std::move(connection)) {}

std::unique_ptr<BusConnection> BusConnection::open(Bus bus) {
  try {
    auto connection = bus == Bus::System ? sdbus::createSystemBusConnection() : sdbus::createSessionBusConnection();
    return std::unique_ptr<BusConnection>(new BusConnection(std::move(connection)));
  } catch (const sdbus::Error& e) {
    Exception::raise("NSPortTimeoutException", "Unable to connect to the %s bus: %s: %s",
                     bus == Bus::System ? "system" : "session", e.getName().c_str(), e.getMessage().c_str());
  }
}

BusConnection::~BusConnection() {
  if (loop_ && source_) loop_->removeSource(source_);
}

void BusConnection::attachToRunLoop(RunLoop& loop) {
  loop_ = &loop;
  const int fd = connection_->getEventLoopPollData().fd;
  source_ = loop.addIoSource(
      fd,
      [this]() {
        const auto data = connection_->getEventLoopPollData();
        RunLoop::IoInterest interest;
        interest.events = static_cast<uint32_t>(data.events);
        if (data.timeout_usec != UINT64_MAX) interest.deadline = static_cast<double>(data.timeout_usec) / 1e6;
        return interest;
      },
      [this](uint32_t) {
        while (connection_->processPendingRequest()) {
        }
      });
}

bool BusConnection::requestName(const std::string& name, std::string* reason) {
  try {
    connection_->requestName(name);
    return true;
  } catch (const sdbus::Error& e) {
    if (reason) *reason = e.getName() + ": " + e.getMessage();
    return false;
  }
}

std::string BusConnection::uniqueName() const { return connection_->getUniqueName(); }

}  // namespace platform
