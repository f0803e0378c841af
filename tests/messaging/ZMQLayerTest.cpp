#include <QELNetworkKit/ZMQContext.h>
#include <QELNetworkKit/ZMQException.h>
#include <QELNetworkKit/ZMQSocket.h>
#include <gtest/gtest.h>
#include <zmq.h>

#include <cerrno>
#include <functional>
#include <optional>
#include <thread>

#include "support/TestSupport.h"

using namespace qelnk;
using namespace qelnk::test;

namespace {

std::optional<Data> rawOption(void *socket, int option, size_t capacity) {
  Data data = Data::uninitialized(capacity);
  size_t size = capacity;
  if (zmq_getsockopt(socket, option, data.mutableData(), &size) != 0) return std::nullopt;
  data.resize(size);
  return data;
}

/// The error number of the exception that `operation` throws, 0 when it throws none.
int errorOf(const std::function<void()> &operation) {
  try {
    operation();
    return 0;
  } catch (const ZMQException &exception) {
    EXPECT_STREQ(exception.name(), "ZMQException");
    EXPECT_EQ(exception.reason(), zmq_strerror(exception.code()));
    EXPECT_EQ(exception.userInfo()["errorCode"].intValue(), exception.code());
    return exception.code();
  }
}

struct Pair {
  ZMQContext context{1};
  std::shared_ptr<ZMQSocket> a = context.socketWithType(ZMQ_PAIR), b = context.socketWithType(ZMQ_PAIR);
  Pair() {
    a->bindToEndpoint("inproc://pair");
    b->connectToEndpoint("inproc://pair");
  }
};

}  // namespace

TEST(ZMQSocket, NamesTypes) {
  const std::string_view names[] = {"ZMQ_PAIR", "ZMQ_PUB",  "ZMQ_SUB",  "ZMQ_REQ",  "ZMQ_REP",
                                    "ZMQ_XREQ", "ZMQ_XREP", "ZMQ_PULL", "ZMQ_PUSH", "UNKNOWN"};
  for (int type = 0; type < 10; type++) EXPECT_EQ(ZMQSocket::nameForSocketType(type), names[type]);
  EXPECT_EQ(ZMQSocket::nameForSocketType(-1), "UNKNOWN");
}

TEST(ZMQSocket, ReadsEveryOptionThatCanBeRead) {
  const CapturedLog log;
  ZMQContext context(1);
  for (const int type : {ZMQ_REQ, ZMQ_ROUTER, ZMQ_SUB}) {
    const auto socket = context.socketWithType(type);
    socket->bindToEndpoint("tcp://127.0.0.1:*");
    socket->setData(Data(std::string_view("a routing id")), ZMQ_ROUTING_ID);
    int readable = 0;
    for (int option = 1; option <= 120; option++) {
      bool expected = false;
      for (size_t capacity = 1; capacity <= 300 && !expected; capacity++)
        expected = rawOption(socket->socket(), option, capacity).has_value();
      std::optional<Data> data;
      const int error = errorOf([&] { data = socket->dataForOption(option); });
      ASSERT_EQ(error == 0, expected) << option;
      if (!data) continue;
      readable++;
      const auto same = rawOption(socket->socket(), option, data->size());
      EXPECT_EQ(*data, same ? *same : *rawOption(socket->socket(), option, 255)) << option;
    }
    EXPECT_GT(readable, 40);
    EXPECT_EQ(socket->dataForOption(ZMQ_ROUTING_ID)->text(), "a routing id");
  }
}

