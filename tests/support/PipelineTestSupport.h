// Helpers for the tests of the backup pipeline: a client that records its
// callbacks, a token delegate that records each run, a transfer-instrument
// delegate that records each failure, a pipeline host with switches, and
// the source tree and merged source/destination tree of a real home folder.
#pragma once

#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <any>
#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Engine/clients/QSBackupClientProtocol.h"
#include "Engine/files/FSSourceTraversal.h"
#include "Engine/files/QSBlackList.h"
#include "Engine/files/QSFSDepthFirstTreeTraversal.h"
#include "Engine/files/QSSourceTreeBuilder.h"
#include "Engine/pipeline/QSPerUIDEnvironment.h"
#include "Engine/pipeline/QSPipelineHost.h"
#include "Engine/pipeline/QSToken.h"
#include "Engine/pipeline/QSTransferInstrument.h"
#include "Engine/pipeline/QSTransferInstrumentDelegate.h"
#include "Engine/pipeline/QSUserEnvironment.h"
#include "Engine/records/QSBackupError.h"
#include "Engine/records/QSCategoryIdentifiers.h"
#include "Engine/records/QSMutableTally.h"
#include "platform/Exception.h"
#include "platform/NotificationCenter.h"
#include "platform/PropertyList.h"
#include "tests/support/CallbackRoutingClient.h"
#include "tests/support/TempDir.h"

namespace skerrow_test {

// The black list as shipped (other tests replace it).
inline void useShippedBlackList() {
  auto shipped = platform::PropertyList::readFile(QSBlackList::defaultSettingsFilePath());
  QSBlackList::initializeWithInfoDictionary(shipped && shipped->isDictionary() ? *shipped->asDictionary()
                                                                               : platform::Dictionary());
}

inline std::set<std::string> allCategories() { return {kAllCategories.begin(), kAllCategories.end()}; }

// Files and bytes of one category in each view of a tally.
struct Counts {
  int64_t files = 0;
  int64_t bytes = 0;
  bool operator==(const Counts&) const = default;
};
// One view's counts, read with that view's getter.
inline Counts countsOf(const QSTally& t, void (QSTally::*get)(int64_t*, int64_t*, const std::string&) const,
                       const std::string& category) {
  Counts c;
  (t.*get)(&c.files, &c.bytes, category);
  return c;
}
inline Counts sourceCounts(const QSTally& t, const std::string& category) {
  return countsOf(t, &QSTally::getSourceFileCount_byteCount_forCategory, category);
}
inline Counts destinationCounts(const QSTally& t, const std::string& category) {
  return countsOf(t, &QSTally::getDestinationFileCount_byteCount_forCategory, category);
}
inline Counts transferredCounts(const QSTally& t, const std::string& category) {
  return countsOf(t, &QSTally::getTransferredFileCount_byteCount_forCategory, category);
}
inline Counts expectedCounts(const QSTally& t, const std::string& category) {
  return countsOf(t, &QSTally::getExpectedFileCount_byteCount_forCategory, category);
}
// Source files over every category of the source view.
inline int64_t totalSourceFiles(const QSTally& t) {
  int64_t files = 0, bytes = 0;
  t.getTotalSourceFileCount_byteCount(&files, &bytes);
  return files;
}

// A client that records every callback in order (name, then the uid or
// paths it carried), with the tally it was handed.  `onCall` runs after a
// call is recorded, outside the client's mutex, on the calling thread.
// `failCalls(n)` makes the next n calls raise the platform's exception, as
// a client whose connection has died does.
class CallLogClient : public CallbackRoutingClient {
 public:
  struct Call {
    std::string name;
    std::string argument;
    Tally tally;
  };

  explicit CallLogClient(uint64_t errorLimit = 100) : errorLimit_(errorLimit) {}

  std::function<void(const std::string& name)> onCall;

  void failCalls(int n) { failuresLeft_.store(n); }

