#include "platform/NetworkConfiguration.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>

#include "support/AvahiNetwork.h"
#include "support/OwnNetwork.h"
#include "support/TestSupport.h"

using namespace qelnk;
using namespace qelnk::test;

namespace {

/// The names of the wired services, each with its addresses.
std::string wired(NetworkConfiguration &configuration) {
  std::string text;
  for (const auto &service : configuration.services()) {
    const auto addresses = configuration.ipv4Addresses(service.deviceName);
    if (service.type != NetworkConfiguration::ethernet || !addresses) continue;
    text += service.deviceName + '(';
    for (const auto &address : *addresses) text += ' ' + address;
    text += " ) ";
  }
  return text;
}
std::string wired() { return wired(*NetworkConfiguration::ofKernel()); }

std::string identifierOf(const std::string &device) {
  for (const auto &service : NetworkConfiguration::ofKernel()->services())
    if (service.deviceName == device) return service.identifier;
  return "";
}

}  // namespace

TEST(NetworkConfiguration, OfTheKernelInAContainer) {
  if (const auto missing = AvahiNetwork::missing(); !missing.empty()) GTEST_SKIP() << missing;
  withOwnNetwork([] {
    const auto primary = [] { return NetworkConfiguration::ofKernel()->primaryInterface(); };
    EXPECT_EQ(wired(), "");
    EXPECT_EQ(primary(), "");
    run("ip link add ve0 type veth peer name ve1 && ip link set ve0 up && ip address add 10.1.0.1/24 dev ve0");
    EXPECT_EQ(wired(), "");  // no carrier: the address reaches nobody
    run("ip link set ve1 up");
    EXPECT_TRUE(eventually([] { return wired() == "ve1( ) ve0( 10.1.0.1 ) "; })) << wired();
    // A bridge, and what belongs to it, is for others.
    run("ip link add br0 type bridge && ip link set ve1 master br0 && ip link set br0 up");
    EXPECT_TRUE(eventually([] { return wired() == "ve0( 10.1.0.1 ) "; })) << wired();
    run("ip address add 10.2.0.1/24 dev ve0 && ip address add 10.1.0.9/24 dev ve0");
    EXPECT_EQ(wired(), "ve0( 10.1.0.1 10.2.0.1 10.1.0.9 ) ");

    run("ip route add default via 10.1.0.77 metric 20 && ip link set lo up && ip route add default dev lo table 99");
    EXPECT_EQ(primary(), "ve0");
    run("ip address add 10.3.0.1/24 dev br0 && ip route add default via 10.3.0.77 metric 10");
    EXPECT_EQ(primary(), "br0");
    run("ip link add ve2 type veth peer name ve3 && ip link set ve2 up && ip link set ve3 up && "
        "ip address add 10.4.0.1/24 dev ve2 && ip route add default via 10.4.0.77 metric 1");
    EXPECT_EQ(primary(), "ve2");
    run("ip link set ve3 down");  // which leaves the route, leading nowhere
    EXPECT_TRUE(eventually([&] { return primary() == "br0"; }));
    run("ip link delete ve2");

    const std::string before = identifierOf("ve0");
    EXPECT_EQ(before.size(), 36u);
    EXPECT_NE(before, identifierOf("ve1"));
    run("ip link delete ve0 && ip link add ve0 type veth peer name ve1 && ip link set ve0 alias 'Studio LAN'");
    EXPECT_EQ(identifierOf("ve0"), before);
    EXPECT_EQ(NetworkConfiguration::ofKernel()->services().back().name, "Studio LAN");
    run("ip link set ve0 alias \"$(printf 'a\\377b')\"");
    EXPECT_EQ(NetworkConfiguration::ofKernel()->services().back().name, "ve0");
  });
}

