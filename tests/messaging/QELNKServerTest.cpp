#include <QELNetworkKit/QELNKClient.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKServer.h>
#include <QELNetworkKit/XMLDocument.h>
#include <QELNetworkKit/ZMQContext.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <zmq.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "messaging/Peer.h"
#include "support/TestSupport.h"

namespace qelnk::test {
namespace {

using namespace std::chrono_literals;
using Server = std::shared_ptr<QELNKServer>;
using Message = std::shared_ptr<QELNKMessage>;

Server makeServer(int32_t body = QELNKMessageBodyString) {
  const auto server = QELNKServer::create(QELNKContext::contextWithBackgroundQueue());
  server->setMessageBody(body);
  return server;
}

void echo(const Server &, const Message &message) { message->setResponse(message->request()); }

TEST(QELNKServer, AnswersInEachEncoding) {
  const Value xml = *XMLDocument::parse(Data("<a>1</a>").span());
  const std::pair<int32_t, Value> cases[] = {
      {QELNKMessageBodyJSON, Value::map({{"a", Value::list({1, 2.5, nullptr})}})},
      {QELNKMessageBodyMessagePack, Value::map({{"a", Data("\x00\xff")}})},
      {QELNKMessageBodyXML, xml},
      {QELNKMessageBodyString, "grüße"},
      {QELNKMessageBodyData, Data("bytes")},
      {QELNKMessageBodyMultipart, Value::list({Data("a"), Data("b")})}};
  for (const auto &[body, request] : cases) {
    SCOPED_TRACE(body);
    const auto server = makeServer(body);
    Message handled;
    ASSERT_TRUE(server->bindToPort(0, [&](const Server &self, const Message &message) {
      EXPECT_EQ(self, server);
      echo(self, message);
      handled = message;
    }));
    const auto client = QELNKClient::create(QELNKContext::contextWithBackgroundQueue());
    client->setMessageBody(body);
    client->setSyncRequests(true);
    client->connectToHost("localhost", server->port(), nullptr);
    const auto message = client->sendRequest(request, nullptr);
    ASSERT_TRUE(message->response());
    EXPECT_EQ(body == QELNKMessageBodyXML ? Value(message->response()->xml().data()) : *message->response(),
              body == QELNKMessageBodyXML ? Value(request.xml().data()) : request);
    server->disconnect();
    ASSERT_TRUE(server->bindToPort(0, echo));  // returns behind the handler's end
    EXPECT_TRUE(handled->sent());
  }
}

// Each of many clients gets the replies to its own requests, and none of them waits for the end of a pass.
TEST(QELNKServer, AnswersManyClientsWithoutAPause) {
  const auto server = makeServer();
  std::atomic<int> handled{0};
  ASSERT_TRUE(server->bindToPort(0, [&](const Server &self, const Message &message) {
    ++handled;
    echo(self, message);
  }));
  const auto begun = std::chrono::steady_clock::now();
  std::vector<std::thread> clients;
  for (int c = 0; c < 8; ++c)
    clients.emplace_back([&, c] {
      Wire wire(ZMQ_REQ, server->port());
      for (int i = 0; i < 100; ++i) {
        const Peer::Frames request{std::to_string(c) + "/" + std::to_string(i)};
        wire.send(request);
        EXPECT_EQ(wire.receive(), request);
      }
    });
  for (auto &client : clients) client.join();
  EXPECT_EQ(handled, 800);
  EXPECT_LT(std::chrono::steady_clock::now() - begun, 10s) << "a tenth of a second each would be 80 s";
}

struct Unanswered {
  const char *what;
  int32_t body;
  Peer::Frames request;
  QELNKServer::MessageBlock handler;
  const char *line;  // on the log, where there is one
};

const Unanswered unansweredCases[] = {
    {"not decodable", QELNKMessageBodyJSON, {"{"}, echo, nullptr},
    {"two frames", QELNKMessageBodyString, {"a", "b"}, echo, nullptr},
    {"no bytes", QELNKMessageBodyString, {""}, echo, nullptr},
    {"no response", QELNKMessageBodyString, {"a"}, [](auto &, auto &) {}, nullptr},
    {"no handler", QELNKMessageBodyString, {"a"}, nullptr, nullptr},
    {"not encodable",
     QELNKMessageBodyString,
     {"a"},
     [](auto &, auto &message) { message->setResponse(Value(1)); },
     "QELNKServer could not send response with error A message of kind"},
    {"no frames",
     QELNKMessageBodyMultipart,
     {"a"},
     [](auto &, auto &message) { message->setResponse(Value::list()); },
     "QELNKServer could not send response with error Invalid argument"},
    {"throws", QELNKMessageBodyString, {"a"}, [](auto &, auto &) { throw std::runtime_error("Boom"); }, "Boom"},
};

// A reply socket that has not answered takes no further request. That is told by nothing but isSilent(), unless the
// fault is the handler's; the server ends at once all the same, and can be bound anew.
TEST(QELNKServer, FallsSilentAfterARequestThatIsNotAnswered) {
  for (const Unanswered &unanswered : unansweredCases) {
    SCOPED_TRACE(unanswered.what);
    CapturedLog log;
    const auto server = makeServer(unanswered.body);
    ASSERT_TRUE(server->bindToPort(0, unanswered.handler));
    const int32_t port = server->port();
    Wire first(ZMQ_REQ, port), second(ZMQ_REQ, port);
    first.send(unanswered.request);
    ASSERT_TRUE(eventually([&] { return server->isSilent(); }));
    second.send({"[1]"});
    EXPECT_FALSE(second.receive(50ms));
    EXPECT_EQ(log.lines().size(), unanswered.line ? 1u : 0u);
    EXPECT_TRUE(!unanswered.line || log.contains(unanswered.line));
    server->disconnect();
    ASSERT_TRUE(server->bindToPort(port, echo));
    EXPECT_FALSE(server->isSilent());
    Wire third(ZMQ_REQ, port);
    third.send({"[2]"});
    EXPECT_EQ(third.receive(), Peer::Frames{"[2]"});
  }
}

TEST(QELNKServer, GoesOnWithAFallback) {
  for (const Unanswered &unanswered : unansweredCases) {
    SCOPED_TRACE(unanswered.what);
    const auto server = makeServer(unanswered.body);
    const std::map<int32_t, Value> fallbacks{{QELNKMessageBodyJSON, Value::list()},
                                             {QELNKMessageBodyString, "[]"},
                                             {QELNKMessageBodyMultipart, Value::list({Data("[]")})}};
    server->setFallbackResponse(fallbacks.at(unanswered.body));
    ASSERT_TRUE(server->bindToPort(0, unanswered.handler));
    Wire wire(ZMQ_REQ, server->port());
    for (int i = 0; i < 3; ++i) {
      wire.send(unanswered.request);
      EXPECT_EQ(wire.receive(), Peer::Frames{"[]"});
    }
    EXPECT_FALSE(server->isSilent());
  }
}

TEST(QELNKServer, TellsWhyItCannotBind) {
  CapturedLog log;
  const Peer taken(ZMQ_REP, Peer::ignore);
  const auto server = makeServer();
  Error error;
  EXPECT_FALSE(server->bindToPort(taken.port(), echo, &error));
  EXPECT_EQ(error.domain, "ZMQ");
  EXPECT_EQ(error.code, EADDRINUSE);
  EXPECT_TRUE(log.contains("QELNKServer could not bind to port " + std::to_string(taken.port())));
  for (const int32_t port : {-1, 65536, 70000}) {
    EXPECT_FALSE(server->bindToPort(port, echo, &error));
    EXPECT_EQ(error.code, EINVAL);
  }
  EXPECT_EQ(server->port(), 0);
  ASSERT_TRUE(server->bindToPort(0, echo, &error));
  EXPECT_FALSE(server->bindToPort(0, nullptr, &error));
  EXPECT_EQ(error.code, EISCONN);
  Wire wire(ZMQ_REQ, server->port());
  wire.send({"still the first handler"});
  EXPECT_TRUE(wire.receive());
}

// Whoever drops the server in its handler still has the request answered, and the thread is gone then.
TEST(QELNKServer, MayBeDroppedOrDisconnectedInItsHandler) {
  const size_t before = threadCount();
  for (const bool drop : {true, false}) {
    auto server = makeServer();
    std::weak_ptr<QELNKServer> weak = server;
    auto holder = std::make_shared<Server>(server);
    ASSERT_TRUE(server->bindToPort(0, [holder, drop](const Server &self, const Message &message) {
      if (!drop) self->disconnect();
      holder->reset();
      echo(self, message);
    }));
    {
      Wire wire(ZMQ_REQ, server->port());
      if (drop) server.reset();
      wire.send({"bye"});
      EXPECT_EQ(wire.receive(), Peer::Frames{"bye"});
    }
    server.reset();
    EXPECT_TRUE(eventually([&] { return weak.expired() && threadCount() <= before; }));
  }
}

TEST(QELNKServer, OutlivesPeersThatVanishBeforeTheirReply) {
  std::promise<void> handling, gone;
  std::atomic<int> count{0};
  const auto server = makeServer();  // goes before what its handler uses
  ASSERT_TRUE(server->bindToPort(0, [&](const Server &self, const Message &message) {
    if (count++ == 0) {
      handling.set_value();
      gone.get_future().wait();
    }
    echo(self, message);
  }));
  {
    Wire wire(ZMQ_REQ, server->port());
    wire.send({std::string(1 << 20, 'x')});
    handling.get_future().wait();
  }
  gone.set_value();
  Wire wire(ZMQ_REQ, server->port());
  wire.send({"next"});
  EXPECT_EQ(wire.receive(), Peer::Frames{"next"});
}

// Else a machine that is switched off would leave a descriptor behind for ever.
TEST(QELNKServer, AsksPeersThatAreSilentWhetherTheyAreThere) {
  const auto server = makeServer();
  ASSERT_TRUE(server->bindToPort(0, echo));
  Wire wire(ZMQ_REQ, server->port());
  wire.send({"hello"});
  EXPECT_EQ(wire.receive(), Peer::Frames{"hello"});
  // Of this machine's connections: "sl local remote state queues timer:when ...".
  const std::string ours = fmt::format("0100007F:{:04X}", server->port()), established = "01", keepAlive = "02:";
  EXPECT_TRUE(eventually([&] {  // while something is to be confirmed there is another timer
    std::ifstream connections("/proc/net/tcp");
    for (std::string line; std::getline(connections, line);) {
      std::istringstream words(line);
      std::string number, local, remote, state, queues, timer;
      words >> number >> local >> remote >> state >> queues >> timer;
      if (local == ours && state == established) return timer.starts_with(keepAlive);
    }
    return false;
  }));
}

TEST(QELNKServer, KeepsNoMessageBeyondTheMaximumSize) {
  const auto server = makeServer(QELNKMessageBodyData);
  server->setMaximumMessageSize(1000);
  ASSERT_TRUE(server->bindToPort(0, [](const Server &, const Message &message) {
    const size_t asked = message->request()->data().size() == 1 ? 2000 : 10;
    message->setResponse(Value(Data(std::vector<uint8_t>(asked))));
  }));
  const auto makeClient = [&](uint64_t limit) {
    auto client = QELNKClient::create(QELNKContext::contextWithBackgroundQueue());
    client->setMessageBody(QELNKMessageBodyData);
    client->setSyncRequests(true);
    client->setMaximumMessageSize(limit);
    client->connectToHost("127.0.0.1", server->port(), nullptr);
    return client;
  };
  const auto ask = [](const std::shared_ptr<QELNKClient> &client, size_t bytes, std::chrono::milliseconds limit = 10s) {
    const auto response = client->sendRequest(Value(Data(std::vector<uint8_t>(bytes))), nullptr, limit)->response();
    return response ? int64_t(response->data().size()) : -1;
  };
  const auto open = makeClient(0), bounded = makeClient(1000);
  EXPECT_EQ(ask(bounded, 1000), 10);
  EXPECT_EQ(ask(open, 1001, 200ms), -1);  // more than the server takes
  EXPECT_EQ(ask(bounded, 1, 200ms), -1);  // the answer is more than the client takes
  EXPECT_EQ(ask(open, 1), 2000);          // both go on, and those beside them
  EXPECT_EQ(ask(bounded, 2), 10);
  EXPECT_EQ(ask(makeClient(1000), 2), 10);
}

TEST(QELNKServer, LetsItsContextEnd) {
  const auto context = QELNKContext::contextWithBackgroundQueue();
  std::promise<void> handling;
  const auto idle = QELNKServer::create(context), busy = QELNKServer::create(context);
  ASSERT_TRUE(idle->bindToPort(0, echo));
  ASSERT_TRUE(busy->bindToPort(0, [&](auto &, auto &message) {
    handling.set_value();
    EXPECT_TRUE(eventually([&] { return idle->socket() == nullptr; }));
    message->setResponse(Value::list());
  }));
  Wire wire(ZMQ_REQ, busy->port());
  wire.send({"[]"});
  handling.get_future().wait();
  context->zmqContext()->closeSockets();
  context->zmqContext()->terminate();
  EXPECT_TRUE(eventually([&] { return busy->socket() == nullptr; }));
  EXPECT_FALSE(idle->bindToPort(0, echo));
}

TEST(QELNKServer, TakesOverThePortOfOneThatHasJustGone) {
  auto server = makeServer();
  ASSERT_TRUE(server->bindToPort(0, echo));
  const int32_t port = server->port();
  for (int i = 0; i < 50; ++i) {
    server.reset();
    server = makeServer();
    ASSERT_TRUE(server->bindToPort(port, echo));
  }
}

// Binding, serving and ending from several threads at once.
TEST(QELNKServer, EndsAndStartsAgainUnderLoad) {
  const auto server = makeServer();
  ASSERT_TRUE(server->bindToPort(0, echo));
  const int32_t port = server->port();
  std::atomic<bool> stop{false};
  std::thread load([&] {
    while (!stop) {
      Wire wire(ZMQ_REQ, port);
      wire.send({"x"});
      wire.receive(5ms);
    }
  });
  int bound = 0;
  for (int i = 0; i < 20; ++i) {
    std::thread other([&] { server->disconnect(); });
    server->disconnect();
    bound += server->bindToPort(port, echo);
    other.join();
  }
  stop = true;
  load.join();
  EXPECT_GT(bound, 0);
}

}  // namespace
}  // namespace qelnk::test
