// A host that draws frames: in each it serves what the library has ready, and never waits for more.
// Change first: the pause, which stands for drawing and for the wait for the next frame.

#include <QELNetworkKit/QELNetworkKit.h>

#include <chrono>
#include <cstdio>
#include <thread>

using namespace std::chrono_literals;
using qelnk::Value;

int main() {
  auto server = QELNKServer::create(QELNKContext::sharedContext());
  if (!server->bindToPort(0, [](auto &, auto &message) { message->setResponse(message->request()); })) return 1;
  auto client = QELNKClient::create(QELNKContext::sharedContext());
  client->connectToHost("localhost", server->port(), nullptr);

  const auto mainThread = std::this_thread::get_id();
  int frames = 0, answers = 0, elsewhere = 0;
  while (answers < 5 && ++frames < 2000) {
    client->sendRequest(Value::map({{"frame", frames}}), [&](auto &, auto &message) {
      if (!message->response()) return;
      if (std::this_thread::get_id() != mainThread) ++elsewhere;
      std::printf("%s answered in frame %d\n", message->response()->description().c_str(), frames);
      ++answers;
    });
    qelnk::RunLoop::main()->runOnce(0ns);  // callbacks, timers and the rest of what is due
    std::this_thread::sleep_for(10ms);
  }

  client = nullptr;  // from here on nothing is called
  server = nullptr;
  return answers >= 5 && elsewhere == 0 ? 0 : 1;
}
