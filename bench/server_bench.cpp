// The server that answers requests: one at a time between a client and a server of ours, and how many a second one
// server answers to many clients. Beside servers written by hand on a raw REP socket, with the same encoding.

#include <QELNetworkKit/Log.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKServer.h>
#include <pthread.h>

#include <functional>
#include <memory>
#include <thread>

#include "Maps.h"
#include "RoundTrips.h"

namespace {

using namespace std::chrono_literals;
using qelnk::Value;

constexpr const char *ourThreadName = "qelnk-server";
constexpr const char *rawThreadName = "raw-server";

// The servers.

class OurServer {
 public:
  OurServer(QELNKMessageBody body, QELNKServer::MessageBlock handler)
      : server_(QELNKServer::create(QELNKContext::contextWithBackgroundQueue())) {
    server_->setMessageBody(body);
    bench::require(server_->bindToPort(0, std::move(handler)), "not bound");
  }
  ~OurServer() { server_->disconnect(); }
  int port() const { return server_->port(); }

 private:
  const std::shared_ptr<QELNKServer> server_;
};

/// A thread that decodes what a REP socket receives, calls a handler and sends its answer.
template <class Request, class Answer>
class RawServer {
 public:
  using Decode = Request (*)(std::string_view);
  using Handler = std::function<Answer(Request)>;

  RawServer(Decode decode, Handler handler)
      : decode_(decode),
        handler_(std::move(handler)),
        socket_(context_, ZMQ_REP),
        port_(socket_.bindToLoopback()),
        thread_([this] { run(); }) {}
  ~RawServer() {
    stopped_ = true;
    thread_.join();
  }
  int port() const { return port_; }

 private:
  void run() {
    pthread_setname_np(pthread_self(), rawThreadName);
    socket_.set(ZMQ_RCVTIMEO, 100);
    while (!stopped_) {
      bench::Frame frame;
      if (!frame.receive(socket_)) continue;
      const Answer answer = handler_(decode_(frame.bytes()));
      bench::require(bench::Frame({answer.data(), answer.size()}).send(socket_), "no answer sent");
    }
  }

  const Decode decode_;
  const Handler handler_;
  bench::Context context_;
  bench::Socket socket_;
  const int port_;
  std::atomic<bool> stopped_{false};
  std::thread thread_;
};

// What they answer: bytes with the same bytes, a map with a map that has its value.

void echo(const std::shared_ptr<QELNKServer> &, const std::shared_ptr<QELNKMessage> &message) {
  message->setResponse(message->request());
}

void answerMap(const std::shared_ptr<QELNKServer> &, const std::shared_ptr<QELNKMessage> &message) {
  message->setResponse(Value::map({{"status", true}, {"value", (*message->request())["data"]["value"]}}));
}

std::string ownBytes(std::string_view frame) { return std::string(frame); }
std::string rawEcho(std::string request) { return request; }

msgpack::sbuffer packedAnswer(double value) {
  msgpack::sbuffer buffer(128);
  msgpack::packer<msgpack::sbuffer> packer(buffer);
  packer.pack_map(2);
  packer.pack(std::string_view("status"));
  packer.pack(true);
  packer.pack(std::string_view("value"));
  packer.pack(value);
  return buffer;
}

msgpack::sbuffer rawAnswerMap(const msgpack::object_handle &request) {
  const auto *data = bench::find(request.get(), "data"), *value = data ? bench::find(*data, "value") : nullptr;
  return packedAnswer(value ? value->as<double>() : 0);
}

msgpack::sbuffer packedRequest() {
  msgpack::sbuffer buffer(128);
  msgpack::packer<msgpack::sbuffer> packer(buffer);
  packer.pack_map(2);
  packer.pack(std::string_view("command"));
  packer.pack(std::string_view("portValue"));
  packer.pack(std::string_view("data"));
  packer.pack_map(2);
  packer.pack(std::string_view("id"));
  packer.pack(std::string_view("w1.p17"));
  packer.pack(std::string_view("value"));
  packer.pack(0.5);
  return buffer;
}

// One request at a time.

void roundTrips(bool pinned) {
  bench::pin(pinned);
  const std::string name = std::string("server/round-trip/") + (pinned ? "one-core" : "all-cores");
  OurServer ours(QELNKMessageBodyData, echo);
  RawServer<std::string, std::string> raw(ownBytes, rawEcho);
  std::vector<bench::RoundTripEntry> entries;
  const auto calledBack = bench::OurRequests::calledBack;
  entries.push_back({"qelnk", std::make_unique<bench::OurRequests>(ours.port(), calledBack)});
  entries.push_back({"hand-written", std::make_unique<bench::RequestsByHand<>>(raw.port(), calledBack)});
  entries.push_back({"qelnk-server-only", std::make_unique<bench::RequestsByHand<>>(ours.port(), calledBack)});
  entries.push_back({"one-thread", std::make_unique<bench::RequestsOnOneThread>(raw.port())});
  for (const auto &entry : entries)
    for (int i = 0; i < 200; ++i) entry.roundTripper->roundTrip();
  bench::contestOfRoundTrips(name + "/busy", entries, 21, 200, 0s);
  bench::contestOfRoundTrips(name + "/after-5ms", entries, 15, 20, 5ms);
}

// Many clients.

constexpr int numberOfClients = 16;

/// Clients on raw sockets with so many requests each under way, all on the calling thread. Those with one are REQ
/// sockets, the others DEALER sockets, which do not wait for the answer before they send the next one.
class Clients {
 public:
  Clients(int port, int depth, std::string request, std::string answer)
      : depth_(depth), request_(std::move(request)), answer_(std::move(answer)) {
    for (int i = 0; i < numberOfClients; ++i) {
      sockets_.push_back(std::make_unique<bench::Socket>(context_, depth > 1 ? ZMQ_DEALER : ZMQ_REQ));
      sockets_.back()->connectToLoopback(port);
      items_.push_back({sockets_.back()->get(), 0, ZMQ_POLLIN, 0});
    }
  }

