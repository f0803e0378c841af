// One end broadcasts its state, the other hears the part of it that it has asked for.
// Change first: the messages, and the filter, which is the beginning of those to be received.

#include <QELNetworkKit/QELNetworkKit.h>

#include <chrono>
#include <cstdio>

using namespace std::chrono_literals;
using qelnk::Value;

int main() {
  const auto loop = qelnk::RunLoop::main();
  auto publisher = QELNKPublisher::create(QELNKContext::sharedContext());
  publisher->bindToPort(0);  // throws ZMQException for a port that is taken; 0 is any free one

  // Who joins late has missed what was said before, so the state is said again and again.
  int number = 0;
  auto repeat = loop->performAfter(
      {},
      [&] {
        publisher->publish(Value::map({{"onAir", ++number}}));
        publisher->publish(Value::map({{"preview", number}}));
      },
      50ms);

  auto subscriber = QELNKSubscriber::create(QELNKContext::sharedContext());
  subscriber->addFilter(qelnk::Data("{\"onAir\""));  // messages are JSON unless setMessageBody() says otherwise
  int received = 0, last = 0;
  bool isRight = true;
  subscriber->setMessageBlock([&](auto &, const Value &message) {  // on the main thread
    std::printf("received %s\n", message.description().c_str());
    const int onAir = int(message["onAir"].integerValue());
    isRight = isRight && onAir > last;  // in order, and none of the others
    last = onAir;
    if (++received == 3) loop->stop();
  });
  subscriber->connectToHost("localhost", publisher->port(), nullptr);

  auto limit = loop->performAfter(20s, [&] { loop->stop(); });
  loop->run();
  repeat->cancel();
  limit->cancel();
  if (received < 3) std::fprintf(stderr, "only %d messages came\n", received);
  return isRight && received >= 3 ? 0 : 1;
}
