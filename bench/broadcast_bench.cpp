// Publishers and subscribers: how many messages reach the callback a second, how soon, what a callback does that is too
// slow, and what many subscribers in one process cost. Beside publishers and subscribers by hand on raw libzmq, with
// cppzmq and with CZMQ.

#include <QELNetworkKit/Log.h>
#include <sys/prctl.h>

#include <functional>
#include <memory>
#include <thread>

#include "Broadcast.h"
#include "Contest.h"

namespace {

using namespace bench;

constexpr const char *subscriberThreadName = "qelnk-subscr";

// One publisher, one subscriber.

/// A publisher and its subscriber, as two programs have them: on a context each.
struct Pair {
  Pair(std::string name, std::unique_ptr<Publisher> by) : peer(std::move(name)), publisher(std::move(by)) {}
  void add(std::unique_ptr<Subscribers> to) {
    subscriber = std::move(to);
    arrivals.join(*publisher);
  }

  const std::string peer;
  std::unique_ptr<Publisher> publisher;
  Arrivals arrivals{1};
  std::unique_ptr<Subscribers> subscriber;
};

enum class Receiver { ours, handWritten, raw };

/// Both ends with another library.
template <class Sender, class Receivers, class Encoding, class... More>
std::unique_ptr<Pair> makePeer(const char *peer, Encoding encoding, More... more) {
  auto pair = std::make_unique<Pair>(peer, std::make_unique<Sender>(encoding));
  pair->add(std::make_unique<Receivers>(Audience{pair->publisher->port()}, more..., pair->arrivals));
  return pair;
}

template <class Encoding>
std::unique_ptr<Pair> makePair(const char *peer, bool ourPublisher, Receiver receiver, OurEncoding ours, Encoding raw) {
  std::unique_ptr<Publisher> publisher;
  if (ourPublisher)
    publisher = std::make_unique<OurPublisher>(ours);
  else
    publisher = std::make_unique<RawPublisher<Encoding>>(raw);
  const Audience audience{publisher->port()};
  auto pair = std::make_unique<Pair>(peer, std::move(publisher));
  if (receiver == Receiver::ours)
    pair->add(std::make_unique<OurSubscribers>(audience, ours, pair->arrivals));
  else
    pair->add(std::make_unique<RawSubscribers<Encoding>>(audience, receiver == Receiver::handWritten, pair->arrivals));
  return pair;
}

template <class Encoding>
void throughput(const std::string &name, int64_t count, OurEncoding ours, Encoding raw) {
  std::vector<std::unique_ptr<Pair>> pairs;
  pairs.push_back(makePair("qelnk", true, Receiver::ours, ours, raw));
  pairs.push_back(makePair("hand-written", false, Receiver::handWritten, ours, raw));
  pairs.push_back(makePair("qelnk-subscriber", false, Receiver::ours, ours, raw));
  pairs.push_back(makePair("qelnk-publisher", true, Receiver::raw, ours, raw));
  pairs.push_back(makePair("raw", false, Receiver::raw, ours, raw));
  pairs.push_back(makePeer<RawPublisher<Encoding, CppZMQ>, RawSubscribers<Encoding, CppZMQ>>("cppzmq", raw, true));
  pairs.push_back(makePeer<CZMQPublisher<Encoding>, CZMQSubscriber<Encoding>>("czmq", raw));
  std::vector<RatedEntry> entries;
  for (const auto &pair : pairs)
    entries.push_back({pair->peer, [&pair](int64_t many) { pair->arrivals.exchange(*pair->publisher, many); }});
  entries[0].references = {1, 5, 6};
  entries[3].references = entries[4].references = {4};
  contestOfRates("broadcast/rate/" + name, std::move(entries), 15, count);
}

void throughput(bool pinned) {
  pin(pinned);
  const std::string cores = pinned ? "/one-core" : "/all-cores";
  // So many at a time that even if nothing was called back none would be dropped.
  throughput<RawBytes>("64-bytes" + cores, 60000, {QELNKMessageBodyData, 64}, {64});
  throughput<RawBytes>("4-kib" + cores, 10000, {QELNKMessageBodyData, 4096}, {4096});
  throughput<RawMaps>("map" + cores, 60000, {QELNKMessageBodyMessagePack, 0}, {});
}

void paced(bool pinned) {
  constexpr int64_t perSecond = 20000;
  pin(pinned);
  const OurEncoding ours{QELNKMessageBodyData, 64};
  const RawBytes raw{64};
  std::vector<std::unique_ptr<Pair>> pairs;
  pairs.push_back(makePair("qelnk", true, Receiver::ours, ours, raw));
  pairs.push_back(makePair("hand-written", false, Receiver::handWritten, ours, raw));
  pairs.push_back(makePair("qelnk-subscriber", false, Receiver::ours, ours, raw));
  std::vector<TimedEntry> entries;
  for (const auto &pair : pairs) {
    pair->arrivals.exchange(*pair->publisher, 1000);
    entries.push_back(
        {pair->peer, [&pair] { return pair->arrivals.exchangePaced(*pair->publisher, perSecond / 5, perSecond); }});
  }
  contestOfTimes(std::string("broadcast/paced/") + (pinned ? "one-core" : "all-cores"), std::move(entries), 15);
}

// A callback that cannot follow.

void slowCallback(const std::string &name, size_t size) {
  constexpr size_t limit = 1000;
  pin(false);
  const OurEncoding encoding{QELNKMessageBodyData, size};
  OurPublisher publisher(encoding);
  const auto subscriber = QELNKSubscriber::create(QELNKContext::contextWithBackgroundQueue());
  std::atomic<int64_t> received{0}, newest{hello};
  std::atomic<bool> joined{false};
  subscriber->setMessageBody(QELNKMessageBodyData);
  subscriber->setPendingLimit({.messages = limit});
  subscriber->setMessageBlock([&](auto &, const Value &message) {
    const Note note = encoding.note(message);
    joined = true;
    if (note.number == hello) return;
    require(note.number > newest, "out of order");
    std::this_thread::sleep_for(1ms);
    ++received;
    newest = note.number;
  });
  subscriber->connectToHost("127.0.0.1", publisher.port(), nullptr);
  for (const auto start = Clock::now(); !joined; std::this_thread::sleep_for(1ms)) {
    require(Clock::now() - start < 60s, "nobody subscribes");
    publisher.publish({.number = hello});
  }
  // What fills up does so in the first half; what grows goes on growing in the second.
  constexpr auto half = 3s;
  int64_t sent = 0;
  const double residentBefore = residentKiB();
  double settled = 0, most = 0;
  const auto start = Clock::now();
  auto now = start;
  for (; now - start < 2 * half; now = Clock::now()) {
    for (int i = 0; i < 10000; ++i, ++sent) publisher.publish({.number = sent});
    const double resident = residentKiB();
    most = std::max(most, resident);
    if (now - start < half) settled = most;
  }
  while (newest != sent - 1) {
    require(Clock::now() - now < 60s, "the newest does not arrive");
    std::this_thread::sleep_for(10ms);
  }
  most = std::max(most, residentKiB());
  require(uint64_t(received) + subscriber->droppedMessages() == uint64_t(sent), "messages are unaccounted for");
  printRow("broadcast/slow-callback/" + name, "qelnk",
           {{"per_second", double(sent) / seconds(now - start)},
            {"received", double(received)},
            {"dropped", double(subscriber->droppedMessages())},
            {"grown_kib", most - residentBefore},
            {"grown_later_kib", most - settled}});
  subscriber->disconnect();
}

// Many subscribers in one process.

constexpr int audiences[] = {1, 10, 50, 200};

double openDescriptors() { return double(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})); }

