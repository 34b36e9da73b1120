#include "ipc/QSTallyAdaptor.h"

#include "ipc/WireCoding.h"

namespace {

using Counts = std::tuple<int64_t, int64_t>;

template <class Read>
Counts read(Read&& read) {
  int64_t files = 0;
  int64_t bytes = 0;
  read(&files, &bytes);
  return {files, bytes};
}

}  // namespace

QSTallyAdaptor::QSTallyAdaptor(sdbus::IConnection& connection, std::string path, std::shared_ptr<const QSTally> tally)
    : AdaptorInterfaces(connection, std::move(path)), tally_(std::move(tally)) {
  registerAdaptor();
}

QSTallyAdaptor::~QSTallyAdaptor() { unregisterAdaptor(); }

Counts QSTallyAdaptor::getSourceFileCount_byteCount_forCategory(const std::string& category) {
  return read([&](int64_t* f, int64_t* b) { tally_->getSourceFileCount_byteCount_forCategory(f, b, category); });
}

Counts QSTallyAdaptor::getDestinationFileCount_byteCount_forCategory(const std::string& category) {
  return read([&](int64_t* f, int64_t* b) { tally_->getDestinationFileCount_byteCount_forCategory(f, b, category); });
}

Counts QSTallyAdaptor::getTransferredFileCount_byteCount_forCategory(const std::string& category) {
  return read([&](int64_t* f, int64_t* b) { tally_->getTransferredFileCount_byteCount_forCategory(f, b, category); });
}

Counts QSTallyAdaptor::getExpectedFileCount_byteCount_forCategory(const std::string& category) {
  return read([&](int64_t* f, int64_t* b) { tally_->getExpectedFileCount_byteCount_forCategory(f, b, category); });
}

Counts QSTallyAdaptor::getTotalSourceFileCount_byteCount() {
  return read([&](int64_t* f, int64_t* b) { tally_->getTotalSourceFileCount_byteCount(f, b); });
}

Counts QSTallyAdaptor::getTotalDestinationFileCount_byteCount() {
  return read([&](int64_t* f, int64_t* b) { tally_->getTotalDestinationFileCount_byteCount(f, b); });
}

Counts QSTallyAdaptor::getTotalTransferredFileCount_byteCount() {
  return read([&](int64_t* f, int64_t* b) { tally_->getTotalTransferredFileCount_byteCount(f, b); });
}

Counts QSTallyAdaptor::getTotalExpectedFileCount_byteCount() {
  return read([&](int64_t* f, int64_t* b) { tally_->getTotalExpectedFileCount_byteCount(f, b); });
}

wire::TallyWire QSTallyAdaptor::snapshot() { return wire::toWire<wire::TallyWire>(*tally_); }

std::string QSTallyAdaptor::description() { return tally_->description(); }
