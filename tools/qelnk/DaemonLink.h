#pragma once

#include <QELNetworkKit/QELNKOrlinDaemonSpawner.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "Command.h"
#include "DaemonClient.h"

namespace tool {

/// The connection of `qelnk daemon` to a daemon that runs already, or to one that it launches and quits.
///
/// Threads: the main thread.
class DaemonLink {
 public:
  /// The options that say which daemon; a usage Failure where they do not go together.
  static void checkOptions(const Arguments &arguments);

  /// Launches the daemon where that is asked for, or throws a Failure.
  explicit DaemonLink(Invocation &invocation);
  /// Ends a launched daemon where close() was not called.
  ~DaemonLink();
  DaemonLink(const DaemonLink &) = delete;
  DaemonLink &operator=(const DaemonLink &) = delete;

  /// Connects, and returns once the mirror is complete; or a Failure.
  void connect();

  const std::shared_ptr<DaemonClient> &client() const { return client_; }
  /// Whether a launched daemon still runs; true for any other.
  bool alive() const;

  /// Waits until `condition` holds. A Failure once the daemon has not answered anything for the time-out, when it has
  /// ended, or when the tool is asked to end.
  void await(const std::function<bool()> &condition);
  /// Gives `command`, which sends so many requests, and returns when they have been answered and the mirror has it. A
  /// Failure where one is not, or is refused.
  void perform(size_t requests, const std::function<void()> &command);
  /// A Failure where the daemon refused something.
  void checkRefusal();

  /// Asks the daemon to exit; the link is over.
  void quit();
  bool hasQuit() const { return hasQuit_; }

  /// Quits a launched daemon and waits for it, or tells that it is kept. A Failure where it has to be terminated, or
  /// had ended by itself with the command done otherwise.
  void close(Exit exit);

 private:
  void launch();
  bool endDaemon(double patience);
  [[noreturn]] void failAlone() const;

  Invocation &invocation_;
  std::string host_ = "localhost";
  int32_t port_ = 0;
  std::unique_ptr<QELNKOrlinDaemonSpawner> spawner_;
  std::shared_ptr<qelnk::Process> process_;  // null where the daemon was not launched here
  std::shared_ptr<DaemonClient> client_;
  bool keep_ = false;
  bool connected_ = false;
  bool hasQuit_ = false;
  bool closed_ = false;
};

}  // namespace tool
