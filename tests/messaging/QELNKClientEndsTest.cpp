#include <QELNetworkKit/Queue.h>
#include <QELNetworkKit/RunLoop.h>
#include <QELNetworkKit/ZMQContext.h>
#include <QELNetworkKit/ZMQSocket.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "messaging/ClientFixture.h"

using namespace qelnk;
using namespace qelnk::test;
using namespace std::chrono_literals;
using Message = std::shared_ptr<QELNKMessage>;

// Cancelling and deadlines.

namespace {

struct Ending {
  const char *name;
  int64_t error;
  std::function<void(const std::shared_ptr<QELNKClient> &, ManualClock &, const Message &)> end;
  friend void PrintTo(const Ending &ending, std::ostream *out) { *out << ending.name; }
};

const Ending endings[] = {
    {"Cancelled", ECANCELED, [](auto &client, auto &, auto &message) { client->cancelMessage(message); }},
    {"CancelledOnTheIOThread", ECANCELED,
     [](auto &client, auto &, auto &message) {
       std::static_pointer_cast<HookedClient>(client)->onIOThread(
           [client, message] { client->cancelMessage(message); });
     }},
    {"TimedOut", ETIMEDOUT, [](auto &, ManualClock &clock, auto &) { clock.advance(5s); }},
};

}  // namespace

class EarlyEnd : public testing::TestWithParam<Ending> {
 protected:
  EarlyEnd() {
    client->setClock(clock);
    client->byIdentifier = false;
  }
  void end(const Message &message) { GetParam().end(client, *clock, message); }

  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  Results results;
  std::shared_ptr<HookedClient> client = makeHooked();
};

TEST_P(EarlyEnd, OfARequestThatWasSentAndOneThatWaits) {
  std::atomic<bool> answering = false;
  std::vector<Peer::Frames> late;
  Peer peer(ZMQ_ROUTER, [&](Peer &self, Peer::Frames frames) {
    if (answering)
      self.send(frames);
    else
      late.push_back(frames);
  });
  client->type = ZMQ_REQ;
  client->connectToHost("127.0.0.1", peer.port(), nullptr);
  const auto sent = client->sendRequest(request(1), results.block(), 5s);
  const auto waiting = client->sendRequest(request(2), results.block(), 5s);
  ASSERT_TRUE(eventually([&] { return peer.received() == 1; }));
  const auto kept = client->sendRequest(request(3), results.block());
  end(waiting);
  end(sent);
  ASSERT_TRUE(eventually([&] { return results.count() == 2 && peer.received() == 2; }));
  EXPECT_EQ(sent->error().code, GetParam().error);
  EXPECT_EQ(waiting->error().code, GetParam().error);
  // The late reply to the first is not taken for the reply to the third, and the socket goes on.
  answering = true;
  peer.perform([&] {
    for (const auto &frames : late) peer.send(frames);
  });
  ASSERT_TRUE(eventually([&] { return results.count() == 3; }));
  EXPECT_EQ(kept->response(), request(3));
  client->sendRequest(request(4), results.block());
  ASSERT_TRUE(eventually([&] { return results.count() == 4; }));
  EXPECT_EQ(results.all().back(), (Results::Result{4, 0}));
}

INSTANTIATE_TEST_SUITE_P(All, EarlyEnd, testing::ValuesIn(endings), [](const auto &info) { return info.param.name; });

TEST(QELNKClientDeadlines, CountFromTheQueueing) {
  Results results;
  const Peer peer(ZMQ_ROUTER, Peer::ignore);
  const auto client = makeHooked();
  const auto clock = std::make_shared<ManualClock>(1000h);
  client->setClock(clock);
  client->setRequestTimeout(10s);
  client->sendRequest(request(1), results.block());
  client->sendRequest(request(2), results.block(), 3s);
  client->sendRequest(request(3), results.block(), std::chrono::nanoseconds::max());
  client->sendRequest(request(4), results.block(), -1s);
  client->scheduleMessage(std::make_shared<QELNKMessage>(results.block()));  // no request: no deadline
  clock->advance(4s);
  client->connectToHost("127.0.0.1", peer.port(), nullptr);
  ASSERT_TRUE(eventually([&] { return results.count() == 2; }));
  EXPECT_EQ(results.all(), (std::vector<Results::Result>{{4, ETIMEDOUT}, {2, ETIMEDOUT}}));
  clock->advance(6s - 1ns);
  client->cancelMessage(client->sendRequest(request(5), results.block()));
  ASSERT_TRUE(eventually([&] { return results.count() == 3; }));
  clock->advance(1ns);
  ASSERT_TRUE(eventually([&] { return results.count() == 4; }));
  EXPECT_EQ(results.all().back(), (Results::Result{1, ETIMEDOUT}));
  EXPECT_TRUE(eventually([&] { return client->pendingMessages() == 2; }));
}

