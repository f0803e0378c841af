#include <QELNetworkKit/QELNKClient.h>
#include <QELNetworkKit/RunLoop.h>

#include <cerrno>

#include "Body.h"
#include "Command.h"

namespace tool {
namespace {

/// A request client with the way to its peer.
class Requester {
 public:
  Requester(Invocation &invocation, const Body &body)
      : session_(invocation.session),
        client_(QELNKClient::create(QELNKContext::contextWithBackgroundQueue())),
        peer_(invocation.arguments[0] + ":" + invocation.arguments[1]),
        timeout_(invocation.timeout) {
    const int32_t port = portArgument(invocation.arguments[1]);
    client_->setMessageBody(body.number());
    client_->setSyncRequests(invocation.arguments.has("sync"));
    // In the synchronous mode a request serves the main loop while it waits, but asks nobody whether to go on.
    session_.onStop([client = client_] { client->disconnect(); });
    client_->connectToHost(invocation.arguments[0], port, nullptr);
  }
  ~Requester() { session_.onStop(nullptr); }
  Requester(const Requester &) = delete;
  Requester &operator=(const Requester &) = delete;

  /// The reply to a request, or a Failure.
  qelnk::Value ask(qelnk::Value request) {
    auto finished = std::make_shared<bool>(false);
    const auto onResponse = [finished](auto &, auto &) {
      qelnk::RunLoop::main()->perform([finished] { *finished = true; });
    };
    const auto limit = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(timeout_));
    const auto message = client_->sendRequest(std::move(request), onResponse, limit);
    if (session_.waitUntil([&] { return *finished; }) == Session::Wait::stopped) throw Failure(Exit::failed, "");
    if (message->response()) return *message->response();
    if (message->error().code == ETIMEDOUT) throw Failure(Exit::unanswered, "no answer from " + peer_ + " in time");
    throw Failure(Exit::failed, "no answer from " + peer_ + ": " + message->error().description);
  }

 private:
  Session &session_;
  std::shared_ptr<QELNKClient> client_;
  std::string peer_;
  double timeout_;
};

Exit request(Invocation &invocation) {
  const Body body = Body::of(invocation.arguments);
  Requester requester(invocation, body);
  size_t number = 0;
  while (const auto line = invocation.session.readLine()) {
    ++number;
    auto message = body.message(*line, number);
    if (!message) continue;
    const qelnk::Value reply = requester.ask(std::move(*message));
    if (invocation.output.json())
      invocation.output.event("reply", {{"reply", body.plain(reply)}});
    else
      invocation.output.line(body.text(reply));
  }
  return Exit::done;
}

}  // namespace

extern const Command requestCommand;
const Command requestCommand = {
    "request",
    "Sends each line of standard input as one request and prints each reply, in order.",
    {"HOST PORT", {Body::option, {"sync", "", "let each request block its caller instead of waiting for a callback"}}},
    Body::notes,
    request};

}  // namespace tool
