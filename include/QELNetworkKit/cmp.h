#ifndef QELNETWORKKIT_CMP_H
#define QELNETWORKKIT_CMP_H

/// @file
/// Reads and writes single MessagePack items through two callbacks of the caller. Plain C: no allocation, no buffering.
///
/// Owner: the caller owns the context, the objects and every buffer; nothing is kept after a call returns.
/// Threads: one context on one thread at a time; different contexts do not know of each other.
/// Failure: a function that fails sets the context's `error` and returns false. The code stays until the next failure
/// or cmp_init(); a success does not clear it. Results are stored on success only, except where a function says
/// otherwise. Stream: after a failure it stands wherever the callbacks have left it. A reader that refuses a type has
/// taken that item's header from the stream. Calls: one callback call for an item's marker and one for each further
/// field (size, ext type, value, payload). An empty payload costs no call. Lengths are bytes, those of arrays elements,
/// those of maps pairs of key and value. A callback may be null when it is not needed; an operation that needs it fails
/// as if it had been refused.

#include <QELNetworkKit/Export.h>

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

QELNK_EXTERN_C_BEGIN

/// See the structure.
typedef struct cmp_context cmp_context;

/// Delivers exactly `limit` bytes to `data`; false when it cannot.
typedef bool (*cmp_reader)(cmp_context *ctx, void *data, size_t limit);

/// Takes `count` bytes from `data`; returns how many it took. A marker needs exactly 1, any other field not 0.
typedef size_t (*cmp_writer)(cmp_context *ctx, const void *data, size_t count);

/// One stream of items, read or written through its callbacks.
struct cmp_context {
  uint8_t error;     ///< the last failure, one of CMP_ERROR_...
  void *buf;         ///< the caller's own, for the callbacks
  cmp_reader read;   ///< see cmp_reader
  cmp_writer write;  ///< see cmp_writer
};

/// How an item stands in the stream.
enum {
  CMP_TYPE_POSITIVE_FIXNUM = 0,
  CMP_TYPE_FIXMAP,
  CMP_TYPE_FIXARRAY,
  CMP_TYPE_FIXSTR,
  CMP_TYPE_NIL,
  CMP_TYPE_BOOLEAN,
  CMP_TYPE_BIN8,
  CMP_TYPE_BIN16,
  CMP_TYPE_BIN32,
  CMP_TYPE_EXT8,
  CMP_TYPE_EXT16,
  CMP_TYPE_EXT32,
  CMP_TYPE_FLOAT,
  CMP_TYPE_DOUBLE,
  CMP_TYPE_UINT8,
  CMP_TYPE_UINT16,
  CMP_TYPE_UINT32,
  CMP_TYPE_UINT64,
  CMP_TYPE_SINT8,
  CMP_TYPE_SINT16,
  CMP_TYPE_SINT32,
  CMP_TYPE_SINT64,
  CMP_TYPE_FIXEXT1,
  CMP_TYPE_FIXEXT2,
  CMP_TYPE_FIXEXT4,
  CMP_TYPE_FIXEXT8,
  CMP_TYPE_FIXEXT16,
  CMP_TYPE_STR8,
  CMP_TYPE_STR16,
  CMP_TYPE_STR32,
  CMP_TYPE_ARRAY16,
  CMP_TYPE_ARRAY32,
  CMP_TYPE_MAP16,
  CMP_TYPE_MAP32,
  CMP_TYPE_NEGATIVE_FIXNUM = 34
};

enum {
  CMP_ERROR_NONE = 0,
  CMP_ERROR_STR_LENGTH,       ///< a string longer than its destination
  CMP_ERROR_BIN_LENGTH,       ///< bytes longer than their destination
  CMP_ERROR_ARRAY_LENGTH,     ///< not set by the functions below, whose lengths have 32 bits
  CMP_ERROR_MAP_LENGTH,       ///< not set by the functions below, whose lengths have 32 bits
  CMP_ERROR_INPUT_TOO_LARGE,  ///< a value or length that the form asked for cannot hold
  CMP_ERROR_WRITING_FIXNUM,
  CMP_ERROR_READING_MARKER,
  CMP_ERROR_WRITING_MARKER,
  CMP_ERROR_READING_DATA,
  CMP_ERROR_WRITING_DATA,
  CMP_ERROR_READING_EXT_TYPE,
  CMP_ERROR_WRITING_EXT_TYPE,
  CMP_ERROR_INVALID_TYPE,  ///< not the type asked for, or a number that does not fit the result
  CMP_ERROR_READING_SIZE,
  CMP_ERROR_WRITING_SIZE,
  CMP_ERROR_MAX = 16
};

