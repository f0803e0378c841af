// Legacy connections: a server that writes to each and to all, and clients that come and go. Within one connection
// every string arrives, once, in order; none arrives in another connection than the one that it was written to.

#include <algorithm>
#include <charconv>
#include <map>
#include <vector>

#include "Part.h"

using namespace std::chrono_literals;
using qelnk::Value;

namespace soak {
namespace {

constexpr size_t previewSize = 16 << 10;

/// "KIND CONNECTION NUMBER"
struct Line {
  char kind = 0;
  int64_t connection = 0, number = 0;

  static Line of(std::string_view text) {
    Line line;
    if (text.size() < 2) return line;
    const char *end = text.data() + text.size();
    const auto first = std::from_chars(text.data() + 2, end, line.connection);
    if (first.ptr < end && std::from_chars(first.ptr + 1, end, line.number).ptr == end) line.kind = text[0];
    return line;
  }
  static std::string text(char kind, int64_t connection, int64_t number) {
    return std::string(1, kind) + ' ' + std::to_string(connection) + ' ' + std::to_string(number);
  }
};

class LegacyServer final : public Part {
 public:
  explicit LegacyServer(const Setting &setting) : Part(setting), options_(options()) {
    server_ = QELNKLegacyServer::create("Soak", uint16_t(setting.port), options_);
    server_->setDelegate(observer_);
    observer_->server = this;
    qelnk::Error error;
    if (!server_->start(&error)) finding("legacy-server", "cannot listen: " + error.description);
  }
  ~LegacyServer() override { observer_->server = nullptr; }

  void beat() override {
    ++beats_;
    if (now() >= heartbeatAt_) {  // by the clock: beats that come late are left out
      heartbeatAt_ = now() + 1s;
      server_->sendHeartbeatAtTimecode(QELProjectTimecode::timeOfDay(qelnk::Clock::system()->wallTime()));
      if (goes()) server_->writeBinaryData(qelnk::Data(std::string(previewSize, 'j')), "image/jpeg", true);
    }
    if (!goes()) return;
    if (beats_ % (5 * setting_.pace) == 0) server_->writeString(Line::text('b', 0, ++broadcast_));
    int place = 0;
    for (auto &[stream, link] : links_)
      if (++place % (10 * setting_.pace) == beats_ % (10 * setting_.pace)) write(*link.stream, link);
  }
  bool isQuiet() const override { return links_.empty(); }

 private:
  struct Link {
    std::shared_ptr<QELNKLegacyStream> stream;
    int64_t connection = 0, written = 0, read = 0;
  };

  struct Observer final : QELNKLegacyServerDelegate {
    LegacyServer *server = nullptr;
    void networkService(const Server &, const Stream &stream, const std::string &text) override {
      if (server) server->read(stream.get(), text);
    }
    void networkService(const Server &, const Stream &, const QELProjectTimecode &,
                        const std::optional<std::string> &) override {}
    void networkServiceNetworkStreamIsReady(const Server &, const Stream &stream) override {
      if (server) server->welcome(stream);
    }
    void networkServiceNetworkStreamWasTerminated(const Server &, const Stream &stream) override {
      if (server) server->links_.erase(stream.get());
    }
  };

  static Value options() {
    Value options = QELNKLegacyStream::defaultPlayoutOptionsForAppID("com.example.soak");
    options.set("maximumStringLength", 1 << 16);
    options.set("maximumOutgoingLength", 8 << 20);
    options.set("handshakeTimeout", 30);
    return options;
  }

  void welcome(const std::shared_ptr<QELNKLegacyStream> &stream) {
    Link &link = links_[stream.get()];
    if (link.stream) finding("legacy-server", "a connection was ready twice");
    link = {stream, ++connections_};
    ++counters().ready;
    write(*stream, link);
  }

  static void write(QELNKLegacyStream &stream, Link &link) {
    if (!stream.writeString(Line::text('s', link.connection, link.written + 1))) return;
    ++link.written;
    ++counters().written;
  }

  void read(QELNKLegacyStream *stream, const std::string &text) {
    const auto found = links_.find(stream);
    if (found == links_.end()) return finding("legacy-server", "a string of a connection that is not ready: " + text);
    Link &link = found->second;
    const Line line = Line::of(text);
    if (line.kind != 'c' || line.connection != link.connection || line.number != link.read + 1)
      finding("legacy-server", "\"" + text + "\" came on connection " + std::to_string(link.connection) +
                                   " after number " + std::to_string(link.read));
    link.read = line.number;
    ++counters().read;
  }

  const Value options_;
  const std::shared_ptr<Observer> observer_ = std::make_shared<Observer>();
  std::shared_ptr<QELNKLegacyServer> server_;
  std::map<QELNKLegacyStream *, Link> links_;
  int64_t connections_ = 0, broadcast_ = 0, beats_ = 0;
  Time heartbeatAt_;
};

/// What one client hears, on the main thread or on its connection's.
struct Player final : QELNKLegacyClientDelegate {
  using QELNKLegacyClientDelegate::networkClient;
  std::mutex mutex;
  int64_t connection = 0, read = 0, written = 0, broadcast = 0;  // of this connection
  bool mayWrite = true, released = false;

