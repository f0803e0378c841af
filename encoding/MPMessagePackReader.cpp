#include <QELNetworkKit/MPMessagePack.h>
#include <QELNetworkKit/cmp.h>

#include <bit>
#include <cstring>
#include <utility>
#include <vector>

#include "encoding/CmpCodec.h"
#include "encoding/SmallStack.h"
#include "encoding/Text.h"
#include "encoding/ValueStorage.h"

using qelnk::Data;
using qelnk::Error;
using qelnk::Kind;
using qelnk::Value;
namespace detail = qelnk::detail;

namespace {

constexpr const char *errorDomain = "MPMessagePack";

enum ReaderError : int64_t {
  wrongType = -1,
  unreadableObject = 200,
  unsupportedType = 201,
  unreadableBytes = 202,
  unreadableString = 206,
  invalidLength = 298,
  nothingRead = 299
};

Error readerError(ReaderError code, std::string description, Value userInfo = nullptr) {
  return {errorDomain, code, std::move(description), std::move(userInfo)};
}

/// The codec's view of a byte buffer.
struct Source {
  const uint8_t *cursor;
  const uint8_t *end;

  size_t remaining() const { return size_t(end - cursor); }
  bool read(void *destination, size_t count) {
    if (count > remaining()) return false;
    std::memcpy(destination, cursor, count);
    cursor += count;
    return true;
  }
};

/// Reads one value tree. It only finds out that something is wrong; what it is, Diagnosis tells.
///
/// Every value takes at least a byte of input, so a container that claims more values than bytes remain, less those
/// that the containers around it still wait for, cannot end well: it is refused before memory is taken for it. Memory
/// is thereby bound by the input.
class TreeReader {
 public:
  explicit TreeReader(Source &source) : source_(source), builder_(source.remaining()) {}

  std::optional<Value> read() {
    Value root;
    if (!readInto(&root)) {
      new (&root) Value();  // what it holds is the builder's
      return std::nullopt;
    }
    return builder_.finish(&root);
  }

 private:
  /// A container that is being filled.
  struct Open {
    Value *next;  // the value under way
    Value *end;
    Value *container;
  };

  bool readInto(Value *slot) {
    owed_ = 1;
    for (;;) {
      if (source_.cursor == source_.end) return false;
      --owed_;
      const size_t open = open_.size();
      if (!readValue(slot)) return false;
      if (open_.size() != open) {
        slot = open_.back().next;
        continue;
      }
      while (!open_.empty() && ++open_.back().next == open_.back().end) {
        if (detail::Access::tag(*open_.back().container) == detail::tagMap) builder_.finishMap(open_.back().container);
        open_.pop();
      }
      if (open_.empty()) return true;
      slot = open_.back().next;
    }
  }

  static void put(Value *slot, Kind kind, uint64_t bits) {
    new (slot) Value(detail::Access::make(uint64_t(kind), bits));
  }

  bool readValue(Value *slot) {
    const uint8_t marker = *source_.cursor++;
    if (marker < 0x80) {
      put(slot, Kind::uint8, marker);
      return true;
    }
    if (marker >= 0xE0) {
      put(slot, Kind::int8, uint64_t(int64_t(int8_t(marker))));
      return true;
    }
    if (marker >= 0xA0 && marker < 0xC0) return string(slot, marker & 0x1F);
    if (marker < 0x90) return container(slot, detail::tagMap, marker & 0x0F);
    if (marker < 0xA0) return container(slot, detail::tagList, marker & 0x0F);
    return readMarked(slot, marker);
  }

  bool readMarked(Value *slot, uint8_t marker) {
    uint64_t n;
    switch (marker) {
      case 0xC0:
        return put(slot, Kind::null, 0), true;
      case 0xC2:
      case 0xC3:
        return put(slot, Kind::boolean, marker & 1), true;
      case 0xC4:
        return big<uint8_t>(n) && bytes(slot, n);
      case 0xC5:
        return big<uint16_t>(n) && bytes(slot, n);
      case 0xC6:
        return big<uint32_t>(n) && bytes(slot, n);
      case 0xCA:
        return big<uint32_t>(n) && (put(slot, Kind::float32, n), true);
      case 0xCB:
        return big<uint64_t>(n) && (put(slot, Kind::float64, n), true);
      case 0xCC:
        return big<uint8_t>(n) && (put(slot, Kind::uint8, n), true);
      case 0xCD:
        return big<uint16_t>(n) && (put(slot, Kind::uint16, n), true);
      case 0xCE:
        return big<uint32_t>(n) && (put(slot, Kind::uint32, n), true);
      case 0xCF:
        return big<uint64_t>(n) && (put(slot, Kind::uint64, n), true);
      case 0xD0:
        return big<int8_t>(n) && (put(slot, Kind::int8, n), true);
      case 0xD1:
        return big<int16_t>(n) && (put(slot, Kind::int16, n), true);
      case 0xD2:
        return big<int32_t>(n) && (put(slot, Kind::int32, n), true);
      case 0xD3:
        return big<int64_t>(n) && (put(slot, Kind::int64, n), true);
      case 0xD9:
        return big<uint8_t>(n) && string(slot, n);
      case 0xDA:
        return big<uint16_t>(n) && string(slot, n);
      case 0xDB:
        return big<uint32_t>(n) && string(slot, n);
      case 0xDC:
        return big<uint16_t>(n) && container(slot, detail::tagList, n);
      case 0xDD:
        return big<uint32_t>(n) && container(slot, detail::tagList, n);
      case 0xDE:
        return big<uint16_t>(n) && container(slot, detail::tagMap, n);
      case 0xDF:
        return big<uint32_t>(n) && container(slot, detail::tagMap, n);
      default:
        return false;
    }
  }

