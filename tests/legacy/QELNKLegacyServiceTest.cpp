// Services of the legacy protocol with the real discovery daemon, on machines of their own.

#include <QELNetworkKit/QELNKLegacyClient.h>
#include <QELNetworkKit/QELNKLegacyService.h>
#include <QELNetworkKit/RunLoop.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "legacy/Observers.h"
#include "legacy/RawPeer.h"
#include "platform/HostLookup.h"
#include "platform/ListeningSocket.h"
#include "platform/SocketAddress.h"
#include "support/AvahiNetwork.h"
#include "support/TestSupport.h"

using namespace qelnk;
using namespace qelnk::test;
using namespace std::chrono_literals;

namespace {

constexpr const char *type = "_qelnklegacy._tcp";
constexpr const char *theirName = "Their studio";
constexpr const char *roleVariable = "QELNK_TEST_SERVICE";

/// Daemons take their time, and more on a machine that is busy.
bool inTime(const std::function<bool()> &condition) { return eventually(condition, 30s); }

/// The service on the other machine, in a program of its own. It tells each client the address that it sees it at, and
/// does what it is told.
class TheirService final : public QELNKLegacyServerDelegate {
 public:
  static void run() {
    const auto observer = std::make_shared<TheirService>();
    observer->service_ =
        QELNKLegacyService::create("", type, theirName, 0, QELNKLegacyStream::defaultPlayoutOptionsForAppID("theirs"));
    observer->service_->setDelegate(observer);
    if (!observer->service_->start()) return;
    observer->service_->setTXTRecordDictionary({{"take", "1"}});
    RunLoop::main()->run();
  }
  void networkService(const Server &, const Stream &, const std::string &string) override {
    if (string == "quit")
      RunLoop::main()->stop();
    else if (string == "heartbeat")
      service_->sendHeartbeatAtTimecode(QELProjectTimecode(10, 0, 0, 0, 25), "on air");
    else
      service_->setTXTRecordDictionary({{"take", string}});
  }
  void networkService(const Server &, const Stream &, const QELProjectTimecode &,
                      const std::optional<std::string> &) override {}
  void networkServiceNetworkStreamIsReady(const Server &, const Stream &stream) override {
    stream->writeString("you are " + stream->peerAddress().value_or("nobody"));
  }
  void networkServiceNetworkStreamWasTerminated(const Server &, const Stream &) override {}

