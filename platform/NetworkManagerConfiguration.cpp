// The network as NetworkManager has it, over the system bus.

#include <QELNetworkKit/Mutex.h>

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <system_error>
#include <utility>

#include "platform/LogFormat.h"
#include "platform/NetworkConfiguration.h"
#include "platform/RunLoopThread.h"

namespace qelnk {

namespace {

using Properties = std::map<std::string, sdbus::Variant>;
using Path = sdbus::ObjectPath;
using Objects = std::map<Path, std::map<std::string, Properties>>;  // what each has, by interface

// Never destroyed: the thread that asks may outlive the exit handlers.
const auto &theService = *new std::string("org.freedesktop.NetworkManager");
const auto &theManager = *new Path("/org/freedesktop/NetworkManager");
/// A caller waits so long. Its question stays open for as long as an answer may come; no other is asked meanwhile.
constexpr std::chrono::seconds longestWait{2}, longestAnswer{60};

// Its kinds of devices and states.
constexpr uint32_t kindEthernet = 1, kindWiFi = 2, kindBond = 10, kindVLAN = 11, kindTeam = 15, kindMacvlan = 18,
                   kindVeth = 20;
constexpr uint32_t stateUnmanaged = 10, flagExternal = 0x80;

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
    Path ipv4;
    uint32_t kind;
    std::string identifier, connection;  // of the active one, if any
    bool isKernels;                      // somebody else has set it up
  };
  const Device *deviceWith(const std::string &name) const;

  const Objects objects_;
  const std::unique_ptr<NetworkConfiguration> kernel_;
  std::vector<Device> devices_;
};

NetworkManagerConfiguration::NetworkManagerConfiguration(Objects objects)
    : objects_(std::move(objects)), kernel_(ofKernel()) {
  for (const Path &path : property<std::vector<Path>>(get(theManager, theService), "Devices")) {
    const Properties &device = get(path, theService + ".Device");
    const Properties &active = get(property<Path>(device, "ActiveConnection"), theService + ".Connection.Active");
    // What it found set up when it started has an identifier that ends with it.
    const bool isKernels = property<uint32_t>(device, "State") == stateUnmanaged ||
                           (property<uint32_t>(active, "StateFlags") & flagExternal) != 0;
    devices_.push_back({property<std::string>(device, "Interface"), property<Path>(device, "Ip4Config"),
                        property<uint32_t>(device, "DeviceType"), property<std::string>(active, "Uuid"),
                        property<std::string>(active, "Id"), isKernels});
  }
}

const NetworkManagerConfiguration::Device *NetworkManagerConfiguration::deviceWith(const std::string &name) const {
  const auto found =
      std::find_if(devices_.begin(), devices_.end(), [&](const Device &each) { return each.name == name; });
  return found == devices_.end() ? nullptr : &*found;
}

const Properties &NetworkManagerConfiguration::get(const Path &path, const std::string &interface) const {
  static const auto &none = *new Properties;
  const auto object = objects_.find(path);
  if (object == objects_.end()) return none;
  const auto found = object->second.find(interface);
  return found == object->second.end() ? none : found->second;
}

std::vector<NetworkConfiguration::Service> NetworkManagerConfiguration::services() {
  constexpr std::array wiredKinds = {kindEthernet, kindBond, kindVLAN, kindTeam};
  const bool hasHardware = std::any_of(devices_.begin(), devices_.end(), [](const Device &device) {
    return device.kind == kindEthernet || device.kind == kindWiFi;
  });
  std::vector<Service> services;
  std::optional<std::vector<Service>> ofKernel;
  for (const Device &device : devices_) {
    if (device.isKernels) {
      if (!ofKernel) ofKernel = kernel_->services();
      for (const Service &service : *ofKernel)
        if (service.deviceName == device.name) services.push_back(service);
    } else if (!device.identifier.empty()) {
      const bool isGuest = device.kind == kindVeth || device.kind == kindMacvlan;
      const bool isWired = std::ranges::find(wiredKinds, device.kind) != wiredKinds.end() || (isGuest && !hasHardware);
      services.push_back({device.identifier, device.name, device.connection,
                          isWired ? ethernet : fmt::format("kind {}", device.kind)});
    }
  }
  return services;
}

