// Publishers and subscribers: how many messages reach the callback a second, how soon, what a callback does that is too
// slow, and what many subscribers in one process cost. Beside publishers and subscribers by hand on raw libzmq, with
// cppzmq and with CZMQ.

#include <QELNetworkKit/Log.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKPublisher.h>
#include <QELNetworkKit/QELNKSubscriber.h>
#include <QELNetworkKit/ZMQSocket.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <span>
#include <thread>

#include "CZMQ.h"
#include "Contest.h"
#include "CppZMQ.h"
#include "HandWritten.h"
#include "Maps.h"

namespace {

using namespace std::chrono_literals;
using bench::Clock;
using qelnk::Value;

constexpr const char *subscriberThreadName = "qelnk-subscr";

// What is sent.

/// What a message says; bytes begin with it.
struct Note {
  int32_t topic = 0;  // the filter
  int64_t number = 0;
  Clock::time_point sent{};  // not in maps
};
constexpr int64_t hello = -1;  // the number of what is sent until somebody hears it
constexpr int32_t everything = -1;

Note noteIn(std::string_view bytes) {
  Note note;
  bench::require(bytes.size() >= sizeof(note), "a message is too short");
  std::memcpy(&note, bytes.data(), sizeof(note));
  return note;
}

/// Bytes as a program by hand has them.
struct RawBytes {
  using Message = std::string;
  size_t size;

  std::string encode(const Note &note) const {
    std::string bytes(size, '\7');
    std::memcpy(bytes.data(), &note, sizeof(note));
    return bytes;
  }
  static Message decode(std::string_view frame) { return std::string(frame); }
  static Note note(const Message &message) { return noteIn(message); }
};

/// Small maps with msgpack-cxx: written field by field, read into objects.
struct RawMaps {
  using Message = msgpack::object_handle;

  static msgpack::sbuffer encode(const Note &note) {
    msgpack::sbuffer buffer(128);
    msgpack::packer<msgpack::sbuffer> packer(buffer);
    packer.pack_map(3);
    packer.pack(std::string_view("id"));
    packer.pack(std::string_view("w1.p17"));
    packer.pack(std::string_view("value"));
    packer.pack(0.5);
    packer.pack(std::string_view("number"));
    packer.pack(note.number);
    return buffer;
  }
  static Message decode(std::string_view frame) { return bench::decodeMap(frame); }
  static Note note(const Message &message) {
    const auto *number = bench::find(message.get(), "number");
    bench::require(number != nullptr, "a message without its number");
    return {.number = number->as<int64_t>()};
  }
};

/// The same messages as our values.
struct OurEncoding {
  QELNKMessageBody body;
  size_t size;

  Value encode(const Note &note) const {
    if (body == QELNKMessageBodyMessagePack)
      return Value::map({{"id", "w1.p17"}, {"value", 0.5}, {"number", note.number}});
    qelnk::Data bytes = qelnk::Data::uninitialized(size);
    std::memset(bytes.mutableData(), 7, size);
    std::memcpy(bytes.mutableData(), &note, sizeof(note));
    return bytes;
  }
  Note note(const Value &message) const {
    if (body == QELNKMessageBodyMessagePack) return {.number = message["number"].intValue()};
    const std::span<const uint8_t> bytes = message.bytes();
    return noteIn({reinterpret_cast<const char *>(bytes.data()), bytes.size()});
  }
};

// Who sends. A publisher waits for the slowest subscriber rather than drop what it has no room for.

class Publisher {
 public:
  virtual ~Publisher() = default;
  virtual int port() const = 0;
  virtual void publish(const Note &note) = 0;
};

class OurPublisher : public Publisher {
 public:
  explicit OurPublisher(OurEncoding encoding)
      : encoding_(encoding), publisher_(QELNKPublisher::create(QELNKContext::contextWithBackgroundQueue())) {
    publisher_->setMessageBody(encoding.body);
    publisher_->bindToPort(0);
    publisher_->socket()->setInt(1, ZMQ_XPUB_NODROP);
  }
  ~OurPublisher() override { publisher_->disconnect(); }
  int port() const override { return publisher_->port(); }
  void publish(const Note &note) override {
    bench::require(publisher_->publish(encoding_.encode(note)), "not published");
  }

