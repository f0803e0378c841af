#include <QELNetworkKit/QELNKClient.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKMonitor.h>
#include <QELNetworkKit/QELNKPublisher.h>
#include <QELNetworkKit/QELNKServer.h>
#include <QELNetworkKit/ZMQContext.h>
#include <QELNetworkKit/ZMQSocket.h>
#include <gtest/gtest.h>
#include <zmq.h>

#include <atomic>
#include <future>
#include <optional>
#include <thread>
#include <vector>

#include "messaging/Peer.h"
#include "support/TestSupport.h"

namespace qelnk::test {
namespace {

using Monitor = std::shared_ptr<QELNKMonitor>;

void echo(const std::shared_ptr<QELNKServer> &, const std::shared_ptr<QELNKMessage> &message) {
  message->setResponse(message->request());
}

std::shared_ptr<QELNKServer> makeServer(const std::shared_ptr<QELNKContext> &context) {
  const auto server = QELNKServer::create(context);
  server->setMessageBody(QELNKMessageBodyString);
  EXPECT_TRUE(server->bindToPort(0, echo));
  return server;
}

/// Reads events until the monitor has no socket; then they can be asked for.
std::future<std::vector<int>> readAll(const Monitor &monitor) {
  return std::async(std::launch::async, [monitor] {
    std::vector<int> events;
    while (const uint16_t event = monitor->events()) events.push_back(event);
    return events;
  });
}

/// A socket of a context that answers: its thread of ZeroMQ's own is not held up.
void expectAlive(const std::shared_ptr<QELNKServer> &server) {
  Wire wire(ZMQ_REQ, server->port());
  wire.send({"?"});
  EXPECT_TRUE(wire.receive());
}

TEST(QELNKMonitor, NamesEvents) {
  const std::pair<uint32_t, const char *> cases[] = {
      {0, ""},
      {1, "Connected"},
      {514, "Connect Delayed, Disconnected"},
      {2047,
       "Connected, Connect Delayed, Connect Retried, Listening, Bind Failed, Accepted, Accept Failed, Close, Close "
       "Failed, Disconnected, Monitor Stopped"},
      {4096, ""}};
  for (const auto &[mask, text] : cases) EXPECT_EQ(QELNKMonitor::eventsToString(mask), text);
  std::string text = "A";
  QELNKMonitor::addEventString("B", 6, 1, text);
  QELNKMonitor::addEventString("C", 6, 4, text);
  EXPECT_EQ(text, "A, C");
}

// Both ends of a connection, from the first event of their sockets to the last.
TEST(QELNKMonitor, SeesAConnectionComeAndGo) {
  const auto context = QELNKContext::contextWithBackgroundQueue();
  const auto atServer = QELNKMonitor::create(context), atClient = QELNKMonitor::create(context);
  EXPECT_EQ(atServer->messageBody(), QELNKMessageBodyMultipart);
  EXPECT_EQ(atServer->socketType(), ZMQ_PAIR);
  const auto server = QELNKServer::create(context);
  const auto client = QELNKClient::create(context);
  const auto watch = [](const Monitor &monitor, QELNKSocket &endpoint) {
    endpoint.setSocketBlock(
        [monitor](const auto &watched, auto &) { monitor->connectToSocket(watched, QELNKMonitorEventAll); });
  };
  watch(atServer, *server);
  watch(atClient, *client);
  ASSERT_TRUE(server->bindToPort(0, echo));
  EXPECT_EQ(atServer->events(), QELNKMonitorEventListening);
  client->setSyncRequests(true);
  client->connectToHost("127.0.0.1", server->port(), nullptr);
  client->sendRequest(Value::list(), nullptr);
  EXPECT_EQ(atServer->events(), QELNKMonitorEventAccepted);
  EXPECT_EQ(atClient->events(), QELNKMonitorEventConnectDelayed);
  EXPECT_EQ(atClient->events(), QELNKMonitorEventConnected);
  server->disconnect();
  for (const int event : {QELNKMonitorEventClosed, QELNKMonitorEventMonitorStopped})
    EXPECT_EQ(atServer->events(), event);
  for (const int event : {QELNKMonitorEventDisconnected, QELNKMonitorEventConnectRetried})
    EXPECT_EQ(atClient->events(), event);
}

TEST(QELNKMonitor, TellsWhyItCannotConnect) {
  const auto context = QELNKContext::contextWithBackgroundQueue();
  const auto monitor = QELNKMonitor::create(context);
  const auto never = QELNKServer::create(context), server = makeServer(context);
  const auto index = [&] {
    monitor->connectToSocket(server, 1);
    return std::stoi(monitor->endPoint().substr(std::string("inproc://monitor.").size()));
  };
  const int first = index();
  CapturedLog log;
  const std::pair<std::shared_ptr<QELNKSocket>, uint32_t> refused[] = {{never, 1}, {nullptr, 1}};
  for (const auto &[socket, mask] : refused) {
    monitor->connectToSocket(socket, mask);
    EXPECT_EQ(monitor->events(), 0);
  }
  EXPECT_EQ(log.count("QELNKMonitor cannot connect to a socket without an end-point"), 2u);
  monitor->connectToSocket(makeServer(QELNKContext::contextWithBackgroundQueue()), 1);
  EXPECT_TRUE(log.contains("QELNKMonitor cannot connect to a socket of another context"));
  // ZeroMQ takes events of 16 bits; a number is used up all the same. So it is for a socket that has been closed.
  monitor->connectToSocket(server, 0x10001);
  EXPECT_EQ(monitor->events(), 0);
  server->disconnect();
  ASSERT_TRUE(eventually([&] { return !server->socket(); }));
  monitor->connectToSocket(server, 1);
  EXPECT_EQ(log.count("QELNKMonitor received error [-1: "), 2u);
  ASSERT_TRUE(server->bindToPort(0, echo));
  EXPECT_EQ(index(), first + 3);
}

TEST(QELNKMonitor, RefusesWhatIsNoEvent) {
  CapturedLog log;
  const auto context = QELNKContext::contextWithBackgroundQueue();
  const auto monitor = QELNKMonitor::create(context);
  EXPECT_EQ(monitor->events(), 0) << "no socket";
  const auto peer = context->zmqContext()->socketWithType(ZMQ_PAIR);
  const auto pair = context->zmqContext()->socketWithType(ZMQ_PAIR);
  peer->bindToEndpoint("inproc://events");
  pair->connectToEndpoint("inproc://events");
  monitor->setSocket(pair);
  const std::string good("\x00\x02\x07\x00\x00\x00", 6);
  for (const std::vector<std::string> &frames :
       {std::vector<std::string>{good}, {"12345", "x"}, {"1234567", "x"}, {good, "x", "y"}}) {
    for (size_t i = 0; i < frames.size(); ++i) peer->sendData(Data(frames[i]), i + 1 < frames.size() ? ZMQ_SNDMORE : 0);
    EXPECT_EQ(monitor->events(), 0);
  }
  EXPECT_EQ(log.count("QELNKMonitor received invalid message"), 4u);
  peer->sendData(Data(good), ZMQ_SNDMORE);
  peer->sendData(Data(), 0);
  EXPECT_EQ(monitor->events(), 512) << "an endpoint may be empty";
  pair->setInt(0, ZMQ_RCVTIMEO);
  EXPECT_EQ(monitor->events(), 0);
  EXPECT_EQ(log.count("QELNKMonitor error Resource temporarily unavailable (ZMQ 11) while receiving data"), 1u);
  EXPECT_EQ(log.lines().size(), 5u);
}

// A thread that waits for events is released by each thing that ends the monitor.
TEST(QELNKMonitor, ReleasesWhoWaits) {
  const size_t before = threadCount();
  enum End { disconnected, connectedElsewhere, contextClosed, contextEnded };
  for (const End end : {disconnected, connectedElsewhere, contextClosed, contextEnded}) {
    SCOPED_TRACE(end);
    const auto context = QELNKContext::contextWithBackgroundQueue();
    const auto server = makeServer(context), other = makeServer(context);
    const auto monitor = QELNKMonitor::create(context);
    monitor->connectToSocket(server, QELNKMonitorEventAll);
    expectAlive(server);
    EXPECT_EQ(monitor->events(), QELNKMonitorEventAccepted);
    auto events = readAll(monitor);
    if (end == disconnected) monitor->disconnect();
    if (end == connectedElsewhere) {
      monitor->connectToSocket(other, QELNKMonitorEventAll);
      // Whoever waited is released; a thread that asks only now gets the new events.
      expectAlive(other);
      monitor->disconnect();
    }
    if (end == contextClosed) context->zmqContext()->closeSockets();
    if (end == contextEnded) context->zmqContext()->terminate();
    events.get();
    EXPECT_EQ(monitor->events(), 0);
  }
  EXPECT_TRUE(eventually([&] { return threadCount() <= before; }));
}

// ZeroMQ's own thread waits for a monitor that does not read, and for one that has gone without a word. Neither may be:
// it serves every connection of the context.
TEST(QELNKMonitor, HoldsNobodyUp) {
  CapturedLog log(LogLevel::error);
  const auto context = QELNKContext::contextWithBackgroundQueue();
  const auto server = makeServer(context);
  const auto client = QELNKClient::create(context);
  client->setSyncRequests(true);
  client->setSocketBlock([](auto &, ZMQSocket &socket) { socket.setInt(1, ZMQ_RECONNECT_IVL); });
  client->connectToHost("127.0.0.1", Peer(ZMQ_REP, Peer::ignore).port(), nullptr);
  auto monitor = QELNKMonitor::create(context);
  monitor->connectToSocket(client, QELNKMonitorEventAll);
  // Two seconds bring more events than fit between two sockets.
  const auto begun = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() - begun < std::chrono::seconds(2)) expectAlive(server);
  int unread = 0;
  while (unread < 2001 && monitor->events()) ++unread;
  EXPECT_EQ(unread, 2001);
  for (const bool drop : {false, true}) {
    monitor->connectToSocket(client, QELNKMonitorEventAll);
    EXPECT_NE(monitor->events(), 0);
    if (drop)
      monitor.reset();
    else
      monitor->disconnect();
    for (int i = 0; i < 20; ++i) expectAlive(server);
  }
}

// A socket that closes sends its last events in the background, on the threads that everything else needs.
TEST(QELNKMonitor, MayEndAfterWhatItWatches) {
  const auto context = QELNKContext::contextWithBackgroundQueue();
  const auto alive = makeServer(context);
  const size_t before = descriptorCount();
  for (int i = 0; i < 50; ++i) {
    const auto publisher = QELNKPublisher::create(context);
    publisher->setMessageBody(QELNKMessageBodyData);
    publisher->bindToPort(0);
    const auto monitor = QELNKMonitor::create(context);
    monitor->connectToSocket(publisher, QELNKMonitorEventAll);
    std::optional<Wire> wire(std::in_place, ZMQ_SUB, publisher->port());
    if (i % 2) {  // something unsent
      ASSERT_EQ(monitor->events(), QELNKMonitorEventAccepted);
      ASSERT_TRUE(
          eventually([&] { return publisher->publish(Data("?")) && wire->receive(std::chrono::milliseconds(1)); }));
      publisher->publish(Data(std::string(1 << 20, 'x')));
    }
    publisher->disconnect();
    monitor->disconnect();
  }
  // Closing works on: ports and descriptors come back.
  auto last = makeServer(context);
  const int32_t port = last->port();
  last.reset();
  const auto other = QELNKServer::create(QELNKContext::contextWithBackgroundQueue());
  EXPECT_TRUE(other->bindToPort(port, echo));
  expectAlive(alive);
  EXPECT_TRUE(eventually([&] {
    makeServer(context);  // the making of a socket closes those of monitors that have been stopped
    return descriptorCount() <= before + 20;
  })) << descriptorCount() - before;
}

// Refused masks and sockets leave nothing behind.
TEST(QELNKMonitor, FailsWithoutALeak) {
  const auto context = QELNKContext::contextWithBackgroundQueue();
  const auto server = makeServer(context);
  const auto monitor = QELNKMonitor::create(context);
  monitor->connectToSocket(server, 0x10000);
  const size_t before = descriptorCount();
  for (int i = 0; i < 100; ++i) monitor->connectToSocket(server, 0x10000);
  EXPECT_TRUE(eventually([&] { return descriptorCount() <= before; }));
}

// One socket has one monitor: the second takes it over, and the first one's end leaves that alone.
TEST(QELNKMonitor, GivesWayToAnother) {
  const auto context = QELNKContext::contextWithBackgroundQueue();
  const auto server = makeServer(context);
  auto first = QELNKMonitor::create(context);
  const auto second = QELNKMonitor::create(context);
  first->connectToSocket(server, QELNKMonitorEventAll);
  second->connectToSocket(server, QELNKMonitorEventAccepted);
  EXPECT_EQ(first->events(), QELNKMonitorEventMonitorStopped);
  first.reset();
  expectAlive(server);
  EXPECT_EQ(second->events(), QELNKMonitorEventAccepted);
}

// Many at once, on sockets that come and go: none shares its endpoint with another.
TEST(QELNKMonitor, SetsUpAndEndsInAnyOrder) {
  const auto context = QELNKContext::contextWithBackgroundQueue();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      const auto monitor = QELNKMonitor::create(context);
      for (int i = 0; i < 15; ++i) {
        auto server = makeServer(context);
        monitor->connectToSocket(server, QELNKMonitorEventAccepted | QELNKMonitorEventMonitorStopped);
        expectAlive(server);
        EXPECT_EQ(monitor->events(), QELNKMonitorEventAccepted);
        if ((i + t) % 3 == 0) server.reset();
        if ((i + t) % 3 == 1) server->disconnect();
        if ((i + t) % 2 == 0) monitor->disconnect();
      }
    });
  for (auto &thread : threads) thread.join();
}

}  // namespace
}  // namespace qelnk::test
