#include "Engine/server/QSSkerrowServer.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>

#include "Engine/files/QSBlackList.h"
#include "Engine/files/QSChangeJournal.h"
#include "Engine/files/QSCreationDateCache.h"
#include "Engine/files/QSFSNodeStack.h"
#include "Engine/files/QSWarmWalk.h"
#include "Engine/records/QSVolumeFunctions.h"
#include "platform/Deadline.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/Memory.h"
#include "platform/Process.h"
#include "platform/Workspace.h"

namespace {

std::mutex gClassLock;
// The single server lives as long as the process: it is never destroyed, not even at exit.
std::shared_ptr<QSSkerrowServer>& gInstance = *new std::shared_ptr<QSSkerrowServer>();

constexpr const char* kDefaultStoreDir = "/Library/Application Support/Vornhalden/";
constexpr const char* kUserStoreSuffix = "/Library/Application Support/Vornhalden/";

}  // namespace

std::shared_ptr<QSSkerrowServer> QSSkerrowServer::allocWithZone() {
  std::lock_guard<std::mutex> lock(gClassLock);
  if (gInstance) return nullptr;
  return std::make_shared<QSSkerrowServer>(Passkey());
}

std::shared_ptr<QSSkerrowServer> QSSkerrowServer::instance() {
  {
    std::lock_guard<std::mutex> lock(gClassLock);
    if (gInstance) return gInstance;
  }
  initialize();
  std::lock_guard<std::mutex> lock(gClassLock);
  if (!gInstance) {
    auto server = std::make_shared<QSSkerrowServer>(Passkey());
    server->init(QSServerEnvironment::current());
    gInstance = std::move(server);
  }
  return gInstance;
}

std::shared_ptr<QSSkerrowServer> QSSkerrowServer::initWithEnvironment(const QSServerEnvironment& environment) {
  initialize();
  auto server = std::make_shared<QSSkerrowServer>(Passkey());
  server->init(environment);
  return server;
}

const std::string& QSSkerrowServer::machineName() {
  static const std::string name = platform::Process::machineName();
  return name;
}

void QSSkerrowServer::initialize() { QSBlackList::initialize(); }

QSSkerrowServer::~QSSkerrowServer() {
  for (auto id : workspaceObservers_) workspace_->removeObserver(id);
  if (runLoop_ && timer_ && runLoop_->isLoopThread()) runLoop_->removeSource(timer_);
  // Stage and converter threads call back into the server: they end before it goes.
  stopConverters(std::chrono::seconds(30));
  stopPipeline(std::chrono::seconds(30));
}

bool QSSkerrowServer::stopPipeline(std::chrono::milliseconds timeout) {
  // No event reaches the stages once they stop.
  if (watcher_) {
    watcher_->setDelegate(nullptr);
    watcher_->stop(std::min(timeout, std::chrono::milliseconds(1000)));
  }
  // Both stages are told before either is waited for.
  if (firstStage_) firstStage_->stopAll(std::chrono::milliseconds(0));
  if (secondStage_) secondStage_->stopAll(std::chrono::milliseconds(0));
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  bool ended = true;
  if (firstStage_) ended = firstStage_->stopAll(platform::timeLeftUntil(deadline)) && ended;
  if (secondStage_) ended = secondStage_->stopAll(platform::timeLeftUntil(deadline)) && ended;
  return ended;
}

platform::Date QSSkerrowServer::now() const { return clock_ ? clock_() : platform::Date::now(); }

