#include <QELNetworkKit/Queue.h>
#include <QELNetworkKit/RunLoop.h>
#include <QELNetworkKit/XMLDocument.h>
#include <QELNetworkKit/ZMQContext.h>
#include <QELNetworkKit/ZMQSocket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <future>
#include <numeric>
#include <random>
#include <stdexcept>
#include <thread>

#include "messaging/ClientFixture.h"

using namespace qelnk;
using namespace qelnk::test;
using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;
using Message = std::shared_ptr<QELNKMessage>;

namespace {

std::shared_ptr<QELNKClient> makeClient() { return QELNKClient::create(QELNKContext::contextWithBackgroundQueue()); }

/// A router that keeps what it gets until it is told to answer.
class Holder {
 public:
  size_t held() {
    const std::lock_guard lock(mutex_);
    return frames_.size();
  }
  /// Answers what is held, in an order of the test's.
  void answer(const std::function<void(std::vector<Peer::Frames> &)> &reorder = {}) {
    peer.perform([this, reorder] {
      const std::lock_guard lock(mutex_);
      if (reorder) reorder(frames_);
      for (const auto &frames : frames_) peer.send(frames);
      frames_.clear();
    });
  }

 private:
  std::mutex mutex_;
  std::vector<Peer::Frames> frames_;

 public:
  Peer peer{ZMQ_ROUTER, [this](Peer &, Peer::Frames frames) {
              const std::lock_guard lock(mutex_);
              frames_.push_back(std::move(frames));
            }};
};

}  // namespace

// Round trips.

class RoundTrip : public testing::TestWithParam<std::tuple<int32_t, bool>> {};

