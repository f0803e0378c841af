#include <QELNetworkKit/QELNKPingleton.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "support/AvahiNetwork.h"
#include "support/OwnNetwork.h"
#include "support/TestSupport.h"

using namespace qelnk::test;
using namespace std::chrono_literals;

namespace {

class Observer : public QELNKPingletonDelegate {
 public:
  void pingleton(const std::shared_ptr<QELNKPingleton> &, const std::string &cantReachIP) override {
    {
      const std::lock_guard lock(mutex_);
      told_.push_back(cantReachIP);
    }
    if (throws) throw std::runtime_error("host's");
  }
  std::vector<std::string> told() const {
    const std::lock_guard lock(mutex_);
    auto told = told_;
    std::sort(told.begin(), told.end());
    return told;
  }
  bool throws = false;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> told_;
};

void answerPings(bool answer) {
  run(std::string("echo ") + (answer ? "0" : "1") + " > /proc/sys/net/ipv4/icmp_echo_ignore_all");
}

class Pingleton : public testing::Test {
 protected:
  void SetUp() override {
    if (const auto missing = AvahiNetwork::missing(); !missing.empty()) GTEST_SKIP() << missing;
  }
  /// With whatever is left after it seen to end.
  void onLoopback(const std::function<void()> &work) {
    withOwnNetwork([&] {
      run("ip link set lo up");
      const size_t threads = threadCount(), descriptors = descriptorCount();
      testing::internal::CaptureStdout();
      work();
      EXPECT_TRUE(eventually([&] { return threadCount() <= threads; }));
      EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
      EXPECT_LE(descriptorCount(), descriptors);
    });
  }
  const std::shared_ptr<QELNKPingleton> watcher = std::make_shared<QELNKPingleton>();
};

using Addresses = std::vector<std::string>;

}  // namespace

TEST_F(Pingleton, TellsOnceWhenAReplyIsMissed) {
  CapturedLog log;
  onLoopback([&] {
    const auto observer = std::make_shared<Observer>(), replaced = std::make_shared<Observer>();
    observer->throws = true;
    watcher->startWatchingIP("127.0.0.5", replaced);
    watcher->startWatchingIP("127.0.0.5", observer);  // two watches now, of which the first to end tells
    watcher->startWatchingIP("127.0.0.6", observer);
    std::this_thread::sleep_for(2500ms);
    EXPECT_EQ(observer->told(), Addresses{});
    const auto start = std::chrono::steady_clock::now();
    answerPings(false);
    EXPECT_TRUE(eventually([&] { return observer->told().size() == 2; }));
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, 1500ms);  // at the second request from now
    EXPECT_TRUE(eventually([&] { return log.count("Ping Thread dies!") == 3; }));
    EXPECT_EQ(observer->told(), (Addresses{"127.0.0.5", "127.0.0.6"}));
    EXPECT_EQ(replaced->told(), Addresses{});
    EXPECT_EQ(log.count("Ping Thread starts!"), 3u);
    EXPECT_EQ(log.count("Out of Ping loop!!!"), 3u);
  });
}

TEST_F(Pingleton, TellsNobodyOfWhatWasMissedBefore) {
  onLoopback([&] {
    struct Again : Observer {
      void pingleton(const std::shared_ptr<QELNKPingleton> &pingleton, const std::string &cantReachIP) override {
        answerPings(true);
        pingleton->startWatchingIP(cantReachIP, self);
        Observer::pingleton(pingleton, cantReachIP);
      }
      std::weak_ptr<Observer> self;
    };
    const auto observer = std::make_shared<Again>();
    observer->self = observer;
    answerPings(false);
    const size_t threads = threadCount();
    for (int i = 0; i < 3; ++i) watcher->startWatchingIP("127.0.0.7", observer);
    EXPECT_TRUE(eventually([&] { return !observer->told().empty(); }));
    std::this_thread::sleep_for(5s);  // the other watches have missed their replies by now
    EXPECT_EQ(observer->told(), Addresses{"127.0.0.7"});
    EXPECT_EQ(threadCount(), threads + 1);  // that of the new watch
  });
}

TEST_F(Pingleton, EndsWithItsObserver) {
  onLoopback([&] {
    auto observer = std::make_shared<Observer>();
    for (int i = 1; i <= 50; ++i) watcher->startWatchingIP("127.0.1." + std::to_string(i), observer);
    EXPECT_TRUE(eventually([&] { return descriptorCount() >= 50; }));
    const std::weak_ptr<Observer> weak = observer;
    observer.reset();
    EXPECT_TRUE(weak.expired());
  });
}

TEST_F(Pingleton, GoesOnTryingWhereNoPingCanBe) {
  CapturedLog log;
  onLoopback([&] {
    auto observer = std::make_shared<Observer>();
    watcher->startWatchingIP("no.address.invalid", observer);
    watcher->startWatchingIP("224.0.0.1", observer);
    EXPECT_TRUE(
        eventually([&] { return log.contains("QELNKPingleton cannot ping no.address.invalid: cannot resolve"); }));
    EXPECT_TRUE(eventually([&] { return observer->told() == Addresses{"224.0.0.1"}; }));
    std::this_thread::sleep_for(3s);  // for another try at least
    EXPECT_EQ(log.count("QELNKPingleton cannot ping"), 1u);
  });
}
