// Bodies in XML: a document that was written is read again, and written the same.

#include <QELNetworkKit/XMLDocument.h>

#include "Fuzz.h"

using qelnk::XMLDocument;

namespace {

/// Whether the declaration is none that XML allows, in which the parser may see an encoding where there is none.
bool misleads(std::string_view text) {
  const auto declaration = text.substr(0, text.find("?>"));
  const size_t place = declaration.find("en");
  return declaration.starts_with("<?xml") && place != std::string_view::npos &&
         !declaration.substr(place - 1).starts_with(" encoding=\"");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  qelnk::Error error;
  const auto document = XMLDocument::parse(std::span(data, size), &error);
  fuzz::require(document.has_value() == !error, "there is a document or an error");
  if (!document) {
    fuzz::require(error.code >= 0, "an error has its place");
    return 0;
  }
  const std::string root = document->rootName();
  for (const std::string &path :
       {std::string(), std::string("/"), "/" + root, "/" + root + "/@id", std::string("/a/b"), std::string("//")})
    document->text(path);
  if (misleads(document->data().text())) return 0;
  const auto again = XMLDocument::parse(document->data().span());
  fuzz::require(again && again->rootName() == root, "what was written is read, with the same root");
  // White space alone, which had to be written as character references to be read, is left out by now.
  const auto third = XMLDocument::parse(again->data().span());
  fuzz::require(third && *third == *again, "what was written and read is written the same");
  return 0;
}
