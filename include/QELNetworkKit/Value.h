#pragma once

#include <QELNetworkKit/Export.h>

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>
#include <utility>

class PQODictionary;

namespace qelnk {

class XMLDocument;
class Value;

namespace detail {
struct Access;
/// Keys that would pass for a null pointer to text when they are written as 0.
template <class T>
concept PlainKey = std::integral<T> || std::same_as<T, std::nullptr_t>;
}  // namespace detail

/// An owned run of bytes. Copies share the bytes until one of them is changed.
///
/// Threads: like a standard container; copies that share bytes may be used on different threads at once.
class QELNK_EXPORT Data {
 public:
  Data() = default;
  /// Copies `bytes`.
  explicit Data(std::span<const uint8_t> bytes);
  /// Copies characters.
  explicit Data(std::string_view bytes);
  /// Copies the given bytes.
  Data(std::initializer_list<uint8_t> bytes) : Data(std::span(bytes.begin(), bytes.size())) {}
  /// `size` bytes of no particular value, to be written through mutableData().
  static Data uninitialized(size_t size);

  /// Shares the bytes.
  Data(const Data &other);
  /// Takes the bytes over; `other` is empty then.
  Data(Data &&other) noexcept : bytes_(std::exchange(other.bytes_, nullptr)), size_(std::exchange(other.size_, 0)) {}
  /// Shares the bytes, or takes them over.
  Data &operator=(Data other) noexcept {
    std::swap(bytes_, other.bytes_);
    std::swap(size_, other.size_);
    return *this;
  }
  ~Data();

  /// The bytes; null when there are none. Valid until the next change.
  const uint8_t *data() const { return bytes_; }
  /// Number of bytes.
  size_t size() const { return size_; }
  /// Whether there are none.
  bool empty() const { return size_ == 0; }
  /// The first byte.
  const uint8_t *begin() const { return bytes_; }
  /// Behind the last byte.
  const uint8_t *end() const { return bytes_ + size_; }
  /// The byte at a place, which has to be there.
  uint8_t operator[](size_t index) const { return bytes_[index]; }
  /// The bytes as a view, valid until the next change.
  std::span<const uint8_t> span() const { return {bytes_, size_}; }
  /// The same bytes as characters.
  std::string_view text() const { return {reinterpret_cast<const char *>(bytes_), size_}; }

  /// The bytes for writing; they are no longer shared. Valid until the next change or copy of this object: whoever it
  /// was given to may share them from then on.
  uint8_t *mutableData();
  /// Copies bytes behind the end.
  void append(std::span<const uint8_t> bytes);
  /// Copies characters behind the end.
  void append(std::string_view bytes);
  /// Changes the size; new bytes have no particular value.
  void resize(size_t size);
  /// Makes room for `capacity` bytes in all.
  void reserve(size_t capacity);
  /// Lets go of the bytes.
  void clear() { *this = Data(); }

  /// Equal when the bytes are.
  friend bool operator==(const Data &a, const Data &b) {
    return a.size_ == b.size_ && (a.size_ == 0 || std::memcmp(a.bytes_, b.bytes_, a.size_) == 0);
  }

 private:
  friend struct detail::Access;
  void grow(size_t capacity);
  uint8_t *bytes_ = nullptr;  // a counted block; its header lies before the bytes
  size_t size_ = 0;
};

/// What a Value holds. `map` is the plain map, `orderedMap` a PQODictionary.
enum class Kind : uint8_t {
  null,
  boolean,
  int8,
  int16,
  int32,
  int64,
  uint8,
  uint16,
  uint32,
  uint64,
  float32,
  float64,
  string,
  data,
  list,
  map,
  orderedMap,
  xml
};

/// The lower-case name of a kind, for messages.
QELNK_EXPORT std::string_view nameOfKind(Kind kind);

/// A value tree: null, a boolean, a number, a string, a byte buffer, a list, a map, an ordered map or an XML document.
///
/// It is a regular type of 16 bytes. Copies of what does not fit inside share it until one of them is changed, so
/// copying costs a counter. A number remembers its width; numbers are equal when their numeric values are equal (NaN
/// equals NaN), a boolean is equal only to a boolean, and equal values have equal hashes. Absent (no entry) and null
/// (an entry) differ. No operation uses the machine's stack in proportion to the depth of a tree.
///
/// A plain map keeps its entries in the order in which their keys were first set, which equality and hashes do not look
/// at. Keys may be any value; a list or map that is used as a key equals another only when its entries come in the same
/// order.
///
/// A tree that was decoded from a message lives in one piece of memory: a list or map that is copied out of it keeps
/// all of it (strings, buffers and scalars do not). Use detached() to keep a small part of a large message for long.
///
/// Threads: like a standard container: one value may be read by many threads or changed by one; values that share what
/// they hold may be used on different threads at once. Operations throw std::bad_alloc when memory runs out, and
/// std::logic_error where said.
class QELNK_EXPORT Value {
 public:
  /// One entry of a plain map.
  struct Entry;

