#include "Engine/pipeline/QSFSWatcherEvent.h"

#include "platform/Format.h"

const char* const kfseNames[kFSEventTypeCount] = {
    "FSE_CREATE_FILE", "FSE_DELETE", "FSE_STAT_CHANGED",        "FSE_RENAME", "FSE_CONTENT_MODIFIED",
    "FSE_EXCHANGE",    "FSE_FINDER_INFO_CHANGED", "FSE_CREATE_DIR", "FSE_CHOWN", "FSE_XATTR_MODIFIED",
    "FSE_XATTR_REMOVED",
};

std::string QSFSWatcherEvent::description() const {
  const std::string object = platform::format("<QSFSWatcherEvent: %p>", static_cast<const void*>(this));
  const char* name = type_ >= 0 && type_ < kFSEventTypeCount ? kfseNames[type_] : "?";
  const std::string path = args_.empty() ? "(null)" : args_.front();
  return platform::format("<%s>, type: %s, path: %s", object.c_str(), name, path.c_str());
}