void QSSkerrowServer::init(const QSServerEnvironment& environment) {
  // The trees, recordings and memos of each backup are large and short-lived.
  platform::Memory::keepLargeBlocksApart();
  followSchedule_ = true;
  withoutContinuousBackup_ = false;
  bool userApp = false;
  const auto& arguments = environment.arguments;
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (QSNameIs(argument, "-fullWalkHours") && i + 1 < arguments.size()) {
      const std::string& value = arguments[++i];
      char* end = nullptr;
      const double hours = std::strtod(value.c_str(), &end);
      if (end == value.c_str() || *end != '\0' || !(hours >= 0)) {
        platform::Log::format("-fullWalkHours wants a number of hours, not \"%s\": left at %g", value.c_str(),
                              QSWarmWalk::fullWalkInterval() / 3600);
      } else {
        QSWarmWalk::setFullWalkInterval(hours * 3600);
        platform::Log::format("Backup engine configured to read every folder at least every %g hours", hours);
      }
    } else if (QSNameIs(argument, "-userApp")) {
      userApp = true;
      dbDir_ = environment.invokingUserHome + kUserStoreSuffix;
      platform::Log::format("Backup engine configured with the database at %s", dbDir_.c_str());
    } else if (QSNameIs(argument, "-skipTransfer")) {
      skipTransfer_ = true;
      platform::Log::line("Backup engine configured to skip actual file transfer (copy)");
    } else if (QSNameIs(argument, "-noSchedule")) {
      followSchedule_ = false;
      platform::Log::line("Backup engine configured NOT to follow schedule; will schedule backups one after another");
    } else if (QSNameIs(argument, "-noRealtime")) {
      withoutContinuousBackup_ = true;
      platform::Log::line("Backup engine configured NOT to run realtime backup");
    }
  }
  if (!userApp) dbDir_ = environment.storeRoot.value_or("") + kDefaultStoreDir;

  runLoop_ = environment.runLoop;
  timerInterval_ = followSchedule_ ? jobSchedulingTimerPeriod() : 10.0;
  if (runLoop_) {
    std::weak_ptr<QSSkerrowServer> weak = self<QSSkerrowServer>();
    timer_ = runLoop_->addRepeatingTimer(timerInterval_, [weak] {
      if (auto server = weak.lock()) server->callbackForJobSchedulingTimer();
    });
  }

  if (!platform::FileManager::fileExistsAtPath_traverseLink(dbDir_, false))
    platform::FileManager::insureDirectoryAtPath(dbDir_);
  // The creation dates of stored copies are kept beside the database.
  QSCreationDateCache::setStoreFolder(dbDir_);
  // The engine's own writes are never heard of; its store may lie in a home (-userApp).
  QSChangeJournal::shared().noteOwnFolder(dbDir_);

  converterFactory_ = environment.converterFactory;
  clock_ = environment.clock;
  loadBackupDatabase();
  outcomes_.loadFromFolder(dbDir_);
  firstStage_ = std::make_unique<QSFirstStage>(environment.accounts, environment.startPipelineThreads);
  for (const auto& [userName, expression] : exclusionFilterMap_) {
    try {
      installExclusionFilter(userName, expression);
    } catch (const platform::Exception& e) {
      platform::Log::format("%s", e.description().c_str());
    }
  }
  secondStage_ = std::make_unique<QSSecondStage>(this, nullptr, environment.startPipelineThreads);

  workspace_ = environment.workspace;
  if (workspace_) {
    std::weak_ptr<QSSkerrowServer> weak = self<QSSkerrowServer>();
    auto observe = [weak](const platform::Notification& n) {
      if (auto server = weak.lock()) server->observeWorkspaceNotification(n);
    };
    workspaceObservers_.push_back(workspace_->addObserver(platform::NSWorkspaceDidMountNotification, nullptr, observe));
    workspaceObservers_.push_back(
        workspace_->addObserver(platform::NSWorkspaceDidUnmountNotification, nullptr, observe));
  }

  if (supportsContinuousBackup() && environment.watcher) startWatcher(environment.watcher);
}

void QSSkerrowServer::exit() { platform::Process::terminateImmediately(0); }

platform::Dictionary QSSkerrowServer::registrationDictionaryForGrowl() const {
  const platform::Array all = {platform::Value("Awake"), platform::Value("Disk mounted"),
                               platform::Value("Disk ejected"), platform::Value("Finished backup")};
  return platform::Dictionary{{"AllNotifications", platform::Value(all)}, {"DefaultNotifications", platform::Value(all)}};
}

void QSSkerrowServer::observeWorkspaceNotification(const platform::Notification& notification) {
  const platform::Value* device = notification.userInfo.find(platform::kNSDevicePathKey);
  const std::string path = device && device->isString() ? *device->asString() : std::string();
  if (notification.name == platform::NSWorkspaceDidMountNotification) {
    if (path.empty()) return;
    auto volume = QSVolumeInfoForPath(path);
    if (!volume) return;
    diskDidAppearWithBSDName_mountPath_onVolume(volume->bsdName(), volume->mountPoint(), volume->volumeName());
  } else if (notification.name == platform::NSWorkspaceDidUnmountNotification) {
    if (!path.empty()) diskDidDisapperAtMountPoint(path);
  }
}
