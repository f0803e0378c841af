#include <QELNetworkKit/QELNKKORVALDaemonClient.h>
#include <QELNetworkKit/RunLoop.h>

#include "platform/LogFormat.h"

std::shared_ptr<QELNKKORVALDaemonClient> QELNKKORVALDaemonClient::create(std::shared_ptr<QELNKContext> context,
                                                                         std::shared_ptr<QELNKOrlinDaemon> daemon) {
  auto client = make<QELNKKORVALDaemonClient>(std::move(context), daemon);
  if (client && daemon) client->disconnectWithDaemon();
  return client;
}

void QELNKKORVALDaemonClient::disconnectWithDaemon() {
  daemon_->whenEnded([weak = weak_from_this()] {
    if (const auto ended = weak.lock()) ended->disconnect();
  });
}

// Once more: a daemon that has ended before there was a connection would leave this one waiting for it.
void QELNKKORVALDaemonClient::onConnected() {
  if (daemon_) disconnectWithDaemon();
  QELNKKORVALClient::onConnected();
}

QELNKKORVALDaemonClient::QELNKKORVALDaemonClient(std::shared_ptr<QELNKContext> context,
                                                 std::shared_ptr<QELNKOrlinDaemon> daemon)
    : QELNKKORVALClient(std::move(context)), daemon_(std::move(daemon)) {}

QELNKKORVALDaemonClient::~QELNKKORVALDaemonClient() = default;

// A daemon that has just been launched does not listen yet. For its socket "quit" counts as sent as soon as it is
// queued, and a disconnect right then would drop it: the daemon would never hear it, and the wait for its end would
// never end. So where there is a process to wait for, the connection is kept until the process has ended. Its "quit" is
// scheduled rather than sent synchronously, because a daemon that has died with many requests unread takes no more, and
// only the end of its process tells.
void QELNKKORVALDaemonClient::quit() {
  const auto process = daemon_ ? daemon_->task() : nullptr;
  if (!process) return QELNKKORVALClient::quit();
  const auto self = weak_from_this().lock();  // the last reference may go while this waits
  const auto message = messageForRequest(requestForCommand("quit"), nullptr, true);
  scheduleMessage(message);
  const auto loop = qelnk::RunLoop::current();
  while (!message->isFinished() && process->isRunning()) loop->runOnce(std::chrono::milliseconds(5));
  if (message->isFinished() && message->error() && process->isRunning())
    return qelnk::logError("QELNKKORVALDaemonClient cannot tell {} to quit: {}", daemon_->description(),
                           message->error().description);
  daemon_->quit();
  disconnect();
}
