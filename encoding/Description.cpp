#include <algorithm>
#include <string>

#include "encoding/TextSink.h"
#include "encoding/TreeWalk.h"

namespace qelnk {

namespace {

/// Writes what a walk visits for people to read: as JSON where JSON has a form.
class Describer {
 public:
  bool scalar(const Value &value) {
    switch (value.kind()) {
      case Kind::null:
        sink_.put("null");
        break;
      case Kind::boolean:
        sink_.put(value.boolValue() ? "true" : "false");
        break;
      case Kind::string:
        sink_.putQuoted(value.string());
        break;
      case Kind::data:
        bytes(value.bytes());
        break;
      case Kind::xml:
        sink_.put(value.xml().data().text());
        break;
      default:
        sink_.putNumber(value);
    }
    return true;
  }
  bool begin(const Value &container) {
    sink_.put(container.isList() ? '[' : '{');
    return true;
  }
  bool between(const Value &container, size_t n) {
    if (!container.isList() && n % 2 == 1) {
      sink_.put(": ");
    } else if (n != 0) {
      sink_.put(", ");
    }
    return true;
  }
  bool end(const Value &container) {
    sink_.put(container.isList() ? ']' : '}');
    return true;
  }
  const Value *sortedKeys(const Value &, Value &) const { return nullptr; }

  std::string text() { return std::string(sink_.text()); }

 private:
  void bytes(std::span<const uint8_t> content) {
    constexpr size_t shown = 16;
    sink_.put('<' + std::to_string(content.size()) + (content.size() == 1 ? " byte" : " bytes"));
    for (size_t i = 0; i < std::min(content.size(), shown); ++i) {
      static constexpr char digits[] = "0123456789abcdef";
      if (i % 4 == 0) sink_.put(i == 0 ? ": " : " ");
      sink_.put(digits[content[i] >> 4]);
      sink_.put(digits[content[i] & 15]);
    }
    sink_.put(content.size() > shown ? " ...>" : ">");
  }

  detail::TextSink sink_;
};

}  // namespace

std::string Value::description() const {
  Describer describer;
  detail::TreeWalk(describer).walk(*this);
  return describer.text();
}

}  // namespace qelnk
