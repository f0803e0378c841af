#pragma once

#include <QELNetworkKit/QELNKClient.h>
#include <QELNetworkKit/QELNKContext.h>

#include <cstring>
#include <memory>
#include <thread>

#include "Contest.h"
#include "HandWritten.h"

/// Clients that make one request at a time, of 64 bytes unless they are told otherwise: ours, by hand with the same
/// thread hops, and on one thread without any.
namespace bench {

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
      if (Frame frame; frame.receive(socket_)) frame.send(socket_);
  }

  Context context_;
  Socket socket_;
  const int port_;
  std::atomic<bool> stopped_{false};
  std::thread thread_;
};

/// Somebody who can do a round trip.
class RoundTripper {
 public:
  virtual ~RoundTripper() = default;
  /// The time from making the request to its callback, or to the return of a call that waits.
  virtual Clock::duration roundTrip() = 0;
};

// Ours.

class OurRequests : public RoundTripper {
 public:
  enum Manner { calledBack, waiting, waitingAndCalledBack };
  OurRequests(int port, Manner manner, size_t size = requestSize)
      : manner_(manner), size_(size), client_(QELNKClient::create(QELNKContext::contextWithBackgroundQueue())) {
    client_->setMessageBody(QELNKMessageBodyData);
    client_->setSyncRequests(manner != calledBack);
    Gate connected;
    client_->connectToHost("127.0.0.1", port, [&](auto &) { connected.open(); });
    require(connected.pass(), "no connection");
  }
  ~OurRequests() override { client_->disconnect(); }

  Clock::duration roundTrip() override {
    qelnk::Data body = qelnk::Data::uninitialized(size_);
    std::memset(body.mutableData(), 7, size_);
    QELNKMessage::ResponseBlock block;
    if (manner_ != waiting) block = [this](auto &, auto &message) { arrive(*message); };
    const auto start = Clock::now();
    const auto message = client_->sendRequest(std::move(body), std::move(block));
    const auto returned = Clock::now();
    if (manner_ == waiting) arrive(*message);
    require(gate_.pass() && received_ == size_, "no reply");
    return (manner_ == calledBack ? arrived_ : returned) - start;
  }

 private:
  void arrive(const QELNKMessage &message) {
    arrived_ = Clock::now();
    received_ = message.response() ? message.response()->bytes().size() : 0;
    gate_.open();
  }

  const Manner manner_;
  const size_t size_;
  const std::shared_ptr<QELNKClient> client_;
  Gate gate_;
  Clock::time_point arrived_;
  size_t received_ = 0;
};

// By hand.

template <class Client = RequestClient<>>
class RequestsByHand : public RoundTripper {
 public:
  RequestsByHand(int port, OurRequests::Manner manner, size_t size = requestSize)
      : manner_(manner), size_(size), client_(port) {}

  Clock::duration roundTrip() override {
    std::string body(size_, '\7');
    Request request;
    request.body.swap(body);
    if (manner_ != OurRequests::waiting)
      request.onCallbackThread = [this](const std::string &reply) {
        arrived_ = Clock::now();
        received_ = reply.size();
        gate_.open();
      };
    if (manner_ != OurRequests::calledBack)
      request.onIOThread = [this](const std::string &reply) {
        waitedSize_ = reply.size();
        waited_.open();
      };
    const auto start = Clock::now();
    client_.send(std::move(request));
    if (manner_ != OurRequests::calledBack) require(waited_.pass() && waitedSize_ == size_, "no reply");
    const auto returned = Clock::now();
    if (manner_ != OurRequests::waiting) require(gate_.pass() && received_ == size_, "no reply");
    return (manner_ == OurRequests::calledBack ? arrived_ : returned) - start;
  }

 private:
  const OurRequests::Manner manner_;
  const size_t size_;
  Gate gate_, waited_;
  Clock::time_point arrived_;
  size_t received_ = 0, waitedSize_ = 0;
  Client client_;  // last: it calls back into the others
};

class RequestsOnOneThread : public RoundTripper {
 public:
  explicit RequestsOnOneThread(int port) : socket_(context_, ZMQ_REQ) { socket_.connectToLoopback(port); }

  Clock::duration roundTrip() override {
    const std::string body(requestSize, '\7');
    Frame reply;
    const auto start = Clock::now();
    Frame(body).send(socket_);
    const bool received = reply.receive(socket_);
    const auto end = Clock::now();
    require(received && reply.bytes().size() == requestSize, "no reply");
    return end - start;
  }

 private:
  Context context_;
  Socket socket_;
};

// The contest.

struct RoundTripEntry {
  std::string peer;
  std::unique_ptr<RoundTripper> roundTripper;
};

/// Blocks of so many round trips each, after so long a rest; ratios are to the best of `references`.
inline void contestOfRoundTrips(const std::string &name, const std::vector<RoundTripEntry> &entries, int rounds,
                                int block, Clock::duration pause, const std::vector<size_t> &references = {1}) {
  std::vector<TimedEntry> timed;
  for (const RoundTripEntry &entry : entries)
    timed.push_back({entry.peer,
                     [&entry, block, pause] {
                       std::vector<double> times;
                       for (int n = 0; n < block; ++n) {
                         if (pause > pause.zero()) std::this_thread::sleep_for(pause);
                         times.push_back(microseconds(entry.roundTripper->roundTrip()));
                       }
                       return times;
                     },
                     references});
  contestOfTimes(name, std::move(timed), rounds);
}

}  // namespace bench
