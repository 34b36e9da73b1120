#include "Engine/pipeline/QSToken.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>

namespace {
class Delegate {
 public:
  int calls = 0;
  void runPerDestination(const QSRunnable::Argument&) { ++calls; }
};
}  // namespace

TEST(QSTokenTest, WantsDestinationTallyOnlyWithBothPathAndUid) {
  auto t = QSToken::initWithDelegate_selector_context<Delegate>(nullptr, nullptr, std::any());
  EXPECT_FALSE(t->wantsDestinationTally());
  t->setDestinationPath_uid("/media/disk/qs skerrow.skstor/U", std::nullopt);
  EXPECT_FALSE(t->wantsDestinationTally());
  t->setDestinationPath_uid(std::nullopt, "U");
  EXPECT_FALSE(t->wantsDestinationTally());
  t->setDestinationPath_uid("/media/disk/qs skerrow.skstor/U", "U");
  EXPECT_TRUE(t->wantsDestinationTally());
  EXPECT_EQ(t->destinationPath(), "/media/disk/qs skerrow.skstor/U");
  EXPECT_EQ(t->uid(), "U");
}

TEST(QSTokenTest, TreeAndTallyTravelTogether) {
  auto t = QSToken::initWithDelegate_selector_context<Delegate>(nullptr, nullptr, std::any());
  auto tally = QSMutableTally::init();
  t->setTree_tally(nullptr, tally);
  std::shared_ptr<QSFSMutableNode> tree;
  std::shared_ptr<QSMutableTally> got;
  t->getTree_tally(&tree, &got);
  EXPECT_EQ(tree, nullptr);
  EXPECT_EQ(got, tally);
}

TEST(QSTokenTest, PlainFieldsAndContext) {
  Delegate d;
  auto t = QSToken::initWithDelegate_selector_context(&d, &Delegate::runPerDestination,
                                                      std::any(std::set<std::string>{"Music"}));
  t->setWantsBackup(true);
  t->setVersionDepth(4);
  EXPECT_TRUE(t->wantsBackup());
  EXPECT_EQ(t->versionDepth(), 4u);
  EXPECT_EQ(std::any_cast<std::set<std::string>>(t->context()), std::set<std::string>{"Music"});
  t->run();
  EXPECT_EQ(d.calls, 1);
}

TEST(QSTokenTest, LockedAccessorsFromManyThreads) {
  auto t = QSToken::initWithDelegate_selector_context<Delegate>(nullptr, nullptr, std::any());
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&, i] {
      for (int j = 0; j < 2000; ++j) {
        if (i % 2)
          t->setDestinationPath_uid("/d" + std::to_string(j), "U" + std::to_string(j));
        else
          (void)t->wantsDestinationTally(), (void)t->uid();
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_TRUE(t->wantsDestinationTally());
}
