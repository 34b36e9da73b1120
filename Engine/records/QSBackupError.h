// What the engine tells a client about a file it could not copy (or a
// folder it could not create) during a backup.
//
// The record travels by copy.  Its port coding is, in this order: `code`,
// `sourceBytes`, then `uid`, `message`, `destinationPath`, `sourcePath` and
// `sourceModificationDate` (the optional ones as arrays of zero or one item).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Engine/records/QSCoder.h"
#include "platform/Date.h"

class QSBackupError {
 public:
  static constexpr const char* kClassName = "QSBackupError";

  QSBackupError() = default;
  static std::shared_ptr<QSBackupError> initWithUID_sourcePath_destinationPath_message_code(
      std::optional<std::string> uid, std::optional<std::string> sourcePath, std::string destinationPath,
      std::string message, int64_t code);
  static std::shared_ptr<QSBackupError> initWithCoder(QSDecoder& coder);
  void encodeWithCoder(QSEncoder& coder) const;

  const std::optional<platform::Date>& sourceModificationDate() const { return sourceModificationDate_; }
  int64_t sourceBytes() const { return sourceBytes_; }
  const std::optional<std::string>& sourcePath() const { return sourcePath_; }
  const std::string& destinationPath() const { return destinationPath_; }
  const std::string& message() const { return message_; }
  const std::optional<std::string>& uid() const { return uid_; }
  int64_t code() const { return code_; }

  void setSourceModificationDate(std::optional<platform::Date> date) { sourceModificationDate_ = date; }
  void setSourceBytes(int64_t bytes) { sourceBytes_ = bytes; }
  // The pipeline stamps the backup's uid on an error before it is sent.
  void setUID(std::optional<std::string> uid) { uid_ = std::move(uid); }

  // `sourceBytes` as a number.
  int64_t size() const { return sourceBytes_; }
  // The last path component of `sourcePath` (empty without one).
  std::string name() const;

  // The multi-line text of the record, as logs and clients print it.
  std::string description() const;

  bool operator==(const QSBackupError&) const = default;

 private:
  std::optional<platform::Date> sourceModificationDate_;
  int64_t sourceBytes_ = 0;
  std::optional<std::string> sourcePath_;
  std::string destinationPath_;
  std::string message_;
  std::optional<std::string> uid_;
  int64_t code_ = 0;
};
