#include <QELNetworkKit/QELNKSocket.h>
#include <QELNetworkKit/Queue.h>
#include <QELNetworkKit/XMLDocument.h>
#include <QELNetworkKit/ZMQContext.h>
#include <QELNetworkKit/ZMQException.h>
#include <QELNetworkKit/ZMQSocket.h>
#include <gtest/gtest.h>
#include <zmq.h>

#include <cerrno>

#include "support/TestSupport.h"

using namespace qelnk;
using namespace qelnk::test;

namespace {

/// An endpoint without a thread, as a host would make one.
class Endpoint : public QELNKSocket {
 public:
  explicit Endpoint(std::shared_ptr<QELNKContext> context) : QELNKSocket(std::move(context)) {}
  int32_t socketType() const override { return ZMQ_PAIR; }
  using QELNKSocket::openSocket;
};

std::shared_ptr<Endpoint> makeEndpoint(const std::shared_ptr<QELNKContext> &context) {
  return QELNKSocket::make<Endpoint>(context);
}

struct SocketTest : testing::Test {
  std::shared_ptr<QELNKContext> context = QELNKContext::contextWithBackgroundQueue();
  std::shared_ptr<Endpoint> a = makeEndpoint(context), b = makeEndpoint(context);
  void join() {
    a->openSocket({})->bindToEndpoint("inproc://endpoints");
    b->openSocket({})->connectToEndpoint("inproc://endpoints");
  }
};

Value bytes(std::string_view text) { return Value(Data(text)); }

struct Body {
  int32_t type;
  Value message;
  std::string_view frame;
};

}  // namespace

class MessageBodies : public SocketTest, public testing::WithParamInterface<Body> {};

TEST_P(MessageBodies, TravelBothWays) {
  const auto &[type, message, frame] = GetParam();
  Error error;
  const auto encoded = QELNKSocket::serializeMessage(message, type, &error);
  ASSERT_TRUE(encoded) << error.description;
  EXPECT_EQ(encoded->text(), frame);
  a->setMessageBody(type);
  EXPECT_EQ(a->serializeMessage(message, &error), QELNKFrames{*encoded});
  EXPECT_EQ(a->deserializeData(QELNKFrames{*encoded}, &error), message);
  EXPECT_FALSE(a->deserializeData(QELNKFrames{*encoded, *encoded}, &error));
  EXPECT_FALSE(a->deserializeData(QELNKFrames{}, &error));
  EXPECT_FALSE(error);
}

INSTANTIATE_TEST_SUITE_P(All, MessageBodies,
                         testing::Values(Body{QELNKMessageBodyJSON,
                                              Value::map({{"a", Value::list({1, true, nullptr})}}),
                                              "{\"a\":[1,true,null]}"},
                                         Body{QELNKMessageBodyMessagePack, Value::map({{"a", 1}}),
                                              "\x81\xa1"
                                              "a\x01"},
                                         Body{QELNKMessageBodyXML, *XMLDocument::parse("<a b=\"1\"/>"), "<a b=\"1\"/>"},
                                         Body{QELNKMessageBodyString, "grüße", "grüße"},
                                         Body{QELNKMessageBodyData, bytes("raw"), "raw"}));

TEST_F(SocketTest, RefusesWhatCannotBeEncoded) {
  EXPECT_EQ(QELNKSocket::deserializeData(Data("\xff"
                                              "a\xc3\xa4\xe2\x82"),
                                         QELNKMessageBodyString, nullptr),
            Value("\uFFFDa\u00e4\uFFFD\uFFFD"));
  const Value document = *XMLDocument::parse("<a/>");
  for (const int32_t type : {0, 1, 2, 3, 5}) {
    a->setMessageBody(type);
    Error error;
    EXPECT_FALSE(a->serializeMessage(type == 2 ? Value("text") : Value::map({{"x", document}}), &error)) << type;
    EXPECT_TRUE(error) << type;
    EXPECT_FALSE(a->serializeMessage(type == 2 ? Value("text") : Value::map({{"x", document}}), nullptr)) << type;
  }
  Error error;
  EXPECT_EQ(QELNKSocket::serializeMessage("text", QELNKMessageBodyData, &error), Data());
  for (const int32_t type : {5, 7, -1}) {
    EXPECT_FALSE(QELNKSocket::serializeMessage("text", type, &error));
    EXPECT_FALSE(QELNKSocket::deserializeData(Data{1}, type, &error));
  }
  EXPECT_FALSE(error);
  for (const int32_t type : {0, 1, 2}) {
    EXPECT_FALSE(QELNKSocket::deserializeData(Data{0xc1}, type, &error));
    EXPECT_TRUE(std::exchange(error, {}));
  }
}

