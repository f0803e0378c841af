#pragma once

#include <QELNetworkKit/Export.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace qelnk {

/// Orders the keys of a TXT record: without regard to the case of ASCII letters.
struct QELNK_EXPORT TXTRecordKeyOrder {
  /// Keys are looked up by views, without making a string.
  using is_transparent = void;
  /// Whether `a` comes before `b`.
  bool operator()(std::string_view a, std::string_view b) const;
};

/// What a service tells beside its name and port. Values are bytes; a key may have none ("key") or an empty one
/// ("key=").
using TXTRecordDictionary = std::map<std::string, std::optional<std::string>, TXTRecordKeyOrder>;

class NetService;

/// Observes a service. Called on the thread that called publish() or resolveWithTimeout(), in the turns of its run
/// loop, with no lock held.
class QELNK_EXPORT NetServiceDelegate {
 public:
  /// The service that something is told of.
  using Service = std::shared_ptr<NetService>;
  virtual ~NetServiceDelegate() = default;

  /// The service is announced under its name(); again each time this had to be repeated, as after a restart of the
  /// system's service discovery daemon.
  virtual void netServiceDidPublish(const Service &) {}
  /// The service could not be announced yet; told once for a publish(). It is tried again until stop().
  virtual void netServiceDidNotPublish(const Service &, std::error_code) {}
  /// Host name, port and the first address are known; told once for a resolveWithTimeout().
  virtual void netServiceDidResolveAddress(const Service &) {}
  /// Nothing was found in time, and the search is over.
  virtual void netServiceDidNotResolve(const Service &, std::error_code) {}
  /// The TXT record of a resolved service: the first, which may be empty, and each change. The order of its entries
  /// means nothing.
  virtual void netServiceDidUpdateTXTRecordData(const Service &, const std::string &) {}
};

/// A service on the local network, found and announced by DNS service discovery: one of ours to publish, or another's
/// to resolve.
///
/// The system's discovery daemon does the work. Where there is none, or it ends, things wait for it and go on when it
/// is there.
///
/// Threads: any. No operation waits for the daemon. Letting the last reference go stops the service. A domain may be
/// empty (the usual one), and it and a type ("_ssh._tcp") may end in a dot.
class QELNK_EXPORT NetService : public std::enable_shared_from_this<NetService> {
 public:
  /// A service to publish needs the port. Names hold any UTF-8, but at most 63 bytes of it: longer ones are cut. One
  /// that is published without a name gets the machine's.
  static std::shared_ptr<NetService> create(std::string domain, std::string type, std::string name, uint16_t port = 0);
  ~NetService();
  NetService(const NetService &) = delete;
  NetService &operator=(const NetService &) = delete;

  /// As given.
  const std::string &domain() const;
  /// As given.
  const std::string &type() const;
  /// As given; once published, as announced: a name that somebody else has got gets a number.
  std::string name() const;
  /// As given for one to publish; once resolved, the port found, in host byte order. 0 before.
  uint16_t port() const;

  /// The host that was found, kept up to date until stop(); empty before.
  std::string hostName() const;
  /// What was resolved, kept up to date until stop(); empty before. Each holds the bytes of a sockaddr_in (16) or
  /// sockaddr_in6 (28), the port set, and the scope too where the address is link-local. IPv6 comes first.
  std::vector<std::string> addresses() const;

  /// The observer, which is not kept alive.
  void setDelegate(std::weak_ptr<NetServiceDelegate> delegate);

  /// Announces the service until stop(). While it is published already nothing happens.
  void publish();

  /// Searches the service, for `timeout` on the calling thread's clock or, when that is zero or less, until stop().
  /// Once found it is followed until stop(). A search under way is given up for the new one.
  void resolveWithTimeout(std::chrono::nanoseconds timeout);

  /// Ends both. On the thread that began them the delegate is not called after this.
  void stop();
  /// The same, and takes the delegate away, where that is still this object. It may have no other owner any more.
  void stopFor(const std::weak_ptr<const void> &delegate);

  /// The record's wire form: strings behind their lengths. What is set is announced at once when the service is
  /// published; what cannot be read as a record is left out.
  std::string txtRecordData() const;
  /// Takes the record in its wire form. It is announced at once when the service is published; what cannot be read as a
  /// record is left out of the announcement.
  void setTXTRecordData(std::string data);

  /// Leaves out what a record cannot hold: empty keys, keys with "=", and entries of more than 255 bytes.
  static std::string dataFromTXTRecordDictionary(const TXTRecordDictionary &dictionary);
  /// Reads what can be read. Of entries with the same key the first counts.
  static TXTRecordDictionary dictionaryFromTXTRecordData(std::string_view data);

 private:
  NetService();
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace qelnk
