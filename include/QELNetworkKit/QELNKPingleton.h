#pragma once

#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/Mutex.h>

#include <map>
#include <memory>
#include <string>

class QELNKPingleton;

/// Is told of machines that stop answering. Called on a thread of the watch, with no lock held.
class QELNK_EXPORT QELNKPingletonDelegate {
 public:
  virtual ~QELNKPingletonDelegate() = default;
  /// The machine at that address has missed a reply; its watch has ended.
  virtual void pingleton(const std::shared_ptr<QELNKPingleton> &pingleton, const std::string &cantReachIP) = 0;
};

/// Watches whether machines still answer: pings each IPv4 address every two seconds and tells an observer once when a
/// reply is missed, two to four seconds after the last. That ends the watch; so does, within seconds, that the observer
/// has gone. A watch keeps its pingleton: letting the observer go is what ends it.
///
///     QELNKPingleton::sharedPingleton()->startWatchingIP("192.168.1.20", observer);
///
/// Where no ping can be sent for want of rights or of descriptors, or the address is none, the log says so once and the
/// watch tries again every two seconds.
///
/// Threads: any. Each watch has a thread and a descriptor of its own.
class QELNK_EXPORT QELNKPingleton : public std::enable_shared_from_this<QELNKPingleton> {
 public:
  /// The process's, which is never destroyed.
  static const std::shared_ptr<QELNKPingleton> &sharedPingleton();
  QELNKPingleton() = default;
  QELNKPingleton(const QELNKPingleton &) = delete;
  QELNKPingleton &operator=(const QELNKPingleton &) = delete;

  /// Watches `address`, for an observer that takes the place of an earlier one of the same address: of several watches
  /// the one that misses a reply first tells it.
  void startWatchingIP(const std::string &address, std::weak_ptr<QELNKPingletonDelegate> observer);

  /// Whether the pings of the watches that are started from now on print what qelNKPing() prints to standard output;
  /// they do not at first.
  void setPrintsPings(bool prints);

 protected:
  /// What a watch's thread does.
  void volumeStayAlive(const std::string &address);

 private:
  struct Watched;
  bool isAwaited(const std::string &address, const std::shared_ptr<Watched> &watched) const QELNK_REQUIRES(mutex_);

  mutable qelnk::Mutex mutex_;
  std::map<std::string, std::shared_ptr<Watched>> watched_ QELNK_GUARDED_BY(mutex_);
  bool printsPings_ QELNK_GUARDED_BY(mutex_) = false;
};
