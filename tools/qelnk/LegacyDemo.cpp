#include "LegacyDemo.h"

#include <QELNetworkKit/QELNKLegacyClient.h>
#include <QELNetworkKit/QELNKLegacyServer.h>
#include <QELNetworkKit/RunLoop.h>

#include <algorithm>
#include <array>
#include <vector>

#include "Demonstration.h"
#include "LegacyView.h"

namespace tool {
namespace {

using Client = std::shared_ptr<QELNKLegacyClient>;
using Stream = std::shared_ptr<QELNKLegacyStream>;
using Strings = std::vector<std::string>;

constexpr size_t blockSize = 300'000;  // more than one write, or one read, takes
constexpr size_t heartbeatsSent = 3;
constexpr std::chrono::milliseconds heartbeatInterval(100);

/// Shows what a client hears, and keeps it.
class ClientObserver : public QELNKLegacyClientDelegate {
 public:
  explicit ClientObserver(Output &output) : output_(output) {}

  void networkClientIsReady(const Client &client) override {
    onMainThread([&] {
      isReady = true;
      showReady(output_, *client);
    });
  }
  void networkClient(const Client &, const std::string &receivedString) override {
    onMainThread([&] {
      strings.push_back(receivedString);
      showString(output_, receivedString);
    });
  }
  void networkClient(const Client &, const qelnk::Data &data, const std::string &contentType) override {
    onMainThread([&] {
      blocks.emplace_back(contentType, data);
      showBinary(output_, data, contentType);
    });
  }
  void networkClient(const Client &, const QELProjectTimecode &timecode,
                     const std::optional<std::string> &information) override {
    onMainThread([&] {
      heartbeats.push_back(timecode.XMLRepresentation());
      showHeartbeat(output_, timecode, information);
    });
  }
  void networkClientWasTerminated(const Client &, bool willReconnect) override {
    onMainThread([&] { showTerminated(output_, willReconnect); });
  }
  void networkClient(const Client &, int64_t connectError, bool willRetry) override {
    onMainThread([&] { showConnectError(output_, connectError, willRetry); });
  }
  void networkClientHeartbeatNotification(const Client &, bool lost) override {
    onMainThread([&] { showLostHeartbeat(output_, lost); });
  }
  void networkClientServiceUpdatedTXTRecordData(const Client &) override {}

  bool isReady = false;
  Strings strings, heartbeats;
  std::vector<std::pair<std::string, qelnk::Data>> blocks;

 private:
  Output &output_;
};

class ServerObserver : public QELNKLegacyServerDelegate {
 public:
  explicit ServerObserver(Output &output) : output_(output) {}

  void networkService(const Server &, const Stream &, const std::string &receivedString) override {
    strings.push_back(receivedString);
    showString(output_, receivedString);
  }
  void networkService(const Server &, const Stream &, const QELProjectTimecode &,
                      const std::optional<std::string> &) override {}
  void networkServiceNetworkStreamIsReady(const Server &, const Stream &stream) override {
    applications.push_back(stream->peerAppID().value_or(""));
    showReady(output_, *stream);
  }
  void networkServiceNetworkStreamWasTerminated(const Server &, const Stream &) override {
    ++terminated;
    showTerminated(output_);
  }

  Strings strings, applications;
  size_t terminated = 0;

 private:
  Output &output_;
};

/// The demonstration of legacy connections: two applications of different kinds connect to a third.
class LegacyDemo : private Demonstration {
 public:
  explicit LegacyDemo(Invocation &invocation)
      : Demonstration(invocation),
        served_(std::make_shared<ServerObserver>(output_)),
        heard_{std::make_shared<ClientObserver>(output_), std::make_shared<ClientObserver>(output_)} {}

  void run() {
    listen();
    connect();
    exchangeStrings();
    sendBlock();
    sendHeartbeats();
    disconnect();
  }

 private:
  bool all(const std::function<bool(const ClientObserver &)> &condition) const {
    return std::all_of(heard_.begin(), heard_.end(), [&](const auto &observer) { return condition(*observer); });
  }

  void listen() {
    server_ = QELNKLegacyServer::create(
        "Demo", 0, QELNKLegacyStream::defaultPlayoutOptionsForAppID(QELNKLegacyStream::playoutAppID()));
    server_->setDelegate(served_);
    qelnk::Error error;
    if (!server_->start(&error)) throw Failure(Exit::failed, "the legacy server cannot listen: " + error.description);
    step("a legacy server, a playout application, listens on port " + std::to_string(server_->port()));
  }

