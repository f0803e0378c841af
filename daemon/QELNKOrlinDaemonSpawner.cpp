#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKOrlinDaemonSpawner.h>
#include <QELNetworkKit/UserSettings.h>

#include <algorithm>
#include <filesystem>

#include "daemon/DaemonPlaces.h"
#include "platform/LogFormat.h"
#include "platform/Semaphore.h"

using qelnk::Value;
using Daemon = std::shared_ptr<QELNKOrlinDaemon>;
using DaemonClient = std::shared_ptr<QELNKKORVALDaemonClient>;

/// The daemons that run. The handler of each process's end holds it too, so it may outlive its spawner.
struct QELNK_HIDDEN QELNKOrlinDaemonSpawner::Tracked {
  qelnk::Mutex changing;  // held while a daemon is started or its end is told: one that ends at once is told in order
  mutable qelnk::Mutex mutex;  // nothing is called under it
  qelnk::Condition emptied;
  std::vector<Daemon> daemons QELNK_GUARDED_BY(mutex);

  int64_t freePort(int64_t port) const;
  size_t add(const Daemon &daemon);
  void ended(const Daemon &daemon, const qelnk::Process &process);
};

int64_t QELNKOrlinDaemonSpawner::Tracked::freePort(int64_t port) const {
  const qelnk::Lock lock(mutex);
  while (std::ranges::any_of(daemons, [&](const Daemon &daemon) { return daemon->port() == port; })) ++port;
  return port;
}

size_t QELNKOrlinDaemonSpawner::Tracked::add(const Daemon &daemon) {
  const qelnk::Lock lock(mutex);
  daemons.push_back(daemon);
  return daemons.size();
}

static void tell(const char *what, const Daemon &daemon, size_t running) {
  if (QLGetHandle().enabled(qelnk::LogLevel::debug))
    qelnk::logDebug("{} orlin daemon {}, {} running", what, daemon->description(), running);
}

void QELNKOrlinDaemonSpawner::Tracked::ended(const Daemon &daemon, const qelnk::Process &process) {
  qelnk::Lock order(changing);
  qelnk::Lock lock(mutex);
  std::erase(daemons, daemon);
  const size_t running = daemons.size();
  lock.unlock();
  tell("Exited", daemon, running);
  if (const auto status = process.status(); status && (status->signalled || status->code != 0))
    qelnk::logError("QELNKOrlinDaemonSpawner: {} ended {} {}", daemon->description(),
                    status->signalled ? "by signal" : "with exit code", status->code);
  if (running == 0) emptied.notifyAll();
  order.unlock();  // with what is told now a client may go, and with it anything of the host's
  daemon->noteEnd();
}

static std::string below(const std::filesystem::path &folder, const char *path) { return folder / path; }

// The path without the slashes at its end, which would hide its last name.
static std::filesystem::path withoutSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

QELNKOrlinDaemonSpawner::QELNKOrlinDaemonSpawner(const std::string &daemonBundle, int64_t basePort)
    : javaPath_(below(daemonBundle, "Contents/PlugIns/jdk1.8.0_131.jdk/Contents/Home/jre/bin/java")),
      pluginsPath_("../../../plugins"),
      daemonPath_(below(daemonBundle, "Contents/Java/orlin-Daemon.jar")),
      ffmpegPath_(below(withoutSlash(daemonBundle).parent_path(), "tools")),
      basePort_(basePort),
      tracked_(std::make_shared<Tracked>()) {}

QELNKOrlinDaemonSpawner::~QELNKOrlinDaemonSpawner() = default;

// Launching.

std::vector<std::string> QELNKOrlinDaemonSpawner::arguments(const std::string &project, int64_t port, int64_t heapSize,
                                                            int64_t webSocketPort) const {
  std::vector<std::string> list;
  if (heapSize > 0) list.push_back(fmt::format("-Xmx{}m", heapSize));
  list.insert(list.end(), {"-Dcom.kestrova.orlin.pluginroot=" + pluginsPath_,
                           "-Dcom.kestrova.orlin.pluginmask=", "-Djava.net.preferIPv4Stack=true", "-noverify", "-jar",
                           daemonPath_, "-ffpath", ffmpegPath_, "-tcp", std::to_string(port)});
  if (webSocketPort > 0) list.insert(list.end(), {"-web", std::to_string(webSocketPort)});
  list.push_back(project);
  return list;
}

