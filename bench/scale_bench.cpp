// What so many cost together, from one to a hundred thousand: pending requests, subscribers, connections, workflows and
// ports, bytes of a message. Time on a core of the whole process, beside the same by hand where there is such a thing.

#include <QELNetworkKit/Log.h>

#include <unordered_map>

#include "Broadcast.h"
#include "Contest.h"
#include "DaemonProcess.h"
#include "Legacy.h"
#include "Pipeline.h"
#include "RoundTrips.h"

namespace {

using namespace bench;

struct Side {
  std::string peer;
  std::function<void()> act;  // does what so many cost
  std::vector<double> costs{};
};

/// Sides take turns and do it so many times each; prints what doing it once costs for `count`, times `factor`.
void point(const std::string &curve, int64_t count, std::vector<Side> sides, int64_t repeats, double factor = 1) {
  for (Side &side : sides) side.act();
  const auto start = Clock::now();
  for (int round = 0; round < 5 && (round < 2 || Clock::now() - start < 3s); ++round)
    takeTurns(sides, 1, [&](Side &side) {
      const double before = processSeconds();
      for (int64_t i = 0; i < repeats; ++i) side.act();
      side.costs.push_back((processSeconds() - before) * 1e6 / double(repeats));
    });
  for (const Side &side : sides)
    printRow("scale/" + curve + "/" + std::to_string(count), side.peer, {{"us", median(side.costs) * factor}});
}

int64_t repeatsFor(int64_t all, int64_t count, int64_t most = 2000) {
  return std::clamp<int64_t>(all / count, 1, most);
}

// So many requests are made; then all of them are answered, the last one first.
void pending(int64_t count) {
  Peer peer;
  Ours ours(peer.port(), int(count) * 16);
  HandWritten<> handWritten(peer.port(), int(count) * 16);
  peer.gather(size_t(count), Peer::Order::reversed);
  point("pending", count,
        {{"qelnk", [&] { ours.exchange(count); }}, {"hand-written", [&] { handWritten.exchange(count); }}},
        repeatsFor(20000, count));
  peer.gather(1, Peer::Order::asTheyCame);
}

// One message to each of so many subscribers, and making these until each has heard something.
void subscribers(int count) {
  const OurEncoding encoding{QELNKMessageBodyData, 64};
  struct Setting {
    RawPublisher<RawBytes> publisher{{64}};
    Arrivals arrivals;
    std::unique_ptr<Subscribers> subscribers;

    Setting(bool ours, int number, OurEncoding encoding) : arrivals(number) {
      const Audience audience{publisher.port(), number, true};
      if (ours)
        subscribers = std::make_unique<OurSubscribers>(audience, encoding, arrivals);
      else
        subscribers = std::make_unique<RawSubscribers<RawBytes>>(audience, true, arrivals);
      arrivals.join(publisher);
    }
  };
  point(
      "subscribers-made", count,
      {{"qelnk", [=] { Setting(true, count, encoding); }}, {"hand-written", [=] { Setting(false, count, encoding); }}},
      repeatsFor(10, count));
  const int64_t each = repeatsFor(20000, count, 20000);
  for (const bool isOurs : {true, false}) {
    Setting setting(isOurs, count, encoding);  // on its own: idle ones take their time, too
    point("subscribers", count,
          {{isOurs ? "qelnk" : "hand-written", [&] { setting.arrivals.exchange(setting.publisher, count * each); }}}, 1,
          1 / double(each));
  }
}

// A server accepts so many and shakes hands with them; then a heartbeat goes to all.
void connections(int count) {
  point("connections-made", count, {{"qelnk", [=] { Crowd crowd(count); }}, {"bare", [=] { BareCrowd crowd(count); }}},
        repeatsFor(500, count));
  const QELProjectTimecode timecode(10, 59, 59, 24, 25);
  const std::string bytes = QELNKLegacyServer::timecodeStringForTimecode(timecode, "on air 1") + '\0';
  // No more often than the system's buffers hold without anybody reading. One after the other: two crowds would exceed
  // the descriptors that a process may have.
  const int64_t beats = repeatsFor(20000, count, 100);
  {
    Crowd crowd(count);
    point("heartbeat", count, {{"qelnk", [&] { crowd.beat(timecode, "on air 1"); }}}, beats);
  }
  BareCrowd crowd(count);
  point("heartbeat", count, {{"bare", [&] { crowd.beat(bytes); }}}, beats);
}

/// A daemon's project by hand, on one thread: identifiers and values of its ports.
class RawMirror {
 public:
  explicit RawMirror(int port) : socket_(context_, ZMQ_DEALER) {
    socket_.connectToLoopback(port);
    request("getProject", {});
    receive();
    request("getWorkflows", {});
    const auto workflows = receive();
    const msgpack::object &list = dataOf(workflows.get());
    for (const auto *each = list.via.array.ptr, *end = each + list.via.array.size; each < end; ++each)
      request("getExposedPorts", find(*each, "id")->as<std::string_view>());
    for (uint32_t i = 0; i < list.via.array.size; ++i) {
      const auto reply = receive();
      const msgpack::object &ports = dataOf(dataOf(reply.get()));
      for (const auto *each = ports.via.array.ptr, *end = each + ports.via.array.size; each < end; ++each)
        ports_.emplace(find(*each, "id")->as<std::string>(), find(*each, "value")->as<double>());
    }
  }
  size_t numberOfPorts() const { return ports_.size(); }

  void takePushes(int64_t count) {
    for (; count > 0; --count) {
      const auto push = receive();
      const msgpack::object &data = dataOf(push.get());
      const auto found = ports_.find(find(data, "id")->as<std::string>());
      require(found != ports_.end(), "no such port");
      found->second = find(data, "value")->as<double>();
    }
  }