  void networkClientIsReady(const Client &) override {
    ++counters().ready;
    begin();
  }
  void networkClient(const Client &, const std::string &text) override {
    std::lock_guard lock(mutex);
    if (released) finding("legacy-clients", "a client was told \"" + text + "\" after it had gone");
    const Line line = Line::of(text);
    int64_t &last = line.kind == 'b' ? broadcast : read;
    const bool isFirst = line.kind == 'b' ? broadcast == 0 : connection == 0 && line.number == 1;
    if (isFirst && line.kind == 's') connection = line.connection;
    const bool isExpected = isFirst || (line.number == last + 1 && (line.kind == 'b' || line.connection == connection));
    if (line.kind == 0 || line.kind == 'c' || !isExpected)
      finding("legacy-clients", "\"" + text + "\" came on connection " + std::to_string(connection) + " after number " +
                                    std::to_string(last));
    last = line.number;
    ++counters().read;
  }
  void networkClient(const Client &, const qelnk::Data &block, const std::string &contentType) override {
    if (block.size() != previewSize || contentType != "image/jpeg" || block[0] != 'j' || block[previewSize - 1] != 'j')
      finding("legacy-clients", "a block of " + std::to_string(block.size()) + " bytes is not as it was written");
    ++counters().blocks;
  }
  void networkClient(const Client &, const QELProjectTimecode &time, const std::optional<std::string> &) override {
    if (!time.isValid()) finding("legacy-clients", "a heartbeat without a timecode: " + time.XMLRepresentation());
  }
  void networkClientWasTerminated(const Client &, bool) override {
    failure("legacy-clients", "a connection has ended");
    begin();
  }
  void networkClient(const Client &, int64_t error, bool) override {
    failure("legacy-clients", "connecting failed with error " + std::to_string(error));
  }
  void networkClientHeartbeatNotification(const Client &, bool lost) override {
    if (lost) failure("legacy-clients", "heartbeats are missing");
  }
  void networkClientServiceUpdatedTXTRecordData(const Client &) override {}

  void begin() {
    std::lock_guard lock(mutex);
    connection = read = written = broadcast = 0;
    mayWrite = true;
  }
  void writeNoMore() {
    std::lock_guard lock(mutex);
    mayWrite = false;
  }
  void write(QELNKLegacyClient &client) {
    std::lock_guard lock(mutex);
    if (connection == 0 || !mayWrite || !client.writeString(Line::text('c', connection, written + 1))) return;
    ++written;
    ++counters().written;
  }
};

class LegacyClients final : public Part {
 public:
  explicit LegacyClients(const Setting &setting) : Part(setting), players_(size_t(setting.count)) {}

  void beat() override {
    ++beats_;
    for (size_t i = 0; i < players_.size(); ++i) {
      Seat &seat = players_[i];
      if (seat.client && (!goes() || now() > seat.end))
        letGo(seat);
      else if (seat.client && int64_t(i) % (10 * setting_.pace) == beats_ % (10 * setting_.pace))
        seat.player->write(*seat.client);
      else if (!seat.client && goes() && oneIn(20))
        seat = make();
    }
  }
  bool isQuiet() const override {
    return std::none_of(players_.begin(), players_.end(), [](auto &seat) { return seat.client; });
  }

 private:
  struct Seat {
    std::shared_ptr<QELNKLegacyClient> client;
    std::shared_ptr<Player> player;
    bool onMain = false;
    Time end;
  };

  Seat make() {
    Seat seat{nullptr, std::make_shared<Player>(), oneIn(2), after(2'000, 40'000)};
    Value options =
        seat.onMain ? QELNKLegacyClient::defaultConnectOptions() : QELNKLegacyClient::defaultIngestOptions();
    options.set("maximumOutgoingLength", 1 << 20);
    seat.client = QELNKLegacyClient::create("Player " + std::to_string(++names_), "127.0.0.1", uint64_t(setting_.port),
                                            seat.player, options);
    seat.client->connect();
    return seat;
  }

  void letGo(Seat &seat) {
    if (goes() && oneIn(5)) {  // the same client connects again
      seat.client->disconnect();
      seat.player->writeNoMore();  // it still hears what has come before
      seat.end = after(2'000, 20'000);
      return seat.client->connect();
    }
    const bool disconnects = oneIn(2);
    if (disconnects)
      seat.client->disconnect();
    else if (oneIn(2))
      seat.client->cancelConnectAttempt();
    seat.client = nullptr;
    {
      std::lock_guard lock(seat.player->mutex);
      seat.player->released = seat.onMain || disconnects;
    }
    seat.player = nullptr;
  }

  std::vector<Seat> players_;
  int64_t names_ = 0, beats_ = 0;
};

}  // namespace

std::unique_ptr<Part> legacyServer(const Setting &setting) { return std::make_unique<LegacyServer>(setting); }
std::unique_ptr<Part> legacyClients(const Setting &setting) { return std::make_unique<LegacyClients>(setting); }

}  // namespace soak
