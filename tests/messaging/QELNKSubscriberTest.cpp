#include <QELNetworkKit/Clock.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKPublisher.h>
#include <QELNetworkKit/QELNKSubscriber.h>
#include <QELNetworkKit/Queue.h>
#include <QELNetworkKit/RunLoop.h>
#include <QELNetworkKit/ZMQContext.h>
#include <QELNetworkKit/ZMQException.h>
#include <QELNetworkKit/ZMQSocket.h>
#include <gtest/gtest.h>
#include <zmq.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "messaging/Peer.h"
#include "support/TestSupport.h"

namespace qelnk::test {
namespace {

using namespace std::chrono_literals;
using Subscriber = std::shared_ptr<QELNKSubscriber>;
using Frames = Peer::Frames;

std::shared_ptr<QELNKContext> background() { return QELNKContext::contextWithBackgroundQueue(); }

std::shared_ptr<QELNKContext> onMainQueue() {
  return std::make_shared<QELNKContext>(std::make_shared<ZMQContext>(1), Queue::main(), Queue::main());
}

/// What a subscriber is told, in order. Strings are messages.
class Heard {
 public:
  explicit Heard(const Subscriber &subscriber) {
    subscriber->setMessageBody(QELNKMessageBodyString);
    subscriber->setMessageBlock([this](auto &, const Value &message) { add(std::string(message.string())); });
  }
  QELNKSubscriber::ConnectedBlock onConnected() {
    return [this](auto &) { ++connected; };
  }
  std::vector<std::string> all() const {
    const std::lock_guard lock(mutex_);
    return messages_;
  }
  size_t count() const { return all().size(); }
  void clear() {
    const std::lock_guard lock(mutex_);
    messages_.clear();
  }
  std::atomic<int> connected{0};

 private:
  void add(std::string message) {
    const std::lock_guard lock(mutex_);
    messages_.push_back(std::move(message));
  }
  mutable std::mutex mutex_;
  std::vector<std::string> messages_;
};

/// A publishing socket that tells of subscriptions, so that nothing is published too early.
class PublishingPeer {
 public:
  explicit PublishingPeer(int32_t port = 0)
      : peer_(
            ZMQ_XPUB, [this](Peer &, Frames frames) { subscriptions += frames[0][0] == 1 ? 1 : -1; }, port) {}
  int32_t port() const { return peer_.port(); }
  void publish(const Frames &frames) {
    peer_.perform([this, frames] { peer_.send(frames); });
  }
  std::atomic<int> subscriptions{0};

