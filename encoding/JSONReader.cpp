#include <QELNetworkKit/JSON.h>

#include <memory>

#include "encoding/SmallStack.h"
#include "encoding/ValueStorage.h"
#include "platform/Simdjson.h"

namespace qelnk {

namespace {

using Element = simdjson::dom::element;

/// Copies a parsed document into a value tree. The parser's limit bounds its depth; still it walks without recursion.
class TreeCopier {
 public:
  explicit TreeCopier(size_t inputSize) : builder_(inputSize) {}

  Value copy(const Element &document) {
    Value root;
    put(&root, document);
    while (!open_.empty()) {
      Open &top = open_.back();
      if (top.isList ? top.item == top.itemEnd : top.member == top.memberEnd) {
        if (!top.isList) builder_.finishMap(top.container);
        open_.pop();
      } else if (top.isList) {
        const Element element = *top.item;
        ++top.item;
        put(top.next++, element);
      } else {
        builder_.string(top.next++, top.member.key());
        const Element element = top.member.value();
        ++top.member;
        put(top.next++, element);
      }
    }
    return builder_.finish(&root);
  }

 private:
  /// A container that is being filled.
  struct Open {
    Value *container;
    Value *next;
    bool isList;
    simdjson::dom::array::iterator item{}, itemEnd{};
    simdjson::dom::object::iterator member{}, memberEnd{};
  };

  void put(Value *slot, const Element &element) {
    switch (element.type()) {
      case simdjson::dom::element_type::ARRAY:
        return open(slot, simdjson::dom::array(element));
      case simdjson::dom::element_type::OBJECT:
        return open(slot, simdjson::dom::object(element));
      case simdjson::dom::element_type::STRING:
        return builder_.string(slot, std::string_view(element));
      case simdjson::dom::element_type::INT64:
        new (slot) Value(int64_t(element));
        break;
      case simdjson::dom::element_type::UINT64:
        new (slot) Value(uint64_t(element));
        break;
      case simdjson::dom::element_type::DOUBLE:
        new (slot) Value(double(element));
        break;
      case simdjson::dom::element_type::BOOL:
        new (slot) Value(bool(element));
        break;
      case simdjson::dom::element_type::NULL_VALUE:
        new (slot) Value();
    }
  }

  // The parser counts elements up to a limit of 24 bits; beyond it they are counted here.
  template <class Container>
  static size_t sizeOf(const Container &container) {
    const size_t size = container.size();
    return size < 0xFFFFFF ? size : size_t(std::distance(container.begin(), container.end()));
  }

  void open(Value *slot, const simdjson::dom::array &array) {
    Value *first = builder_.container(slot, detail::tagList, sizeOf(array));
    open_.push({slot, first, true, array.begin(), array.end(), {}, {}});
  }
  void open(Value *slot, const simdjson::dom::object &object) {
    Value *first = builder_.container(slot, detail::tagMap, sizeOf(object));
    open_.push({slot, first, false, {}, {}, object.begin(), object.end()});
  }

  detail::TreeBuilder builder_;
  detail::SmallStack<Open, 16> open_;
};

// One parser a thread, for its buffers, which may take fifteen times the largest text that it has read. One that has
// grown is kept, for the system takes as long to provide new buffers as the text takes to read, until many small texts
// in a row have shown that it is of no use any more.
class ParserUse {
 public:
  ParserUse() {
    if (!kept_.parser) kept_.parser = makeParser();
  }
  ~ParserUse() {
    if (isBroken_ || kept_.parser->capacity() > largestKept || kept_.idleUses > mostIdleUses) kept_.parser.reset();
  }
  ParserUse(const ParserUse &) = delete;
  ParserUse &operator=(const ParserUse &) = delete;
  simdjson::error_code parse(std::span<const uint8_t> bytes, Element &document) {
    auto &parser = *kept_.parser;
    const auto code = parser.parse(bytes.data(), bytes.size()).get(document);
    isBroken_ = code == simdjson::MEMALLOC;
    const bool isIdle = parser.capacity() > smallParser && bytes.size() <= parser.capacity() / 4;
    kept_.idleUses = isIdle ? kept_.idleUses + 1 : 0;
    return code;
  }

 private:
  static constexpr size_t smallParser = 256 << 10, largestKept = 2 << 20;  // bytes of text
  static constexpr unsigned mostIdleUses = 16;
  struct Kept {
    std::unique_ptr<simdjson::dom::parser> parser;
    unsigned idleUses = 0;  // in a row, of texts that needed no such large one
  };
  static thread_local Kept kept;
  Kept &kept_ = kept;
  // A parser that got no memory has forgotten how deep it may go, and would write beyond its end.
  bool isBroken_ = false;
};
thread_local ParserUse::Kept ParserUse::kept;

void fail(Error *error, int64_t code, std::string description) {
  if (error) *error = {"JSON", code, std::move(description), nullptr};
}

}  // namespace

std::optional<Value> jsonObject(std::span<const uint8_t> bytes, Error *error, JSONTopLevel top) {
  ParserUse parser;
  Element document;
  auto code = simdjson::EMPTY;
  if (!bytes.empty()) code = parser.parse(bytes, document);
  if (code) {
    fail(error, code, simdjson::error_message(code));
    return std::nullopt;
  }
  if (top == JSONTopLevel::any || document.is_array() || document.is_object())
    return TreeCopier(bytes.size()).copy(document);
  fail(error, 1, "Only a list or a map can be the top level of JSON");
  return std::nullopt;
}

std::optional<Value> jsonObject(std::string_view text, Error *error, JSONTopLevel top) {
  return jsonObject(std::span(reinterpret_cast<const uint8_t *>(text.data()), text.size()), error, top);
}

}  // namespace qelnk