std::unique_ptr<Subscribers> makeMany(const std::string &peer, Audience audience, Arrivals &arrivals) {
  if (peer == "qelnk")
    return std::make_unique<OurSubscribers>(audience, OurEncoding{QELNKMessageBodyData, 64}, arrivals);
  return std::make_unique<RawSubscribers<RawBytes>>(audience, peer == "hand-written", arrivals);
}

/// What each of so many costs that hear nothing: memory, descriptors (its end of the connection and the publisher's),
/// and time.
void idle(const std::string &peer, int count) {
  RawPublisher<RawBytes> publisher({64});
  Arrivals arrivals(count);
  std::this_thread::sleep_for(100ms);
  const double residentBefore = residentKiB(), descriptorsBefore = openDescriptors();
  const auto subscribers = makeMany(peer, {publisher.port(), count, true}, arrivals);
  arrivals.join(publisher);
  arrivals.exchange(publisher, 100 * count);
  std::this_thread::sleep_for(500ms);
  // Shorter than the silence after which a subscriber of ours connects anew.
  constexpr double time = 4;
  const double resident = residentKiB() - residentBefore, descriptors = openDescriptors() - descriptorsBefore;
  const auto switchesBefore = threadUse()[subscriberThreadName].switches;
  const double usedBefore = processSeconds();
  std::this_thread::sleep_for(std::chrono::duration<double>(time));
  const double used = processSeconds() - usedBefore;
  const auto switches = threadUse()[subscriberThreadName].switches - switchesBefore;
  printRow("broadcast/idle/" + std::to_string(count), peer,
           {{"cpu_percent", 100 * used / time},
            {"cpu_percent_each", 100 * used / time / count},
            {"passes_each", double(switches) / time / count},
            {"resident_kib_each", resident / count},
            {"descriptors_each", descriptors / count}});
}