 private:
  std::shared_ptr<QELNKLegacyService> service_;
};

/// Started again with the variable set, this program is the other machine's.
class Role final : public testing::Environment {
  void SetUp() override {
    if (!std::getenv(roleVariable)) return;
    TheirService::run();
    std::exit(0);
  }
};
[[maybe_unused]] const auto *const role = testing::AddGlobalTestEnvironment(new Role);

std::shared_ptr<Process> startTheirService(const AvahiMachine &machine) {
  return machine.start("env " + std::string(roleVariable) + "=1 '" +
                       std::filesystem::read_symlink("/proc/self/exe").string() + "'");
}

/// Sockets that this thread makes, and the threads that it starts, are the machine's.
class On {
 public:
  explicit On(const AvahiMachine &machine) : own_(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
    const int theirs = open(("/proc/" + std::to_string(machine.pid()) + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(setns(theirs, CLONE_NEWNET), 0);
    close(theirs);
  }
  ~On() {
    setns(own_, CLONE_NEWNET);
    close(own_);
  }
  On(const On &) = delete;
  On &operator=(const On &) = delete;

 private:
  const int own_;
};

/// A client whose thread is the machine's that it was made on.
struct Guest {
  explicit Guest(const std::shared_ptr<NetService> &service)
      : client(QELNKLegacyClient::create(service, observer, QELNKLegacyClient::defaultIngestOptions())) {}
  Guest(const std::string &host, uint16_t port, const Value &options = QELNKLegacyClient::defaultIngestOptions())
      : client(QELNKLegacyClient::create(host, host, port, observer, options)) {
    client->connect();
  }
  bool hears(const std::string &text) const {
    return inTime([&] { return observer->has(text); });
  }
  bool hasRecord(const std::string &take) const {
    return inTime([&] { return client->serviceTXTRecordDictionary() == TXTRecordDictionary{{"take", take}}; });
  }

  std::shared_ptr<ClientObserver> observer = std::make_shared<ClientObserver>();
  std::shared_ptr<QELNKLegacyClient> client;
};

class LegacyService : public testing::Test {
 protected:
  void SetUp() override {
    if (!AvahiNetwork::missing().empty()) GTEST_SKIP() << AvahiNetwork::missing();
    RunLoop::main()->setClock(clock);  // searches and connections have all the time that they need
  }
  void makeNetwork(int cables) { network_ = std::make_unique<AvahiNetwork>(cables); }
  void TearDown() override {
    RunLoop::main()->setClock(Clock::system());
    if (!HasFailure() || !network_) return;
    std::fprintf(stderr, "%s", network_->alpha().log().c_str());
    for (const auto &line : log.lines()) std::fprintf(stderr, "%s\n", line.c_str());
  }
  AvahiMachine &alpha() { return network_->alpha(); }
  AvahiMachine &beta() { return network_->beta(); }
  bool logs(const std::string &text, size_t times = 1) {
    return inTime([&] { return log.count(text) == times; });
  }
  static std::shared_ptr<QELNKLegacyService> makeService(const std::string &kind, const std::string &name,
                                                         uint16_t port = 0) {
    return QELNKLegacyService::create("", kind, name, port, QELNKLegacyStream::defaultIngestOptions());
  }

  const CapturedLog log;
  const std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::unique_ptr<AvahiNetwork> network_;
};

/// What is known of a host now.
std::vector<std::string> addressesOf(const std::string &host) {
  std::optional<std::vector<std::string>> found;
  const auto lookup = HostLookup::start(host, 1, RunLoop::current(),
                                        [&](const auto &addresses, std::error_code) { found = addresses; });
  inTime([&] { return found.has_value(); });
  return found.value_or(std::vector<std::string>());
}

/// From here on this thread, and those that it starts, are on a machine that has never heard of IPv6.
void forgetIPv6() {
  std::array filter{sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                    sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_socket, 0, 3),
                    sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args)),
                    sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_INET6, 0, 1),
                    sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAFNOSUPPORT),
                    sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog program{filter.size(), filter.data()};
  ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

}  // namespace

TEST_F(LegacyService, MachinesFindEachOther) {
  makeNetwork(1);
  network_->startAll();
  auto theirs = startTheirService(beta());
  const auto observer = std::make_shared<ServerObserver>();
  const auto ours = makeService(type, "");
  ours->setDelegate(observer);
  {
    const On machine(alpha());
    ASSERT_TRUE(ours->start());
  }
  ours->setTXTRecordDictionary({{"who", "us"}});

  // Found, connected to and followed, by IPv6.
  const auto make = [&] {
    const On machine(alpha());
    return Guest(NetService::create("", type, theirName));
  };
  auto guest = make();
  EXPECT_TRUE(log.contains("Trying to resolve net service Their studio"));
  ASSERT_TRUE(guest.hears("string you are fe80::1"));
  EXPECT_EQ(guest.client->name(), theirName);
  EXPECT_EQ(guest.client->host(), "beta.local");
  EXPECT_EQ(guest.client->peerAppID(), "theirs");
  EXPECT_EQ(guest.client->peerIPv4Address(), "10.77.0.2");
  EXPECT_TRUE(guest.hears("txt"));
  EXPECT_TRUE(guest.hasRecord("1"));
  EXPECT_TRUE(guest.client->writeString("2") && guest.client->writeString("heartbeat"));
  EXPECT_TRUE(guest.hears("heartbeat 10:00:00:00 25 | on air"));
  EXPECT_TRUE(guest.hasRecord("2"));
  EXPECT_EQ(guest.client->serviceTXTRecordData(), Data("\6take=2"));
  EXPECT_EQ(guest.observer->count("ready"), 1u);

  // Ours, seen from there.
  const std::string name = QELNKLegacyService::defaultPublishingName();
  EXPECT_TRUE(logs(fmt::format("Published net service {} on port {}", name, ours->port())));
  EXPECT_TRUE(log.contains(fmt::format("Publishing net service {} (port = {})", name, ours->port())));
  const std::string seen = beta().outputOf(fmt::format("avahi-browse -rpt {}", type));
  EXPECT_NE(seen.find(fmt::format(";local;alpha.local;10.77.0.1;{};\"who=us\"", ours->port())), std::string::npos)
      << seen;
  const auto fromThere = [&] {
    const On machine(beta());
    return Guest("10.77.0.1", ours->port());
  }();
  EXPECT_TRUE(fromThere.hears("ready"));
  EXPECT_TRUE(inTime([&] { return observer->has("ready"); }));
  ours->stop();
  EXPECT_TRUE(inTime([&] {
    return beta().outputOf(fmt::format("avahi-browse -pt {}", type)).find(name) == std::string::npos;
  })) << "withdrawn";

  // Theirs comes back elsewhere: the service follows it, and the client goes where that is when it is told to.
  const uint64_t port = guest.client->port();
  guest.client->writeString("quit");
  EXPECT_TRUE(guest.hears("terminated 1"));
  theirs->waitUntilExit();
  EXPECT_EQ(theirs->status()->code, 0);
  guest.client->disconnect();
  theirs = startTheirService(beta());
  EXPECT_TRUE(inTime([&] { return guest.client->netService()->port() != port; }));
  EXPECT_TRUE(guest.hasRecord("1"));
  guest.client->setNetService(guest.client->netService());
  EXPECT_TRUE(inTime([&] { return guest.observer->count("string you are fe80::1") == 2; }));
  EXPECT_NE(guest.client->port(), port);
  guest.client->writeString("quit");
  theirs->waitUntilExit();
}

