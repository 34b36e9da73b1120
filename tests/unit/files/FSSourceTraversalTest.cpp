#include "Engine/files/FSSourceTraversal.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "Engine/files/QSBlackList.h"
#include "Engine/files/QSPathFilter.h"
#include "platform/PropertyList.h"
#include "tests/support/FSTraversalTestSupport.h"
#include "tests/support/TempDir.h"

using skerrow_test::RecordingFSVisitor;

namespace {

struct Home {
  skerrow_test::TempDir dir;
  std::string home = dir.mkdir("ann");
  Home() {
    dir.write("ann/Documents/report.txt", "r");
    dir.write("ann/Documents/Drafts/d.txt", "d");
    dir.write("ann/Pictures/p.jpg", "p");
    dir.write("ann/notes.txt", "n");
  }
};

class ShippedListScope {
 public:
  ShippedListScope() { restore(); }
  ~ShippedListScope() { restore(); }
  static void restore() {
    auto shipped = platform::PropertyList::readFile(QSBlackList::defaultSettingsFilePath());
    QSBlackList::initializeWithInfoDictionary(shipped && shipped->isDictionary() ? *shipped->asDictionary()
                                                                                 : platform::Dictionary());
  }
};

// Exposes the exclusion test for items whose HFS codes a Linux file cannot carry.
class ExposedSourceTraversal : public FSSourceTraversal {
 public:
  using FSSourceTraversal::FSSourceTraversal;
  bool proceed(const std::string& home, const std::string& path, const std::string& name, const platform::FileAttributes& a) {
    homeForTest_ = home;
    return proceedWithHome(path, name, a);
  }

 private:
  bool proceedWithHome(const std::string& path, const std::string& name, const platform::FileAttributes& a) {
    RecordingFSVisitor unused;
    bool answer = false;
    // Run the test inside a walk so the home path is set as the walk sets it.
    struct Probe : skerrow_test::NoopFSVisitor {
      std::function<void()> atStart;
      void startTraversalOfPath(const std::string&) override { atStart(); }
    } probe;
    probe.atStart = [&] { answer = _proceedForPath_attrs(path, name, a); };
    recurseAtUserHome_withExclusionPredicate_visitor(homeForTest_, nullptr, probe);
    return answer;
  }
  std::string homeForTest_;
};

}  // namespace

TEST(FSSourceTraversalTest, WalksEveryItemAndReportsFilesAndFolders) {
  ShippedListScope list;
  Home h;
  RecordingFSVisitor v;
  v.root = h.home;
  std::atomic<bool> stop{false};
  FSSourceTraversal(&stop).recurseAtUserHome_withExclusionPredicate_visitor(h.home, nullptr, v);
  EXPECT_EQ(v.calls.front(), "begin ");
  EXPECT_EQ(v.calls.back(), "end ");
  EXPECT_EQ(v.count("dir "), 1u);
  EXPECT_EQ(v.count("file /Documents/report.txt"), 1u);
  EXPECT_EQ(v.count("file /Documents/Drafts/d.txt"), 1u);
  EXPECT_EQ(v.count("file /Pictures/p.jpg"), 1u);
  EXPECT_EQ(v.count("finish /Documents"), 1u);
  EXPECT_TRUE(v.groups.empty());
}

TEST(FSSourceTraversalTest, FolderThatAnswersFalseGetsOnlyItsStartAndFinish) {
  ShippedListScope list;
  Home h;
  RecordingFSVisitor v;
  v.root = h.home;
  v.descend = [&](const std::string& p) { return p != h.home + "/Documents"; };
  FSSourceTraversal(nullptr).recurseAtUserHome_withExclusionPredicate_visitor(h.home, nullptr, v);
  EXPECT_EQ(v.count("dir /Documents"), 1u);
  EXPECT_EQ(v.count("finish /Documents"), 1u);
  for (const auto& c : v.calls) EXPECT_EQ(c.find("/Documents/"), std::string::npos) << c;
}

TEST(FSSourceTraversalTest, DatabaseFolderIsWalkedDespiteTheBlackListButTheLiveMailDatabaseIsLeftOut) {
  // (A list needs a suffix: with none, the empty suffix of the home folder itself would be black-listed.)
  platform::Dictionary info{{"QSBlackList", platform::Value(platform::Dictionary{
                                                {"QSSpecificFiles", platform::Value(platform::Array{platform::Value("database")})},
                                                {"QSHomeDirSuffixes", platform::Value(platform::Array{platform::Value("/nothing")})}})}};
  QSBlackList::initializeWithInfoDictionary(info);
  Home h;
  h.dir.write("ann/Library/Mail/DATABASE/msg", "m");
  h.dir.write("ann/Library/Mail/other/database", "d");  // a file: admitted, its codes are not the mail database's
  RecordingFSVisitor v;
  v.root = h.home;
  FSSourceTraversal(nullptr).recurseAtUserHome_withExclusionPredicate_visitor(h.home, nullptr, v);
  EXPECT_EQ(v.count("dir /Library/Mail/DATABASE"), 1u);
  EXPECT_EQ(v.count("file /Library/Mail/DATABASE/msg"), 1u);
  EXPECT_EQ(v.count("file /Library/Mail/other/database"), 1u);

  ExposedSourceTraversal t(nullptr);
  platform::FileAttributes live;
  live.type = platform::FileAttributes::Type::Regular;
  live.creatorCode = kQSMailDatabaseCreator;
  live.typeCode = kQSMailDatabaseType;
  EXPECT_FALSE(t.proceed(h.home, h.home + "/Library/Mail/Database", "Database", live));
  live.type = platform::FileAttributes::Type::Directory;
  EXPECT_TRUE(t.proceed(h.home, h.home + "/Library/Mail/Database", "Database", live));
  ShippedListScope::restore();
}

