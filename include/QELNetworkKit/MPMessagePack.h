#pragma once

#include <QELNetworkKit/Error.h>
#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/PQODictionary.h>
#include <QELNetworkKit/Value.h>

#include <concepts>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

// Options are 64-bit numbers. Where an error may stand in their place, a template takes the other integers, so that a
// plain 0 is one of them and no null pointer.

/// Option bits of the writer.
enum MPMessagePackWriterOptions : int64_t {
  /// Map keys are written in the order of a case-insensitive comparison instead of the map's own order.
  MPMessagePackWriterSortKeys = 1
};

/// Option bits of the reader.
enum MPMessagePackReaderOptions : int64_t {
  /// Maps are read into a PQODictionary, which keeps the order of the bytes, instead of a plain map.
  MPMessagePackReaderOrderedDictionaries = 1
};

/// Writes value trees as MessagePack. Numbers take the smallest form that holds them; floats keep their width.
///
/// Errors have domain "MPMessagePack" and code 102. Threads: one object on one thread at a time.
class QELNK_EXPORT MPMessagePackWriter {
 public:
  /// The bytes of `value`. After a failure, the bytes written up to it, with the error set.
  static qelnk::Data writeObject(const qelnk::Value &value, int64_t options, qelnk::Error *error = nullptr);
  static qelnk::Data writeObject(const qelnk::Value &value, qelnk::Error *error = nullptr) {
    return writeObject(value, int64_t(0), error);
  }
  template <std::integral Options>
  static qelnk::Data writeObject(const qelnk::Value &value, Options options, qelnk::Error *error = nullptr) {
    return writeObject(value, int64_t(options), error);
  }

  /// The bytes of `value`, or none after a failure.
  std::optional<qelnk::Data> write(const qelnk::Value &value, int64_t options, qelnk::Error *error = nullptr);

  /// Appends bytes to data() as they are; returns their number.
  size_t write(std::span<const uint8_t> bytes);

  /// What the last write of an object produced, and the bytes appended since.
  const qelnk::Data &data() const { return data_; }

 private:
  qelnk::Data data_;
};

/// Reads one value tree from the start of its bytes; what follows it is ignored.
///
/// Errors have domain "MPMessagePack": 200 nothing readable, 201 a type without a value, 202 and 206 a payload cut
/// short, 298 a length beyond the whole input, 299 nothing read. Memory stays in proportion to the input, whatever
/// lengths it claims. Threads: one object on one thread at a time.
class QELNK_EXPORT MPMessagePackReader {
 public:
  /// The tree at the start of `data`; none with an error. Options are MPMessagePackReaderOptions.
  static std::optional<qelnk::Value> readData(std::span<const uint8_t> data, int64_t options,
                                              qelnk::Error *error = nullptr);
  static std::optional<qelnk::Value> readData(std::span<const uint8_t> data, qelnk::Error *error = nullptr) {
    return readData(data, int64_t(0), error);
  }
  template <std::integral Options>
  static std::optional<qelnk::Value> readData(std::span<const uint8_t> data, Options options,
                                              qelnk::Error *error = nullptr) {
    return readData(data, int64_t(options), error);
  }

  /// A reader at the start of `data`, which it shares.
  explicit MPMessagePackReader(qelnk::Data data, int64_t options = 0);

  /// Reads the object at index(), which moves behind it; after an error index() is where it was.
  std::optional<qelnk::Value> readObject(qelnk::Error *error = nullptr);

  /// Fills `buffer` with the bytes at index(), which moves behind them, and returns their number. When fewer remain,
  /// reads nothing and returns 0.
  size_t read(std::span<uint8_t> buffer);

  /// All of the bytes, read or not.
  const qelnk::Data &data() const { return data_; }
  /// The reading position in bytes from the start.
  uint64_t index() const { return index_; }
  /// MPMessagePackReaderOptions, for the objects that are read from now on.
  int64_t options() const { return options_; }
  void setOptions(int64_t options) { options_ = options; }

 private:
  qelnk::Data data_;
  uint64_t index_ = 0;
  int64_t options_ = 0;
};

namespace qelnk {

/// The MessagePack bytes of a list or a map. After a failure, the bytes written up to it, with the error set.
QELNK_EXPORT Data mp_messagePack(const Value &container, int64_t options, Error *error = nullptr);
QELNK_EXPORT Data mp_messagePack(const Value &container, Error *error = nullptr);
template <std::integral Options>
Data mp_messagePack(const Value &container, Options options, Error *error = nullptr) {
  return mp_messagePack(container, int64_t(options), error);
}

/// The map that the bytes hold. Another kind: none, with an error of code -1 and the object under "MPObject".
QELNK_EXPORT std::optional<Value> mp_dict(std::span<const uint8_t> bytes, int64_t options, Error *error = nullptr);
QELNK_EXPORT std::optional<Value> mp_dict(std::span<const uint8_t> bytes, Error *error = nullptr);
template <std::integral Options>
std::optional<Value> mp_dict(std::span<const uint8_t> bytes, Options options, Error *error = nullptr) {
  return mp_dict(bytes, int64_t(options), error);
}

/// The list that the bytes hold. Another kind: none, with an error of code -1 and the object under "MPObject". The
/// options are not looked at: maps inside are always plain.
QELNK_EXPORT std::optional<Value> mp_array(std::span<const uint8_t> bytes, int64_t options, Error *error = nullptr);
QELNK_EXPORT std::optional<Value> mp_array(std::span<const uint8_t> bytes, Error *error = nullptr);
template <std::integral Options>
std::optional<Value> mp_array(std::span<const uint8_t> bytes, Options options, Error *error = nullptr) {
  return mp_array(bytes, int64_t(options), error);
}

/// Whatever the bytes hold.
QELNK_EXPORT std::optional<Value> mp_object(std::span<const uint8_t> bytes, Error *error = nullptr);

/// Two lower-case hexadecimal digits a byte; none for no bytes.
QELNK_EXPORT std::optional<std::string> mp_hexString(std::span<const uint8_t> bytes);

/// The bytes of pairs of hexadecimal digits. A single last digit counts alone; a pair counts up to its first other
/// character. Characters are counted as UTF-16 has them.
QELNK_EXPORT Data mp_dataFromHexString(std::string_view text);

}  // namespace qelnk
