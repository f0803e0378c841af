#include "Notation.h"

#include <QELNetworkKit/JSON.h>
#include <QELNetworkKit/PQODictionary.h>
#include <QELNetworkKit/XMLDocument.h>

#include <cmath>
#include <limits>
#include <vector>

#include "Base64.h"
#include "Exit.h"

namespace tool {

using qelnk::Value;

namespace {

using Children = std::vector<const Value *>;
using Rebuilt = std::vector<Value>;

/// Builds a tree anew from its leaves up: `combine` gets each node with its children as rebuilt.
Value rebuild(const Value &root, Children (*childrenOf)(const Value &), Value (*combine)(const Value &, Rebuilt)) {
  struct Frame {
    const Value *node;
    Children children;
    Rebuilt built;
  };
  std::vector<Frame> stack;
  stack.push_back({&root, childrenOf(root), {}});
  for (;;) {
    Frame &top = stack.back();
    if (top.built.size() < top.children.size()) {
      const Value *child = top.children[top.built.size()];
      stack.push_back({child, childrenOf(*child), {}});
      continue;
    }
    Value value = combine(*top.node, std::move(top.built));
    stack.pop_back();
    if (stack.empty()) return value;
    stack.back().built.push_back(std::move(value));
  }
}

Value listOf(Rebuilt items) {
  Value list = Value::list();
  list.reserve(items.size());
  for (Value &item : items) list.append(std::move(item));
  return list;
}

[[noreturn]] void malformed(const std::string &text) { throw Failure(Exit::malformed, text); }

bool isForm(std::string_view key) { return key == "$data" || key == "$double" || key == "$map"; }

// From the notation.

Value dataOfForm(const Value &text) {
  auto data = text.isString() ? base64Data(text.string()) : std::nullopt;
  if (!data) malformed("\"$data\" takes base64 text");
  return Value(std::move(*data));
}

Value doubleOfForm(const Value &text) {
  if (text == "nan") return std::numeric_limits<double>::quiet_NaN();
  if (text == "inf") return std::numeric_limits<double>::infinity();
  if (text == "-inf") return -std::numeric_limits<double>::infinity();
  malformed(R"("$double" takes "nan", "inf" or "-inf")");
}

Value mapOfForm(const Value &pairs) {
  if (!pairs.isList()) malformed("\"$map\" takes a list of pairs");
  Value map = Value::map();
  map.reserve(pairs.size());
  for (const Value &pair : pairs.items()) {
    if (!pair.isList() || pair.size() != 2) malformed("\"$map\" takes a list of pairs");
    map.set(pair[0], pair[1]);
  }
  return map;
}

Children childrenOfJSON(const Value &json) {
  Children children;
  for (const Value &item : json.items()) children.push_back(&item);
  for (const auto &entry : json.entries()) children.push_back(&entry.value);
  return children;
}

Value valueOfJSON(const Value &json, Rebuilt children) {
  if (json.isList()) return listOf(std::move(children));
  if (!json.isMap()) return json;
  const auto entries = json.entries();
  if (entries.size() == 1) {
    const std::string_view key = entries[0].key.string();
    if (key == "$data") return dataOfForm(children[0]);
    if (key == "$double") return doubleOfForm(children[0]);
    if (key == "$map") return mapOfForm(children[0]);
  }
  Value map = Value::map();
  map.reserve(children.size());
  for (size_t index = 0; index < children.size(); ++index) map.set(entries[index].key, std::move(children[index]));
  return map;
}

// Into the notation.

Children childrenOfValue(const Value &value) {
  Children children;
  for (const Value &item : value.items()) children.push_back(&item);
  for (const auto &entry : value.entries()) children.insert(children.end(), {&entry.key, &entry.value});
  if (value.isOrderedMap())
    for (const Value &key : value.orderedMap()) children.insert(children.end(), {&key, value.find(key)});
  return children;
}

/// `flat` holds keys and values in turn.
Value notationOfMap(const Value &map, const Children &original, Rebuilt flat) {
  bool plain = true;
  for (size_t index = 0; index < original.size(); index += 2) plain = plain && original[index]->isString();
  if (flat.size() == 2 && plain && isForm(original[0]->string())) plain = false;
  Value result = plain ? Value::map() : Value::list();
  result.reserve(map.size());
  for (size_t index = 0; index < flat.size(); index += 2) {
    if (plain)
      result.set(std::move(flat[index]), std::move(flat[index + 1]));
    else
      result.append(Value::list({std::move(flat[index]), std::move(flat[index + 1])}));
  }
  return plain ? result : Value::map({{"$map", std::move(result)}});
}

Value notationOfNode(const Value &value, Rebuilt children) {
  if (value.isList()) return listOf(std::move(children));
  if (value.isDictionary()) return notationOfMap(value, childrenOfValue(value), std::move(children));
  if (value.isData()) return Value::map({{"$data", base64Text(value.bytes())}});
  if (value.isXML()) return Value(value.xml().data().text());
  if (value.isFloat() && !std::isfinite(value.doubleValue())) {
    const double number = value.doubleValue();
    return Value::map({{"$double", std::isnan(number) ? "nan" : number > 0 ? "inf" : "-inf"}});
  }
  return value;
}

}  // namespace

Value parseValue(std::string_view text) {
  qelnk::Error error;
  const auto json = qelnk::jsonObject(text, &error, qelnk::JSONTopLevel::any);
  if (!json) malformed("malformed JSON: " + error.description);
  return rebuild(*json, childrenOfJSON, valueOfJSON);
}

Value parseArgument(std::string_view text) {
  const auto json = qelnk::jsonObject(text, nullptr, qelnk::JSONTopLevel::any);
  return json ? rebuild(*json, childrenOfJSON, valueOfJSON) : Value(text);
}

Value notationOf(const Value &value) { return rebuild(value, childrenOfValue, notationOfNode); }

std::string plainJSON(const Value &value) {
  qelnk::Error error;
  const auto data = qelnk::jsonData(value, &error, qelnk::JSONTopLevel::any);
  if (!data) malformed("no JSON for this value: " + error.description);
  return std::string(data->text());
}

}  // namespace tool