TEST(QELNKClientDeadlines, ComeBySystemTimeToo) {
  const auto client = makeHooked();
  client->connectToHost("127.0.0.1", 1, nullptr);
  client->setSyncRequests(true);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client->sendRequest(request(1), nullptr, 3ms)->error().description, "Request timed out");
  EXPECT_GE(std::chrono::steady_clock::now() - start, 3ms);
}

TEST(QELNKClientCancel, BeforeConnecting) {
  Results results;
  const auto client = makeHooked();
  client->cancelMessage(client->sendRequest(request(1), results.block()));
  EXPECT_EQ(client->pendingMessages(), 0u);
  ASSERT_TRUE(eventually([&] { return results.count() == 1; }));
  EXPECT_EQ(results.all().front().error, ECANCELED);
}

// Disconnecting, and letting the last reference go.

namespace {

/// Where a client is ended: `arrange`, which is called before it connects or once it has sent, has `end` called there.
struct Place {
  const char *name;
  bool onceSent;
  std::function<void(HookedClient &, const std::function<void()> &end)> arrange;
  friend void PrintTo(const Place &place, std::ostream *out) { *out << place.name; }
};

const Place places[] = {
    {"OnTheHostsThread", true, [](auto &, auto &end) { end(); }},
    {"InTheConnectedCallback", false,
     [](auto &client, auto &end) { client.setConnectedBlock([end](auto &) { end(); }); }},
    {"InAResponseCallback", false,
     [](auto &client, auto &end) { client.sendRequest(request(9), [end](auto &, auto &) { end(); }); }},
    {"InTheConnectedHook", false, [](auto &client, auto &end) { client.connectedHook = [end](auto &) { end(); }; }},
    {"InTheResponseHook", false,
     [](auto &client, auto &end) {
       client.responseHook = [end](auto &, auto &) { end(); };
       client.sendRequest(request(9), nullptr);
     }},
    {"OnAnothersIOThread", true,
     [](auto &, auto &end) {
       static std::shared_ptr<HookedClient> other;
       other = makeHooked();
       other->connectedHook = [end](auto &) { end(); };
       other->connectToHost("127.0.0.1", 1, nullptr);
     }},
};

}  // namespace

class ClientEnd : public testing::TestWithParam<Place> {
 protected:
  ClientEnd() {
    client->onDestroy = [this] { destroyed = true; };
    for (int i = 1; i <= 3; i++) client->sendRequest(request(i), results.block());
    client->scheduleMessage(std::make_shared<QELNKMessage>(results.block()));
  }
  /// Connects and has `end` called at the place; returns once it has been.
  void run(const std::function<void()> &end) {
    const auto endOnce = [=, this] {
      if (!started.exchange(true)) {
        end();
        ended = true;
      }
    };
    const auto &[name, onceSent, arrange] = GetParam();
    if (!onceSent) arrange(*client, endOnce);
    client->connectToHost("127.0.0.1", peer.port(), client->connectedBlock());
    if (onceSent) {
      EXPECT_TRUE(eventually([&] { return peer.received() == 3; }));
      arrange(*client, endOnce);
    }
    EXPECT_TRUE(eventually([&] { return ended.load(); }));
  }

  // Answers requests with the number 9 alone.
  Peer peer{ZMQ_ROUTER, [](Peer &self, Peer::Frames frames) {
              if (frames.back() == "{\"id\":9}") self.send(frames);
            }};
  Results results;
  std::atomic<bool> started = false, ended = false, destroyed = false;
  CapturedLog log;
  std::shared_ptr<HookedClient> client = makeHooked();
};

TEST_P(ClientEnd, ByDisconnecting) {
  run([this] {
    client->disconnect();
    client->disconnect();
  });
  const auto later = client->sendRequest(request(4), results.block());
  ASSERT_TRUE(eventually([&] { return results.count() == 5; }));
  EXPECT_EQ(results.all(),
            (std::vector<Results::Result>{{1, ENOTCONN}, {2, ENOTCONN}, {3, ENOTCONN}, {-1, ENOTCONN}, {4, ENOTCONN}}));
  EXPECT_EQ(later->error().domain, "ZMQ");
  EXPECT_TRUE(eventually([&] { return log.contains("QELNKClient io thread exiting"); }));
  EXPECT_EQ(client->socket(), nullptr);
  EXPECT_EQ(client->pendingMessages(), 0u);
  client = nullptr;
  EXPECT_TRUE(eventually([&] { return destroyed.load(); }));  // the last callback may hold it a moment longer
}

