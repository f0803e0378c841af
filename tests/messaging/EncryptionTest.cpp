#include <QELNetworkKit/QELNKClient.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKEncryption.h>
#include <QELNetworkKit/QELNKMonitor.h>
#include <QELNetworkKit/QELNKPublisher.h>
#include <QELNetworkKit/QELNKServer.h>
#include <QELNetworkKit/QELNKSubscriber.h>
#include <QELNetworkKit/Queue.h>
#include <QELNetworkKit/ZMQContext.h>
#include <QELNetworkKit/ZMQException.h>
#include <QELNetworkKit/ZMQSocket.h>
#include <gtest/gtest.h>
#include <zmq.h>

#include <atomic>
#include <thread>
#include <vector>

#include "messaging/Peer.h"
#include "support/TestSupport.h"

using namespace qelnk;
using namespace qelnk::test;
using namespace std::chrono_literals;

namespace {

const QELNKKeyPair serverKeys = QELNKKeyPair::generate(), studioKeys = QELNKKeyPair::generate(),
                   strangerKeys = QELNKKeyPair::generate();

const Value question = Value::map({{"id", 1}});

std::shared_ptr<QELNKContext> newContext() { return QELNKContext::contextWithBackgroundQueue(); }

std::shared_ptr<QELNKServer> makeServer(const std::shared_ptr<QELNKContext> &context, QELNKEncryption encryption) {
  auto server = QELNKServer::create(context);
  EXPECT_TRUE(server->setEncryption(std::move(encryption)));
  EXPECT_TRUE(server->bindToPort(0, [](auto &, auto &message) { message->setResponse(message->request()); }));
  return server;
}

/// Whether a client with this encryption, or none, has a request answered.
struct Asking {
  Asking(int32_t port, const std::optional<QELNKEncryption> &encryption,
         std::shared_ptr<QELNKContext> context = newContext())
      : client(QELNKClient::create(std::move(context))) {
    if (encryption) {
      EXPECT_TRUE(client->setEncryption(*encryption));
    }
    client->connectToHost("127.0.0.1", port, nullptr);
    message = client->sendRequest(question, nullptr);
  }
  bool isAnswered() const { return message->isFinished() && message->response() == question; }
  bool isEventuallyAnswered() const {
    return eventually([this] { return isAnswered(); });
  }
  std::shared_ptr<QELNKClient> client;
  std::shared_ptr<QELNKMessage> message;
};

QELNKEncryption asClient(const QELNKKeyPair &keys, const QELNKKeyPair &server = serverKeys) {
  return {.keys = keys, .serverKey = server.publicKey};
}

}  // namespace

TEST(Encryption, WhoeverKnowsTheServersKeyMayConnect) {
  const auto context = newContext();
  const auto server = makeServer(context, {.keys = serverKeys});
  const Asking plain(server->port(), std::nullopt), misled(server->port(), asClient(studioKeys, strangerKeys));
  for (const auto &keys : {studioKeys, strangerKeys})
    EXPECT_TRUE(Asking(server->port(), asClient(keys)).isEventuallyAnswered());
  // Another endpoint of the context may be choosy.
  const auto choosy = makeServer(context, {.keys = serverKeys, .allowedKeys = {studioKeys.publicKey}});
  EXPECT_TRUE(Asking(server->port(), asClient(strangerKeys)).isEventuallyAnswered());
  EXPECT_FALSE(plain.isAnswered());
  EXPECT_FALSE(misled.isAnswered());
}

TEST(Encryption, OthersAreRefusedAndBothSidesHearOfIt) {
  const CapturedLog log;
  const auto context = newContext();
  std::mutex mutex;
  std::vector<std::string> refused;
  QELNKEncryption encryption{.keys = serverKeys, .allowedKeys = {studioKeys.publicKey}};
  std::shared_ptr<QELNKServer> server;
  encryption.refusedBlock = [&](const auto &endpoint, const std::string &address, const std::string &key) {
    const std::lock_guard lock(mutex);
    EXPECT_EQ(endpoint, server);
    refused.push_back(address + " " + key);
  };
  server = makeServer(context, encryption);

  const auto strangersContext = newContext();
  const auto stranger = QELNKClient::create(strangersContext);
  const auto monitor = QELNKMonitor::create(strangersContext);
  std::atomic<bool> isWatched = false;
  stranger->setEncryption(asClient(strangerKeys));
  stranger->setSocketBlock([&](const auto &endpoint, auto &) {
    monitor->connectToSocket(endpoint, QELNKMonitorEventKeysRefused);
    isWatched = true;
  });
  stranger->connectToHost("127.0.0.1", server->port(), nullptr);
  const auto unanswered = stranger->sendRequest(question, nullptr);
  ASSERT_TRUE(eventually([&] { return isWatched.load(); }));
  EXPECT_EQ(monitor->events(), QELNKMonitorEventKeysRefused);
  // Everybody is heard of once.
  const Asking again(server->port(), asClient(strangerKeys)), other(server->port(), asClient(serverKeys));
  EXPECT_TRUE(Asking(server->port(), asClient(studioKeys)).isEventuallyAnswered());
  const auto told = [&] {
    const std::lock_guard lock(mutex);
    return refused;
  };
  EXPECT_TRUE(eventually([&] { return told().size() == 2; }));
  EXPECT_EQ(told(),
            (std::vector<std::string>{"127.0.0.1 " + strangerKeys.publicKey, "127.0.0.1 " + serverKeys.publicKey}));
  EXPECT_EQ(log.count("QELNKSocket refuses 127.0.0.1, whose key " + strangerKeys.publicKey), 1u);
  EXPECT_FALSE(unanswered->isFinished());

  server->disconnect();
  server->setEncryption({.keys = serverKeys, .allowedKeys = {strangerKeys.publicKey}});
  EXPECT_TRUE(server->bindToPort(0, [](auto &, auto &message) { message->setResponse(message->request()); }));
  EXPECT_TRUE(Asking(server->port(), asClient(strangerKeys)).isEventuallyAnswered());
}