namespace {

/// NetworkManager's stand-in on a bus, and links of the test's own.
void withNetworkManager(const std::function<void(std::ostream &orders)> &work) {
  AvahiNetwork network;
  network.alpha().startBus();
  EXPECT_FALSE(NetworkConfiguration::ofNetworkManager());  // a bus without it
  const auto orders = network.alpha().busSocket().parent_path() / "orders";
  ASSERT_EQ(mkfifo(orders.c_str(), 0600), 0);
  const auto mock =
      network.alpha().start("/usr/bin/python3 " QELNK_TESTS "/platform/network_manager.py <" + orders.string());
  std::ofstream order(orders);
  withOwnNetwork([&] {
    run("ip link add ve1 type veth peer name ve0 && ip link set ve0 up && ip link set ve1 up && "
        "ip address add 10.1.0.1/24 dev ve0 && ip address add 10.1.1.1/24 dev ve1");
    EXPECT_TRUE(eventually([] { return wired() == "ve0( 10.1.0.1 ) ve1( 10.1.1.1 ) "; }));
    EXPECT_TRUE(eventually([] {
      const auto configuration = NetworkConfiguration::ofNetworkManager();
      return configuration && configuration->primaryInterface() == "eth7";
    })) << network.alpha().log();
    work(order);
  });
  order.close();  // ends it
  EXPECT_TRUE(eventually([] { return !NetworkConfiguration::ofNetworkManager(); }));
}

}  // namespace

TEST(NetworkConfiguration, OfNetworkManager) {
  if (const auto missing = AvahiNetwork::missing(); !missing.empty()) GTEST_SKIP() << missing;
  {
    const SystemBus none;
    EXPECT_FALSE(NetworkConfiguration::ofNetworkManager());
  }
  withNetworkManager([](std::ostream &order) {
    const auto manager = [] { return NetworkConfiguration::ofNetworkManager(); };
    const auto primary = [&] { return manager()->primaryInterface(); };
    const auto services = manager()->services();
    ASSERT_EQ(services.size(), 4u);
    EXPECT_EQ(services[0].identifier, "6f2c1c1e-7c2f-4a53-9f0b-0d1b1a7b9f10");
    EXPECT_EQ(services[0].name, "Studio LAN");
    EXPECT_EQ(services[1].deviceName, "wlan7");
    EXPECT_EQ(services[2].identifier, identifierOf("ve0"));
    EXPECT_EQ(services[3].identifier, identifierOf("ve1"));
    EXPECT_EQ(wired(*manager()), "eth7( 192.168.50.7 10.9.8.7 ) ve0( 10.1.0.1 ) ve1( 10.1.1.1 ) ");
    EXPECT_EQ(wired(*NetworkConfiguration::open()), wired(*manager()));

    order << "wifi-primary" << std::endl;
    EXPECT_TRUE(eventually([&] { return primary() == "wlan7"; }));
    run("ip route add default via 10.1.0.77");  // by a device that it leaves alone
    EXPECT_EQ(primary(), "ve0");
    run("ip route del default");
    order << "no-primary" << std::endl;
    EXPECT_TRUE(eventually([&] { return primary().empty(); }));
    order << "drop-wired" << std::endl;
    EXPECT_TRUE(eventually([&] { return wired(*manager()) == "ve0( 10.1.0.1 ) ve1( 10.1.1.1 ) "; }));

    const size_t descriptors = descriptorCount(), threads = threadCount();
    for (int i = 0; i < 100; ++i) manager()->services();
    EXPECT_TRUE(eventually([&] { return descriptorCount() <= descriptors && threadCount() <= threads; }));
  });
}

TEST(NetworkConfiguration, OfTheKernelWhereNetworkManagerHangs) {
  if (const auto missing = AvahiNetwork::missing(); !missing.empty()) GTEST_SKIP() << missing;
  withNetworkManager([](std::ostream &order) {
    const CapturedLog log;
    order << "hang" << std::endl;
    EXPECT_TRUE(eventually([] { return wired(*NetworkConfiguration::open()) == wired(); }));
    EXPECT_TRUE(log.contains("NetworkManager does not answer")) << "it was answered with an error";
  });
}
