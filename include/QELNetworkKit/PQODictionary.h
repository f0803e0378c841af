#pragma once

#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/Value.h>

#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qelnk {
/// Thrown where an operation is asked of an object that cannot do it, such as adding to a map that cannot be changed.
class QELNK_EXPORT UnrecognizedOperation : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};
}  // namespace qelnk

/// A map that remembers the order in which its keys were first set.
///
/// It keeps a list of keys beside a plain map. The ordinary operations keep the two in step; insertObject() lists a key
/// twice on purpose. A regular type: a copy has key list and map of its own and shares the values' contents, as copies
/// of Value do.
///
/// Threads: like a standard container.
class QELNK_EXPORT PQODictionary {
 public:
  /// Keys and values are value trees.
  using Value = qelnk::Value;
  /// Whether the first key comes before the second.
  using Comparison = std::function<bool(const Value &, const Value &)>;

  PQODictionary() : PQODictionary(10) {}
  /// An empty dictionary with room for `capacity` entries.
  explicit PQODictionary(size_t capacity);
  /// The given entries in their order, stored with setObject().
  PQODictionary(std::initializer_list<std::pair<Value, Value>> entries);

  /// Made from another map, through addEntriesFromDictionary(): holds no entries, and throws where that throws.
  static PQODictionary dictionaryWithDictionary(Value &other);
  static PQODictionary dictionaryWithDictionary(Value &&other);
  static PQODictionary dictionaryWithDictionary(const Value &other);
  static PQODictionary dictionaryWithDictionary(const PQODictionary &other);
  /// Short form of dictionaryWithDictionary().
  template <class Map>
  static PQODictionary d(Map &&other) {
    return dictionaryWithDictionary(std::forward<Map>(other));
  }
  /// An empty one.
  static PQODictionary dictionary() { return PQODictionary(); }
  /// An empty one with room for `capacity` entries.
  static PQODictionary dictionaryWithCapacity(size_t capacity) { return PQODictionary(capacity); }
  /// A copy, which may be changed as any.
  PQODictionary copy() const { return *this; }
  /// A copy, which may be changed as any.
  PQODictionary mutableCopy() const { return *this; }

  /// The value under `key`, or null when there is none; valid until the next change.
  const Value *objectForKey(const Value &key) const { return dictionary_.find(key); }
  const Value *objectForKey(std::string_view key) const { return dictionary_.find(key); }
  const Value *objectForKey(const char *key) const { return dictionary_.find(key); }
  const Value *objectForKey(const std::string &key) const { return dictionary_.find(key); }
  template <qelnk::detail::PlainKey Key>
  const Value *objectForKey(Key key) const {
    return dictionary_.find(key);
  }
  /// The value under `key`, or a null value.
  const Value &operator[](std::string_view key) const { return dictionary_[key]; }
  template <qelnk::detail::PlainKey Key>
  const Value &operator[](Key key) const {
    const Value *value = dictionary_.find(key);
    return value ? *value : dictionary_[size_t(0)];  // a map has no elements: null
  }

  /// Stores a value; a new key goes to the end, a known one keeps its place. Nothing as the object removes the key.
  void setObject(std::optional<Value> object, const Value &key);
  /// Removes the key and each place where it is listed.
  void removeObjectForKey(const Value &key);
  /// Lists `key` at `index`, removing it first where it has a value, and then stores the value, which lists the key
  /// once more at the end: it is there twice, and count() counts both. Throws std::out_of_range beyond the end, with
  /// nothing changed.
  void insertObject(Value object, const Value &key, size_t index);
  /// Appends to the list under `key`, which is made first where there is none. Throws std::logic_error when something
  /// other than a list is there.
  void addObject(Value object, const Value &key);

  /// Leaves this dictionary as it is: it asks the other map for its own keys and adds the other map's entries to the
  /// other map. One that cannot be changed (a constant, or the plain form of an ordered one) throws
  /// qelnk::UnrecognizedOperation.
  void addEntriesFromDictionary(Value &other);
  void addEntriesFromDictionary(Value &&other);
  void addEntriesFromDictionary(const Value &other);
  void addEntriesFromDictionary(const PQODictionary &other);
  /// The same as addEntriesFromDictionary().
  template <class Map>
  void addEntriesFromOrderedDictionary(Map &&other) {
    addEntriesFromDictionary(std::forward<Map>(other));
  }

  /// The key at a place of the list. Throws std::out_of_range beyond its end.
  const Value &keyAtIndex(size_t index) const;
  /// The key list itself: it follows later changes.
  const Value &allKeys() const { return array_; }
  /// Number of places in the key list.
  size_t count() const { return array_.size(); }

  /// The keys in order, and in reverse order.
  std::span<const Value> keyEnumerator() const { return array_.items(); }
  /// The keys in reverse order.
  std::vector<Value> reverseKeyEnumerator() const;
  /// The first key; for range-based loops. Valid until the next change.
  const Value *begin() const { return array_.items().data(); }
  /// Behind the last key.
  const Value *end() const { return begin() + count(); }

  /// A copy of the plain map; being constant, it cannot be added to.
  const Value toDictionary() const { return dictionary_; }

  /// Sorts the key list; keys that compare equal keep their order.
  void sortUsingSelector(const Comparison &before);
  /// The same, then the same for each ordered dictionary among the values when `deepSort`, at any depth of such
  /// nesting.
  void sortKeysUsingSelector(const Comparison &before, bool deepSort);

  /// Calls `block` for each key in order until it sets the flag.
  void enumerateKeysAndObjectsUsingBlock(
      const std::function<void(const Value &key, const Value &value, bool &stop)> &block) const;
  /// The results that are there, in key order.
  Value map(const std::function<std::optional<Value>(const Value &key, const Value &value, bool &stop)> &block) const;

  /// Equal when the plain maps and the key lists are, order included.
  bool operator==(const PQODictionary &other) const;
  /// The hash of the plain map: order does not enter.
  size_t hash() const { return dictionary_.hash(); }
  /// "{", a line "  KEY: VALUE" for each key, "}". Keys and values that are ordered dictionaries come with their own
  /// lines.
  std::string description() const;

 private:
  friend struct qelnk::detail::Access;
  Value array_;
  Value dictionary_;
};
