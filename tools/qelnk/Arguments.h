#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

/// One option, "--NAME" or "--NAME VALUE".
struct Option {
  std::string_view name;   ///< without its dashes
  std::string_view value;  ///< what the help calls its value; empty for a flag
  std::string_view help;
};

/// What a command accepts behind its words. The help text is made from it.
struct Syntax {
  /// The arguments in order, one word each: "HOST", "[NAME]" where it may be left out, "PORT..." where more may follow,
  /// "[PORT VALUE...]" for both.
  std::string_view arguments;
  std::vector<Option> options;
};

/// A command line taken apart. Options and arguments may stand in any order; "--" ends the options; "--NAME=VALUE"
/// works too. A word that begins like a negative number is an argument.
///
/// Every failure is a Failure of Exit::usage.
class Arguments {
 public:
  /// Takes `words` apart; the number of arguments is checked unless help or the version is asked for.
  static Arguments parse(const Syntax &syntax, std::span<const std::string> words);

  /// The same without the first word, a verb, for what that accepts.
  Arguments forVerb(const Syntax &verb) const;

  bool has(std::string_view option) const { return values_.contains(option); }
  /// What was given to an option: all of it, or the last.
  std::vector<std::string> all(std::string_view option) const;
  std::optional<std::string> text(std::string_view option) const;
  std::optional<int64_t> integer(std::string_view option, int64_t lowest, int64_t highest) const;
  /// A positive number of seconds.
  std::optional<double> seconds(std::string_view option) const;

  /// The arguments in order.
  const std::vector<std::string> &words() const { return words_; }
  const std::string &operator[](size_t index) const { return words_[index]; }
  size_t count() const { return words_.size(); }

 private:
  void checkCount(std::string_view arguments) const;

  std::map<std::string, std::vector<std::string>, std::less<>> values_;
  std::vector<std::string> words_;
};

/// A number that an argument gives, whole and within the bounds, or a Failure that calls it `what`.
int64_t integerArgument(std::string_view what, std::string_view text, int64_t lowest, int64_t highest);
/// A TCP port to connect to.
int32_t portArgument(std::string_view text);
/// A TCP port to listen on; 0 for one that the system chooses.
int32_t ownPortArgument(std::string_view text);

/// Help for options, one a line.
std::string helpForOptions(std::span<const Option> options);

}  // namespace tool