  /// Reads a big-endian number, extended to 64 bits by its sign.
  template <class T>
  bool big(uint64_t &number) {
    T raw;
    if (source_.remaining() < sizeof raw) return false;
    std::memcpy(&raw, source_.cursor, sizeof raw);
    source_.cursor += sizeof raw;
    if constexpr (sizeof raw == 2) raw = T(__builtin_bswap16(uint16_t(raw)));
    if constexpr (sizeof raw == 4) raw = T(__builtin_bswap32(uint32_t(raw)));
    if constexpr (sizeof raw == 8) raw = T(__builtin_bswap64(uint64_t(raw)));
    number = uint64_t(int64_t(raw));
    return true;
  }

  bool string(Value *slot, size_t size) {
    if (source_.remaining() < size) return false;
    if (size <= detail::shortStringLimit && source_.remaining() >= 16 && shortASCII(slot, size)) return true;
    const std::string_view text(reinterpret_cast<const char *>(source_.cursor), size);
    source_.cursor += size;
    if (detail::isUTF8(text)) {
      builder_.string(slot, text);
    } else {
      builder_.data(slot, {reinterpret_cast<const uint8_t *>(text.data()), size});
    }
    return true;
  }

  // Most strings: two loads, whose bytes beyond the string are cut off, and no loop.
  bool shortASCII(Value *slot, size_t size) {
    uint64_t low, high;
    std::memcpy(&low, source_.cursor, 8);
    std::memcpy(&high, source_.cursor + 8, 8);
    high = size > 8 ? high & ~(~uint64_t(0) << (8 * (size - 8))) : 0;
    if (size < 8) low &= ~(~uint64_t(0) << (8 * size));
    if ((low | high) & 0x8080808080808080) return false;
    source_.cursor += size;
    new (slot)
        Value(detail::Access::make(detail::tagShortString | uint64_t(size) << 8 | low << 16, low >> 48 | high << 16));
    return true;
  }

  bool bytes(Value *slot, size_t size) {
    if (source_.remaining() < size) return false;
    builder_.data(slot, {source_.cursor, size});
    source_.cursor += size;
    return true;
  }

  bool container(Value *slot, detail::Tag tag, uint64_t count) {
    const uint64_t values = count << (tag == detail::tagMap);
    if (owed_ + values > source_.remaining()) return false;
    owed_ += values;
    Value *first = builder_.container(slot, tag, count);
    if (count != 0) open_.push({first, first + values, slot});
    return true;
  }

  Source &source_;
  detail::TreeBuilder builder_;
  uint64_t owed_ = 0;  // values that open containers still wait for
  detail::SmallStack<Open, 24> open_;
};

/// Finds the first error of an input that TreeReader refused, item by item through the codec.
class Diagnosis {
 public:
  Diagnosis(Source source, size_t inputSize) : source_(source), inputSize_(inputSize) {}

  Error find() {
    std::vector<uint64_t> open;  // how many values each open container still waits for
    for (;;) {
      cmp_object object;
      uint8_t failure = 0;
      if (!qelnk::cmp::readObject(source_, object, failure))
        return readerError(unreadableObject, "Unable to read object");
      uint64_t values = 0;
      if (Error error = look(object, values)) return error;
      if (values != 0) {
        open.push_back(values);
        continue;
      }
      while (!open.empty() && --open.back() == 0) open.pop_back();
      if (open.empty()) return readerError(nothingRead, "Unable to read object");
    }
  }

