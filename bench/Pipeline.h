#pragma once

#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKKORVALClient.h>

#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <semaphore>
#include <thread>
#include <unordered_map>

#include "CZMQ.h"
#include "CppZMQ.h"
#include "HandWritten.h"
#include "Maps.h"

/// Many requests under way at once on a DEALER, maps encoded and decoded: who answers, and clients of ours and by hand.
namespace bench {

constexpr double replyValue = 0.5;
constexpr int window = 1000;

/// Answers each map with a small map that carries its "messageID", copied as it is so that this end costs little. Told
/// so, it gathers requests before it answers them, or answers some of them never.
class Peer {
 public:
  enum class Order { asTheyCame, reversed, shuffled };

  Peer() : socket_(context_, ZMQ_ROUTER) {
    socket_.set(ZMQ_SNDHWM, 0);
    socket_.set(ZMQ_RCVHWM, 0);
    port_ = socket_.bindToLoopback();
    thread_ = std::thread([this] { run(); });
  }
  ~Peer() {
    stopped_ = true;
    thread_.join();
  }
  int port() const { return port_; }

  // To be called while nothing is under way.
  void gather(size_t count, Order order) {
    order_ = order;
    gathered_ = count;
  }
  void ignoreNext(int64_t count) { ignored_ = count; }

 private:
  struct Answer {
    std::string identity, body;
  };

  void run() {
    socket_.set(ZMQ_RCVTIMEO, 100);
    Frame identity, body;
    while (!stopped_) {
      if (!identity.receive(socket_)) continue;
      require(body.receive(socket_), "half a request");
      if (ignored_ > 0)
        --ignored_;
      else
        take({std::string(identity.bytes()), answerTo(body.bytes())});
    }
  }

  void take(Answer answer) {
    if (gathered_ <= 1) return send(answer);
    answers_.push_back(std::move(answer));
    if (answers_.size() < gathered_) return;
    if (order_ == Order::reversed) std::reverse(answers_.begin(), answers_.end());
    if (order_ == Order::shuffled) std::shuffle(answers_.begin(), answers_.end(), std::mt19937(1));
    for (const Answer &each : answers_) send(each);
    answers_.clear();
  }

  void send(const Answer &answer) {
    Frame(answer.identity).send(socket_, ZMQ_SNDMORE);
    Frame(answer.body).send(socket_);
  }

  static std::string answerTo(std::string_view request) {
    static constexpr std::string_view key = "\xa9messageID";
    const size_t place = request.find(key);
    require(place != request.npos && place + key.size() < request.size(), "a request without an identifier");
    std::string_view identifier = request.substr(place + key.size());
    const uint8_t type = uint8_t(identifier.front());
    identifier = identifier.substr(0, type < 0x80 ? 1 : size_t(1) + (size_t(1) << (type - 0xcc) % 4));
    std::string answer = "\x82";
    answer += key;
    answer += identifier;
    answer += std::string_view(
        "\xa4"
        "data\x81\xa5"
        "value\xcb\x3f\xe0\0\0\0\0\0\0",
        21);
    return answer;
  }

  Context context_;
  Socket socket_;
  int port_ = 0;
  std::vector<Answer> answers_;
  std::atomic<size_t> gathered_{1};
  std::atomic<Order> order_{Order::asTheyCame};
  std::atomic<int64_t> ignored_{0};
  std::atomic<bool> stopped_{false};
  std::thread thread_;
};

/// Lets a caller have so many requests under way, and counts the answers.
class Traffic {
 public:
  explicit Traffic(int limit) : free_(limit), step_(std::max(limit / 16, 1)) {}

  /// Waits until one more may be made.
  void enter() { require(free_.try_acquire_for(std::chrono::seconds(60)), "no replies"); }
  /// An answer has arrived.
  void leave(double value) {
    require(value == replyValue, "a wrong reply");
    if (++finished_ % step_ == 0) free_.release(step_);
    if (finished_ == expected_) all_.open();
  }
  void expect(int64_t count) { expected_ += count; }
  void awaitAll() { require(all_.pass(), "replies are missing"); }

 private:
  std::counting_semaphore<> free_;
  const int64_t step_;
  std::atomic<int64_t> expected_{0};
  int64_t finished_ = 0;  // the answering thread's
  Gate all_;
};

class Contestant {
 public:
  virtual ~Contestant() = default;
  /// Makes so many requests, with at most `window` of them under way, and returns when all have been answered.
  virtual void exchange(int64_t count) = 0;
};

// Ours.

class Ours : public Contestant {
 public:
  explicit Ours(int port, int limit = window)
      : traffic_(limit), client_(QELNKKORVALClient::create(QELNKContext::contextWithBackgroundQueue())) {
    Gate connected;
    client_->connectToHost("127.0.0.1", port, [&](auto &) { connected.open(); });
    require(connected.pass(), "no connection");
  }
  ~Ours() override { client_->disconnect(); }

