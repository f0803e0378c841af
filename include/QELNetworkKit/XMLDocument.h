#pragma once

#include <QELNetworkKit/Error.h>
#include <QELNetworkKit/Export.h>

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace qelnk {

/// An XML document that is read, kept and written, unchanged once it is made. Copies share it.
///
/// Threads: any, at once.
class QELNK_EXPORT XMLDocument {
 public:
  /// An empty document.
  XMLDocument();

  /// Reads a document from its bytes: UTF-8; UTF-16 or UTF-32 in either byte order, with a byte order mark or without;
  /// or ISO-8859-1 where the declaration says so. Any other declared encoding is taken for UTF-8. A document that was
  /// not in UTF-8 declares it from here on, if it declares one at all, and so does one that declares ISO-8859-1 behind
  /// the byte order mark of UTF-8. Malformed input: none, with an error of domain "XML" whose code is the byte offset.
  static std::optional<XMLDocument> parse(std::span<const uint8_t> bytes, Error *error = nullptr);
  static std::optional<XMLDocument> parse(std::string_view text, Error *error = nullptr);

  /// The document's text in UTF-8 with no added white space.
  Data data() const;

  /// The name of the root element, empty when there is none.
  std::string rootName() const;
  /// The text of the first element that `path` names from the document on ("/project/name", an attribute as
  /// "/project/@id"), or none.
  std::optional<std::string> text(std::string_view path) const;

  /// Equal when their texts are.
  bool operator==(const XMLDocument &other) const;

 private:
  struct State;
  std::shared_ptr<const State> state_;
};

}  // namespace qelnk
