// Many requests under way at once on a DEALER, maps encoded and decoded: how many a second beside the same loop by hand
// with msgpack-cxx, on raw libzmq, with cppzmq and with CZMQ, and what one of them costs while others are pending.

#include <QELNetworkKit/Log.h>

#include <functional>
#include <string>
#include <utility>

#include "Contest.h"
#include "Pipeline.h"

namespace {

using bench::Clock;
using bench::Contestant;
using bench::HandWritten;
using bench::Ours;
using bench::Peer;
using bench::window;

class OneThread : public Contestant {
 public:
  explicit OneThread(int port) : socket_(context_, ZMQ_DEALER) { socket_.connectToLoopback(port); }

  void exchange(int64_t count) override {
    bench::Frame frame;
    for (int64_t sent = 0, received = 0; received < count;) {
      for (; sent < count && sent - received < window; ++sent) {
        msgpack::sbuffer body(128);
        bench::packRequest(body, sent);
        bench::require(bench::Frame({body.data(), body.size()}).send(socket_), "not sent");
      }
      bench::require(frame.receive(socket_), "no reply");
      do bench::require(bench::valueOf(bench::decodeMap(frame.bytes()).get()) == bench::replyValue, "a wrong reply");
      while (++received < count && frame.receive(socket_, ZMQ_DONTWAIT));
    }
  }

 private:
  bench::Context context_;
  bench::Socket socket_;
};

// The measurements.

void inFlight(bool pinned) {
  bench::pin(pinned);
  Peer peer;
  Ours ours(peer.port());
  HandWritten<> handWritten(peer.port(), window), withTrees(peer.port(), window, true);
  HandWritten<bench::MapClient<bench::CppZMQ>> cppZMQ(peer.port(), window);
  HandWritten<bench::CZMQMapClient> cZMQ(peer.port(), window);
  OneThread oneThread(peer.port());
  const auto entry = [](const char *name, Contestant &contestant, std::vector<size_t> references = {1}) {
    return bench::RatedEntry{name, [&](int64_t count) { contestant.exchange(count); }, std::move(references)};
  };
  bench::contestOfRates(std::string("in-flight/") + (pinned ? "one-core" : "all-cores"),
                        {entry("qelnk", ours, {1, 2, 3}), entry("hand-written", handWritten), entry("cppzmq", cppZMQ),
                         entry("czmq", cZMQ), entry("hand-written-trees", withTrees), entry("one-thread", oneThread)},
                        15, 30000);
}

/// Time, and time on a core of the caller's, the io and the callback thread together, for one of `count` requests.
void measureOne(const std::string &name, int64_t count, const std::function<void()> &exchange) {
  const auto busy = [] {
    double sum = 0;
    for (const auto &[thread, use] : bench::threadUse())
      if (thread == bench::ioThreadName || thread == bench::callbackThreadName || thread == "pipeline_bench")
        sum += use.seconds;
    return sum;
  };
  exchange();  // once to warm up
  const double before = busy();
  const auto start = Clock::now();
  exchange();
  bench::printRow(name, "qelnk",
                  {{"ns", bench::seconds(Clock::now() - start) * 1e9 / double(count)},
                   {"cpu_ns", (busy() - before) * 1e9 / double(count)}});
}

void pending() {
  constexpr int64_t total = 200000;
  Peer peer;
  for (const int64_t pending : {10, 1000, 100000}) {
    // That many under way, all answered at once.
    for (const auto &[name, order] : {std::pair("in-order", Peer::Order::asTheyCame),
                                      {"reversed", Peer::Order::reversed},
                                      {"shuffled", Peer::Order::shuffled}}) {
      Ours ours(peer.port(), int(pending) * 16);
      peer.gather(size_t(pending), order);
      const int64_t rounds = pending == 10 ? 2000 : total / pending;
      measureOne("pending/" + std::to_string(pending) + "/" + name, pending * rounds, [&] {
        for (int64_t round = 0; round < rounds; ++round) ours.exchange(pending);
      });
      peer.gather(1, order);
    }
    // That many older ones that stay unanswered, and others answered meanwhile.
    Ours ours(peer.port());
    peer.ignoreNext(pending);
    ours.park(pending);
    measureOne("pending/" + std::to_string(pending) + "/older-unanswered", total, [&] { ours.exchange(total); });
  }
}

}  // namespace

int main() {
  QLGetHandle().setLevel(qelnk::LogLevel::error);
  bench::prepareCZMQ();
  inFlight(false);
  inFlight(true);
  bench::pin(false);
  pending();
}
