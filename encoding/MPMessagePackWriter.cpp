#include <QELNetworkKit/MPMessagePack.h>

#include <algorithm>
#include <bit>
#include <clocale>
#include <cstring>
#include <cwctype>
#include <string>

#include "encoding/CmpCodec.h"
#include "encoding/TreeWalk.h"

using qelnk::Data;
using qelnk::Error;
using qelnk::Kind;
using qelnk::Value;
namespace cmp = qelnk::cmp;
namespace detail = qelnk::detail;

namespace {

/// A growing buffer that items are written to through the codec. Room is made before an item is written, and the codec
/// gets a position of its own, so that writing comes down to plain stores.
class Sink {
 public:
  /// The codec's view of a buffer with room enough.
  struct Cursor {
    uint8_t *at;
    size_t write(const void *bytes, size_t count) {
      std::memcpy(at, bytes, count);
      at += count;
      return count;
    }
    /// The characters of a short string, by two stores: there is room for what is behind them, and it is written over.
    void writeShortString(const Value &value) {
      const uint64_t first = detail::Access::head(value) >> 16, others = detail::Access::bits(value);
      std::memcpy(at, &first, 8);
      std::memcpy(at + 6, &others, 8);
      at += detail::Access::shortStringLength(value);
    }
  };

  Sink() { grow(512); }

  /// Writes an item by `write(cursor, error)`, which returns success. A payload of `payload` bytes may follow its
  /// header. One too long for the format gets no room: the codec refuses it before it writes a byte.
  template <class Write>
  bool item(size_t payload, Write write) {
    const size_t room = longestHeader + (payload <= UINT32_MAX ? payload : 0);
    if (size_t(end_ - cursor_) < room) grow(room);
    Cursor cursor{cursor_};
    uint8_t error = 0;
    const bool written = write(cursor, error);
    cursor_ = cursor.at;
    return written;
  }

  Data finish() {
    data_.resize(size_t(cursor_ - data_.data()));
    return std::move(data_);
  }

 private:
  /// The longest item without its payload: marker, size and ext type, or marker and number.
  static constexpr size_t longestHeader = 16;

  void grow(size_t more) {
    const size_t used = data_.data() ? size_t(cursor_ - data_.data()) : 0;
    data_.resize(std::max(used + more, 2 * used));
    cursor_ = data_.mutableData() + used;
    end_ = data_.mutableData() + data_.size();
  }

  Data data_;
  uint8_t *cursor_ = nullptr;
  uint8_t *end_ = nullptr;
};

/// The order of sorted keys: by the user's locale with letters compared without case; what are no strings come by their
/// text, which is short, and lists and maps last, whose text need not be.
class KeyOrder {
 public:
  static const KeyOrder &current() {
    static const KeyOrder &order = *new KeyOrder();
    return order;
  }

  Value sorted(std::vector<const Value *> keys) const {
    std::vector<std::pair<std::wstring, const Value *>> folded;
    folded.reserve(keys.size());
    for (const Value *key : keys) folded.emplace_back(isContainer(*key) ? std::wstring() : fold(*key), key);
    std::stable_sort(folded.begin(), folded.end(), [this](const auto &a, const auto &b) {
      const bool aInside = isContainer(*a.second), bInside = isContainer(*b.second);
      if (aInside && bInside) return detail::keyBefore(*a.second, *b.second);
      return aInside == bInside ? before(a.first, b.first) : bInside;
    });
    Value list = Value::list();
    list.reserve(keys.size());
    for (const auto &[text, key] : folded) list.append(*key);
    return list;
  }

 private:
  KeyOrder()
      : letters_(newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)),
        order_(newlocale(LC_COLLATE_MASK | LC_CTYPE_MASK, "", nullptr)) {}

  static bool isContainer(const Value &key) { return key.isList() || key.isDictionary(); }

  bool before(const std::wstring &a, const std::wstring &b) const {
    return (order_ ? wcscoll_l(a.c_str(), b.c_str(), order_) : a.compare(b)) < 0;
  }

  std::wstring fold(const Value &key) const {
    const std::string text = key.isString() ? std::string(key.string()) : key.description();
    std::wstring folded;
    for (size_t i = 0; i < text.size();) {
      char32_t letter = uint8_t(text[i++]);
      if (letter >= 0xC0) {  // the strings of a tree are UTF-8
        const int more = letter >= 0xF0 ? 3 : letter >= 0xE0 ? 2 : 1;
        letter &= 0x3F >> more;
        for (int n = 0; n < more && i < text.size(); ++n) letter = letter << 6 | (uint8_t(text[i++]) & 0x3F);
      }
      folded += wchar_t(letters_ ? towlower_l(wint_t(letter), letters_) : towlower(wint_t(letter)));
    }
    return folded;
  }

