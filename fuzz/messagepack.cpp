// Whole values from MessagePack: what was read is written and read again as the same value.

#include <QELNetworkKit/MPMessagePack.h>

#include "Fuzz.h"

using qelnk::Value;

namespace {

constexpr int mostValues = 4;  // of an input that holds one behind the other

void checkValue(const Value &value, int64_t options) {
  qelnk::Error error;
  const qelnk::Data bytes = MPMessagePackWriter::writeObject(value, &error);
  fuzz::require(!error, "what was read can be written");
  const auto again = MPMessagePackReader::readData(bytes.span(), options, &error);
  fuzz::require(again && *again == value, "what was written is read as the same value");
  fuzz::require(again->hash() == value.hash(), "equal values have equal hashes");
  // The order of entries counts in ordered maps, and in maps that are keys: sorted it may be another value.
  const qelnk::Data sorted = MPMessagePackWriter::writeObject(value, MPMessagePackWriterSortKeys, &error);
  fuzz::require(!error && sorted.size() == bytes.size() && MPMessagePackReader::readData(sorted.span(), options),
                "what was read can be written with its keys sorted");
  const Value copy = value.detached();
  fuzz::require(copy == value && copy.description() == value.description(), "a detached copy is the same");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::span bytes(data, size);
  for (const int64_t options : {int64_t(0), int64_t(MPMessagePackReaderOrderedDictionaries)}) {
    MPMessagePackReader reader(qelnk::Data(bytes), options);
    uint64_t before = 0;
    for (int values = 0; values < mostValues && before < size; ++values, before = reader.index()) {
      qelnk::Error error;
      const auto value = reader.readObject(&error);
      fuzz::require(value.has_value() == !error, "there is a value or an error");
      if (!value) {
        fuzz::require(reader.index() == before, "after an error the reader is where it was");
        break;
      }
      checkValue(*value, options);
    }
  }
  const auto any = qelnk::mp_object(bytes);
  const auto map = qelnk::mp_dict(bytes), list = qelnk::mp_array(bytes);
  fuzz::require(map.has_value() == (any && any->isDictionary()) && list.has_value() == (any && any->isList()),
                "a map is a map, a list a list");
  if (const auto hex = qelnk::mp_hexString(bytes))
    fuzz::require(qelnk::mp_dataFromHexString(*hex) == qelnk::Data(bytes), "hexadecimal digits stand for their bytes");
  qelnk::mp_dataFromHexString(fuzz::textOf(bytes));
  return 0;
}
