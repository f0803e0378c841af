#include <QELNetworkKit/QELNKNetworkInterface.h>
#include <fmt/format.h>

#include <cstdlib>
#include <utility>

QELNKNetworkInterface::QELNKNetworkInterface(std::string deviceName, std::string userDefinedName)
    : deviceName_(std::move(deviceName)), userDefinedName_(std::move(userDefinedName)) {}

std::shared_ptr<QELNKNetworkInterface> QELNKNetworkInterface::networkInterfaceWithDeviceName(
    std::string deviceName, std::string userDefinedName) {
  return std::make_shared<QELNKNetworkInterface>(std::move(deviceName), std::move(userDefinedName));
}

/// From the last part to the first, however many there are: those before the fourth last go round.
uint32_t QELNKNetworkInterface::ipAddressAsUInt32() const {
  std::string address = currentIPv4();
  uint32_t result = 0;
  for (unsigned shift = 0; !address.empty(); shift = (shift + 8) % 32) {
    const size_t dot = address.rfind('.');
    const size_t begin = dot == std::string::npos ? 0 : dot + 1;
    result |= uint32_t(std::strtoll(address.c_str() + begin, nullptr, 10) & 0xFF) << shift;
    address.resize(dot == std::string::npos ? 0 : dot);
  }
  return result;
}

std::string QELNKNetworkInterface::description() const {
  const auto shown = [](std::string property) { return property.empty() ? "(null)" : property; };
  return fmt::format("{} - {}: DeviceName: {}, User Defined Name: {}, IP: {}", static_cast<const void *>(this),
                     shown(deviceUUID()), shown(deviceName()), shown(userDefinedName()), shown(currentIPv4()));
}
