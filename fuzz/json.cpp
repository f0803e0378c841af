// Bodies in JSON: what was read is written, and read again as the same value.

#include <QELNetworkKit/JSON.h>

#include "Fuzz.h"

using qelnk::JSONTopLevel;

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::span bytes(data, size);
  qelnk::Error error;
  const auto value = qelnk::jsonObject(bytes, &error, JSONTopLevel::any);
  fuzz::require(value.has_value() == !error, "there is a value or an error");
  const auto body = qelnk::jsonObject(bytes);
  fuzz::require(body.has_value() == (value && (value->isList() || value->isMap())), "a body is a list or a map");
  if (!value) return 0;
  const auto text = qelnk::jsonData(*value, &error, JSONTopLevel::any);
  fuzz::require(text.has_value(), "what was read can be written");
  const auto again = qelnk::jsonObject(text->span(), &error, JSONTopLevel::any);
  fuzz::require(again && *again == *value, "what was written is read as the same value");
  const auto textAgain = qelnk::jsonData(*again, &error, JSONTopLevel::any);
  fuzz::require(textAgain && *textAgain == *text, "the same value has the same text");
  return 0;
}