  /// A client on the shared thread, and one with a thread of its own.
  void connect() {
    step("two clients connect and shake hands: an ingest application and a control application");
    const auto add = [&](size_t index, const char *name, const qelnk::Value &options) {
      clients_[index] = QELNKLegacyClient::create(name, "127.0.0.1", server_->port(), heard_[index], options);
      clients_[index]->connect();
    };
    add(0, "ingest", QELNKLegacyClient::defaultIngestOptions());
    add(1, "connect", QELNKLegacyClient::defaultConnectOptions());
    expect("both clients are ready", [&] { return all([](auto &heard) { return heard.isReady; }); });
    expect("the server has both connections", [&] { return served_->applications.size() == 2; });
    for (const Client &client : clients_)
      if (client->peerAppID() != QELNKLegacyStream::playoutAppID())
        throw Failure(Exit::failed, "a client takes the server for another application");
    std::sort(served_->applications.begin(), served_->applications.end());
    if (served_->applications != Strings{QELNKLegacyStream::connectAppID(), QELNKLegacyStream::ingestAppID()})
      throw Failure(Exit::failed, "the server takes a client for another application");
  }

  void exchangeStrings() {
    step("the server writes a string to both, and each client one to the server");
    server_->writeString("on air: Evening news");
    clients_[0]->writeString("clip 7 is ingested");
    clients_[1]->writeString("take next");
    expect("both clients get the string",
           [&] { return all([](auto &heard) { return heard.strings == Strings{"on air: Evening news"}; }); });
    expect("the server gets both strings", [&] { return served_->strings.size() == 2; });
    std::sort(served_->strings.begin(), served_->strings.end());
    if (served_->strings != Strings{"clip 7 is ingested", "take next"})
      throw Failure(Exit::failed, "the server got other strings");
  }

  void sendBlock() {
    step("the server sends a preview, a binary block of " + std::to_string(blockSize) + " bytes");
    std::string bytes(blockSize, 0);
    for (size_t index = 0; index < blockSize; ++index) bytes[index] = char(index * index >> 8);
    const qelnk::Data block(bytes);
    server_->writeBinaryData(block, "preview jpeg", true);
    expect("both clients get the block", [&] { return all([](auto &heard) { return !heard.blocks.empty(); }); });
    if (!all([&](auto &heard) { return heard.blocks.front() == std::pair(std::string("preview jpeg"), block); }))
      throw Failure(Exit::failed, "the block did not arrive as it was sent");
  }

  void sendHeartbeats() {
    step("the server sends heartbeats with the time of day");
    Strings sent;
    const auto loop = qelnk::RunLoop::main();
    const auto timer = loop->performAfter(
        {},
        [&] {
          if (sent.size() == heartbeatsSent) return;
          const auto timecode = QELProjectTimecode::timeOfDay(loop->clock()->wallTime());
          sent.push_back(timecode.XMLRepresentation());
          server_->sendHeartbeatAtTimecode(timecode);
        },
        heartbeatInterval);
    const std::shared_ptr<void> atEnd(nullptr, [&timer](void *) { timer->cancel(); });
    expect("both clients get " + std::to_string(heartbeatsSent) + " heartbeats",
           [&] { return all([](auto &heard) { return heard.heartbeats.size() >= heartbeatsSent; }); });
    if (!all([&](auto &heard) { return heard.heartbeats == sent; }))
      throw Failure(Exit::failed, "other heartbeats arrived than were sent");
  }

  void disconnect() {
    step("the clients disconnect");
    for (const Client &client : clients_) client->disconnect();
    expect("the server hears of both", [&] { return served_->terminated == 2; });
    expect("the server has no connection left", [&] { return server_->streams().empty(); });
    server_->stop();
    step("the server has stopped; no connection is left");
  }

  const std::shared_ptr<ServerObserver> served_;
  const std::array<std::shared_ptr<ClientObserver>, 2> heard_;
  std::shared_ptr<QELNKLegacyServer> server_;
  std::array<Client, 2> clients_;
};

}  // namespace

void runLegacyDemo(Invocation &invocation) { LegacyDemo(invocation).run(); }

}  // namespace tool
