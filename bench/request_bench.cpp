// One request at a time, 64 bytes over loopback: from the caller's call to the callback on another thread, and to the
// return of a call that waits. Beside hand-written clients with the same thread hops on raw libzmq, with cppzmq and
// with CZMQ, and raw libzmq on one thread.

#include <QELNetworkKit/Log.h>

#include <memory>
#include <thread>

#include "CZMQ.h"
#include "CppZMQ.h"
#include "RoundTrips.h"

namespace {

using namespace std::chrono_literals;
using bench::OurRequests;

void warmUp(const std::vector<bench::RoundTripEntry> &entries) {
  for (const auto &entry : entries)
    for (int i = 0; i < 200; ++i) entry.roundTripper->roundTrip();
}

void contests(const std::string &name, const std::vector<bench::RoundTripEntry> &entries, int share) {
  warmUp(entries);
  bench::contestOfRoundTrips(name + "/busy", entries, 20, 10 * share, 0s);
  bench::contestOfRoundTrips(name + "/after-5ms", entries, 10, share, 5ms);
  bench::contestOfRoundTrips(name + "/after-30ms", entries, 5, share, 30ms);
  bench::contestOfRoundTrips(name + "/after-100ms", entries, 3, share / 2, 100ms);
}

void onCores(bool pinned) {
  bench::pin(pinned);
  const std::string cores = pinned ? "one-core" : "all-cores";
  constexpr int share = 20;
  bench::Echo echo;
  const int port = echo.port();
  const auto compare = [&](const char *what, OurRequests::Manner manner, bool withOneThread) {
    std::vector<bench::RoundTripEntry> entries;
    entries.push_back({"qelnk", std::make_unique<OurRequests>(port, manner)});
    entries.push_back({"hand-written", std::make_unique<bench::RequestsByHand<>>(port, manner)});
    if (withOneThread) entries.push_back({"one-thread", std::make_unique<bench::RequestsOnOneThread>(port)});
    contests(std::string(what) + "/" + cores, entries, share);
  };
  compare("callback", OurRequests::calledBack, true);
  compare("waiting", OurRequests::waiting, false);
  compare("waiting-with-callback", OurRequests::waitingAndCalledBack, false);

  std::vector<bench::RoundTripEntry> entries;
  const auto add = [&]<class Requests>(const char *peer, std::type_identity<Requests>) {
    entries.push_back({peer, std::make_unique<Requests>(port, OurRequests::calledBack)});
  };
  add("qelnk", std::type_identity<OurRequests>());
  add("hand-written", std::type_identity<bench::RequestsByHand<>>());
  add("cppzmq", std::type_identity<bench::RequestsByHand<bench::RequestClient<bench::CppZMQ>>>());
  add("czmq", std::type_identity<bench::RequestsByHand<bench::CZMQRequestClient>>());
  warmUp(entries);
  bench::contestOfRoundTrips("libraries/" + cores + "/busy", entries, 20, 10 * share, 0s, {1, 2, 3});
}

}  // namespace

int main() {
  QLGetHandle().setLevel(qelnk::LogLevel::error);
  bench::prepareCZMQ();
  onCores(false);
  onCores(true);
}
