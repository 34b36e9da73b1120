#include "Engine/records/QSBackupError.h"

#include "platform/Exception.h"
#include "platform/Format.h"

namespace {

const char* orNull(const std::optional<std::string>& value) { return value ? value->c_str() : "(null)"; }

}  // namespace

std::shared_ptr<QSBackupError> QSBackupError::initWithUID_sourcePath_destinationPath_message_code(
    std::optional<std::string> uid, std::optional<std::string> sourcePath, std::string destinationPath,
    std::string message, int64_t code) {
  auto error = std::make_shared<QSBackupError>();
  error->uid_ = std::move(uid);
  error->sourcePath_ = std::move(sourcePath);
  error->destinationPath_ = std::move(destinationPath);
  error->message_ = std::move(message);
  error->code_ = code;
  return error;
}

std::string QSBackupError::name() const {
  if (!sourcePath_) return {};
  const std::string& path = *sourcePath_;
  size_t end = path.size();
  while (end > 1 && path[end - 1] == '/') --end;
  const size_t slash = path.rfind('/', end - 1);
  return slash == std::string::npos ? path.substr(0, end) : path.substr(slash + 1, end - slash - 1);
}

std::string QSBackupError::description() const {
  const std::string date = sourceModificationDate_ ? sourceModificationDate_->description() : "(null)";
  return platform::format("%s: {\n", kClassName) + platform::format("uid:           %s\n", orNull(uid_)) +
         platform::format("code:          %lld\n", static_cast<long long>(code_)) +
         platform::format("message:       %s\n", message_.c_str()) +
         platform::format("source path:   %s\n", orNull(sourcePath_)) +
         platform::format("dest path:     %s\n", destinationPath_.c_str()) +
         platform::format("file size:     %lld\n", static_cast<long long>(sourceBytes_)) +
         platform::format("mod date:      %s", date.c_str()) + "}\n";
}

void QSBackupError::encodeWithCoder(QSEncoder& coder) const {
  coder.encodeInt64(code_);
  coder.encodeInt64(sourceBytes_);
  coder.encodeOptionalString(uid_);
  coder.encodeString(message_);
  coder.encodeString(destinationPath_);
  coder.encodeOptionalString(sourcePath_);
  coder.beginArray(sourceModificationDate_ ? 1 : 0);
  if (sourceModificationDate_) coder.encodeDate(*sourceModificationDate_);
  coder.endArray();
}

std::shared_ptr<QSBackupError> QSBackupError::initWithCoder(QSDecoder& coder) {
  auto error = std::make_shared<QSBackupError>();
  error->code_ = coder.decodeInt64();
  error->sourceBytes_ = coder.decodeInt64();
  error->uid_ = coder.decodeOptionalString();
  error->message_ = coder.decodeString();
  error->destinationPath_ = coder.decodeString();
  error->sourcePath_ = coder.decodeOptionalString();
  const size_t dates = coder.beginArray();
  if (dates > 1) throw platform::Exception(kInvalidUnarchiveOperationException, "a modification date list holds one date at most");
  if (dates == 1) error->sourceModificationDate_ = coder.decodeDate();
  coder.endArray();
  return error;
}
