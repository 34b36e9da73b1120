#include "platform/LinuxVolumeService.h"

#include <arpa/inet.h>
#include <libmount/libmount.h>
#include <limits.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>

namespace platform {

namespace {

// File system types served over the network, besides those libmount itself
// reports as network file systems.
constexpr std::array kNetworkFileSystemTypes = {
    "nfs",        "nfs3",      "nfs4",           "cifs",        "smb3",          "smbfs",     "smb",
    "9p",         "ceph",      "glusterfs",      "afs",         "ncpfs",         "ncp",       "davfs",
    "coda",       "lustre",    "sshfs",          "s3fs",        "afpfs",         "fuse.sshfs", "fuse.ceph",
    "fuse.davfs", "fuse.s3fs", "fuse.glusterfs", "fuse.rclone", "fuse.curlftpfs", "fuse.smbnetfs", "fuse.afpfs",
};

std::optional<std::string> readSmallFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return std::nullopt;
  return text;
}

std::string trimmed(const std::string& text) {
  const char* blanks = " \t\r\n\v\f";
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string::npos) return "";
  const auto last = text.find_last_not_of(blanks);
  return text.substr(first, last - first + 1);
}

std::string lastComponent(const std::string& path) {
  std::string p = path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  const auto slash = p.rfind('/');
  return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::optional<std::string> readLink(const std::string& path) {
  std::string buffer(PATH_MAX, '\0');
  const ssize_t n = ::readlink(path.c_str(), buffer.data(), buffer.size());
  if (n <= 0 || static_cast<size_t>(n) >= buffer.size()) return std::nullopt;
  buffer.resize(static_cast<size_t>(n));
  return buffer;
}

std::optional<std::string> realPath(const std::string& path) {
  std::unique_ptr<char, decltype(&::free)> resolved(::realpath(path.c_str(), nullptr), &::free);
  if (!resolved) return std::nullopt;
  return std::string(resolved.get());
}

bool exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

// A kernel device name is a single path component.
bool isPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

// "MAJ:MIN" (as sysfs dev files hold it) as numbers.
std::optional<std::pair<unsigned, unsigned>> parseDeviceNumbers(const std::string& text) {
  unsigned major = 0, minor = 0;
  char trailing = 0;
  if (std::sscanf(text.c_str(), "%u:%u%c", &major, &minor, &trailing) < 2) return std::nullopt;
  if (trailing != 0 && trailing != '\n') return std::nullopt;
  return std::make_pair(major, minor);
}

// Whether `prefix` is `path` or one of its parent folders.
bool containsPath(const std::string& prefix, const std::string& path) {
  if (prefix == "/") return !path.empty() && path[0] == '/';
  if (path.compare(0, prefix.size(), prefix) != 0) return false;
  return path.size() == prefix.size() || path[prefix.size()] == '/';
}

struct TableDeleter {
  void operator()(libmnt_table* table) const { mnt_unref_table(table); }
};
struct IterDeleter {
  void operator()(libmnt_iter* iter) const { mnt_free_iter(iter); }
};

// A malformed line is left out; the rest of the table is still read.
int skipMalformedLine(libmnt_table*, const char*, int) { return 1; }

std::string orEmpty(const char* text) { return text ? text : ""; }

}  // namespace

LinuxVolumeService::LinuxVolumeService(Options options) : options_(std::move(options)) {
  if (!options_.probe) options_.probe = BlockDeviceProbe::libblkid();
}

bool LinuxVolumeService::isNetworkFileSystemType(const std::string& fsType) {
  return std::find(kNetworkFileSystemTypes.begin(), kNetworkFileSystemTypes.end(), fsType) !=
         kNetworkFileSystemTypes.end();
}

