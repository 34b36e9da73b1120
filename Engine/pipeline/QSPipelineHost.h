// What the pipeline stages ask of the engine that runs them (the server):
// whether continuous backup is on and whether copies are skipped.  Both
// answers may change at any time and are read from stage threads.
#pragma once

class QSPipelineHost {
 public:
  virtual ~QSPipelineHost() = default;
  virtual bool supportsContinuousBackup() const = 0;
  virtual bool skipTransfer() const = 0;
};
