#include <QELNetworkKit/QELNKNetworkInterfaceDiscovery.h>

#include "Command.h"
#include "Table.h"

namespace tool {
namespace {

using Discovery = QELNKNetworkInterfaceDiscovery;

Discovery::Interfaces wanted(const Arguments &arguments) {
  const auto best = arguments.text("best");
  if (arguments.has("active") + arguments.has("primary") + best.has_value() > 1)
    throw Failure(Exit::usage, "interfaces: --active, --primary and --best exclude each other");
  if (best) return {Discovery::bestNetworkInterfacePreferringUUID(*best)};
  if (arguments.has("active")) return Discovery::activeInterfaces();
  if (!arguments.has("primary")) return Discovery::interfaces();
  const auto primary = Discovery::primaryInterface();
  if (!primary) throw Failure(Exit::failed, "interfaces: there is no primary wired interface");
  return {primary};
}

Exit interfaces(Invocation &invocation) {
  Output &output = invocation.output;
  Table table;
  if (!output.json()) table.add({"DEVICE", "ADDRESS", "IDENTIFIER", "NAME"});
  for (const auto &interface : wanted(invocation.arguments)) {
    if (output.json())
      output.event("interface", {{"deviceName", interface->deviceName()},
                                 {"userDefinedName", interface->userDefinedName()},
                                 {"currentIPv4", interface->currentIPv4()},
                                 {"deviceUUID", interface->deviceUUID()},
                                 {"ipAddressAsUInt32", interface->ipAddressAsUInt32()}});
    else
      table.add({interface->deviceName(), interface->currentIPv4().empty() ? "-" : interface->currentIPv4(),
                 interface->deviceUUID(), interface->userDefinedName()});
  }
  if (std::string rows = table.text(); !rows.empty()) {
    rows.pop_back();
    output.line(rows);
  }
  return Exit::done;
}

}  // namespace

extern const Command interfacesCommand;
const Command interfacesCommand = {
    "interfaces",
    "The wired network services of this machine.",
    {"",
     {{"active", "", "only those that have an IPv4 address"},
      {"primary", "", "only that of the default route; exit 1 when it is not a wired one"},
      {"best", "UUID", "the one a host would take that prefers this one"}}},
    [] {
      return std::string(
          "Each line has the device, its first IPv4 address, the identifier that stays, and the name that the user "
          "gave.\n");
    },
    interfaces};

}  // namespace tool
