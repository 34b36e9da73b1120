#include "Engine/pipeline/QSRunnable.h"

#include <gtest/gtest.h>

#include <thread>

#include "platform/Exception.h"
#include "tests/support/Eventually.h"

using namespace std::chrono_literals;

namespace {

class Argument : public platform::Object {};

class Delegate {
 public:
  std::mutex mutex;
  int calls = 0;
  bool receivedNothing = false;
  std::shared_ptr<QSRunnable> currentDuringCall;
  std::shared_ptr<platform::Object> received;

  void work(const QSRunnable::Argument& object) {
    std::lock_guard<std::mutex> lock(mutex);
    ++calls;
    received = object;
    receivedNothing = object == nullptr;
    currentDuringCall = QSRunnable::currentRunnable();
    if (currentDuringCall) currentDuringCall->setProduct(std::string("made by the running thread"));
  }
  void fail(const QSRunnable::Argument&) { platform::Exception::raise("TestException", "delegate failed"); }
};

}  // namespace

TEST(QSRunnableTest, RunWithObjectCallsTheDelegateAndFinishes) {
  Delegate d;
  auto r = QSRunnable::initWithDelegate_selector_context(&d, &Delegate::work, std::any(7));
  auto arg = std::make_shared<Argument>();
  EXPECT_FALSE(r->isFinished());
  r->runWithObject(arg);
  EXPECT_TRUE(r->isFinished());
  EXPECT_EQ(d.calls, 1);
  EXPECT_EQ(d.received, arg);
  EXPECT_EQ(d.currentDuringCall, r);
  EXPECT_EQ(std::any_cast<int>(r->context()), 7);
  EXPECT_EQ(std::any_cast<std::string>(r->product()), "made by the running thread");
  EXPECT_EQ(QSRunnable::currentRunnable(), nullptr);
}

TEST(QSRunnableTest, WithoutDelegateOrSelectorItStillFinishes) {
  auto r = QSRunnable::initWithDelegate_selector_context<Delegate>(nullptr, &Delegate::work, std::any());
  r->run();
  EXPECT_TRUE(r->isFinished());
  Delegate d;
  auto s = QSRunnable::initWithDelegate_selector_context<Delegate>(&d, nullptr, std::any());
  s->run();
  EXPECT_TRUE(s->isFinished());
  EXPECT_EQ(d.calls, 0);
}

TEST(QSRunnableTest, SpawnWithObjectCallsTheDelegateWithNothing) {
  Delegate d;
  auto r = QSRunnable::initWithDelegate_selector_context(&d, &Delegate::work, std::any());
  auto thread = r->spawnWithObject(std::make_shared<Argument>());
  ASSERT_TRUE(thread->waitUntilFinished(10s));
  std::lock_guard<std::mutex> lock(d.mutex);
  EXPECT_EQ(d.calls, 1);
  EXPECT_TRUE(d.receivedNothing);
  EXPECT_EQ(d.currentDuringCall, r);
  EXPECT_TRUE(r->isFinished());
}

TEST(QSRunnableTest, SetProductFromAnotherThreadLeavesTheProductUnchanged) {
  auto r = QSRunnable::initWithDelegate_selector_context<Delegate>(nullptr, nullptr, std::any());
  r->setProduct(std::string("not running here"));
  EXPECT_FALSE(r->product().has_value());
  std::thread([&] { r->setProduct(std::string("other thread")); }).join();
  EXPECT_FALSE(r->product().has_value());
}

TEST(QSRunnableTest, WaitForProductWithAPastDatePollsAtMostOnce) {
  auto r = QSRunnable::initWithDelegate_selector_context<Delegate>(nullptr, nullptr, std::any());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(r->waitForProductUntilDate(platform::Date::now().addingTimeInterval(-1)).has_value());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);

  Delegate d;
  auto withProduct = QSRunnable::initWithDelegate_selector_context(&d, &Delegate::work, std::any());
  withProduct->run();
  EXPECT_EQ(std::any_cast<std::string>(withProduct->waitForProductUntilDate(platform::Date::distantPast())),
            "made by the running thread");
}

TEST(QSRunnableTest, WaitForProductReturnsOnceAnotherThreadPublishesIt) {
  Delegate d;
  auto r = QSRunnable::initWithDelegate_selector_context(&d, &Delegate::work, std::any());
  r->spawn();
  auto product = r->waitForProductUntilDate(platform::Date::now().addingTimeInterval(30));
  ASSERT_TRUE(product.has_value());
  EXPECT_EQ(std::any_cast<std::string>(product), "made by the running thread");
}

TEST(QSRunnableTest, CurrentRunnableOutsideAnyRunIsNothing) { EXPECT_EQ(QSRunnable::currentRunnable(), nullptr); }

TEST(QSRunnableTest, ThreadDictionaryKey) { EXPECT_STREQ(QSRunnable::threadDictionaryKey(), "runnable"); }

TEST(QSRunnableTest, DelegateExceptionPassesThroughAndLeavesItUnfinished) {
  Delegate d;
  auto r = QSRunnable::initWithDelegate_selector_context(&d, &Delegate::fail, std::any());
  EXPECT_THROW(r->run(), platform::Exception);
  EXPECT_FALSE(r->isFinished());
  EXPECT_EQ(QSRunnable::currentRunnable(), r);  // the key is left behind
  platform::OVThread::currentThread()->threadDictionary().threadSafeRemoveObjectForKey("runnable");
}

TEST(QSRunnableTest, StateAndCancelFlag) {
  auto r = QSRunnable::initWithDelegate_selector_context<Delegate>(nullptr, nullptr, std::any());
  r->setState(3);
  EXPECT_EQ(r->state(), 3u);
  EXPECT_FALSE(r->isCancelled());
  r->cancel();
  EXPECT_TRUE(r->isCancelled());
  r->run();  // cancelling is advisory
  EXPECT_TRUE(r->isFinished());
}
