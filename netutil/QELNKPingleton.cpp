#include <QELNetworkKit/QELNKPingleton.h>
#include <QELNetworkKit/qelNKPing.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <system_error>
#include <thread>
#include <utility>

#include "netutil/Ping.h"
#include "platform/Guard.h"
#include "platform/LogFormat.h"
#include "platform/RunLoopThread.h"

using qelnk::logDefault;
using qelnk::logError;
using qelnk::Ping;
using qelnk::PingExit;
using qelnk::PingOptions;

namespace {

constexpr std::chrono::seconds pauseAfterFailure{2};

/// Pings once, until a reply is missed: true. False when it is `over` before, or could not be, for the reason given.
bool pingUntilMissed(const std::string &address, bool prints, const std::function<bool()> &over, std::string &reason) {
  reason.clear();
  try {
    qelnk::PingSurroundings surroundings;
    surroundings.mustFinish = over;
    if (prints)
      surroundings.print = [](std::string_view text) {
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
      };
    Ping ping(PingOptions::parse({"", "-i", "2", address}, geteuid() == 0), surroundings);
    return ping.run() == QELNK_PING_ESCAPE;
  } catch (const PingExit &exit) {
    reason = exit.isUsage() ? "that is no address" : exit.what();
    return false;
  } catch (const std::exception &failure) {
    reason = failure.what();
    return false;
  }
}

}  // namespace

const std::shared_ptr<QELNKPingleton> &QELNKPingleton::sharedPingleton() {
  static const auto &immortal = *new auto(std::make_shared<QELNKPingleton>());
  return immortal;
}

void QELNKPingleton::setPrintsPings(bool prints) {
  const qelnk::Lock lock(mutex_);
  printsPings_ = prints;
}

/// From the start of a watch until it is told of or given up. Further watches of the address share it; one that is
/// started after has another, so that nobody is told of a reply that was missed before.
struct QELNK_HIDDEN QELNKPingleton::Watched {
  std::weak_ptr<QELNKPingletonDelegate> observer;
};

bool QELNKPingleton::isAwaited(const std::string &address, const std::shared_ptr<Watched> &watched) const {
  const auto found = watched_.find(address);
  return found != watched_.end() && found->second == watched && !watched->observer.expired();
}

void QELNKPingleton::startWatchingIP(const std::string &address, std::weak_ptr<QELNKPingletonDelegate> observer) {
  {
    const qelnk::Lock lock(mutex_);
    auto &watched = watched_[address];
    if (!watched || watched->observer.expired()) watched = std::make_shared<Watched>();
    watched->observer.swap(observer);
  }
  try {
    qelnk::startThread("qelnk-ping", [self = shared_from_this(), address] { self->volumeStayAlive(address); }).detach();
  } catch (const std::system_error &failure) {
    logError("QELNKPingleton cannot watch {}: {}", address, failure.what());
  }
}

void QELNKPingleton::volumeStayAlive(const std::string &address) {
  logDefault("Ping Thread starts!");
  qelnk::Lock lock(mutex_);
  const auto found = watched_.find(address);
  const auto watched = found == watched_.end() ? nullptr : found->second;
  const bool prints = printsPings_;
  const auto isOver = [&] {
    const qelnk::Lock inner(mutex_);
    return !isAwaited(address, watched);
  };
  std::shared_ptr<QELNKPingletonDelegate> observer;
  std::string reason, told;
  bool isMissed = false;
  while (!isMissed && isAwaited(address, watched)) {
    lock.unlock();
    isMissed = pingUntilMissed(address, prints, isOver, reason);
    if (!reason.empty()) {
      if (reason != std::exchange(told, reason)) logError("QELNKPingleton cannot ping {}: {}", address, reason);
      std::this_thread::sleep_for(pauseAfterFailure);
    }
    lock.lock();
  }
  if (const auto at = watched_.find(address); at != watched_.end() && at->second == watched) {
    observer = watched->observer.lock();
    watched_.erase(at);
  }
  lock.unlock();
  logDefault("Out of Ping loop!!!");
  if (observer) qelnk::runGuarded("QELNKPingleton observer", [&] { observer->pingleton(shared_from_this(), address); });
  logDefault("Ping Thread dies!");
}
