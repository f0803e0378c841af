#pragma once

#include <QELNetworkKit/Mutex.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/Thread.h"

namespace qelnk {

/// Answers ZeroMQ, which asks whether a peer may connect to an encrypted endpoint of a context, over the protocol that
/// it has for this (ZeroMQ RFC 27). Each endpoint with a list of its own is a domain.
///
/// Threads: admit() and an admission's end may be called from any.
class Authenticator {
 public:
  /// Told, on the authenticator's thread, of a peer's address and of its key in printable form.
  using Refused = std::function<void(const std::string &address, const std::string &key)>;
  /// Who may connect, as long as this is held.
  class Admission;

  /// Begins to answer on a raw router socket of the context's, which becomes its own; null for one that could not be
  /// made. Throws ZMQException, or std::system_error when there is no thread left.
  explicit Authenticator(void *socket);
  /// To be called once the context is shut down: ends.
  ~Authenticator();

  std::shared_ptr<const Admission> admit(const std::vector<std::string> &keys, Refused refused);

 private:
  struct Rule {
    std::set<std::string, std::less<>> keys;
    Refused refused;
    std::set<std::string> told;  // whom the log has had since then
    std::chrono::steady_clock::time_point toldSince;
  };
  struct Shared {
    Mutex mutex;
    std::map<std::string, Rule, std::less<>> rules QELNK_GUARDED_BY(mutex);
    uint64_t nextDomain QELNK_GUARDED_BY(mutex) = 0;
    // The authenticator's thread's own.
    void *socket = nullptr;
    bool serveOne();
    void close();
    bool allows(const std::vector<std::string> &request) QELNK_EXCLUDES(mutex);
  };

  const std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
  std::unique_ptr<Thread> thread_;
};

class Authenticator::Admission {
 public:
  Admission(std::shared_ptr<Shared> shared, std::string domain)
      : shared_(std::move(shared)), domain_(std::move(domain)) {}
  ~Admission();
  Admission(const Admission &) = delete;
  Admission &operator=(const Admission &) = delete;
  /// To be set on the endpoint's sockets.
  const std::string &domain() const { return domain_; }

 private:
  const std::shared_ptr<Shared> shared_;
  const std::string domain_;
};

}  // namespace qelnk
