#pragma once

#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/QELNKKORVALClient.h>
#include <QELNetworkKit/QELNKOrlinDaemon.h>

#include <memory>

/// The client of a daemon that this process launched. When the daemon's process ends the client disconnects: another
/// daemon may get the same port.
///
/// Threads: as QELNKKORVALClient; quit() waits for the daemon's process.
class QELNK_EXPORT QELNKKORVALDaemonClient : public QELNKKORVALClient {
 public:
  /// Null, with a line on the log, for no context. It is not connected yet.
  static std::shared_ptr<QELNKKORVALDaemonClient> create(std::shared_ptr<QELNKContext> context,
                                                         std::shared_ptr<QELNKOrlinDaemon> daemon);
  ~QELNKKORVALDaemonClient() override;

  /// Asks the daemon to exit, waits until its process has ended, without a bound, and disconnects. Where it is called
  /// on the response queue, no callback comes meanwhile. A daemon that is still starting gets to hear it. Where there
  /// is no process (any more), or no connection to ask it on, it does not wait.
  void quit() override;

  /// The daemon it was made for.
  const std::shared_ptr<QELNKOrlinDaemon> &daemon() const { return daemon_; }

 protected:
  /// For create().
  QELNKKORVALDaemonClient(std::shared_ptr<QELNKContext> context, std::shared_ptr<QELNKOrlinDaemon> daemon);
  friend class QELNKSocket;

  void onConnected() override;

 private:
  void disconnectWithDaemon();
  std::shared_ptr<QELNKOrlinDaemon> daemon_;
};
