// The encodings of messages in frames.

#include <QELNetworkKit/JSON.h>
#include <QELNetworkKit/MPMessagePack.h>
#include <QELNetworkKit/QELNKSocket.h>
#include <QELNetworkKit/XMLDocument.h>

#include "encoding/Text.h"

#include <algorithm>
#include <cerrno>

using qelnk::Data;
using qelnk::Error;
using qelnk::Value;

static std::optional<Data> refuse(const Value &message, const char *wanted, Error *error) {
  if (error)
    *error = {.domain = "ZMQ",
              .code = EINVAL,
              .description = "A message of kind " + std::string(nameOfKind(message.kind())) + " where " + wanted +
                             " is to be sent",
              .userInfo = {}};
  return std::nullopt;
}

// The writer hands out what it wrote before a failure; half a message is of no use to anybody.
static std::optional<Data> messagePack(const Value &message, Error *error) {
  Error failure;
  Data data = qelnk::mp_messagePack(message, &failure);
  if (!failure) return data;
  if (error) *error = std::move(failure);
  return std::nullopt;
}

// A string body never fails: what is not UTF-8 in it gives replacement characters.
static Value textOf(std::string_view bytes) {
  if (qelnk::detail::isUTF8(bytes)) return bytes;
  std::string text;
  while (!bytes.empty()) {
    size_t length = 1;
    while (length <= std::min<size_t>(4, bytes.size()) && !qelnk::detail::isUTF8(bytes.substr(0, length))) ++length;
    const bool isCharacter = length <= std::min<size_t>(4, bytes.size());
    text += isCharacter ? bytes.substr(0, length) : "\uFFFD";
    bytes.remove_prefix(isCharacter ? length : 1);
  }
  return text;
}

std::optional<Data> QELNKSocket::serializeMessage(const Value &message, int32_t type, Error *error) {
  switch (type) {
    case QELNKMessageBodyJSON:
      return qelnk::jsonData(message, error);
    case QELNKMessageBodyMessagePack:
      return messagePack(message, error);
    case QELNKMessageBodyXML:
      return message.isXML() ? std::optional(message.xml().data()) : refuse(message, "an XML document", error);
    case QELNKMessageBodyString:
      return message.isString() ? std::optional(Data(message.string())) : refuse(message, "a string", error);
    case QELNKMessageBodyData:
      return message.data();
    default:
      return std::nullopt;
  }
}

std::optional<Value> QELNKSocket::deserializeData(const Data &frame, int32_t type, Error *error) {
  return deserialize(frame.span(), type, error);
}

std::optional<Value> QELNKSocket::deserialize(std::span<const uint8_t> frame, int32_t type, Error *error) {
  switch (type) {
    case QELNKMessageBodyJSON:
      return qelnk::jsonObject(frame, error);
    case QELNKMessageBodyMessagePack:
      return qelnk::mp_dict(frame, error);
    case QELNKMessageBodyXML: {
      auto document = qelnk::XMLDocument::parse(frame, error);
      return document ? std::optional<Value>(std::move(*document)) : std::nullopt;
    }
    case QELNKMessageBodyString:
      return textOf({reinterpret_cast<const char *>(frame.data()), frame.size()});
    case QELNKMessageBodyData:
      return Value(Data(frame));
    default:
      return std::nullopt;
  }
}

std::optional<QELNKFrames> QELNKSocket::serializeMessage(const Value &message, Error *error) const {
  if (messageBody() == QELNKMessageBodyMultipart) {
    const auto items = message.items();
    if (!message.isList() || !std::ranges::all_of(items, &Value::isData)) {
      refuse(message, "a list of byte buffers", error);
      return std::nullopt;
    }
    QELNKFrames frames;
    std::ranges::transform(items, std::back_inserter(frames), &Value::data);
    return frames;
  }
  auto frame = serializeMessage(message, messageBody(), error);
  if (!frame) return std::nullopt;
  QELNKFrames frames;
  frames.push_back(std::move(*frame));
  return frames;
}

std::optional<Value> QELNKSocket::deserializeData(const QELNKFrames &frames, Error *error) const {
  if (messageBody() == QELNKMessageBodyMultipart) {
    Value list = Value::list();
    list.reserve(frames.size());
    for (const Data &frame : frames) list.append(frame);
    return list;
  }
  if (frames.size() != 1) return std::nullopt;
  return deserializeData(frames.front(), messageBody(), error);
}
