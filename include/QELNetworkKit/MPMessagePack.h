#pragma once

#include <QELNetworkKit/Error.h>
#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/PQODictionary.h>
#include <QELNetworkKit/Value.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

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
    return writeObject(value, 0, error);
  }

  /// The bytes of `value`, or none after a failure.
  std::optional<qelnk::Data> write(const qelnk::Value &value, int64_t options, qelnk::Error *error = nullptr);

  /// What the last write produced.
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
  static std::optional<qelnk::Value> readData(std::span<const uint8_t> data, int64_t options,
                                              qelnk::Error *error = nullptr);
  static std::optional<qelnk::Value> readData(std::span<const uint8_t> data, qelnk::Error *error = nullptr) {
    return readData(data, 0, error);
  }

  explicit MPMessagePackReader(qelnk::Data data, int64_t options = 0);

  /// Reads the object at index(), which moves behind it; after an error index() is where it was.
  std::optional<qelnk::Value> readObject(qelnk::Error *error = nullptr);

  /// The reading position in bytes from the start.
  uint64_t index() const { return index_; }
  int64_t options() const { return options_; }

 private:
  qelnk::Data data_;
  uint64_t index_ = 0;
  int64_t options_ = 0;
};

namespace qelnk {

/// The MessagePack bytes of a list or a map. After a failure, the bytes written up to it, with the error set.
QELNK_EXPORT Data mp_messagePack(const Value &container, int64_t options, Error *error = nullptr);
QELNK_EXPORT Data mp_messagePack(const Value &container, Error *error = nullptr);

/// The map that the bytes hold. Another kind: none, with an error of code -1 and the object under "MPObject".
QELNK_EXPORT std::optional<Value> mp_dict(std::span<const uint8_t> bytes, int64_t options, Error *error = nullptr);
QELNK_EXPORT std::optional<Value> mp_dict(std::span<const uint8_t> bytes, Error *error = nullptr);

/// The list that the bytes hold. Another kind: none, with an error of code -1 and the object under "MPObject". The
/// options are not looked at: maps inside are always plain.
QELNK_EXPORT std::optional<Value> mp_array(std::span<const uint8_t> bytes, int64_t options, Error *error = nullptr);
QELNK_EXPORT std::optional<Value> mp_array(std::span<const uint8_t> bytes, Error *error = nullptr);

/// Whatever the bytes hold.
QELNK_EXPORT std::optional<Value> mp_object(std::span<const uint8_t> bytes, Error *error = nullptr);

/// Two lower-case hexadecimal digits a byte; none for no bytes.
QELNK_EXPORT std::optional<std::string> mp_hexString(std::span<const uint8_t> bytes);

/// The bytes of pairs of hexadecimal digits. A single last digit counts alone; a pair counts up to its first other
/// character.
QELNK_EXPORT Data mp_dataFromHexString(std::string_view text);

}  // namespace qelnk