/// The header of an ext item.
typedef struct cmp_ext {
  int8_t type;    ///< the application's own number
  uint32_t size;  ///< bytes of the payload
} cmp_ext;

/// The member that counts follows from the object's type. Fixnums: positive in u8, negative in s8.
typedef union cmp_value {
  bool boolean;   ///< booleans
  uint8_t u8;     ///< unsigned, 8 bits; positive fixnums
  uint16_t u16;   ///< unsigned, 16 bits
  uint32_t u32;   ///< unsigned, 32 bits
  uint64_t u64;   ///< unsigned, 64 bits
  int8_t s8;      ///< signed, 8 bits; negative fixnums
  int16_t s16;    ///< signed, 16 bits
  int32_t s32;    ///< signed, 32 bits
  int64_t s64;    ///< signed, 64 bits
  float flt;      ///< float
  double dbl;     ///< double
  uint32_t size;  ///< str, bin, array, map, every form of them
  cmp_ext ext;    ///< ext, every form of it
} cmp_value;

/// One item. Of str, bin, array, map and ext only the header: what they hold follows in the stream.
typedef struct cmp_object {
  uint8_t type;  ///< one of CMP_TYPE_...
  cmp_value as;  ///< its value, or its size
} cmp_object;

/// Prepares a context, without an error. Nothing to release later.
QELNK_EXPORT void cmp_init(cmp_context *ctx, void *buf, cmp_reader read, cmp_writer write);

/// The codec's own version, and the revision of the format.
QELNK_EXPORT uint32_t cmp_version(void);
QELNK_EXPORT uint32_t cmp_mp_version(void);

/// The text of the context's error, never null, never released; empty when there is none or the code is unknown.
QELNK_EXPORT const char *cmp_strerror(const cmp_context *ctx);

/// The texts by their codes. Those of CMP_ERROR_NONE and CMP_ERROR_MAX stand only here: cmp_strerror() gives neither.
QELNK_EXPORT extern const char *const cmp_error_messages[CMP_ERROR_MAX + 1];

// ---- Writers that choose the smallest form that holds the value ----

/// A number of zero or more goes out unsigned, whichever of the two writes it.
QELNK_EXPORT bool cmp_write_sint(cmp_context *ctx, int64_t value);
QELNK_EXPORT bool cmp_write_uint(cmp_context *ctx, uint64_t value);

/// Header and payload, or the header alone: the caller then writes `size` bytes himself.
QELNK_EXPORT bool cmp_write_str(cmp_context *ctx, const char *data, uint32_t size);
QELNK_EXPORT bool cmp_write_str_marker(cmp_context *ctx, uint32_t size);
QELNK_EXPORT bool cmp_write_bin(cmp_context *ctx, const void *data, uint32_t size);
QELNK_EXPORT bool cmp_write_bin_marker(cmp_context *ctx, uint32_t size);
QELNK_EXPORT bool cmp_write_ext(cmp_context *ctx, int8_t type, uint32_t size, const void *data);
QELNK_EXPORT bool cmp_write_ext_marker(cmp_context *ctx, int8_t type, uint32_t size);

/// The header; `size` elements, or pairs, must follow.
QELNK_EXPORT bool cmp_write_array(cmp_context *ctx, uint32_t size);
QELNK_EXPORT bool cmp_write_map(cmp_context *ctx, uint32_t size);

/// An object in exactly the form of its type: numbers, booleans and nil whole, the others as their header. A size that
/// the form cannot hold is CMP_ERROR_INPUT_TOO_LARGE, nothing written; a fixext has the size of its type.
QELNK_EXPORT bool cmp_write_object(cmp_context *ctx, const cmp_object *object);

// ---- Writers of one exact form ----