 private:
  Peer peer_;
};

TEST(QELNKSubscriber, ReceivesWhatItsFiltersAskFor) {
  PublishingPeer peer;
  const auto all = QELNKSubscriber::create(background()), some = QELNKSubscriber::create(background()),
             number = QELNKSubscriber::create(background());
  Heard heardAll(all), heardSome(some), heardNumber(number);
  some->addFilter(Data("A"));
  some->addFilter(Data("Be"));
  number->addFilterWithInt(1);
  EXPECT_EQ(number->filters(), std::vector<Data>{Data(std::string_view("\1\0\0\0", 4))});
  for (const auto &subscriber : {all, some, number}) subscriber->connectToHost("localhost", peer.port(), nullptr);
  ASSERT_TRUE(eventually([&] { return peer.subscriptions == 4; }));
  const std::string one("\1\0\0\0x", 5);
  const std::vector<std::string> messages{"Alpha", "Bravo", "Beta", "C", one, "end"};
  for (const auto &message : messages) peer.publish({message});
  EXPECT_TRUE(eventually([&] { return heardAll.all() == messages; }));
  EXPECT_TRUE(eventually([&] { return heardSome.all() == std::vector<std::string>{"Alpha", "Beta"}; }));
  EXPECT_TRUE(eventually([&] { return heardNumber.all() == std::vector<std::string>{one}; }));
  EXPECT_EQ(some->host(), "localhost");
  EXPECT_EQ(some->port(), peer.port());
}

// Five seconds without a message cost one new connection, however long it stays silent; the next message arms it again.
TEST(QELNKSubscriber, ConnectsAnewOnceForEachSilence) {
  CapturedLog log;
  const auto clock = std::make_shared<ManualClock>();
  PublishingPeer peer;
  const auto subscriber = QELNKSubscriber::create(background());
  Heard heard(subscriber);
  subscriber->setClock(clock);
  subscriber->connectToHost("127.0.0.1", peer.port(), heard.onConnected());
  ASSERT_TRUE(eventually([&] { return heard.connected == 1; }));
  constexpr const char *line = "QELNKSubscriber didn't recieve any data for at least 5 seconds, re-connecting";
  // A message proves that the passes before it have seen the clock. None is left on its way.
  const auto hear = [&] {
    heard.clear();
    const bool heardOne = eventually([&] {
      peer.publish({"x"});
      return heard.count() != 0;
    });
    if (!heardOne) return false;
    peer.publish({"last"});
    return eventually([&] { return heard.all().back() == "last"; });
  };
  for (int silence = 1; silence <= 3; ++silence) {
    ASSERT_TRUE(hear());
    clock->advance(4900ms);
    ASSERT_TRUE(hear());
    EXPECT_EQ(log.count(line), size_t(silence) - 1);
    clock->advance(5s);
    ASSERT_TRUE(eventually([&] { return heard.connected == silence + 1; }));
    for (int i = 0; i < 4; ++i) clock->advance(5s);
    // Messages of other threads than the clock's: what the passes made of it is on the log by then.
    ASSERT_TRUE(eventually([&] { return peer.subscriptions == 1; }));
    EXPECT_EQ(log.count(line), size_t(silence));
    EXPECT_EQ(heard.connected, silence + 1);
  }
  EXPECT_EQ(log.count("QELNKSubscriber connecting to tcp://127.0.0.1:"), 4u);
  EXPECT_EQ(log.count("QELNKSubscriber connected to tcp://127.0.0.1:"), 4u);
}

// The same for real: the publisher is killed, stays away for longer than the silence, and comes back on its port.
TEST(QELNKSubscriber, HearsAPublisherThatWasStartedAgain) {
  CapturedLog log;
  const auto subscriber = QELNKSubscriber::create(background());
  Heard heard(subscriber);
  int32_t port;
  std::chrono::steady_clock::time_point heardLast;
  {
    PublishingPeer peer;
    port = peer.port();
    subscriber->connectToHost("127.0.0.1", port, heard.onConnected());
    ASSERT_TRUE(eventually([&] { return peer.subscriptions == 1; }));
    peer.publish({"before"});
    ASSERT_TRUE(eventually([&] { return heard.count() == 1; }));
    heardLast = std::chrono::steady_clock::now();
  }
  ASSERT_TRUE(eventually([&] { return heard.connected == 2; }));
  EXPECT_GE(std::chrono::steady_clock::now() - heardLast, 4s) << "the silence was shorter";
  PublishingPeer peer(port);
  ASSERT_TRUE(eventually([&] { return peer.subscriptions == 1; }));
  peer.publish({"after"});
  EXPECT_TRUE(eventually([&] { return heard.all() == std::vector<std::string>{"before", "after"}; }));
  EXPECT_EQ(log.count("re-connecting"), 1u);
}

TEST(QELNKSubscriber, TellsWhatItCannotRead) {
  CapturedLog log;
  PublishingPeer peer;
  const auto subscriber = QELNKSubscriber::create(background());
  std::atomic<int> count{0};
  subscriber->setMessageBlock([&](auto &, const Value &message) {
    EXPECT_EQ(message, Value::list({1}));
    if (++count == 1) throw std::runtime_error("Boom");
  });
  subscriber->connectToHost("127.0.0.1", peer.port(), nullptr);
  ASSERT_TRUE(eventually([&] { return peer.subscriptions == 1; }));
  for (const Frames &frames : {Frames{"{"}, {"[1]", "[2]"}, {""}, {"[1]"}, {"\xff\xff"}, {"[1]"}}) peer.publish(frames);
  EXPECT_TRUE(eventually([&] { return count == 2; }));
  EXPECT_EQ(log.count("QELNKSubscriber could not deserialize message with error"), 4u);
  EXPECT_EQ(log.count("QELNKSubscriber got message"), 2u);
  EXPECT_EQ(log.count("Boom"), 1u);
}

TEST(QELNKSubscriber, ConnectsAgainAfterAFailure) {
  CapturedLog log;
  PublishingPeer peer;
  const auto subscriber = QELNKSubscriber::create(QELNKContext::contextWithBackgroundQueue());
  Heard heard(subscriber);
  subscriber->connectToHost("no such host", 1, heard.onConnected());
  EXPECT_TRUE(eventually([&] { return log.contains("QELNKSubscriber could not connect"); }));
  EXPECT_TRUE(log.contains("QELNKSubscriber connect threw exception"));
  EXPECT_TRUE(eventually([&] { return log.contains("QELNKSubscriber io thread exiting"); }));
  for (int i = 0; i < 2; ++i) {
    // Also on the queue that the last thread's last line is written on.
    std::promise<void> done;
    subscriber->context()->responseQueue()->async([&] {
      if (i == 0) subscriber->connectToHost("no such host", 2, nullptr);
      subscriber->disconnect();
      Heard replaced(subscriber);
      subscriber->connectToHost("127.0.0.1", peer.port(), nullptr);
      subscriber->connectToHost("127.0.0.1", 3, nullptr);
      done.set_value();
    });
    done.get_future().wait();
    EXPECT_TRUE(log.contains("QELNKSubscriber cannot connect to tcp://127.0.0.1:3, it is connected already"));
    EXPECT_EQ(subscriber->port(), peer.port());
    EXPECT_TRUE(eventually([&] { return peer.subscriptions == 1; }));
    subscriber->disconnect();
  }
}

// The contract of disconnect(): behind it the thread has ended, the last line is written, and nothing is called.
TEST(QELNKSubscriber, DisconnectWaitsForItsLastLine) {
  CapturedLog log;
  PublishingPeer peer;
  const auto subscriber = QELNKSubscriber::create(QELNKContext::contextWithBackgroundQueue());
  Heard heard(subscriber);
  for (int i = 0; i < 10; ++i) {
    subscriber->setMessageBlock([&](auto &, auto &) {});
    subscriber->connectToHost("127.0.0.1", peer.port(), nullptr);
    if (i % 2) {
      ASSERT_TRUE(eventually([&] { return peer.subscriptions == 1; }));
    }
    subscriber->disconnect();
    EXPECT_GE(log.count("QELNKSubscriber io thread exiting"), size_t(i) + 1);  // an earlier test's may come late
    EXPECT_FALSE(subscriber->messageBlock());
    EXPECT_EQ(subscriber->socket(), nullptr);
  }
  EXPECT_FALSE(log.contains("was disconnected on the thread"));
}

// However many messages wait for a slow callback: they are called back before disconnect() returns, and none after.
TEST(QELNKSubscriber, DisconnectWaitsForWhatHasBeenReceived) {
  PublishingPeer peer;
  const auto subscriber = QELNKSubscriber::create(background());
  subscriber->setMessageBody(QELNKMessageBodyString);
  std::promise<void> blocked, unblock;
  std::atomic<size_t> count{0};
  std::atomic<bool> nested{false};
  subscriber->setMessageBlock([&](auto &, auto &) {
    if (++count == 1) {
      blocked.set_value();
      unblock.get_future().wait();
    } else if (!nested.exchange(true)) {
      RunLoop::current()->runOnce(0ns);
    }
  });
  subscriber->connectToHost("127.0.0.1", peer.port(), nullptr);
  ASSERT_TRUE(eventually([&] { return peer.subscriptions == 1; }));
  for (int i = 0; i < 2000; ++i) peer.publish({"x"});
  blocked.get_future().wait();
  ASSERT_TRUE(eventually([&] { return subscriber->pendingMessages() == 1999; }));
  std::thread other([&] {
    subscriber->disconnect();
    EXPECT_EQ(count, 2000u);
  });
  EXPECT_TRUE(eventually([&] { return subscriber->socket() == nullptr; }));  // by then the last line is on its way
  unblock.set_value();
  other.join();
}

TEST(QELNKSubscriber, DisconnectServesACallbackThatWaitsForTheMainThread) {
  PublishingPeer publisher;
  const auto subscriber = QELNKSubscriber::create(background());
  std::promise<void> calling;
  bool served = false;
  subscriber->setMessageBody(QELNKMessageBodyString);
  subscriber->setMessageBlock([&](auto &, auto &) {
    calling.set_value();
    std::this_thread::sleep_for(100ms);
    RunLoop::main()->performAndWait([&] { served = true; });
  });
  subscriber->connectToHost("127.0.0.1", publisher.port(), nullptr);
  ASSERT_TRUE(eventually([&] { return publisher.subscriptions == 1; }));
  publisher.publish({"one"});
  calling.get_future().wait();
  subscriber->disconnect();
  EXPECT_TRUE(served);
}

// Who breaks the contract is told, is not made to wait, and is called no more either.
TEST(QELNKSubscriber, DisconnectedOnItsResponseQueueDoesNotWait) {
  CapturedLog log;
  const auto clock = std::make_shared<ManualClock>();
  PublishingPeer peer;
  auto subscriber = QELNKSubscriber::create(background());
  subscriber->setClock(clock);
  subscriber->setMessageBody(QELNKMessageBodyString);
  std::atomic<int> count{0};
  std::promise<void> ended;
  subscriber->setMessageBlock([&](const Subscriber &self, auto &) {
    ++count;
    self->disconnect();
    EXPECT_FALSE(self->messageBlock());
    // The thread that cannot write its last line says so too.
    while (!log.contains("QELNKSubscriber io thread cannot end, for nobody serves its response queue")) {
      clock->advance(1s);
      std::this_thread::yield();
    }
    ended.set_value();
  });
  subscriber->connectToHost("127.0.0.1", peer.port(), nullptr);
  ASSERT_TRUE(eventually([&] { return peer.subscriptions == 1; }));
  for (int i = 0; i < 10; ++i) peer.publish({"x"});
  ended.get_future().wait();
  EXPECT_TRUE(log.contains("QELNKSubscriber was disconnected on the thread that serves its response queue"));
  EXPECT_TRUE(eventually([&] { return log.contains("QELNKSubscriber io thread exiting"); }));
  EXPECT_EQ(count, 1);
}

TEST(QELNKSubscriber, MayBeDroppedAnywhere) {
  const size_t before = threadCount();
  enum Place { mainThread, otherThread, connectedCallback, messageCallback, blockedQueue };
  for (const Place place : {mainThread, otherThread, connectedCallback, messageCallback, blockedQueue}) {
    SCOPED_TRACE(place);
    PublishingPeer peer;
    auto subscriber = QELNKSubscriber::create(place == mainThread ? onMainQueue() : background());
    const std::weak_ptr<QELNKSubscriber> weak = subscriber;
    const auto queue = subscriber->context()->responseQueue();
    const auto holder = std::make_shared<Subscriber>(subscriber);
    std::atomic<int> called{0};
    std::promise<void> blocked, unblock;
    subscriber->setMessageBody(QELNKMessageBodyString);
    subscriber->setMessageBlock([&](auto &, auto &) {
      ++called;
      if (place == messageCallback) holder->reset();
    });
    subscriber->connectToHost("127.0.0.1", peer.port(), [&](auto &) {
      if (place == connectedCallback) holder->reset();
    });
    subscriber.reset();
    if (place != connectedCallback) {
      ASSERT_TRUE(eventually([&] { return peer.subscriptions == 1; }));
    }
    if (place == blockedQueue) {
      queue->async([&] {
        blocked.set_value();
        unblock.get_future().wait();
      });
      blocked.get_future().wait();
    }
    for (int i = 0; i < 10; ++i) peer.publish({"x"});
    if (place == otherThread) std::thread([&] { holder->reset(); }).join();
    if (place == mainThread || place == blockedQueue) holder->reset();
    EXPECT_TRUE(eventually([&] { return weak.expired(); }));
    const int then = called;
    if (place == blockedQueue) unblock.set_value();
    std::promise<void> drained;
    queue->async([&] { drained.set_value(); });
    EXPECT_TRUE(eventually(
        [future = drained.get_future().share()] { return future.wait_for(0s) == std::future_status::ready; }));
    EXPECT_LE(called, then + (place == messageCallback ? 1 : 0));
  }
  EXPECT_TRUE(eventually([&] { return threadCount() <= before; }));
}

// What a slow callback leaves waiting is bounded: the oldest go, are counted, and the newest always arrives.
TEST(QELNKSubscriber, DropsTheOldestForASlowCallback) {
  for (const bool byBytes : {false, true}) {
    CapturedLog log(LogLevel::error);
    PublishingPeer peer;
    const auto subscriber = QELNKSubscriber::create(background());
    subscriber->setPendingLimit(byBytes ? QELNKSubscriber::PendingLimit{100000, 100 * 4}
                                        : QELNKSubscriber::PendingLimit{100, 100000});
    subscriber->setMessageBody(QELNKMessageBodyString);
    std::vector<int> heard;
    std::atomic<int> last{-1};
    std::promise<void> blocked, unblock;
    subscriber->setMessageBlock([&](auto &, const Value &message) {
      heard.push_back(std::stoi(std::string(message.string())));
      if (heard.size() == 1) {
        blocked.set_value();
        unblock.get_future().wait();
      }
      last = heard.back();
    });
    subscriber->connectToHost("127.0.0.1", peer.port(), nullptr);
    ASSERT_TRUE(eventually([&] { return peer.subscriptions == 1; }));
    peer.publish({"1000"});
    blocked.get_future().wait();
    for (int i = 1001; i < 2000; ++i) peer.publish({std::to_string(i)});
    EXPECT_TRUE(eventually([&] { return subscriber->droppedMessages() == 899; }));
    EXPECT_EQ(subscriber->pendingMessages(), 100u);
    unblock.set_value();
    EXPECT_TRUE(eventually([&] { return last == 1999; }));
    EXPECT_EQ(log.count("QELNKSubscriber drops messages"), 1u);
    peer.publish({"2000"});
    EXPECT_TRUE(eventually([&] { return last == 2000; }));
    EXPECT_EQ(heard.size(), 102u);
    EXPECT_EQ(heard[1], 1900);
    EXPECT_EQ(subscriber->droppedMessages(), 899u);
  }
}

// What is dropped leaves nothing else behind: a queue that is not served for days costs no more than the limit.
TEST(QELNKSubscriber, KeepsAStuckQueueShort) {
  struct StuckQueue final : Queue {
    void async(Task) override { ++tasks; }
    bool isCurrent() const override { return false; }
    const std::string &label() const override { return name; }
    std::atomic<int> tasks{0};
    std::string name = "stuck";
  };
  const auto queue = std::make_shared<StuckQueue>();
  PublishingPeer peer;
  const auto subscriber =
      QELNKSubscriber::create(std::make_shared<QELNKContext>(std::make_shared<ZMQContext>(1), queue, queue));
  subscriber->setPendingLimit({10, 1000});
  subscriber->setMessageBody(QELNKMessageBodyString);
  subscriber->connectToHost("127.0.0.1", peer.port(), nullptr);
  ASSERT_TRUE(eventually([&] { return peer.subscriptions == 1; }));
  for (int i = 0; i < 5000; ++i) peer.publish({"x"});
  EXPECT_TRUE(eventually([&] { return subscriber->droppedMessages() == 4990; }));
  EXPECT_LE(queue->tasks, 3);
}

// Who disconnects waits for the thread that he has ended, not for the one of a connection that is made meanwhile.
TEST(QELNKSubscriber, IsConnectedAgainWhileAnotherThreadDisconnects) {
  struct TellingQueue final : Queue {
    void async(Task) override {}
    bool isCurrent() const override {
      if (asked) asked();
      return false;
    }
    const std::string &label() const override { return name; }
    std::function<void()> asked;
    std::string name = "telling";
  };
  const auto queue = std::make_shared<TellingQueue>();
  PublishingPeer peer;
  const auto subscriber =
      QELNKSubscriber::create(std::make_shared<QELNKContext>(std::make_shared<ZMQContext>(1), queue, queue));
  subscriber->connectToHost("127.0.0.1", peer.port(), nullptr);
  ASSERT_TRUE(eventually([&] { return peer.subscriptions == 1; }));
  queue->asked = [&] {  // disconnect() has ended the thread and does not wait for it yet
    std::thread([&] { subscriber->connectToHost("127.0.0.1", peer.port(), nullptr); }).join();
  };
  std::atomic<bool> over = false;
  std::thread disconnecting([&] {
    subscriber->disconnect();
    over = true;
  });
  EXPECT_TRUE(eventually([&] { return over.load(); }));
  EXPECT_TRUE(eventually([&] { return peer.subscriptions == 1; }));
  queue->asked = nullptr;
  subscriber->disconnect();  // for the other one as well, should it still wait
  disconnecting.join();
}

// A callback that turns its loop lets the next messages in, in order.
TEST(QELNKSubscriber, MessagesArriveWhileACallbackTurnsItsLoop) {
  PublishingPeer peer;
  const auto subscriber = QELNKSubscriber::create(background());
  subscriber->setMessageBody(QELNKMessageBodyString);
  std::vector<int> order;
  std::atomic<size_t> count{0};
  subscriber->setMessageBlock([&](auto &, const Value &message) {
    order.push_back(std::stoi(std::string(message.string())));
    count = order.size();
    if (order.size() > 1) return;
    EXPECT_TRUE(eventually([&] { return count == 600; }));
  });
  subscriber->connectToHost("127.0.0.1", peer.port(), nullptr);
  ASSERT_TRUE(eventually([&] { return peer.subscriptions == 1; }));
  for (int i = 0; i < 600; ++i) peer.publish({std::to_string(i)});
  ASSERT_TRUE(eventually([&] { return count == 600; }));
  subscriber->disconnect();
  for (int i = 0; i < 600; ++i) ASSERT_EQ(order[size_t(i)], i);
}

TEST(QELNKSubscriber, LetsItsContextEnd) {
  CapturedLog log;
  for (const bool askFirst : {true, false}) {
    const auto context = background();
    const auto subscriber = QELNKSubscriber::create(context);
    const auto publisher = QELNKPublisher::create(context);
    publisher->bindToPort(0);
    subscriber->connectToHost("127.0.0.1", publisher->port(), nullptr);
    ASSERT_TRUE(eventually([&] { return subscriber->socket() != nullptr; }));
    if (askFirst)
      context->zmqContext()->closeSockets();
    else
      publisher->disconnect();
    context->zmqContext()->terminate();
    EXPECT_TRUE(eventually([&] { return subscriber->socket() == nullptr; }));
    EXPECT_FALSE(publisher->publish(Value::list()));
    subscriber->connectToHost("127.0.0.1", publisher->port(), nullptr);
    subscriber->disconnect();
  }
  EXPECT_EQ(log.count("QELNKSubscriber poll error"), 2u);
}

// The publisher.

TEST(QELNKPublisher, ReachesSubscribersFromAnyThread) {
  const auto publisher = QELNKPublisher::create(background());
  publisher->setMessageBody(QELNKMessageBodyMessagePack);
  publisher->bindToPort(0);
  Wire wire(ZMQ_SUB, publisher->port());
  const auto subscriber = QELNKSubscriber::create(background());
  subscriber->setMessageBody(QELNKMessageBodyMessagePack);
  std::atomic<int> sum{0};
  subscriber->setMessageBlock([&](auto &, const Value &message) { sum += int(message["n"].integerValue()); });
  subscriber->connectToHost("localhost", publisher->port(), nullptr);
  const auto publish = [&](int n) { return publisher->publish(Value::map({{"n", n}})); };
  ASSERT_TRUE(eventually([&] { return publish(1000000) && sum >= 1000000 && wire.receive(0ms); }));
  while (wire.receive(50ms)) {
  }
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) EXPECT_TRUE(publish(1));
    });
  for (auto &thread : threads) thread.join();
  EXPECT_TRUE(eventually([&] { return sum % 1000000 == 200; }));
  for (int i = 0; i < 200; ++i) EXPECT_EQ(wire.receive(), Frames{"\x81\xa1n\x01"});
}