TEST_P(ClientEnd, ByItsLastReference) {
  run([this] { client.reset(); });
  EXPECT_TRUE(eventually([&] { return destroyed.load(); }));
  EXPECT_EQ(results.count(), 0u);
  EXPECT_TRUE(log.contains("QELNKClient io thread exiting"));
}

INSTANTIATE_TEST_SUITE_P(All, ClientEnd, testing::ValuesIn(places), [](const auto &info) { return info.param.name; });

TEST(QELNKClientEnds, BeforeConnecting) {
  Results results;
  const auto client = makeHooked();
  client->setSyncRequests(true);
  const auto message = client->sendRequest(request(1), results.block());
  client->setConnectedBlock([client](auto &) {});
  client->disconnect();
  client->cancelMessage(message);
  client->sendRequest(request(2), results.block());
  ASSERT_TRUE(eventually([&] { return results.count() == 2 && !client->connectedBlock(); }));
  EXPECT_EQ(client->pendingMessages(), 0u);
  makeHooked()->sendRequest(request(3), results.block());
}

TEST(QELNKClientEnds, FromSeveralThreadsAtOnce) {
  for (int round = 0; round < 20; round++) {
    Results results;
    const Peer peer(ZMQ_ROUTER, Peer::echo);
    auto client = makeHooked();
    client->connectToHost("127.0.0.1", peer.port(), nullptr);
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; i++)
      threads.emplace_back([&, i] {
        for (int k = 0; k < 20; k++) client->sendRequest(request(100 * i + k), results.block());
        client->disconnect();
      });
    for (auto &thread : threads) thread.join();
    EXPECT_TRUE(eventually([&] { return results.count() == 60; }));  // with a reply or an error, each once
  }
}

TEST(QELNKClientEnds, ReleasesWhoWaits) {
  for (const bool drop : {false, true}) {
    const Peer peer(ZMQ_ROUTER, Peer::ignore);
    auto client = QELNKSocket::make<HookedClient>(QELNKContext::sharedContext());
    const auto end = [&] {
      if (drop)
        client.reset();
      else
        client->disconnect();
    };
    client->setSyncRequests(true);
    client->connectToHost("127.0.0.1", peer.port(), nullptr);
    RunLoop::main()->performAfter(5ms, end);
    EXPECT_EQ(client->sendRequest(request(1), nullptr)->error().code, ENOTCONN);

    // The same while it connects: the callback that would end the wait comes behind the one that ends the client.
    client = QELNKSocket::make<HookedClient>(QELNKContext::sharedContext());
    client->setSyncRequests(true);
    client->connectedHook = [&](auto &) { Queue::main()->async(end); };
    client->connectToHost("127.0.0.1", peer.port(), [](auto &) {});
  }
}

// A callback that hears of the end makes the next connection, which is none of those that disconnect() was to end.
TEST(QELNKClientEnds, IsConnectedAgainByWhoHearsOfTheEnd) {
  struct AtOnce final : Queue {
    void async(Task task) override { task(); }
    bool isCurrent() const override { return true; }
    const std::string &label() const override { return name; }
    const std::string name = "at once";
  };
  const Peer peer(ZMQ_ROUTER, Peer::echo);
  const auto queue = std::make_shared<AtOnce>();
  const auto client =
      QELNKSocket::make<HookedClient>(std::make_shared<QELNKContext>(std::make_shared<ZMQContext>(1), queue, queue));
  client->sendRequest(request(1), [&](auto &, auto &message) {
    EXPECT_EQ(message->error().code, ENOTCONN);
    client->connectToHost("127.0.0.1", peer.port(), nullptr);
  });
  // Hears of the end after that.
  client->sendRequest(request(3), [&](auto &, auto &ended) { client->endConnection(client->connectionOf(*ended)); });
  client->disconnect();
  const auto message = client->sendRequest(request(2), nullptr);
  EXPECT_TRUE(eventually([&] { return message->isFinished(); }));
  EXPECT_TRUE(message->response());
}

// What a callback of an earlier connection does comes too late for the next one, at whatever moment that was made.
TEST(QELNKClientEnds, NothingOfAnEarlierConnectionEndsTheNext) {
  const Peer peer(ZMQ_ROUTER, Peer::echo);
  const auto client = makeHooked();
  const auto answer = [&](int id) {
    const auto message = client->sendRequest(request(id), nullptr);
    EXPECT_TRUE(eventually([&] { return message->isFinished(); }));
    EXPECT_TRUE(message->response());
    return HookedClient::connectionOf(*message);
  };
  client->connectToHost("127.0.0.1", peer.port(), nullptr);
  const uint64_t before = answer(1);
  client->disconnect();
  client->connectedHook = [&](HookedClient &of) {
    EXPECT_FALSE(of.takeAwaiting(before));
    of.endConnection(before);
  };
  std::atomic<bool> connected = false;
  client->connectToHost("127.0.0.1", peer.port(), [&](auto &) { connected = true; });
  const uint64_t now = answer(2);
  EXPECT_TRUE(eventually([&] { return connected.load(); }));
  EXPECT_NE(now, before);
  client->endConnection(now);
  const auto message = client->sendRequest(request(3), nullptr);
  EXPECT_TRUE(eventually([&] { return message->isFinished(); }));
  EXPECT_EQ(message->error().code, ENOTCONN);
}