 private:
  const OurEncoding encoding_;
  const std::shared_ptr<QELNKPublisher> publisher_;
};

template <class Encoding, class Library = bench::RawZMQ>
class RawPublisher : public Publisher {
 public:
  explicit RawPublisher(Encoding encoding)
      : encoding_(encoding), socket_(context_, ZMQ_PUB), port_(socket_.bindToLoopback()) {
    socket_.waitForRoom();
  }
  int port() const override { return port_; }
  void publish(const Note &note) override {
    const auto body = encoding_.encode(note);
    bench::require(typename Library::Frame({body.data(), body.size()}).send(socket_), "not published");
  }

 private:
  const Encoding encoding_;
  typename Library::Context context_;
  typename Library::Socket socket_;
  const int port_;
};

template <class Encoding>
class CZMQPublisher : public Publisher {
 public:
  explicit CZMQPublisher(Encoding encoding)
      : encoding_(encoding), socket_(zsock_new(ZMQ_PUB)), port_(zsock_bind(socket_, "tcp://127.0.0.1:*")) {
    const int on = 1;
    zmq_setsockopt(zsock_resolve(socket_), ZMQ_XPUB_NODROP, &on, sizeof(on));
  }
  ~CZMQPublisher() override { zsock_destroy(&socket_); }
  int port() const override { return port_; }
  void publish(const Note &note) override {
    const auto body = encoding_.encode(note);
    zmsg_t *message = zmsg_new();
    zmsg_addmem(message, body.data(), body.size());
    bench::require(zmsg_send(&message, socket_) == 0, "not published");
  }

 private:
  const Encoding encoding_;
  zsock_t *socket_;
  const int port_;
};

// Who receives.

/// The messages of `streams` subscribers, numbered across all of them: each gets every so many-th, all of those, in
/// order.
class Arrivals {
 public:
  explicit Arrivals(int streams) : next_(size_t(streams)), joined_(size_t(streams)) {
    for (int i = 0; i < streams; ++i) next_[size_t(i)] = i;
  }

  /// A message for one subscriber. On one thread at a time for each.
  void take(int stream, const Note &note) {
    if (note.number == hello) {
      joined_[size_t(stream)] = true;
      return;
    }
    int64_t &next = next_[size_t(stream)];
    bench::require(note.number == next, "a message is missing");
    next += int64_t(next_.size());
    if (note.sent != Clock::time_point()) times_.push_back(bench::microseconds(Clock::now() - note.sent));
    if (received_.fetch_add(1, std::memory_order_relaxed) + 1 == expected_) all_.open();
  }

  /// Sends until every subscriber hears it.
  void join(Publisher &publisher) {
    for (const auto start = Clock::now(); std::find(joined_.begin(), joined_.end(), false) != joined_.end();) {
      bench::require(Clock::now() - start < 60s, "nobody subscribes");
      for (size_t i = 0; i < joined_.size(); ++i)
        if (!joined_[i]) publisher.publish({.topic = int32_t(i), .number = hello});
      std::this_thread::sleep_for(1ms);
    }
  }

  /// Sends so many, as fast as they leave, and waits until all have come.
  void exchange(Publisher &publisher, int64_t count) {
    expected_ += count;
    for (int64_t i = 0; i < count; ++i, ++sent_)
      publisher.publish({.topic = int32_t(sent_ % int64_t(next_.size())), .number = sent_});
    bench::require(all_.pass(), "messages are missing");
  }

  /// Sends so many at that rate, and gives the microseconds that each took.
  std::vector<double> exchangePaced(Publisher &publisher, int64_t count, int64_t perSecond) {
    expected_ += count;
    times_.clear();
    times_.reserve(size_t(count));
    const auto start = Clock::now();
    for (int64_t i = 0; i < count; ++i, ++sent_) {
      std::this_thread::sleep_until(start + i * 1000000000ns / perSecond);
      publisher.publish({.number = sent_, .sent = Clock::now()});
    }
    bench::require(all_.pass(), "messages are missing");
    return times_;
  }