  std::vector<Call> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  // "name" or "name argument" for each call.
  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    for (const auto& call : calls()) out.push_back(call.argument.empty() ? call.name : call.name + " " + call.argument);
    return out;
  }
  size_t count(const std::string& name) const {
    size_t n = 0;
    for (const auto& call : calls()) n += call.name == name;
    return n;
  }
  std::vector<QSBackupError> errors() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return errors_;
  }
  // The tally of the last call of that name, or nullptr.
  Tally lastTally(const std::string& name) const {
    Tally found;
    for (const auto& call : calls())
      if (call.name == name) found = call.tally;
    return found;
  }

  uint64_t maximumContiguousErrorsClientWants() override {
    callback("maximumContiguousErrors", "", nullptr);
    return errorLimit_;
  }
  std::string userHome() override { return "/home/ann"; }
  std::string shortUserName() override { return "ann"; }
  std::string longUserName() override { return "Ann Example"; }

 protected:
  void received(const QSBackupError& e) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      errors_.push_back(e);
    }
    callback("error", e.destinationPath(), nullptr);
  }
  void callback(const std::string& name, const std::string& argument, const Tally& tally) override {
    if (failuresLeft_.load() > 0) {
      failuresLeft_.fetch_sub(1);
      throw platform::Exception(platform::kObjectInaccessibleException, "connection went invalid while waiting for a reply");
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      calls_.push_back({name, argument, tally});
    }
    if (onCall) onCall(name);
  }

 private:
  const uint64_t errorLimit_;
  std::atomic<int> failuresLeft_{0};
  mutable std::mutex mutex_;
  std::vector<Call> calls_;
  std::vector<QSBackupError> errors_;
};

// The delegate of tokens: records each run with what the running token
// carried at that moment.  `onRun` runs inside the delegate call.
class TokenDelegate : public QSTokenDelegate {
 public:
  struct Run {
    std::shared_ptr<QSToken> token;
    std::shared_ptr<platform::Object> object;
    std::optional<std::string> destinationPath;
    std::optional<std::string> uid;
    bool wantsBackup = false;
    uint32_t versionDepth = 0;
    std::optional<std::set<std::string>> categories;
    std::shared_ptr<QSFSMutableNode> tree;
    std::shared_ptr<QSMutableTally> tally;
  };

  std::function<void(const Run&)> onRun;

  void runPerDestination(QSToken&, QSUserEnvironment& environment) override {
    dispatch(environment.self<QSUserEnvironment>());
  }
  void runPerDestination(QSToken&, QSPerUIDEnvironment& environment) override {
    dispatch(environment.self<QSPerUIDEnvironment>());
  }
  void tokenDidEnd(QSToken&, const QSBackupOutcome& outcome) override {
    std::lock_guard<std::mutex> lock(mutex_);
    outcomes_.push_back(outcome);
  }
  // How the tokens' journeys ended, in order.
  std::vector<QSBackupOutcome> outcomes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return outcomes_;
  }

  // Records the run of the thread's current token (found as the stages'
  // delegate finds it) with the environment that ran it.
  void dispatch(const std::shared_ptr<platform::Object>& object) {
    Run run;
    run.token = std::dynamic_pointer_cast<QSToken>(QSRunnable::currentRunnable());
    run.object = object;
    if (run.token) {
      run.destinationPath = run.token->destinationPath();
      run.uid = run.token->uid();
      run.wantsBackup = run.token->wantsBackup();
      run.versionDepth = run.token->versionDepth();
      run.categories = run.token->context();
      run.token->getTree_tally(&run.tree, &run.tally);
    }
    if (onRun) onRun(run);
    std::lock_guard<std::mutex> lock(mutex_);
    runs_.push_back(std::move(run));
  }

  std::vector<Run> runs() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return runs_;
  }
  size_t count() const { return runs().size(); }

  // A token of this delegate for a destination (none: a source-tally-only token).
  std::shared_ptr<QSToken> token(std::optional<std::string> destination, std::optional<std::string> uid,
                                 bool wantsBackup = false, uint32_t versionDepth = 0,
                                 std::optional<std::set<std::string>> categories = std::nullopt) {
    auto t = QSToken::initWithDelegate(this);
    t->setContext(std::move(categories));
    t->setDestinationPath_uid(std::move(destination), std::move(uid));
    t->setWantsBackup(wantsBackup);
    t->setVersionDepth(versionDepth);
    return t;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Run> runs_;
  std::vector<QSBackupOutcome> outcomes_;
};

// The engine-wide switches that stages ask about.
class TestPipelineHost : public QSPipelineHost {
 public:
  std::atomic<bool> continuous{false};
  std::atomic<bool> skip{false};
  std::atomic<bool> plan{true};
  bool supportsContinuousBackup() const override { return continuous.load(); }
  bool skipTransfer() const override { return skip.load(); }
  bool planTransfers() const override { return plan.load(); }
};

// One failure as the instrument's delegate saw it: the record and the
// instrument's count of earlier failures in a row at that moment.
struct SeenFailure {
  QSBackupError error;
  int64_t contiguousCount = 0;
};

class FailureRecorder : public QSTransferInstrumentDelegate {
 public:
  std::vector<SeenFailure> failures;
  std::function<void(const QSBackupError&)> onFailure;
  void transferInstrument_error(QSTransferInstrument& instrument, const std::shared_ptr<QSBackupError>& error) override {
    failures.push_back({*error, instrument.contiguousFailedCopyCount()});
    if (onFailure) onFailure(*error);
  }
};

