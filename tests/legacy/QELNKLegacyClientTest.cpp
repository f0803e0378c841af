#include <QELNetworkKit/QELNKLegacyClient.h>
#include <QELNetworkKit/RunLoop.h>
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "legacy/Observers.h"
#include "legacy/RawPeer.h"
#include "platform/ListeningSocket.h"
#include "support/TestSupport.h"

using namespace qelnk;
using namespace qelnk::test;
using namespace std::chrono_literals;

namespace {

using Texts = std::vector<std::string>;

/// Takes connections on a port; served by the main loop.
class Listener {
 public:
  explicit Listener(uint16_t port = 0) {
    std::error_code error;
    socket_ = ListeningSocket::create(ListeningSocket::Family::ipv4, error);
    socket_->setReuseAddress();
    EXPECT_FALSE(socket_->bind(port, 0x7F000001));
    EXPECT_FALSE(socket_->accept(RunLoop::main(), [this](int socket, const std::string &) {
      accepted.push_back(std::make_unique<RawPeer>(streamsWithSocket(socket)));
    }));
  }
  uint16_t port() const { return socket_->port(); }
  RawPeer &latest() { return *accepted.back(); }
  std::vector<std::unique_ptr<RawPeer>> accepted;

 private:
  std::unique_ptr<ListeningSocket> socket_;
};

/// A client with a thread of its own, whose timers, and the main thread's, go by a clock that is moved by hand.
class LegacyClient : public testing::Test {
 protected:
  void SetUp() override { RunLoop::main()->setClock(clock); }
  void TearDown() override {
    client.reset();
    RunLoop::main()->setClock(Clock::system());
  }
  void make(uint16_t port, Value options, bool onMainThread = false) {
    options.set("multiThreaded", true);
    options.set("delegateOnMainThread", onMainThread);
    options.set("appID", "test");
    client = QELNKLegacyClient::create("studio", "127.0.0.1", port, observer, options);
    setClockOfThread();
  }
  void setClockOfThread() {
    client->thread()->performSelectorOnTarget([&] { RunLoop::current()->setClock(clock); }, true);
  }
  /// Moves the clock, and lets everything that is due then be over.
  void advance(std::chrono::nanoseconds by) {
    clock->advance(by);
    settle();
  }
  void settle() {
    for (int turn = 0; turn < 3; ++turn) {
      while (RunLoop::main()->runOnce(0ns)) {
      }
      client->thread()->performSelectorOnTarget([] {}, true);
    }
  }
  bool hears(const std::string &text, size_t times = 1) {
    return eventually([&] { return observer->count(text) >= times; });
  }
  void connectTo(Listener &listener) {
    const size_t before = listener.accepted.size();
    client->connect();
    ASSERT_TRUE(eventually([&] { return listener.accepted.size() > before; }));
    listener.latest().send(handshakeBytes("peer", "10.1.2.3", "app"));
    ASSERT_TRUE(eventually([&] { return client->isReady(); }));
    settle();
  }

  const std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(1000s, 1e9);
  const std::shared_ptr<ClientObserver> observer = std::make_shared<ClientObserver>();
  std::shared_ptr<QELNKLegacyClient> client;
};

uint16_t unusedPort() { return Listener().port(); }

}  // namespace

TEST_F(LegacyClient, RefusalsAreRetriedAsTheOptionsSay) {
  make(unusedPort(), QELNKLegacyClient::defaultPlayoutOptions());
  client->connect();
  EXPECT_TRUE(hears("error 4 0"));
  advance(60s);
  EXPECT_EQ(observer->all(), Texts{"error 4 0"});

  // Every second for as long as it is wanted, on whichever thread it began.
  make(unusedPort(), QELNKLegacyClient::defaultConnectOptions());
  client->connect();
  for (size_t attempt = 1; attempt <= 5; ++attempt) {
    EXPECT_TRUE(hears("error 4 1", attempt));
    settle();
    EXPECT_EQ(client->retryAttempts(), int64_t(attempt));
    advance(999ms);
    EXPECT_EQ(observer->count("error 4 1"), attempt);
    advance(1ms);
  }
  EXPECT_TRUE(hears("error 4 1", 6));
  client->disconnect();
  advance(60s);
  EXPECT_EQ(observer->count("error 4 1"), 6u);

  // Then it gets through, and counts from 0 again.
  Listener listener;
  client->setPort(listener.port());
  connectTo(listener);
  EXPECT_TRUE(hears("ready"));
  settle();
  EXPECT_EQ(client->retryAttempts(), 0);
}