// A value or size beyond a fix form is CMP_ERROR_INPUT_TOO_LARGE, with nothing written.

/// 0 to 127; -32 to -1; either of them; 0 to 127.
QELNK_EXPORT bool cmp_write_pfix(cmp_context *ctx, uint8_t value);
QELNK_EXPORT bool cmp_write_nfix(cmp_context *ctx, int8_t value);
QELNK_EXPORT bool cmp_write_sfix(cmp_context *ctx, int8_t value);
QELNK_EXPORT bool cmp_write_ufix(cmp_context *ctx, uint8_t value);

/// The number in the form of the name.
QELNK_EXPORT bool cmp_write_s8(cmp_context *ctx, int8_t value);
QELNK_EXPORT bool cmp_write_s16(cmp_context *ctx, int16_t value);
QELNK_EXPORT bool cmp_write_s32(cmp_context *ctx, int32_t value);
QELNK_EXPORT bool cmp_write_s64(cmp_context *ctx, int64_t value);
QELNK_EXPORT bool cmp_write_u8(cmp_context *ctx, uint8_t value);
QELNK_EXPORT bool cmp_write_u16(cmp_context *ctx, uint16_t value);
QELNK_EXPORT bool cmp_write_u32(cmp_context *ctx, uint32_t value);
QELNK_EXPORT bool cmp_write_u64(cmp_context *ctx, uint64_t value);
QELNK_EXPORT bool cmp_write_float(cmp_context *ctx, float value);
QELNK_EXPORT bool cmp_write_double(cmp_context *ctx, double value);

/// One item of one byte.
QELNK_EXPORT bool cmp_write_nil(cmp_context *ctx);
QELNK_EXPORT bool cmp_write_true(cmp_context *ctx);
QELNK_EXPORT bool cmp_write_false(cmp_context *ctx);
QELNK_EXPORT bool cmp_write_bool(cmp_context *ctx, bool value);
/// Any byte but zero is true.
QELNK_EXPORT bool cmp_write_u8_as_bool(cmp_context *ctx, uint8_t value);

/// Headers; a fixstr holds up to 31 bytes.
QELNK_EXPORT bool cmp_write_fixstr_marker(cmp_context *ctx, uint8_t size);
QELNK_EXPORT bool cmp_write_str8_marker(cmp_context *ctx, uint8_t size);
QELNK_EXPORT bool cmp_write_str16_marker(cmp_context *ctx, uint16_t size);
QELNK_EXPORT bool cmp_write_str32_marker(cmp_context *ctx, uint32_t size);
QELNK_EXPORT bool cmp_write_bin8_marker(cmp_context *ctx, uint8_t size);
QELNK_EXPORT bool cmp_write_bin16_marker(cmp_context *ctx, uint16_t size);
QELNK_EXPORT bool cmp_write_bin32_marker(cmp_context *ctx, uint32_t size);

/// Headers; the fix forms hold up to 15 elements or pairs.
QELNK_EXPORT bool cmp_write_fixarray(cmp_context *ctx, uint8_t size);
QELNK_EXPORT bool cmp_write_array16(cmp_context *ctx, uint16_t size);
QELNK_EXPORT bool cmp_write_array32(cmp_context *ctx, uint32_t size);
QELNK_EXPORT bool cmp_write_fixmap(cmp_context *ctx, uint8_t size);
QELNK_EXPORT bool cmp_write_map16(cmp_context *ctx, uint16_t size);
QELNK_EXPORT bool cmp_write_map32(cmp_context *ctx, uint32_t size);

/// Headers. In the stream the ext type comes after the size.
QELNK_EXPORT bool cmp_write_fixext1_marker(cmp_context *ctx, int8_t type);
QELNK_EXPORT bool cmp_write_fixext2_marker(cmp_context *ctx, int8_t type);
QELNK_EXPORT bool cmp_write_fixext4_marker(cmp_context *ctx, int8_t type);
QELNK_EXPORT bool cmp_write_fixext8_marker(cmp_context *ctx, int8_t type);
QELNK_EXPORT bool cmp_write_fixext16_marker(cmp_context *ctx, int8_t type);
QELNK_EXPORT bool cmp_write_ext8_marker(cmp_context *ctx, int8_t type, uint8_t size);
QELNK_EXPORT bool cmp_write_ext16_marker(cmp_context *ctx, int8_t type, uint16_t size);
QELNK_EXPORT bool cmp_write_ext32_marker(cmp_context *ctx, int8_t type, uint32_t size);

