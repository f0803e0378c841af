// A Qt host: its event loop runs the library's callbacks. A timer of Qt's asks, a server answers.
// Change first: the timer, which stands for the rest of your application.

#include <QELNetworkKit/QELNetworkKit.h>

#include <QCoreApplication>
#include <QTimer>
#include <cstdio>
#include <thread>

using qelnk::Value;

int main(int argc, char **argv) {
  QCoreApplication app(argc, argv);
  // Called on any thread, as invokeMethod() may be.
  qelnk::RunLoop::setMainExecutor(
      [&app](qelnk::Task task) { QMetaObject::invokeMethod(&app, std::move(task), Qt::QueuedConnection); });

  auto server = QELNKServer::create(QELNKContext::sharedContext());
  if (!server->bindToPort(0, [](auto &, auto &message) { message->setResponse(message->request()); })) return 1;
  auto client = QELNKClient::create(QELNKContext::sharedContext());
  client->connectToHost("localhost", server->port(), nullptr);

  const auto mainThread = std::this_thread::get_id();
  int ticks = 0, answers = 0, elsewhere = 0;
  QTimer timer;
  QObject::connect(&timer, &QTimer::timeout, [&] {
    if (++ticks == 1000) return app.quit();
    client->sendRequest(Value::map({{"tick", ticks}}), [&](auto &, auto &message) {
      if (!message->response()) return;
      if (std::this_thread::get_id() != mainThread) ++elsewhere;
      std::printf("%s answered\n", message->response()->description().c_str());
      if (++answers == 5) app.quit();
    });
  });
  timer.start(20);
  app.exec();

  client = nullptr;  // from here on nothing is called
  server = nullptr;
  qelnk::RunLoop::setMainExecutor(nullptr);  // before the application object goes
  return answers >= 5 && elsewhere == 0 ? 0 : 1;
}
