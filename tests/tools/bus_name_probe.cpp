// skerrow_bus_name_probe <name>: asks the system bus (DBUS_SYSTEM_BUS_ADDRESS
// when set) for a well-known name, to test who the bus policy lets own it.
//
// Prints "owned <name>" and exits 0 when this connection became the name's
// owner; prints "refused <name>: <error name>: <message>" and exits 1 when
// the bus said no; exits 2 when it could not ask at all.  The name is given
// up again when the program exits.
//
// RequestName is called directly rather than through
// IConnection::requestName, which reports a refusal only as an errno and so
// loses the bus's error name (org.freedesktop.DBus.Error.AccessDenied).
#include <sdbus-c++/sdbus-c++.h>

#include <cstdint>
#include <iostream>
#include <memory>
#include <string>

namespace {

// RequestName flags and answers (D-Bus message bus interface).
constexpr std::uint32_t kDoNotQueue = 0x4;
constexpr std::uint32_t kPrimaryOwner = 1;
constexpr std::uint32_t kAlreadyOwner = 4;

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: " << (argc > 0 ? argv[0] : "skerrow_bus_name_probe") << " <bus name>\n";
    return 2;
  }
  const std::string name = argv[1];

  std::unique_ptr<sdbus::IConnection> connection;
  std::unique_ptr<sdbus::IProxy> bus;
  try {
    connection = sdbus::createSystemBusConnection();
    bus = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
  } catch (const sdbus::Error& e) {
    std::cout << "cannot connect to the system bus: " << e.getName() << ": " << e.getMessage() << std::endl;
    return 2;
  }

  try {
    std::uint32_t answer = 0;
    bus->callMethod("RequestName")
        .onInterface("org.freedesktop.DBus")
        .withArguments(name, kDoNotQueue)
        .storeResultsTo(answer);
    if (answer == kPrimaryOwner || answer == kAlreadyOwner) {
      std::cout << "owned " << name << std::endl;
      return 0;
    }
    std::cout << "refused " << name << ": not the owner: RequestName answered " << answer
              << " (another connection owns the name)" << std::endl;
    return 1;
  } catch (const sdbus::Error& e) {
    std::cout << "refused " << name << ": " << e.getName() << ": " << e.getMessage() << std::endl;
    return 1;
  }
}