TEST_F(LegacyService, TriesTheAddressesOfAName) {
  makeNetwork(1);
  network_->startAll();
  const auto theirs = startTheirService(beta());
  const auto service = NetService::create("", type, theirName);
  service->resolveWithTimeout(20s);
  ASSERT_TRUE(inTime([&] { return service->addresses().size() == 2; }));
  const uint16_t port = service->port();
  const auto guestOf = [&](const std::string &host, uint16_t at) {
    const On machine(alpha());
    return Guest(host, at);
  };
  const auto overIPv6 = "string you are fe80::1", overIPv4 = "string you are 10.77.0.1";
  ASSERT_TRUE(inTime([&] { return addressesOf("beta.local").size() == 2; }));
  EXPECT_TRUE(guestOf("beta.local", port).hears(overIPv6));
  EXPECT_TRUE(guestOf("fe80::2%ve0", port).hears(overIPv6));

  // IPv6 refuses, does not answer, is nowhere.
  {
    const On machine(beta());
    std::error_code error;
    const auto ipv4Only = ListeningSocket::create(ListeningSocket::Family::ipv4, error);
    std::vector<std::unique_ptr<RawPeer>> accepted;
    ASSERT_FALSE(ipv4Only->bind(0));
    ASSERT_FALSE(ipv4Only->accept(RunLoop::main(), [&](int socket, const std::string &) {
      accepted.push_back(std::make_unique<RawPeer>(streamsWithSocket(socket)));
    }));
    const auto guest = guestOf("beta.local", ipv4Only->port());
    ASSERT_TRUE(inTime([&] { return !accepted.empty(); }));
    accepted.front()->send(handshakeBytes("peer", "", "app"));
    EXPECT_TRUE(guest.hears("ready"));
    EXPECT_EQ(guest.observer->all(), std::vector<std::string>{"ready"}) << "nothing of the refusal";
  }
  alpha().outputOf("ip neighbour replace fe80::2 lladdr 02:00:00:00:00:99 dev ve0 nud permanent");
  EXPECT_TRUE(guestOf("beta.local", port).hears(overIPv4));
  alpha().outputOf("ip neighbour del fe80::2 dev ve0; ip -6 route del fe80::/64 dev ve0");
  EXPECT_TRUE(guestOf("beta.local", port).hears(overIPv4));
  alpha().outputOf("ip -6 route add fe80::/64 dev ve0");

  // The name leads to a link-local address alone; the machine still has the other one.
  service->stop();
  beta().outputOf(
      "ip address del 10.77.0.2/24 dev ve0; ip address add 10.77.0.2/32 dev lo; "
      "ip route add 10.77.0.0/24 dev ve0");
  alpha().endDaemon();  // and what it remembers
  alpha().startDaemon();
  ASSERT_TRUE(inTime([&] { return !alpha().outputOf("avahi-resolve -6 -n beta.local").empty(); }));
  ASSERT_TRUE(inTime([&] { return addressesOf("beta.local").size() == 1; }));
  EXPECT_TRUE(guestOf("beta.local", port).hears(overIPv6));

  // No port of ours is left for IPv6: a service's client goes to the IPv4 address that the service told, once.
  alpha().outputOf("echo '40000 40000' >/proc/sys/net/ipv4/ip_local_port_range");
  const auto holder = guestOf("fe80::2%ve0", port);
  ASSERT_TRUE(holder.hears(overIPv6));
  const auto guest = [&] {
    const On machine(alpha());
    return Guest(service);
  }();
  EXPECT_TRUE(guest.hears(overIPv4));
  EXPECT_EQ(log.count("Address not available, attempting IPv4 fallback"), 1u);
  EXPECT_TRUE(log.contains(fmt::format("connecting to 10.77.0.2:{}...", port)));
  EXPECT_FALSE(guest.observer->has("terminated 1"));
  guest.client->disconnect();
  guest.client->connect();
  EXPECT_TRUE(guest.hears("terminated 1"));
  EXPECT_TRUE(log.contains("NSStreamEventErrorOccurred: Cannot assign requested address"));
  EXPECT_EQ(log.count("attempting IPv4 fallback"), 1u);
  guest.client->disconnect();
}

