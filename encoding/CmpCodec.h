#pragma once

#include <QELNetworkKit/cmp.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

/// The MessagePack codec over any source and sink, so that one on memory inlines to a few instructions an item; cmp.cpp
/// puts the C functions over its callbacks.
///
/// A source has `bool read(void *to, size_t count)`: all of `count` or false. A sink has
/// `size_t write(const void *from, size_t count)`: how many it took. A function that fails stores one of CMP_ERROR_...
/// in `error` and returns false; one that succeeds does not touch it. Nothing here allocates, throws or recurses.
namespace qelnk::cmp {

inline bool fail(uint8_t &error, uint8_t code) {
  error = code;
  return false;
}

/// Between this machine's byte order and the stream's, either way.
template <class T>
constexpr T bigEndian(T value) {
  if constexpr (std::endian::native == std::endian::big || sizeof(T) == 1) return value;
  if constexpr (sizeof(T) == 2) return static_cast<T>(__builtin_bswap16(static_cast<uint16_t>(value)));
  if constexpr (sizeof(T) == 4) return static_cast<T>(__builtin_bswap32(static_cast<uint32_t>(value)));
  if constexpr (sizeof(T) == 8) return static_cast<T>(__builtin_bswap64(static_cast<uint64_t>(value)));
}

/// Markers that carry a value or a size in their low bits, and those without a type of their own.
inline constexpr uint8_t fixmapMarker = 0x80;
inline constexpr uint8_t fixarrayMarker = 0x90;
inline constexpr uint8_t fixstrMarker = 0xa0;
inline constexpr uint8_t nilMarker = 0xc0;
inline constexpr uint8_t falseMarker = 0xc2;
inline constexpr uint8_t trueMarker = 0xc3;

/// From CMP_TYPE_BIN8 to CMP_TYPE_MAP32 the types are numbered in the order of their markers.
inline constexpr uint8_t markerOffset = 0xc4 - CMP_TYPE_BIN8;
constexpr uint8_t markerOf(uint8_t type) { return static_cast<uint8_t>(type + markerOffset); }
static_assert(markerOf(CMP_TYPE_UINT8) == 0xcc && markerOf(CMP_TYPE_MAP32) == 0xdf);

constexpr bool isWithin(uint8_t type, uint8_t first, uint8_t last) { return type >= first && type <= last; }
constexpr bool isStr(uint8_t type) { return type == CMP_TYPE_FIXSTR || isWithin(type, CMP_TYPE_STR8, CMP_TYPE_STR32); }
constexpr bool isBin(uint8_t type) { return isWithin(type, CMP_TYPE_BIN8, CMP_TYPE_BIN32); }
constexpr bool isArray(uint8_t type) {
  return type == CMP_TYPE_FIXARRAY || isWithin(type, CMP_TYPE_ARRAY16, CMP_TYPE_ARRAY32);
}
constexpr bool isMap(uint8_t type) { return type == CMP_TYPE_FIXMAP || isWithin(type, CMP_TYPE_MAP16, CMP_TYPE_MAP32); }
constexpr bool isFixext(uint8_t type) { return isWithin(type, CMP_TYPE_FIXEXT1, CMP_TYPE_FIXEXT16); }
constexpr bool isExt(uint8_t type) { return isWithin(type, CMP_TYPE_EXT8, CMP_TYPE_EXT32) || isFixext(type); }

/// Whether `type` is a form of T's own sign and at most its width. A positive fixnum counts as unsigned only.
template <class T>
constexpr bool isInteger(uint8_t type) {
  constexpr uint8_t widest = std::countr_zero(sizeof(T));
  if constexpr (std::is_signed_v<T>) {
    return type == CMP_TYPE_NEGATIVE_FIXNUM || isWithin(type, CMP_TYPE_SINT8, CMP_TYPE_SINT8 + widest);
  } else {
    return type == CMP_TYPE_POSITIVE_FIXNUM || isWithin(type, CMP_TYPE_UINT8, CMP_TYPE_UINT8 + widest);
  }
}

// ---- Writing ----

template <class Out>
bool writeMarker(Out &out, uint8_t marker, uint8_t &error) {
  return out.write(&marker, 1) == 1 || fail(error, CMP_ERROR_WRITING_MARKER);
}

/// A field behind the marker. `code` is the error when the sink takes nothing of it.
template <class T, class Out>
bool writeField(Out &out, T value, uint8_t code, uint8_t &error) {
  const T wire = bigEndian(value);
  return out.write(&wire, sizeof wire) != 0 || fail(error, code);
}

/// The bytes behind a header. Of none the sink is not asked, as it could only answer 0, which would mean failure.
template <class Out>
bool writePayload(Out &out, const void *data, size_t size, uint8_t &error) {
  return size == 0 || out.write(data, size) != 0 || fail(error, CMP_ERROR_WRITING_DATA);
}

template <class T, class Out>
bool writeNumber(Out &out, uint8_t type, T value, uint8_t &error) {
  return writeMarker(out, markerOf(type), error) && writeField(out, value, CMP_ERROR_WRITING_DATA, error);
}

template <class T, class Out>
bool writeSize(Out &out, uint8_t type, T size, uint8_t &error) {
  return writeMarker(out, markerOf(type), error) && writeField(out, size, CMP_ERROR_WRITING_SIZE, error);
}

/// A header whose size lies in its marker.
template <class Out>
bool writeFixSize(Out &out, uint8_t marker, uint32_t size, uint32_t limit, uint8_t &error) {
  if (size >= limit) return fail(error, CMP_ERROR_INPUT_TOO_LARGE);
  return writeMarker(out, static_cast<uint8_t>(marker | size), error);
}

template <class Out>
bool writeFixstr(Out &out, uint32_t size, uint8_t &error) {
  return writeFixSize(out, fixstrMarker, size, 32, error);
}

template <class Out>
bool writeFixarray(Out &out, uint32_t size, uint8_t &error) {
  return writeFixSize(out, fixarrayMarker, size, 16, error);
}

template <class Out>
bool writeFixmap(Out &out, uint32_t size, uint8_t &error) {
  return writeFixSize(out, fixmapMarker, size, 16, error);
}

/// The two forms that begin at `type16`, the three that begin at `type8`: the smallest that holds `size`.
template <class Out>
bool writeSize16Or32(Out &out, uint8_t type16, uint32_t size, uint8_t &error) {
  if (size <= UINT16_MAX) return writeSize(out, type16, static_cast<uint16_t>(size), error);
  return writeSize(out, type16 + 1, size, error);
}

template <class Out>
bool writeSize8To32(Out &out, uint8_t type8, uint32_t size, uint8_t &error) {
  if (size <= UINT8_MAX) return writeSize(out, type8, static_cast<uint8_t>(size), error);
  return writeSize16Or32(out, type8 + 1, size, error);
}

/// Headers in their smallest form. Sizes come in 64 bits so that one beyond the format's 32 is an error, not cut.
template <class Out>
bool writeStrMarker(Out &out, uint64_t size, uint8_t &error) {
  if (size > UINT32_MAX) return fail(error, CMP_ERROR_STR_LENGTH);
  if (size < 32) return writeFixstr(out, static_cast<uint32_t>(size), error);
  return writeSize8To32(out, CMP_TYPE_STR8, static_cast<uint32_t>(size), error);
}

template <class Out>
bool writeBinMarker(Out &out, uint64_t size, uint8_t &error) {
  if (size > UINT32_MAX) return fail(error, CMP_ERROR_BIN_LENGTH);
  return writeSize8To32(out, CMP_TYPE_BIN8, static_cast<uint32_t>(size), error);
}

template <class Out>
bool writeArray(Out &out, uint64_t size, uint8_t &error) {
  if (size > UINT32_MAX) return fail(error, CMP_ERROR_ARRAY_LENGTH);
  if (size < 16) return writeFixarray(out, static_cast<uint32_t>(size), error);
  return writeSize16Or32(out, CMP_TYPE_ARRAY16, static_cast<uint32_t>(size), error);
}

template <class Out>
bool writeMap(Out &out, uint64_t size, uint8_t &error) {
  if (size > UINT32_MAX) return fail(error, CMP_ERROR_MAP_LENGTH);
  if (size < 16) return writeFixmap(out, static_cast<uint32_t>(size), error);
  return writeSize16Or32(out, CMP_TYPE_MAP16, static_cast<uint32_t>(size), error);
}

template <class Out>
bool writeStr(Out &out, const void *data, uint64_t size, uint8_t &error) {
  return writeStrMarker(out, size, error) && writePayload(out, data, size, error);
}

template <class Out>
bool writeBin(Out &out, const void *data, uint64_t size, uint8_t &error) {
  return writeBinMarker(out, size, error) && writePayload(out, data, size, error);
}

/// An ext header of the form that `type` names: marker, size unless the marker implies it, ext type.
template <class Out>
bool writeFixext(Out &out, uint8_t type, int8_t extType, uint8_t &error) {
  return writeMarker(out, markerOf(type), error) && writeField(out, extType, CMP_ERROR_WRITING_EXT_TYPE, error);
}

template <class T, class Out>
bool writeExt(Out &out, uint8_t type, int8_t extType, T size, uint8_t &error) {
  return writeSize(out, type, size, error) && writeField(out, extType, CMP_ERROR_WRITING_EXT_TYPE, error);
}

template <class Out>
bool writeExtMarker(Out &out, int8_t extType, uint32_t size, uint8_t &error) {
  if (size <= 16 && std::has_single_bit(size)) {
    return writeFixext(out, static_cast<uint8_t>(CMP_TYPE_FIXEXT1 + std::countr_zero(size)), extType, error);
  }
  return writeSize8To32(out, CMP_TYPE_EXT8, size, error) && writeField(out, extType, CMP_ERROR_WRITING_EXT_TYPE, error);
}

template <class Out>
bool writeFixnum(Out &out, uint8_t byte, uint8_t &error) {
  return out.write(&byte, 1) == 1 || fail(error, CMP_ERROR_WRITING_FIXNUM);
}

template <class Out>
bool writePositiveFixnum(Out &out, uint8_t value, uint8_t &error) {
  if (value > INT8_MAX) return fail(error, CMP_ERROR_INPUT_TOO_LARGE);
  return writeFixnum(out, value, error);
}

template <class Out>
bool writeNegativeFixnum(Out &out, int8_t value, uint8_t &error) {
  if (value < -32 || value >= 0) return fail(error, CMP_ERROR_INPUT_TOO_LARGE);
  return writeFixnum(out, static_cast<uint8_t>(value), error);
}

/// A number in its smallest form; one of zero or more goes out unsigned.
template <class Out>
bool writeUnsigned(Out &out, uint64_t value, uint8_t &error) {
  if (value <= INT8_MAX) return writeFixnum(out, static_cast<uint8_t>(value), error);
  if (value <= UINT8_MAX) return writeNumber(out, CMP_TYPE_UINT8, static_cast<uint8_t>(value), error);
  if (value <= UINT16_MAX) return writeNumber(out, CMP_TYPE_UINT16, static_cast<uint16_t>(value), error);
  if (value <= UINT32_MAX) return writeNumber(out, CMP_TYPE_UINT32, static_cast<uint32_t>(value), error);
  return writeNumber(out, CMP_TYPE_UINT64, value, error);
}

template <class Out>
bool writeSigned(Out &out, int64_t value, uint8_t &error) {
  if (value >= 0) return writeUnsigned(out, static_cast<uint64_t>(value), error);
  if (value >= -32) return writeFixnum(out, static_cast<uint8_t>(value), error);
  if (value >= INT8_MIN) return writeNumber(out, CMP_TYPE_SINT8, static_cast<int8_t>(value), error);
  if (value >= INT16_MIN) return writeNumber(out, CMP_TYPE_SINT16, static_cast<int16_t>(value), error);
  if (value >= INT32_MIN) return writeNumber(out, CMP_TYPE_SINT32, static_cast<int32_t>(value), error);
  return writeNumber(out, CMP_TYPE_SINT64, value, error);
}

template <class Out>
bool writeFloat(Out &out, float value, uint8_t &error) {
  return writeNumber(out, CMP_TYPE_FLOAT, std::bit_cast<uint32_t>(value), error);
}

template <class Out>
bool writeDouble(Out &out, double value, uint8_t &error) {
  return writeNumber(out, CMP_TYPE_DOUBLE, std::bit_cast<uint64_t>(value), error);
}

template <class Out>
bool writeNil(Out &out, uint8_t &error) {
  return writeMarker(out, nilMarker, error);
}

template <class Out>
bool writeBool(Out &out, bool value, uint8_t &error) {
  return writeMarker(out, value ? trueMarker : falseMarker, error);
}

/// A size in the form that `type` names, which must hold it: a header cut short would lie about what follows.
template <class T, class Out>
bool writeSizeIfHeld(Out &out, uint8_t type, uint32_t size, uint8_t &error) {
  if (!std::in_range<T>(size)) return fail(error, CMP_ERROR_INPUT_TOO_LARGE);
  return writeSize(out, type, static_cast<T>(size), error);
}

template <class T, class Out>
bool writeExtIfHeld(Out &out, uint8_t type, const cmp_ext &ext, uint8_t &error) {
  return writeSizeIfHeld<T>(out, type, ext.size, error) && writeField(out, ext.type, CMP_ERROR_WRITING_EXT_TYPE, error);
}

/// An object in the form of its type; of str, bin, array, map and ext the header.
template <class Out>
bool writeObject(Out &out, const cmp_object &object, uint8_t &error) {
  const cmp_value &as = object.as;
  switch (object.type) {
    case CMP_TYPE_POSITIVE_FIXNUM:
      return writePositiveFixnum(out, as.u8, error);
    case CMP_TYPE_NEGATIVE_FIXNUM:
      return writeNegativeFixnum(out, as.s8, error);
    case CMP_TYPE_NIL:
      return writeNil(out, error);
    case CMP_TYPE_BOOLEAN:
      return writeBool(out, as.boolean, error);
    case CMP_TYPE_UINT8:
      return writeNumber(out, object.type, as.u8, error);
    case CMP_TYPE_UINT16:
      return writeNumber(out, object.type, as.u16, error);
    case CMP_TYPE_UINT32:
      return writeNumber(out, object.type, as.u32, error);
    case CMP_TYPE_UINT64:
      return writeNumber(out, object.type, as.u64, error);
    case CMP_TYPE_SINT8:
      return writeNumber(out, object.type, as.s8, error);
    case CMP_TYPE_SINT16:
      return writeNumber(out, object.type, as.s16, error);
    case CMP_TYPE_SINT32:
      return writeNumber(out, object.type, as.s32, error);
    case CMP_TYPE_SINT64:
      return writeNumber(out, object.type, as.s64, error);
    case CMP_TYPE_FLOAT:
      return writeFloat(out, as.flt, error);
    case CMP_TYPE_DOUBLE:
      return writeDouble(out, as.dbl, error);
    case CMP_TYPE_FIXSTR:
      return writeFixstr(out, as.size, error);
    case CMP_TYPE_FIXARRAY:
      return writeFixarray(out, as.size, error);
    case CMP_TYPE_FIXMAP:
      return writeFixmap(out, as.size, error);
    case CMP_TYPE_STR8:
    case CMP_TYPE_BIN8:
      return writeSizeIfHeld<uint8_t>(out, object.type, as.size, error);
    case CMP_TYPE_STR16:
    case CMP_TYPE_BIN16:
    case CMP_TYPE_ARRAY16:
    case CMP_TYPE_MAP16:
      return writeSizeIfHeld<uint16_t>(out, object.type, as.size, error);
    case CMP_TYPE_STR32:
    case CMP_TYPE_BIN32:
    case CMP_TYPE_ARRAY32:
    case CMP_TYPE_MAP32:
      return writeSize(out, object.type, as.size, error);
    case CMP_TYPE_EXT8:
      return writeExtIfHeld<uint8_t>(out, object.type, as.ext, error);
    case CMP_TYPE_EXT16:
      return writeExtIfHeld<uint16_t>(out, object.type, as.ext, error);
    case CMP_TYPE_EXT32:
      return writeExt(out, object.type, as.ext.type, as.ext.size, error);
    case CMP_TYPE_FIXEXT1:
    case CMP_TYPE_FIXEXT2:
    case CMP_TYPE_FIXEXT4:
    case CMP_TYPE_FIXEXT8:
    case CMP_TYPE_FIXEXT16:
      return writeFixext(out, object.type, as.ext.type, error);
    default:
      return fail(error, CMP_ERROR_INVALID_TYPE);
  }
}

// ---- Reading ----

template <class T, class In>
bool readField(In &in, T &value, uint8_t code, uint8_t &error) {
  T wire;
  if (!in.read(&wire, sizeof wire)) return fail(error, code);
  value = bigEndian(wire);
  return true;
}

/// The bytes behind a header; of none the source is not asked.
template <class In>
bool readPayload(In &in, void *data, size_t size, uint8_t &error) {
  return size == 0 || in.read(data, size) || fail(error, CMP_ERROR_READING_DATA);
}

/// The value of an item whose marker said `type`.
template <class T, class In>
bool readNumber(In &in, cmp_object &object, uint8_t type, T cmp_value::*member, uint8_t &error) {
  T value;
  if (!readField(in, value, CMP_ERROR_READING_DATA, error)) return false;
  object.type = type;
  object.as.*member = value;
  return true;
}

/// The size T of an item whose marker said `type`. Only those of bin have a code of their own; the others count as
/// data.
template <class T, class In>
bool readSize(In &in, cmp_object &object, uint8_t type, uint8_t &error) {
  T size;
  if (!readField(in, size, isBin(type) ? CMP_ERROR_READING_SIZE : CMP_ERROR_READING_DATA, error)) return false;
  object.type = type;
  object.as.size = size;
  return true;
}

template <class In>
bool readExtType(In &in, cmp_object &object, uint8_t type, uint32_t size, uint8_t &error) {
  int8_t extType;
  if (!readField(in, extType, CMP_ERROR_READING_EXT_TYPE, error)) return false;
  object.type = type;
  object.as.ext = {extType, size};
  return true;
}

template <class T, class In>
bool readExt(In &in, cmp_object &object, uint8_t type, uint8_t &error) {
  T size;
  return readField(in, size, CMP_ERROR_READING_SIZE, error) && readExtType(in, object, type, size, error);
}

/// The float or double whose bits are a Bits.
template <class Bits, class T, class In>
bool readReal(In &in, cmp_object &object, uint8_t type, T cmp_value::*member, uint8_t &error) {
  Bits bits;
  if (!readField(in, bits, CMP_ERROR_READING_DATA, error)) return false;
  object.type = type;
  object.as.*member = std::bit_cast<T>(bits);
  return true;
}

inline bool storeFixnum(cmp_object &object, uint8_t marker) {
  if (marker <= INT8_MAX) {
    object.type = CMP_TYPE_POSITIVE_FIXNUM;
    object.as.u8 = marker;
  } else {
    object.type = CMP_TYPE_NEGATIVE_FIXNUM;
    object.as.s8 = static_cast<int8_t>(marker);
  }
  return true;
}

inline bool storeSize(cmp_object &object, uint8_t type, uint32_t size) {
  object.type = type;
  object.as.size = size;
  return true;
}

inline bool storeBool(cmp_object &object, bool value) {
  object.type = CMP_TYPE_BOOLEAN;
  object.as.boolean = value;
  return true;
}

/// The next item into `object`, which a failure leaves as it was: its value, or its header when something follows.
template <class In>
bool readObject(In &in, cmp_object &object, uint8_t &error) {
  uint8_t marker;
  if (!in.read(&marker, 1)) return fail(error, CMP_ERROR_READING_MARKER);
  if (marker < fixmapMarker || marker > markerOf(CMP_TYPE_MAP32)) return storeFixnum(object, marker);
  if (marker < fixarrayMarker) return storeSize(object, CMP_TYPE_FIXMAP, marker & 0x0f);
  if (marker < fixstrMarker) return storeSize(object, CMP_TYPE_FIXARRAY, marker & 0x0f);
  if (marker < nilMarker) return storeSize(object, CMP_TYPE_FIXSTR, marker & 0x1f);
  if (marker == nilMarker) return storeSize(object, CMP_TYPE_NIL, 0);
  if (marker == falseMarker || marker == trueMarker) return storeBool(object, marker == trueMarker);
  const auto type = static_cast<uint8_t>(marker - markerOffset);
  switch (type) {
    case CMP_TYPE_UINT8:
      return readNumber(in, object, type, &cmp_value::u8, error);
    case CMP_TYPE_UINT16:
      return readNumber(in, object, type, &cmp_value::u16, error);
    case CMP_TYPE_UINT32:
      return readNumber(in, object, type, &cmp_value::u32, error);
    case CMP_TYPE_UINT64:
      return readNumber(in, object, type, &cmp_value::u64, error);
    case CMP_TYPE_SINT8:
      return readNumber(in, object, type, &cmp_value::s8, error);
    case CMP_TYPE_SINT16:
      return readNumber(in, object, type, &cmp_value::s16, error);
    case CMP_TYPE_SINT32:
      return readNumber(in, object, type, &cmp_value::s32, error);
    case CMP_TYPE_SINT64:
      return readNumber(in, object, type, &cmp_value::s64, error);
    case CMP_TYPE_FLOAT:
      return readReal<uint32_t>(in, object, type, &cmp_value::flt, error);
    case CMP_TYPE_DOUBLE:
      return readReal<uint64_t>(in, object, type, &cmp_value::dbl, error);
    case CMP_TYPE_STR8:
    case CMP_TYPE_BIN8:
      return readSize<uint8_t>(in, object, type, error);
    case CMP_TYPE_STR16:
    case CMP_TYPE_BIN16:
    case CMP_TYPE_ARRAY16:
    case CMP_TYPE_MAP16:
      return readSize<uint16_t>(in, object, type, error);
    case CMP_TYPE_STR32:
    case CMP_TYPE_BIN32:
    case CMP_TYPE_ARRAY32:
    case CMP_TYPE_MAP32:
      return readSize<uint32_t>(in, object, type, error);
    case CMP_TYPE_EXT8:
      return readExt<uint8_t>(in, object, type, error);
    case CMP_TYPE_EXT16:
      return readExt<uint16_t>(in, object, type, error);
    case CMP_TYPE_EXT32:
      return readExt<uint32_t>(in, object, type, error);
    case CMP_TYPE_FIXEXT1:
    case CMP_TYPE_FIXEXT2:
    case CMP_TYPE_FIXEXT4:
    case CMP_TYPE_FIXEXT8:
    case CMP_TYPE_FIXEXT16:
      return readExtType(in, object, type, 1u << (type - CMP_TYPE_FIXEXT1), error);
    default:
      return fail(error, CMP_ERROR_INVALID_TYPE);  // 0xc1, which stands for nothing
  }
}

// ---- Converting ----

/// Forms wider than T are refused even when the number would fit, and an unsigned T refuses every signed form.
template <class T, class From>
bool convertInteger(From from, T &to) {
  if constexpr (sizeof(From) > sizeof(T) || (std::is_signed_v<From> && std::is_unsigned_v<T>)) {
    return false;
  } else {
    if (!std::in_range<T>(from)) return false;
    to = static_cast<T>(from);
    return true;
  }
}

/// The integer that `object` holds as a T; false, `value` untouched, when it is none that T takes.
template <class T>
bool integerOf(const cmp_object &object, T &value) {
  switch (object.type) {
    case CMP_TYPE_POSITIVE_FIXNUM:
    case CMP_TYPE_UINT8:
      return convertInteger(object.as.u8, value);
    case CMP_TYPE_UINT16:
      return convertInteger(object.as.u16, value);
    case CMP_TYPE_UINT32:
      return convertInteger(object.as.u32, value);
    case CMP_TYPE_UINT64:
      return convertInteger(object.as.u64, value);
    case CMP_TYPE_NEGATIVE_FIXNUM:
    case CMP_TYPE_SINT8:
      return convertInteger(object.as.s8, value);
    case CMP_TYPE_SINT16:
      return convertInteger(object.as.s16, value);
    case CMP_TYPE_SINT32:
      return convertInteger(object.as.s32, value);
    case CMP_TYPE_SINT64:
      return convertInteger(object.as.s64, value);
    default:
      return false;
  }
}

}  // namespace qelnk::cmp
