#include "Command.h"

namespace tool {

extern const Command packCommand, unpackCommand, requestCommand, serveCommand, publishCommand, subscribeCommand,
    monitorCommand, daemonCommand, legacyListenCommand, legacyConnectCommand, interfacesCommand, pingCommand,
    watchCommand, webSocketCommand, demoCommand;

std::span<const Command *const> commands() {
  static const Command *const table[] = {
      &packCommand,       &unpackCommand,  &requestCommand, &serveCommand,        &publishCommand,
      &subscribeCommand,  &monitorCommand, &daemonCommand,  &legacyListenCommand, &legacyConnectCommand,
      &interfacesCommand, &pingCommand,    &watchCommand,   &webSocketCommand,    &demoCommand};
  return table;
}

std::span<const Option> commonOptions() {
  static const Option table[] = {
      {"json", "", "print each result as one line of JSON"},
      {"timeout", "SECONDS", "bound for connecting and for each reply (default 10)"},
      {"log-level", "LEVEL", "let the library's log through to standard error: off, error (default), info, debug"},
      {"help", "", "show this help"},
      {"version", "", "show the library's version"}};
  return table;
}

}  // namespace tool