TEST_F(LegacyService, ServesWithoutADaemonAndIsPublishedWhenThereIsOne) {
  makeNetwork(0);
  const auto observer = std::make_shared<ServerObserver>();
  auto service = makeService(type, "Ours");
  service->setDelegate(observer);
  Error error{"before", 1, "", {}};
  ASSERT_TRUE(service->start(&error));
  EXPECT_EQ(error.code, 0);
  service->setTXTRecordDictionary({{"take", "1"}});
  EXPECT_TRUE(logs("Error publishing net service Ours (Daemon not running)"));
  const Guest guest("localhost", service->port());
  EXPECT_TRUE(guest.hears("ready"));

  // Nobody is found; there is nothing to be told of it, and nothing is tried.
  const Guest lost(NetService::create("", type, "Nobody"));
  const auto notFound = [&] {
    clock->advance(4999ms);
    RunLoop::main()->runOnce(0ns);
    EXPECT_FALSE(log.contains("Could not resolve"));
    clock->advance(1ms);
  };
  EXPECT_TRUE(inTime([&] { return log.count("waits for its daemon") == 1; }));
  notFound();
  EXPECT_TRUE(logs("Could not resolve: "));
  clock->advance(1h);

  // Published by itself, time and again; the connection has nothing to do with it.
  const auto isPublished = [&](size_t times, const std::string &record) {
    return logs(fmt::format("Published net service Ours on port {}", service->port()), times) &&
           alpha().outputOf(fmt::format("avahi-browse -rpt {}", type))
                   .find(fmt::format(";alpha.local;127.0.0.1;{};\"take={}\"", service->port(), record)) !=
               std::string::npos;
  };
  network_->startAll();
  EXPECT_TRUE(isPublished(1, "1"));
  alpha().endDaemon(SIGKILL);
  service->setTXTRecordDictionary({{"take", "2"}});
  alpha().startDaemon();
  EXPECT_TRUE(isPublished(2, "2"));
  EXPECT_EQ(log.count("Error publishing"), 1u);
  EXPECT_EQ(guest.observer->all(), std::vector<std::string>{"ready"});
  EXPECT_TRUE(guest.client->writeString("still here"));
  EXPECT_TRUE(inTime([&] { return observer->has("string still here"); }));
  EXPECT_TRUE(lost.observer->all().empty());

  // The same port once more is not published; nor is what has no type, which a service that was stopped has not.
  const auto taken = makeService(type, "Taken", service->port());
  EXPECT_FALSE(taken->start(&error));
  EXPECT_EQ(error.code, 1);
  EXPECT_EQ(taken->netService(), nullptr);
  service->stop();
  EXPECT_EQ(service->netService(), nullptr);
  EXPECT_TRUE(service->start());
  const auto silent = makeService("", "");
  EXPECT_TRUE(silent->start());
  for (const auto &each : {service, silent}) {
    EXPECT_EQ(each->netService(), nullptr);
    each->setTXTRecordDictionary({{"take", "3"}});
    EXPECT_TRUE(Guest("localhost", each->port()).hears("ready"));
  }
  EXPECT_EQ(log.count("Publishing net service"), 1u);
}

