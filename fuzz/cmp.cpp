// Single items from MessagePack: each byte in front asks for one kind of item. What is read as an object is written as
// the same bytes, and its questions answer what the reader of the same name does.

#include <QELNetworkKit/cmp.h>

#include <array>
#include <cstring>
#include <vector>

#include "Fuzz.h"

namespace {

struct Stream {
  explicit Stream(std::span<const uint8_t> bytes) : rest(bytes) {
    cmp_init(
        &context, this,
        [](cmp_context *ctx, void *data, size_t limit) { return static_cast<Stream *>(ctx->buf)->read(data, limit); },
        [](cmp_context *ctx, const void *data, size_t count) {
          const auto *bytes = static_cast<const uint8_t *>(data);
          auto &written = static_cast<Stream *>(ctx->buf)->written;
          written.insert(written.end(), bytes, bytes + count);
          return count;
        });
  }
  bool read(void *data, size_t limit) {
    if (limit > rest.size()) return false;
    if (limit != 0) std::memcpy(data, rest.data(), limit);
    rest = rest.subspan(limit);
    return true;
  }

  cmp_context context{};
  std::span<const uint8_t> rest;
  std::vector<uint8_t> written;
};

void readObject(Stream &stream) {
  const auto before = stream.rest;
  cmp_object object{};
  if (!cmp_read_object(&stream.context, &object)) return;
  const auto taken = before.first(before.size() - stream.rest.size());
  Stream copy({});
  fuzz::require(cmp_write_object(&copy.context, &object) && std::ranges::equal(copy.written, taken),
                "an object is written as it was read");

  const auto agree = [&]<class T>(bool (*read)(cmp_context *, T *), bool (*as)(const cmp_object *, T *)) {
    Stream again(before);
    T got{}, had{};
    const bool readable = read(&again.context, &got);
    fuzz::require(readable == as(&object, &had) && std::memcmp(&got, &had, sizeof got) == 0,
                  "an object is as its reader says");
  };
  agree(cmp_read_char, cmp_object_as_char);
  agree(cmp_read_short, cmp_object_as_short);
  agree(cmp_read_int, cmp_object_as_int);
  agree(cmp_read_long, cmp_object_as_long);
  agree(cmp_read_sinteger, cmp_object_as_sinteger);
  agree(cmp_read_uchar, cmp_object_as_uchar);
  agree(cmp_read_ushort, cmp_object_as_ushort);
  agree(cmp_read_uint, cmp_object_as_uint);
  agree(cmp_read_ulong, cmp_object_as_ulong);
  agree(cmp_read_uinteger, cmp_object_as_uinteger);
  agree(cmp_read_float, cmp_object_as_float);
  agree(cmp_read_double, cmp_object_as_double);
  agree(cmp_read_bool, cmp_object_as_bool);
  agree(cmp_read_str_size, cmp_object_as_str);
  agree(cmp_read_bin_size, cmp_object_as_bin);
  agree(cmp_read_array, cmp_object_as_array);
  agree(cmp_read_map, cmp_object_as_map);
}

/// A text or a buffer into exactly the room that is offered.
template <class Byte, class Read>
void readInto(Stream &stream, uint32_t room, Read read) {
  std::vector<Byte> data(room);
  uint32_t size = room;
  if (read(&stream.context, data.data(), &size)) fuzz::require(size <= room, "no more is read than there is room for");
}

template <auto read>
void readNumber(Stream &stream, uint8_t) {
  [&]<class T>(bool (*)(cmp_context *, T *)) {
    T value{};
    read(&stream.context, &value);
  }(read);
}
template <auto read>
void readPayload(Stream &stream, uint8_t) {
  int8_t type = 0;
  std::array<uint8_t, 16> data{};
  read(&stream.context, &type, data.data());
}
template <auto read>
void readHeader(Stream &stream, uint8_t) {
  [&]<class T>(bool (*)(cmp_context *, int8_t *, T *)) {
    int8_t type = 0;
    T size{};
    read(&stream.context, &type, &size);
  }(read);
}

using Operation = void (*)(Stream &, uint8_t argument);
constexpr Operation operations[] = {
    [](Stream &stream, uint8_t) { readObject(stream); },
    [](Stream &stream, uint8_t room) { readInto<char>(stream, room, cmp_read_str); },
    [](Stream &stream, uint8_t room) { readInto<uint8_t>(stream, room, cmp_read_bin); },
    [](Stream &stream, uint8_t) { cmp_read_nil(&stream.context); },
    [](Stream &stream, uint8_t) {  // a block whose form bounds its length
      int8_t type = 0;
      uint8_t size = 0;
      std::array<uint8_t, 255> data{};
      cmp_read_ext8(&stream.context, &type, &size, data.data());
    },
    readNumber<cmp_read_char>,
    readNumber<cmp_read_short>,
    readNumber<cmp_read_int>,
    readNumber<cmp_read_long>,
    readNumber<cmp_read_uchar>,
    readNumber<cmp_read_ushort>,
    readNumber<cmp_read_uint>,
    readNumber<cmp_read_ulong>,
    readNumber<cmp_read_pfix>,
    readNumber<cmp_read_nfix>,
    readNumber<cmp_read_sfix>,
    readNumber<cmp_read_ufix>,
    readNumber<cmp_read_s8>,
    readNumber<cmp_read_s16>,
    readNumber<cmp_read_s32>,
    readNumber<cmp_read_s64>,
    readNumber<cmp_read_u8>,
    readNumber<cmp_read_u16>,
    readNumber<cmp_read_u32>,
    readNumber<cmp_read_u64>,
    readNumber<cmp_read_float>,
    readNumber<cmp_read_double>,
    readNumber<cmp_read_bool>,
    readNumber<cmp_read_bool_as_u8>,
    readNumber<cmp_read_str_size>,
    readNumber<cmp_read_bin_size>,
    readNumber<cmp_read_array>,
    readNumber<cmp_read_map>,
    readNumber<cmp_read_fixext1_marker>,
    readNumber<cmp_read_fixext2_marker>,
    readNumber<cmp_read_fixext4_marker>,
    readNumber<cmp_read_fixext8_marker>,
    readNumber<cmp_read_fixext16_marker>,
    readPayload<cmp_read_fixext1>,
    readPayload<cmp_read_fixext2>,
    readPayload<cmp_read_fixext4>,
    readPayload<cmp_read_fixext8>,
    readPayload<cmp_read_fixext16>,
    readHeader<cmp_read_ext_marker>,
    readHeader<cmp_read_ext8_marker>,
    readHeader<cmp_read_ext16_marker>,
    readHeader<cmp_read_ext32_marker>,
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::Input input(data, size);
  const auto asked = input.bytes(input.byte());
  Stream stream(input.rest());
  for (const uint8_t byte : asked) {
    operations[byte % std::size(operations)](stream, byte);
    cmp_strerror(&stream.context);
  }
  return 0;
}