// However many connections begin and end while somebody waits to make the next one.
TEST(QELNKClientEnds, AConnectionWaitsForTheEndOfEveryOneBefore) {
  // Holds the first and the second connection's thread at its end: each calls once as it connects, and then.
  struct HoldingQueue final : Queue {
    void async(Task) override {
      const int call = ++calls;
      if (call == 2) first.get_future().wait();
      if (call == 4) second.get_future().wait();
    }
    bool isCurrent() const override { return false; }
    const std::string &label() const override { return name; }
    const std::string name = "holding";
    std::atomic<int> calls = 0;
    std::promise<void> first, second;
  };
  const Peer peer(ZMQ_ROUTER, Peer::echo);
  const auto queue = std::make_shared<HoldingQueue>();
  const auto client =
      QELNKSocket::make<HookedClient>(std::make_shared<QELNKContext>(std::make_shared<ZMQContext>(1), queue, queue));
  const auto connect = [&] { client->connectToHost("127.0.0.1", peer.port(), nullptr); };
  const auto called = [&](int times) { return eventually([&] { return queue->calls == times; }); };
  connect();
  EXPECT_TRUE(called(1));
  client->disconnect();
  EXPECT_TRUE(called(2));
  std::promise<std::shared_ptr<RunLoop>> waiting;
  std::thread connecting([&] {
    waiting.set_value(RunLoop::current());
    connect();
  });
  std::promise<void> between;
  std::thread meanwhile([&, loop = waiting.get_future().get()] {
    loop->performAndWait([&] {
      between.set_value();
      connect();
      EXPECT_TRUE(called(3));
      client->disconnect();
    });
  });
  between.get_future().wait();
  queue->first.set_value();
  EXPECT_TRUE(called(4));
  EXPECT_FALSE(eventually([&] { return queue->calls == 5; }, 100ms)) << "the one before still uses the client";
  queue->second.set_value();
  connecting.join();
  meanwhile.join();
  const auto message = client->sendRequest(request(1), nullptr);
  EXPECT_TRUE(eventually([&] { return message->isFinished(); }));
  EXPECT_TRUE(message->response());
}

TEST(QELNKClientEnds, LetsGoOfCallbacksThatHoldTheClient) {
  std::atomic<int> destroyed = 0;
  for (int round = 0; round < 3; round++) {
    const auto client = makeHooked();
    client->onDestroy = [&] { destroyed++; };
    client->sendRequest(request(1), [client](auto &, auto &) {});
    // Each holds the client until the connection has ended.
    client->connectToHost(round == 0 ? "a b" : "127.0.0.1", 1, [client](auto &) {});
    if (round == 2) client->disconnect();
    if (round == 1) client->onIOThread([client] { client->disconnect(); });
  }
  EXPECT_TRUE(eventually([&] { return destroyed == 3; }));
}

TEST(QELNKClientEnds, LeavesNothingBehind) {
  const Peer peer(ZMQ_ROUTER, Peer::echo);
  const auto context = QELNKContext::contextWithBackgroundQueue();
  const auto use = [&] {
    const auto client = QELNKSocket::make<HookedClient>(context);
    std::atomic<bool> answered = false;
    client->connectToHost("127.0.0.1", peer.port(), nullptr);
    client->sendRequest(request(1), [&](auto &, auto &) { answered = true; });
    EXPECT_TRUE(eventually([&] { return answered.load(); }));
  };
  use();
  const size_t threads = threadCount(), descriptors = descriptorCount();
  for (int i = 0; i < 200; i++) use();
  EXPECT_TRUE(eventually([&] { return threadCount() <= threads && descriptorCount() <= descriptors; }));
  EXPECT_TRUE(context->zmqContext()->sockets().empty());
}

// A host that forgets a client, or never lets go of the shared context, ends all the same.
TEST(QELNKClientDeathTest, AProcessExitsWhileClientsRun) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        static const auto client = QELNKSocket::make<HookedClient>(QELNKContext::sharedContext());
        static auto &leaked = *new auto(QELNKSocket::make<HookedClient>(QELNKContext::sharedContext()));
        for (const auto &each : {client, leaked}) {
          each->connectToHost("127.0.0.1", 1, nullptr);
          each->sendRequest(request(1), nullptr, true);
        }
        exit(0);
      },
      testing::ExitedWithCode(0), "");
}
