#include "platform/Process.h"

#include <unistd.h>

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

}  // namespace platform
