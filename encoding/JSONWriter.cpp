#include <QELNetworkKit/JSON.h>

#include <cmath>

#include "encoding/Text.h"
#include "encoding/TextSink.h"
#include "encoding/TreeWalk.h"

namespace qelnk {

namespace {

/// Writes what a walk visits as JSON, and stops at the first value that has no form there.
class JSONWriter {
 public:
  bool scalar(const Value &value) {
    if (expectsKey_ && !value.isString()) return failed("A key of a map is no string: " + value.description());
    switch (value.kind()) {
      case Kind::null:
        sink_.put("null");
        return true;
      case Kind::boolean:
        sink_.put(value.boolValue() ? "true" : "false");
        return true;
      case Kind::string:
        return string(value.string());
      case Kind::data:
        return failed("A byte buffer has no form in JSON");
      case Kind::xml:
        return failed("An XML document has no form in JSON");
      default:
        if (value.isFloat() && !std::isfinite(value.doubleValue()))
          return failed("NaN and infinities have no form in JSON");
        // A narrow float as the double that it is: a reader has no other, and finds the same number.
        sink_.putNumber(value.kind() == Kind::float32 ? Value(value.doubleValue()) : value);
        return true;
    }
  }
  bool begin(const Value &container) {
    if (expectsKey_) return failed("A key of a map is no string: " + container.description());
    sink_.put(container.isList() ? '[' : '{');
    return true;
  }
  bool between(const Value &container, size_t n) {
    expectsKey_ = !container.isList() && n % 2 == 0;
    if (!container.isList() && !expectsKey_) {
      sink_.put(':');
    } else if (n != 0) {
      sink_.put(',');
    }
    return true;
  }
  bool end(const Value &container) {
    sink_.put(container.isList() ? ']' : '}');
    return true;
  }
  const Value *sortedKeys(const Value &, Value &) const { return nullptr; }

  Data finish() { return sink_.finishData(); }
  const std::string &reason() const { return reason_; }

 private:
  bool string(std::string_view text) {
    if (sink_.putPlain(text)) return true;
    if (!detail::isUTF8(text)) return failed("A string is not UTF-8");
    sink_.putQuoted(text);
    return true;
  }

  bool failed(std::string reason) {
    reason_ = std::move(reason);
    return false;
  }

  detail::TextSink sink_;
  bool expectsKey_ = false;
  std::string reason_;
};

}  // namespace

std::optional<Data> jsonData(const Value &value, Error *error, JSONTopLevel top) {
  JSONWriter writer;
  const bool allowed = top == JSONTopLevel::any || value.isList() || value.isDictionary();
  if (allowed && detail::TreeWalk(writer).walk(value)) return writer.finish();
  if (error)
    *error = {"JSON", 1,
              allowed
                  ? writer.reason()
                  : "Only a list or a map can be the top level of JSON, not a " + std::string(nameOfKind(value.kind())),
              nullptr};
  return std::nullopt;
}

}  // namespace qelnk
