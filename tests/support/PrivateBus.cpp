#include "tests/support/PrivateBus.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/FileSystemImage.h"

namespace skerrow_test {

namespace {

using namespace std::chrono_literals;

// How long the daemon may take to start listening and answer.
constexpr auto kStartTimeout = std::chrono::milliseconds(10s);
// How long one handshake attempt may wait for the daemon's answer.
constexpr int kHandshakeTimeoutMs = 1000;

std::string errnoText(const std::string& what, int error) {
  return what + ": " + std::strerror(error);
}

std::string xmlEscaped(const std::string& text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&apos;"; break;
      default: out.push_back(c);
    }
  }
  return out;
}

// D-Bus addresses allow only these bytes unescaped; the rest become %xx.
std::string addressEscaped(const std::string& value) {
  std::string out;
  for (const char c : value) {
    const auto u = static_cast<unsigned char>(c);
    if (std::isalnum(u) || std::strchr("-_/.\\*", c)) {
      out.push_back(c);
    } else {
      char buf[4];
      std::snprintf(buf, sizeof buf, "%%%02x", u);
      out += buf;
    }
  }
  return out;
}

// The configuration: Debian's /usr/share/dbus-1/system.conf without what
// would make the daemon leave our control (user switch, fork, pid file,
// syslog, service activation, the machine's own policy folders), listening
// on our socket and including the policy under test.
std::string configuration(const std::string& socketPath, const std::string& policyFile) {
  return R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<!-- A private system bus for tests, with Debian's system bus policy. -->
<busconfig>
  <type>system</type>
  <auth>EXTERNAL</auth>
  <listen>unix:path=)" +
         xmlEscaped(addressEscaped(socketPath)) + R"(</listen>

  <policy context="default">
    <allow user="*"/>

    <deny own="*"/>
    <deny send_type="method_call"/>

    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>

    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>

    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus" />
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Introspectable"/>
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Properties"/>
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Containers1"/>
    <deny send_destination="org.freedesktop.DBus"
          send_interface="org.freedesktop.DBus"
          send_member="UpdateActivationEnvironment"/>
    <deny send_destination="org.freedesktop.DBus"
          send_interface="org.freedesktop.DBus.Debug.Stats"/>
    <deny send_destination="org.freedesktop.DBus"
          send_interface="org.freedesktop.systemd1.Activator"/>
  </policy>

  <policy user="root">
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.systemd1.Activator"/>
  </policy>
  <policy user="root">
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Monitoring"/>
  </policy>
  <policy user="root">
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Debug.Stats"/>
  </policy>

  <include>)" +
         xmlEscaped(policyFile) + R"(</include>
</busconfig>
)";
}

// One SASL EXTERNAL handshake on the socket: true when the daemon accepts
// our credentials ("OK <guid>"), which it does from its main loop once it is
// serving the socket.
bool answersHandshake(const std::string& socketPath) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  struct sockaddr_un addr {};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, socketPath.c_str(), socketPath.size() + 1);
  bool ok = false;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) {
    std::string uidHex;
    for (const char c : std::to_string(::geteuid())) {
      char buf[3];
      std::snprintf(buf, sizeof buf, "%02x", static_cast<unsigned char>(c));
      uidHex += buf;
    }
    // The protocol starts with one zero byte (which carries the credentials).
    const std::string request = std::string(1, '\0') + "AUTH EXTERNAL " + uidHex + "\r\n";
    if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
      std::string reply;
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kHandshakeTimeoutMs);
      while (reply.find("\r\n") == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        struct pollfd p {fd, POLLIN, 0};
        if (::poll(&p, 1, 10) <= 0) continue;
        char buf[256];
        const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) break;
        reply.append(buf, static_cast<std::size_t>(n));
      }
      ok = reply.rfind("OK ", 0) == 0;
    }
  }
  ::close(fd);
  return ok;
}

}  // namespace

std::optional<std::string> PrivateBus::unavailableReason() {
  if (!findProgram("dbus-daemon")) return "private D-Bus: dbus-daemon not found (package dbus-daemon)";
  return std::nullopt;
}

PrivateBus::PrivateBus(const std::string& policyFile, const Environment& daemonEnvironment) {
  try {
    const std::string policy = std::filesystem::absolute(policyFile).string();
    if (!std::filesystem::is_regular_file(policy)) throw std::runtime_error("no policy file " + policy);

    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/skerrow-bus-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (!::mkdtemp(buf.data())) throw std::runtime_error(errnoText("mkdtemp " + pattern, errno));
    folder_ = buf.data();
    // mkdtemp makes it private; clients running as other users must reach the socket.
    if (::chmod(folder_.c_str(), 0755) != 0) throw std::runtime_error(errnoText("chmod " + folder_, errno));

    socketPath_ = folder_ + "/system_bus_socket";
    if (socketPath_.size() >= sizeof(sockaddr_un{}.sun_path)) {
      throw std::runtime_error("socket path too long for AF_UNIX (set a shorter TMPDIR): " + socketPath_);
    }
    address_ = "unix:path=" + addressEscaped(socketPath_);
    configPath_ = folder_ + "/system.conf";
    {
      std::ofstream out(configPath_);
      out << configuration(socketPath_, policy);
      if (!out.flush()) throw std::runtime_error("cannot write " + configPath_);
    }

    // The address goes to standard output, that is into the log, once the
    // daemon listens.
    daemon_ = std::make_unique<DaemonProcess>(
        "dbus-daemon",
        std::vector<std::string>{"--nofork", "--nopidfile", "--print-address=1", "--config-file=" + configPath_},
        DaemonProcess::Options{.environment = daemonEnvironment});
    const bool ready = eventually(
        [&] {
          if (!daemon_->isRunning()) return true;
          return daemon_->logText().find("unix:path=") != std::string::npos && answersHandshake(socketPath_);
        },
        kStartTimeout);
    if (!daemon_->isRunning()) {
      throw std::runtime_error("dbus-daemon exited with status " + std::to_string(daemon_->exitStatus().value_or(-1)) +
                               ": " + daemon_->logText());
    }
    if (!ready) throw std::runtime_error("dbus-daemon does not answer on " + socketPath_ + ": " + daemon_->logText());
  } catch (...) {
    cleanUp();
    throw;
  }
}

PrivateBus::~PrivateBus() { cleanUp(); }

Environment PrivateBus::environment() const {
  return {{"DBUS_SYSTEM_BUS_ADDRESS", address_}, {"DBUS_SESSION_BUS_ADDRESS", address_}};
}

std::string PrivateBus::logText() const { return daemon_ ? daemon_->logText() : std::string(); }

void PrivateBus::cleanUp() noexcept {
  daemon_.reset();
  if (!folder_.empty()) {
    std::error_code ec;
    std::filesystem::remove_all(folder_, ec);
  }
}

}  // namespace skerrow_test
