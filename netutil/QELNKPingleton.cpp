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
  const std::lock_guard lock(mutex_);
  printsPings_ = prints;
}

bool QELNKPingleton::printsPings() const {
  const std::lock_guard lock(mutex_);
  return printsPings_;
}

bool QELNKPingleton::isAwaited(const std::string &address) const {
  const std::lock_guard lock(mutex_);
  const auto found = observers_.find(address);
  return found != observers_.end() && !found->second.expired();
}

void QELNKPingleton::startWatchingIP(const std::string &address, std::weak_ptr<QELNKPingletonDelegate> observer) {
  {
    const std::lock_guard lock(mutex_);
    observers_[address].swap(observer);
  }
  try {
    qelnk::startThread("qelnk-ping", [self = shared_from_this(), address] { self->volumeStayAlive(address); }).detach();
  } catch (const std::system_error &failure) {
    logError("QELNKPingleton cannot watch {}: {}", address, failure.what());
  }
}

void QELNKPingleton::volumeStayAlive(const std::string &address) {
  logDefault("Ping Thread starts!");
  const auto isOver = [&] { return !isAwaited(address); };
  std::string reason, told;
  while (!isOver() && !pingUntilMissed(address, printsPings(), isOver, reason)) {
    if (reason.empty()) continue;
    if (reason != std::exchange(told, reason)) logError("QELNKPingleton cannot ping {}: {}", address, reason);
    std::this_thread::sleep_for(pauseAfterFailure);
  }
  logDefault("Out of Ping loop!!!");
  std::shared_ptr<QELNKPingletonDelegate> observer;
  {
    const std::lock_guard lock(mutex_);
    if (const auto found = observers_.find(address); found != observers_.end()) {
      observer = found->second.lock();
      observers_.erase(found);
    }
  }
  if (observer) qelnk::runGuarded("QELNKPingleton observer", [&] { observer->pingleton(shared_from_this(), address); });
  logDefault("Ping Thread dies!");
}
