// Two ends that ask and answer: a server that adds, and a client whose request has a deadline.
// Change first: what the handler answers, and "localhost" for the machine that runs the server.

#include <QELNetworkKit/QELNetworkKit.h>

#include <chrono>
#include <cstdio>

using namespace std::chrono_literals;
using qelnk::Value;

int main() {
  // The handler runs on the server's thread, one request after the other. Port 0: the system chooses a free one.
  auto server = QELNKServer::create(QELNKContext::sharedContext());
  server->setMessageBody(QELNKMessageBodyMessagePack);
  server->setFallbackResponse(Value::map({{"error", "not understood"}}));  // for what is no map: the server goes on
  const auto add = [](auto &, auto &message) {
    const Value &request = *message->request();
    message->setResponse(Value::map({{"sum", request["a"].integerValue() + request["b"].integerValue()}}));
  };
  qelnk::Error error;
  if (!server->bindToPort(0, add, &error)) {
    std::fprintf(stderr, "cannot serve: %s\n", error.description.c_str());
    return 1;
  }

  auto client = QELNKClient::create(QELNKContext::sharedContext());
  client->setMessageBody(QELNKMessageBodyMessagePack);
  client->setRequestTimeout(20s);  // without it a request waits for a server as long as it takes
  client->connectToHost("localhost", server->port(), nullptr);

  // Called on the main thread exactly once, with a response or with an error.
  bool isRight = false;
  client->sendRequest(Value::map({{"a", 40}, {"b", 2}}), [&](auto &, auto &message) {
    if (message->response()) {
      std::printf("the server says %s\n", message->response()->description().c_str());
      isRight = *message->response() == Value::map({{"sum", 42}});
    } else {
      std::fprintf(stderr, "no answer: %s\n", message->error().description.c_str());
    }
    qelnk::RunLoop::main()->stop();
  });
  qelnk::RunLoop::main()->run();
  return isRight ? 0 : 1;
}
