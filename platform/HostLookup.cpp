#include "platform/HostLookup.h"

#include <QELNetworkKit/Mutex.h>

#include <netdb.h>

#include <cerrno>
#include <utility>

#include "platform/AsciiCase.h"
#include "platform/DiscoveryDaemon.h"
#include "platform/HostQuery.h"
#include "platform/LogFormat.h"
#include "platform/RunLoopThread.h"
#include "platform/Simdjson.h"
#include "platform/SocketAddress.h"

namespace qelnk {

namespace {

class AddressInfoCategory final : public std::error_category {
 public:
  const char *name() const noexcept override { return "getaddrinfo"; }
  std::string message(int number) const override { return gai_strerror(number); }
};

struct Answer {
  std::vector<std::string> addresses;
  std::error_code error;
};

/// What the system knows of a host. Only numeric hosts are answered at once.
Answer ask(const std::string &host, uint16_t port, int flags) {
  addrinfo hints{}, *first = nullptr;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags | AI_NUMERICSERV;
  const int number = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &first);
  if (number == EAI_SYSTEM) return {{}, {errno, std::system_category()}};
  if (number) return {{}, {number, addressInfoCategory()}};
  Answer answer;
  for (const addrinfo *info = first; info; info = info->ai_next)
    answer.addresses.emplace_back(reinterpret_cast<const char *>(info->ai_addr), info->ai_addrlen);
  freeaddrinfo(first);
  arrangeAddresses(answer.addresses);
  return answer;
}

/// Whether the service discovery daemon is to be asked. What is not UTF-8 its library would end the process for.
bool isLocalName(std::string_view host) {
  constexpr std::string_view ending = ".local";
  if (host.ends_with('.')) host.remove_suffix(1);
  return host.size() > ending.size() && equalIgnoringCase(host.substr(host.size() - ending.size()), ending) &&
         validateUTF8(host);
}

class Lookup final : public HostLookup, public std::enable_shared_from_this<Lookup> {
 public:
  Lookup(std::string host, uint16_t port, std::shared_ptr<RunLoop> loop, Handler handler)
      : host_(std::move(host)), port_(port), loop_(std::move(loop)), handler_(std::move(handler)) {}

  void begin() {
    auto numeric = ask(host_, port_, AI_NUMERICHOST);
    // What has a colon can only be an address: nobody need be asked about a scope that is not there.
    if (!numeric.error || host_.find(':') != std::string::npos)
      finish(std::move(numeric));
    else
      isLocalName(host_) ? askNetwork() : askSystem();
  }

  void cancel() override { end(); }

 private:
  void askNetwork() try {
    const Lock lock(mutex_);  // the answer may come before the query is kept
    query_ = std::make_unique<Active<HostQuery>>(
        host_, port_, [weak = weak_from_this()](std::vector<std::string> addresses) {
          const auto self = weak.lock();
          if (!self) return;
          addresses.empty() ? self->askSystem() : self->finish({std::move(addresses), {}});
        });
  } catch (const std::system_error &error) {  // no thread left
    finish({{}, error.code()});
  }

  void askSystem() try {
    startThread("qelnk-lookup", [weak = weak_from_this(), host = host_, port = port_] {
      auto answer = ask(host, port, AI_ADDRCONFIG);
      if (const auto self = weak.lock()) self->finish(std::move(answer));
    }).detach();
  } catch (const std::system_error &error) {
    finish({{}, error.code()});
  }

  void finish(Answer answer) {
    if (answer.error) logDebug("Host {} was not found: {}", host_, answer.error.message());
    loop_->perform([weak = weak_from_this(), answer = std::move(answer)] {
      const auto self = weak.lock();
      const auto handler = self ? self->end() : nullptr;
      if (handler) handler(answer.addresses, answer.error);
    });
  }

  Handler end() {
    std::unique_ptr<Active<HostQuery>> query;
    const Lock lock(mutex_);
    query.swap(query_);
    return std::exchange(handler_, nullptr);
  }

  const std::string host_;
  const uint16_t port_;
  const std::shared_ptr<RunLoop> loop_;
  Mutex mutex_;
  Handler handler_ QELNK_GUARDED_BY(mutex_);  // none once called or cancelled
  std::unique_ptr<Active<HostQuery>> query_ QELNK_GUARDED_BY(mutex_);
};

}  // namespace

const std::error_category &addressInfoCategory() {
  static const auto &immortal = *new AddressInfoCategory;
  return immortal;
}

std::shared_ptr<HostLookup> HostLookup::start(std::string host, uint16_t port, const std::shared_ptr<RunLoop> &loop,
                                              Handler handler) {
  auto lookup = std::make_shared<Lookup>(std::move(host), port, loop, std::move(handler));
  lookup->begin();
  return lookup;
}

}  // namespace qelnk
