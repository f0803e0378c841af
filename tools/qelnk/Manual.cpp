// The manual page and the completions, made of the tables that the help is made of.

#include "Manual.h"

#include <QELNetworkKit/Version.h>

#include <algorithm>
#include <sstream>

#include "Command.h"
#include "DaemonVerbs.h"

namespace tool {
namespace {

/// Text as troff prints it; each line on its own.
std::string troff(std::string_view text) {
  std::string result;
  bool atStart = true;
  for (const char c : text) {
    if (atStart && (c == '.' || c == '\'')) result += "\\&";
    atStart = c == '\n';
    if (c == '\\')
      result += "\\e";
    else if (c == '-')
      result += "\\-";
    else if (c == '\'')
      result += "\\(aq";
    else
      result += c;
  }
  return result;
}

/// The notes of a command's help: sentences are filled, what is indented (a table) stays as it is.
std::string manualOfNotes(const std::string &notes) {
  std::string text = ".PP\n";
  bool inTable = false;
  std::istringstream lines(notes);
  for (std::string line; std::getline(lines, line);) {
    const bool isTable = line.starts_with(' ');
    if (isTable != inTable) text += isTable ? ".EX\n" : ".EE\n.PP\n";
    inTable = isTable;
    text += line.empty() ? ".PP\n" : troff(line) + "\n";
    if (!isTable && line.ends_with('.')) text += ".br\n";
  }
  return text + (inTable ? ".EE\n" : "");
}

std::string manualOfOptions(std::span<const Option> options) {
  std::string text;
  for (const Option &option : options) {
    text += ".TP\n\\fB\\-\\-" + troff(option.name) + "\\fR";
    if (!option.value.empty()) text += " \\fI" + troff(option.value) + "\\fR";
    text += "\n" + troff(option.help) + "\n";
  }
  return text;
}

/// The words of a list, quoted for a shell.
std::string quoted(std::string_view text) {
  std::string result = "'";
  for (const char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return result + "'";
}

/// A word that may stand at a place, with what it is for.
struct Candidate {
  std::string word, help;
};
using Candidates = std::vector<Candidate>;

void addOptions(Candidates &to, std::span<const Option> options) {
  for (const Option &option : options) to.push_back({"--" + std::string(option.name), std::string(option.help)});
}

/// What may follow a command's words.
Candidates candidatesOf(const Command &command) {
  Candidates candidates;
  if (command.runWords) return candidates;
  if (command.name == "daemon")
    for (const Verb &verb : verbs()) candidates.push_back({std::string(verb.name), std::string(verb.summary)});
  addOptions(candidates, command.syntax.options);
  addOptions(candidates, commonOptions());
  return candidates;
}

/// What may follow the words of each command, of each group, and (under "") the tool's name.
std::vector<std::pair<std::string, Candidates>> places() {
  std::vector<std::pair<std::string, Candidates>> result{{"", {}}};
  for (const Command *command : commands()) {
    const std::string name(command->name), summary(command->summary);
    const size_t space = name.find(' ');
    const std::string first = name.substr(0, space);
    const auto known =
        std::find_if(result.begin(), result.end(), [&](const auto &place) { return place.first == first; });
    if (space == std::string::npos) {
      result.front().second.push_back({name, summary});
    } else if (known == result.end()) {
      result.front().second.push_back({first, "see qelnk " + first + " --help"});
      result.push_back({first, {{name.substr(space + 1), summary}}});
    } else {
      known->second.push_back({name.substr(space + 1), summary});
    }
    result.push_back({name, candidatesOf(*command)});
  }
  addOptions(result.front().second, commonOptions());
  return result;
}

/// The shells' common part: finds the command among `words`, whose word number `current` is being completed, in the
/// order in which the tool itself takes them. Words are counted from `first` on.
std::string findCommand(const std::string &words, const std::string &current, const std::string &first) {
  std::string group;
  for (const auto &[name, candidates] : places())
    if (const size_t space = name.find(' ');
        space != std::string::npos && group.find(name.substr(0, space)) == std::string::npos)
      group += (group.empty() ? "" : "|") + name.substr(0, space);
  return "  local command='' i\n"
         "  for ((i = " +
         first + "; i < " + current +
         "; i++)); do\n"
         "    case \"${" +
         words +
         "[i]}\" in\n"
         "      --timeout | --log-level) ((i++)) ;;\n"
         "      -*) ;;\n"
         "      *) command=\"${" +
         words +
         "[i]}\"; break ;;\n"
         "    esac\n"
         "  done\n"
         "  case \"$command\" in\n"
         "    " +
         group + ") ((i + 1 < " + current + ")) && command=\"$command ${" + words +
         "[i + 1]}\" ;;\n"
         "  esac\n";
}

/// Options that take a value, behind which no option stands.
std::string optionsWithValue() {
  std::vector<std::string> names;
  const auto add = [&](std::span<const Option> options) {
    for (const Option &option : options)
      if (!option.value.empty()) names.push_back("--" + std::string(option.name));
  };
  add(commonOptions());
  for (const Command *command : commands()) add(command->syntax.options);
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  std::erase(names, "--log-level");
  std::string text;
  for (const std::string &name : names) text += (text.empty() ? "" : " | ") + name;
  return text;
}

std::string bashCompletion() {
  std::string text =
      "# bash completion for qelnk\n\n_qelnk() {\n  COMPREPLY=()\n"
      "  local word=\"${COMP_WORDS[COMP_CWORD]#=}\" choices='' part\n"
      "  local -a line=()  # without the = that parts an option from its value, which the shell takes for a word\n"
      "  for part in \"${COMP_WORDS[@]:0:COMP_CWORD}\"; do [[ \"$part\" == = ]] || line+=(\"$part\"); done\n"
      "  local current=${#line[@]}\n"
      "  case \"${line[current - 1]}\" in\n"
      "    --log-level) COMPREPLY=($(compgen -W 'off error info debug' -- \"$word\")); return ;;\n"
      "    " +
      optionsWithValue() + ") return ;;\n  esac\n" + findCommand("line", "current", "1") + "  case \"$command\" in\n";
  for (const auto &[name, candidates] : places()) {
    std::string words;
    for (const Candidate &candidate : candidates) words += (words.empty() ? "" : " ") + candidate.word;
    text += "    " + quoted(name) + ") choices=" + quoted(words) + " ;;\n";
  }
  return text +
         "  esac\n  COMPREPLY=($(compgen -W \"$choices\" -- \"$word\"))\n}\ncomplete -o default -F _qelnk qelnk\n";
}

std::string zshCompletion() {
  std::string text =
      "#compdef qelnk\n\n_qelnk() {\n  local -a choices\n  case \"${words[CURRENT - 1]}\" in\n"
      "    --log-level) _values level off error info debug; return ;;\n"
      "    " +
      optionsWithValue() + ") _files; return ;;\n  esac\n" + findCommand("words", "CURRENT", "2") +
      "  case \"$command\" in\n";
  for (const auto &[name, candidates] : places()) {
    text += "    " + quoted(name) + ") choices=(\n";
    for (const Candidate &candidate : candidates) {
      std::string help = candidate.help;
      std::replace(help.begin(), help.end(), '\n', ' ');
      text += "      " + quoted(candidate.word + ":" + help) + "\n";
    }
    text += "    ) ;;\n";
  }
  return text + "  esac\n  _describe 'qelnk' choices || _files\n}\n_qelnk \"$@\"\n";
}

}  // namespace

std::string manualPage() {
  std::string text =
      ".TH QELNK 1 \"\" \"" + std::string(QELNetworkKitVersionString) +
      "\" \"User Commands\"\n.SH NAME\nqelnk \\- the QELNetworkKit library from a shell\n.SH SYNOPSIS\n"
      ".B qelnk\n.I COMMAND\n[\\fIoptions and arguments\\fR]\n.SH DESCRIPTION\n"
      "Tries, scripts and diagnoses what the library does: messages over ZeroMQ, a processing daemon, legacy\n"
      "connections, networks and WebSockets.\n"
      "Standard output carries results only; with \\fB\\-\\-json\\fR each line of it is one JSON object with a key\n"
      "\"event\".\nOptions and arguments may stand in any order behind the command.\n.SH COMMANDS\n";
  for (const Command *command : commands()) {
    text += ".SS qelnk " + troff(command->name);
    if (!command->syntax.arguments.empty()) text += " " + troff(command->syntax.arguments);
    text += "\n" + troff(command->summary) + "\n" + manualOfOptions(command->syntax.options);
    if (command->notes) text += manualOfNotes(command->notes());
  }
  text += ".SH OPTIONS OF EVERY COMMAND\nBut of \\fBping\\fR, whose arguments are its own.\n" +
          manualOfOptions(commonOptions());
  const std::pair<Exit, const char *> exits[] = {{Exit::done, "done"},
                                                 {Exit::failed, "the operation failed"},
                                                 {Exit::usage, "the command line makes no sense"},
                                                 {Exit::malformed, "malformed input"},
                                                 {Exit::unanswered, "nobody answered in time"},
                                                 {Exit::system, "the system failed"}};
  text += ".SH EXIT STATUS\n";
  for (const auto &[exit, meaning] : exits) text += ".TP\n" + std::to_string(int(exit)) + "\n" + meaning + "\n";
  return text + ".SH SEE ALSO\n.BR orlin\\-sim (1)\n";
}

std::string completionFor(const std::string &shell) {
  if (shell == "bash") return bashCompletion();
  if (shell == "zsh") return zshCompletion();
  throw Failure(Exit::usage, "completion is for bash or zsh, not " + shell);
}

}  // namespace tool
