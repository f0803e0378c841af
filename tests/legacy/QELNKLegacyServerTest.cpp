#include <QELNetworkKit/QELNKLegacyServer.h>
#include <QELNetworkKit/RunLoop.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <list>
#include <memory>

#include "legacy/Observers.h"
#include "legacy/RawPeer.h"
#include "platform/ListeningSocket.h"
#include "support/TestSupport.h"

using namespace qelnk;
using namespace qelnk::test;

namespace {

struct Service {
  explicit Service(const Value &options = QELNKLegacyStream::defaultPlayoutOptionsForAppID("test"))
      : server(QELNKLegacyServer::create("Studio", 0, options)) {
    server->setDelegate(observer);
    Error error;
    EXPECT_TRUE(server->start(&error)) << error.description;
  }
  std::shared_ptr<ServerObserver> observer = std::make_shared<ServerObserver>();
  std::shared_ptr<QELNKLegacyServer> server;
};

struct Guest {
  explicit Guest(uint16_t port,
                 const Value &options = with(QELNKLegacyClient::defaultPlayoutOptions(), "appID", "guest"),
                 const std::string &host = "localhost")
      : client(QELNKLegacyClient::create("guest", host, port, observer, options)) {
    client->connect();
  }
  std::shared_ptr<ClientObserver> observer = std::make_shared<ClientObserver>();
  std::shared_ptr<QELNKLegacyClient> client;
};

int newSocket() { return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }

/// Calls `call`, bind or connect, with 127.0.0.1 and this port.
bool withLoopback(int (*call)(int, const sockaddr *, socklen_t), int peer, uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return call(peer, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

int connectTo(uint16_t port, int peer = newSocket()) {
  EXPECT_TRUE(withLoopback(connect, peer, port));
  return peer;
}

}  // namespace

class LegacyPair : public testing::TestWithParam<bool> {
 protected:
  Value serverOptions() const {
    return GetParam() ? QELNKLegacyStream::defaultIngestOptions()
                      : QELNKLegacyStream::defaultPlayoutOptionsForAppID("server");
  }
  Value clientOptions() const {
    return GetParam() ? QELNKLegacyClient::defaultIngestOptions()
                      : with(QELNKLegacyClient::defaultPlayoutOptions(), "appID", "guest");
  }
};

TEST_P(LegacyPair, ExchangesEverything) {
  Service service(serverOptions());
  Guest a(service.server->port(), clientOptions()), b(service.server->port(), clientOptions(), "127.0.0.1");
  ASSERT_TRUE(eventually([&] { return a.observer->has("ready") && b.observer->has("ready"); }));
  ASSERT_TRUE(eventually([&] { return service.observer->count("ready") == 2; }));
  service.server->writeString("to all");
  service.server->sendHeartbeatAtTimecode(QELProjectTimecode(10, 0, 0, 5, 25), "on air");
  service.server->sendHeartbeatAtTimecode(QELProjectTimecode(10, 0, 0, 6, 25));
  service.server->writeBinaryData(Data(std::string(100000, '\0')), "image/jpeg; a b", true);
  EXPECT_TRUE(a.client->writeString("from a"));
  EXPECT_TRUE(b.client->writeBinaryData(Data("xyz"), "nobody gets it", false));
  EXPECT_TRUE(b.client->writeString("from b"));
  for (auto *guest : {&a, &b}) {
    EXPECT_TRUE(eventually([&] { return guest->observer->has("binary image/jpeg; a b 100000"); }));
    EXPECT_EQ(guest->observer->all(),
              (std::vector<std::string>{"ready", "string to all", "heartbeat 10:00:00:05 25 | on air",
                                        "heartbeat 10:00:00:06 25", "binary image/jpeg; a b 100000"}));
    EXPECT_EQ(guest->client->peerAppID(), GetParam() ? QELNKLegacyStream::ingestAppID() : "server");
  }
  EXPECT_TRUE(
      eventually([&] { return service.observer->has("string from a") && service.observer->has("string from b"); }));
  a.client->disconnect();
  EXPECT_TRUE(eventually([&] { return service.server->streams().size() == 1; }));
  EXPECT_EQ(service.observer->count("terminated"), 1u);
  service.server->stop();
  EXPECT_TRUE(eventually([&] { return b.observer->has(GetParam() ? "terminated 1" : "terminated 0"); }));
}

INSTANTIATE_TEST_SUITE_P(, LegacyPair, testing::Bool(),
                         [](const auto &info) { return info.param ? "Ingest" : "Playout"; });

TEST(LegacyServer, StartTellsWhatFailed) {
  Service first;
  const auto taken = QELNKLegacyServer::create("", first.server->port(), Value::map());
  const size_t descriptors = descriptorCount();
  Error error;
  EXPECT_FALSE(taken->start(&error));
  EXPECT_EQ(error.domain, "QELNKTCPServerErrorDomain");
  EXPECT_EQ(error.code, 1);
  EXPECT_FALSE(error.description.empty());
  EXPECT_FALSE(taken->start());

  const auto elsewhere = QELNKLegacyServer::create("", 0, Value::map());
  elsewhere->setBindingIPAddress(0xC0000201);  // 192.0.2.1, which no machine has
  EXPECT_FALSE(elsewhere->start(&error));
  EXPECT_EQ(error.code, 1);

  // Somebody else listens there on IPv6. A port that is free for IPv6 may be taken for IPv4: then another one.
  std::unique_ptr<ListeningSocket> other;
  for (int attempt = 0; attempt < 20 && error.code == 1; ++attempt) {
    std::error_code reason;
    other = ListeningSocket::create(ListeningSocket::Family::ipv6, reason);
    ASSERT_FALSE(other->bind(0));
    EXPECT_FALSE(QELNKLegacyServer::create("", other->port(), Value::map())->start(&error));
  }
  EXPECT_EQ(error.code, 2);
  EXPECT_TRUE(eventually([&] { return descriptorCount() <= descriptors + 1; }));

  // What was stopped may start again at once on the same port, which it keeps.
  const uint16_t port = first.server->port();
  for (int round = 0; round < 3; ++round) {
    const Guest guest(port);
    EXPECT_TRUE(eventually([&] { return guest.observer->has("ready"); }));
    first.server->stop();
    EXPECT_EQ(first.server->name(), "");
    EXPECT_TRUE(first.server->start(&error)) << error.description;
    EXPECT_EQ(first.server->port(), port);
  }
}

TEST(LegacyServer, ListensOnOneAddressWhenTold) {
  const CapturedLog log;
  const int keeper = newSocket();  // does not listen: no other program is to answer at the other address
  std::shared_ptr<QELNKLegacyServer> server;
  do {
    server = QELNKLegacyServer::create("", 0, QELNKLegacyStream::defaultPlayoutOptionsForAppID("s"));
    server->setBindingIPAddress(0x7F000002);
    ASSERT_TRUE(server->start());
  } while (!withLoopback(bind, keeper, server->port()));
  EXPECT_TRUE(log.contains("*** Binding custom IP Address."));
  const Value options = with(QELNKLegacyClient::defaultPlayoutOptions(), "appID", "guest");
  const Guest there(server->port(), options, "127.0.0.2"), here(server->port(), options, "127.0.0.1"),
      ipv6(server->port(), options, "::1");
  EXPECT_TRUE(eventually([&] { return there.observer->has("ready") && ipv6.observer->has("ready"); }));
  EXPECT_TRUE(eventually([&] { return here.observer->has("error 4 0"); }));
  const auto streams = server->streams();
  ASSERT_EQ(streams.size(), 2u);
  for (const auto &stream : streams)
    EXPECT_TRUE(stream->peerAddress() == "127.0.0.1" || stream->peerAddress() == "::1") << *stream->peerAddress();
  close(keeper);
}

TEST(LegacyServer, ServesManyAtOnce) {
  Service service;
  std::list<Guest> guests;
  Value options = with(QELNKLegacyClient::defaultPlayoutOptions(), "appID", "guest");
  options.set("heartbeatProblemTimeout", 0);  // there are none
  for (int i = 0; i < 200; ++i) guests.emplace_back(service.server->port(), options);
  ASSERT_TRUE(eventually([&] { return service.observer->count("ready") == 200; }, std::chrono::seconds(30)));
  ASSERT_TRUE(eventually([&] {
    return std::all_of(guests.begin(), guests.end(), [](auto &guest) { return guest.observer->has("ready"); });
  }));
  for (int i = 0; i < 50; ++i) {
    service.server->writeString(std::to_string(i));
    if (i % 10 == 0) guests.pop_front();  // while it writes to all
  }
  for (auto &guest : guests) {
    ASSERT_TRUE(eventually([&] { return guest.observer->has("string 49"); }, std::chrono::seconds(30)));
    EXPECT_EQ(guest.observer->all().size(), 51u);
    EXPECT_TRUE(guest.client->writeString("bye"));
  }
  EXPECT_TRUE(eventually([&] { return service.observer->count("string bye") == 195; }));
  EXPECT_TRUE(eventually([&] { return service.server->streams().size() == 195; }));
}

TEST(LegacyServer, OneThatDoesNotReadHoldsUpNobody) {
  for (const Value &options :
       {QELNKLegacyStream::defaultPlayoutOptionsForAppID("s"), QELNKLegacyStream::defaultIngestOptions()}) {
    Service service(options);
    const int stuck = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), small = 16384;
    setsockopt(stuck, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    connectTo(service.server->port(), stuck);
    const std::string handshake = handshakeBytes("stuck", "", "x");
    ASSERT_EQ(send(stuck, handshake.data(), handshake.size(), 0), ssize_t(handshake.size()));
    const Guest guest(service.server->port());
    ASSERT_TRUE(eventually([&] { return service.observer->count("ready") == 2 && guest.observer->has("ready"); }));
    const Data block(std::string(1 << 20, 'b'));  // some of them are more than the system holds
    for (int i = 0; i < 10; ++i) service.server->writeBinaryData(block, std::to_string(i), false);
    EXPECT_TRUE(eventually([&] { return guest.observer->has("binary 9 1048576"); }, std::chrono::seconds(60)));
    EXPECT_GT(service.server->streams().front()->outgoingLength(), uint64_t(1) << 20);
    close(stuck);
  }
}

TEST(LegacyServer, EndsWhatGoesBeyondItsBounds) {
  const CapturedLog log;
  const auto hasEnded = [](int peer) {
    char bytes[4096];
    ssize_t count = 0;
    while ((count = recv(peer, bytes, sizeof bytes, MSG_DONTWAIT)) > 0) {
    }
    return count == 0 || (errno != EAGAIN && errno != EINTR);
  };
  for (Value options :
       {QELNKLegacyStream::defaultPlayoutOptionsForAppID("s"), QELNKLegacyStream::defaultIngestOptions()}) {
    const size_t before = log.count("QELNKLegacyStream ends the connection: its handshake has taken too long");
    options.set("handshakeTimeout", 0.2);
    options.set("maximumOutgoingLength", 1 << 20);
    Service service(options);
    service.server->setMaximumConnections(2);
    const Guest guest(service.server->port());
    ASSERT_TRUE(eventually([&] { return guest.observer->has("ready"); }));

    // One that says nothing has to go, and while it is there nobody else may come.
    const int silent = connectTo(service.server->port());
    ASSERT_TRUE(eventually([&] { return service.server->streams().size() == 2; }));
    const int third = connectTo(service.server->port());
    EXPECT_TRUE(eventually([&] { return hasEnded(third); }));
    EXPECT_TRUE(log.contains("QELNKLegacyServer refuses a connection, for 2 are there already"));
    EXPECT_TRUE(eventually([&] { return hasEnded(silent); }));
    EXPECT_EQ(log.count("QELNKLegacyStream ends the connection: its handshake has taken too long"), before + 1);
    EXPECT_TRUE(eventually([&] { return service.observer->has("terminated"); }));

    // One that reads nothing has to go once too much waits for it; others get all of it.
    const int small = 16384, stuck = newSocket();
    setsockopt(stuck, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    connectTo(service.server->port(), stuck);
    const std::string handshake = handshakeBytes("stuck", "", "x");
    ASSERT_EQ(send(stuck, handshake.data(), handshake.size(), 0), ssize_t(handshake.size()));
    ASSERT_TRUE(eventually([&] { return service.observer->count("ready") == 2; }));
    const Data block(std::string(1 << 19, 'b'));
    int blocks = 0;
    EXPECT_TRUE(eventually([&] {
      service.server->writeBinaryData(block, std::to_string(blocks++), false);
      return eventually([&] { return guest.observer->has("binary " + std::to_string(blocks - 1) + " 524288"); }) &&
             service.server->streams().size() == 1;
    }));
    EXPECT_TRUE(log.contains("QELNKLegacyStream ends the connection: more waits to be written than the options allow"));

    // One that the host has ended counts no longer.
    service.server->setStreamOptions(with(options, "handshakeTimeout", 0));
    service.server->streams().front()->disconnect();
    const int fourth = connectTo(service.server->port()), fifth = connectTo(service.server->port());
    EXPECT_TRUE(
        eventually([&] { return service.server->streams().size() == 2 && guest.observer->has("terminated 0"); }));
    for (const int peer : {silent, third, stuck, fourth, fifth}) close(peer);
  }
}

TEST(LegacyServer, ThoseThatTheHostHasEndedDoNotPileUp) {
  Service service(QELNKLegacyStream::defaultIngestOptions());
  const Guest guest(service.server->port());
  ASSERT_TRUE(eventually([&] { return guest.observer->has("ready"); }));
  const auto lasting = service.server->streams().front();
  auto newest = lasting;
  for (int i = 0; i < 50; ++i) {
    const int peer = connectTo(service.server->port());
    ASSERT_TRUE(eventually([&] { return service.server->streams().back() != newest; }));
    newest = service.server->streams().back();
    newest->disconnect();
    close(peer);
    EXPECT_LE(service.server->streams().size(), 16u);
  }
  EXPECT_EQ(service.server->streams().front(), lasting);
  EXPECT_FALSE(guest.observer->has("terminated 1"));
}

TEST(LegacyServer, OutlivesBadPeers) {
  Service service(QELNKLegacyStream::defaultIngestOptions());
  const Guest good(service.server->port());
  ASSERT_TRUE(eventually([&] { return good.observer->has("ready") && service.observer->has("ready"); }));
  const std::string handshake = handshakeBytes("bad", "", "x");
  for (int round = 0; round < 30; ++round) {
    const int bad = connectTo(service.server->port());
    const std::string bytes = handshake + zeroed("!bin! 1000000 T") + std::string(5000, 'x');
    send(bad, bytes.data(), size_t(round) * 177 % bytes.size(), MSG_NOSIGNAL);
    if (round % 3 == 0) {  // reset in the middle
      const linger now{1, 0};
      setsockopt(bad, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    } else if (round % 3 == 1) {
      shutdown(bad, SHUT_WR);
    }
    close(bad);
  }
  EXPECT_TRUE(eventually([&] { return service.observer->count("terminated") == 30; }));
  EXPECT_TRUE(eventually([&] { return service.server->streams().size() == 1; }));
  service.server->writeString("still here");
  EXPECT_TRUE(eventually([&] { return good.observer->has("string still here"); }));
}

TEST(LegacyServer, WithoutDescriptorsItWaitsForThem) {
  Service service;
  const Guest first(service.server->port());
  ASSERT_TRUE(eventually([&] { return first.observer->has("ready"); }));
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const CapturedLog log;
  std::vector<int> taken;
  const int waiting = socket(AF_INET, SOCK_STREAM, 0);
  const rlimit low{rlim_t(waiting + 4), limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &low);
  for (int more; (more = dup(0)) >= 0;) taken.push_back(more);
  connectTo(service.server->port(), waiting);
  EXPECT_TRUE(eventually([&] { return log.contains("Listening socket cannot accept connections for now: "); }));
  const auto used = [] {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return double(time.tv_sec) + double(time.tv_nsec) / 1e9;
  };
  const double before = used();
  RunLoop::main()->runOnce(std::chrono::milliseconds(300));
  EXPECT_LT(used() - before, 0.1);  // no spin
  EXPECT_EQ(log.count("Listening socket cannot accept"), 1u);
  service.server->writeString("meanwhile");
  EXPECT_TRUE(eventually([&] { return first.observer->has("string meanwhile"); }));
  for (const int more : taken) close(more);
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_TRUE(eventually([&] { return service.server->streams().size() == 2; }));
  close(waiting);
}

TEST(LegacyServer, MayBeDroppedInAnyCallback) {
  const size_t threads = threadCount(), descriptors = descriptorCount();
  for (const bool ingest : {false, true})
    for (const std::string callback : {"ready", "string x", "heartbeat h", "terminated"}) {
      auto service = std::make_unique<Service>(ingest ? QELNKLegacyStream::defaultIngestOptions()
                                                      : QELNKLegacyStream::defaultPlayoutOptionsForAppID("s"));
      const std::weak_ptr<QELNKLegacyServer> weak = service->server;
      std::atomic<bool> dropping = false, dropped = false;
      service->observer->onTold([&](const std::string &text) {
        EXPECT_FALSE(dropping) << text;
        if (text != callback) return;
        dropping = true;
        service->server.reset();
        dropped = true;
      });
      const int peer = connectTo(service->server->port());
      const std::string bytes = handshakeBytes("p", "", "x") + zeroed("x") + zeroed("heartbeat h");
      send(peer, bytes.data(), bytes.size(), 0);
      if (callback == "terminated") {
        EXPECT_TRUE(eventually([&] { return service->observer->has("heartbeat h"); }));
        close(peer);
      }
      EXPECT_TRUE(eventually([&] { return dropped && weak.expired(); })) << callback;
      if (callback != "terminated") close(peer);
      EXPECT_TRUE(eventually([&] { return threadCount() <= threads + 1; })) << callback;
    }
  EXPECT_TRUE(eventually([&] { return descriptorCount() <= descriptors + 4; }));
}
