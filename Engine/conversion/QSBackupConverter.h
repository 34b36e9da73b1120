// The converter of one volume: runs a QSVessaConversion once, on a worker
// thread of its own, and reports the new backups to its delegate.
//
//  - start makes and starts the thread, under the converter's lock and only
//    the first time; a second start does nothing.
//  - The run makes a conversion of the mount path, runs it (the list of
//    files left behind is not used), keeps the identifiers of the new
//    backups, releases the conversion and then tells the delegate
//    conversionDidFinishByConverter_withNewUIDs (on the worker thread), with
//    an empty list when nothing was converted.
//  - converterState is the running conversion's state, nothing when no
//    conversion runs (before the run, after it).  Any thread may ask.
//  - cancel asks the worker thread to stop; the conversion notices at its
//    next check and stops, leaving the volume in the state it reached.
//  - releaseThread lets go of the worker thread (the delegate calls it
//    after the finish notice).
//  - newUIDsWereAdopted takes the adopted backups off the volume's record
//    of converted backups still to be adopted.
//
// The delegate is not owned and must outlive the run.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Engine/conversion/QSBackupConverterProtocol.h"
#include "Engine/conversion/QSVessaConversionEnvironment.h"
#include "platform/OVThread.h"

class QSVessaConversion;

class QSBackupConverter : public QSBackupConverterProtocol, public std::enable_shared_from_this<QSBackupConverter> {
 public:
  static std::shared_ptr<QSBackupConverter> initWithDelegate_forVolume(
      QSBackupConverterDelegate* delegate, const std::string& mountPath,
      QSVessaConversionEnvironment environment = QSVessaConversionEnvironment::system());

  std::string mountPoint() const override { return mountPoint_; }
  void start() override;
  void cancel() override;
  bool waitUntilFinished(std::chrono::milliseconds timeout) override;
  std::optional<platform::Value> converterState() const override;
  void releaseThread() override;
  void newUIDsWereAdopted(const std::vector<std::string>& uids) override;

  // The identifiers the run reported.
  std::vector<std::string> uids() const;

  QSBackupConverter(QSBackupConverterDelegate* delegate, std::string mountPath, QSVessaConversionEnvironment environment);

 private:
  void run();

  mutable std::mutex lock_;
  QSBackupConverterDelegate* delegate_;
  const std::string mountPoint_;
  std::vector<std::string> uids_;
  std::shared_ptr<QSVessaConversion> converter_;
  std::shared_ptr<platform::OVThread> thread_;
  bool started_ = false;
  QSVessaConversionEnvironment environment_;
};
