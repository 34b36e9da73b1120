// What the pipeline stages ask of the engine that runs them (the server):
// whether continuous backup is on, whether copies are skipped, and whether a
// transfer follows the plan its dry run made (opening only the folders with
// work) or opens every folder.  The answers may change at any time and are
// read from stage threads.
#pragma once

class QSPipelineHost {
 public:
  virtual ~QSPipelineHost() = default;
  virtual bool supportsContinuousBackup() const = 0;
  virtual bool skipTransfer() const = 0;
  virtual bool planTransfers() const { return true; }
};
