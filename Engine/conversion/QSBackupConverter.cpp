#include "Engine/conversion/QSBackupConverter.h"

#include "Engine/conversion/QSVessaConversion.h"
#include "Engine/files/QSBackupFolderWrites.h"

QSBackupConverter::QSBackupConverter(QSBackupConverterDelegate* delegate, std::string mountPath,
                                     QSVessaConversionEnvironment environment)
    : delegate_(delegate), mountPoint_(std::move(mountPath)), environment_(std::move(environment)) {}

std::shared_ptr<QSBackupConverter> QSBackupConverter::initWithDelegate_forVolume(
    QSBackupConverterDelegate* delegate, const std::string& mountPath, QSVessaConversionEnvironment environment) {
  return std::make_shared<QSBackupConverter>(delegate, mountPath, std::move(environment));
}

void QSBackupConverter::start() {
  std::lock_guard<std::mutex> lock(lock_);
  if (started_) return;
  started_ = true;
  auto self = shared_from_this();
  thread_ = platform::OVThread::detachNewThread([self] { self->run(); }, "converter " + mountPoint_);
}

void QSBackupConverter::run() {
  // Conversion moves files into backup folders: walks of them made ahead of
  // time are not used across it.
  const QSBackupFolderWrites::Scope writing;
  std::shared_ptr<QSVessaConversion> conversion =
      QSVessaConversion::initWithPath_delegate(mountPoint_, delegate_, environment_);
  if (conversion) {
    {
      std::lock_guard<std::mutex> lock(lock_);
      converter_ = conversion;
    }
    const auto converted = conversion->convertVessaHierarchy(nullptr);
    std::lock_guard<std::mutex> lock(lock_);
    if (converted)
      for (const auto& [uid, backup] : *converted) uids_.push_back(uid);
    converter_.reset();
  }
  conversion.reset();
  // What walks of this disk read before the conversion no longer stands.
  QSChangeJournal::shared().noteDoubtAbout(mountPoint_);
  const std::vector<std::string> reported = uids();
  if (delegate_) delegate_->conversionDidFinishByConverter_withNewUIDs(shared_from_this(), reported);
}

void QSBackupConverter::cancel() {
  std::lock_guard<std::mutex> lock(lock_);
  if (thread_) thread_->cancel();
}

bool QSBackupConverter::waitUntilFinished(std::chrono::milliseconds timeout) {
  std::shared_ptr<platform::OVThread> thread;
  {
    std::lock_guard<std::mutex> lock(lock_);
    thread = thread_;
  }
  return !thread || thread->waitUntilFinished(timeout);
}

std::optional<platform::Value> QSBackupConverter::converterState() const {
  std::lock_guard<std::mutex> lock(lock_);
  if (!converter_) return std::nullopt;
  return platform::Value(converter_->converterState());
}

void QSBackupConverter::releaseThread() {
  std::lock_guard<std::mutex> lock(lock_);
  thread_.reset();
}

void QSBackupConverter::newUIDsWereAdopted(const std::vector<std::string>& uids) {
  QSVessaConversion::forgetAdoptedBackups(mountPoint_, uids);
}

std::vector<std::string> QSBackupConverter::uids() const {
  std::lock_guard<std::mutex> lock(lock_);
  return uids_;
}