 private:
  std::vector<int64_t> next_;
  std::vector<std::atomic<bool>> joined_;
  std::vector<double> times_;  // the only subscriber's
  int64_t sent_ = 0;
  std::atomic<int64_t> received_{0}, expected_{0};
  bench::Gate all_;
};

/// Subscribers on one context.
class Subscribers {
 public:
  virtual ~Subscribers() = default;
};

struct Audience {
  int port;
  int count = 1;
  bool filtered = false;  // each has the topic of its number
};

class OurSubscribers : public Subscribers {
 public:
  OurSubscribers(Audience audience, OurEncoding encoding, Arrivals &arrivals) {
    for (int i = 0; i < audience.count; ++i) {
      subscribers_.push_back(QELNKSubscriber::create(context_));
      auto &subscriber = *subscribers_.back();
      subscriber.setMessageBody(encoding.body);
      if (audience.filtered) subscriber.addFilterWithInt(i);
      subscriber.setMessageBlock(
          [&arrivals, encoding, i](auto &, const Value &message) { arrivals.take(i, encoding.note(message)); });
      subscriber.connectToHost("127.0.0.1", audience.port, nullptr);
    }
  }
  ~OurSubscribers() override {
    for (const auto &subscriber : subscribers_) {
      bench::require(subscriber->droppedMessages() == 0, "messages were dropped");
      subscriber->disconnect();
    }
  }

 private:
  const std::shared_ptr<QELNKContext> context_ = QELNKContext::contextWithBackgroundQueue();
  std::vector<std::shared_ptr<QELNKSubscriber>> subscribers_;
};

/// Messages of one subscriber.
template <class Encoding>
struct Batch {
  Arrivals &arrivals;
  int stream;
  std::vector<typename Encoding::Message> messages;
  void operator()() {
    for (const auto &message : messages) arrivals.take(stream, Encoding::note(message));
  }
};

/// By hand: a thread for each socket drains up to 256 messages a poll into buffers of its own. They are handed over to
/// a callback thread that all share, or taken right there.
template <class Encoding, class Library = bench::RawZMQ>
class RawSubscribers : public Subscribers {
 public:
  RawSubscribers(Audience audience, bool callbackThread, Arrivals &arrivals) : arrivals_(arrivals) {
    if (callbackThread) callbacks_ = std::make_unique<bench::CallbackThread<Call>>();
    for (int i = 0; i < audience.count; ++i) threads_.emplace_back([this, audience, i] { run(audience, i); });
  }
  ~RawSubscribers() override {
    context_.shutdown();
    for (auto &thread : threads_) thread.join();
  }

 private:
  using Messages = std::vector<typename Encoding::Message>;
  using Call = Batch<Encoding>;

  void run(Audience audience, int stream) {
    typename Library::Socket socket(context_, ZMQ_SUB);
    const int32_t topic = stream;
    socket.subscribe(audience.filtered ? std::string_view(reinterpret_cast<const char *>(&topic), sizeof(topic)) : "");
    socket.connectToLoopback(audience.port);
    typename Library::Frame frame;
    for (zmq_pollitem_t item = {socket.get(), 0, ZMQ_POLLIN, 0}; Library::poll(&item, 1, -1);) {
      Messages messages;
      for (int i = 0; i < 256 && frame.receive(socket, ZMQ_DONTWAIT); ++i)
        messages.push_back(Encoding::decode(frame.bytes()));
      if (messages.empty()) continue;
      if (Call call{arrivals_, stream, std::move(messages)}; callbacks_)
        callbacks_->post(std::move(call));
      else
        call();
    }
  }

