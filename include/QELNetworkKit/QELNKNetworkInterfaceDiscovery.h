#pragma once

#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/QELNKNetworkInterface.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

/// The wired network services of this machine, so that a host can let its user choose one, remember it by its
/// deviceUUID() and find a sensible one when that is gone:
///
///     const auto interface = QELNKNetworkInterfaceDiscovery::bestNetworkInterfacePreferringUUID(settings.network);
///     server->setBindingIPAddress(interface->ipAddressAsUInt32());
///
/// Where NetworkManager runs, these are its active connections of wired devices, under their UUIDs and names.
/// Elsewhere, and for devices that it leaves to others or has found set up, they are the kernel's Ethernet links that
/// are up, VLANs and bonds among them; Wi-Fi, bridges and tunnels are not, and virtual links only where a machine has
/// no other, as in a container. Their identifiers come from this machine's ID and the device's own address, so that
/// they survive restarts and new device names; those of VLANs, bonds and virtual links, which have none of their own,
/// from the device's name.
///
/// Nothing is kept between calls. What cannot be read gives fewer interfaces, never an error.
///
/// Threads: any. A call takes a few milliseconds, with a hundred links under NetworkManager near a hundred; where
/// NetworkManager does not answer, one call in a minute takes two seconds.
class QELNK_EXPORT QELNKNetworkInterfaceDiscovery {
 public:
  /// An object of the caller's own: changing it changes no network.
  using Interface = std::shared_ptr<QELNKNetworkInterface>;
  /// In the order in which to offer them.
  using Interfaces = std::vector<Interface>;

  /// All, with or without an address; behind them localInterface() if the user setting "includeLocalInterface" is true.
  static Interfaces interfaces();
  /// Those that have an address.
  static Interfaces activeInterfaces();
  /// The loopback: "lo0" with 127.0.0.1, under the identifier "localhost".
  static Interface localInterface();
  /// That of the default route; null when it is none of interfaces().
  static Interface primaryInterface();
  /// The first that has an address, or null.
  static Interface firstIPv4Interface();
  /// That with this identifier, or null.
  static Interface interfaceForUUID(const std::optional<std::string> &uuid, bool onlyActive = false);
  /// The one with this identifier if it has an address, else the primary one, else the first with an address, else the
  /// loopback; never null. The log tells of each step.
  static Interface bestNetworkInterfacePreferringUUID(const std::optional<std::string> &uuid);

  QELNKNetworkInterfaceDiscovery() = delete;
};