  /// Null.
  constexpr Value() noexcept : head_(0), bits_(0) {}
  /// Null.
  constexpr Value(std::nullptr_t) noexcept : Value() {}
  /// A boolean; nothing else turns into one by itself.
  template <std::same_as<bool> T>
  constexpr Value(T flag) noexcept : head_(uint64_t(Kind::boolean)), bits_(flag ? 1 : 0) {}
  /// An integer of the width of its type; characters are none.
  template <std::integral T>
  requires(!std::same_as<T, bool> && !std::same_as<T, char> && !std::same_as<T, wchar_t> && !std::same_as<T, char8_t> &&
           !std::same_as<T, char16_t> && !std::same_as<T, char32_t> &&
           sizeof(T) <= 8) constexpr Value(T number) noexcept
      : head_(uint64_t(kindOf<T>())), bits_(uint64_t(int64_t(number))) {}
  /// A 32-bit float.
  constexpr Value(float number) noexcept
      : head_(uint64_t(Kind::float32)), bits_(__builtin_bit_cast(uint32_t, number)) {}
  /// A 64-bit float.
  constexpr Value(double number) noexcept
      : head_(uint64_t(Kind::float64)), bits_(__builtin_bit_cast(uint64_t, number)) {}
  /// Text, held as it is; it should be UTF-8.
  Value(std::string_view text);
  /// The same; not for a null pointer.
  Value(const char *text) : Value(std::string_view(text)) {}
  /// The same.
  Value(const std::string &text) : Value(std::string_view(text)) {}
  /// A byte buffer, whose bytes are shared.
  Value(Data data);
  /// An ordered map.
  Value(PQODictionary map);
  /// An XML document.
  Value(XMLDocument document);

  /// A list of the given values.
  static Value list(std::initializer_list<Value> items = {});
  /// A plain map of the given pairs; a later pair of the same key replaces the value of the earlier one.
  static Value map(std::initializer_list<std::pair<Value, Value>> entries = {});

  /// Shares what does not fit inside.
  Value(const Value &other) : head_(other.head_), bits_(other.bits_) {
    if (other.isShared()) acquire();
  }
  /// Takes it over; `other` is null then.
  Value(Value &&other) noexcept : head_(std::exchange(other.head_, 0)), bits_(std::exchange(other.bits_, 0)) {}
  /// Shares what does not fit inside.
  Value &operator=(const Value &other) {
    Value copy(other);
    swap(copy);
    return *this;
  }
  /// Takes it over; `other` is null then.
  Value &operator=(Value &&other) noexcept {
    Value taken(std::move(other));
    swap(taken);
    return *this;
  }
  ~Value() {
    if (isShared()) release();
  }
  /// Exchanges two values.
  void swap(Value &other) noexcept {
    std::swap(head_, other.head_);
    std::swap(bits_, other.bits_);
  }

  // What it is.

  /// What it holds.
  Kind kind() const {
    const uint8_t tag = uint8_t(head_);
    return tag < shortStringTag ? Kind(tag) : tag == shortStringTag ? Kind::string : Kind(tag - 1);
  }
  /// Whether it is null.
  bool isNull() const { return uint8_t(head_) == 0; }
  /// Whether it is a boolean.
  bool isBool() const { return kind() == Kind::boolean; }
  /// A number of any width; a boolean is none.
  bool isNumber() const { return kind() >= Kind::int8 && kind() <= Kind::float64; }
  /// An integer of any width.
  bool isInteger() const { return kind() >= Kind::int8 && kind() <= Kind::uint64; }
  /// A float of either width.
  bool isFloat() const { return kind() == Kind::float32 || kind() == Kind::float64; }
  /// Whether it is a string.
  bool isString() const { return kind() == Kind::string; }
  /// Whether it is a byte buffer.
  bool isData() const { return kind() == Kind::data; }
  /// Whether it is a list.
  bool isList() const { return kind() == Kind::list; }
  /// A plain map.
  bool isMap() const { return kind() == Kind::map; }
  /// A PQODictionary.
  bool isOrderedMap() const { return kind() == Kind::orderedMap; }
  /// A plain or an ordered map.
  bool isDictionary() const { return isMap() || isOrderedMap(); }
  /// Whether it is an XML document.
  bool isXML() const { return kind() == Kind::xml; }

  // Scalars. Each reads numbers, booleans (1 or 0) and strings (their leading decimal number), and gives 0 for anything
  // else.

  /// Whether a number is not 0; a string is true when, after white space, a sign and zeros, it goes on with one of
  /// "YyTt" or 1 to 9.
  bool boolValue() const;
  /// A float or a string beyond the range gives the nearest bound; of an integer, the low 32 bits.
  int32_t intValue() const;
  /// A fraction is cut; a float beyond the range gives the nearest bound; an unsigned number keeps its 64 bits.
  int64_t integerValue() const;
  /// The same for unsigned numbers: a negative integer keeps its 64 bits.
  uint64_t unsignedValue() const {
    return kind() == Kind::uint64 || !isFloat() ? uint64_t(integerValue()) : unsignedFromFloat();
  }
  /// An integer beyond 53 bits is rounded.
  double doubleValue() const;