TEST_F(LegacyClient, ErrorCodes) {
  const CapturedLog log;
  Listener listener;
  make(listener.port(), QELNKLegacyClient::defaultConnectOptions());
  connectTo(listener);
  client->connect();
  EXPECT_TRUE(hears("error 1 0"));
  EXPECT_EQ(client->maxRetryAttempts(), 0);
  EXPECT_EQ(client->inputStream(), nullptr);
  EXPECT_TRUE(log.contains("QELNKLegacyClient studio attempted to reconnect while already connected"));
  EXPECT_TRUE(log.contains("want to retry connection, but too many attempts"));

  client->setPort(0);
  client->connect();
  EXPECT_TRUE(hears("error 2 0"));
  client->setPort(70000);
  client->connect();
  EXPECT_TRUE(hears("error 2 0", 2));

  client->setPort(listener.port());
  client->setMaxRetryAttempts(1);
  client->connect();  // nobody shakes hands
  settle();
  advance(10s - 1ms);
  EXPECT_FALSE(observer->has("error 3 1"));
  advance(1ms);
  EXPECT_TRUE(hears("error 3 1"));
  advance(1s);
  settle();
  advance(10s);
  EXPECT_TRUE(hears("error 3 0"));

  client->setConnectTimeout(-1);
  EXPECT_EQ(client->connectTimeout(), 10.0);
  client->setAutoRetryInterval(-1);
  EXPECT_EQ(client->autoRetryInterval(), 1.0);
  client->setOptions(with(Value::map(), "connectTimeout", -1));
  EXPECT_EQ(client->connectTimeout(), -1.0);
  const size_t told = observer->all().size();
  client->connect();
  advance(1h);
  EXPECT_EQ(observer->all().size(), told);

  client->cancelConnectAttempt();
  client->connect();
  EXPECT_TRUE(log.contains("QELNKLegacyClient studio wants to connect, but cancelled"));
  EXPECT_EQ(client->inputStream(), nullptr);
}

TEST_F(LegacyClient, HeartbeatsThatAreMissingAndComeBack) {
  for (const bool onMainThread : {false, true}) {
    const CapturedLog log;
    Listener listener;
    make(listener.port(), QELNKLegacyClient::defaultPlayoutOptions(), onMainThread);
    connectTo(listener);
    const auto beat = [&](const std::string &info) {
      listener.latest().send(zeroed("heartbeat 10:00:00:00 25 " + info));
      EXPECT_TRUE(hears("heartbeat 10:00:00:00 25 | " + info));
    };
    for (int i = 0; i < 10; ++i) {
      advance(1s);
      beat(std::to_string(onMainThread) + std::to_string(i));
    }
    EXPECT_FALSE(log.contains("Connection Possibly Lost"));
    for (int i = 0; i < 2; ++i) advance(1s);  // at two seconds it is not yet more than two
    EXPECT_FALSE(log.contains("Connection Possibly Lost"));
    clock->setWallTime(clock->wallTime() + 0.01);
    advance(1s);  // three seconds and a little: both
    settle();
    EXPECT_EQ(log.count("Connection Possibly Lost"), 1u);
    EXPECT_TRUE(hears("lost 1", 1 + size_t(onMainThread)));
    EXPECT_TRUE(hears("terminated 0", 1 + size_t(onMainThread)));
    EXPECT_EQ(client->inputStream(), nullptr);
    EXPECT_EQ(observer->count("lost 0"), 0u);
  }
}

