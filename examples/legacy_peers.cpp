// Two ends of a legacy connection: a studio that listens and sends heartbeats, and a player that gives it an order.
// Change first: the application IDs in the options, by which the two ends introduce themselves.

#include <QELNetworkKit/QELNetworkKit.h>

#include <chrono>
#include <cstdio>

using namespace std::chrono_literals;

// With these options everything below is called on the main thread.
struct Studio final : QELNKLegacyServerDelegate {
  void networkService(const Server &, const Stream &player, const std::string &order) override {
    std::printf("studio: \"%s\" from %s\n", order.c_str(), player->peerAppID().value_or("somebody").c_str());
    player->writeString("done: " + order);
  }
  void networkService(const Server &, const Stream &, const QELProjectTimecode &,
                      const std::optional<std::string> &) override {}
  void networkServiceNetworkStreamIsReady(const Server &, const Stream &) override { std::puts("studio: connected"); }
  void networkServiceNetworkStreamWasTerminated(const Server &, const Stream &) override { std::puts("studio: gone"); }
};

struct Player final : QELNKLegacyClientDelegate {
  using QELNKLegacyClientDelegate::networkClient;  // those that are not overridden
  bool done = false, heard = false;
  void networkClientIsReady(const Client &client) override { client->writeString("take 2"); }
  void networkClient(const Client &, const std::string &answer) override {
    std::printf("player: \"%s\"\n", answer.c_str());
    done = answer == "done: take 2";
    if (done && heard) qelnk::RunLoop::main()->stop();
  }
  void networkClient(const Client &, const QELProjectTimecode &time, const std::optional<std::string> &) override {
    std::printf("player: heartbeat at %s\n", time.XMLRepresentation().c_str());
    heard = true;
    if (done && heard) qelnk::RunLoop::main()->stop();
  }
  void networkClient(const Client &, int64_t error, bool willRetry) override {
    std::printf("player: error %d%s\n", int(error), willRetry ? ", trying again" : "");
  }
  void networkClientHeartbeatNotification(const Client &, bool lost) override { std::puts(lost ? "lost" : "back"); }
  void networkClientServiceUpdatedTXTRecordData(const Client &) override {}
};

int main() {
  const auto loop = qelnk::RunLoop::main();
  auto studio = std::make_shared<Studio>();
  auto options = QELNKLegacyStream::defaultPlayoutOptionsForAppID("com.example.studio");
  auto server = QELNKLegacyServer::create("Studio A", 0, options);
  server->setDelegate(studio);
  if (!server->start()) return 1;  // the log says why
  auto beat = loop->performAfter(
      {}, [&] { server->sendHeartbeatAtTimecode(QELProjectTimecode::timeOfDay(qelnk::Clock::system()->wallTime())); },
      500ms);

  auto player = std::make_shared<Player>();  // held by us alone: server and client do not keep their observers
  auto client = QELNKLegacyClient::create("Studio A", "localhost", server->port(), player,
                                          QELNKLegacyClient::defaultConnectOptions());
  client->connect();
  auto limit = loop->performAfter(20s, [&] { loop->stop(); });
  loop->run();
  beat->cancel();
  limit->cancel();
  client->disconnect();
  return player->done && player->heard ? 0 : 1;
}
