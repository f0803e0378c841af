#include "LegacyInput.h"

#include <QELNetworkKit/JSON.h>
#include <QELNetworkKit/QELNKLegacyServer.h>

#include <algorithm>
#include <initializer_list>

#include "Base64.h"
#include "Exit.h"

namespace tool {
namespace {

using qelnk::Value;

[[noreturn]] void malformed(const std::string &text) { throw Failure(Exit::malformed, text); }

constexpr size_t longestTXTEntry = 255;

/// The fields of a command's value, checked to be among those that it has.
class Fields {
 public:
  Fields(std::string_view command, const Value &value, std::initializer_list<std::string_view> known)
      : command_(command), value_(value) {
    if (!value.isDictionary()) malformed("\"" + command_ + "\" takes an object");
    for (const auto &entry : value.entries())
      if (std::find(known.begin(), known.end(), entry.key.string()) == known.end())
        malformed("\"" + command_ + "\" has no \"" + std::string(entry.key.string()) + "\"");
  }
  std::string text(std::string_view key) const {
    const Value *field = value_.find(key);
    if (!field || !field->isString()) malformed("\"" + command_ + "\" needs a string \"" + std::string(key) + "\"");
    return std::string(field->string());
  }
  std::optional<std::string> optionalText(std::string_view key) const {
    const Value *field = value_.find(key);
    return !field || field->isNull() ? std::nullopt : std::optional(text(key));
  }
  bool flag(std::string_view key) const {
    const Value *field = value_.find(key);
    if (field && !field->isBool()) malformed("\"" + std::string(key) + "\" is true or false");
    return field && field->boolValue();
  }

 private:
  const std::string command_;
  const Value &value_;
};

LegacyString writable(std::string text) {
  if (!QELNKLegacyStream::isWritable(text)) malformed("a string holds no zero byte and is UTF-8");
  return {std::move(text)};
}

LegacyInput binaryOf(const Value &value) {
  const Fields fields("binary", value, {"contentType", "data", "fenced"});
  auto data = base64Data(fields.text("data"));
  if (!data) malformed("\"data\" takes base64 text");
  if (data->size() > INT32_MAX) malformed("a binary block has at most 2147483647 bytes");
  return LegacyBinary{std::move(*data), writable(fields.text("contentType")).text, fields.flag("fenced")};
}

LegacyInput heartbeatOf(const Value &value) {
  const Fields fields("heartbeat", value, {"timecode", "info"});
  const auto timecode = QELProjectTimecode::timecodeWithString(fields.text("timecode"));
  return writable(QELNKLegacyServer::timecodeStringForTimecode(timecode, fields.optionalText("info")));
}

std::optional<std::string> txtValueOf(const Value &value) {
  if (value.isNull()) return std::nullopt;
  if (value.isString()) return std::string(value.string());
  const Value *encoded = value.isDictionary() && value.size() == 1 ? value.find("$data") : nullptr;
  const auto data = encoded && encoded->isString() ? base64Data(encoded->string()) : std::nullopt;
  if (!data) malformed("the values of \"txt\" are strings, {\"$data\": BASE64} or null");
  return std::string(data->text());
}

LegacyInput txtOf(const Value &value) {
  if (!value.isDictionary()) malformed("\"txt\" takes an object");
  LegacyTXT txt;
  for (const auto &entry : value.entries()) {
    const std::string key(entry.key.string());
    const auto text = txtValueOf(entry.value);
    if (!fitsTXTRecord(key, text)) malformed("no TXT record can hold the entry \"" + key + "\"");
    txt.record.insert_or_assign(key, text);
  }
  return txt;
}

LegacyInput commandOf(const Value &command) {
  if (command.size() != 1) malformed("one command a line");
  const auto &[key, value] = *command.entries().begin();
  if (key == "string" && value.isString()) return writable(std::string(value.string()));
  if (key == "string") malformed("\"string\" takes a string");
  if (key == "binary") return binaryOf(value);
  if (key == "heartbeat") return heartbeatOf(value);
  if (key == "txt") return txtOf(value);
  if (key == "disconnect" && value == true) return LegacyDisconnect();
  if (key == "disconnect") malformed("\"disconnect\" takes true");
  malformed("unknown command \"" + std::string(key.string()) + "\"");
}

LegacyInput parse(std::string_view line) {
  const size_t start = line.find_first_not_of(" \t\r");
  const auto command = start != std::string_view::npos && line[start] == '{' ? qelnk::jsonObject(line) : std::nullopt;
  return command ? commandOf(*command) : writable(std::string(line));
}

}  // namespace

LegacyInput legacyInput(std::string_view line, size_t number) {
  try {
    return parse(line);
  } catch (const Failure &failure) {
    throw Failure(failure.exit(), "line " + std::to_string(number) + ": " + failure.what());
  }
}

std::string_view legacyInputNotes() {
  return "A line of input is written as a string, but one that is a JSON object is a command:\n"
         "  {\"string\": TEXT}\n"
         "  {\"binary\": {\"contentType\": TEXT, \"data\": BASE64, \"fenced\": true|false}}\n"
         "  {\"heartbeat\": {\"timecode\": TEXT, \"info\": TEXT}}\n"
         "  {\"txt\": {KEY: TEXT|{\"$data\": BASE64}|null}}   for a published service\n"
         "  {\"disconnect\": true}        once what came before is written\n";
}

std::string serviceType(const std::string &text) {
  const std::string_view type = text.ends_with('.') ? std::string_view(text).substr(0, text.size() - 1) : text;
  const bool fits = type.size() > 6 && type.front() == '_' && (type.ends_with("._tcp") || type.ends_with("._udp"));
  if (!fits) throw Failure(Exit::usage, "--type takes a service type, _x._tcp, not " + text);
  return text;
}

bool fitsTXTRecord(const std::string &key, const std::optional<std::string> &value) {
  const bool isKey =
      !key.empty() && std::all_of(key.begin(), key.end(), [](char c) { return c >= ' ' && c <= '~' && c != '='; });
  return isKey && key.size() + (value ? 1 + value->size() : 0) <= longestTXTEntry;
}

}  // namespace tool