/// The same messages spread over so many. Who does not run is not there: two hundred idle ones take their time, too.
void spread(int count) {
  struct Entry {
    std::string peer;
    std::vector<double> rates{}, costs{};
  };
  constexpr int64_t messages = 100000;
  std::vector<Entry> entries{{"qelnk"}, {"hand-written"}, {"raw"}};
  takeTurns(entries, 7, [count](Entry &entry) {
    RawPublisher<RawBytes> publisher({64});
    Arrivals arrivals(count);
    const auto subscribers = makeMany(entry.peer, {publisher.port(), count, true}, arrivals);
    arrivals.join(publisher);
    arrivals.exchange(publisher, messages / 4);
    const double usedBefore = processSeconds();
    const auto start = Clock::now();
    arrivals.exchange(publisher, messages);
    entry.rates.push_back(double(messages) / seconds(Clock::now() - start));
    entry.costs.push_back((processSeconds() - usedBefore) * 1e9 / double(messages));
  });
  for (const Entry &entry : entries)
    printRow("broadcast/spread/" + std::to_string(count), entry.peer,
             {{"per_second", median(entry.rates)},
              {"ratio", medianRatio(entry.rates, entries[1].rates)},
              {"cpu_ns", median(entry.costs)},
              {"cpu_ratio", medianRatio(entry.costs, entries[1].costs)}});
}

}  // namespace

/// Measures all, or what the arguments name.
int main(int count, char **words) {
  const auto wants = [&](std::string_view what) {
    return count < 2 || std::find(words + 1, words + count, what) != words + count;
  };
  QLGetHandle().setLevel(qelnk::LogLevel::off);  // that a slow callback loses messages is told on the error level
  prepareCZMQ();
  prctl(PR_SET_TIMERSLACK, 1UL);  // for paced senders
  raiseDescriptorLimit();         // two hundred subscribers exceed the usual thousand
  if (wants("idle"))
    for (const char *peer : {"qelnk", "raw"})
      for (const int subscribers : audiences) inFreshProcess([=] { idle(peer, subscribers); });
  if (wants("spread"))
    for (const int subscribers : audiences) spread(subscribers);
  if (wants("rate"))
    for (const bool pinned : {false, true}) throughput(pinned);
  if (wants("paced"))
    for (const bool pinned : {false, true}) paced(pinned);
  if (wants("slow")) {
    slowCallback("64-bytes", 64);
    slowCallback("4-kib", 4096);
  }
}