  void exchange(int64_t count) override {
    traffic_.expect(count);
    for (int64_t i = 0; i < count; ++i) {
      traffic_.enter();
      send([this](auto &, auto &message) {
        if (message->response()) traffic_.leave((*message->response())["data"]["value"].doubleValue());
      });
    }
    traffic_.awaitAll();
  }

  /// Requests that will never be answered.
  void park(int64_t count) {
    for (int64_t i = 0; i < count; ++i) send(nullptr);
  }

 private:
  void send(QELNKMessage::ResponseBlock block) {
    qelnk::Value request = client_->requestForCommand("setPortValue");
    request.set("data", qelnk::Value::map({{"id", "w1.p17"}, {"value", 0.5}}));
    client_->sendRequest(std::move(request), std::move(block));
  }

  Traffic traffic_;
  const std::shared_ptr<QELNKKORVALClient> client_;
};

// By hand.

inline void packRequest(msgpack::sbuffer &buffer, int64_t identifier) {
  msgpack::packer<msgpack::sbuffer> packer(buffer);
  const std::chrono::duration<double, std::milli> time = std::chrono::system_clock::now().time_since_epoch();
  packer.pack_map(4);
  packer.pack(std::string_view("command"));
  packer.pack(std::string_view("setPortValue"));
  packer.pack(std::string_view("timestamp"));
  packer.pack(time.count());
  packer.pack(std::string_view("messageID"));
  packer.pack(identifier);
  packer.pack(std::string_view("data"));
  packer.pack_map(2);
  packer.pack(std::string_view("id"));
  packer.pack(std::string_view("w1.p17"));
  packer.pack(std::string_view("value"));
  packer.pack(0.5);
}

/// The request as a tree of objects, as a program holds it that does not write its messages by hand.
inline msgpack::object treeOfRequest(msgpack::zone &zone, int64_t identifier) {
  using Tree = std::vector<std::pair<std::string_view, msgpack::object>>;
  const auto map = [&](const Tree &entries) {
    msgpack::object object;
    object.type = msgpack::type::MAP;
    object.via.map.size = uint32_t(entries.size());
    object.via.map.ptr = static_cast<msgpack::object_kv *>(
        zone.allocate_align(sizeof(msgpack::object_kv) * entries.size(), alignof(msgpack::object_kv)));
    for (size_t i = 0; i < entries.size(); ++i) {
      object.via.map.ptr[i].key = msgpack::object(entries[i].first, zone);
      object.via.map.ptr[i].val = entries[i].second;
    }
    return object;
  };
  const std::chrono::duration<double, std::milli> time = std::chrono::system_clock::now().time_since_epoch();
  return map(
      {{"command", msgpack::object(std::string_view("setPortValue"), zone)},
       {"timestamp", msgpack::object(time.count())},
       {"messageID", msgpack::object(identifier)},
       {"data", map({{"id", msgpack::object(std::string_view("w1.p17"), zone)}, {"value", msgpack::object(0.5)}})}});
}

inline double valueOf(const msgpack::object &reply) {
  const auto *data = find(reply, "data"), *value = data ? find(*data, "value") : nullptr;
  return value ? value->as<double>() : 0;
}

/// Requests written by the caller, sent and matched by an io thread, answered on a callback thread. With trees the
/// caller makes a tree, which the io thread writes.
template <class Library = RawZMQ>
class MapClient {
 public:
  using Reply = std::function<void(const msgpack::object &)>;

  explicit MapClient(int port, bool trees = false) : trees_(trees), thread_([this, port] { run(port); }) {}
  ~MapClient() {
    stopped_ = true;
    thread_.join();
  }

  void send(Reply reply) {
    MapRequest request{.identifier = nextIdentifier_++, .reply = std::move(reply)};
    if (trees_) {
      request.zone = std::make_unique<msgpack::zone>(512);
      request.tree = treeOfRequest(*request.zone, request.identifier);
    } else {
      request.body = msgpack::sbuffer(128);
      packRequest(request.body, request.identifier);
    }
    inbox_.put(std::move(request));
  }

 private:
  struct MapRequest {
    int64_t identifier = 0;
    Reply reply{};
    msgpack::sbuffer body{0};
    std::unique_ptr<msgpack::zone> zone{};
    msgpack::object tree{};
  };
  struct Call {
    Reply reply;
    msgpack::object_handle response;
    void operator()() { reply(response.get()); }
  };