TEST_F(SocketTest, CarriesMessagesOfSeveralFrames) {
  join();
  Error error;
  EXPECT_TRUE(a->sendData(QELNKFrames{Data{1, 2}, Data(), Data{3}}, &error));
  EXPECT_EQ(b->receiveData(0, &error), (QELNKFrames{Data{1, 2}, Data{3}}));  // without the empty one
  EXPECT_FALSE(b->multipartMessage());
  EXPECT_EQ(a->dataSent(), 3u);
  EXPECT_EQ(b->dataReceived(), 3u);
  EXPECT_TRUE(a->sendData(QELNKFrames{}, &error));
  EXPECT_FALSE(error);
  EXPECT_FALSE(b->receiveData(ZMQ_DONTWAIT, &error));
  EXPECT_EQ(error, (Error{"ZMQ", EAGAIN, zmq_strerror(EAGAIN), {}}));

  a->setMessageBody(QELNKMessageBodyMultipart);
  b->setMessageBody(QELNKMessageBodyMultipart);
  const Value message = Value::list({bytes("x"), bytes("y")});
  EXPECT_TRUE(a->sendData(*a->serializeMessage(message, nullptr), nullptr));
  EXPECT_EQ(b->deserializeData(*b->receiveData(0, nullptr), nullptr), message);
}

TEST_F(SocketTest, FailsWithoutASocketAndAfterItsEnd) {
  Error error;
  EXPECT_FALSE(a->sendData(Data{1}, 0, &error));
  EXPECT_EQ(error.code, ENOTSOCK);
  EXPECT_FALSE(a->receiveData(0, nullptr));
  EXPECT_EQ(a->endPoint(), "");
  a->setLinger(1);
  a->logData();
  join();
  EXPECT_EQ(a->endPoint(), "inproc://endpoints");
  const auto socket = a->socket();
  a->disconnect();
  a->disconnect();
  EXPECT_TRUE(socket->isClosed());
  EXPECT_EQ(a->socket(), nullptr);
  EXPECT_FALSE(a->sendData(QELNKFrames{Data{1}}, &error));
}

TEST_F(SocketTest, LeavesTheRefusalOfTheWideLingerOnTheLog) {
  join();
  const CapturedLog log;
  a->setLinger(100);
  EXPECT_EQ(log.count("zmq_setsockopt: Invalid argument"), 1u);
}

TEST_F(SocketTest, LogsTraffic) {
  join();
  const auto clock = std::make_shared<ManualClock>();
  a->setClock(clock);
  CapturedLog log;
  a->sendData(Data::uninitialized(5000), 0, nullptr);
  a->logData();  // arms the meter
  clock->advance(std::chrono::seconds(2));
  a->sendData(Data::uninitialized(10240), 0, nullptr);
  a->logData();
  a->logData();  // no time has passed
  a->sendData(Data::uninitialized(1023), 0, nullptr);
  clock->setWallTime(3);
  a->logData();
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"QELNKSocket sent 5KB/s and received 0KB/s",
                                                   "QELNKSocket sent 0KB/s and received 0KB/s"}));
}

TEST_F(SocketTest, FormsEndpoints) {
  EXPECT_EQ(QELNKSocket::endPointForHost("*", 5555), "tcp://*:5555");
  EXPECT_EQ(QELNKSocket::endPointForHost("127.0.0.1", 0), "tcp://127.0.0.1:0");
}

TEST_F(SocketTest, HoldsItsContextAndEndsIt) {
  join();
  const std::weak_ptr<QELNKContext> weak = context;
  const auto zmqContext = context->zmqContext();
  EXPECT_TRUE(context->responseQueue()->label().ends_with(".networkcontext"));
  EXPECT_EQ(context->responseQueue(), context->networkQueue());
  context = nullptr;
  a = nullptr;
  EXPECT_FALSE(zmqContext->isTerminated());
  b = nullptr;
  EXPECT_TRUE(zmqContext->isTerminated());
  EXPECT_TRUE(zmqContext->sockets().empty());
}

// In a process of its own, since it happens once.
TEST(QELNKContextDeathTest, SharedContextGoesForGood) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        auto endpoint = makeEndpoint(QELNKContext::sharedContext());
        const auto zmqContext = endpoint->context()->zmqContext();
        bool ok = QELNKContext::sharedContext() == endpoint->context() &&
                  endpoint->context()->responseQueue() == Queue::main() &&
                  endpoint->context()->networkQueue() != Queue::main();
        QELNKContext::terminateSharedContext();
        ok = ok && !QELNKContext::sharedContext() && !zmqContext->isTerminated();
        endpoint = nullptr;
        exit(ok && zmqContext->isTerminated() ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}
