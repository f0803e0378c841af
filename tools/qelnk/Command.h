#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Arguments.h"
#include "Exit.h"
#include "Output.h"
#include "Session.h"

namespace tool {

/// What a command gets to work with.
struct Invocation {
  const Arguments &arguments;
  Session &session;
  Output &output;
  double timeout;  ///< seconds, for connecting and for each reply
};

/// One command of the tool. A new one is a file of its own that defines its table entry, and a place in the table in
/// Commands.cpp.
struct Command {
  std::string_view name;  ///< one word, or two for one of a group
  std::string_view summary;
  Syntax syntax;
  std::string (*notes)();  ///< what its help says besides; may be null
  Exit (*run)(Invocation &invocation);
  /// In its place, for one that has a command line of its own: gets the words behind the command's as they are.
  Exit (*runWords)(std::vector<std::string> words) = nullptr;
};

/// For the commands that run on.
inline constexpr Option stayOption{"stay", "", "keep running after standard input has ended"};

/// All commands, in the order of the help.
std::span<const Command *const> commands();
/// The options that every command has.
std::span<const Option> commonOptions();

}  // namespace tool