TEST(FSSourceTraversalTest, SymbolicLinkToAFolderIsReportedOnceAsAnItemAndNotEntered) {
  ShippedListScope list;
  Home h;
  ASSERT_EQ(::symlink((h.home + "/Documents").c_str(), (h.home + "/docs-link").c_str()), 0);
  RecordingFSVisitor v;
  v.root = h.home;
  FSSourceTraversal(nullptr).recurseAtUserHome_withExclusionPredicate_visitor(h.home, nullptr, v);
  EXPECT_EQ(v.count("link /docs-link"), 1u);
  EXPECT_EQ(v.count("finish /docs-link"), 1u);
  for (const auto& c : v.calls) EXPECT_EQ(c.find("/docs-link/"), std::string::npos) << c;
}

TEST(FSSourceTraversalTest, ExclusionPredicateMatchingTheEmptyStringExcludesTheHomeFolderItself) {
  ShippedListScope list;
  Home h;
  RecordingFSVisitor v;
  v.root = h.home;
  auto predicate = platform::RegexPredicate::selfMatchesCaseInsensitive("(/Documents.*)?");
  FSSourceTraversal(nullptr).recurseAtUserHome_withExclusionPredicate_visitor(h.home, predicate, v);
  EXPECT_EQ(v.calls, (std::vector<std::string>{"begin ", "end "}));
}

TEST(FSSourceTraversalTest, ExclusionPredicateAndBlackListLeaveItemsOutSilently) {
  ShippedListScope list;
  Home h;
  h.dir.write("ann/.cache/big", "x");
  h.dir.write("ann/Documents/x.tmp", "x");
  RecordingFSVisitor v;
  v.root = h.home;
  auto predicate = platform::RegexPredicate::selfMatchesCaseInsensitive("/documents/drafts(/.*)?");
  FSSourceTraversal(nullptr).recurseAtUserHome_withExclusionPredicate_visitor(h.home, predicate, v);
  for (const auto& c : v.calls) {
    EXPECT_EQ(c.find("Drafts"), std::string::npos) << c;
    EXPECT_EQ(c.find(".cache"), std::string::npos) << c;
    EXPECT_EQ(c.find("x.tmp"), std::string::npos) << c;
  }
  EXPECT_EQ(v.count("file /Documents/report.txt"), 1u);
}

TEST(FSSourceTraversalTest, ABlackListWithoutSuffixesExcludesTheHomeFolderItself) {
  QSBlackList::initializeWithInfoDictionary({});
  Home h;
  RecordingFSVisitor v;
  FSSourceTraversal(nullptr).recurseAtUserHome_withExclusionPredicate_visitor(h.home, nullptr, v);
  EXPECT_EQ(v.calls.size(), 2u);
  ShippedListScope::restore();
}

TEST(FSSourceTraversalTest, DevicesPipesAndSocketsGetNoCallback) {
  ShippedListScope list;
  Home h;
  ASSERT_EQ(::mkfifo((h.home + "/pipe").c_str(), 0600), 0);
  RecordingFSVisitor v;
  v.root = h.home;
  FSSourceTraversal(nullptr).recurseAtUserHome_withExclusionPredicate_visitor(h.home, nullptr, v);
  for (const auto& c : v.calls) EXPECT_EQ(c.find("pipe"), std::string::npos) << c;
}

TEST(FSSourceTraversalTest, StopFlagAndThreadCancellationStopTheWalk) {
  ShippedListScope list;
  Home h;
  for (int i = 0; i < 50; ++i) h.dir.write("ann/many/f" + std::to_string(i), "x");
  std::atomic<bool> stop{false};
  RecordingFSVisitor v;
  v.root = h.home;
  int files = 0;
  v.onStart = [&](const std::string&) {
    if (++files == 10) stop = true;
  };
  FSSourceTraversal(&stop).recurseAtUserHome_withExclusionPredicate_visitor(h.home, nullptr, v);
  EXPECT_EQ(files, 10);
  EXPECT_EQ(v.calls.back(), "end ");

  std::atomic<int> seen{0};
  auto thread = platform::OVThread::detachNewThread([&] {
    RecordingFSVisitor w;
    w.onStart = [&](const std::string&) {
      if (++seen == 5) platform::OVThread::currentThread()->cancel();
    };
    FSSourceTraversal(nullptr).recurseAtUserHome_withExclusionPredicate_visitor(h.home, nullptr, w);
  });
  ASSERT_TRUE(thread->waitUntilFinished(std::chrono::seconds(10)));
  EXPECT_EQ(seen.load(), 5);
}

// Root reads every folder, so as root the walk runs in a child process that
// has become an ordinary user.
TEST(FSSourceTraversalTest, UnreadableFolderCountsAsEmpty) {
  ShippedListScope list;
  Home h;
  ASSERT_EQ(::chmod((h.home + "/Documents").c_str(), 0), 0);
  ::chmod(h.dir.path().c_str(), 0755);
  auto walk = [&] {
    RecordingFSVisitor v;
    v.root = h.home;
    FSSourceTraversal(nullptr).recurseAtUserHome_withExclusionPredicate_visitor(h.home, nullptr, v);
    // 0: the folder was reported and nothing below it; 1: otherwise.
    return v.count("dir /Documents") == 1 && v.count("finish /Documents") == 1 &&
                   v.count("file /Documents/report.txt") == 0 && v.count("file /notes.txt") == 1
               ? 0
               : 1;
  };
  int result;
  if (::geteuid() != 0) {
    result = walk();
  } else {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0) ::_exit(2);
      ::_exit(walk());
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    result = WEXITSTATUS(status);
  }
  ::chmod((h.home + "/Documents").c_str(), 0755);
  EXPECT_EQ(result, 0);
}
