#include <QELNetworkKit/NetService.h>
#include <QELNetworkKit/RunLoop.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "platform/HostLookup.h"
#include "platform/SocketAddress.h"
#include "support/AvahiNetwork.h"
#include "support/TestSupport.h"

namespace qelnk {

using namespace std::chrono_literals;
using test::eventually;

namespace {

constexpr const char *type = "_qelnktest._tcp";

struct Observer final : NetServiceDelegate {
  int published = 0, notPublished = 0, resolved = 0, notResolved = 0;
  std::error_code error;
  std::vector<std::string> records;
  std::function<void(const Service &)> then = [](const Service &) {};

  void netServiceDidPublish(const Service &service) override {
    ++published;
    then(service);
  }
  void netServiceDidNotPublish(const Service &service, std::error_code why) override {
    ++notPublished;
    error = why;
    then(service);
  }
  void netServiceDidResolveAddress(const Service &service) override {
    ++resolved;
    then(service);
  }
  void netServiceDidNotResolve(const Service &service, std::error_code why) override {
    ++notResolved;
    error = why;
    then(service);
  }
  void netServiceDidUpdateTXTRecordData(const Service &service, const std::string &data) override {
    records.push_back(data);
    then(service);
  }
  int calls() const { return published + notPublished + resolved + notResolved + int(records.size()); }
};

/// A service with its observer.
struct Observed {
  std::shared_ptr<Observer> observer = std::make_shared<Observer>();
  std::shared_ptr<NetService> service;

  explicit Observed(const std::string &name, uint16_t port = 0, const std::string &kind = type,
                    const std::string &domain = "")
      : service(NetService::create(domain, kind, name, port)) {
    service->setDelegate(observer);
  }
  Observed &publish() {
    service->publish();
    return *this;
  }
  Observed &resolve(std::chrono::nanoseconds timeout = 20s) {
    service->resolveWithTimeout(timeout);
    return *this;
  }
  bool isPublished(int times = 1) const {
    return eventually([&] { return observer->published == times; });
  }
  bool isResolved() const {
    return eventually([&] { return observer->resolved == 1; });
  }
  bool hasRecord(const std::string &data) const {
    return eventually([&] { return !observer->records.empty() && observer->records.back() == data; });
  }
  bool hasAddresses(size_t count) const {
    return eventually([&] { return service->addresses().size() == count; });
  }
};

std::string record(const TXTRecordDictionary &dictionary) {
  return NetService::dataFromTXTRecordDictionary(dictionary);
}

/// Leaves neither threads nor descriptors behind.
class NetServiceTest : public testing::Test {
 protected:
  void countFromHere() {
    threads_ = test::threadCount();
    descriptors_ = test::descriptorCount();
  }
  void TearDown() override {
    if (!threads_) return;
    EXPECT_TRUE(eventually([&] { return test::threadCount() <= threads_; })) << test::threadCount();
    EXPECT_TRUE(eventually([&] { return test::descriptorCount() <= descriptors_; })) << test::descriptorCount();
  }

 private:
  size_t threads_ = 0, descriptors_ = 0;
};

/// On a network of its own.
class DiscoveryTest : public NetServiceTest {
 protected:
  bool makeNetwork(int cables) {
    if (!test::AvahiNetwork::missing().empty()) return false;
    network_ = std::make_unique<test::AvahiNetwork>(cables);
    network_->startAll();
    countFromHere();
    return true;
  }
  void TearDown() override {
    NetServiceTest::TearDown();
    if (HasFailure() && network_) std::fprintf(stderr, "%s", network_->alpha().log().c_str());
  }
  test::AvahiMachine &alpha() { return network_->alpha(); }
  test::AvahiMachine &beta() { return network_->beta(); }

