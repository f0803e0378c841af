#include <QELNetworkKit/XMLDocument.h>

#include <pugixml.hpp>

#include "platform/AsciiCase.h"

namespace qelnk {

namespace {

/// Whether the parser takes a document for ISO-8859-1 that declares this encoding.
bool namesLatin1(std::string_view encoding) {
  return equalIgnoringCase(encoding, "iso-8859-1") || equalIgnoringCase(encoding, "latin1");
}

}  // namespace

struct QELNK_HIDDEN XMLDocument::State {
  pugi::xml_document document;
};

XMLDocument::XMLDocument() : state_(std::make_shared<State>()) {}

std::optional<XMLDocument> XMLDocument::parse(std::span<const uint8_t> bytes, Error *error) {
  auto state = std::make_shared<State>();
  const auto result = state->document.load_buffer(bytes.data(), bytes.size(), pugi::parse_full);
  if (!result) {
    if (error) *error = {"XML", result.offset, result.description(), nullptr};
    return std::nullopt;
  }
  // data() writes UTF-8, without a byte order mark: the declaration has to go with it, or readers go by that.
  for (pugi::xml_node node : state->document.children())
    for (pugi::xml_attribute attribute : node.attributes())
      if (node.type() == pugi::node_declaration && attribute.name() == std::string_view("encoding") &&
          (result.encoding != pugi::encoding_utf8 || namesLatin1(attribute.value())))
        attribute.set_value("UTF-8");
  XMLDocument document;
  document.state_ = std::move(state);
  return document;
}

std::optional<XMLDocument> XMLDocument::parse(std::string_view text, Error *error) {
  return parse(std::span(reinterpret_cast<const uint8_t *>(text.data()), text.size()), error);
}

namespace {

struct DataWriter final : pugi::xml_writer {
  Data data;
  void write(const void *bytes, size_t size) override {
    data.append(std::span(static_cast<const uint8_t *>(bytes), size));
  }
};

}  // namespace

Data XMLDocument::data() const {
  DataWriter writer;
  state_->document.save(writer, "", pugi::format_raw | pugi::format_no_declaration, pugi::encoding_utf8);
  return std::move(writer.data);
}

std::string XMLDocument::rootName() const { return state_->document.document_element().name(); }

std::optional<std::string> XMLDocument::text(std::string_view path) const {
  const size_t at = path.rfind("/@");
  const std::string element(path.substr(0, at));
  const auto node =
      element.empty() ? pugi::xml_node(state_->document) : state_->document.first_element_by_path(element.c_str());
  if (!node) return std::nullopt;
  if (at == std::string_view::npos) return node.text().get();
  const auto attribute = node.attribute(std::string(path.substr(at + 2)).c_str());
  if (!attribute) return std::nullopt;
  return attribute.value();
}

bool XMLDocument::operator==(const XMLDocument &other) const {
  return state_ == other.state_ || data() == other.data();
}

}  // namespace qelnk