TEST(QELNKPublisher, TellsWhatFails) {
  CapturedLog log;
  const Peer taken(ZMQ_REP, Peer::ignore);
  const auto publisher = QELNKPublisher::create(background());
  Error error;
  EXPECT_FALSE(publisher->publish(Value::list(), &error));
  EXPECT_EQ(error.code, ENOTSOCK);
  try {
    publisher->bindToPort(taken.port());
    ADD_FAILURE() << "the port is taken";
  } catch (const ZMQException &exception) {
    EXPECT_EQ(exception.code(), EADDRINUSE);
  }
  for (const int32_t port : {-1, 70000}) EXPECT_THROW(publisher->bindToPort(port), ZMQException);
  EXPECT_EQ(publisher->socket(), nullptr);
  publisher->bindToPort(0);
  const int32_t port = publisher->port();
  publisher->bindToPort(0);
  EXPECT_TRUE(log.contains("QELNKPublisher is bound already"));
  EXPECT_FALSE(publisher->publish(Value(1), &error)) << "not JSON at the top";
  EXPECT_EQ(log.count("QELNKPublisher could not publish message with error"), 2u);
  for (int i = 0; i < 20; ++i) {
    publisher->disconnect();
    publisher->bindToPort(port);
  }
}

// What was published last arrives though the publisher goes at once.
TEST(QELNKPublisher, LeavesNothingUnsentBehind) {
  for (const bool drop : {false, true}) {
    auto publisher = QELNKPublisher::create(background());
    publisher->setMessageBody(QELNKMessageBodyData);
    bool ready = false;
    // An extended socket could tell of the subscription; here messages are sent until one arrives.
    publisher->bindToPort(0);
    Wire wire(ZMQ_SUB, publisher->port());
    ASSERT_TRUE(eventually([&] { return (ready = publisher->publish(Data("?"))) && wire.receive(10ms); }));
    const Data large(std::string(1 << 20, 'x'));
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(publisher->publish(large));
    if (drop)
      publisher.reset();
    else
      publisher->disconnect();
    for (int large = 0; large < 20;) {
      const auto frames = wire.receive();
      ASSERT_TRUE(frames);
      large += frames->front().size() > 1;
    }
  }
}

}  // namespace
}  // namespace qelnk::test