std::string LinuxVolumeService::serverHostOfSource(const std::string& source) {
  std::string rest = source;
  bool hasPort = false;
  if (const auto scheme = rest.find("://"); scheme != std::string::npos) {
    // A URL: "https://user@host:port/path".
    rest = rest.substr(scheme + 3);
    rest = rest.substr(0, rest.find('/'));
    hasPort = true;
  } else if (rest.rfind("//", 0) == 0 || rest.rfind("\\\\", 0) == 0) {
    // A share: "//host/share" or "\\host\share".
    rest = rest.substr(2);
    rest = rest.substr(0, rest.find_first_of("/\\"));
    hasPort = true;
  } else {
    // "host:/export", "user@host:/path", "mon1:6789,mon2:6789:/", "[fe80::1]:/export".
    rest = rest.substr(0, rest.find(','));
    if (const auto at = rest.find('@'); at != std::string::npos && at < rest.find(':')) rest = rest.substr(at + 1);
    if (!rest.empty() && rest[0] == '[') {
      const auto close = rest.find(']');
      return close == std::string::npos ? "" : rest.substr(1, close - 1);
    }
    const auto colon = rest.find(':');
    if (colon == std::string::npos) return "";
    return rest.substr(0, colon);
  }
  if (const auto at = rest.rfind('@'); at != std::string::npos) rest = rest.substr(at + 1);
  if (!rest.empty() && rest[0] == '[') {
    const auto close = rest.find(']');
    return close == std::string::npos ? "" : rest.substr(1, close - 1);
  }
  if (hasPort) rest = rest.substr(0, rest.find(':'));
  return rest;
}

std::string LinuxVolumeService::ipv4AddressNumberOfHost(const std::string& host) {
  if (host.empty()) return "";
  in_addr address{};
  if (::inet_pton(AF_INET, host.c_str(), &address) == 1) return std::to_string(ntohl(address.s_addr));
  // Anything with a colon is an IPv6 address, which has no IPv4 number.
  if (host.find(':') != std::string::npos) return "";
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || !found) return "";
  std::string number;
  for (const addrinfo* a = found; a; a = a->ai_next) {
    if (a->ai_family == AF_INET && a->ai_addr) {
      number = std::to_string(ntohl(reinterpret_cast<const sockaddr_in*>(a->ai_addr)->sin_addr.s_addr));
      break;
    }
  }
  ::freeaddrinfo(found);
  return number;
}

std::string LinuxVolumeService::blockDeviceNameForNumbers(unsigned major, unsigned minor) const {
  const std::string link = options_.sysfsRoot + "/dev/block/" + std::to_string(major) + ":" + std::to_string(minor);
  const auto target = readLink(link);
  if (!target) return "";
  const std::string name = lastComponent(*target);
  return isPlainName(name) ? name : "";
}

std::string LinuxVolumeService::blockDeviceName(const std::string& source, uint64_t device) const {
  if (source.rfind("/dev/", 0) == 0) {
    // The node itself (links such as /dev/disk/by-label/x or /dev/mapper/y followed).
    const std::string node = options_.devRoot + source.substr(4);
    struct stat st;
    if (::stat(node.c_str(), &st) == 0 && S_ISBLK(st.st_mode)) {
      const std::string name = blockDeviceNameForNumbers(major(st.st_rdev), minor(st.st_rdev));
      if (!name.empty()) return name;
    }
    // The node cannot be examined here: sysfs knows the device by its name.
    const std::string name = lastComponent(source);
    if (isPlainName(name)) {
      if (const auto numbers = readSmallFile(options_.sysfsRoot + "/class/block/" + name + "/dev")) {
        if (const auto parsed = parseDeviceNumbers(trimmed(*numbers))) {
          const std::string found = blockDeviceNameForNumbers(parsed->first, parsed->second);
          if (!found.empty()) return found;
        }
      }
    }
  }
  // The mount's own device, when it is a block device (anonymous devices
  // of tmpfs, overlay, FUSE, NFS... are not in sysfs).
  return blockDeviceNameForNumbers(major(static_cast<dev_t>(device)), minor(static_cast<dev_t>(device)));
}

