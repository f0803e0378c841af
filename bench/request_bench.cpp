// One request at a time, 64 bytes over loopback: from the caller's call to the callback on another thread, and to the
// return of a call that waits. Beside hand-written clients with the same thread hops on raw libzmq, and raw libzmq on
// one thread.

#include <QELNetworkKit/Log.h>
#include <QELNetworkKit/QELNKClient.h>
#include <QELNetworkKit/QELNKContext.h>

#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <thread>

#include "HandWritten.h"
#include "Support.h"

namespace {

using namespace std::chrono_literals;
using bench::Clock;

constexpr size_t requestSize = 64;

/// Answers every request with its own bytes.
class Echo {
 public:
  Echo() : socket_(context_, ZMQ_REP), port_(socket_.bindToLoopback()), thread_([this] { run(); }) {}
  ~Echo() {
    stopped_ = true;
    thread_.join();
  }
  int port() const { return port_; }

 private:
  void run() {
    socket_.set(ZMQ_RCVTIMEO, 100);
    while (!stopped_)
      if (bench::Frame frame; frame.receive(socket_)) frame.send(socket_);
  }

  bench::Context context_;
  bench::Socket socket_;
  const int port_;
  std::atomic<bool> stopped_{false};
  std::thread thread_;
};

/// Somebody who can do a round trip.
class Contestant {
 public:
  virtual ~Contestant() = default;
  /// The time from making the request to its callback, or to the return of a call that waits.
  virtual Clock::duration roundTrip() = 0;
};

// Ours.

class Ours : public Contestant {
 public:
  enum Manner { calledBack, waiting, waitingAndCalledBack };
  Ours(int port, Manner manner)
      : manner_(manner), client_(QELNKClient::create(QELNKContext::contextWithBackgroundQueue())) {
    client_->setMessageBody(QELNKMessageBodyData);
    client_->setSyncRequests(manner != calledBack);
    bench::Gate connected;
    client_->connectToHost("127.0.0.1", port, [&](auto &) { connected.open(); });
    bench::require(connected.pass(), "no connection");
  }
  ~Ours() override { client_->disconnect(); }

  Clock::duration roundTrip() override {
    qelnk::Data body = qelnk::Data::uninitialized(requestSize);
    std::memset(body.mutableData(), 7, requestSize);
    QELNKMessage::ResponseBlock block;
    if (manner_ != waiting) block = [this](auto &, auto &message) { arrive(*message); };
    const auto start = Clock::now();
    const auto message = client_->sendRequest(std::move(body), std::move(block));
    const auto returned = Clock::now();
    if (manner_ == waiting) arrive(*message);
    bench::require(gate_.pass() && size_ == requestSize, "no reply");
    return (manner_ == calledBack ? arrived_ : returned) - start;
  }

 private:
  void arrive(const QELNKMessage &message) {
    arrived_ = Clock::now();
    size_ = message.response() ? message.response()->bytes().size() : 0;
    gate_.open();
  }

  const Manner manner_;
  const std::shared_ptr<QELNKClient> client_;
  bench::Gate gate_;
  Clock::time_point arrived_;
  size_t size_ = 0;
};

// By hand.

/// One request at a time on a request socket, from any thread.
class RequestClient {
 public:
  using Reply = std::function<void(std::string)>;
  struct Request {
    std::string body;
    Reply onIOThread, onCallbackThread;  // either may be empty
  };

  explicit RequestClient(int port) : thread_([this, port] { run(port); }) {}
  ~RequestClient() {
    stopped_ = true;
    thread_.join();
  }
  void send(Request request) { inbox_.put(std::move(request)); }

 private:
  void run(int port) {
    bench::Socket socket(context_, ZMQ_REQ);
    socket.connectToLoopback(port);
    zmq_pollitem_t items[] = {{socket.get(), 0, ZMQ_POLLIN, 0}, {nullptr, inbox_.descriptor(), ZMQ_POLLIN, 0}};
    while (!stopped_) {
      zmq_poll(items, 2, 20);
      if (items[1].revents) take();
      if (items[0].revents) receive(socket);
      if (!replyAwaited_ && !queue_.empty()) {
        bench::Frame(queue_.front().body).send(socket);
        replyAwaited_ = true;
      }
    }
  }
  void take() {
    std::vector<Request> taken;
    inbox_.take(taken);
    for (Request &request : taken) queue_.push_back(std::move(request));
  }
  void receive(const bench::Socket &socket) {
    bench::Frame frame;
    if (!frame.receive(socket, ZMQ_DONTWAIT)) return;
    std::string body(frame.bytes());
    Request request = std::move(queue_.front());
    queue_.pop_front();
    replyAwaited_ = false;
    if (request.onCallbackThread) callbacks_.post([body, reply = std::move(request.onCallbackThread)] { reply(body); });
    if (request.onIOThread) request.onIOThread(std::move(body));
  }