TEST_F(LegacyClient, ALateHeartbeatIsGoodNews) {
  const CapturedLog log;
  Listener listener;
  make(listener.port(), with(QELNKLegacyClient::defaultPlayoutOptions(), "heartbeatDisconnectTimeout", -100.0));
  connectTo(listener);
  for (int i = 0; i < 5; ++i) advance(1s);
  EXPECT_TRUE(hears("lost 1"));
  listener.latest().send(zeroed("heartbeat late"));
  EXPECT_TRUE(hears("heartbeat late"));
  EXPECT_TRUE(log.contains("Connection Reestablished"));
  EXPECT_EQ(observer->all(), (Texts{"ready", "lost 1", "lost 0", "heartbeat late"}));

  // The wall clock is set back: the check in which this shows is left out, and the heartbeat lies ahead until the next.
  clock->setWallTime(clock->wallTime() - 3600);
  for (int i = 0; i < 200; ++i) advance(1s);
  EXPECT_EQ(observer->count("lost 1"), 1u);
  listener.latest().send(zeroed("heartbeat now"));
  EXPECT_TRUE(hears("heartbeat now"));
  for (int i = 0; i < 3; ++i) advance(1s);
  EXPECT_TRUE(hears("lost 1", 2));
  // Set forward, the heartbeat is as old as that, and the connection is ended; by the options it comes again.
  listener.latest().send(zeroed("heartbeat again"));
  EXPECT_TRUE(hears("heartbeat again"));
  client->setAttemptReconnect(true);
  clock->setWallTime(clock->wallTime() + 3600);
  advance(1s);
  EXPECT_TRUE(hears("terminated 1"));
}

TEST_F(LegacyClient, NoHeartbeatsAreWatchedForWithIngestDefaults) {
  Listener listener;
  make(listener.port(), QELNKLegacyClient::defaultIngestOptions());
  connectTo(listener);
  advance(1h);
  EXPECT_EQ(observer->all(), Texts{"ready"});
}

TEST_F(LegacyClient, ReconnectsAndSaysSoOnceSomethingArrives) {
  for (const std::string &sign : {zeroed("hello"), zeroed("heartbeat h")}) {
    Listener listener;
    make(listener.port(), QELNKLegacyClient::defaultConnectOptions());
    connectTo(listener);
    listener.latest().close();
    EXPECT_TRUE(hears("terminated 1"));
    settle();
    const size_t told = observer->all().size();
    for (int attempt = 0; attempt < 3; ++attempt) {  // a loss on the way is not told again
      const size_t before = listener.accepted.size();
      advance(1s);
      ASSERT_TRUE(eventually([&] { return listener.accepted.size() > before; }));
      if (attempt < 2) listener.latest().close();
      EXPECT_TRUE(eventually([&] { return (client->inputStream() != nullptr) == (attempt == 2); }));
      settle();
    }
    EXPECT_EQ(observer->all().size(), told);
    listener.latest().send(handshakeBytes("peer", "", "app"));
    EXPECT_TRUE(eventually([&] { return observer->all().size() == told + 1; }));
    listener.latest().send(sign);
    EXPECT_TRUE(eventually([&] { return observer->all().size() == told + 3; }));
    EXPECT_EQ(observer->all()[told], "ready");
    EXPECT_EQ(observer->all()[told + 1], "ready");
    EXPECT_NE(observer->all()[told + 2], "ready");
    client->disconnect();
    advance(1h);
    EXPECT_EQ(observer->all().size(), told + 3);
  }
}

