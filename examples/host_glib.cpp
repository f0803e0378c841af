// A GLib or GTK host: its main loop runs the library's callbacks. A timer of GLib's asks, a server answers.
// Change first: main(), which becomes your application's; runOnMainThread() stays as it is.

#include <QELNetworkKit/QELNetworkKit.h>
#include <glib.h>

#include <cstdio>
#include <thread>

using qelnk::Value;

// Called on any thread. An idle source's own priority would let drawing hold the callbacks up. Where the loop goes down
// first GLib destroys the task.
static void runOnMainThread(qelnk::Task task) {
  g_idle_add_full(
      G_PRIORITY_DEFAULT,
      [](gpointer data) -> gboolean {
        (*static_cast<qelnk::Task *>(data))();
        return G_SOURCE_REMOVE;
      },
      new qelnk::Task(std::move(task)), [](gpointer data) { delete static_cast<qelnk::Task *>(data); });
}

struct Host {
  GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
  std::thread::id mainThread = std::this_thread::get_id();
  std::shared_ptr<QELNKServer> server = QELNKServer::create(QELNKContext::sharedContext());
  std::shared_ptr<QELNKClient> client = QELNKClient::create(QELNKContext::sharedContext());
  int ticks = 0, answers = 0, elsewhere = 0;

  void tick() {
    if (++ticks == 1000) return g_main_loop_quit(loop);
    client->sendRequest(Value::map({{"tick", ticks}}), [this](auto &, auto &message) {
      if (!message->response()) return;
      if (std::this_thread::get_id() != mainThread) ++elsewhere;
      std::printf("%s answered\n", message->response()->description().c_str());
      if (++answers == 5) g_main_loop_quit(loop);
    });
  }
};

int main() {
  qelnk::RunLoop::setMainExecutor(runOnMainThread);
  Host host;
  if (!host.server->bindToPort(0, [](auto &, auto &message) { message->setResponse(message->request()); })) return 1;
  host.client->connectToHost("localhost", host.server->port(), nullptr);
  const auto tick = [](gpointer data) -> gboolean {
    static_cast<Host *>(data)->tick();
    return G_SOURCE_CONTINUE;
  };
  const guint timer = g_timeout_add(20, tick, &host);
  g_main_loop_run(host.loop);

  g_source_remove(timer);
  host.client = nullptr;  // from here on nothing is called
  host.server = nullptr;
  qelnk::RunLoop::setMainExecutor(nullptr);
  g_main_loop_unref(host.loop);
  return host.answers >= 5 && host.elsewhere == 0 ? 0 : 1;
}