/// Header and payload.
QELNK_EXPORT bool cmp_write_fixstr(cmp_context *ctx, const char *data, uint8_t size);
QELNK_EXPORT bool cmp_write_str8(cmp_context *ctx, const char *data, uint8_t size);
QELNK_EXPORT bool cmp_write_str16(cmp_context *ctx, const char *data, uint16_t size);
QELNK_EXPORT bool cmp_write_str32(cmp_context *ctx, const char *data, uint32_t size);
QELNK_EXPORT bool cmp_write_bin8(cmp_context *ctx, const void *data, uint8_t size);
QELNK_EXPORT bool cmp_write_bin16(cmp_context *ctx, const void *data, uint16_t size);
QELNK_EXPORT bool cmp_write_bin32(cmp_context *ctx, const void *data, uint32_t size);
QELNK_EXPORT bool cmp_write_fixext1(cmp_context *ctx, int8_t type, const void *data);
QELNK_EXPORT bool cmp_write_fixext2(cmp_context *ctx, int8_t type, const void *data);
QELNK_EXPORT bool cmp_write_fixext4(cmp_context *ctx, int8_t type, const void *data);
QELNK_EXPORT bool cmp_write_fixext8(cmp_context *ctx, int8_t type, const void *data);
QELNK_EXPORT bool cmp_write_fixext16(cmp_context *ctx, int8_t type, const void *data);
QELNK_EXPORT bool cmp_write_ext8(cmp_context *ctx, int8_t type, uint8_t size, const void *data);
QELNK_EXPORT bool cmp_write_ext16(cmp_context *ctx, int8_t type, uint16_t size, const void *data);
QELNK_EXPORT bool cmp_write_ext32(cmp_context *ctx, int8_t type, uint32_t size, const void *data);

// ---- Readers ----

/// The next item, whatever it is: its value, or its header when a payload or elements follow.
QELNK_EXPORT bool cmp_read_object(cmp_context *ctx, cmp_object *object);

// Readers that convert: any integer form up to the result's width whose value fits. The unsigned ones take no signed
// form, not even one that holds a positive number.

/// The number, from any signed or unsigned form whose value fits the result.
QELNK_EXPORT bool cmp_read_char(cmp_context *ctx, int8_t *value);
QELNK_EXPORT bool cmp_read_short(cmp_context *ctx, int16_t *value);
QELNK_EXPORT bool cmp_read_int(cmp_context *ctx, int32_t *value);
QELNK_EXPORT bool cmp_read_long(cmp_context *ctx, int64_t *value);
QELNK_EXPORT bool cmp_read_sinteger(cmp_context *ctx, int64_t *value);
/// The number, from any unsigned form whose value fits the result.
QELNK_EXPORT bool cmp_read_uchar(cmp_context *ctx, uint8_t *value);
QELNK_EXPORT bool cmp_read_ushort(cmp_context *ctx, uint16_t *value);
QELNK_EXPORT bool cmp_read_uint(cmp_context *ctx, uint32_t *value);
QELNK_EXPORT bool cmp_read_ulong(cmp_context *ctx, uint64_t *value);
QELNK_EXPORT bool cmp_read_uinteger(cmp_context *ctx, uint64_t *value);

// Readers of a family, in any of its forms.

/// The header; the caller then reads what follows.
QELNK_EXPORT bool cmp_read_str_size(cmp_context *ctx, uint32_t *size);
QELNK_EXPORT bool cmp_read_bin_size(cmp_context *ctx, uint32_t *size);
QELNK_EXPORT bool cmp_read_array(cmp_context *ctx, uint32_t *size);
QELNK_EXPORT bool cmp_read_map(cmp_context *ctx, uint32_t *size);
QELNK_EXPORT bool cmp_read_ext_marker(cmp_context *ctx, int8_t *type, uint32_t *size);

