#pragma once

#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/RunLoop.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "platform/HostLookup.h"

namespace qelnk {

/// Connects a TCP socket to a host: looks its addresses up and tries them in order, the next one when one has failed or
/// has not answered for a quarter of a second; the first that answers is taken.
///
/// Threads: cancel() from any thread; all else happens on the loop's. Letting it go cancels it.
class Connector : public std::enable_shared_from_this<Connector> {
 public:
  /// Gets the connected socket, which is its own from then on, or -1 and the reason. Called once, on the loop.
  using Handler = std::function<void(int socket, std::error_code)>;

  static std::shared_ptr<Connector> start(const std::string &host, uint16_t port, const std::shared_ptr<RunLoop> &loop,
                                          Handler handler);
  ~Connector();
  Connector(const Connector &) = delete;
  Connector &operator=(const Connector &) = delete;

  /// The handler is not called once this has returned on the loop's thread.
  void cancel();

 private:
  struct Attempt {
    int socket;
    std::shared_ptr<LoopSource> watch;
  };

  Connector(std::shared_ptr<RunLoop> loop, Handler handler);
  void lookedUp(std::vector<std::string> addresses, std::error_code error) QELNK_EXCLUDES(mutex_);
  void tryNext() QELNK_EXCLUDES(mutex_);
  std::error_code begin(const std::string &address) QELNK_REQUIRES(mutex_);
  void answered(int socket) QELNK_EXCLUDES(mutex_);
  void finish(int socket, std::error_code error) QELNK_EXCLUDES(mutex_);

  const std::shared_ptr<RunLoop> loop_;
  Mutex mutex_;
  Handler handler_ QELNK_GUARDED_BY(mutex_);
  std::shared_ptr<HostLookup> lookup_ QELNK_GUARDED_BY(mutex_);
  std::vector<std::string> addresses_ QELNK_GUARDED_BY(mutex_);
  size_t next_ QELNK_GUARDED_BY(mutex_) = 0;
  std::vector<Attempt> attempts_ QELNK_GUARDED_BY(mutex_);
  std::shared_ptr<LoopSource> timer_ QELNK_GUARDED_BY(mutex_);
  std::error_code error_ QELNK_GUARDED_BY(mutex_);
};

}  // namespace qelnk
