// The network as NetworkManager has it, over the system bus.

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <utility>

#include "platform/LogFormat.h"
#include "platform/NetworkConfiguration.h"

namespace qelnk {

namespace {

using Properties = std::map<std::string, sdbus::Variant>;
using Path = sdbus::ObjectPath;
using Objects = std::map<Path, std::map<std::string, Properties>>;  // what each has, by interface

const std::string theService = "org.freedesktop.NetworkManager";
const Path theManager = "/org/freedesktop/NetworkManager";
constexpr uint64_t longestCall = 2'000'000;  // microseconds

// Its kinds of devices and states.
constexpr uint32_t kindEthernet = 1, kindWiFi = 2, kindBond = 10, kindVLAN = 11, kindTeam = 15, kindVeth = 20;
constexpr uint32_t stateUnmanaged = 10;

template <class Type>
Type property(const Properties &properties, const char *name, Type otherwise = {}) {
  const auto found = properties.find(name);
  return found != properties.end() && found->second.containsValueOfType<Type>() ? found->second.get<Type>() : otherwise;
}

bool isNone(const Path &path) { return path.empty() || path == "/"; }

class NetworkManagerConfiguration final : public NetworkConfiguration {
 public:
  explicit NetworkManagerConfiguration(Objects objects);

  std::vector<Service> services() override;
  std::optional<std::vector<std::string>> ipv4Addresses(const std::string &deviceName) override;
  std::string primaryInterface() override;

 private:
  /// Empty for an object or an interface that is not there.
  const Properties &get(const Path &path, const std::string &interface) const;

  struct Device {
    std::string name;
    Path activeConnection, ipv4;
    uint32_t kind, state;
  };
  const Objects objects_;
  const std::unique_ptr<NetworkConfiguration> kernel_;
  std::vector<Device> devices_;
};

NetworkManagerConfiguration::NetworkManagerConfiguration(Objects objects)
    : objects_(std::move(objects)), kernel_(ofKernel()) {
  for (const Path &path : property<std::vector<Path>>(get(theManager, theService), "Devices")) {
    const Properties &device = get(path, theService + ".Device");
    devices_.push_back({property<std::string>(device, "Interface"), property<Path>(device, "ActiveConnection"),
                        property<Path>(device, "Ip4Config"), property<uint32_t>(device, "DeviceType"),
                        property<uint32_t>(device, "State")});
  }
}

const Properties &NetworkManagerConfiguration::get(const Path &path, const std::string &interface) const {
  static const auto &none = *new Properties;
  const auto object = objects_.find(path);
  if (object == objects_.end()) return none;
  const auto found = object->second.find(interface);
  return found == object->second.end() ? none : found->second;
}

std::vector<NetworkConfiguration::Service> NetworkManagerConfiguration::services() {
  static const std::set<uint32_t> wiredKinds = {kindEthernet, kindBond, kindVLAN, kindTeam};
  const bool hasHardware = std::any_of(devices_.begin(), devices_.end(), [](const Device &device) {
    return device.kind == kindEthernet || device.kind == kindWiFi;
  });
  std::vector<Service> services;
  std::optional<std::vector<Service>> ofKernel;
  for (const Device &device : devices_) {
    if (device.state == stateUnmanaged) {  // somebody else set it up
      if (!ofKernel) ofKernel = kernel_->services();
      for (const Service &service : *ofKernel)
        if (service.deviceName == device.name) services.push_back(service);
      continue;
    }
    if (isNone(device.activeConnection)) continue;
    const bool isWired = wiredKinds.contains(device.kind) || (device.kind == kindVeth && !hasHardware);
    const Properties &active = get(device.activeConnection, theService + ".Connection.Active");
    services.push_back({property<std::string>(active, "Uuid"), device.name, property<std::string>(active, "Id"),
                        isWired ? ethernet : fmt::format("kind {}", device.kind)});
  }
  return services;
}

/// NetworkManager's, in the kernel's order as far as the kernel has them.
std::optional<std::vector<std::string>> NetworkManagerConfiguration::ipv4Addresses(const std::string &deviceName) {
  const auto device =
      std::find_if(devices_.begin(), devices_.end(), [&](const Device &each) { return each.name == deviceName; });
  if (device == devices_.end()) return std::nullopt;
  if (device->state == stateUnmanaged) return kernel_->ipv4Addresses(deviceName);
  if (isNone(device->ipv4)) return std::nullopt;
  std::vector<std::string> addresses;
  const Properties &config = get(device->ipv4, theService + ".IP4Config");
  for (const auto &entry : property<std::vector<Properties>>(config, "AddressData"))
    if (auto address = property<std::string>(entry, "address"); !address.empty())
      addresses.push_back(std::move(address));
  const auto ordered = kernel_->ipv4Addresses(deviceName).value_or(std::vector<std::string>());
  std::stable_sort(addresses.begin(), addresses.end(), [&](const std::string &a, const std::string &b) {
    return std::find(ordered.begin(), ordered.end(), a) < std::find(ordered.begin(), ordered.end(), b);
  });
  return addresses;
}

std::string NetworkManagerConfiguration::primaryInterface() {
  const Path primary = property<Path>(get(theManager, theService), "PrimaryConnection");
  if (isNone(primary)) return kernel_->primaryInterface();
  const auto devices = property<std::vector<Path>>(get(primary, theService + ".Connection.Active"), "Devices");
  return devices.empty() ? "" : property<std::string>(get(devices.front(), theService + ".Device"), "Interface");
}

}  // namespace

std::unique_ptr<NetworkConfiguration> NetworkConfiguration::ofNetworkManager() {
  try {
    auto connection = sdbus::createSystemBusConnection();
    // Asked first, for the bus would start it where it is installed but not wanted.
    bool runs = false;
    const auto bus = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    bus->callMethod("NameHasOwner")
        .onInterface("org.freedesktop.DBus")
        .withTimeout(longestCall)
        .withArguments(theService)
        .storeResultsTo(runs);
    if (!runs) return nullptr;
    // One answer with everything: to ask for each property costs ten times as much.
    Objects objects;
    sdbus::createProxy(*connection, theService, "/org/freedesktop")
        ->callMethod("GetManagedObjects")
        .onInterface("org.freedesktop.DBus.ObjectManager")
        .withTimeout(longestCall)
        .storeResultsTo(objects);
    return std::make_unique<NetworkManagerConfiguration>(std::move(objects));
  } catch (const sdbus::Error &error) {
    logDebug("No NetworkManager: {}", error.what());
  }
  return nullptr;
}

}  // namespace qelnk