TEST(Encryption, BroadcastsAreEncryptedToo) {
  const auto publisher = QELNKPublisher::create(newContext());
  publisher->setEncryption({.keys = serverKeys, .allowedKeys = {studioKeys.publicKey}});
  publisher->bindToPort(0);
  const auto make = [&](const std::optional<QELNKEncryption> &encryption, std::atomic<int> &count) {
    const auto subscriber = QELNKSubscriber::create(newContext());
    if (encryption) subscriber->setEncryption(*encryption);
    subscriber->setMessageBlock([&](auto &, auto &) { ++count; });
    subscriber->connectToHost("127.0.0.1", publisher->port(), nullptr);
    return subscriber;
  };
  std::atomic<int> ours = 0, strangers = 0, plain = 0;
  const auto a = make(asClient(studioKeys), ours), b = make(asClient(strangerKeys), strangers), c = make({}, plain);
  EXPECT_TRUE(eventually([&] {
    publisher->publish(question);
    std::this_thread::sleep_for(1ms);
    return ours >= 10;
  }));
  EXPECT_EQ(strangers + plain, 0);
}

TEST(Encryption, WithoutAKeyThereIsNoConnection) {
  const CapturedLog log;
  EXPECT_EQ(QELNKKeyPair::pairOfSecretKey(studioKeys.secretKey).publicKey, studioKeys.publicKey);
  EXPECT_THROW(QELNKKeyPair::pairOfSecretKey("short"), ZMQException);
  const auto context = newContext();
  const std::string noKey(40, '~');
  for (const QELNKEncryption &wrong :
       {QELNKEncryption{}, QELNKEncryption{.keys = {serverKeys.publicKey, studioKeys.secretKey}},
        QELNKEncryption{.keys = serverKeys, .serverKey = "short"},
        QELNKEncryption{.keys = serverKeys, .allowedKeys = {noKey}}}) {
    const auto server = QELNKServer::create(context);
    EXPECT_FALSE(server->setEncryption(wrong));
    EXPECT_FALSE(server->bindToPort(0, [](auto &, auto &) {}));
    EXPECT_TRUE(server->setEncryption({.keys = serverKeys}));
    EXPECT_TRUE(server->bindToPort(0, [](auto &, auto &message) { message->setResponse(message->request()); }));
    EXPECT_TRUE(Asking(server->port(), asClient(studioKeys)).isEventuallyAnswered());
  }
  EXPECT_EQ(log.count("QELNKSocket cannot encrypt: "), 4u);
}

TEST(Encryption, EndsInTheMiddleOfRefusals) {
  // What is posted is run at once, on the thread that asks for keys.
  struct AtOnce final : Queue {
    void async(Task task) override { task(); }
    bool isCurrent() const override { return true; }
    const std::string &label() const override { return name; }
    const std::string name = "at once";
  };
  const size_t threads = threadCount(), descriptors = descriptorCount();
  for (int round = 0; round < 20; ++round) {
    std::atomic<bool> told = false;
    auto context = std::make_shared<QELNKContext>(std::make_shared<ZMQContext>(1), std::make_shared<AtOnce>(),
                                                  std::make_shared<AtOnce>());
    auto server = QELNKServer::create(context);
    QELNKEncryption encryption{.keys = serverKeys, .allowedKeys = {studioKeys.publicKey}};
    encryption.refusedBlock = [&](auto &, auto &, auto &) {
      if (round % 2 == 0) context->zmqContext()->terminate();  // the very context that asks
      told = true;
    };
    server->setEncryption(encryption);
    ASSERT_TRUE(server->bindToPort(0, [](auto &, auto &) {}));
    const Asking stranger(server->port(), asClient(strangerKeys));
    EXPECT_TRUE(eventually([&] { return told.load(); }));
    server = nullptr;
    context = nullptr;
  }
  EXPECT_TRUE(eventually([&] { return threadCount() <= threads && descriptorCount() <= descriptors; }));
}
