#pragma once

#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/QELNKKORVALDaemonClient.h>
#include <QELNetworkKit/QELNKOrlinDaemon.h>
#include <QELNetworkKit/Value.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// Launches daemons (a Java program in an application bundle), gives each a port of its own, and tracks them until they
/// end.
///
/// Threads: every operation may be called from any thread. stopAllDaemons() waits.
class QELNK_EXPORT QELNKOrlinDaemonSpawner {
 public:
  /// Called once the mirror is complete, on the response queue of the client's context.
  using ConnectedDaemonBlock = std::function<void(const std::shared_ptr<QELNKKORVALDaemonClient> &client)>;

  /// The process's spawner. Its bundle is what setSharedDaemonPath() gave, else the user setting "orlinDaemonPath",
  /// else the environment variable QELNK_ORLIN_DAEMON, else "Orlin Daemon/orlin Daemon.app" in the folder of the host
  /// application's bundle (or of its program file, where it has no bundle). Its base port is the user setting
  /// "orlinBasePort".
  static std::shared_ptr<QELNKOrlinDaemonSpawner> sharedSpawner();
  /// Gives the shared spawner's bundle; before its first use.
  static void setSharedDaemonPath(std::string daemonBundle);

  /// The process's connected client of a daemon with an empty project, launched by the first call. Every call waits for
  /// it to be connected, serving the calling thread's run loop meanwhile. Null when the shared context has been
  /// terminated; throws qelnk::ProcessError when the process cannot be started.
  static std::shared_ptr<QELNKKORVALDaemonClient> sharedClient();

  /// A spawner for the daemon of an application bundle; ports are tried from `basePort` on. Nothing is looked at yet.
  QELNKOrlinDaemonSpawner(const std::string &daemonBundle, int64_t basePort);
  ~QELNKOrlinDaemonSpawner();
  QELNKOrlinDaemonSpawner(const QELNKOrlinDaemonSpawner &) = delete;
  QELNKOrlinDaemonSpawner &operator=(const QELNKOrlinDaemonSpawner &) = delete;

  /// Launches a daemon for a project file with the properties (a map, see QELNKOrlinDaemonMaxHeapSize and its siblings)
  /// on the first port from the base port on that none of this spawner's daemons uses. A project file that is not
  /// there: a daemon without a process. Throws qelnk::ProcessError when the process cannot be started.
  std::shared_ptr<QELNKOrlinDaemon> spawnDaemonWithProject(const std::string &project, const qelnk::Value &properties);

  /// The same, with a client on the shared context that is being connected to it; `onConnected` is called once its
  /// mirror is complete. Null, with nothing launched, when the shared context has been terminated. A client that waits
  /// (QELNKOrlinDaemonSyncRequests) for a daemon without a port is disconnected at once.
  std::shared_ptr<QELNKKORVALDaemonClient> spawnConnectedDaemonWithProject(const std::string &project,
                                                                           const qelnk::Value &properties,
                                                                           ConnectedDaemonBlock onConnected);
  /// The same on another context.
  std::shared_ptr<QELNKKORVALDaemonClient> spawnConnectedDaemonWithProject(const std::string &project,
                                                                           const qelnk::Value &properties,
                                                                           ConnectedDaemonBlock onConnected,
                                                                           std::shared_ptr<QELNKContext> context);

  /// Waits until every tracked daemon has ended. Sends nothing.
  void stopAllDaemons();
  /// Number of tracked daemons.
  size_t runningDaemons() const;
  /// The tracked daemons: those that were launched and have not ended.
  std::vector<std::shared_ptr<QELNKOrlinDaemon>> daemons() const;

  /// The Java program in the bundle.
  const std::string &javaPath() const { return javaPath_; }
  /// Where the daemon finds its plug-ins, relative to its program.
  const std::string &pluginsPath() const { return pluginsPath_; }
  /// The daemon's program in the bundle.
  const std::string &daemonPath() const { return daemonPath_; }
  /// The folder "tools" beside the bundle.
  const std::string &ffmpegPath() const { return ffmpegPath_; }
  /// The first port to try.
  int64_t basePort() const { return basePort_; }

 private:
  struct Tracked;
  std::vector<std::string> arguments(const std::string &project, int64_t port, int64_t heapSize,
                                     int64_t webSocketPort) const;
  void start(const std::shared_ptr<QELNKOrlinDaemon> &daemon, const std::vector<std::string> &arguments);
  std::shared_ptr<QELNKKORVALDaemonClient> spawnClient(const std::string &project, const qelnk::Value &properties,
                                                       std::shared_ptr<QELNKContext> context);
  static void connect(const std::shared_ptr<QELNKKORVALDaemonClient> &client, ConnectedDaemonBlock onConnected);

  std::string javaPath_, pluginsPath_, daemonPath_, ffmpegPath_;
  int64_t basePort_;
  std::shared_ptr<Tracked> tracked_;
};