 private:
  Error look(const cmp_object &object, uint64_t &values) {
    namespace cmp = qelnk::cmp;
    if (cmp::isArray(object.type)) {
      values = object.as.size;
    } else if (cmp::isMap(object.type)) {
      values = 2 * uint64_t(object.as.size);
    } else if (cmp::isStr(object.type)) {
      return payload(object.as.size, unreadableString, "Unable to read string");
    } else if (cmp::isBin(object.type)) {
      return payload(object.as.size, unreadableBytes, "Unable to read bytes");
    } else if (cmp::isExt(object.type)) {
      return readerError(unsupportedType, "Unsupported object type: " + std::to_string(int(object.type)));
    }
    return {};
  }

  // A length is held against the whole input; what is left of it is found out by reading.
  Error payload(size_t size, ReaderError code, const char *description) {
    if (inputSize_ < size) return readerError(invalidLength, "Invalid data length, data might be malformed");
    if (source_.remaining() < size) return readerError(code, description);
    source_.cursor += size;
    return {};
  }

  Source source_;
  size_t inputSize_;
};

std::optional<Value> readObjectAt(std::span<const uint8_t> input, uint64_t &index, int64_t options, Error *error) {
  Source source{input.data() + index, input.data() + input.size()};
  std::optional<Value> value = TreeReader(source).read();
  if (!value) {
    if (error) *error = Diagnosis({input.data() + index, input.data() + input.size()}, input.size()).find();
    return std::nullopt;
  }
  index = uint64_t(source.cursor - input.data());
  if (options & MPMessagePackReaderOrderedDictionaries) value = detail::Access::copyTree(*value, true);
  return value;
}

}  // namespace

std::optional<Value> MPMessagePackReader::readData(std::span<const uint8_t> data, int64_t options, Error *error) {
  uint64_t index = 0;
  return readObjectAt(data, index, options, error);
}

MPMessagePackReader::MPMessagePackReader(Data data, int64_t options) : data_(std::move(data)), options_(options) {}

std::optional<Value> MPMessagePackReader::readObject(Error *error) {
  return readObjectAt(data_.span(), index_, options_, error);
}

size_t MPMessagePackReader::read(std::span<uint8_t> buffer) {
  if (buffer.empty() || buffer.size() > data_.size() - index_) return 0;
  std::memcpy(buffer.data(), data_.data() + index_, buffer.size());
  index_ += buffer.size();
  return buffer.size();
}

namespace qelnk {

static std::optional<Value> expect(std::optional<Value> value, bool (Value::*isKind)() const, const char *description,
                                   Error *error) {
  if (!value || ((*value).*isKind)()) return value;
  if (error) *error = readerError(wrongType, description, Value::map({{"MPObject", *value}}));
  return std::nullopt;
}

std::optional<Value> mp_dict(std::span<const uint8_t> bytes, int64_t options, Error *error) {
  return expect(MPMessagePackReader::readData(bytes, options, error), &Value::isDictionary,
                "Object was not of type NSDictionary or PQODictionary", error);
}

std::optional<Value> mp_dict(std::span<const uint8_t> bytes, Error *error) { return mp_dict(bytes, int64_t(0), error); }

std::optional<Value> mp_array(std::span<const uint8_t> bytes, int64_t, Error *error) {
  return expect(MPMessagePackReader::readData(bytes, error), &Value::isList, "Object was not of type NSArray", error);
}

std::optional<Value> mp_array(std::span<const uint8_t> bytes, Error *error) {
  return mp_array(bytes, int64_t(0), error);
}

std::optional<Value> mp_object(std::span<const uint8_t> bytes, Error *error) {
  return MPMessagePackReader::readData(bytes, error);
}

std::optional<std::string> mp_hexString(std::span<const uint8_t> bytes) {
  if (bytes.empty()) return std::nullopt;
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * bytes.size());
  for (const uint8_t byte : bytes) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

static int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  const char lower = char(c | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// A character of UTF-16 for each of a text, in place of which the first byte of its UTF-8 stands: enough to tell
// digits.
static std::string charactersOf(std::string_view text) {
  std::string characters;
  characters.reserve(text.size());
  for (const char c : text) {
    if ((c & 0xC0) != 0x80) characters.append(uint8_t(c) >= 0xF0 ? 2 : 1, c);
  }
  return characters;
}

Data mp_dataFromHexString(std::string_view text) {
  const std::string characters = charactersOf(text);
  Data data;
  data.reserve((characters.size() + 1) / 2);
  for (size_t i = 0; i < characters.size(); i += 2) {
    uint8_t byte = 0;
    for (const char c : std::string_view(characters).substr(i, 2)) {
      const int digit = hexDigit(c);
      if (digit < 0) break;
      byte = uint8_t(byte * 16 + digit);
    }
    data.append(std::span(&byte, 1));
  }
  return data;
}

}  // namespace qelnk
