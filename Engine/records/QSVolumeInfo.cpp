#include "Engine/records/QSVolumeInfo.h"

#include <utility>

#include "platform/Format.h"

namespace {

// Characters a URL path keeps as they are; every other byte is written %XX.
bool isPathCharacter(unsigned char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  switch (c) {
    case '-': case '.': case '_': case '~': case '!': case '$': case '&': case '\'': case '(':
    case ')': case '*': case '+': case ',': case ';': case '=': case ':': case '@': case '/':
      return true;
    default:
      return false;
  }
}

std::string percentEncodedPath(const std::string& path) {
  static const char hex[] = "0123456789ABCDEF";
  std::string encoded;
  encoded.reserve(path.size());
  for (const char ch : path) {
    const auto c = static_cast<unsigned char>(ch);
    if (isPathCharacter(c)) {
      encoded += ch;
    } else {
      encoded += '%';
      encoded += hex[c >> 4];
      encoded += hex[c & 0xF];
    }
  }
  return encoded;
}

std::mutex serviceMutex;
std::shared_ptr<platform::VolumeService> installedService;

}  // namespace

QSVolumeInfo::QSVolumeInfo(Passkey, int32_t ref, std::string mountPoint, std::string volumeName, std::string bsdName)
    : ref_(ref), mountPoint_(std::move(mountPoint)), volumeName_(std::move(volumeName)), bsdName_(std::move(bsdName)) {}

std::shared_ptr<QSVolumeInfo> QSVolumeInfo::initWithRef_mountPoint_volumeName_bsdName(int32_t ref,
                                                                                     const std::string& mountPoint,
                                                                                     const std::string& volumeName,
                                                                                     const std::string& bsdName) {
  return std::make_shared<QSVolumeInfo>(Passkey(), ref, mountPoint, volumeName, bsdName);
}

std::string QSVolumeInfo::url() const {
  std::lock_guard<std::mutex> lock(urlMutex_);
  if (!url_) {
    // A folder's URL ends with a slash; the root's path already is one.
    std::string path = percentEncodedPath(mountPoint_);
    if (path.empty() || path.back() != '/') path += '/';
    url_ = "file://" + path;
  }
  return *url_;
}

std::string QSVolumeInfo::description() const {
  std::string text = platform::format("<QSVolumeInfo: %p>", static_cast<const void*>(this));
  text += "{\n";
  text += platform::format("ref:      %d\n", ref_);
  {
    std::lock_guard<std::mutex> lock(urlMutex_);
    if (url_) text += platform::format("url:      %s\n", url_->c_str());
  }
  text += platform::format("path:     %s\n", mountPoint_.c_str());
  text += platform::format("name:     %s\n", volumeName_.c_str());
  text += platform::format("bsd name: %s\n", bsdName_.c_str());
  text += "}";
  return text;
}

void QSVolumeInfo::setVolumeService(std::shared_ptr<platform::VolumeService> service) {
  std::lock_guard<std::mutex> lock(serviceMutex);
  installedService = std::move(service);
}

std::shared_ptr<platform::VolumeService> QSVolumeInfo::volumeService() {
  {
    std::lock_guard<std::mutex> lock(serviceMutex);
    if (installedService) return installedService;
  }
  return platform::VolumeService::system();
}
