#include <QELNetworkKit/QELNKNetworkInterfaceDiscovery.h>
#include <QELNetworkKit/UserSettings.h>

#include <algorithm>

#include "platform/LogFormat.h"
#include "platform/NetworkConfiguration.h"

using qelnk::logDefault;
using qelnk::NetworkConfiguration;

namespace {

using Discovery = QELNKNetworkInterfaceDiscovery;

Discovery::Interfaces interfacesOf(NetworkConfiguration &configuration) {
  Discovery::Interfaces result;
  for (const auto &service : configuration.services()) {
    if (service.type != NetworkConfiguration::ethernet) continue;
    const auto addresses = configuration.ipv4Addresses(service.deviceName);
    if (!addresses) continue;
    auto interface = QELNKNetworkInterface::networkInterfaceWithDeviceName(service.deviceName, service.name);
    if (!addresses->empty()) interface->setCurrentIPv4(addresses->front());
    interface->setDeviceUUID(service.identifier);
    result.push_back(std::move(interface));
  }
  if (qelnk::UserSettings::standard().boolForKey("includeLocalInterface"))
    result.push_back(Discovery::localInterface());
  return result;
}

template <class Condition>
Discovery::Interface firstOf(const Discovery::Interfaces &interfaces, const Condition &condition) {
  const auto found = std::find_if(interfaces.begin(), interfaces.end(), condition);
  return found == interfaces.end() ? nullptr : *found;
}

bool isActive(const Discovery::Interface &interface) { return !interface->currentIPv4().empty(); }

Discovery::Interface primaryOf(NetworkConfiguration &configuration, const Discovery::Interfaces &interfaces) {
  const std::string primary = configuration.primaryInterface();
  if (primary.empty()) return nullptr;
  return firstOf(interfaces, [&](const auto &interface) { return interface->deviceName() == primary; });
}

}  // namespace

Discovery::Interfaces Discovery::interfaces() { return interfacesOf(*NetworkConfiguration::open()); }

Discovery::Interfaces Discovery::activeInterfaces() {
  Interfaces result = interfaces();
  std::erase_if(result, [](const Interface &interface) { return !isActive(interface); });
  return result;
}

Discovery::Interface Discovery::localInterface() {
  auto interface = QELNKNetworkInterface::networkInterfaceWithDeviceName("lo0", "localLoopback");
  interface->setDeviceUUID("localhost");
  interface->setCurrentIPv4("127.0.0.1");
  return interface;
}

Discovery::Interface Discovery::primaryInterface() {
  const auto configuration = NetworkConfiguration::open();
  return primaryOf(*configuration, interfacesOf(*configuration));
}

Discovery::Interface Discovery::firstIPv4Interface() { return firstOf(interfaces(), isActive); }

Discovery::Interface Discovery::interfaceForUUID(const std::optional<std::string> &uuid, bool onlyActive) {
  if (!uuid) return nullptr;
  return firstOf(onlyActive ? activeInterfaces() : interfaces(),
                 [&](const Interface &interface) { return interface->deviceUUID() == *uuid; });
}

Discovery::Interface Discovery::bestNetworkInterfacePreferringUUID(const std::optional<std::string> &uuid) {
  // Read once: where NetworkManager is slow that takes long enough.
  const auto configuration = NetworkConfiguration::open();
  const Interfaces all = interfacesOf(*configuration);
  const auto isPreferred = [&](const Interface &it) { return uuid && isActive(it) && it->deviceUUID() == *uuid; };
  if (auto preferred = firstOf(all, isPreferred)) return preferred;
  logDefault("No active network interfaces found, will try first primary interface");
  if (auto primary = primaryOf(*configuration, all)) return primary;
  logDefault("No primary interface found, will try first IPv4 interface");
  if (auto first = firstOf(all, isActive)) return first;
  logDefault("No IPv4 interfaces found, binding to local loopback");
  return localInterface();
}
