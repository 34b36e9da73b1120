// An engine server for one test: its own permanent store, a manual main
// loop, a private workspace centre, two made-up accounts (ann and bob with
// homes in the test's folder), a settable clock and converters that only
// record what is asked of them.  Pipeline threads are not started unless
// asked for: tests run cycles and jobs by hand.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Engine/conversion/QSBackupConverter.h"
#include "Engine/files/QSBlackList.h"
#include "Engine/records/QSBackupAttributes.h"
#include "Engine/records/QSBackupEntry.h"
#include "Engine/server/QSSkerrowServer.h"
#include "platform/Log.h"
#include "platform/ManualRunLoop.h"
#include "platform/PropertyList.h"
#include "platform/UserDatabase.h"
#include "tests/support/TempDir.h"

namespace skerrow_test {

class RecordingConverter : public QSBackupConverterProtocol {
 public:
  explicit RecordingConverter(std::string mountPoint) : mountPoint_(std::move(mountPoint)) {}
  std::string mountPoint() const override { return mountPoint_; }
  void start() override { started = true; }
  void releaseThread() override { released = true; }
  std::optional<platform::Value> converterState() const override { return platform::Value("scanning"); }
  void cancel() override { cancelled = true; }
  void newUIDsWereAdopted(const std::vector<std::string>& uids) override { adopted = uids; }
  bool started = false;
  bool released = false;
  bool cancelled = false;
  std::vector<std::string> adopted;

 private:
  std::string mountPoint_;
};

struct ServerOptions {
  std::string root;  // the store root; the fixture's own folder when empty
  bool withConverters = true;
  std::vector<std::string> arguments = {"-noRealtime"};
  bool threads = false;
  std::shared_ptr<QSFSWatcher> watcher;  // the continuous-backup watcher, when wanted

  static ServerOptions atRoot(std::string root) {
    ServerOptions options;
    options.root = std::move(root);
    return options;
  }
};

class ServerFixture {
 public:
  using Options = ServerOptions;

  explicit ServerFixture(Options options = Options()) {
    // The shipped black list, whatever another test installed before.
    const auto shipped = platform::PropertyList::readFile(QSBlackList::defaultSettingsFilePath());
    QSBlackList::initializeWithInfoDictionary(shipped && shipped->isDictionary() ? *shipped->asDictionary()
                                                                              : platform::Dictionary());
    annHome = dir.mkdir("home/ann");
    bobHome = dir.mkdir("home/bob");
    accounts = std::make_unique<platform::FixedAccountDirectory>(std::vector<platform::UserAccount>{
        {"ann", "Ann", annHome, 1000, 1000}, {"bob", "Bob", bobHome, 1001, 1001}, {"daemon", "", "/", 1, 1}});
    QSServerEnvironment env;
    env.arguments = {"/usr/sbin/skerrowd"};
    env.arguments.insert(env.arguments.end(), options.arguments.begin(), options.arguments.end());
    env.invokingUserHome = annHome;
    env.storeRoot = options.root.empty() ? dir.mkdir("root") : options.root;
    env.runLoop = &loop;
    env.workspace = &workspace;
    env.accounts = accounts.get();
    env.startPipelineThreads = options.threads;
    env.clock = [this] { return clock; };
    env.watcher = options.watcher;
    if (options.withConverters) {
      env.converterFactory = [this](const std::string& mountPath, QSBackupConverterDelegate*) {
        auto converter = std::make_shared<RecordingConverter>(mountPath);
        converters.push_back(converter);
        return converter;
      };
    }
    server = QSSkerrowServer::initWithEnvironment(env);
  }

  std::string disk(const std::string& name) const { return dir.mkdir("media/" + name); }
  static std::string storage(const std::string& disk) { return disk + "/" + kBackupDestinationDirectoryName; }

  // A backup folder with its metadata on `disk`; the entry is not put in the table.
  std::shared_ptr<QSBackupEntry> putBackupOnDisk(const std::string& disk, const std::string& uid,
                                                 const std::string& user,
                                                 const std::set<std::string>& scheduledCategories = {"Documents"},
                                                 const std::optional<std::string>& exclusion = std::nullopt) const {
    auto entry = QSBackupEntry::initWithUID(uid);
    entry->setShortUserName(user);
    entry->setLongUserName(user);
    entry->setUserHome(user == "bob" ? bobHome : annHome);
    for (const auto& category : scheduledCategories) entry->categoryWithIdentifier(category)->setScheduled(true);
    if (exclusion) entry->setExclusionExpression(exclusion);
    const std::string folder = storage(disk) + "/" + uid;
    dir.mkdir(folder.substr(dir.path().size() + 1));
    platform::PropertyList::writeFile(folder + "/" + kMetadataFileName, platform::Value(entry->metadataForBackupDir()));
    return entry;
  }

  // A managed (persistent, scheduled) backup on `disk`, in the table; the disk is not announced.
  std::shared_ptr<QSBackupEntry> adoptBackup(const std::string& disk, const std::string& uid, const std::string& user,
                                             const std::set<std::string>& scheduledCategories = {"Documents"}) {
    auto entry = putBackupOnDisk(disk, uid, user, scheduledCategories);
    entry->setPersistent(true);
    entry->setScheduled(true);
    server->setBackupEntry_forUID(entry, uid);
    return entry;
  }

  TempDir dir;
  platform::ManualRunLoop loop;
  platform::NotificationCenter workspace;
  platform::LogCapture log;
  std::string annHome, bobHome;
  std::unique_ptr<platform::FixedAccountDirectory> accounts;
  platform::Date clock{700000000.0};
  std::vector<std::shared_ptr<RecordingConverter>> converters;
  std::shared_ptr<QSSkerrowServer> server;
};

}  // namespace skerrow_test
