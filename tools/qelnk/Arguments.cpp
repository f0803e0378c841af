#include "Arguments.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <sstream>

#include "Exit.h"
#include "Table.h"

namespace tool {
namespace {

[[noreturn]] void usageError(const std::string &text) { throw Failure(Exit::usage, text); }

bool looksLikeOption(std::string_view word) {
  return word.size() > 1 && word[0] == '-' && !(word[1] >= '0' && word[1] <= '9') && word[1] != '.';
}

std::vector<std::string> split(std::string_view text) {
  std::istringstream stream{std::string(text)};
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

const Option &findOption(const Syntax &syntax, std::string_view word, std::string_view name) {
  const auto found = std::find_if(syntax.options.begin(), syntax.options.end(),
                                  [&](const Option &option) { return option.name == name; });
  if (!word.starts_with("--") || found == syntax.options.end()) usageError("unknown option " + std::string(word));
  return *found;
}

}  // namespace

Arguments Arguments::parse(const Syntax &syntax, std::span<const std::string> words) {
  Arguments result;
  bool optionsEnded = false;
  for (size_t index = 0; index < words.size(); ++index) {
    const std::string &word = words[index];
    if (optionsEnded || !looksLikeOption(word)) {
      result.words_.push_back(word);
      continue;
    }
    if (word == "--") {
      optionsEnded = true;
      continue;
    }
    const size_t equals = word.find('=');
    const std::string flag = word.substr(0, equals);
    const Option &option = findOption(syntax, flag, std::string_view(flag).substr(std::min<size_t>(2, flag.size())));
    auto &values = result.values_[std::string(option.name)];
    if (option.value.empty()) {
      if (equals != std::string::npos) usageError("option " + flag + " takes no value");
    } else if (equals != std::string::npos) {
      values.push_back(word.substr(equals + 1));
    } else {
      if (++index == words.size()) usageError("option " + flag + " needs a value (" + std::string(option.value) + ")");
      values.push_back(words[index]);
    }
  }
  if (!result.has("help") && !result.has("version")) result.checkCount(syntax.arguments);
  return result;
}

void Arguments::checkCount(std::string_view arguments) const {
  const std::vector<std::string> names = split(arguments);
  size_t required = 0;
  bool repeats = false, bracketed = false;
  for (const std::string &name : names) {
    bracketed = bracketed || name.starts_with('[');
    if (!bracketed) ++required;
    if (name.find("...") != std::string::npos) repeats = true;
    if (name.ends_with(']')) bracketed = false;
  }
  if (words_.size() < required) usageError("missing argument " + names[words_.size()]);
  if (words_.size() > names.size() && !repeats) usageError("one argument too many: " + words_[names.size()]);
}

Arguments Arguments::forVerb(const Syntax &verb) const {
  Arguments result = *this;
  result.words_.erase(result.words_.begin());
  result.checkCount(verb.arguments);
  return result;
}

std::vector<std::string> Arguments::all(std::string_view option) const {
  const auto found = values_.find(option);
  return found == values_.end() ? std::vector<std::string>() : found->second;
}

std::optional<std::string> Arguments::text(std::string_view option) const {
  const auto found = values_.find(option);
  if (found == values_.end() || found->second.empty()) return std::nullopt;
  return found->second.back();
}

std::optional<int64_t> Arguments::integer(std::string_view option, int64_t lowest, int64_t highest) const {
  const auto given = text(option);
  if (!given) return std::nullopt;
  return integerArgument("--" + std::string(option), *given, lowest, highest);
}

std::optional<double> Arguments::seconds(std::string_view option) const {
  const auto given = text(option);
  if (!given) return std::nullopt;
  double value = 0;
  const char *end = given->data() + given->size();
  const auto [stop, problem] = std::from_chars(given->data(), end, value);
  // A year is as good as for ever, and still fits the clock's counter.
  if (problem != std::errc() || stop != end || !std::isfinite(value) || value <= 0 || value > 31'536'000)
    usageError("--" + std::string(option) + " takes a positive number of seconds, not " + *given);
  return value;
}

int64_t integerArgument(std::string_view what, std::string_view text, int64_t lowest, int64_t highest) {
  int64_t value = 0;
  const auto [stop, problem] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (problem != std::errc() || stop != text.data() + text.size() || value < lowest || value > highest)
    usageError(std::string(what) + " takes a whole number from " + std::to_string(lowest) + " to " +
               std::to_string(highest) + ", not " + std::string(text));
  return value;
}

int32_t portArgument(std::string_view text) { return int32_t(integerArgument("PORT", text, 1, 65535)); }

int32_t ownPortArgument(std::string_view text) { return int32_t(integerArgument("PORT", text, 0, 65535)); }

std::string helpForOptions(std::span<const Option> options) {
  Table table;
  for (const Option &option : options) {
    std::string left = "--" + std::string(option.name);
    if (!option.value.empty()) left += " " + std::string(option.value);
    table.add({left, std::string(option.help)});
  }
  return table.text("  ");
}

}  // namespace tool
