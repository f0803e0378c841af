#include "Body.h"

#include <QELNetworkKit/JSON.h>
#include <QELNetworkKit/XMLDocument.h>

#include "Base64.h"
#include "Exit.h"
#include "Notation.h"

namespace tool {

using qelnk::Value;

namespace {

[[noreturn]] void malformed(const std::string &text) { throw Failure(Exit::malformed, text); }

bool isBlank(std::string_view line) { return line.find_first_not_of(" \t\r") == std::string_view::npos; }

}  // namespace

Body Body::of(const Arguments &arguments) {
  const std::string name = arguments.text("body").value_or("json");
  if (name == "json") return Body(QELNKMessageBodyJSON);
  if (name == "msgpack") return Body(QELNKMessageBodyMessagePack);
  if (name == "xml") return Body(QELNKMessageBodyXML);
  if (name == "string") return Body(QELNKMessageBodyString);
  if (name == "data") return Body(QELNKMessageBodyData);
  throw Failure(Exit::usage, "--body takes json, msgpack, xml, string or data, not " + name);
}

std::string Body::notes() {
  return "With the bodies json and msgpack a line is JSON, with xml and string the text itself, with data base64.\n";
}

/// JSON bodies carry the line's own JSON: it can hold nothing that would need another notation.
Value Body::parse(std::string_view line) const {
  qelnk::Error error;
  switch (number_) {
    case QELNKMessageBodyJSON:
      if (auto json = qelnk::jsonObject(line, &error)) return std::move(*json);
      malformed("malformed JSON: " + error.description);
    case QELNKMessageBodyXML:
      if (auto document = qelnk::XMLDocument::parse(line, &error)) return Value(std::move(*document));
      malformed("malformed XML: " + error.description);
    case QELNKMessageBodyData:
      if (auto data = base64Data(line)) return Value(std::move(*data));
      malformed("malformed base64");
    case QELNKMessageBodyString:
      return Value(line);
    default:
      return parseValue(line);
  }
}

std::optional<Value> Body::message(std::string_view line) const {
  if (number_ != QELNKMessageBodyString && number_ != QELNKMessageBodyData && isBlank(line)) return std::nullopt;
  Value message = parse(line);
  qelnk::Error error;
  if (number_ == QELNKMessageBodyMessagePack && !message.isDictionary() && !message.isList())
    malformed("a msgpack body is a map or a list");
  if (!QELNKSocket::serializeMessage(message, number_, &error)) malformed(error.description);
  return message;
}

std::optional<Value> Body::message(std::string_view line, size_t number) const {
  try {
    return message(line);
  } catch (const Failure &failure) {
    throw Failure(failure.exit(), "line " + std::to_string(number) + ": " + failure.what());
  }
}

std::string Body::text(const Value &message) const {
  if (message.isString()) return std::string(message.string());
  if (message.isData()) return base64Text(message.bytes());
  if (message.isXML()) return std::string(message.xml().data().text());
  return plainJSON(plain(message));
}

Value Body::plain(const Value &message) const {
  return number_ == QELNKMessageBodyJSON ? message : notationOf(message);
}

}  // namespace tool
