#include <QELNetworkKit/QELNKKORVALConstants.h>
#include <QELNetworkKit/QELNKOrlinPort.h>

#include <algorithm>
#include <array>

#include "daemon/Description.h"
#include "platform/LogFormat.h"

using qelnk::Value;

static constexpr std::array<std::string_view, 2> directions{"input", "output"};
static constexpr std::array<std::string_view, 13> valueTypes{"bool", "int_", "long", "indx", "doub", "str_", "arry",
                                                             "colr", "imag", "tico", "strc", "bytb", "trig"};

template <size_t N>
static std::optional<int32_t> indexIn(const std::array<std::string_view, N> &names, const Value &name) {
  const auto found = name.isString() ? std::find(names.begin(), names.end(), name.string()) : names.end();
  if (found == names.end()) return std::nullopt;
  return int32_t(found - names.begin());
}

static std::string textOf(const Value &value) {
  if (value.isNull()) return "(null)";
  return value.isString() ? std::string(value.string()) : value.description();
}

QELNKOrlinPort::QELNKOrlinPort(const Value &description)
    : name_(qelnk::stringIn(description, QELNKKORVALName)),
      uid_(qelnk::stringIn(description, QELNKKORVALID)),
      portType_(indexIn(directions, description[QELNKKORVALPortType]).value_or(QELNKOrlinPortTypeInput)) {
  const Value &typeName = description[QELNKKORVALPortValueType];
  if (const auto type = indexIn(valueTypes, typeName)) {
    valueType_ = *type;
    setValue(description[QELNKKORVALValue]);
  } else {
    qelnk::logError("Unknown port type {}", qelnk::printable(textOf(typeName)));
  }
}

std::string_view QELNKOrlinPort::nameOfValueType(int32_t valueType) {
  return valueType >= 0 && size_t(valueType) < valueTypes.size() ? valueTypes[size_t(valueType)] : std::string_view();
}

void QELNKOrlinPort::setValue(const Value &value) {
  const bool scalar = value.isNumber() || value.isBool() || value.isString();
  switch (valueType_) {
    case QELNKOrlinPortValueType_bool:
    case QELNKOrlinPortValueType_trig:
      if (scalar) setBoolValue(value.boolValue());
      break;
    case QELNKOrlinPortValueType_int_:
    case QELNKOrlinPortValueType_long:
      if (scalar) setIntValue(value.intValue());
      break;
    case QELNKOrlinPortValueType_doub:
      if (scalar) setDoubleValue(value.doubleValue());
      break;
    case QELNKOrlinPortValueType_str_:
      if (value.isString()) setStringValue(std::string(value.string()));
      break;
    case QELNKOrlinPortValueType_arry:
      // A list inside a decoded message would keep the whole message for as long as the port has it.
      if (value.isList()) setArrayValue(value.detached());
      break;
  }
}

std::optional<Value> QELNKOrlinPort::currentValue() const {
  switch (valueType_) {
    case QELNKOrlinPortValueType_bool:
    case QELNKOrlinPortValueType_trig:
      return boolValue();
    case QELNKOrlinPortValueType_int_:
    case QELNKOrlinPortValueType_long:
      return intValue();
    case QELNKOrlinPortValueType_doub:
      return doubleValue();
    case QELNKOrlinPortValueType_str_:
      return qelnk::valueOf(stringValue());
    case QELNKOrlinPortValueType_arry:
      return arrayValue().value_or(Value());
    default:
      return std::nullopt;
  }
}

std::optional<std::string> QELNKOrlinPort::currentValueAsString() const {
  switch (valueType_) {
    case QELNKOrlinPortValueType_bool:
    case QELNKOrlinPortValueType_trig:
      return boolValue() ? "T" : "F";
    case QELNKOrlinPortValueType_int_:
    case QELNKOrlinPortValueType_long:
      return std::to_string(intValue());
    case QELNKOrlinPortValueType_doub:
      return fmt::format("{:f}", doubleValue());  // in every locale with a point
    case QELNKOrlinPortValueType_str_:
      return stringValue();
    default:
      return "";
  }
}

// The setters let what was there go after the lock: a callback's end may run anything of the host's.

std::optional<std::string> QELNKOrlinPort::stringValue() const {
  const qelnk::Lock lock(mutex_);
  return stringValue_;
}

void QELNKOrlinPort::setStringValue(std::optional<std::string> value) {
  const qelnk::Lock lock(mutex_);
  stringValue_.swap(value);
}

std::optional<Value> QELNKOrlinPort::arrayValue() const {
  const qelnk::Lock lock(mutex_);
  return arrayValue_;
}

void QELNKOrlinPort::setArrayValue(std::optional<Value> value) {
  const qelnk::Lock lock(mutex_);
  arrayValue_.swap(value);
}

std::shared_ptr<const QELNKOrlinPort::UpdateBlock> QELNKOrlinPort::sharedUpdateBlock() const {
  const qelnk::Lock lock(mutex_);
  return updateBlock_;
}

QELNKOrlinPort::UpdateBlock QELNKOrlinPort::updateBlock() const {
  const auto block = sharedUpdateBlock();
  return block ? *block : UpdateBlock();
}

void QELNKOrlinPort::setUpdateBlock(UpdateBlock block) {
  auto shared = block ? std::make_shared<const UpdateBlock>(std::move(block)) : nullptr;
  const qelnk::Lock lock(mutex_);
  updateBlock_.swap(shared);
}
