#include "platform/Process.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace platform {

std::string Process::executablePath() {
  std::string buffer(4096, '\0');
  const ssize_t n = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
  if (n <= 0 || static_cast<size_t>(n) >= buffer.size()) return "";
  buffer.resize(static_cast<size_t>(n));
  return buffer;
}

std::string Process::executableDirectory() {
  const std::string path = executablePath();
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::vector<std::string> Process::arguments() {
  std::ifstream in("/proc/self/cmdline", std::ios::binary);
  const std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<std::string> out;
  size_t start = 0;
  while (start < all.size()) {
    const size_t end = all.find('\0', start);
    out.push_back(all.substr(start, end == std::string::npos ? std::string::npos : end - start));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return out;
}

std::optional<std::string> Process::environmentVariable(const std::string& name) {
  const char* value = std::getenv(name.c_str());
  if (!value) return std::nullopt;
  return std::string(value);
}

void Process::terminateImmediately(int status) {
  std::fflush(stdout);
  std::fflush(stderr);
  ::_exit(status);
}

std::string Process::machineName() {
  std::ifstream info("/etc/machine-info");
  std::string line;
  while (std::getline(info, line)) {
    if (line.rfind("PRETTY_HOSTNAME=", 0) != 0) continue;
    std::string value = line.substr(16);
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
      value = value.substr(1, value.size() - 2);
    if (!value.empty()) return value;
  }
  char host[256] = {};
  if (::gethostname(host, sizeof host - 1) == 0) return host;
  return "";
}

uint32_t Process::effectiveUID() { return ::geteuid(); }

}  // namespace platform
