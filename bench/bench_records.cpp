// Costs of the record layer: versioned names (made and parsed for every
// stored file) and the database file (read at start-up, written after every
// change).
#include <benchmark/benchmark.h>

#include <string>

#include "Engine/records/QSBackupEntry.h"
#include "Engine/records/QSUUID.h"
#include "Engine/records/QSVersionName.h"
#include "platform/PropertyList.h"

static void BM_QSVersionName(benchmark::State& state) {
  uint64_t v = 0;
  for (auto _ : state) benchmark::DoNotOptimize(QSVersionName("holiday photo.jpeg", v++));
}
BENCHMARK(BM_QSVersionName);

static void BM_QSParseFileName(benchmark::State& state) {
  const std::string names[] = {"holiday photo@12.jpeg", "report.txt", "archive.tar@2.gz", "mail@home.txt"};
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(QSParseFileName(names[i++ & 3]));
}
BENCHMARK(BM_QSParseFileName);

namespace {
platform::Value database(int entries) {
  platform::Array backups;
  for (int i = 0; i < entries; ++i) {
    auto e = QSBackupEntry::initWithUID(GenerateGUID());
    e->setShortUserName("user" + std::to_string(i));
    e->setUserHome("/home/user" + std::to_string(i));
    e->setVersionDepth(5);
    e->setPeriod(3600);
    backups.emplace_back(e->archive());
  }
  return platform::Value(platform::Dictionary{{"managed-backups", platform::Value(backups)},
                                              {"managed-users", platform::Value(platform::Dictionary{})}});
}
}  // namespace

static void BM_DatabaseToXML(benchmark::State& state) {
  const platform::Value db = database(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(platform::PropertyList::toBytes(db, platform::PropertyList::Format::XML));
}
BENCHMARK(BM_DatabaseToXML)->Arg(10)->Arg(100);

static void BM_DatabaseFromXMLToEntries(benchmark::State& state) {
  const std::string bytes =
      *platform::PropertyList::toBytes(database(static_cast<int>(state.range(0))), platform::PropertyList::Format::XML);
  for (auto _ : state) {
    auto value = platform::PropertyList::fromBytes(bytes);
    for (const auto& archive : *value->asDictionary()->find("managed-backups")->asArray())
      benchmark::DoNotOptimize(QSBackupEntry::initWithArchive(*archive.asDictionary()));
  }
}
BENCHMARK(BM_DatabaseFromXMLToEntries)->Arg(10)->Arg(100);
