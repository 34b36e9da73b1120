// The bus types of the records that travel by copy, as the wire contract
// (data/com.qsc.skerrow.xml) declares them; see WireCoding.h for how a
// record's coding fills them.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <sdbus-c++/Types.h>

namespace wire {

// A category: isScheduled, identifier, userInfo.
using CategoryWire = sdbus::Struct<bool, std::string, std::map<std::string, sdbus::Variant>>;
// A backup entry, its fields in coding order.
using EntryWire = sdbus::Struct<bool, bool, std::string, std::string, std::string, std::string, std::string,
                                std::string, std::string, std::string, std::string, std::map<std::string, CategoryWire>,
                                double, double, uint32_t, std::vector<std::string>>;
using DatabaseWire = std::map<std::string, EntryWire>;
// One counter of a tally: a struct of one 64-bit integer.
using CounterWire = sdbus::Struct<int64_t>;
using TallyViewWire = std::map<std::string, std::vector<CounterWire>>;
// A tally: source, destination, transferred, expected.
using TallyWire = sdbus::Struct<TallyViewWire, TallyViewWire, TallyViewWire, TallyViewWire>;
// A copy error: code, sourceBytes, uid?, message, destinationPath, sourcePath?, sourceModificationDate?.
using ErrorWire = sdbus::Struct<int64_t, int64_t, std::vector<std::string>, std::string, std::string,
                                std::vector<std::string>, std::vector<double>>;
// The heartbeat: time, date.
using HeartbeatWire = sdbus::Struct<double, double>;
// A backup's last outcome: uid, kind, state, started, ended, filesCopied,
// bytesCopied, filesExpected, bytesExpected, failedFiles, commonFailure,
// commonFailureCount, sequence.
using OutcomeWire = sdbus::Struct<std::string, std::string, std::string, double, double, int64_t, int64_t, int64_t,
                                  int64_t, int64_t, std::string, int64_t, uint64_t>;

}  // namespace wire
