#pragma once

#include <QELNetworkKit/QELNKSocket.h>

#include "platform/Thread.h"

#include <memory>
#include <stop_token>
#include <string>

/// The thread that runs an endpoint's ioThread() and, at its end, closes the endpoint's socket.
///
/// Threads: any.
class QELNK_HIDDEN QELNKSocket::IOThread {
 public:
  /// Starts it. Throws std::system_error when the system gives no thread.
  IOThread(const std::string &name, QELNKSocket *endpoint);

  void cancel() { thread_.cancel(); }
  /// Waits for its end. Returns false on any endpoint's io thread, unless it waits for nobody itself.
  bool join(bool waitsForNobody);
  bool isFinished() const { return thread_.isFinished(); }
  bool isCancelled() const { return thread_.isCancelled(); }
  const std::shared_ptr<qelnk::RunLoop> &runLoop() const { return thread_.runLoop(); }

  /// Ends the thread of an endpoint whose last reference has gone. Returns true once the endpoint is the caller's to
  /// destroy; false when the thread will destroy it, behind its last use: from the thread itself, and from the thread
  /// of any other endpoint, since two that ended each other would wait for ever.
  static bool end(std::shared_ptr<IOThread> thread, QELNKSocket *endpoint);

  /// The endpoint whose io thread the calling thread is, or null.
  static const QELNKSocket *currentEndpoint();
  /// On an io thread: whether it has been cancelled.
  static bool isCurrentCancelled();

 private:
  struct Shared;
  static void run(Shared &shared, QELNKSocket *endpoint);

  std::shared_ptr<Shared> shared_;
  qelnk::Thread thread_;
};