  void run(int port) {
    typename Library::Socket socket(context_, ZMQ_DEALER);
    socket.connectToLoopback(port);
    zmq_pollitem_t items[] = {{socket.get(), 0, ZMQ_POLLIN, 0}, {nullptr, inbox_.descriptor(), ZMQ_POLLIN, 0}};
    while (!stopped_) {
      items[0].events = short(unsent_ < requests_.size() ? ZMQ_POLLIN | ZMQ_POLLOUT : ZMQ_POLLIN);
      Library::poll(items, 2, 20);
      if (items[1].revents) inbox_.take(requests_);
      if (items[0].revents & ZMQ_POLLIN) receive(socket);
      send(socket);
    }
  }

  void send(typename Library::Socket &socket) {
    for (; unsent_ < requests_.size(); ++unsent_) {
      MapRequest &request = requests_[unsent_];
      if (request.zone && request.body.size() == 0) msgpack::pack(request.body = msgpack::sbuffer(128), request.tree);
      typename Library::Frame frame({request.body.data(), request.body.size()});
      if (!frame.send(socket, ZMQ_DONTWAIT)) return;
      pending_.emplace(request.identifier, std::move(request.reply));
    }
    requests_.clear();
    unsent_ = 0;
  }

  void receive(typename Library::Socket &socket) {
    typename Library::Frame frame;
    for (int i = 0; i < 256 && frame.receive(socket, ZMQ_DONTWAIT); ++i) {
      msgpack::object_handle response = decodeMap(frame.bytes());
      const auto *identifier = find(response.get(), "messageID");
      const auto found = identifier ? pending_.find(identifier->as<int64_t>()) : pending_.end();
      if (found == pending_.end()) continue;
      callbacks_.post({std::move(found->second), std::move(response)});
      pending_.erase(found);
    }
  }

  const bool trees_;
  typename Library::Context context_;
  Inbox<MapRequest> inbox_;
  std::vector<MapRequest> requests_;  // taken over; those from `unsent_` on are still to be sent
  size_t unsent_ = 0;
  std::unordered_map<int64_t, Reply> pending_;
  int64_t nextIdentifier_ = 0;
  CallbackThread<Call> callbacks_;
  std::atomic<bool> stopped_{false};
  std::thread thread_;
};

/// The same with CZMQ: the caller hands its message to an actor.
class CZMQMapClient {
 public:
  using Reply = std::function<void(const msgpack::object &)>;

  explicit CZMQMapClient(int port)
      : actor_(zsock_new_dealer(loopback(port).c_str()),
               {.handedOver = [this](zsock_t *socket, zmsg_t *message) { send(socket, message); },
                .received = [this](zframe_t *frame) { receive(bytesOf(frame)); }}) {}

  void send(Reply reply) {
    const Kept kept{nextIdentifier_++, new Reply(std::move(reply))};
    msgpack::sbuffer body(128);
    packRequest(body, kept.identifier);
    zmsg_t *message = zmsg_new();
    zmsg_addmem(message, &kept, sizeof(kept));
    zmsg_addmem(message, body.data(), body.size());
    actor_.handOver(message);
  }

 private:
  struct Kept {
    int64_t identifier;
    Reply *reply;
  };
  struct Call {
    std::unique_ptr<Reply> reply;
    msgpack::object_handle response;
    void operator()() { (*reply)(response.get()); }
  };

  void send(zsock_t *socket, zmsg_t *message) {
    zframe_t *first = zmsg_pop(message);
    Kept kept;
    std::memcpy(&kept, zframe_data(first), sizeof(kept));
    zframe_destroy(&first);
    pending_.emplace(kept.identifier, kept.reply);
    zmsg_send(&message, socket);
  }
  void receive(std::string_view frame) {
    msgpack::object_handle response = decodeMap(frame);
    const auto *identifier = find(response.get(), "messageID");
    const auto found = identifier ? pending_.find(identifier->as<int64_t>()) : pending_.end();
    if (found == pending_.end()) return;
    callbacks_.post({std::move(found->second), std::move(response)});
    pending_.erase(found);
  }

  std::unordered_map<int64_t, std::unique_ptr<Reply>> pending_;
  int64_t nextIdentifier_ = 0;
  CallbackThread<Call> callbacks_;
  CZMQActor actor_;  // last: it calls the others
};

template <class Client = MapClient<>>
class HandWritten : public Contestant {
 public:
  template <class... More>
  explicit HandWritten(int port, int limit, More... more) : traffic_(limit), client_(port, more...) {}

  void exchange(int64_t count) override {
    traffic_.expect(count);
    for (int64_t i = 0; i < count; ++i) {
      traffic_.enter();
      client_.send([this](const msgpack::object &reply) { traffic_.leave(valueOf(reply)); });
    }
    traffic_.awaitAll();
  }

 private:
  Traffic traffic_;
  Client client_;
};

}  // namespace bench
