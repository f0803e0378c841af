// qelnk: every capability of the library from a shell.

#include <QELNetworkKit/Version.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>
#include <vector>

#include "Command.h"
#include "Manual.h"
#include "Table.h"

namespace tool {
namespace {

std::string overview() {
  Table table;
  for (const Command *command : commands()) table.add({std::string(command->name), std::string(command->summary)});
  return "usage: qelnk COMMAND [options and arguments]\n\ncommands:\n" + table.text("  ") +
         "\nqelnk COMMAND --help tells more.\n\noptions of every command:\n" + helpForOptions(commonOptions());
}

std::string helpFor(const Command &command) {
  std::string text = "usage: qelnk " + std::string(command.name) + " " + std::string(command.syntax.arguments);
  if (!command.syntax.arguments.empty()) text += " ";
  text += "[options]\n\n" + std::string(command.summary) + "\n";
  if (command.notes) text += "\n" + command.notes();
  std::vector<Option> options = command.syntax.options;
  options.insert(options.end(), commonOptions().begin(), commonOptions().end());
  return text + "\noptions:\n" + helpForOptions(options);
}

/// Where the command's name stands: behind options that every command has. The number of words where there is none.
size_t placeOfCommand(const std::vector<std::string> &words) {
  for (size_t index = 0; index < words.size(); ++index) {
    if (!words[index].starts_with("--")) return index;
    if (words[index] == "--timeout" || words[index] == "--log-level") ++index;
  }
  return words.size();
}

Exit runCommand(const Command &command, const Arguments &arguments) {
  const auto logLevel = arguments.text("log-level");
  const double timeout = arguments.seconds("timeout").value_or(10);
  setLogLevel(logLevel ? &*logLevel : nullptr);
  Session session;
  Output output(session, arguments.has("json"));
  Invocation invocation{arguments, session, output, timeout};
  const Exit exit = command.run(invocation);
  switch (session.outputError()) {
    case 0:
      return exit;
    case EINTR:
    case EPIPE:
      throw Failure(Exit::failed, "");
    default:
      throw Failure(Exit::system, "standard output: " + std::generic_category().message(session.outputError()));
  }
}

void print(std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = write(STDOUT_FILENO, text.data(), text.size());
    if (count < 0 && errno == EPIPE) throw Failure(Exit::failed, "");
    if (count < 0 && errno != EINTR)
      throw Failure(Exit::system, "standard output: " + std::generic_category().message(errno));
    text.remove_prefix(size_t(std::max<ssize_t>(count, 0)));
  }
}

/// The commands of the group that a word names, which come with a second word.
std::vector<const Command *> groupOf(const std::string &word) {
  std::vector<const Command *> group;
  for (const Command *command : commands())
    if (command->name.starts_with(word + " ")) group.push_back(command);
  return group;
}

/// The command that the words from `place` on name, which are taken away. A usage Failure where there is none.
const Command &takeCommand(std::vector<std::string> &words, size_t place) {
  std::string name = words[place];
  const auto group = groupOf(name);
  if (!group.empty() && place + 1 < words.size()) name += " " + words[place + 1];
  for (const Command *command : commands()) {
    if (command->name != name) continue;
    const auto first = words.begin() + ptrdiff_t(place);
    words.erase(first, first + (group.empty() ? 1 : 2));
    return *command;
  }
  if (group.empty()) throw Failure(Exit::usage, "unknown command " + name);
  std::string choice;
  for (const Command *command : group) choice += (choice.empty() ? "" : " or ") + std::string(command->name);
  throw Failure(Exit::usage, "the command is " + choice);
}

/// `qelnk help ...`: the overview, and what a package installs besides the program.
void help(std::span<const std::string> words) {
  const Arguments arguments =
      Arguments::parse({"", {{"man", "", "print the manual page"}, {"completion", "SHELL", "for bash or zsh"}}}, words);
  if (arguments.has("man"))
    print(manualPage());
  else if (const auto shell = arguments.text("completion"))
    print(completionFor(*shell));
  else
    print(overview());
}

/// Runs what the command line asks for; failures are thrown. `context` becomes the words that they are about.
Exit run(std::vector<std::string> words, std::string &context) {
  const size_t place = placeOfCommand(words);
  if (place >= words.size()) {
    Syntax syntax;
    syntax.options.assign(commonOptions().begin(), commonOptions().end());
    const Arguments arguments = Arguments::parse(syntax, words);
    if (!arguments.has("version") && !arguments.has("help")) throw Failure(Exit::usage, "no command given");
    print(arguments.has("version") ? std::string(QELNetworkKitVersionString) + "\n" : overview());
    return Exit::done;
  }
  if (words[place] == "help") {
    help(std::span(words).subspan(place + 1));
    return Exit::done;
  }
  if (place + 2 == words.size() && words.back() == "--help" && !groupOf(words[place]).empty()) {
    for (const Command *command : groupOf(words[place])) print(helpFor(*command) + "\n");
    return Exit::done;
  }
  const Command &command = takeCommand(words, place);
  context = "qelnk " + std::string(command.name);
  std::vector<std::string> own;  // words of one that has a command line of its own
  if (command.runWords) {
    own.assign(words.begin() + ptrdiff_t(place), words.end());
    words.resize(place);
  }
  Syntax syntax = command.syntax;
  syntax.options.insert(syntax.options.end(), commonOptions().begin(), commonOptions().end());
  if (command.runWords) syntax.arguments = "";
  const Arguments arguments = Arguments::parse(syntax, words);
  if (arguments.has("help") || arguments.has("version")) {
    print(arguments.has("help") ? helpFor(command) : std::string(QELNetworkKitVersionString) + "\n");
    return Exit::done;
  }
  return command.runWords ? command.runWords(std::move(own)) : runCommand(command, arguments);
}

}  // namespace
}  // namespace tool

int main(int count, char **words) {
  using tool::Exit;
  // A program started without standard streams would otherwise have its sockets under their numbers.
  while (fcntl(STDERR_FILENO, F_GETFD) < 0 || fcntl(STDOUT_FILENO, F_GETFD) < 0 || fcntl(STDIN_FILENO, F_GETFD) < 0)
    if (open("/dev/null", O_RDWR) < 0) return int(Exit::system);
  std::string context = "qelnk";
  try {
    return int(tool::run({words + std::min(count, 1), words + count}, context));
  } catch (const tool::Failure &failure) {
    std::string text = failure.what();
    if (failure.exit() == Exit::usage) text += "; try " + context + " --help";
    if (!text.empty()) tool::complain(text);
    return int(failure.exit());
  } catch (const std::exception &problem) {
    tool::complain(problem.what());
    return int(Exit::system);
  }
}
