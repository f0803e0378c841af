#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qelnk {

/// The system's network configuration as it is now. None of its operations throws: what cannot be read is not there.
///
/// Threads: open() any; an object one at a time.
class NetworkConfiguration {
 public:
  static constexpr const char *ethernet = "Ethernet";

  struct Service {
    std::string identifier, deviceName, name;
    std::string type;  // `ethernet`, or another word
  };

  virtual ~NetworkConfiguration() = default;
  /// The services that are set up, in a steady order.
  virtual std::vector<Service> services() = 0;
  /// The addresses of a device in the kernel's order; none at all when IPv4 is not running on it.
  virtual std::optional<std::vector<std::string>> ipv4Addresses(const std::string &deviceName) = 0;
  /// The device of the default IPv4 route; empty when there is none.
  virtual std::string primaryInterface() = 0;

  /// NetworkManager's where it runs, else the kernel's. Never null.
  static std::unique_ptr<NetworkConfiguration> open();
  static std::unique_ptr<NetworkConfiguration> ofKernel();
  /// Null where it does not run.
  static std::unique_ptr<NetworkConfiguration> ofNetworkManager();

  /// What open() gives from now on; nothing for the system's again.
  using Opener = std::function<std::unique_ptr<NetworkConfiguration>()>;
  static void setOpener(Opener opener);
};

}  // namespace qelnk