TEST_P(RoundTrip, BringsTheReply) {
  const auto [body, sync] = GetParam();
  const Value messages[] = {Value::map({{"a", 1}}),          Value::map({{"b", Value::list({1.5, nullptr})}}),
                            *XMLDocument::parse("<a/>"),     "text",
                            Data(std::string(100'000, 'x')), Value::list({Data{1}, Data{2, 3}})};
  const Value &message = messages[body];
  const Peer peer(ZMQ_REP, Peer::echo);
  const auto client = makeClient();
  client->setMessageBody(body);
  client->setSyncRequests(sync);
  std::atomic<int> connected = 0, right = 0;
  client->connectToHost("127.0.0.1", peer.port(), [&](const auto &reporter) { connected += reporter == client; });
  EXPECT_TRUE(!sync || connected == 1);
  for (int i = 1; i <= 20; i++) {
    const auto sent = client->sendRequest(message, [&](const auto &reporter, const auto &finished) {
      right += reporter == client && finished->response() == message && !finished->error();
    });
    EXPECT_TRUE(!sync || sent->response() == message);
  }
  EXPECT_TRUE(eventually([&] { return right == 20 && connected == 1; }));
  EXPECT_TRUE(eventually([&] { return client->pendingMessages() == 0; }));
  EXPECT_EQ(client->endPoint(), "tcp://127.0.0.1:" + std::to_string(peer.port()));
}

INSTANTIATE_TEST_SUITE_P(All, RoundTrip, testing::Combine(testing::Range(0, 6), testing::Bool()));

TEST(QELNKClient, SyncCallersEachGetTheirOwnReply) {
  const Peer peer(ZMQ_ROUTER, Peer::echo);
  const auto client = makeHooked();
  client->setSyncRequests(true);
  client->connectToHost("127.0.0.1", peer.port(), nullptr);
  std::vector<std::thread> callers;
  std::atomic<int> right = 0;
  for (int caller = 1; caller <= 3; caller++)
    callers.emplace_back([&, caller] {
      for (int i = 0; i < 100; i++) {
        const int id = caller * 1000 + i;
        right += client->sendRequest(request(id), nullptr)->response() == request(id);
      }
    });
  for (auto &caller : callers) caller.join();
  EXPECT_EQ(right, 300);
}

TEST(QELNKClient, SyncCallerServesTheMainQueueMeanwhile) {
  Holder holder;
  const auto client = QELNKSocket::make<HookedClient>(QELNKContext::sharedContext());
  client->setSyncRequests(true);
  bool connected = false, answered = false;
  client->connectToHost("127.0.0.1", holder.peer.port(), [&](auto &) { connected = true; });
  EXPECT_TRUE(connected);
  RunLoop::main()->performAfter(
      1ms, [&] { holder.answer(); }, 1ms, &holder);
  const auto message = client->sendRequest(request(1), [&](auto &, auto &) { answered = true; });
  EXPECT_EQ(message->response(), request(1));
  EXPECT_TRUE(message->sync());
  EXPECT_TRUE(eventually([&] { return answered; }));
  RunLoop::main()->cancelPerforms(&holder);
}

TEST(QELNKClient, SyncCallsFromItsOwnCallbacksDoNotHang) {
  const Peer peer(ZMQ_ROUTER, Peer::echo);
  const auto client = makeHooked();
  client->setSyncRequests(true);
  std::atomic<int> answered = 0;
  client->connectToHost("127.0.0.1", peer.port(), [&](const auto &self) {
    answered += self->sendRequest(request(1), nullptr)->response().has_value();
  });
  client->sendRequest(request(2), [&](const auto &self, auto &) {
    answered += self->sendRequest(request(3), nullptr)->response().has_value();
  });
  EXPECT_TRUE(eventually([&] { return answered == 2; }));
  client->scheduleMessage(std::make_shared<QELNKMessage>());
  EXPECT_TRUE(eventually([&] { return client->pendingMessages() == 0; }));
}

// Order and matching.

TEST(QELNKClient, SendsOneRequestForEachReply) {
  CapturedLog log;
  Results results;
  Holder holder;
  const auto client = makeClient();
  for (int i = 0; i < 2; i++) client->sendRequest(request(i), results.block());
  client->scheduleMessage(std::make_shared<QELNKMessage>(results.block()));
  client->connectToHost("127.0.0.1", holder.peer.port(), nullptr);
  ASSERT_TRUE(eventually([&] { return holder.held() == 1; }));
  client->sendRequest(request(2), results.block());
  for (size_t i = 1; i <= 3; i++) {
    ASSERT_TRUE(eventually([&] { return holder.peer.received() == i; }));
    EXPECT_FALSE(eventually([&] { return holder.peer.received() > i; }, 5ms));
    holder.answer();
  }
  ASSERT_TRUE(eventually([&] { return results.count() == 4; }));
  EXPECT_EQ(results.all(), (std::vector<Results::Result>{{0, 0}, {1, 0}, {-1, 0}, {2, 0}}));
  for (const char *line : {"QELNKClient connecting to tcp://127.0.0.1:", "QELNKClient connected to tcp://127.0.0.1:",
                           "QELNKClient sending request {\"id\": 1}", "QELNKClient got response {\"id\": 1}"})
    EXPECT_EQ(log.count(line), 1u) << line;
}

TEST(QELNKClient, MatchesByIdentifierInAnyOrder) {
  Results results;
  Holder holder;
  const auto client = makeHooked();
  client->connectToHost("127.0.0.1", holder.peer.port(), nullptr);
  std::vector<Message> messages;
  for (int i = 0; i < 500; i++) messages.push_back(std::make_shared<QELNKMessage>(request(i % 100), results.block()));
  client->scheduleMessages(messages);
  ASSERT_TRUE(eventually([&] { return holder.held() == 500; }));
  for (int i = 0; i < 500; i += 7) client->cancelMessage(messages[size_t(i)]);
  holder.answer([](auto &frames) { std::shuffle(frames.begin(), frames.end(), std::mt19937(1)); });
  ASSERT_TRUE(eventually([&] { return results.count() == 500; }));
  for (size_t i = 0; i < 500; i++) {
    // Of those with the same number each reply ends the oldest; as many replies are left over as were cancelled.
    EXPECT_TRUE(messages[i]->isFinished());
    if (messages[i]->response()) {
      EXPECT_EQ(messages[i]->response(), messages[i]->request());
    }
    EXPECT_EQ(messages[i]->error().code, i % 7 == 0 ? ECANCELED : 0);
  }
}

TEST(QELNKClient, KeepsItsPaceWithManyPending) {
  Results results;
  Holder holder;
  const auto client = makeHooked();
  client->connectToHost("127.0.0.1", holder.peer.port(), nullptr);
  const auto start = Steady::now();
  constexpr int count = 100'000;
  client->setRequestTimeout(10min);
  for (int i = 0; i < count; i++) client->sendRequest(request(i), results.block());
  ASSERT_TRUE(eventually([&] { return holder.held() == count; }, 60s));
  EXPECT_EQ(client->pendingMessages(), size_t(count));
  holder.answer([](auto &frames) { std::reverse(frames.begin(), frames.end()); });
  ASSERT_TRUE(eventually([&] { return client->pendingMessages() == 0; }, 60s));
  EXPECT_LT(Steady::now() - start, 60s);  // looking through the list each time would take hours
  ASSERT_TRUE(eventually([&] { return results.count() == count; }));
  EXPECT_EQ(results.all().front(), (Results::Result{count - 1, 0}));
}

TEST(QELNKClient, TellsPushedMessagesFromReplies) {
  CapturedLog log;
  std::mutex mutex;
  std::vector<int64_t> order;
  const auto note = [&](int64_t id) {
    const std::lock_guard lock(mutex);
    order.push_back(id);
  };
  Holder holder;
  const auto client = makeHooked();
  client->responseHook = [&](HookedClient &self, const Value &response) {
    if (const int64_t id = response["id"].integerValue(); id < 0)
      self.context()->responseQueue()->async([&note, id] { note(id); });
  };
  client->connectToHost("127.0.0.1", holder.peer.port(), nullptr);
  for (int i = 0; i < 50; i++) client->sendRequest(request(i), [&, i](auto &, auto &) { note(i); });
  ASSERT_TRUE(eventually([&] { return holder.held() == 50; }));
  holder.answer([](auto &frames) {  // a push behind each reply
    std::vector<Peer::Frames> all;
    for (size_t i = 0; i < frames.size(); i++) {
      all.push_back(frames[i]);
      all.push_back({frames[i][0], "{\"id\":-" + std::to_string(i + 1) + "}"});
    }
    frames = all;
  });
  ASSERT_TRUE(eventually([&] {
    const std::lock_guard lock(mutex);
    return order.size() == 100;
  }));
  for (int64_t i = 0; i < 50; i++) {
    EXPECT_EQ(order[size_t(2 * i)], i);
    EXPECT_EQ(order[size_t(2 * i + 1)], -i - 1);
  }
  EXPECT_EQ(log.count("QELNKClient got response without matching message, discarding it"), 50u);
}

// Failures.

TEST(QELNKClient, KeepsTheRequestOfAReplyThatCannotBeRead) {
  CapturedLog log;
  Results results;
  int answers = 0;
  const Peer peer(ZMQ_REP, [&](Peer &self, const Peer::Frames &) {
    const Peer::Frames replies[] = {{"no JSON"}, {"{}", "{}"}, {"", "{\"id\":0}"}, {"{}"}};
    self.send(replies[std::min(answers++, 3)]);
  });
  const auto client = makeClient();
  client->connectToHost("127.0.0.1", peer.port(), nullptr);
  for (int i = 0; i < 4; i++) client->sendRequest(request(i), results.block());
  ASSERT_TRUE(eventually([&] { return results.count() == 2; }));  // by the replies to the third and fourth
  EXPECT_EQ(log.count("QELNKClient could not deserialize response with error "), 2u);
  EXPECT_EQ(log.count("QELNKClient could not deserialize response with error (null)"), 1u);
  EXPECT_TRUE(eventually([&] { return client->pendingMessages() == 2; }));
}

// A reply that came and could not be read is not outstanding: giving its request up costs nobody else's reply.
TEST(QELNKClient, GivingUpAnUnreadableReplyKeepsTheOthers) {
  Results results;
  std::atomic<bool> mayAnswer = false;
  const Peer peer(ZMQ_REP, [&](Peer &self, Peer::Frames frames) {
    if (self.received() == 1) return self.send({"?"});
    EXPECT_TRUE(eventually([&] { return mayAnswer.load(); }));
    self.send(frames);
  });
  const auto client = makeClient();
  client->connectToHost("127.0.0.1", peer.port(), nullptr);
  const auto first = client->sendRequest(request(1), results.block());
  for (int id : {2, 3}) client->sendRequest(request(id), results.block());
  ASSERT_TRUE(eventually([&] { return peer.received() == 2; }));
  client->cancelMessage(first);
  ASSERT_TRUE(eventually([&] { return results.count() == 1; }));
  mayAnswer = true;
  ASSERT_TRUE(eventually([&] { return results.count() == 3; }));
  EXPECT_EQ(results.all(), (std::vector<Results::Result>{{1, ECANCELED}, {2, 0}, {3, 0}}));
}

// Replies that come together are matched one by one: an empty message between them is not there any more for the
// second.
TEST(QELNKClient, EmptyMessagesEndBetweenTwoReplies) {
  Results results;
  std::vector<Peer::Frames> held;
  const Peer peer(ZMQ_ROUTER, [&](Peer &self, Peer::Frames frames) {
    held.push_back(std::move(frames));
    if (held.size() < 2) return;
    for (const auto &reply : held) self.send(reply);
  });
  const auto client = makeHooked();
  client->byIdentifier = false;
  client->sendRequest(request(1), results.block());
  client->scheduleMessage(std::make_shared<QELNKMessage>(results.block()));
  client->sendRequest(request(2), results.block());
  client->connectToHost("127.0.0.1", peer.port(), nullptr);
  ASSERT_TRUE(eventually([&] { return results.count() == 3; }));
  EXPECT_EQ(results.all(), (std::vector<Results::Result>{{1, 0}, {-1, 0}, {2, 0}}));
}

// Callbacks that were due together are no less apart: one that waits for the next lets it run, and those stay in order.
TEST(QELNKClient, CallbacksThatTurnTheLoopLetTheNextOnesRun) {
  const Peer peer(ZMQ_ROUTER, Peer::echo);
  const auto client = makeHooked();
  std::atomic<int> done = 0;
  std::vector<int> begun;
  const auto gate = std::make_shared<std::promise<void>>();
  client->context()->responseQueue()->async([gate] { gate->get_future().wait(); });
  client->connectToHost("127.0.0.1", peer.port(), nullptr);
  for (int i = 0; i < 6; i++)
    client->sendRequest(request(i), [&, i](auto &, auto &) {
      begun.push_back(i);
      EXPECT_TRUE(i == 5 || eventually([&] { return int(begun.size()) >= i + 2; }));
      ++done;
    });
  ASSERT_TRUE(eventually([&] { return client->pendingMessages() == 0; }));
  gate->set_value();
  ASSERT_TRUE(eventually([&] { return done == 6; }));
  EXPECT_EQ(begun, (std::vector<int>{0, 1, 2, 3, 4, 5}));
}

TEST(QELNKClient, TriesWhatCannotBeEncodedAgainWithoutSpinning) {
  CapturedLog log;
  Results results;
  const Peer peer(ZMQ_REP, Peer::echo);
  const auto client = makeClient();
  const auto bad = client->sendRequest(Value::map({{"x", Data{1}}}), results.block());
  client->sendRequest(request(1), results.block());
  client->connectToHost("127.0.0.1", peer.port(), nullptr);
  const auto start = Steady::now();
  const auto failures = [&] { return log.count("QELNKClient could not serialize request with error "); };
  ASSERT_TRUE(eventually([&] { return failures() >= 5; }));
  const size_t count = failures();
  EXPECT_LE(count, size_t((Steady::now() - start) / 20ms) + 2);
  EXPECT_EQ(results.count(), 0u);
  EXPECT_FALSE(bad->sent());
  client->cancelMessage(bad);
  ASSERT_TRUE(eventually([&] { return results.count() == 2; }));
  EXPECT_EQ(results.all(), (std::vector<Results::Result>{{0, ECANCELED}, {1, 0}}));
}

TEST(QELNKClient, EndsWhereItCannotConnect) {
  for (const auto &[host, port] : {std::pair("a b", 5555), std::pair("*", 5555), std::pair("127.0.0.1", -1)}) {
    const CapturedLog log;
    Results results;
    const auto client = makeClient();
    client->setSyncRequests(true);
    client->sendRequest(request(1), results.block());  // before connecting nobody waits
    client->connectToHost(host, port, [](auto &) { ADD_FAILURE(); });
    EXPECT_EQ(client->sendRequest(request(2), results.block())->error().code, ENOTCONN);
    client->setConnectedBlock([client](auto &) {});  // refused: nobody would let go of it
    EXPECT_TRUE(eventually([&] { return !client->connectedBlock(); }));
    EXPECT_TRUE(eventually([&] { return log.count("QELNKClient io thread exiting") == 1; }));
    EXPECT_EQ(log.count("QELNKClient could not connect"), 1u);
    EXPECT_TRUE(eventually([&] { return results.count() == 2; }));
  }
  EXPECT_EQ(QELNKClient::create(nullptr), nullptr);
}

TEST(QELNKClient, EndsWithItsContext) {
  for (const bool closeFirst : {false, true}) {
    CapturedLog log;
    Results results;
    const Peer peer(ZMQ_REP, Peer::ignore);
    const auto client = makeClient();
    client->connectToHost("127.0.0.1", peer.port(), nullptr);
    client->sendRequest(request(1), results.block());
    ASSERT_TRUE(eventually([&] { return peer.received() == 1; }));
    if (closeFirst) client->context()->zmqContext()->closeSockets();
    client->context()->zmqContext()->terminate();
    EXPECT_TRUE(eventually([&] { return results.count() == 1 && log.contains("QELNKClient io thread exiting"); }));
    EXPECT_EQ(log.count("QELNKClient poll error ["), 1u);
    EXPECT_EQ(results.all().front().error, ENOTCONN);
  }
}

TEST(QELNKClient, SurvivesExceptionsOfTheHost) {
  CapturedLog log;
  Results results;
  const Peer peer(ZMQ_ROUTER, Peer::echo);
  const auto client = makeHooked();
  client->responseHook = [](HookedClient &, const Value &response) {
    if (response["id"].integerValue() == 3) throw std::runtime_error("of the hook");
  };
  client->connectToHost("127.0.0.1", peer.port(), [](auto &) { throw std::runtime_error("of the connected block"); });
  client->sendRequest(request(1), [](auto &, auto &) { throw std::runtime_error("of the response block"); });
  client->sendRequest(request(2), results.block());
  client->sendRequest(request(3), results.block());
  client->sendRequest(request(4), results.block());
  ASSERT_TRUE(eventually([&] { return results.count() == 3; }));
  EXPECT_EQ(results.all(), (std::vector<Results::Result>{{2, 0}, {3, ENOTCONN}, {4, ENOTCONN}}));
  for (const char *text : {"of the connected block", "of the response block", "of the hook"})
    EXPECT_TRUE(log.contains(text)) << text;
}

TEST(QELNKClient, TakesEachMessageOnce) {
  CapturedLog log;
  Results results;
  const Peer peer(ZMQ_REP, Peer::echo);
  const auto client = makeClient(), other = makeClient();
  const auto message = std::make_shared<QELNKMessage>(request(1), results.block());
  client->scheduleMessages({message, message});
  other->scheduleMessage(message);
  other->cancelMessage(message);
  client->scheduleMessage(nullptr);
  client->cancelMessage(nullptr);
  client->connectToHost("127.0.0.1", peer.port(), nullptr);
  ASSERT_TRUE(eventually([&] { return results.count() == 1; }));
  client->scheduleMessage(message);
  client->cancelMessage(message);
  EXPECT_EQ(results.all(), (std::vector<Results::Result>{{1, 0}}));
  EXPECT_EQ(log.count("QELNKClient was given a message that has been queued before, refusing it"), 4u);
}

// Peers that come and go.

TEST(QELNKClient, WaitsForAPeerThatComesLaterAndComesBack) {
  Results results;
  const int32_t port = Peer(ZMQ_ROUTER, Peer::ignore).port();
  const auto client = makeHooked();
  std::atomic<bool> connected = false;
  client->connectToHost("127.0.0.1", port, [&](auto &) { connected = true; });
  client->sendRequest(request(1), results.block());
  EXPECT_TRUE(eventually([&] { return connected.load(); }));
  {
    const Peer peer(ZMQ_ROUTER, Peer::echo, port);
    EXPECT_TRUE(eventually([&] { return results.count() == 1; }));
  }
  client->sendRequest(request(2), results.block());
  const Peer peer(ZMQ_ROUTER, Peer::echo, port);
  EXPECT_TRUE(eventually([&] {
    if (results.count() == 1) client->sendRequest(request(3), results.block());  // what was under way may be lost
    return results.count() >= 2;
  }));
}

TEST(QELNKClient, AnswersAtOnceHoweverLongItWasIdle) {
  const Peer peer(ZMQ_REP, Peer::echo);
  const auto client = makeClient();
  client->setSyncRequests(true);
  client->connectToHost("127.0.0.1", peer.port(), nullptr);
  std::vector<Steady::duration> times;
  for (int i = 0; i < 30; i++) {
    RunLoop::current()->runOnce(30ms);
    const auto start = Steady::now();
    client->sendRequest(request(i), nullptr);
    times.push_back(Steady::now() - start);
  }
  std::nth_element(times.begin(), times.begin() + 15, times.end());
  EXPECT_LT(times[15], 7ms);  // a wait for a poll to end would take 10 on average
}

TEST(QELNKClient, ConnectsAgainAfterItsEnd) {
  const CapturedLog log;
  Results results;
  const Peer peers[] = {{ZMQ_REP, Peer::echo}, {ZMQ_REP, Peer::echo}};
  const auto client = makeClient();
  std::atomic<int> connected = 0;
  for (int round = 0; round < 40; round++) {
    const Peer &peer = peers[round % 2];
    client->setSyncRequests(round % 3 == 0);
    client->connectToHost("127.0.0.1", peer.port(), [&](auto &) { ++connected; });
    if (round % 4 < 2) client->connectToHost("127.0.0.1", 1, nullptr);
    EXPECT_EQ(client->port(), peer.port());
    client->sendRequest(request(round), results.block());
    ASSERT_TRUE(eventually([&] { return connected == round + 1 && int(results.count()) == round + 1; })) << round;
    EXPECT_EQ(results.all().back(), (Results::Result{round, 0}));
    client->disconnect();
  }
  EXPECT_EQ(log.count("QELNKClient is connected already"), 20u);
}

// Without a reply.

TEST(QELNKClient, SendsWhatExpectsNoReplyBeforeItEnds) {
  for (int i = 0; i < 20; i++) {
    const Peer peer(ZMQ_ROUTER, Peer::ignore);
    auto client = makeHooked();
    client->connectedHook = [](HookedClient &self) { self.socket()->setInt(0, ZMQ_LINGER); };
    client->connectToHost("127.0.0.1", peer.port(), nullptr);
    client->sendRequest(
        request(1), [](const auto &self, const auto &) { self->disconnect(); }, true);
    ASSERT_TRUE(eventually([&] { return peer.received() == 1; }));
  }
  // With nobody there, the end is bounded.
  const auto start = Steady::now();
  auto client = makeHooked();
  client->connectToHost("127.0.0.1", 1, nullptr);
  const auto message = client->sendRequest(request(1), nullptr, true);
  EXPECT_TRUE(eventually([&] { return message->isFinished(); }));
  client = nullptr;
  EXPECT_LT(Steady::now() - start, 5s);
}