  std::unique_ptr<test::AvahiNetwork> network_;
};

#define NEEDS_NETWORK(cables) \
  if (!makeNetwork(cables)) GTEST_SKIP() << test::AvahiNetwork::missing()

}  // namespace

TEST(TXTRecord, HoldsKeysWithAndWithoutValues) {
  const TXTRecordDictionary dictionary{
      {"path", "/x=y"}, {"empty", ""}, {"flag", std::nullopt}, {"bytes", std::string("\0\xff", 2)}};
  const std::string data = record(dictionary);
  EXPECT_EQ(NetService::dictionaryFromTXTRecordData(data), dictionary);
  EXPECT_EQ(record({{"flag", std::nullopt}}), "\4flag");
  EXPECT_EQ(NetService::dictionaryFromTXTRecordData("\3A=1\3a=2").at("a"), "1");
}

TEST(TXTRecord, TakesWhatCanBeReadOrWritten) {
  const test::CapturedLog log;
  const std::string longest(253, 'v');
  EXPECT_EQ(NetService::dictionaryFromTXTRecordData(record(
                {{"", "x"}, {"a=b", "x"}, {"k", longest}, {"l", longest + "v"}, {longest + "key", std::nullopt}})),
            (TXTRecordDictionary{{"k", longest}}));
  EXPECT_EQ(log.count("left the entry"), 4u);
  for (const auto &[data, size] : std::vector<std::pair<std::string, size_t>>{{"", 0},
                                                                              {std::string(1, '\0'), 0},
                                                                              {"\3=ab", 0},
                                                                              {"\5a=", 0},
                                                                              {"\1a\377b", 1},
                                                                              {std::string("\1a\0\1b", 5), 2}})
    EXPECT_EQ(NetService::dictionaryFromTXTRecordData(data).size(), size) << data;
}

TEST_F(NetServiceTest, WithoutABusItIsToldOnceAndTriedQuietly) {
  const test::SystemBus none;
  const auto clock = std::make_shared<ManualClock>();
  RunLoop::current()->setClock(clock);
  countFromHere();
  {
    const test::CapturedLog log;
    Observed published("Here", 7), searched("There");
    published.publish().publish();
    searched.resolve(5s);
    EXPECT_TRUE(eventually([&] { return published.observer->notPublished == 1; }));
    EXPECT_EQ(published.observer->error.message(), "Daemon not running");
    EXPECT_FALSE(eventually([&] { return searched.observer->calls() != 0; }, 1200ms)) << "two more tries";
    clock->advance(4999ms);
    EXPECT_FALSE(eventually([&] { return searched.observer->calls() != 0; }, 20ms));
    clock->advance(1ms);
    EXPECT_TRUE(eventually([&] { return searched.observer->notResolved == 1; }));
    EXPECT_EQ(searched.observer->error.message(), "Daemon not running");
    EXPECT_EQ(log.count("waits for its daemon: Daemon not running"), 1u);
    EXPECT_LE(log.lines().size(), 3u);
    EXPECT_EQ(published.observer->calls() + searched.observer->calls(), 2);
  }
  RunLoop::current()->setClock(Clock::system());
}

TEST_F(NetServiceTest, MayBeLetGoAnywhere) {
  const test::CapturedLog log;
  const test::SystemBus none;
  countFromHere();
  for (int round = 0; round < 100; ++round) {
    Observed stopped("stopped"), dropped("dropped"), again("again"), silent("silent"), elsewhere("elsewhere");
    stopped.observer->then = [](const auto &service) { service->stop(); };
    dropped.observer->then = [&](const auto &) { dropped.service = nullptr; };
    again.observer->then = [&](const auto &service) {
      service->stop();
      if (again.observer->notPublished < 3) service->publish();
    };
    for (auto *each : {&stopped, &dropped, &again, &silent}) each->publish().resolve(1ms);
    if (round % 2) eventually([&] { return silent.observer->notPublished == 1; });
    silent.service->stop();
    const int calls = silent.observer->calls();
    std::thread([&] {
      elsewhere.publish().resolve();
      if (round % 3) eventually([&] { return elsewhere.observer->notPublished == 1; });
      silent.service->publish();  // for a thread that ends
      silent.service->setTXTRecordData("\3a=b");
    }).join();
    EXPECT_TRUE(eventually([&] { return again.observer->notPublished == 3; }));
    EXPECT_TRUE(eventually([&] { return stopped.observer->calls() == 1 && dropped.observer->calls() == 1; }));
    EXPECT_EQ(silent.observer->calls(), calls);
  }
}

TEST_F(NetServiceTest, OutOfDescriptorsItWaitsForSome) {
  const test::SystemBus none;
  countFromHere();
  try {  // once with descriptors: the undefined-behaviour sanitizer takes one to look at a class for the first time
    throw std::system_error(EMFILE, std::generic_category());
  } catch (const std::system_error &error) {
    EXPECT_EQ(error.code(), std::errc::too_many_files_open);
  }
  Observed observed("Here", 7);
  rlimit before;
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit few{64, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  std::vector<int> taken;
  while (taken.empty() || taken.back() >= 0) taken.push_back(dup(0));
  observed.publish();
  EXPECT_TRUE(eventually([&] { return observed.observer->notPublished == 1; }));
  EXPECT_EQ(observed.observer->error, std::errc::too_many_files_open);
  for (int fd : taken) close(fd);
  setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(DiscoveryTest, FindsWhateverIsPublishedOnThisMachine) {
  NEEDS_NETWORK(0);
  const std::string longest(63, 'n'), cut = std::string(62, 'n') + "\u00e4";
  const std::vector<std::string> names{"Plain", "Two words", "a.b.c", "back\\slash\\.", "\u30b9\u30bf\u30b8\u30aa 1",
                                       longest, cut};
  std::vector<Observed> services, searches;
  for (const auto &name : names) {
    services.push_back(Observed(name, uint16_t(1000 + services.size()), std::string(type) + ".", "local."));
    services.back().service->setTXTRecordData(record({{"name", name}}));
    services.back().publish();
    searches.push_back(Observed(name));
    searches.back().resolve();
  }
  for (size_t n = 0; n < names.size(); ++n) {
    const bool isCut = names[n] == cut;
    EXPECT_TRUE(services[n].isPublished()) << names[n];
    EXPECT_EQ(services[n].service->name(), isCut ? cut.substr(0, 62) : names[n]);
    EXPECT_TRUE(searches[n].isResolved()) << names[n];
    EXPECT_TRUE(searches[n].hasRecord(record({{"name", names[n]}})));
    EXPECT_EQ(searches[n].service->port(), 1000 + n);
    EXPECT_EQ(searches[n].service->hostName(), "alpha.local");
    EXPECT_TRUE(searches[n].hasAddresses(2));
    EXPECT_TRUE(isIPv6(searches[n].service->addresses().front()));
  }

  // The same name once more, and one that is not there.
  Observed clash("PLAIN", 2000), first("Plain"), nobody("Nobody"), wrong("Plain", 3, "no type");
  clash.publish();
  wrong.publish();
  nobody.resolve(300ms);
  EXPECT_TRUE(clash.isPublished());
  EXPECT_EQ(clash.service->name(), "PLAIN #2");
  EXPECT_EQ(clash.observer->notPublished, 0);
  EXPECT_TRUE(eventually([&] { return nobody.observer->notResolved == 1; }));
  EXPECT_EQ(nobody.observer->error.message(), "Timeout reached");
  EXPECT_TRUE(eventually([&] { return wrong.observer->notPublished == 1; }));
  EXPECT_EQ(wrong.observer->error.message(), "Invalid service type");

  // What changes is told; what does not is not told again.
  services[0].service->setTXTRecordData(record({{"on", "air"}, {"take", "1"}}));
  EXPECT_TRUE(searches[0].hasRecord(record({{"on", "air"}, {"take", "1"}})));
  services[0].service->setTXTRecordData("");
  EXPECT_TRUE(searches[0].hasRecord(""));
  EXPECT_EQ(searches[0].observer->records.size(), 3u);
  EXPECT_EQ(searches[0].observer->resolved, 1);

  // Published again elsewhere, the search goes on.
  services[1].service->stop();
  Observed moved("Two words", 4000);
  moved.publish();
  EXPECT_TRUE(moved.isPublished());
  EXPECT_EQ(moved.service->name(), "Two words");
  EXPECT_TRUE(eventually([&] { return searches[1].service->port() == 4000; }));
  services[2].service->stop();
  services[2].publish();
  EXPECT_TRUE(services[2].isPublished(2));

  // Let go in the callback that tells of success.
  Observed leaving("Leaving", 5000), finder("Plain");
  leaving.observer->then = [&](const auto &) { leaving.service = nullptr; };
  finder.observer->then = [&](const auto &) { finder.service = nullptr; };
  leaving.publish();
  finder.resolve();
  EXPECT_TRUE(leaving.isPublished() && finder.isResolved());
  EXPECT_FALSE(eventually([&] { return finder.observer->calls() + leaving.observer->calls() > 2; }, 50ms));

  // The daemon's library would end the process.
  Observed latin1("B\xfcro", 6000), lost("B\xfcro");
  latin1.publish();
  lost.resolve(1s);
  EXPECT_TRUE(eventually([&] { return latin1.observer->notPublished == 1 && lost.observer->notResolved == 1; }));
  EXPECT_EQ(latin1.observer->error.message(), "Invalid service name");
  EXPECT_EQ(lost.observer->error.message(), "Invalid service name");
  std::error_code failure;
  const auto lookup = HostLookup::start("b\xfcro.local", 80, RunLoop::current(),
                                        [&](const auto &, std::error_code error) { failure = error; });
  EXPECT_TRUE(eventually([&] { return bool(failure); }, 30s));
}

TEST_F(DiscoveryTest, MachinesSeeEachOther) {
  NEEDS_NETWORK(2);
  auto theirs = beta().start("avahi-publish -f -s 'Their; service' _qelnktest._tcp 7001 path=/x ver=1");
  Observed ours("Our service", 7000), search("their; Service"), clash("Their; service", 7002);
  ours.service->setTXTRecordData(record({{"who", "us"}}));
  ours.publish();
  search.resolve();
  ASSERT_TRUE(search.isResolved());
  EXPECT_EQ(search.service->hostName(), "beta.local");
  EXPECT_EQ(search.service->port(), 7001);
  EXPECT_TRUE(search.hasRecord(record({{"path", "/x"}, {"ver", "1"}})));
  EXPECT_TRUE(search.hasAddresses(4)) << "of each kind on each cable";
  std::vector<std::string> found;
  for (const auto &address : search.service->addresses()) {
    char text[INET6_ADDRSTRLEN];
    if (isIPv6(address)) {
      const auto &ipv6 = reinterpret_cast<const sockaddr_in6 &>(*address.data());
      found.push_back(inet_ntop(AF_INET6, &ipv6.sin6_addr, text, sizeof text));
      EXPECT_NE(ipv6.sin6_scope_id, 0u);
      EXPECT_EQ(ntohs(ipv6.sin6_port), 7001);
    } else {
      const auto &ipv4 = reinterpret_cast<const sockaddr_in &>(*address.data());
      found.push_back(inet_ntop(AF_INET, &ipv4.sin_addr, text, sizeof text));
      EXPECT_EQ(ntohs(ipv4.sin_port), 7001);
    }
  }
  EXPECT_EQ(found, (std::vector<std::string>{"fe80::2", "fe80::1:2", "10.77.0.2", "10.77.1.2"}));

  EXPECT_TRUE(ours.isPublished());
  const auto seen = beta().outputOf("avahi-browse -rpt _qelnktest._tcp");
  EXPECT_NE(seen.find(";Our\\032service;_qelnktest._tcp;local;alpha.local;10.77.0.1;7000;\"who=us\""),
            std::string::npos)
      << seen;
  clash.publish();
  EXPECT_TRUE(clash.isPublished());
  EXPECT_EQ(clash.service->name(), "Their; service #2");

  // The other machine's name, and the one cable that is left.
  theirs->signal(SIGTERM);
  theirs->waitUntilExit();
  theirs = beta().start("avahi-publish -f -s 'Their; service' _qelnktest._tcp 7001 path=/y");
  EXPECT_TRUE(search.hasRecord(record({{"path", "/y"}})));
  alpha().outputOf("ip link set ve0 down");
  EXPECT_TRUE(search.hasAddresses(2));
  EXPECT_EQ(search.observer->resolved, 1);
  theirs->signal(SIGTERM);
  theirs->waitUntilExit();
}

TEST_F(DiscoveryTest, OutagesAreOutlasted) {
  NEEDS_NETWORK(0);
  const test::CapturedLog log;
  alpha().endDaemon();
  Observed ours("Here", 7000), search("Here");
  ours.publish();
  search.resolve(1min);
  EXPECT_TRUE(eventually([&] { return ours.observer->notPublished == 1; })) << "a bus without the daemon";
  alpha().startDaemon();
  EXPECT_TRUE(ours.isPublished());
  EXPECT_TRUE(search.isResolved());

  alpha().endDaemon(SIGKILL);
  alpha().startDaemon();
  EXPECT_TRUE(ours.isPublished(2));
  EXPECT_EQ(ours.service->name(), "Here");

  alpha().endBus();
  EXPECT_TRUE(eventually([&] { return log.count("waits for its daemon") == 3; }));
  ours.service->setTXTRecordData(record({{"later", "yes"}}));
  alpha().startBus();
  alpha().startDaemon();
  EXPECT_TRUE(ours.isPublished(3));
  EXPECT_TRUE(search.hasRecord(record({{"later", "yes"}})));
  EXPECT_EQ(ours.observer->notPublished, 1);
  EXPECT_EQ(search.observer->resolved, 1);
  EXPECT_EQ(search.observer->notResolved, 0);

  // One that hangs holds up only our own thread.
  alpha().signalDaemon(SIGSTOP);
  const auto start = std::chrono::steady_clock::now();
  for (int round = 0; round < 3; ++round) {
    ours.service->setTXTRecordData(record({{"round", std::to_string(round)}}));
    search.service->stop();
    search.resolve(20ms);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_TRUE(eventually([&] { return search.observer->notResolved == 1; }));
  alpha().signalDaemon(SIGCONT);
  search.resolve();
  EXPECT_TRUE(search.hasRecord(record({{"round", "2"}})));
  EXPECT_LE(log.count("waits for its daemon") + log.count("is there"), 8u);
}

}  // namespace qelnk
