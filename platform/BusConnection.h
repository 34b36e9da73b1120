// A D-Bus connection (sdbus-c++) driven by a platform::RunLoop.
//
// sdbus-c++ 1.2 has no event-loop attachment of its own: the connection's
// descriptor, the events it waits for and its next time-out are taken
// before every wait of the loop (an io source with a prepare step), and
// pending messages are processed when the descriptor is ready or the
// time-out passes.  All calls on the connection happen on the loop's
// thread; other threads hand their calls to the loop.
//
// The bus address comes from the environment as sd-bus reads it
// (DBUS_SYSTEM_BUS_ADDRESS, DBUS_SESSION_BUS_ADDRESS).
#pragma once

#include <memory>
#include <string>

#include <sdbus-c++/IConnection.h>

#include "platform/RunLoop.h"

namespace platform {

class BusConnection {
 public:
  enum class Bus { System, Session };

  // Connects; raises platform::Exception when the bus cannot be reached.
  static std::unique_ptr<BusConnection> open(Bus bus);
  ~BusConnection();
  BusConnection(const BusConnection&) = delete;
  BusConnection& operator=(const BusConnection&) = delete;

  sdbus::IConnection& connection() { return *connection_; }

  // Serves the connection from `loop` (on the loop's thread).
  void attachToRunLoop(RunLoop& loop);
  // Asks the bus for a well-known name; false with the bus's reason when refused.
  bool requestName(const std::string& name, std::string* reason);
  std::string uniqueName() const;

 private:
  explicit BusConnection(std::unique_ptr<sdbus::IConnection> connection);
  std::unique_ptr<sdbus::IConnection> connection_;
  RunLoop* loop_ = nullptr;
  RunLoop::SourceId source_ = 0;
};

}  // namespace platform