// The main thread waits for the connection's, as it does where it closes another connection of the same thread: then it
// makes the calls that wait for it first.
TEST_F(LegacyClient, WhatWasHeardIsToldBeforeTheEnd) {
  Listener listener;
  make(listener.port(), QELNKLegacyClient::defaultPlayoutOptions(), true);
  connectTo(listener);
  listener.latest().send(zeroed("one") + zeroed("two"));
  listener.latest().close();
  // Not in the loop of this thread, which would make the calls one by one.
  for (int turn = 0; turn < 10'000 && observer->all().size() == 1; ++turn) {
    client->thread()->performSelectorOnTarget([] {}, true);
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_EQ(observer->all(), (Texts{"ready", "string one", "string two", "terminated 0"}));
  settle();
  EXPECT_EQ(observer->all().size(), 4u);
}

TEST_F(LegacyClient, TheOwnerConnectsAgainByItself) {
  using Options = QELNKLegacyClient;
  // It would connect again by itself, too, with some of these.
  for (const auto &[options, onMainThread] : {std::pair(Options::defaultPlayoutOptions(), false),
                                              {Options::defaultPlayoutOptions(), true},
                                              {Options::defaultConnectOptions(), false},
                                              {Options::defaultConnectOptions(), true}}) {
    Listener listener;
    make(listener.port(), options, onMainThread);
    observer->onTold([&](const std::string &text) {
      if (text.starts_with("terminated") || text.starts_with("error 4")) client->connect();
    });
    connectTo(listener);
    for (int round = 0; round < 30; ++round) {
      const size_t before = listener.accepted.size();
      listener.latest().close();
      ASSERT_TRUE(eventually([&] { return listener.accepted.size() > before; })) << round;
      listener.latest().send(handshakeBytes("peer", "", "app"));
      ASSERT_TRUE(eventually([&] { return client->isReady(); })) << round;
    }
    observer->onTold(nullptr);
    client->disconnect();
  }
}

TEST_F(LegacyClient, WhatTheDelegateLacksGoesToTheStreamsOperations) {
  class Plain final : public QELNKLegacyClientDelegate, public Told {
   public:
    using QELNKLegacyClientDelegate::networkClient;
    void networkStreamIsReady(const std::shared_ptr<QELNKLegacyStream> &) override { add("stream ready"); }
    void networkStream(const std::shared_ptr<QELNKLegacyStream> &, const std::string &string) override {
      add("stream string " + string);
    }
    void networkStreamWasTerminated(const std::shared_ptr<QELNKLegacyStream> &) override { add("stream terminated"); }
    void networkClient(const Client &, int64_t, bool) override {}
    void networkClientHeartbeatNotification(const Client &, bool) override {}
    void networkClientServiceUpdatedTXTRecordData(const Client &) override {}
  };
  Listener listener;
  make(listener.port(), QELNKLegacyClient::defaultPlayoutOptions());
  const auto plain = std::make_shared<Plain>();
  client->setDelegate(plain);
  connectTo(listener);
  listener.latest().send(zeroed("s") + block("1", "nobody") + zeroed("heartbeat h"));
  listener.latest().close();
  EXPECT_TRUE(eventually([&] { return plain->has("stream terminated"); }));
  EXPECT_EQ(plain->all(), (Texts{"stream ready", "stream string s", "stream terminated"}));
}

// Connecting, disconnecting and letting go on several threads at once, while the other side does the same.
TEST(LegacyClientEnds, AnyWayAtAnyTime) {
  const size_t threads = threadCount(), descriptors = descriptorCount();
  {
    Listener listener;
    std::mt19937 random(1);
    for (int round = 0; round < 150; ++round) {
      const auto observer = std::make_shared<ClientObserver>();
      Value options =
          round % 3 ? QELNKLegacyClient::defaultConnectOptions() : QELNKLegacyClient::defaultIngestOptions();
      options.set("autoConnectDelay", 0.0);
      options.set("autoRetryInterval", 0.0);
      options.set("delegateOnMainThread", round % 2 == 0);
      auto client =
          QELNKLegacyClient::create("c", round % 5 ? "127.0.0.1" : "localhost", listener.port(), observer, options);
      std::vector<std::thread> others;
      for (int i = 0; i < 2; ++i)
        others.emplace_back([client, seed = random()] {
          std::mt19937 own(seed);
          for (int step = 0; step < 10; ++step) {
            switch (own() % 4) {
              case 0:
                client->connect();
                break;
              case 1:
                client->disconnect();
                break;
              case 2:
                client->writeString("x");
                break;
              default:
                client->stream(client->inputStream(), StreamEvent::end);
            }
          }
        });
      for (int turn = 0; turn < 10; ++turn) {
        RunLoop::main()->runOnce(1ms);
        if (!listener.accepted.empty() && random() % 2)
          listener.latest().send(handshakeBytes("peer", "", "app") + zeroed("s"));
        if (random() % 4 == 0) listener.accepted.clear();
      }
      client.reset();
      std::atomic<bool> joined = false;
      std::thread joiner([&] {
        for (auto &other : others) other.join();
        joined = true;
        RunLoop::main()->perform([] {});
      });
      EXPECT_TRUE(eventually([&] { return joined.load(); }));
      joiner.join();
    }
  }
  EXPECT_TRUE(eventually([&] { return threadCount() <= threads + 1; }));
  EXPECT_TRUE(eventually([&] { return descriptorCount() <= descriptors + 4; }));
}

// Another thread's connect() in the middle of disconnect(): one of the two counts, and what the client says is so.
TEST(LegacyClientEnds, WhileAnotherThreadConnects) {
  class Raced final : public QELNKLegacyClient {
   public:
    static std::shared_ptr<Raced> create(uint16_t port) {
      auto client = own(new Raced);
      client->setOptions(defaultPlayoutOptions());
      client->setHost("127.0.0.1");
      client->setPort(port);
      return client;
    }
    bool endConnection(std::optional<uint64_t> connection) override {
      if (const auto now = std::exchange(meanwhile, nullptr)) std::thread(now).join();
      return QELNKLegacyClient::endConnection(connection);
    }
    std::function<void()> meanwhile;
  };
  const Listener listener;
  const auto client = Raced::create(listener.port());
  client->meanwhile = [&] { client->connect(); };
  client->disconnect();
  EXPECT_EQ(client->isConnected(), client->inputStream() != nullptr);
  client->disconnect();
}

// Hooks that come late, behind another connection's making, have nothing to do with that one.
TEST(LegacyClientEnds, NothingOfAnEarlierConnectionEndsTheNext) {
  class Late final : public QELNKLegacyClient {
   public:
    static std::shared_ptr<Late> create() {
      auto client = own(new Late);
      Value options = defaultPlayoutOptions();
      options.set("delegateOnMainThread", false);
      options.set("appID", "late");
      client->setOptions(options);
      client->setHost("127.0.0.1");
      return client;
    }
    void connectTo(uint16_t port) {
      setPort(port);
      connect();
    }
    void informDelegateStreamWasTerminated() override {
      if (const auto now = std::exchange(meanwhile, nullptr)) now();
      QELNKLegacyClient::informDelegateStreamWasTerminated();
    }
    void informDelegateConnectionRefused() override {
      if (const auto now = std::exchange(meanwhile, nullptr)) now();
      QELNKLegacyClient::informDelegateConnectionRefused();
    }
    std::function<void()> meanwhile;
  };
  Listener first, second;
  const uint16_t closed = Listener().port();
  for (const bool refused : {false, true}) {
    const auto observer = std::make_shared<ClientObserver>();
    const auto client = Late::create();
    client->setDelegate(observer);
    std::atomic<bool> connectedAgain = false;
    client->meanwhile = [&, of = client.get()] {
      of->disconnect();
      of->connectTo(second.port());
      connectedAgain = true;
    };
    client->connectTo(refused ? closed : first.port());
    if (!refused) {
      ASSERT_TRUE(eventually([&] { return first.accepted.size() == 1; }));
      first.accepted.clear();
    }
    ASSERT_TRUE(eventually([&] { return connectedAgain.load(); }));
    ASSERT_TRUE(eventually([&] { return second.accepted.size() == 1; }));
    second.latest().send(handshakeBytes("peer", "", "app"));
    EXPECT_TRUE(eventually([&] { return observer->has("ready"); }));
    EXPECT_EQ(observer->all(), Texts{"ready"});
    client->disconnect();
    second.accepted.clear();
  }
}
