#include <QELNetworkKit/QELNKKORVALDaemonClient.h>

std::shared_ptr<QELNKKORVALDaemonClient> QELNKKORVALDaemonClient::create(std::shared_ptr<QELNKContext> context,
                                                                         std::shared_ptr<QELNKOrlinDaemon> daemon) {
  return make<QELNKKORVALDaemonClient>(std::move(context), std::move(daemon));
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
  if (!daemon_ || !daemon_->task()) return QELNKKORVALClient::quit();
  scheduleMessage(messageForRequest(requestForCommand("quit"), nullptr, true));
  daemon_->quit();
  disconnect();
}
