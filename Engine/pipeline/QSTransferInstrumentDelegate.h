// Who hears of the failures of a transfer instrument.
#pragma once

#include <memory>

#include "Engine/records/QSBackupError.h"

class QSTransferInstrument;

class QSTransferInstrumentDelegate {
 public:
  virtual ~QSTransferInstrumentDelegate() = default;
  // Called for each folder that could not be created and each file that
  // could not be copied, before the instrument counts the failure.
  virtual void transferInstrument_error(QSTransferInstrument& instrument, const std::shared_ptr<QSBackupError>& error) = 0;
};
