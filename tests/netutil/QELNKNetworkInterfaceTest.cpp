#include <QELNetworkKit/QELNKNetworkInterfaceDiscovery.h>
#include <QELNetworkKit/UserSettings.h>
#include <gtest/gtest.h>

#include <map>

#include "platform/NetworkConfiguration.h"
#include "support/TestSupport.h"

using namespace qelnk;
using namespace qelnk::test;
using Discovery = QELNKNetworkInterfaceDiscovery;

namespace {

using Services = std::vector<NetworkConfiguration::Service>;

/// A configuration in memory.
struct Stored {
  Services services;
  std::map<std::string, std::vector<std::string>> addresses;
  std::string primary;
};
class MemoryConfiguration final : public NetworkConfiguration {
 public:
  explicit MemoryConfiguration(const Stored &stored) : stored_(stored) {}
  Services services() override { return stored_.services; }
  std::optional<std::vector<std::string>> ipv4Addresses(const std::string &deviceName) override {
    const auto found = stored_.addresses.find(deviceName);
    return found == stored_.addresses.end() ? std::nullopt : std::optional(found->second);
  }
  std::string primaryInterface() override { return stored_.primary; }

 private:
  const Stored &stored_;
};

std::string devices(const Discovery::Interfaces &interfaces) {
  std::string names;
  for (const auto &interface : interfaces) names += interface->deviceName() + ' ';
  return names;
}

class NetworkInterfaces : public testing::Test {
 protected:
  NetworkInterfaces() {
    NetworkConfiguration::setOpener([this] {
      ++opened;
      return std::make_unique<MemoryConfiguration>(stored);
    });
  }
  ~NetworkInterfaces() override {
    NetworkConfiguration::setOpener(nullptr);
    UserSettings::standard().set("includeLocalInterface", false);
  }

  Stored stored{{{"w", "wlan0", "Backstage", "wlan"},
                 {"a", "eth0", "Cable", "Ethernet"},
                 {"b", "eth1", "Unplugged", "Ethernet"},
                 {"c", "eth2", "No address", "Ethernet"},
                 {"d", "eth3", "Studio", "Ethernet"}},
                {{"wlan0", {"10.0.0.1"}}, {"eth0", {"10.0.1.1", "10.0.1.2"}}, {"eth2", {}}, {"eth3", {"10.0.3.1"}}},
                "eth3"};
  int opened = 0;
};

}  // namespace

TEST_F(NetworkInterfaces, AreTheWiredOnesThatRunIPv4) {
  EXPECT_EQ(devices(Discovery::interfaces()), "eth0 eth2 eth3 ");
  EXPECT_EQ(devices(Discovery::activeInterfaces()), "eth0 eth3 ");
  EXPECT_EQ(Discovery::firstIPv4Interface()->deviceName(), "eth0");
  EXPECT_EQ(Discovery::primaryInterface()->deviceName(), "eth3");
  const auto cable = Discovery::interfaceForUUID("a");
  EXPECT_EQ(cable->userDefinedName(), "Cable");
  EXPECT_EQ(cable->currentIPv4(), "10.0.1.1");
  EXPECT_TRUE(cable->description().ends_with(" - a: DeviceName: eth0, User Defined Name: Cable, IP: 10.0.1.1"));
  EXPECT_TRUE(Discovery::interfaceForUUID("c"));
  EXPECT_FALSE(Discovery::interfaceForUUID("c", true));
  EXPECT_FALSE(Discovery::interfaceForUUID("A"));
  const int before = opened;
  EXPECT_FALSE(Discovery::interfaceForUUID(std::nullopt));
  EXPECT_EQ(opened, before);  // nothing was read
  stored.primary = "wlan0";
  EXPECT_FALSE(Discovery::primaryInterface());

  EXPECT_FALSE(Discovery::interfaceForUUID("localhost"));
  UserSettings::standard().set("includeLocalInterface", true);
  EXPECT_EQ(devices(Discovery::interfaces()), "eth0 eth2 eth3 lo0 ");
  EXPECT_EQ(Discovery::interfaceForUUID("localhost", true)->currentIPv4(), "127.0.0.1");
}

TEST_F(NetworkInterfaces, BestFallsBackStepByStep) {
  const std::string lines[] = {"No active network interfaces found, will try first primary interface",
                               "No primary interface found, will try first IPv4 interface",
                               "No IPv4 interfaces found, binding to local loopback"};
  const auto best = [&](const std::optional<std::string> &uuid, size_t steps) {
    const CapturedLog log;
    const auto interface = Discovery::bestNetworkInterfacePreferringUUID(uuid);
    EXPECT_EQ(log.lines().size(), steps);
    for (size_t i = 0; i < steps && i < log.lines().size(); ++i)
      EXPECT_NE(log.lines()[i].find(lines[i]), std::string::npos) << log.lines()[i];
    return interface->deviceName();
  };
  EXPECT_EQ(best("a", 0), "eth0");
  EXPECT_EQ(best("c", 1), "eth3");  // is there, but has no address
  EXPECT_EQ(best(std::nullopt, 1), "eth3");
  stored.primary = "eth2";
  EXPECT_EQ(best("gone", 1), "eth2");  // the primary one, whatever it has
  stored.primary.clear();
  EXPECT_EQ(best("gone", 2), "eth0");
  stored.addresses.clear();
  EXPECT_EQ(best("gone", 3), "lo0");
}

TEST(NetworkInterface, AddressIsANumberToo) {
  QELNKNetworkInterface interface("eth0", "");
  EXPECT_EQ(interface.ipAddressAsUInt32(), 0u);
  EXPECT_TRUE(interface.description().ends_with(" - (null): DeviceName: eth0, User Defined Name: (null), IP: (null)"));
  const std::pair<const char *, uint32_t> cases[] = {{"192.168.1.20", 3232235796},
                                                     {"1.2.3.x", 0x01020300},
                                                     {"257.0.0.1", 0x01000001},
                                                     {"7", 7},
                                                     {"128.0.0.0.1", 0x81}};
  for (const auto &[address, number] : cases) {
    interface.setCurrentIPv4(address);
    EXPECT_EQ(interface.ipAddressAsUInt32(), number) << address;
  }
}
