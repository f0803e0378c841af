#pragma once

#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/Mutex.h>

#include <cstdint>
#include <memory>
#include <string>

/// A wired network service of this machine, with the IPv4 address that it had when it was looked up.
///
/// Properties that are not known are empty. Threads: any; each property is read and written as a whole.
class QELNK_EXPORT QELNKNetworkInterface {
 public:
  /// One with these names, and nothing else known.
  static std::shared_ptr<QELNKNetworkInterface> networkInterfaceWithDeviceName(std::string deviceName,
                                                                               std::string userDefinedName);
  /// The same.
  QELNKNetworkInterface(std::string deviceName, std::string userDefinedName);
  QELNKNetworkInterface(const QELNKNetworkInterface &) = delete;
  QELNKNetworkInterface &operator=(const QELNKNetworkInterface &) = delete;

  /// The system's name of the device, "eth0".
  std::string deviceName() const { return get(&QELNKNetworkInterface::deviceName_); }
  void setDeviceName(std::string name) { set(&QELNKNetworkInterface::deviceName_, std::move(name)); }
  /// What the user calls this network.
  std::string userDefinedName() const { return get(&QELNKNetworkInterface::userDefinedName_); }
  void setUserDefinedName(std::string name) { set(&QELNKNetworkInterface::userDefinedName_, std::move(name)); }
  /// The first address, as "192.168.1.20".
  std::string currentIPv4() const { return get(&QELNKNetworkInterface::currentIPv4_); }
  void setCurrentIPv4(std::string address) { set(&QELNKNetworkInterface::currentIPv4_, std::move(address)); }
  /// Stays the same across restarts: what a host remembers of its user's choice.
  std::string deviceUUID() const { return get(&QELNKNetworkInterface::deviceUUID_); }
  void setDeviceUUID(std::string identifier) { set(&QELNKNetworkInterface::deviceUUID_, std::move(identifier)); }

  /// currentIPv4() as a number in host byte order, the first octet highest; 0 without one. A part that is no number
  /// counts as 0.
  uint32_t ipAddressAsUInt32() const;

  /// All of it in one line, for logs.
  std::string description() const;

 private:
  using Property = std::string QELNKNetworkInterface::*;
  std::string get(Property property) const {
    const qelnk::Lock lock(mutex_);
    return this->*property;
  }
  void set(Property property, std::string value) {
    const qelnk::Lock lock(mutex_);
    (this->*property).swap(value);
  }

  mutable qelnk::Mutex mutex_;
  std::string deviceName_ QELNK_GUARDED_BY(mutex_), userDefinedName_ QELNK_GUARDED_BY(mutex_);
  std::string currentIPv4_ QELNK_GUARDED_BY(mutex_), deviceUUID_ QELNK_GUARDED_BY(mutex_);
};
