#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKOrlinDaemonSpawner.h>
#include <QELNetworkKit/UserSettings.h>

#include <atomic>
#include <mutex>

#include "daemon/DaemonPlaces.h"
#include "platform/Semaphore.h"

using qelnk::Value;

namespace {

struct GivenBundle {
  std::mutex mutex;
  std::string path;
};

// The statics of this file are never destroyed: a process may exit while threads use them, and its exit waits for none.

GivenBundle &givenBundle() {
  static GivenBundle &given = *new GivenBundle;
  return given;
}

std::string sharedBundle() {
  const std::lock_guard lock(givenBundle().mutex);
  return qelnk::daemonBundle(givenBundle().path);
}

/// The process's client.
struct SharedClient {
  std::mutex mutex;  // guards the launch
  std::shared_ptr<QELNKKORVALDaemonClient> client;
  std::atomic<bool> isReady{false};
  qelnk::Semaphore ready;

  void setReady() {
    isReady = true;
    ready.signal();
  }
  // Each who waits passes the word on to the next. He serves his run loop meanwhile: on the main thread the one who
  // connects needs it.
  void waitUntilReady() {
    if (isReady) return;
    ready.wait();
    ready.signal();
  }
};

}  // namespace

std::shared_ptr<QELNKOrlinDaemonSpawner> QELNKOrlinDaemonSpawner::sharedSpawner() {
  static const auto &spawner = *new std::shared_ptr<QELNKOrlinDaemonSpawner>(std::make_shared<QELNKOrlinDaemonSpawner>(
      sharedBundle(), qelnk::UserSettings::standard().integerForKey("orlinBasePort")));
  return spawner;
}

void QELNKOrlinDaemonSpawner::setSharedDaemonPath(std::string daemonBundle) {
  const std::lock_guard lock(givenBundle().mutex);
  givenBundle().path = std::move(daemonBundle);
}

std::shared_ptr<QELNKKORVALDaemonClient> QELNKOrlinDaemonSpawner::sharedClient() {
  static SharedClient &shared = *new SharedClient;
  bool isFirst = false;
  {
    const std::lock_guard lock(shared.mutex);
    if (!shared.client) {
      shared.client = sharedSpawner()->spawnClient(
          qelnk::emptyProject(), Value::map({{QELNKOrlinDaemonSyncRequests, true}}), QELNKContext::sharedContext());
      if (!shared.client) return nullptr;
      isFirst = true;
    }
  }
  if (isFirst) {
    connect(shared.client, nullptr);
    shared.setReady();
  }
  shared.waitUntilReady();
  return shared.client;
}
