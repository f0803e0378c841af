// Values as the tool's user writes them: what was read is written, and read again as the same value.

#include "tools/qelnk/Notation.h"

#include <QELNetworkKit/MPMessagePack.h>

#include <optional>

#include "Fuzz.h"
#include "tools/qelnk/Arguments.h"
#include "tools/qelnk/Base64.h"
#include "tools/qelnk/Exit.h"

using qelnk::Value;

namespace {

template <class Make>
auto unlessRefused(Make make) -> std::optional<decltype(make())> {
  try {
    return make();
  } catch (const tool::Failure &) {
    return std::nullopt;
  }
}

void checkValue(const Value &value) {
  const auto text = unlessRefused([&] { return tool::textOf(value); });
  if (!text) return;  // nested too deep
  const auto again = unlessRefused([&] { return tool::parseValue(*text); });
  if (again) fuzz::require(*again == value, "what was written is read as the same value");
}

void parseLine(std::string_view text) {
  static const tool::Syntax syntax{"HOST [PORT VALUE...]",
                                   {{"count", "N", ""}, {"timeout", "SECONDS", ""}, {"json", "", ""}}};
  std::vector<std::string> words;
  for (size_t end = 0; end != std::string_view::npos && words.size() < 16; text.remove_prefix(end + 1)) {
    end = text.find('\n');
    words.emplace_back(text.substr(0, end));
    if (end == std::string_view::npos) break;
  }
  const auto arguments = unlessRefused([&] { return tool::Arguments::parse(syntax, words); });
  if (!arguments) return;
  fuzz::require(arguments->count() >= 1, "an argument that is needed is there");
  const auto count = unlessRefused([&] { return arguments->integer("count", 1, 9); });
  if (count && *count) fuzz::require(**count >= 1 && **count <= 9, "a number is within its bounds");
  unlessRefused([&] { return arguments->seconds("timeout"); });
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::span bytes(data, size);
  const std::string_view text = fuzz::textOf(bytes);
  const auto value = unlessRefused([&] { return tool::parseValue(text); });
  if (value) checkValue(*value);
  const auto argument = unlessRefused([&] { return tool::parseArgument(text); });
  if (value) fuzz::require(argument && *argument == *value, "an argument is what its JSON says");
  if (const auto decoded = qelnk::mp_object(bytes)) checkValue(*decoded);
  if (const auto decoded = tool::base64Data(text))
    fuzz::require(tool::base64Text(decoded->span()) == text, "base64 has one form");
  fuzz::require(tool::base64Data(tool::base64Text(bytes)) == qelnk::Data(bytes), "base64 stands for its bytes");
  parseLine(text);
  return 0;
}