// The source tree of a home folder, built as the first stage builds it.
inline std::shared_ptr<QSFSMutableNode> sourceTreeOf(const std::string& home,
                                                     std::shared_ptr<QSMutableTally>* sourceTally = nullptr) {
  QSSourceTreeBuilder builder;
  FSSourceTraversal(nullptr).recurseAtUserHome_withExclusionPredicate_visitor(home, nullptr, builder);
  if (sourceTally) *sourceTally = builder.tally();
  return builder.root();
}

// The source tree of `home` with the destination walk of `destination`
// merged into it, as a per-destination environment merges them before it
// copies: destination attributes on the nodes and stored versions on the
// files.
inline std::shared_ptr<QSFSMutableNode> mergedTreeOf(const std::string& home, const std::string& destination) {
  auto tree = sourceTreeOf(home);
  auto user = QSUserEnvironment::initWithUserName_homeDirectory("ann", home);
  platform::NotificationCenter center;
  auto environment = QSPerUIDEnvironment::initWithUserEnvironment_uid(user, "U", nullptr, &center);
  auto token = QSToken::initWithDelegate(nullptr);
  token->setDestinationPath_uid(destination, "U");
  token->setTree_tally(tree, QSMutableTally::init());
  environment->enqueue(token);
  environment->runJobWithToken(token);
  return tree;
}

// The node at a path below the root ("Documents/a.txt"), or nullptr.
inline std::shared_ptr<QSFSNode> nodeAt(const std::shared_ptr<QSFSNode>& root, const std::string& relative) {
  std::shared_ptr<QSFSNode> node = root;
  size_t start = 0;
  while (node && start <= relative.size()) {
    const size_t slash = relative.find('/', start);
    const std::string name = relative.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
    node = node->childWithName(name);
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  return node;
}

// Every item below `folder`, as sorted relative paths (folders end in "/").
inline std::vector<std::string> listing(const std::string& folder) {
  std::vector<std::string> out;
  std::error_code ec;
  for (auto it = std::filesystem::recursive_directory_iterator(folder, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    std::string relative = std::filesystem::relative(it->path(), folder).string();
    if (it->is_directory() && !it->is_symlink()) relative += "/";
    out.push_back(relative);
  }
  std::sort(out.begin(), out.end());
  return out;
}

// A small tmpfs mounted on a folder for the life of the object (needs the
// right to mount; `mounted()` says whether it worked).
class SmallFileSystem {
 public:
  SmallFileSystem(const std::string& folder, const std::string& size) : folder_(folder) {
    const std::string options = "size=" + size;
    mounted_ = ::mount("tmpfs", folder.c_str(), "tmpfs", 0, options.c_str()) == 0;
  }
  ~SmallFileSystem() {
    if (mounted_) ::umount2(folder_.c_str(), MNT_DETACH);
  }
  SmallFileSystem(const SmallFileSystem&) = delete;
  SmallFileSystem& operator=(const SmallFileSystem&) = delete;
  bool mounted() const { return mounted_; }

 private:
  std::string folder_;
  bool mounted_ = false;
};

// A backup of `files` files in Documents whose sources vanish after the
// first stage counted them, so that every copy fails, run by a
// per-destination environment (not started: `run` does one job on the
// calling thread, as the environment's thread would).
struct VanishingFilesBackup {
  TempDir dir;
  std::string home = dir.mkdir("ann");
  std::string destination = dir.mkdir("disk/U");
  std::shared_ptr<QSUserEnvironment> user = QSUserEnvironment::initWithUserName_homeDirectory("ann", home);
  platform::NotificationCenter center;
  std::shared_ptr<QSPerUIDEnvironment> environment =
      QSPerUIDEnvironment::initWithUserEnvironment_uid(user, "U", nullptr, &center);
  TokenDelegate delegate;
  std::shared_ptr<QSToken> token;

  explicit VanishingFilesBackup(int files) {
    for (int i = 0; i < files; ++i) dir.write("ann/Documents/f" + std::to_string(i) + ".txt", "contents");
    std::shared_ptr<QSMutableTally> tally;
    auto tree = sourceTreeOf(home, &tally);
    std::filesystem::remove_all(home + "/Documents");
    std::filesystem::create_directories(home + "/Documents");
    token = delegate.token(destination, "U", true, 2, std::set<std::string>{kDocumentsCategoryIdentifier});
    token->setTree_tally(tree, tally->mutableCopy());
  }

  void run() {
    environment->enqueue(token);
    environment->runJobWithToken(environment->currentToken());
  }
};

}  // namespace skerrow_test