/// NetworkManager's, in the kernel's order as far as the kernel has them.
std::optional<std::vector<std::string>> NetworkManagerConfiguration::ipv4Addresses(const std::string &deviceName) {
  const Device *device = deviceWith(deviceName);
  if (!device) return std::nullopt;
  if (device->isKernels) return kernel_->ipv4Addresses(deviceName);
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
  // It knows its own connections alone.
  std::string ofKernel = kernel_->primaryInterface();
  if (const Device *device = deviceWith(ofKernel); device && device->isKernels) return ofKernel;
  const Path primary = property<Path>(get(theManager, theService), "PrimaryConnection");
  if (isNone(primary)) return ofKernel;
  const auto devices = property<std::vector<Path>>(get(primary, theService + ".Connection.Active"), "Devices");
  return devices.empty() ? "" : property<std::string>(get(devices.front(), theService + ".Device"), "Interface");
}

/// None where it does not run.
std::optional<Objects> askForEverything() {
  try {
    const auto connection = sdbus::createSystemBusConnection();
    // Asked first, for the bus would start it where it is installed but not wanted.
    bool runs = false;
    sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus")
        ->callMethod("NameHasOwner")
        .onInterface("org.freedesktop.DBus")
        .withTimeout(longestAnswer)
        .withArguments(theService)
        .storeResultsTo(runs);
    if (!runs) return std::nullopt;
    // One answer with everything: to ask for each property costs ten times as much.
    Objects objects;
    sdbus::createProxy(*connection, theService, "/org/freedesktop")
        ->callMethod("GetManagedObjects")
        .onInterface("org.freedesktop.DBus.ObjectManager")
        .withTimeout(longestAnswer)
        .storeResultsTo(objects);
    return objects;
  } catch (const std::exception &error) {
    logDebug("No NetworkManager: {}", error.what());
    return std::nullopt;
  }
}

/// What a thread finds out, and whether anybody still waits for it.
struct Answer {
  Mutex mutex;
  Condition found;
  bool isThere QELNK_GUARDED_BY(mutex) = false, isAwaited QELNK_GUARDED_BY(mutex) = true;
  std::optional<Objects> objects QELNK_GUARDED_BY(mutex);
};

}  // namespace

/// On a thread of its own: signals, which the calling thread may get, do not interrupt it, and a bus that lets callers
/// wait for a minute and a half makes nobody wait longer than said. Nor is it asked again while it does.
std::unique_ptr<NetworkConfiguration> NetworkConfiguration::ofNetworkManager() {
  static std::atomic<int> hanging = 0;
  if (hanging > 0) return nullptr;
  const auto answer = std::make_shared<Answer>();
  try {
    startThread("qelnk-network", [answer] {
      auto objects = askForEverything();
      const Lock lock(answer->mutex);
      answer->objects = std::move(objects);
      answer->isThere = true;
      if (!answer->isAwaited) --hanging;
      answer->found.notifyOne();
    }).detach();
  } catch (const std::system_error &failure) {
    logError("NetworkManager could not be asked: {}", failure.what());
    return nullptr;
  }
  const auto deadline = std::chrono::steady_clock::now() + longestWait;
  Lock lock(answer->mutex);
  while (!answer->isThere && answer->found.waitUntil(lock, deadline)) {
  }
  if (!answer->isThere) {
    answer->isAwaited = false;
    ++hanging;
    logError("NetworkManager does not answer, its interfaces are told as the kernel has them");
    return nullptr;
  }
  if (!answer->objects) return nullptr;
  return std::make_unique<NetworkManagerConfiguration>(std::move(*answer->objects));
}

}  // namespace qelnk
