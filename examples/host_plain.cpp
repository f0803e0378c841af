// A host without a loop of its own: the main thread turns the library's. A timer of the loop asks, a server answers.
// Change first: what the timer does, and what ends the loop (a signal, a command).

#include <QELNetworkKit/QELNetworkKit.h>

#include <chrono>
#include <cstdio>
#include <thread>

using namespace std::chrono_literals;
using qelnk::Value;

int main() {
  const auto loop = qelnk::RunLoop::main();
  auto server = QELNKServer::create(QELNKContext::sharedContext());
  if (!server->bindToPort(0, [](auto &, auto &message) { message->setResponse(message->request()); })) return 1;
  auto client = QELNKClient::create(QELNKContext::sharedContext());
  client->connectToHost("localhost", server->port(), nullptr);

  const auto mainThread = std::this_thread::get_id();
  int ticks = 0, answers = 0, elsewhere = 0;
  auto timer = loop->performAfter(
      20ms,
      [&] {
        if (++ticks == 1000) return loop->stop();
        client->sendRequest(Value::map({{"tick", ticks}}), [&](auto &, auto &message) {
          if (!message->response()) return;
          if (std::this_thread::get_id() != mainThread) ++elsewhere;
          std::printf("%s answered\n", message->response()->description().c_str());
          if (++answers == 5) loop->stop();
        });
      },
      20ms);
  loop->run();

  timer->cancel();
  client = nullptr;  // from here on nothing is called
  server = nullptr;
  return answers >= 5 && elsewhere == 0 ? 0 : 1;
}