/// The string with a zero byte after it. `size` is the room at `data` in bytes, zero byte included, and becomes the
/// string's length; that length is stored too when the room does not suffice (CMP_ERROR_STR_LENGTH).
QELNK_EXPORT bool cmp_read_str(cmp_context *ctx, char *data, uint32_t *size);

/// The bytes. `size` is the room at `data` and becomes their number; it stays when the room does not suffice
/// (CMP_ERROR_BIN_LENGTH).
QELNK_EXPORT bool cmp_read_bin(cmp_context *ctx, void *data, uint32_t *size);

/// Header and payload. `size` is a result only: `data` must hold whatever the stream announces. Where the stream is not
/// trusted, read the header with cmp_read_ext_marker() and decide.
QELNK_EXPORT bool cmp_read_ext(cmp_context *ctx, int8_t *type, uint32_t *size, void *data);

// Readers of one exact form.

/// Positive; negative; either; positive.
QELNK_EXPORT bool cmp_read_pfix(cmp_context *ctx, uint8_t *value);
QELNK_EXPORT bool cmp_read_nfix(cmp_context *ctx, int8_t *value);
QELNK_EXPORT bool cmp_read_sfix(cmp_context *ctx, int8_t *value);
QELNK_EXPORT bool cmp_read_ufix(cmp_context *ctx, uint8_t *value);

/// The number, from the form of the name alone.
QELNK_EXPORT bool cmp_read_s8(cmp_context *ctx, int8_t *value);
QELNK_EXPORT bool cmp_read_s16(cmp_context *ctx, int16_t *value);
QELNK_EXPORT bool cmp_read_s32(cmp_context *ctx, int32_t *value);
QELNK_EXPORT bool cmp_read_s64(cmp_context *ctx, int64_t *value);
QELNK_EXPORT bool cmp_read_u8(cmp_context *ctx, uint8_t *value);
QELNK_EXPORT bool cmp_read_u16(cmp_context *ctx, uint16_t *value);
QELNK_EXPORT bool cmp_read_u32(cmp_context *ctx, uint32_t *value);
QELNK_EXPORT bool cmp_read_u64(cmp_context *ctx, uint64_t *value);
QELNK_EXPORT bool cmp_read_float(cmp_context *ctx, float *value);
QELNK_EXPORT bool cmp_read_double(cmp_context *ctx, double *value);

/// The item of that name.
QELNK_EXPORT bool cmp_read_nil(cmp_context *ctx);
QELNK_EXPORT bool cmp_read_bool(cmp_context *ctx, bool *value);
/// 1 or 0.
QELNK_EXPORT bool cmp_read_bool_as_u8(cmp_context *ctx, uint8_t *value);

/// Headers.
QELNK_EXPORT bool cmp_read_fixext1_marker(cmp_context *ctx, int8_t *type);
QELNK_EXPORT bool cmp_read_fixext2_marker(cmp_context *ctx, int8_t *type);
QELNK_EXPORT bool cmp_read_fixext4_marker(cmp_context *ctx, int8_t *type);
QELNK_EXPORT bool cmp_read_fixext8_marker(cmp_context *ctx, int8_t *type);
QELNK_EXPORT bool cmp_read_fixext16_marker(cmp_context *ctx, int8_t *type);
QELNK_EXPORT bool cmp_read_ext8_marker(cmp_context *ctx, int8_t *type, uint8_t *size);
QELNK_EXPORT bool cmp_read_ext16_marker(cmp_context *ctx, int8_t *type, uint16_t *size);
QELNK_EXPORT bool cmp_read_ext32_marker(cmp_context *ctx, int8_t *type, uint32_t *size);

/// Header and payload; `data` must hold whatever the form can announce, see cmp_read_ext().
QELNK_EXPORT bool cmp_read_fixext1(cmp_context *ctx, int8_t *type, void *data);
QELNK_EXPORT bool cmp_read_fixext2(cmp_context *ctx, int8_t *type, void *data);
QELNK_EXPORT bool cmp_read_fixext4(cmp_context *ctx, int8_t *type, void *data);
QELNK_EXPORT bool cmp_read_fixext8(cmp_context *ctx, int8_t *type, void *data);
QELNK_EXPORT bool cmp_read_fixext16(cmp_context *ctx, int8_t *type, void *data);
QELNK_EXPORT bool cmp_read_ext8(cmp_context *ctx, int8_t *type, uint8_t *size, void *data);
QELNK_EXPORT bool cmp_read_ext16(cmp_context *ctx, int8_t *type, uint16_t *size, void *data);
QELNK_EXPORT bool cmp_read_ext32(cmp_context *ctx, int8_t *type, uint32_t *size, void *data);

