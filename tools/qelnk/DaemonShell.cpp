#include <unistd.h>

#include <cstdio>
#include <utility>

#include "DaemonVerbs.h"

namespace tool {
namespace {

/// Takes a line apart as a shell does: white space parts the words, '...', "..." and \ quote, # begins a comment.
class LineWords {
 public:
  explicit LineWords(std::string_view line) : rest_(line) {}

  std::vector<std::string> take() {
    while (!rest_.empty()) {
      const char next = pop();
      if (next == ' ' || next == '\t' || next == '\r')
        endWord();
      else if (next == '#' && !open_)
        break;
      else
        takeInWord(next);
    }
    endWord();
    return std::move(words_);
  }

 private:
  char pop() {
    const char next = rest_.front();
    rest_.remove_prefix(1);
    return next;
  }

  void takeInWord(char next) {
    open_ = true;
    if (next == '\'') {
      quote('\'');
    } else if (next == '"') {
      quote('"');
    } else if (next == '\\') {
      if (rest_.empty()) throw Failure(Exit::usage, "nothing behind the last \\");
      word_ += pop();
    } else {
      word_ += next;
    }
  }

  void quote(char mark) {
    for (;;) {
      if (rest_.empty()) throw Failure(Exit::usage, std::string("no closing ") + mark);
      const char next = pop();
      if (next == mark) return;
      const bool escape = mark == '"' && next == '\\' && rest_.find_first_of("\"\\$`") == 0;
      word_ += escape ? pop() : next;
    }
  }

  void endWord() {
    if (open_) words_.push_back(std::exchange(word_, {}));
    open_ = false;
  }

  std::string_view rest_;
  std::vector<std::string> words_;
  std::string word_;
  bool open_ = false;  // a word has begun, be it empty
};

/// As a result, where results are text.
void showHelp(Output &output) {
  std::string help = helpForVerbs();
  help.pop_back();
  output.json() ? tell(help) : output.line(help);
}

void runLine(const std::string &line, DaemonLink &link, Session &session, Output &output) {
  std::vector<std::string> words = LineWords(line).take();
  if (words.empty()) return;
  if (words[0] == "help") return showHelp(output);
  const Verb &verb = findVerb(words[0]);
  if (verb.name == "shell") throw Failure(Exit::usage, "this is the shell already");
  words.erase(words.begin());
  const Arguments arguments = Arguments::parse(verb.syntax, words);
  if (verb.check) verb.check(arguments);
  VerbCall call{arguments, link, session, output};
  verb.run(call);
}

void prompt() {
  if (isatty(STDIN_FILENO) && isatty(STDERR_FILENO)) std::fputs("daemon> ", stderr);
}

}  // namespace

bool runShell(DaemonLink &link, Session &session, Output &output) {
  bool good = true;
  for (size_t number = 1; !link.hasQuit(); ++number) {
    prompt();
    const auto line = session.readLine();
    if (!line) break;
    try {
      runLine(*line, link, session, output);
    } catch (const Failure &failure) {
      good = false;
      if (*failure.what()) complain("line " + std::to_string(number) + ": " + failure.what());
    }
  }
  return good;
}

}  // namespace tool
