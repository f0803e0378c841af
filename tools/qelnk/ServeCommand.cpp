#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKServer.h>
#include <QELNetworkKit/RunLoop.h>

#include "Body.h"
#include "Command.h"

namespace tool {
namespace {

/// Requests on their way from the server's io thread to the output. The io thread waits while there are many: an output
/// that nobody reads must not fill the memory.
class Backlog {
 public:
  /// On the io thread.
  void enter() {
    qelnk::Lock lock(mutex_);
    while (!unbounded_ && count_ >= 1000) changed_.wait(lock);
    ++count_;
  }
  void leave() {
    const qelnk::Lock lock(mutex_);
    --count_;
    changed_.notifyOne();
  }
  /// Nobody waits from now on.
  void lift() {
    const qelnk::Lock lock(mutex_);
    unbounded_ = true;
    changed_.notifyOne();
  }

 private:
  qelnk::Mutex mutex_;
  qelnk::Condition changed_;
  int count_ QELNK_GUARDED_BY(mutex_) = 0;
  bool unbounded_ QELNK_GUARDED_BY(mutex_) = false;
};

Exit serve(Invocation &invocation) {
  const Arguments &arguments = invocation.arguments;
  const Body body = Body::of(arguments);
  if (arguments.has("echo") == arguments.has("reply")) throw Failure(Exit::usage, "either --echo or --reply is needed");
  std::optional<qelnk::Value> reply;
  if (const auto text = arguments.text("reply")) {
    reply = body.message(*text);
    if (!reply) throw Failure(Exit::malformed, "--reply is empty");
  }

  Output &output = invocation.output;
  const auto backlog = std::make_shared<Backlog>();
  const auto print = [&output, &body, backlog](const qelnk::Value &request) {
    const std::shared_ptr<void> afterwards(nullptr, [&](void *) { backlog->leave(); });
    try {
      if (output.json())
        output.event("request", {{"request", body.plain(request)}});
      else
        output.line(body.text(request));
    } catch (const Failure &failure) {  // such as XML in another encoding
      complain("serve: a request is not shown: " + std::string(failure.what()));
    }
  };
  auto server = QELNKServer::create(QELNKContext::contextWithBackgroundQueue());
  // Before the server goes, which waits for its handler.
  std::shared_ptr<void> atEnd(nullptr, [backlog](void *) { backlog->lift(); });
  server->setMessageBody(body.number());
  qelnk::Error error;
  const bool bound = server->bindToPort(
      ownPortArgument(arguments[0]),
      [reply, backlog, print](auto &, auto &message) {
        message->setResponse(reply ? reply : message->request());
        backlog->enter();
        qelnk::RunLoop::main()->perform([print, request = *message->request()] { print(request); });
      },
      &error);
  if (!bound) throw Failure(Exit::failed, "port " + arguments[0] + ": " + error.description);
  if (output.json())
    output.event("listening", {{"port", server->port()}});
  else
    output.line("listening on port " + std::to_string(server->port()));

  bool told = false;
  const auto watch = qelnk::RunLoop::main()->performAfter(
      std::chrono::milliseconds(100),
      [&] {
        if (!server->isSilent() || std::exchange(told, true)) return;
        complain("serve: a request could not be answered, so the server takes no further ones");
      },
      std::chrono::milliseconds(100));
  invocation.session.serve(arguments.has("stay"));
  watch->cancel();
  atEnd.reset();
  server.reset();
  while (qelnk::RunLoop::main()->runOnce({})) {  // what was answered last is printed too
  }
  return Exit::done;
}

}  // namespace

extern const Command serveCommand;
const Command serveCommand = {"serve",
                              "Answers requests on all interfaces and prints them.",
                              {"PORT",
                               {Body::option,
                                {"echo", "", "answer each request with itself"},
                                {"reply", "VALUE", "answer each request with this"},
                                stayOption}},
                              [] { return "Port 0 lets the system choose one. " + Body::notes(); },
                              serve};

}  // namespace tool