  bench::Context context_;
  bench::Inbox<Request> inbox_;
  std::deque<Request> queue_;
  bool replyAwaited_ = false;
  bench::CallbackThread<std::function<void()>> callbacks_;
  std::atomic<bool> stopped_{false};
  std::thread thread_;
};

class HandWritten : public Contestant {
 public:
  HandWritten(int port, Ours::Manner manner) : manner_(manner), client_(port) {}

  Clock::duration roundTrip() override {
    std::string body(requestSize, '\7');
    RequestClient::Request request;
    request.body.swap(body);
    if (manner_ != Ours::waiting)
      request.onCallbackThread = [this](const std::string &reply) {
        arrived_ = Clock::now();
        size_ = reply.size();
        gate_.open();
      };
    if (manner_ != Ours::calledBack)
      request.onIOThread = [this](const std::string &reply) {
        waitedSize_ = reply.size();
        waited_.open();
      };
    const auto start = Clock::now();
    client_.send(std::move(request));
    if (manner_ != Ours::calledBack) bench::require(waited_.pass() && waitedSize_ == requestSize, "no reply");
    const auto returned = Clock::now();
    if (manner_ != Ours::waiting) bench::require(gate_.pass() && size_ == requestSize, "no reply");
    return (manner_ == Ours::calledBack ? arrived_ : returned) - start;
  }

 private:
  const Ours::Manner manner_;
  bench::Gate gate_, waited_;
  Clock::time_point arrived_;
  size_t size_ = 0, waitedSize_ = 0;
  RequestClient client_;  // last: it calls back into the others
};

class OneThread : public Contestant {
 public:
  explicit OneThread(int port) : socket_(context_, ZMQ_REQ) { socket_.connectToLoopback(port); }

  Clock::duration roundTrip() override {
    const std::string body(requestSize, '\7');
    bench::Frame reply;
    const auto start = Clock::now();
    bench::Frame(body).send(socket_);
    const bool received = reply.receive(socket_);
    const auto end = Clock::now();
    bench::require(received && reply.bytes().size() == requestSize, "no reply");
    return end - start;
  }

 private:
  bench::Context context_;
  bench::Socket socket_;
};

// The contest.

struct Entry {
  const char *peer;
  std::unique_ptr<Contestant> contestant;
  std::vector<double> all, ofRounds{};
};

/// Every contestant in turn, in blocks short enough that all see the same machine.
void contest(const std::string &name, std::vector<Entry> &entries, int rounds, int block, Clock::duration pause) {
  for (Entry &entry : entries) entry.all = entry.ofRounds = {};
  for (int round = 0; round < rounds; ++round) {
    for (size_t i = 0; i < entries.size(); ++i) {
      Entry &entry = entries[(i + size_t(round)) % entries.size()];
      std::vector<double> times;
      for (int n = 0; n < block; ++n) {
        if (pause > 0s) std::this_thread::sleep_for(pause);
        times.push_back(bench::microseconds(entry.contestant->roundTrip()));
      }
      entry.all.insert(entry.all.end(), times.begin(), times.end());
      entry.ofRounds.push_back(bench::median(times));
    }
  }
  for (const Entry &entry : entries) {
    // Rounds are compared with each other, since the machine changes its mind between them.
    std::vector<double> ratios;
    for (size_t i = 0; i < entry.ofRounds.size(); ++i) ratios.push_back(entry.ofRounds[i] / entries[1].ofRounds[i]);
    bench::printRow(name, entry.peer,
                    {{"median_us", bench::median(entry.all)},
                     {"p99_us", bench::quantile(entry.all, 0.99)},
                     {"ratio", bench::median(ratios)}});
  }
}

void contests(const std::string &name, std::vector<Entry> entries, int share) {
  for (Entry &entry : entries)
    for (int i = 0; i < 200; ++i) entry.contestant->roundTrip();
  contest(name + "/busy", entries, 20, 10 * share, 0s);
  contest(name + "/after-5ms", entries, 10, share, 5ms);
  contest(name + "/after-30ms", entries, 5, share, 30ms);
  contest(name + "/after-100ms", entries, 3, share / 2, 100ms);
}

void onCores(bool pinned) {
  bench::pin(pinned);
  const std::string cores = pinned ? "one-core" : "all-cores";
  constexpr int share = 20;
  Echo echo;
  const int port = echo.port();
  const auto compare = [&](const char *what, Ours::Manner manner, bool withOneThread) {
    std::vector<Entry> entries;
    entries.push_back({"qelnk", std::make_unique<Ours>(port, manner), {}});
    entries.push_back({"hand-written", std::make_unique<HandWritten>(port, manner), {}});
    if (withOneThread) entries.push_back({"one-thread", std::make_unique<OneThread>(port), {}});
    contests(std::string(what) + "/" + cores, std::move(entries), share);
  };
  compare("callback", Ours::calledBack, true);
  compare("waiting", Ours::waiting, false);
  compare("waiting-with-callback", Ours::waitingAndCalledBack, false);
}

}  // namespace

int main() {
  QLGetHandle().setLevel(qelnk::LogLevel::error);
  onCores(false);
  onCores(true);
}