Daemon QELNKOrlinDaemonSpawner::spawnDaemonWithProject(const std::string &project, const Value &properties) {
  const int64_t heapSize = properties[QELNKOrlinDaemonMaxHeapSize].integerValue();
  const int64_t webSocketPort = std::max<int64_t>(0, properties[QELNKOrlinDaemonWebSocketPort].integerValue());
  std::error_code ignored;
  if (!std::filesystem::exists(project, ignored)) {
    qelnk::logError("QELNKOrlinDaemonSpawner starts nothing: there is no project {}", project);
    return std::make_shared<QELNKOrlinDaemon>(project, 0, 0, nullptr);
  }
  const qelnk::Lock order(tracked_->changing);
  const int64_t port = tracked_->freePort(basePort_);
  if (port == 0) qelnk::logError("QELNKOrlinDaemonSpawner has no base port: no client will find the daemon");
  auto daemon = std::make_shared<QELNKOrlinDaemon>(project, port, webSocketPort, nullptr);
  start(daemon, arguments(project, port, heapSize, webSocketPort));
  tell("Started", daemon, tracked_->add(daemon));
  return daemon;
}

void QELNKOrlinDaemonSpawner::start(const Daemon &daemon, const std::vector<std::string> &arguments) {
  qelnk::logDebug("Starting orlin daemon task with arguments [{}]", fmt::join(arguments, ", "));
  try {
    // The handler holds the daemon weakly: the daemon holds the process, and with it perhaps the handler.
    daemon->setTask(qelnk::Process::launch(
        javaPath_, arguments,
        [tracked = tracked_, weakly = std::weak_ptr(daemon)](const std::shared_ptr<qelnk::Process> &process) {
          if (const auto daemon = weakly.lock()) tracked->ended(daemon, *process);
        }));
  } catch (const qelnk::ProcessError &error) {
    qelnk::logError("QELNKOrlinDaemonSpawner could not start orlin daemon: {}", error.what());
    throw;
  }
}

DaemonClient QELNKOrlinDaemonSpawner::spawnConnectedDaemonWithProject(const std::string &project,
                                                                      const Value &properties,
                                                                      ConnectedDaemonBlock onConnected) {
  return spawnConnectedDaemonWithProject(project, properties, std::move(onConnected), QELNKContext::sharedContext());
}

DaemonClient QELNKOrlinDaemonSpawner::spawnConnectedDaemonWithProject(const std::string &project,
                                                                      const Value &properties,
                                                                      ConnectedDaemonBlock onConnected,
                                                                      std::shared_ptr<QELNKContext> context) {
  auto client = spawnClient(project, properties, std::move(context));
  if (client) connect(client, std::move(onConnected));
  return client;
}

DaemonClient QELNKOrlinDaemonSpawner::spawnClient(const std::string &project, const Value &properties,
                                                  std::shared_ptr<QELNKContext> context) {
  if (!context) return nullptr;
  auto client = QELNKKORVALDaemonClient::create(std::move(context), spawnDaemonWithProject(project, properties));
  client->setSyncRequests(properties[QELNKOrlinDaemonSyncRequests].boolValue());
  return client;
}

void QELNKOrlinDaemonSpawner::connect(const DaemonClient &client, ConnectedDaemonBlock onConnected) {
  // Port 0 is nobody's: nothing was started, or it was given no port. Who wants to wait is not kept waiting, for the
  // connection or later for a request: it is ended at once.
  const bool isHopeless = client->syncRequests() && client->daemon()->port() == 0;
  if (isHopeless) client->setSyncRequests(false);
  client->connectToHost("localhost", int32_t(client->daemon()->port()),
                        [onConnected = std::move(onConnected)](const std::shared_ptr<QELNKClient> &connected) {
                          if (onConnected) onConnected(std::static_pointer_cast<QELNKKORVALDaemonClient>(connected));
                        });
  if (!isHopeless) return;
  client->setSyncRequests(true);
  client->disconnect();
}

// Tracking.

void QELNKOrlinDaemonSpawner::stopAllDaemons() {
  for (const Daemon &daemon : daemons()) daemon->quit();
  qelnk::Lock lock(tracked_->mutex);
  while (!tracked_->daemons.empty()) tracked_->emptied.wait(lock);
}

size_t QELNKOrlinDaemonSpawner::runningDaemons() const {
  const qelnk::Lock lock(tracked_->mutex);
  return tracked_->daemons.size();
}

std::vector<Daemon> QELNKOrlinDaemonSpawner::daemons() const {
  const qelnk::Lock lock(tracked_->mutex);
  return tracked_->daemons;
}
