#include "tests/support/JournalDaemon.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "tests/support/FileSystemImage.h"

namespace skerrow_test {
namespace {

constexpr const char* kSocket = "/run/systemd/journal/socket";
constexpr const char* kJournald = "/lib/systemd/systemd-journald";

// Whether a journal takes datagrams on its socket now.
bool journalAnswers() {
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, kSocket, sizeof address.sun_path - 1);
  const bool answers = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return answers;
}

}  // namespace

std::optional<std::string> JournalDaemon::unavailableReason() {
  if (journalAnswers()) return std::nullopt;
  if (::geteuid() != 0) return "no journal runs, and starting one needs root";
  if (!std::filesystem::exists(kJournald)) return std::string(kJournald) + " is not installed";
  if (!findProgram("journalctl")) return "journalctl is not installed";
  return std::nullopt;
}

JournalDaemon::JournalDaemon() {
  if (journalAnswers()) return;
  // Sockets left by a journal that is gone would stop a new one binding.
  std::filesystem::remove_all("/run/systemd/journal");
  own_ = std::make_unique<DaemonProcess>(kJournald, std::vector<std::string>{});
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!journalAnswers()) {
    if (std::chrono::steady_clock::now() > until || !own_->isRunning())
      throw std::runtime_error("systemd-journald did not start: " + own_->logText());
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

JournalDaemon::~JournalDaemon() {
  if (!own_) return;
  own_->stop(std::chrono::seconds(5));
  own_.reset();
  std::error_code ignored;
  std::filesystem::remove_all("/run/systemd/journal", ignored);
}

std::vector<std::string> JournalDaemon::entries(const std::string& match) const {
  // What has been sent is written out before it is read.
  runCommand({"journalctl", "--sync"});
  const auto result = runCommand({"journalctl", "--no-pager", "-o", "json", match});
  std::vector<std::string> lines;
  std::istringstream in(result.output);
  for (std::string line; std::getline(in, line);)
    if (!line.empty() && line.front() == '{') lines.push_back(line);
  return lines;
}

}  // namespace skerrow_test
