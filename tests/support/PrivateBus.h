// A private D-Bus system bus for one test: a dbus-daemon of our own, with a
// configuration that mirrors Debian's system bus policy, listening on a
// socket in a temporary folder.
//
//  - The generated configuration has the system bus type, EXTERNAL
//    authentication only, Debian's default policy (any user may connect;
//    nobody may own a name or send a method call unless a policy file allows
//    it; signals, requested replies and everything incoming are allowed; the
//    bus itself may be asked anything but UpdateActivationEnvironment and the
//    debug and activator interfaces; root may monitor) and then includes the
//    policy file given to the constructor, as the real bus includes
//    /usr/share/dbus-1/system.d.  It has no <user>, <fork/>, servicehelper,
//    service folders or syslog: the daemon runs in the foreground as our
//    child, logs to its DaemonProcess log, and activates nothing, so the
//    service under test must be started explicitly.
//  - dbus-daemon resolves the user and group names in the policy, and the
//    uid of every connecting client, through the name service of its own
//    environment; it drops, before any message, a connection whose uid it
//    cannot resolve.  Pass `daemonEnvironment` (TestUsers::environment())
//    when fake users connect or a policy names them.
//  - The temporary folder is world-searchable so that other users' clients
//    reach the socket; it must lie in a world-searchable place ($TMPDIR or /tmp).
//  - The constructor returns once the daemon has printed its address and
//    answers an authentication handshake on the socket, and throws
//    std::runtime_error with the daemon's log when it does not within the
//    deadline.  The destructor never throws: it stops the daemon (SIGTERM,
//    then SIGKILL), reaps it and removes the folder.
//  - Tests ask unavailableReason() first and skip with its answer.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "tests/support/DaemonProcess.h"

namespace skerrow_test {

class PrivateBus {
 public:
  // Nothing when a private bus can run here; otherwise why not.
  static std::optional<std::string> unavailableReason();

  explicit PrivateBus(const std::string& policyFile, const Environment& daemonEnvironment = {});
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  // "unix:path=<folder>/system_bus_socket", for --address= and the variables.
  const std::string& address() const { return address_; }
  const std::string& socketPath() const { return socketPath_; }
  const std::string& configPath() const { return configPath_; }
  // DBUS_SYSTEM_BUS_ADDRESS and DBUS_SESSION_BUS_ADDRESS, both the address:
  // what a child process needs so that its system (and session) bus is this one.
  Environment environment() const;
  // What the daemon has written (warnings, policy complaints).
  std::string logText() const;
  const DaemonProcess& process() const { return *daemon_; }

 private:
  void cleanUp() noexcept;

  std::string folder_;
  std::string configPath_;
  std::string socketPath_;
  std::string address_;
  std::unique_ptr<DaemonProcess> daemon_;
};

}  // namespace skerrow_test