  /// The characters of a string, else empty. Valid as long as this value is not changed.
  std::string_view string() const {
    const uint8_t tag = uint8_t(head_);
    if (tag == shortStringTag) return {reinterpret_cast<const char *>(this) + 2, size_t(uint8_t(head_ >> 8))};
    if (tag == uint8_t(Kind::data)) return {reinterpret_cast<const char *>(bits_), head_ >> 16};
    return {};
  }
  /// The bytes of a byte buffer, else empty. Valid as long as this value is not changed.
  std::span<const uint8_t> bytes() const;
  /// The byte buffer, sharing its bytes where it can; empty when it is none.
  Data data() const;
  /// The ordered map; an empty one when this is none.
  const PQODictionary &orderedMap() const;
  /// The XML document; an empty one when this is none.
  const XMLDocument &xml() const;

  // Lists and maps. Reading operations see anything else as empty.

  /// Number of elements of a list or of entries of either map, else 0.
  size_t size() const;
  /// Whether there are no elements or entries, as for anything but lists and maps.
  bool empty() const { return size() == 0; }

  /// The elements of a list, else none.
  std::span<const Value> items() const;
  /// The entries of a plain map in the order of their keys' first setting, else none.
  std::span<const Entry> entries() const;

  /// The value under a key of either map, or null when there is no such entry. The pointer is valid until this value is
  /// changed.
  const Value *find(std::string_view key) const;
  const Value *find(const char *key) const { return find(std::string_view(key)); }
  const Value *find(const std::string &key) const { return find(std::string_view(key)); }
  const Value *find(const Value &key) const;
  template <detail::PlainKey Key>
  const Value *find(Key key) const {
    return find(Value(key));
  }
  /// Whether either map has an entry under the key.
  bool contains(std::string_view key) const { return find(key) != nullptr; }
  template <detail::PlainKey Key>
  bool contains(Key key) const {
    return find(Value(key)) != nullptr;
  }
  /// The value under a key, or a null value.
  const Value &operator[](std::string_view key) const;
  const Value &operator[](const char *key) const { return (*this)[std::string_view(key)]; }
  /// The element of a list, or a null value beyond its end.
  const Value &operator[](size_t index) const;
  template <std::integral Index>
  const Value &operator[](Index index) const {
    return (*this)[size_t(index)];
  }

  /// Adds an element to a list; null becomes a list first. Throws std::logic_error on anything else.
  void append(Value item);
  /// Stores `value` under `key` of either map, at the key's place where it has one; null becomes a plain map first.
  /// Throws std::logic_error on anything else.
  void set(Value key, Value value);
  /// Removes an entry of either map; returns whether there was one. Takes time in proportion to the map's size.
  bool erase(const Value &key);
  /// Removes an element of a list, where there is one.
  void eraseAt(size_t index);
  /// For changing an element in place. Throws std::out_of_range where there is none.
  Value &at(size_t index);
  Value &at(std::string_view key);
  /// Makes room for `count` elements or entries in a list or plain map.
  void reserve(size_t count);

  /// The same tree in memory of its own.
  Value detached() const;

  /// Readable text on one line, in the manner of JSON; buffers as `<n bytes>` with their first bytes.
  std::string description() const;

  /// Another one in each process.
  size_t hash() const;
  /// Whether two trees are equal, see above.
  QELNK_EXPORT friend bool operator==(const Value &a, const Value &b);

 private:
  friend struct detail::Access;
  // Tags are the kinds with one more for strings of at most 14 bytes, which lie inside the value behind their length.
  static constexpr uint8_t shortStringTag = uint8_t(Kind::string);
  static constexpr uint8_t firstSharedTag = uint8_t(Kind::string) + 1;

  template <class T>
  static constexpr Kind kindOf() {
    constexpr Kind base = std::signed_integral<T> ? Kind::int8 : Kind::uint8;
    return Kind(uint8_t(base) + (sizeof(T) == 1 ? 0 : sizeof(T) == 2 ? 1 : sizeof(T) == 4 ? 2 : 3));
  }
  constexpr Value(uint64_t head, uint64_t bits) noexcept : head_(head), bits_(bits) {}
  bool isShared() const { return uint8_t(head_) >= firstSharedTag; }
  void acquire();
  void release() noexcept;
  uint64_t unsignedFromFloat() const;

  uint64_t head_;  // tag, a byte of length or flags, and 48 bits of size (or the first characters of a short string)
  uint64_t bits_;  // a number, a pointer, or more characters
};

/// A key and what is stored under it.
struct Value::Entry {
  /// Any value, mostly a string.
  Value key;
  /// What is stored; may be null.
  Value value;
};

/// Writes description(); for tests and logs.
QELNK_EXPORT std::ostream &operator<<(std::ostream &out, const Value &value);

}  // namespace qelnk

/// For unordered containers of values.
template <>
struct std::hash<qelnk::Value> {
  /// Value::hash().
  size_t operator()(const qelnk::Value &value) const { return value.hash(); }
};
