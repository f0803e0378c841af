// A frame in each body encoding: what was read can be sent on, and is the same message then.

#include <QELNetworkKit/QELNKSocket.h>

#include "Fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const qelnk::Data frame(std::span(data, size));
  for (const int32_t body : {QELNKMessageBodyJSON, QELNKMessageBodyMessagePack, QELNKMessageBodyXML,
                             QELNKMessageBodyString, QELNKMessageBodyData}) {
    qelnk::Error error;
    const auto message = QELNKSocket::deserializeData(frame, body, &error);
    fuzz::require(message.has_value() == !error, "there is a message or an error");
    const bool isFree = body == QELNKMessageBodyString || body == QELNKMessageBodyData;
    fuzz::require(message || !isFree, "anything is a text or a buffer");
    if (!message) continue;
    const auto written = QELNKSocket::serializeMessage(*message, body, &error);
    fuzz::require(written.has_value(), "what was read can be sent");
    if (body == QELNKMessageBodyXML) continue;  // see the target of its own
    const auto again = QELNKSocket::deserializeData(*written, body, &error);
    fuzz::require(again && *again == *message, "what was sent on is the same message");
    if (body == QELNKMessageBodyData) fuzz::require(*written == frame, "a buffer is the frame");
    if (body == QELNKMessageBodyString && message->string().find("\uFFFD") == std::string_view::npos)
      fuzz::require(*written == frame, "a text without replacements is the frame");
  }
  return 0;
}