TEST(ZMQSocket, ReportsFailures) {
  CapturedLog log;
  EXPECT_EQ(errorOf([] { ZMQContext(-1); }), EINVAL);
  EXPECT_TRUE(
      log.contains("-[ZMQContext initWithIOThreads:]: *** Error creating ZMQContext: zmq_init: Invalid argument"));

  ZMQContext context(1);
  EXPECT_EQ(errorOf([&] { context.socketWithType(4711); }), EINVAL);
  EXPECT_TRUE(log.contains(": zmq_socket: Invalid argument"));

  const auto socket = context.socketWithType(ZMQ_REQ);
  EXPECT_EQ(errorOf([&] { socket->connectToEndpoint("tcp://:nowhere"); }), EINVAL);
  EXPECT_EQ(socket->endpoint(), "tcp://:nowhere");  // stored before the attempt
  EXPECT_TRUE(log.contains("ZMQLogError: *** " + socket->description() + ": zmq_connect: Invalid argument"));
  EXPECT_EQ(errorOf([&] { socket->bindToEndpoint("nothing://x"); }), EPROTONOSUPPORT);
  EXPECT_TRUE(log.contains(": zmq_bind: Protocol not supported"));
  EXPECT_EQ(errorOf([&] { socket->setData(Data{1, 2, 3}, ZMQ_LINGER); }), EINVAL);
  EXPECT_TRUE(log.contains(": zmq_setsockopt: "));
  EXPECT_EQ(errorOf([&] { socket->dataForOption(ZMQ_SUBSCRIBE); }), EINVAL);
  EXPECT_TRUE(log.contains(": zmq_getsockopt: "));
  EXPECT_FALSE(socket->subscribe("x"));
  EXPECT_EQ(errorOf([&] { socket->receiveData(ZMQ_DONTWAIT); }), EFSM);
  EXPECT_TRUE(log.contains(": zmq_recv: "));
  EXPECT_FALSE(socket->sendData(Data{1}, ZMQ_DONTWAIT));
  EXPECT_TRUE(log.contains(": zmq_sendmsg: Resource temporarily unavailable"));
  char byte;
  EXPECT_EQ(socket->receive(&byte, 1, ZMQ_DONTWAIT), -1);
}

TEST(ZMQSocket, DescribesItselfAndClosesOnce) {
  ZMQContext context(1);
  const auto socket = context.socketWithType(ZMQ_DEALER);
  EXPECT_EQ(context.sockets().size(), 1u);
  socket->connectToEndpoint("inproc://somewhere");
  char text[200];
  snprintf(text, sizeof(text), "<ZMQSocket: %p (ctx=%p, type=ZMQ_XREQ, endpoint=inproc://somewhere, closed=",
           static_cast<void *>(socket.get()), static_cast<void *>(&context));
  EXPECT_EQ(socket->description(), text + std::string("0)>"));
  socket->close();
  socket->close();
  EXPECT_TRUE(socket->isClosed());
  EXPECT_EQ(socket->description(), text + std::string("1)>"));
  EXPECT_TRUE(context.sockets().empty());  // years of reconnecting leave nothing behind
}

TEST(ZMQSocket, CarriesFrames) {
  Pair pair;
  EXPECT_TRUE(pair.a->sendData(Data(std::string_view("one")), ZMQ_SNDMORE));
  EXPECT_TRUE(pair.a->sendData(Data(), ZMQ_SNDMORE));
  EXPECT_TRUE(pair.a->sendData(Data(std::string_view("three")), 0));
  zmq_pollitem_t item;
  pair.b->getPollItem(item, ZMQ_POLLIN | ZMQ_POLLOUT);
  EXPECT_EQ(ZMQContext::pollWithItems(&item, 1, 0), 1);
  EXPECT_EQ(item.revents, ZMQ_POLLIN | ZMQ_POLLOUT);
  EXPECT_EQ(pair.b->receiveData(0).text(), "one");
  EXPECT_EQ(pair.b->receiveData(0).size(), 0u);
  char two[2];
  EXPECT_EQ(pair.b->receive(two, sizeof(two), 0), 5);  // cut, with its real length
  EXPECT_EQ(std::string_view(two, 2), "th");
}

TEST(ZMQContext, TerminationReleasesWhoReceives) {
  CapturedLog log;
  auto pair = std::make_unique<Pair>();
  int error = 0;
  std::thread receiver([&] {
    error = errorOf([&] { pair->a->receiveData(0); });
    pair->a->close();
  });
  pair->b->close();
  pair->context.terminate();
  receiver.join();
  EXPECT_EQ(error, ETERM);
  EXPECT_TRUE(pair->context.isTerminated());
  EXPECT_EQ(pair->context.context(), nullptr);
  EXPECT_EQ(errorOf([&] { pair->context.socketWithType(ZMQ_PAIR); }), EFAULT);
}

TEST(ZMQContext, EndsWithOpenSocketsAndUnsentMessages) {
  std::shared_ptr<ZMQSocket> held;
  const auto start = std::chrono::steady_clock::now();
  {
    ZMQContext context(1);
    held = context.socketWithType(ZMQ_PUSH);
    held->connectToEndpoint("tcp://127.0.0.1:1");  // nobody is there
    EXPECT_TRUE(held->sendData(Data{1}, 0));
  }
  EXPECT_TRUE(held->isClosed());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));  // ZeroMQ alone would wait for ever
}
