#pragma once

#include <QELNetworkKit/RunLoop.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
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
  void lookedUp(std::vector<std::string> addresses, std::error_code error);
  void tryNext();
  std::error_code begin(const std::string &address);
  void answered(int socket);
  void finish(int socket, std::error_code error);

  const std::shared_ptr<RunLoop> loop_;
  std::mutex mutex_;  // guards all below
  Handler handler_;
  std::shared_ptr<HostLookup> lookup_;
  std::vector<std::string> addresses_;
  size_t next_ = 0;
  std::vector<Attempt> attempts_;
  std::shared_ptr<LoopSource> timer_;
  std::error_code error_;
};

}  // namespace qelnk
