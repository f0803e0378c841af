#pragma once

#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKPublisher.h>
#include <QELNetworkKit/QELNKSubscriber.h>
#include <QELNetworkKit/ZMQSocket.h>

#include <cstring>
#include <memory>
#include <span>
#include <thread>

#include "CZMQ.h"
#include "CppZMQ.h"
#include "HandWritten.h"
#include "Maps.h"

/// Publishers and subscribers of ours, by hand on raw libzmq, with cppzmq and with CZMQ; every message is numbered and
/// has to arrive.
namespace bench {

using namespace std::chrono_literals;
using qelnk::Value;

// What is sent.

/// What a message says; bytes begin with it.
struct Note {
  int32_t topic = 0;  // the filter
  int64_t number = 0;
  Clock::time_point sent{};  // not in maps
};
constexpr int64_t hello = -1;  // the number of what is sent until somebody hears it

/// What is only sent to be heard is small, for it may be sent often.
inline size_t bytesFor(const Note &note, size_t size) { return note.number == hello ? sizeof(Note) : size; }

inline Note noteIn(std::string_view bytes) {
  Note note;
  require(bytes.size() >= sizeof(note), "a message is too short");
  std::memcpy(&note, bytes.data(), sizeof(note));
  return note;
}

/// Bytes as a program by hand has them.
struct RawBytes {
  using Message = std::string;
  size_t size;

  std::string encode(const Note &note) const {
    std::string bytes(bytesFor(note, size), '\7');
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
  static Message decode(std::string_view frame) { return decodeMap(frame); }
  static Note note(const Message &message) {
    const auto *number = find(message.get(), "number");
    require(number != nullptr, "a message without its number");
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
    qelnk::Data bytes = qelnk::Data::uninitialized(bytesFor(note, size));
    std::memset(bytes.mutableData(), 7, bytes.size());
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
  void publish(const Note &note) override { require(publisher_->publish(encoding_.encode(note)), "not published"); }

 private:
  const OurEncoding encoding_;
  const std::shared_ptr<QELNKPublisher> publisher_;
};

template <class Encoding, class Library = RawZMQ>
class RawPublisher : public Publisher {
 public:
  explicit RawPublisher(Encoding encoding)
      : encoding_(encoding), socket_(context_, ZMQ_PUB), port_(socket_.bindToLoopback()) {
    socket_.waitForRoom();
  }
  int port() const override { return port_; }
  void publish(const Note &note) override {
    const auto body = encoding_.encode(note);
    require(typename Library::Frame({body.data(), body.size()}).send(socket_), "not published");
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
    require(zmsg_send(&message, socket_) == 0, "not published");
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
    require(note.number == next, "a message is missing");
    next += int64_t(next_.size());
    if (note.sent != Clock::time_point()) times_.push_back(microseconds(Clock::now() - note.sent));
    if (received_.fetch_add(1, std::memory_order_relaxed) + 1 == expected_) all_.open();
  }

  /// Sends until every subscriber hears it.
  void join(Publisher &publisher) {
    for (const auto start = Clock::now(); std::find(joined_.begin(), joined_.end(), false) != joined_.end();) {
      require(Clock::now() - start < 60s, "nobody subscribes");
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
    require(all_.pass(), "messages are missing");
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
    require(all_.pass(), "messages are missing");
    return times_;
  }

 private:
  std::vector<int64_t> next_;
  std::vector<std::atomic<bool>> joined_;
  std::vector<double> times_;  // the only subscriber's
  int64_t sent_ = 0;
  std::atomic<int64_t> received_{0}, expected_{0};
  Gate all_;
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
      require(subscriber->droppedMessages() == 0, "messages were dropped");
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
template <class Encoding, class Library = RawZMQ>
class RawSubscribers : public Subscribers {
 public:
  RawSubscribers(Audience audience, bool callbackThread, Arrivals &arrivals) : arrivals_(arrivals) {
    if (callbackThread) callbacks_ = std::make_unique<CallbackThread<Call>>();
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
  std::unique_ptr<CallbackThread<Call>> callbacks_;
  std::vector<std::thread> threads_;
};

/// One with CZMQ, which hands over as well.
template <class Encoding>
class CZMQSubscriber : public Subscribers {
 public:
  CZMQSubscriber(Audience audience, Arrivals &arrivals)
      : actor_(zsock_new_sub(loopback(audience.port).c_str(), ""),
               {.handedOver = nullptr,
                .received = [this](zframe_t *frame) { messages_.push_back(Encoding::decode(bytesOf(frame))); },
                .drained =
                    [this, &arrivals] {
                      callbacks_.post({arrivals, 0, std::move(messages_)});
                      messages_.clear();
                    }}) {}

 private:
  std::vector<typename Encoding::Message> messages_;
  CallbackThread<Batch<Encoding>> callbacks_;
  CZMQActor actor_;  // last: it calls the others
};

}  // namespace bench