  Arrivals &arrivals_;
  typename Library::Context context_;
  std::unique_ptr<bench::CallbackThread<Call>> callbacks_;
  std::vector<std::thread> threads_;
};

/// One with CZMQ, which hands over as well.
template <class Encoding>
class CZMQSubscriber : public Subscribers {
 public:
  CZMQSubscriber(Audience audience, Arrivals &arrivals)
      : actor_(zsock_new_sub(bench::loopback(audience.port).c_str(), ""),
               {.handedOver = nullptr,
                .received = [this](zframe_t *frame) { messages_.push_back(Encoding::decode(bench::bytesOf(frame))); },
                .drained =
                    [this, &arrivals] {
                      callbacks_.post({arrivals, 0, std::move(messages_)});
                      messages_.clear();
                    }}) {}

 private:
  std::vector<typename Encoding::Message> messages_;
  bench::CallbackThread<Batch<Encoding>> callbacks_;
  bench::CZMQActor actor_;  // last: it calls the others
};

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
  pairs.push_back(
      makePeer<RawPublisher<Encoding, bench::CppZMQ>, RawSubscribers<Encoding, bench::CppZMQ>>("cppzmq", raw, true));
  pairs.push_back(makePeer<CZMQPublisher<Encoding>, CZMQSubscriber<Encoding>>("czmq", raw));
  std::vector<bench::RatedEntry> entries;
  for (const auto &pair : pairs)
    entries.push_back({pair->peer, [&pair](int64_t many) { pair->arrivals.exchange(*pair->publisher, many); }});
  entries[0].references = {1, 5, 6};
  entries[3].references = entries[4].references = {4};
  bench::contestOfRates("broadcast/rate/" + name, std::move(entries), 15, count);
}

void throughput(bool pinned) {
  bench::pin(pinned);
  const std::string cores = pinned ? "/one-core" : "/all-cores";
  // So many at a time that even if nothing was called back none would be dropped.
  throughput<RawBytes>("64-bytes" + cores, 60000, {QELNKMessageBodyData, 64}, {64});
  throughput<RawBytes>("4-kib" + cores, 10000, {QELNKMessageBodyData, 4096}, {4096});
  throughput<RawMaps>("map" + cores, 60000, {QELNKMessageBodyMessagePack, 0}, {});
}

void paced(bool pinned) {
  constexpr int64_t perSecond = 20000;
  bench::pin(pinned);
  const OurEncoding ours{QELNKMessageBodyData, 64};
  const RawBytes raw{64};
  std::vector<std::unique_ptr<Pair>> pairs;
  pairs.push_back(makePair("qelnk", true, Receiver::ours, ours, raw));
  pairs.push_back(makePair("hand-written", false, Receiver::handWritten, ours, raw));
  pairs.push_back(makePair("qelnk-subscriber", false, Receiver::ours, ours, raw));
  std::vector<bench::TimedEntry> entries;
  for (const auto &pair : pairs) {
    pair->arrivals.exchange(*pair->publisher, 1000);
    entries.push_back(
        {pair->peer, [&pair] { return pair->arrivals.exchangePaced(*pair->publisher, perSecond / 5, perSecond); }});
  }
  bench::contestOfTimes(std::string("broadcast/paced/") + (pinned ? "one-core" : "all-cores"), std::move(entries), 15);
}

// A callback that cannot follow.