  /// Makes so many requests in all, at least one batch, and returns once they have been answered.
  void exchange(int64_t count) {
    int64_t sent = 0, received = 0;
    for (const auto &socket : sockets_)
      for (int i = 0; i < depth_; ++i, ++sent) send(*socket);
    while (received < std::max(count, sent)) {
      bench::require(zmq_poll(items_.data(), numberOfClients, 60000) > 0, "no answers");
      for (size_t i = 0; i < sockets_.size(); ++i) {
        if (!items_[i].revents) continue;
        int answers = 0;
        while (answers < depth_ && receive(*sockets_[i])) ++answers;
        received += answers;
        for (; answers > 0 && sent < count; --answers, ++sent) send(*sockets_[i]);
      }
    }
  }

 private:
  void send(const bench::Socket &socket) {
    if (depth_ > 1) bench::require(bench::Frame().send(socket, ZMQ_SNDMORE), "not sent");  // a REP socket's delimiter
    bench::require(bench::Frame(request_).send(socket), "not sent");
  }
  bool receive(const bench::Socket &socket) {
    bench::Frame frame;
    if (!frame.receive(socket, ZMQ_DONTWAIT)) return false;
    if (depth_ > 1) bench::require(frame.receive(socket), "half an answer");
    bench::require(frame.bytes() == answer_, "a wrong answer");
    return true;
  }

  const int depth_;
  bench::Context context_;
  const std::string request_, answer_;
  std::vector<std::unique_ptr<bench::Socket>> sockets_;
  std::vector<zmq_pollitem_t> items_;
};

void manyClients(const std::string &what, int ours, int raw, const std::string &request, const std::string &answer) {
  for (const int depth : {1, 64}) {
    Clients ofOurs(ours, depth, request, answer), ofRaw(raw, depth, request, answer);
    bench::contestOfRates("server/16-clients/" + what + "/" + std::to_string(depth) + "-each",
                          {{"qelnk", [&](int64_t count) { ofOurs.exchange(count); }, {1}, ourThreadName},
                           {"hand-written", [&](int64_t count) { ofRaw.exchange(count); }, {1}, rawThreadName}},
                          21, depth > 1 ? 60000 : 6000);
  }
}

void manyClients(bool pinned) {
  bench::pin(pinned);
  const std::string cores = pinned ? "/one-core" : "/all-cores";
  {
    OurServer ours(QELNKMessageBodyData, echo);
    RawServer<std::string, std::string> raw(ownBytes, rawEcho);
    const std::string bytes(bench::requestSize, '\7');
    manyClients("bytes" + cores, ours.port(), raw.port(), bytes, bytes);
  }
  OurServer ours(QELNKMessageBodyMessagePack, answerMap);
  RawServer<msgpack::object_handle, msgpack::sbuffer> raw(bench::decodeMap, rawAnswerMap);
  const auto text = [](const msgpack::sbuffer &buffer) { return std::string(buffer.data(), buffer.size()); };
  manyClients("map" + cores, ours.port(), raw.port(), text(packedRequest()), text(packedAnswer(0.5)));
}

}  // namespace

int main(int count, char **words) {
  QLGetHandle().setLevel(qelnk::LogLevel::error);
  const auto wants = [&](std::string_view what) { return count < 2 || what == words[1]; };
  if (wants("round-trip"))
    for (const bool pinned : {false, true}) roundTrips(pinned);
  if (wants("load"))
    for (const bool pinned : {false, true}) manyClients(pinned);
}
