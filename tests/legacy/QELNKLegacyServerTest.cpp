#include <QELNetworkKit/QELNKLegacyServer.h>
#include <gtest/gtest.h>

#include "legacy/Observers.h"
#include "support/TestSupport.h"

using namespace qelnk;
using namespace qelnk::test;

namespace {

struct Service {
  explicit Service(const Value &options = QELNKLegacyStream::defaultPlayoutOptionsForAppID("test"))
      : server(QELNKLegacyServer::create("Studio", 0, options)) {
    server->setDelegate(observer);
    Error error;
    EXPECT_TRUE(server->start(&error)) << error.description;
  }
  std::shared_ptr<ServerObserver> observer = std::make_shared<ServerObserver>();
  std::shared_ptr<QELNKLegacyServer> server;
};

struct Guest {
  explicit Guest(uint16_t port,
                 const Value &options = with(QELNKLegacyClient::defaultPlayoutOptions(), "appID", "guest"),
                 const std::string &host = "localhost")
      : client(QELNKLegacyClient::create("guest", host, port, observer, options)) {
    client->connect();
  }
  std::shared_ptr<ClientObserver> observer = std::make_shared<ClientObserver>();
  std::shared_ptr<QELNKLegacyClient> client;
};

}  // namespace

class LegacyPair : public testing::TestWithParam<bool> {
 protected:
  Value serverOptions() const {
    return GetParam() ? QELNKLegacyStream::defaultIngestOptions()
                      : QELNKLegacyStream::defaultPlayoutOptionsForAppID("server");
  }
  Value clientOptions() const {
    return GetParam() ? QELNKLegacyClient::defaultIngestOptions()
                      : with(QELNKLegacyClient::defaultPlayoutOptions(), "appID", "guest");
  }
};

TEST_P(LegacyPair, ExchangesEverything) {
  Service service(serverOptions());
  Guest a(service.server->port(), clientOptions()), b(service.server->port(), clientOptions(), "127.0.0.1");
  ASSERT_TRUE(eventually([&] { return a.observer->has("ready") && b.observer->has("ready"); }));
  ASSERT_TRUE(eventually([&] { return service.observer->count("ready") == 2; }));
  service.server->writeString("to all");
  service.server->sendHeartbeatAtTimecode(QELProjectTimecode(10, 0, 0, 5, 25), "on air");
  service.server->sendHeartbeatAtTimecode(QELProjectTimecode(10, 0, 0, 6, 25));
  service.server->writeBinaryData(Data(std::string(100000, '\0')), "image/jpeg; a b", true);
  EXPECT_TRUE(a.client->writeString("from a"));
  EXPECT_TRUE(b.client->writeBinaryData(Data("xyz"), "nobody gets it", false));
  EXPECT_TRUE(b.client->writeString("from b"));
  for (auto *guest : {&a, &b}) {
    EXPECT_TRUE(eventually([&] { return guest->observer->has("binary image/jpeg; a b 100000"); }));
    EXPECT_EQ(guest->observer->all(),
              (std::vector<std::string>{"ready", "string to all", "heartbeat 10:00:00:05 25 | on air",
                                        "heartbeat 10:00:00:06 25", "binary image/jpeg; a b 100000"}));
    EXPECT_EQ(guest->client->peerAppID(), GetParam() ? QELNKLegacyStream::ingestAppID() : "server");
  }
  EXPECT_TRUE(
      eventually([&] { return service.observer->has("string from a") && service.observer->has("string from b"); }));
  a.client->disconnect();
  EXPECT_TRUE(eventually([&] { return service.server->streams().size() == 1; }));
  EXPECT_EQ(service.observer->count("terminated"), 1u);
  service.server->stop();
  EXPECT_TRUE(eventually([&] { return b.observer->has(GetParam() ? "terminated 1" : "terminated 0"); }));
}

INSTANTIATE_TEST_SUITE_P(, LegacyPair, testing::Bool(),
                         [](const auto &info) { return info.param ? "Ingest" : "Playout"; });