// ---- Questions to an object ----

// They look at the object alone: no stream, no error.

/// Whether the type is a signed form of at most that width, a negative fixnum included and a positive one not.
QELNK_EXPORT bool cmp_object_is_char(const cmp_object *object);
QELNK_EXPORT bool cmp_object_is_short(const cmp_object *object);
QELNK_EXPORT bool cmp_object_is_int(const cmp_object *object);
QELNK_EXPORT bool cmp_object_is_long(const cmp_object *object);
QELNK_EXPORT bool cmp_object_is_sinteger(const cmp_object *object);

/// Whether the type is an unsigned form of at most that width, a positive fixnum included.
QELNK_EXPORT bool cmp_object_is_uchar(const cmp_object *object);
QELNK_EXPORT bool cmp_object_is_ushort(const cmp_object *object);
QELNK_EXPORT bool cmp_object_is_uint(const cmp_object *object);
QELNK_EXPORT bool cmp_object_is_ulong(const cmp_object *object);
QELNK_EXPORT bool cmp_object_is_uinteger(const cmp_object *object);

/// Whether the type is that, in any of its forms.
QELNK_EXPORT bool cmp_object_is_float(const cmp_object *object);
QELNK_EXPORT bool cmp_object_is_double(const cmp_object *object);
QELNK_EXPORT bool cmp_object_is_nil(const cmp_object *object);
QELNK_EXPORT bool cmp_object_is_bool(const cmp_object *object);
QELNK_EXPORT bool cmp_object_is_str(const cmp_object *object);
QELNK_EXPORT bool cmp_object_is_bin(const cmp_object *object);
QELNK_EXPORT bool cmp_object_is_array(const cmp_object *object);
QELNK_EXPORT bool cmp_object_is_map(const cmp_object *object);
QELNK_EXPORT bool cmp_object_is_ext(const cmp_object *object);

/// The value, taken from just what the reader of the same name takes; false when that reader would refuse it.
QELNK_EXPORT bool cmp_object_as_char(const cmp_object *object, int8_t *value);
QELNK_EXPORT bool cmp_object_as_short(const cmp_object *object, int16_t *value);
QELNK_EXPORT bool cmp_object_as_int(const cmp_object *object, int32_t *value);
QELNK_EXPORT bool cmp_object_as_long(const cmp_object *object, int64_t *value);
QELNK_EXPORT bool cmp_object_as_sinteger(const cmp_object *object, int64_t *value);
QELNK_EXPORT bool cmp_object_as_uchar(const cmp_object *object, uint8_t *value);
QELNK_EXPORT bool cmp_object_as_ushort(const cmp_object *object, uint16_t *value);
QELNK_EXPORT bool cmp_object_as_uint(const cmp_object *object, uint32_t *value);
QELNK_EXPORT bool cmp_object_as_ulong(const cmp_object *object, uint64_t *value);
QELNK_EXPORT bool cmp_object_as_uinteger(const cmp_object *object, uint64_t *value);
QELNK_EXPORT bool cmp_object_as_float(const cmp_object *object, float *value);
QELNK_EXPORT bool cmp_object_as_double(const cmp_object *object, double *value);
QELNK_EXPORT bool cmp_object_as_bool(const cmp_object *object, bool *value);

/// The length that the header announces.
QELNK_EXPORT bool cmp_object_as_str(const cmp_object *object, uint32_t *size);
QELNK_EXPORT bool cmp_object_as_bin(const cmp_object *object, uint32_t *size);
QELNK_EXPORT bool cmp_object_as_array(const cmp_object *object, uint32_t *size);
QELNK_EXPORT bool cmp_object_as_map(const cmp_object *object, uint32_t *size);
QELNK_EXPORT bool cmp_object_as_ext(const cmp_object *object, int8_t *type, uint32_t *size);

QELNK_EXTERN_C_END

#endif