  locale_t letters_, order_;
};

/// Writes what a walk visits.
class Writer {
 public:
  explicit Writer(int64_t options) : sortKeys_(options & MPMessagePackWriterSortKeys) {}

  bool scalar(const Value &value) {
    const uint64_t bits = detail::Access::bits(value);
    switch (detail::Access::tag(value)) {
      case uint8_t(Kind::null):
        return sink_.item(0, [](auto &out, auto &error) { return cmp::writeNil(out, error); }) ||
               failed("Error writing nil");
      case uint8_t(Kind::boolean):
        sink_.item(0, [&](auto &out, auto &error) { return cmp::writeBool(out, bits != 0, error); });
        return true;
      case uint8_t(Kind::int8):
      case uint8_t(Kind::int16):
      case uint8_t(Kind::int32):
      case uint8_t(Kind::int64):
        sink_.item(0, [&](auto &out, auto &error) { return cmp::writeSigned(out, int64_t(bits), error); });
        return true;
      case uint8_t(Kind::float32):
        sink_.item(0, [&](auto &out, auto &error) {
          return cmp::writeFloat(out, std::bit_cast<float>(uint32_t(bits)), error);
        });
        return true;
      case uint8_t(Kind::float64):
        sink_.item(0,
                   [&](auto &out, auto &error) { return cmp::writeDouble(out, std::bit_cast<double>(bits), error); });
        return true;
      case detail::tagShortString:
        sink_.item(0, [&](auto &out, auto &error) {
          const bool written = cmp::writeFixstr(out, uint32_t(detail::Access::shortStringLength(value)), error);
          out.writeShortString(value);
          return written;
        });
        return true;
      case detail::tagString:
        return string(value.string());
      case detail::tagData:
        return data(value.bytes());
      case detail::tagXML:
        return failed("Unable to write object: " + value.description());
      default:
        sink_.item(0, [&](auto &out, auto &error) { return cmp::writeUnsigned(out, bits, error); });
        return true;
    }
  }

  bool begin(const Value &container) {
    const size_t size = container.size();
    if (container.isList())
      return sink_.item(0, [&](auto &out, auto &error) { return cmp::writeArray(out, size, error); }) ||
             failed("Error writing array");
    return sink_.item(0, [&](auto &out, auto &error) { return cmp::writeMap(out, size, error); }) ||
           failed("Error writing map");
  }
  bool between(const Value &, size_t) { return true; }
  bool end(const Value &) { return true; }

  const Value *sortedKeys(const Value &map, Value &room) const {
    if (!sortKeys_ || map.size() < 2) return nullptr;
    std::vector<const Value *> keys;
    for (const Value::Entry &entry : map.entries()) keys.push_back(&entry.key);
    for (const Value &key : map.orderedMap()) keys.push_back(&key);
    room = KeyOrder::current().sorted(std::move(keys));
    return &room;
  }

  Data finish() { return sink_.finish(); }
  const Error &error() const { return error_; }

 private:
  bool string(std::string_view text) {
    return sink_.item(text.size(), [&](auto &out, auto &error) {
      return cmp::writeStr(out, text.data(), text.size(), error);
    }) || failed("Error writing string");
  }

  bool data(std::span<const uint8_t> bytes) {
    return sink_.item(bytes.size(), [&](auto &out, auto &error) {
      return cmp::writeBin(out, bytes.data(), bytes.size(), error);
    }) || failed("Error writing binary");
  }

  bool failed(std::string description) {
    error_ = {"MPMessagePack", 102, std::move(description), nullptr};
    return false;
  }

  Sink sink_;
  bool sortKeys_;
  Error error_;
};

// The bytes of a value, or what was written of it up to a failure; returns whether all went well.
bool writeTree(const Value &value, int64_t options, Data &data, Error *error) {
  Writer writer(options);
  const bool written = detail::TreeWalk(writer).walk(value);
  if (!written && error) *error = writer.error();
  data = writer.finish();
  return written;
}

}  // namespace

Data MPMessagePackWriter::writeObject(const Value &value, int64_t options, Error *error) {
  Data data;
  writeTree(value, options, data, error);
  return data;
}

std::optional<Data> MPMessagePackWriter::write(const Value &value, int64_t options, Error *error) {
  data_ = Data();
  if (!writeTree(value, options, data_, error)) return std::nullopt;
  return data_;
}

size_t MPMessagePackWriter::write(std::span<const uint8_t> bytes) {
  data_.append(bytes);
  return bytes.size();
}

namespace qelnk {

Data mp_messagePack(const Value &container, int64_t options, Error *error) {
  return MPMessagePackWriter::writeObject(container, options, error);
}

Data mp_messagePack(const Value &container, Error *error) {
  return MPMessagePackWriter::writeObject(container, 0, error);
}

}  // namespace qelnk