TEST_F(LegacyService, BothSidesNoticeThatACableWasPulled) {
  makeNetwork(1);
  // What takes hours, and a quarter of one.
  beta().outputOf(
      "cd /proc/sys/net/ipv4; for each in tcp_keepalive_time tcp_keepalive_intvl tcp_keepalive_probes; do "
      "echo 1 >$each; done; echo 3 >tcp_retries2");
  const auto server = makeService("", "");
  {
    const On machine(beta());
    ASSERT_TRUE(server->start());
  }
  const On machine(alpha());
  const Guest guest("10.77.0.2", server->port(),
                    with(QELNKLegacyClient::defaultConnectOptions(), "multiThreaded", true));
  EXPECT_TRUE(inTime([&] {
    server->sendHeartbeatAtTimecode(QELProjectTimecode());
    return guest.observer->has("heartbeat 00:00:00:00 25");
  }));
  alpha().outputOf("ip link set ve0 down");
  EXPECT_TRUE(guest.hears("lost 1") && guest.hears("terminated 1"));
  EXPECT_TRUE(inTime([&] { return log.count("connecting to 10.77.0.2") >= 3; })) << "it tries";
  EXPECT_TRUE(inTime([&] { return server->streams().empty(); }));
  alpha().outputOf("ip link set ve0 up");
  EXPECT_TRUE(inTime([&] { return guest.client->isReady(); }));
  EXPECT_TRUE(inTime([&] {
    server->writeString("back");
    return guest.observer->has("string back");
  }));
  EXPECT_EQ(guest.observer->count("terminated 1"), 1u);
  EXPECT_EQ(server->streams().size(), 1u);
}

TEST_F(LegacyService, WithoutIPv6) {
  // Switched off: there is no IPv6 address, and IPv4 serves.
  makeNetwork(1);
  for (const auto *machine : {&alpha(), &beta()}) machine->outputOf("echo 1 >/proc/sys/net/ipv6/conf/all/disable_ipv6");
  const auto switchedOff = makeService("", "");
  {
    const On machine(beta());
    ASSERT_TRUE(switchedOff->start());
  }
  {
    const On machine(alpha());
    EXPECT_TRUE(Guest("10.77.0.2", switchedOff->port()).hears("ready"));
    const Guest guest("::1", switchedOff->port());
    EXPECT_TRUE(guest.hears("terminated 1"));
    EXPECT_TRUE(log.contains("NSStreamEventErrorOccurred: Cannot assign requested address"));
    EXPECT_FALSE(log.contains("IPv4 fallback"));
  }

  // Not built in: a server cannot be, which it says; a client takes the next address.
  const auto server = makeService("", "");
  ASSERT_TRUE(server->start());
  const auto unable = makeService(type, "Unable");
  std::optional<Guest> ipv6, ipv4;
  std::thread([&] {
    forgetIPv6();
    const size_t descriptors = descriptorCount();
    Error error;
    EXPECT_FALSE(unable->start(&error));
    EXPECT_EQ(error.domain, "QELNKTCPServerErrorDomain");
    EXPECT_EQ(error.code, QELNKLegacyServer::noSocket);
    EXPECT_EQ(error.description, "Address family not supported by protocol");
    EXPECT_LE(descriptorCount(), descriptors);  // what the first guest had may just have gone
    EXPECT_EQ(unable->netService(), nullptr);
    ipv6.emplace("::1", server->port());
    ipv4.emplace("localhost", server->port());
  }).join();
  EXPECT_TRUE(ipv6->hears("terminated 1"));
  EXPECT_TRUE(log.contains("NSStreamEventErrorOccurred: Address family not supported by protocol"));
  EXPECT_TRUE(ipv4->hears("ready"));
}
