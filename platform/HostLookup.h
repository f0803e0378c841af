#pragma once

#include <QELNetworkKit/RunLoop.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

namespace qelnk {

/// Errors of getaddrinfo().
const std::error_category &addressInfoCategory();

/// A look-up of a host's addresses. Nothing of it waits on the caller's thread.
///
/// A numeric address is read as it is, a scope included ("fe80::1%eth0"). Names under ".local" are asked of the network
/// through the service discovery daemon; where that is not there or finds nothing, and for all other names, the
/// system's resolver is asked on a thread of its own, so that one that hangs holds up nothing else, the end of the
/// process included.
///
/// Threads: any. Letting the look-up go cancels it.
class HostLookup {
 public:
  /// Gets the bytes of a sockaddr_in or sockaddr_in6 for each address, with the port, IPv6 first and in the resolver's
  /// order otherwise; or none, and an error.
  using Handler = std::function<void(std::vector<std::string> addresses, std::error_code)>;

  /// Calls `handler` once, in a later turn of `loop`.
  static std::shared_ptr<HostLookup> start(std::string host, uint16_t port, const std::shared_ptr<RunLoop> &loop,
                                           Handler handler);

  virtual ~HostLookup() = default;
  /// Once it has returned on the loop's own thread the handler is not called any more.
  virtual void cancel() = 0;
};

}  // namespace qelnk
