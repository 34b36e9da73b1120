// A tally lent to a client by reference: com.qsc.skerrow.QSTally at its own
// object path.  Every read answers the engine's counters as they are at
// that moment; `snapshot` answers all four views at once, by copy.
#pragma once

#include <memory>
#include <string>

#include <sdbus-c++/sdbus-c++.h>

#include "Engine/records/QSTally.h"
#include "ipc/SkerrowAdaptors.h"
#include "ipc/WireTypes.h"

class QSTallyAdaptor : public sdbus::AdaptorInterfaces<com::qsc::skerrow::QSTally_adaptor> {
 public:
  QSTallyAdaptor(sdbus::IConnection& connection, std::string path, std::shared_ptr<const QSTally> tally);
  ~QSTallyAdaptor();

  const std::shared_ptr<const QSTally>& tally() const { return tally_; }

 private:
  using Counts = std::tuple<int64_t, int64_t>;
  Counts getSourceFileCount_byteCount_forCategory(const std::string& category) override;
  Counts getDestinationFileCount_byteCount_forCategory(const std::string& category) override;
  Counts getTransferredFileCount_byteCount_forCategory(const std::string& category) override;
  Counts getExpectedFileCount_byteCount_forCategory(const std::string& category) override;
  Counts getTotalSourceFileCount_byteCount() override;
  Counts getTotalDestinationFileCount_byteCount() override;
  Counts getTotalTransferredFileCount_byteCount() override;
  Counts getTotalExpectedFileCount_byteCount() override;
  wire::TallyWire snapshot() override;
  std::string description() override;

  const std::shared_ptr<const QSTally> tally_;
};
