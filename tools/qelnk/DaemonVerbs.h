#pragma once

#include <span>
#include <string_view>

#include "Command.h"
#include "DaemonLink.h"

namespace tool {

/// What a verb of `qelnk daemon` gets to work with.
struct VerbCall {
  const Arguments &arguments;
  DaemonLink &link;
  Session &session;
  Output &output;
};

/// One verb. Its failures are thrown.
struct Verb {
  std::string_view name;
  Syntax syntax;
  std::string_view summary;
  void (*run)(VerbCall &call);
  /// Looks the arguments over before anything is done; a usage Failure.
  void (*check)(const Arguments &arguments) = nullptr;
};

std::span<const Verb> verbs();
/// A usage Failure for an unknown name.
const Verb &findVerb(std::string_view name);
/// The verbs with their arguments and options, one a line.
std::string helpForVerbs();

/// Runs the verbs that standard input holds, one a line. Returns whether each of them did what it should.
bool runShell(DaemonLink &link, Session &session, Output &output);

}  // namespace tool
