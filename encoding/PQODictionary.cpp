#include <QELNetworkKit/PQODictionary.h>

#include <algorithm>
#include <stdexcept>

#include "encoding/ValueStorage.h"

using qelnk::Value;
using qelnk::detail::Access;
using qelnk::detail::keysEqual;

PQODictionary::PQODictionary(size_t capacity) : array_(Value::list()), dictionary_(Value::map()) {
  // A hint from a peer's claim must not force a huge allocation.
  if (capacity > 10) {
    array_.reserve(std::min(capacity, size_t(1000)));
    dictionary_.reserve(std::min(capacity, size_t(1000)));
  }
}

PQODictionary::PQODictionary(std::initializer_list<std::pair<Value, Value>> entries) : PQODictionary(entries.size()) {
  for (const auto &[key, value] : entries) setObject(value, key);
}

PQODictionary PQODictionary::dictionaryWithDictionary(Value &other) {
  PQODictionary dictionary(other.size());
  dictionary.addEntriesFromDictionary(other);
  return dictionary;
}

PQODictionary PQODictionary::dictionaryWithDictionary(Value &&other) { return dictionaryWithDictionary(other); }

PQODictionary PQODictionary::dictionaryWithDictionary(const Value &other) {
  PQODictionary dictionary(other.size());
  dictionary.addEntriesFromDictionary(other);
  return dictionary;
}

PQODictionary PQODictionary::dictionaryWithDictionary(const PQODictionary &other) {
  PQODictionary dictionary(other.count());
  dictionary.addEntriesFromDictionary(other);
  return dictionary;
}

void PQODictionary::setObject(std::optional<Value> object, const Value &key) {
  if (!object) return removeObjectForKey(key);
  if (!dictionary_.find(key)) array_.append(key);
  dictionary_.set(key, std::move(*object));
}

void PQODictionary::removeObjectForKey(const Value &key) {
  // The caller's key may be one of ours.
  const Value gone = key;  // NOLINT(performance-unnecessary-copy-initialization)
  if (!dictionary_.erase(gone)) return;
  for (size_t i = array_.size(); i-- > 0;)
    if (keysEqual(array_[i], gone)) array_.eraseAt(i);
}

void PQODictionary::insertObject(Value object, const Value &key, size_t index) {
  const Value listed = key;  // NOLINT(performance-unnecessary-copy-initialization)
  const bool known = dictionary_.find(listed) != nullptr;
  const size_t places =
      known ? size_t(std::count_if(begin(), end(), [&](const Value &k) { return keysEqual(k, listed); })) : 0;
  if (index > count() - places) throw std::out_of_range("insertObject beyond the end of the key list");
  if (known) removeObjectForKey(listed);
  array_.append(listed);
  Value *keys = Access::mutableValues(array_, 0);
  std::rotate(keys + index, keys + count() - 1, keys + count());
  setObject(std::move(object), listed);
}

void PQODictionary::addObject(Value object, const Value &key) {
  if (!dictionary_.find(key)) setObject(Value::list(), key);
  const size_t entry = size_t(dictionary_.find(key) - &dictionary_.entries()[0].value) / 2;
  if (!dictionary_.entries()[entry].value.isList()) throw std::logic_error("addObject under a key that holds no list");
  Access::mutableValues(dictionary_, 0)[2 * entry + 1].append(std::move(object));
}

// The other map is asked for its own keys, all of which it has, and gets its own entries again: nothing changes
// anywhere.
void PQODictionary::addEntriesFromDictionary(Value &other) {
  if (other.isOrderedMap()) addEntriesFromDictionary(other.orderedMap());
}

void PQODictionary::addEntriesFromDictionary(Value &&other) { addEntriesFromDictionary(other); }

void PQODictionary::addEntriesFromDictionary(const Value &) {
  throw qelnk::UnrecognizedOperation("addEntriesFromDictionary: a map that cannot be changed was asked to add entries");
}

void PQODictionary::addEntriesFromDictionary(const PQODictionary &other) {
  addEntriesFromDictionary(other.toDictionary());
}

const Value &PQODictionary::keyAtIndex(size_t index) const {
  if (index >= count()) throw std::out_of_range("keyAtIndex " + std::to_string(index));
  return array_[index];
}

std::vector<Value> PQODictionary::reverseKeyEnumerator() const {
  const auto keys = keyEnumerator();
  return {keys.rbegin(), keys.rend()};
}

void PQODictionary::sortUsingSelector(const Comparison &before) {
  if (count() < 2) return;
  Value *keys = Access::mutableValues(array_, 0);
  std::stable_sort(keys, keys + count(), before);
}

void PQODictionary::sortKeysUsingSelector(const Comparison &before, bool deepSort) {
  std::vector<PQODictionary *> waiting{this};
  while (!waiting.empty()) {
    PQODictionary &dictionary = *waiting.back();
    waiting.pop_back();
    dictionary.sortUsingSelector(before);
    if (!deepSort) return;
    if (dictionary.dictionary_.empty()) continue;
    Value *values = Access::mutableValues(dictionary.dictionary_, 0);
    for (size_t i = 0; i < dictionary.dictionary_.size(); ++i)
      if (Value &value = values[2 * i + 1]; value.isOrderedMap()) waiting.push_back(&Access::mutableOrderedMap(value));
  }
}

void PQODictionary::enumerateKeysAndObjectsUsingBlock(
    const std::function<void(const Value &key, const Value &value, bool &stop)> &block) const {
  const PQODictionary self = *this;  // the block may change this dictionary
  bool stop = false;
  for (const Value &key : self) {
    block(key, *self.objectForKey(key), stop);
    if (stop) return;
  }
}

Value PQODictionary::map(
    const std::function<std::optional<Value>(const Value &key, const Value &value, bool &stop)> &block) const {
  Value results = Value::list();
  enumerateKeysAndObjectsUsingBlock([&](const Value &key, const Value &value, bool &stop) {
    if (std::optional<Value> result = block(key, value, stop)) results.append(std::move(*result));
  });
  return results;
}

bool PQODictionary::operator==(const PQODictionary &other) const {
  return dictionary_ == other.dictionary_ && array_ == other.array_;
}

std::string PQODictionary::description() const {
  struct Open {
    const PQODictionary *dictionary;
    size_t next;  // of its keys and values in turn
  };
  std::string text = "{\n";
  std::vector<Open> open{{this, 0}};
  while (!open.empty()) {
    const auto [dictionary, next] = open.back();
    const bool isKey = next % 2 == 0;
    if (isKey && next != 0) text += '\n';
    if (next == 2 * dictionary->count()) {
      text += '}';
      open.pop_back();
      continue;
    }
    ++open.back().next;
    text += isKey ? "  " : ": ";
    const Value &key = dictionary->array_[next / 2];
    const Value &value = isKey ? key : *dictionary->objectForKey(key);
    if (value.isOrderedMap()) {
      text += "{\n";
      open.push_back({&value.orderedMap(), 0});
    } else {
      text += value.isString() ? std::string(value.string()) : value.description();
    }
  }
  return text;
}
