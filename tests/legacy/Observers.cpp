#include "legacy/Observers.h"

#include <algorithm>

namespace qelnk::test {

void Told::add(std::string text) {
  std::function<void(const std::string &)> handler;
  {
    const std::lock_guard lock(mutex_);
    texts_.push_back(text);
    handler = handler_;
  }
  if (handler) handler(text);
}

std::vector<std::string> Told::all() const {
  const std::lock_guard lock(mutex_);
  return texts_;
}

size_t Told::count(std::string_view text) const {
  const std::lock_guard lock(mutex_);
  return size_t(std::count(texts_.begin(), texts_.end(), text));
}

void Told::onTold(std::function<void(const std::string &)> handler) {
  const std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

std::string textOf(const QELProjectTimecode &timecode, const std::optional<std::string> &information) {
  return timecode.XMLRepresentation() + (information ? " | " + *information : "");
}

Value with(Value options, std::string_view key, const Value &value) {
  options.set(key, value);
  return options;
}

}  // namespace qelnk::test
