#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKOrlinDaemonSpawner.h>
#include <QELNetworkKit/UserSettings.h>

#include <atomic>

#include "daemon/DaemonPlaces.h"
#include "platform/Semaphore.h"

namespace {

struct GivenBundle {
  qelnk::Mutex mutex;
  std::string path QELNK_GUARDED_BY(mutex);
};

// The statics of this file are never destroyed: a process may exit while threads use them, and its exit waits for none.

GivenBundle &givenBundle() {
  static GivenBundle &given = *new GivenBundle;
  return given;
}

std::string sharedBundle() {
  const qelnk::Lock lock(givenBundle().mutex);
  return qelnk::daemonBundle(givenBundle().path);
}

/// The process's client.
struct SharedClient {
  qelnk::Mutex mutex;  // held for the launch
  std::shared_ptr<QELNKKORVALDaemonClient> client QELNK_GUARDED_BY(mutex);
  std::atomic<bool> isReady{false};
  qelnk::Semaphore ready;

  // Each who waits passes the word on to the next. He serves his run loop meanwhile: what is served may ask for the
  // client too, and on the main thread the connected callback needs it.
  void waitUntilReady() {
    if (isReady) return;
    ready.wait();
    ready.signal();
  }
};

/// Goes with the connected callback, which is let go once it has been called, or will never be.
struct ReadyWithCallback {
  SharedClient &shared;
  explicit ReadyWithCallback(SharedClient &of) : shared(of) {}
  ~ReadyWithCallback() {
    shared.isReady = true;
    shared.ready.signal();
  }
};

}  // namespace

std::shared_ptr<QELNKOrlinDaemonSpawner> QELNKOrlinDaemonSpawner::sharedSpawner() {
  static const auto &spawner = *new std::shared_ptr<QELNKOrlinDaemonSpawner>(std::make_shared<QELNKOrlinDaemonSpawner>(
      sharedBundle(), qelnk::UserSettings::standard().integerForKey("orlinBasePort")));
  return spawner;
}

void QELNKOrlinDaemonSpawner::setSharedDaemonPath(std::string daemonBundle) {
  const qelnk::Lock lock(givenBundle().mutex);
  givenBundle().path = std::move(daemonBundle);
}

std::shared_ptr<QELNKKORVALDaemonClient> QELNKOrlinDaemonSpawner::sharedClient() {
  static SharedClient &shared = *new SharedClient;
  std::shared_ptr<QELNKKORVALDaemonClient> client;
  bool isFirst = false;
  {
    const qelnk::Lock lock(shared.mutex);
    if (!shared.client) {
      shared.client = sharedSpawner()->spawnClient(qelnk::emptyProject(), {}, QELNKContext::sharedContext());
      if (!shared.client) return nullptr;
      isFirst = true;
    }
    client = shared.client;
  }
  if (isFirst) {
    connect(client, [word = std::make_shared<ReadyWithCallback>(shared)](auto &) {});
    client->setSyncRequests(true);
    if (client->daemon()->port() == 0) client->disconnect();
  }
  shared.waitUntilReady();
  return client;
}
