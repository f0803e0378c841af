// Requests: clients that come and go, and a server that answers. Each request has to end exactly once, with the answer
// that is its own or with a failure that has a cause.

#include <unistd.h>

#include <cerrno>
#include <map>
#include <set>
#include <vector>

#include "Part.h"

using namespace std::chrono_literals;
using qelnk::Value;

namespace soak {
namespace {

constexpr auto requestTimeout = 3s;
constexpr auto patience = 20s;  // a request that has not ended by then never will

class RequestServer final : public Part {
 public:
  explicit RequestServer(const Setting &setting) : Part(setting) {
    server_->setMessageBody(QELNKMessageBodyMessagePack);
    server_->setFallbackResponse(Value::map({{"refused", true}}));
    if (!server_->bindToPort(setting.port, [this](auto &, auto &message) { answer(*message); }))
      finding("server", "cannot bind to its port");
  }

 private:
  void answer(QELNKMessage &message) {  // on the io thread
    const Value &request = *message.request();
    const int64_t client = request["client"].integerValue(), number = request["number"].integerValue();
    auto &heard = heard_[client];
    if (!heard.insert(number).second) finding("server", "request " + std::to_string(number) + " came twice");
    // Out of order comes one that has timed out, on the connection that its client has given up: nobody waits for it.
    // Whoever does gets another answer than its own.
    const int64_t last = *heard.rbegin();
    message.setResponse(number == last ? request : Value::map({{"came after", last}}));
    if (heard_.size() > 50) heard_.erase(heard_.begin());  // most of them have gone
    ++counters().served;
  }

  std::map<int64_t, std::set<int64_t>> heard_;
  const std::shared_ptr<QELNKServer> server_ = QELNKServer::create(QELNKContext::contextWithBackgroundQueue());
};

/// One client and its requests; a new one takes its place when it is done. Callbacks come on the main thread or on
/// another one.
struct Requester : std::enable_shared_from_this<Requester> {
  std::shared_ptr<QELNKClient> client;
  int64_t name = 0, next = 0;
  int left = 0, depth = 1;
  bool onMain = false, hasDisconnected = false, mayCancel = false;
  Time begin;
  std::atomic<bool> released{false};
  std::mutex mutex;
  std::map<int64_t, Time> pending;

  size_t waiting() {
    std::lock_guard lock(mutex);
    return pending.size();
  }

  void send(Value payload) {
    const int64_t number = ++next;
    const Time sent = now();
    {
      std::lock_guard lock(mutex);
      pending.emplace(number, sent);
    }
    ++counters().sent;
    auto request = Value::map({{"client", name}, {"number", number}, {"payload", std::move(payload)}});
    client->sendRequest(std::move(request), [self = shared_from_this(), number, sent](auto &, auto &message) {
      self->ended(*message, number, sent);
    });
  }

  void ended(const QELNKMessage &message, int64_t number, Time sent) {
    const auto what = "request " + std::to_string(number) + " of " + std::to_string(name);
    if (released) finding("clients", what + " was told after its client had gone");
    {
      std::lock_guard lock(mutex);
      if (pending.erase(number) == 0) return finding("clients", what + " ended twice");
    }
    if (message.response()) {
      const Value &answer = *message.response();
      if (!(answer == *message.request())) finding("clients", what + " has another answer: " + answer.description());
      ++counters().answered;
      return latencies().add(now() - sent);
    }
    ++counters().failed;
    const int64_t code = message.error().code;
    const bool isOurs = (code == ENOTCONN && hasDisconnected) || (code == ECANCELED && mayCancel);
    if (!isOurs) failure("clients", what + " failed: " + message.error().description);
  }
};

class RequestClients final : public Part {
 public:
  explicit RequestClients(const Setting &setting) : Part(setting), requesters_(size_t(setting.count)) {}

  void beat() override {
    for (auto &requester : requesters_) {
      if (requester)
        drive(requester);
      else if (goes() && oneIn(10))
        requester = make();
    }
  }
  bool isQuiet() const override {
    return std::none_of(requesters_.begin(), requesters_.end(), [](auto &requester) { return requester != nullptr; });
  }

 private:
  std::shared_ptr<Requester> make() {
    auto requester = std::make_shared<Requester>();
    const auto context = anyContext();
    requester->onMain = context == QELNKContext::sharedContext();
    requester->name = (int64_t(getpid()) << 32) + ++names_;
    requester->left = between(1, 2000) / setting_.pace;
    requester->depth = between(1, 4);
    requester->mayCancel = oneIn(4);
    requester->client = QELNKClient::create(context);
    requester->client->setMessageBody(QELNKMessageBodyMessagePack);
    requester->client->setRequestTimeout(requestTimeout);
    requester->client->connectToHost("127.0.0.1", setting_.port, nullptr);
    return requester;
  }

  void drive(std::shared_ptr<Requester> &requester) {
    const size_t waiting = requester->waiting();
    if (!goes()) requester->left = 0;
    if (requester->hasDisconnected || requester->left == 0) return end(requester, waiting);
    if (oneIn(setting_.pace))
      for (size_t i = waiting; i < size_t(requester->depth) && requester->left > 0; ++i, --requester->left)
        requester->send(payload());
    // Some go in the middle of their work.
    if (!oneIn(1000)) return;
    if (oneIn(2)) {
      requester->hasDisconnected = true;
      requester->client->disconnect();
    } else {
      requester->client = nullptr;
      requester->released = requester->onMain;  // on another thread a call may be under way
      requester = nullptr;
    }
  }

  void end(std::shared_ptr<Requester> &requester, size_t waiting) {
    if (waiting == 0) {
      if (oneIn(2)) requester->client->disconnect();
      requester = nullptr;
    } else if (requester->begin == Time()) {
      requester->begin = now();
    } else if (now() - requester->begin > patience) {
      finding("clients", std::to_string(waiting) + " requests of " + std::to_string(requester->name) + " never ended");
      requester = nullptr;
    }
  }

  Value payload() {
    if (oneIn(200)) return qelnk::Data(std::string(size_t(between(10'000, 200'000)), 'x'));
    return Value::list({between(0, 1 << 30), 0.5 * between(0, 100), std::string(size_t(between(0, 60)), 'y'), nullptr});
  }

  std::vector<std::shared_ptr<Requester>> requesters_;
  int64_t names_ = 0;
};

}  // namespace

std::unique_ptr<Part> requestServer(const Setting &setting) { return std::make_unique<RequestServer>(setting); }
std::unique_ptr<Part> requestClients(const Setting &setting) { return std::make_unique<RequestClients>(setting); }

}  // namespace soak