std::optional<std::string> LinuxVolumeService::wholeDiskName(const std::string& bsdName) const {
  if (!isPlainName(bsdName)) return std::nullopt;
  const std::string entry = options_.sysfsRoot + "/class/block/" + bsdName;
  if (!exists(entry)) return std::nullopt;
  if (!exists(entry + "/partition")) return bsdName;
  // A partition's folder sits inside its disk's folder.
  const auto resolved = realPath(entry);
  if (!resolved) return std::nullopt;
  const auto slash = resolved->rfind('/');
  if (slash == std::string::npos || slash == 0) return std::nullopt;
  const std::string whole = lastComponent(resolved->substr(0, slash));
  if (!isPlainName(whole)) return std::nullopt;
  return whole;
}

int LinuxVolumeService::mediaClassForBSDName(const std::string& bsdName) const {
  const auto whole = wholeDiskName(bsdName);
  if (!whole) return -1;
  if (whole->rfind("sr", 0) == 0) return 1;
  // SCSI peripheral type 5: CD/DVD.
  if (const auto type = readSmallFile(options_.sysfsRoot + "/block/" + *whole + "/device/type"))
    if (trimmed(*type) == "5") return 1;
  return 0;
}

std::optional<DiskInfo> LinuxVolumeService::diskInfoForBSDName(const std::string& bsdName) const {
  const auto whole = wholeDiskName(bsdName);
  if (!whole) return std::nullopt;
  DiskInfo info;
  info.wholeDiskBSDName = *whole;
  if (const auto model = readSmallFile(options_.sysfsRoot + "/block/" + *whole + "/device/model"))
    info.model = trimmed(*model);
  return info;
}

std::vector<MountedVolume> LinuxVolumeService::mountedVolumes() const {
  std::vector<MountedVolume> volumes;
  std::unique_ptr<libmnt_table, TableDeleter> table(mnt_new_table());
  if (!table) return volumes;
  mnt_table_set_parser_errcb(table.get(), skipMalformedLine);
  if (mnt_table_parse_file(table.get(), options_.mountInfoPath.c_str()) != 0) return volumes;
  std::unique_ptr<libmnt_iter, IterDeleter> iter(mnt_new_iter(MNT_ITER_FORWARD));
  if (!iter) return volumes;

  libmnt_fs* fs = nullptr;
  while (mnt_table_next_fs(table.get(), iter.get(), &fs) == 0) {
    MountedVolume v;
    v.mountId = mnt_fs_get_id(fs);
    v.mountPoint = orEmpty(mnt_fs_get_target(fs));
    v.fsType = orEmpty(mnt_fs_get_fstype(fs));
    v.source = orEmpty(mnt_fs_get_source(fs));
    v.device = static_cast<uint64_t>(mnt_fs_get_devno(fs));
    v.isNetwork = isNetworkFileSystemType(v.fsType) || mnt_fs_is_netfs(fs) == 1;
    if (v.isNetwork) {
      v.serverAddress = ipv4AddressNumberOfHost(serverHostOfSource(v.source));
    } else {
      v.bsdName = blockDeviceName(v.source, v.device);
      if (!v.bsdName.empty()) {
        v.mediaClass = mediaClassForBSDName(v.bsdName);
        if (const auto identity = options_.probe->identify(options_.devRoot + "/" + v.bsdName)) {
          v.label = identity->label;
          v.uuid = identity->uuid;
        }
      }
    }
    volumes.push_back(std::move(v));
  }
  return volumes;
}

std::optional<MountedVolume> LinuxVolumeService::volumeForPath(const std::string& path) const {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  const std::string resolved = realPath(path).value_or(path);
  std::optional<MountedVolume> best;
  bool bestContains = false;
  for (MountedVolume& v : mountedVolumes()) {
    if (v.device != static_cast<uint64_t>(st.st_dev)) continue;
    const bool contains = containsPath(v.mountPoint, resolved);
    // Among mounts of the device, one containing the path wins, the longest
    // such; failing any, the first mount of the device in the table.
    if (!best || (contains && (!bestContains || v.mountPoint.size() > best->mountPoint.size()))) {
      bestContains = contains;
      best = std::move(v);
    }
  }
  return best;
}

}  // namespace platform
