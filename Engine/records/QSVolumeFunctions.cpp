#include "Engine/records/QSVolumeFunctions.h"

#include "platform/Format.h"

namespace {

// Longest mount point a volume may have (PATH_MAX, terminator included).
constexpr size_t kMaxMountPointLength = 4096;

std::string lastComponent(const std::string& path) {
  std::string p = path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  const auto slash = p.rfind('/');
  if (slash == std::string::npos || p == "/") return p;
  return p.substr(slash + 1);
}

std::string volumeNameOf(const platform::MountedVolume& v) {
  return v.label.empty() ? lastComponent(v.mountPoint) : v.label;
}

// The key of a volume in the maps: its block device's name, or a network
// volume's server address; "" when it has neither or cannot be examined.
std::string keyOf(const platform::VolumeService& service, const platform::MountedVolume& v) {
  if (v.mountPoint.size() >= kMaxMountPointLength) return "";
  if (v.isNetwork) return v.serverAddress;
  if (v.bsdName.empty() || !service.diskInfoForBSDName(v.bsdName)) return "";
  return v.bsdName;
}

bool isLocal(const platform::VolumeService& service, const platform::MountedVolume& v) {
  return !v.isNetwork && v.mediaClass == 0 && !keyOf(service, v).empty();
}

std::shared_ptr<QSVolumeInfo> infoFor(const platform::MountedVolume& v, const std::string& bsdName) {
  return QSVolumeInfo::initWithRef_mountPoint_volumeName_bsdName(v.mountId, v.mountPoint, volumeNameOf(v), bsdName);
}

// Characters a URL holds as they are: letters, digits and the marks and
// delimiters URLs are written with.  Everything else (blanks, controls,
// bytes of non-ASCII characters, "%", quotes, brackets...) is escaped.
bool isURLCharacter(unsigned char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  switch (c) {
    case '-': case '.': case '_': case '~': case '!': case '$': case '&': case '\'': case '(': case ')':
    case '*': case '+': case ',': case ';': case '=': case ':': case '@': case '/': case '?': case '#':
      return true;
    default:
      return false;
  }
}

std::string percentEscaped(const std::string& text) {
  static const char hex[] = "0123456789ABCDEF";
  std::string escaped;
  escaped.reserve(text.size());
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (isURLCharacter(c)) {
      escaped += ch;
    } else {
      escaped += '%';
      escaped += hex[c >> 4];
      escaped += hex[c & 0xF];
    }
  }
  return escaped;
}

}  // namespace

std::shared_ptr<QSVolumeInfo> QSVolumeInfoForRefNum(int32_t ref) {
  const auto service = QSVolumeInfo::volumeService();
  for (const platform::MountedVolume& v : service->mountedVolumes())
    if (v.mountId == ref && isLocal(*service, v)) return infoFor(v, v.bsdName);
  return nullptr;
}

std::shared_ptr<QSVolumeInfo> QSVolumeInfoForPath(const std::string& path) {
  const auto service = QSVolumeInfo::volumeService();
  const auto volume = service->volumeForPath(path);
  if (!volume || !isLocal(*service, *volume)) return nullptr;
  return infoFor(*volume, volume->bsdName);
}

std::map<std::string, std::shared_ptr<QSVolumeInfo>> QSVolumeInfoForLocalVolumes() {
  const auto service = QSVolumeInfo::volumeService();
  std::map<std::string, std::shared_ptr<QSVolumeInfo>> volumes;
  for (const platform::MountedVolume& v : service->mountedVolumes())
    if (isLocal(*service, v) && !volumes.count(v.bsdName)) volumes.emplace(v.bsdName, infoFor(v, v.bsdName));
  return volumes;
}

std::map<std::string, std::shared_ptr<QSVolumeInfo>> QSVolumeInfoForAllVolumes() {
  const auto service = QSVolumeInfo::volumeService();
  std::map<std::string, std::shared_ptr<QSVolumeInfo>> volumes;
  for (const platform::MountedVolume& v : service->mountedVolumes()) {
    const std::string key = keyOf(*service, v);
    if (!key.empty() && !volumes.count(key)) volumes.emplace(key, infoFor(v, key));
  }
  return volumes;
}

int GetAdditionalVolumeInfo(const std::string& bsdName) {
  return QSVolumeInfo::volumeService()->mediaClassForBSDName(bsdName);
}

bool DiskInfoForVolumeBSDName(const std::string& bsdName, std::string* wholeDisk, std::string* model,
                              std::string* iconBundle, std::string* iconFile) {
  const auto info = QSVolumeInfo::volumeService()->diskInfoForBSDName(bsdName);
  if (wholeDisk) *wholeDisk = info ? info->wholeDiskBSDName : "";
  if (model) *model = info ? info->model : "";
  if (iconBundle) iconBundle->clear();
  if (iconFile) iconFile->clear();
  return info.has_value();
}

bool VolumeInfoForBSDName(const std::string& bsdName, std::string* mountPath, std::string* volumeName,
                          std::optional<std::string>* uuid) {
  if (mountPath) mountPath->clear();
  if (volumeName) volumeName->clear();
  if (uuid) uuid->reset();
  if (bsdName.empty()) return false;
  for (const platform::MountedVolume& v : QSVolumeInfo::volumeService()->mountedVolumes()) {
    if (v.mountPoint.size() >= kMaxMountPointLength) continue;
    if (v.bsdName != bsdName && !(v.isNetwork && v.serverAddress == bsdName)) continue;
    if (mountPath) *mountPath = v.mountPoint;
    if (volumeName) *volumeName = volumeNameOf(v);
    if (uuid && !v.uuid.empty()) *uuid = v.uuid;
    return true;
  }
  return false;
}

std::string HiddenShareURLForHost(const std::string& host) {
  return percentEscaped(platform::format("%s://;AUTH=%s@%s._afpovertcp._tcp.local/%s", "afp", "No User Authent",
                                         host.c_str(), "Public"));
}

std::string NilSafeString(const std::optional<std::string>& text) { return text ? *text : std::string(); }