void slowCallback(const std::string &name, size_t size) {
  constexpr size_t limit = 1000;
  bench::pin(false);
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
    bench::require(note.number > newest, "out of order");
    std::this_thread::sleep_for(1ms);
    ++received;
    newest = note.number;
  });
  subscriber->connectToHost("127.0.0.1", publisher.port(), nullptr);
  for (const auto start = Clock::now(); !joined; std::this_thread::sleep_for(1ms)) {
    bench::require(Clock::now() - start < 60s, "nobody subscribes");
    publisher.publish({.number = hello});
  }
  // What fills up does so in the first half; what grows goes on growing in the second.
  constexpr auto half = 3s;
  int64_t sent = 0;
  const double residentBefore = bench::residentKiB();
  double settled = 0, most = 0;
  const auto start = Clock::now();
  auto now = start;
  for (; now - start < 2 * half; now = Clock::now()) {
    for (int i = 0; i < 10000; ++i, ++sent) publisher.publish({.number = sent});
    const double resident = bench::residentKiB();
    most = std::max(most, resident);
    if (now - start < half) settled = most;
  }
  while (newest != sent - 1) {
    bench::require(Clock::now() - now < 60s, "the newest does not arrive");
    std::this_thread::sleep_for(10ms);
  }
  most = std::max(most, bench::residentKiB());
  bench::require(uint64_t(received) + subscriber->droppedMessages() == uint64_t(sent), "messages are unaccounted for");
  bench::printRow("broadcast/slow-callback/" + name, "qelnk",
                  {{"per_second", double(sent) / bench::seconds(now - start)},
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

/// Whose memory nobody has used before. To be called while this one has no other threads.
void inFreshProcess(const std::function<void()> &work) {
  const pid_t process = fork();
  bench::require(process >= 0, "fork");
  if (process == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    work();
    std::_Exit(0);
  }
  int status = 0;
  bench::require(waitpid(process, &status, 0) == process && status == 0, "a process failed");
}

/// What each of so many costs that hear nothing: memory, descriptors (its end of the connection and the publisher's),
/// and time.
void idle(const std::string &peer, int count) {
  RawPublisher<RawBytes> publisher({64});
  Arrivals arrivals(count);
  std::this_thread::sleep_for(100ms);
  const double residentBefore = bench::residentKiB(), descriptorsBefore = openDescriptors();
  const auto subscribers = makeMany(peer, {publisher.port(), count, true}, arrivals);
  arrivals.join(publisher);
  arrivals.exchange(publisher, 100 * count);
  std::this_thread::sleep_for(500ms);
  // Shorter than the silence after which a subscriber of ours connects anew.
  constexpr double time = 4;
  const double resident = bench::residentKiB() - residentBefore, descriptors = openDescriptors() - descriptorsBefore;
  const auto switchesBefore = bench::threadUse()[subscriberThreadName].switches;
  const double usedBefore = bench::processSeconds();
  std::this_thread::sleep_for(std::chrono::duration<double>(time));
  const double used = bench::processSeconds() - usedBefore;
  const auto switches = bench::threadUse()[subscriberThreadName].switches - switchesBefore;
  bench::printRow("broadcast/idle/" + std::to_string(count), peer,
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
  bench::takeTurns(entries, 7, [count](Entry &entry) {
    RawPublisher<RawBytes> publisher({64});
    Arrivals arrivals(count);
    const auto subscribers = makeMany(entry.peer, {publisher.port(), count, true}, arrivals);
    arrivals.join(publisher);
    arrivals.exchange(publisher, messages / 4);
    const double usedBefore = bench::processSeconds();
    const auto start = Clock::now();
    arrivals.exchange(publisher, messages);
    entry.rates.push_back(double(messages) / bench::seconds(Clock::now() - start));
    entry.costs.push_back((bench::processSeconds() - usedBefore) * 1e9 / double(messages));
  });
  for (const Entry &entry : entries)
    bench::printRow("broadcast/spread/" + std::to_string(count), entry.peer,
                    {{"per_second", bench::median(entry.rates)},
                     {"ratio", bench::medianRatio(entry.rates, entries[1].rates)},
                     {"cpu_ns", bench::median(entry.costs)},
                     {"cpu_ratio", bench::medianRatio(entry.costs, entries[1].costs)}});
}

}  // namespace

/// Measures all, or what the arguments name.
int main(int count, char **words) {
  const auto wants = [&](std::string_view what) {
    return count < 2 || std::find(words + 1, words + count, what) != words + count;
  };
  QLGetHandle().setLevel(qelnk::LogLevel::off);  // that a slow callback loses messages is told on the error level
  bench::prepareCZMQ();
  prctl(PR_SET_TIMERSLACK, 1UL);  // for paced senders
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  descriptors.rlim_cur = descriptors.rlim_max;  // two hundred subscribers exceed the usual thousand
  setrlimit(RLIMIT_NOFILE, &descriptors);
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