 private:
  static const msgpack::object &dataOf(const msgpack::object &message) { return *find(message, "data"); }

  void request(std::string_view command, std::string_view identifier) {
    msgpack::sbuffer buffer(128);
    msgpack::packer<msgpack::sbuffer> packer(buffer);
    packer.pack_map(3);
    packer.pack(std::string_view("command"));
    packer.pack(command);
    packer.pack(std::string_view("messageID"));
    packer.pack(++lastIdentifier_);
    packer.pack(std::string_view("data"));
    packer.pack_map(1);
    packer.pack(std::string_view("id"));
    packer.pack(identifier);
    require(Frame({buffer.data(), buffer.size()}).send(socket_), "not sent");
  }
  msgpack::object_handle receive() {
    Frame frame;
    require(frame.receive(socket_), "nothing received");
    return decodeMap(frame.bytes());
  }

  Context context_;
  Socket socket_;
  int lastIdentifier_ = 0;
  std::unordered_map<std::string, double> ports_;
};

// A daemon's project of so many ports is mirrored; then a value is pushed to each of them.
void mirror(const std::string &what, int64_t count, int workflows, int portsEach) {
  DaemonProcess daemon(workflows, portsEach);
  const int64_t ports = int64_t(workflows) * portsEach;
  point(what + "-mirrored", count,
        {{"qelnk", [&] { connect(daemon)->disconnect(); }},
         {"hand-written",
          [&] { require(RawMirror(daemon.port()).numberOfPorts() == size_t(ports), "ports are missing"); }}},
        repeatsFor(2000, ports, 20));

  // One after the other: the daemon pushes to who has asked it last.
  const int64_t each = repeatsFor(20000, ports, 20000), pushes = ports * each;
  const auto cost = 1 / double(each);
  {
    const auto client = connect(daemon);
    point(what, count,
          {{"qelnk",
            [&] {
              const uint64_t before = client->dataReceived();
              daemon.push(pushes, 0);
              for (uint64_t seen = before, now = 0; (now = client->dataReceived()) != seen || now == before; seen = now)
                std::this_thread::sleep_for(50ms);
            }}},
          1, cost);
    client->disconnect();
  }
  RawMirror byHand(daemon.port());
  point(what, count,
        {{"hand-written",
          [&] {
            daemon.push(pushes, 0);
            byHand.takePushes(pushes);
          }}},
        1, cost);
}

// A request of so many bytes, answered with as many; and so many bytes published.
void bytes(int64_t size) {
  const Echo echo;
  OurRequests ours(echo.port(), OurRequests::calledBack, size_t(size));
  RequestsByHand<> byHand(echo.port(), OurRequests::calledBack, size_t(size));
  constexpr int64_t all = int64_t(32) << 20;
  point("request-bytes", size, {{"qelnk", [&] { ours.roundTrip(); }}, {"hand-written", [&] { byHand.roundTrip(); }}},
        repeatsFor(all, size, 500));

  const int64_t messages = repeatsFor(all, size, 20000);
  const OurEncoding encoding{QELNKMessageBodyData, size_t(size)};
  struct Pair {
    Arrivals arrivals{1};
    std::unique_ptr<Publisher> publisher;
    std::unique_ptr<Subscribers> subscriber;
  } ourPair, rawPair;
  ourPair.publisher = std::make_unique<OurPublisher>(encoding);
  ourPair.subscriber =
      std::make_unique<OurSubscribers>(Audience{ourPair.publisher->port()}, encoding, ourPair.arrivals);
  rawPair.publisher = std::make_unique<RawPublisher<RawBytes>>(RawBytes{size_t(size)});
  rawPair.subscriber =
      std::make_unique<RawSubscribers<RawBytes>>(Audience{rawPair.publisher->port()}, true, rawPair.arrivals);
  const auto side = [&](const char *peer, Pair &pair) {
    pair.arrivals.join(*pair.publisher);
    return Side{peer, [&pair, messages] { pair.arrivals.exchange(*pair.publisher, messages); }};
  };
  point("published-bytes", size, {side("qelnk", ourPair), side("hand-written", rawPair)}, 1, 1 / double(messages));
}

}  // namespace

/// Measures all, or what the arguments name.
int main(int count, char **words) {
  const auto wants = [&](std::string_view what) {
    return count < 2 || std::find(words + 1, words + count, what) != words + count;
  };
  QLGetHandle().setLevel(qelnk::LogLevel::off);
  raiseDescriptorLimit();
  // Each point in a process of its own, which holds nothing of the others.
  if (wants("pending"))
    for (const int64_t n : {1, 10, 100, 1000, 10000, 100000}) inFreshProcess([=] { pending(n); });
  if (wants("subscribers"))
    for (const int n : {1, 10, 100, 1000}) inFreshProcess([=] { subscribers(n); });
  if (wants("connections"))
    for (const int n : {1, 10, 100, 1000, 5000}) inFreshProcess([=] { connections(n); });
  if (wants("workflows"))
    for (const int n : {1, 10, 100, 1000}) inFreshProcess([=] { mirror("workflows", n, n, 10); });
  if (wants("ports"))
    for (const int n : {10, 100, 1000, 10000, 100000}) inFreshProcess([=] { mirror("ports", n, 1, n); });
  if (wants("bytes"))
    for (const int64_t n : {64, 1 << 10, 16 << 10, 256 << 10, 4 << 20, 64 << 20}) inFreshProcess([=] { bytes(n); });
}
