#include <QELNetworkKit/cmp.h>
#include <encoding/CmpCodec.h>

using namespace qelnk::cmp;

namespace {

/// The context's callbacks as the codec's source and sink. One that the caller left out refuses everything.
struct Callbacks {
  cmp_context *ctx;
  bool read(void *to, size_t count) { return ctx->read != nullptr && ctx->read(ctx, to, count); }
  size_t write(const void *from, size_t count) { return ctx->write != nullptr ? ctx->write(ctx, from, count) : 0; }
};

// ---- Writing ----

template <class T>
bool putNumber(cmp_context *ctx, uint8_t type, T value) {
  Callbacks out{ctx};
  return writeNumber(out, type, value, ctx->error);
}

template <class T>
bool putSize(cmp_context *ctx, uint8_t type, T size) {
  Callbacks out{ctx};
  return writeSize(out, type, size, ctx->error);
}

template <class T>
bool putExt(cmp_context *ctx, uint8_t type, int8_t extType, T size) {
  Callbacks out{ctx};
  return writeExt(out, type, extType, size, ctx->error);
}

bool putFixext(cmp_context *ctx, uint8_t type, int8_t extType) {
  Callbacks out{ctx};
  return writeFixext(out, type, extType, ctx->error);
}

bool putPayload(cmp_context *ctx, const void *data, size_t size) {
  Callbacks out{ctx};
  return writePayload(out, data, size, ctx->error);
}

// ---- Reading ----

/// The next item, when `accepts` takes its type.
template <class Accepts>
bool getObject(cmp_context *ctx, cmp_object &object, Accepts accepts) {
  Callbacks in{ctx};
  if (!readObject(in, object, ctx->error)) return false;
  return accepts(object.type) || fail(ctx->error, CMP_ERROR_INVALID_TYPE);
}

bool getPayload(cmp_context *ctx, void *data, size_t size) {
  Callbacks in{ctx};
  return readPayload(in, data, size, ctx->error);
}

auto exactly(uint8_t type) {
  return [type](uint8_t other) { return other == type; };
}

template <class Accepts, class Member, class T>
bool getValue(cmp_context *ctx, Accepts accepts, Member cmp_value::*member, T *value) {
  cmp_object object;
  if (!getObject(ctx, object, accepts)) return false;
  *value = object.as.*member;
  return true;
}

template <class T>
bool getInteger(cmp_context *ctx, T *value) {
  cmp_object object;
  if (!cmp_read_object(ctx, &object)) return false;
  return integerOf(object, *value) || fail(ctx->error, CMP_ERROR_INVALID_TYPE);
}

template <class Accepts, class T>
bool getExtMarker(cmp_context *ctx, Accepts accepts, int8_t *type, T *size) {
  cmp_object object;
  if (!getObject(ctx, object, accepts)) return false;
  *type = object.as.ext.type;
  *size = static_cast<T>(object.as.ext.size);
  return true;
}

template <class Accepts, class T>
bool getExt(cmp_context *ctx, Accepts accepts, int8_t *type, T *size, void *data) {
  cmp_ext ext;
  if (!getExtMarker(ctx, accepts, &ext.type, &ext.size) || !getPayload(ctx, data, ext.size)) return false;
  *type = ext.type;
  *size = static_cast<T>(ext.size);
  return true;
}

bool getFixextMarker(cmp_context *ctx, uint8_t form, int8_t *type) {
  uint32_t size;  // the form says it
  return getExtMarker(ctx, exactly(form), type, &size);
}

bool getFixext(cmp_context *ctx, uint8_t form, int8_t *type, void *data) {
  uint32_t size;
  return getExt(ctx, exactly(form), type, &size, data);
}

// ---- Asking an object ----

template <class T>
bool valueOf(const cmp_object *object, bool accepted, T cmp_value::*member, T *value) {
  if (accepted) *value = object->as.*member;
  return accepted;
}

}  // namespace

extern "C" {

void cmp_init(cmp_context *ctx, void *buf, cmp_reader read, cmp_writer write) {
  *ctx = {CMP_ERROR_NONE, buf, read, write};
}

uint32_t cmp_version(void) { return 10; }
uint32_t cmp_mp_version(void) { return 5; }

const char *const cmp_error_messages[CMP_ERROR_MAX + 1] = {
    "No Error",
    "Specified string data length is too long (> 0xFFFFFFFF)",
    "Specified binary data length is too long (> 0xFFFFFFFF)",
    "Specified array length is too long (> 0xFFFFFFFF)",
    "Specified map length is too long (> 0xFFFFFFFF)",
    "Input value is too large",
    "Error writing fixed value",
    "Error reading type marker",
    "Error writing type marker",
    "Error reading packed data",
    "Error writing packed data",
    "Error reading ext type",
    "Error writing ext type",
    "Invalid type",
    "Error reading size",
    "Error writing size",
    "Max Error",
};

const char *cmp_strerror(const cmp_context *ctx) {
  const bool hasText = ctx->error > CMP_ERROR_NONE && ctx->error < CMP_ERROR_MAX;
  return hasText ? cmp_error_messages[ctx->error] : "";
}

// ---- Writers that choose the smallest form ----

bool cmp_write_sint(cmp_context *ctx, int64_t value) {
  Callbacks out{ctx};
  return writeSigned(out, value, ctx->error);
}

bool cmp_write_uint(cmp_context *ctx, uint64_t value) {
  Callbacks out{ctx};
  return writeUnsigned(out, value, ctx->error);
}

bool cmp_write_str_marker(cmp_context *ctx, uint32_t size) {
  Callbacks out{ctx};
  return writeStrMarker(out, size, ctx->error);
}

bool cmp_write_str(cmp_context *ctx, const char *data, uint32_t size) {
  Callbacks out{ctx};
  return writeStr(out, data, size, ctx->error);
}

bool cmp_write_bin_marker(cmp_context *ctx, uint32_t size) {
  Callbacks out{ctx};
  return writeBinMarker(out, size, ctx->error);
}

bool cmp_write_bin(cmp_context *ctx, const void *data, uint32_t size) {
  Callbacks out{ctx};
  return writeBin(out, data, size, ctx->error);
}

bool cmp_write_ext_marker(cmp_context *ctx, int8_t type, uint32_t size) {
  Callbacks out{ctx};
  return writeExtMarker(out, type, size, ctx->error);
}

bool cmp_write_ext(cmp_context *ctx, int8_t type, uint32_t size, const void *data) {
  return cmp_write_ext_marker(ctx, type, size) && putPayload(ctx, data, size);
}

bool cmp_write_array(cmp_context *ctx, uint32_t size) {
  Callbacks out{ctx};
  return writeArray(out, size, ctx->error);
}

bool cmp_write_map(cmp_context *ctx, uint32_t size) {
  Callbacks out{ctx};
  return writeMap(out, size, ctx->error);
}

bool cmp_write_object(cmp_context *ctx, const cmp_object *object) {
  Callbacks out{ctx};
  return writeObject(out, *object, ctx->error);
}

// ---- Writers of one exact form ----

bool cmp_write_pfix(cmp_context *ctx, uint8_t value) {
  Callbacks out{ctx};
  return writePositiveFixnum(out, value, ctx->error);
}

bool cmp_write_nfix(cmp_context *ctx, int8_t value) {
  Callbacks out{ctx};
  return writeNegativeFixnum(out, value, ctx->error);
}

bool cmp_write_sfix(cmp_context *ctx, int8_t value) {
  return value >= 0 ? cmp_write_pfix(ctx, static_cast<uint8_t>(value)) : cmp_write_nfix(ctx, value);
}

bool cmp_write_ufix(cmp_context *ctx, uint8_t value) { return cmp_write_pfix(ctx, value); }

bool cmp_write_s8(cmp_context *ctx, int8_t value) { return putNumber(ctx, CMP_TYPE_SINT8, value); }
bool cmp_write_s16(cmp_context *ctx, int16_t value) { return putNumber(ctx, CMP_TYPE_SINT16, value); }
bool cmp_write_s32(cmp_context *ctx, int32_t value) { return putNumber(ctx, CMP_TYPE_SINT32, value); }
bool cmp_write_s64(cmp_context *ctx, int64_t value) { return putNumber(ctx, CMP_TYPE_SINT64, value); }
bool cmp_write_u8(cmp_context *ctx, uint8_t value) { return putNumber(ctx, CMP_TYPE_UINT8, value); }
bool cmp_write_u16(cmp_context *ctx, uint16_t value) { return putNumber(ctx, CMP_TYPE_UINT16, value); }
bool cmp_write_u32(cmp_context *ctx, uint32_t value) { return putNumber(ctx, CMP_TYPE_UINT32, value); }
bool cmp_write_u64(cmp_context *ctx, uint64_t value) { return putNumber(ctx, CMP_TYPE_UINT64, value); }

bool cmp_write_float(cmp_context *ctx, float value) {
  Callbacks out{ctx};
  return writeFloat(out, value, ctx->error);
}

bool cmp_write_double(cmp_context *ctx, double value) {
  Callbacks out{ctx};
  return writeDouble(out, value, ctx->error);
}

bool cmp_write_nil(cmp_context *ctx) {
  Callbacks out{ctx};
  return writeNil(out, ctx->error);
}

bool cmp_write_bool(cmp_context *ctx, bool value) {
  Callbacks out{ctx};
  return writeBool(out, value, ctx->error);
}

bool cmp_write_true(cmp_context *ctx) { return cmp_write_bool(ctx, true); }
bool cmp_write_false(cmp_context *ctx) { return cmp_write_bool(ctx, false); }
bool cmp_write_u8_as_bool(cmp_context *ctx, uint8_t value) { return cmp_write_bool(ctx, value != 0); }

bool cmp_write_fixstr_marker(cmp_context *ctx, uint8_t size) {
  Callbacks out{ctx};
  return writeFixstr(out, size, ctx->error);
}

bool cmp_write_str8_marker(cmp_context *ctx, uint8_t size) { return putSize(ctx, CMP_TYPE_STR8, size); }
bool cmp_write_str16_marker(cmp_context *ctx, uint16_t size) { return putSize(ctx, CMP_TYPE_STR16, size); }
bool cmp_write_str32_marker(cmp_context *ctx, uint32_t size) { return putSize(ctx, CMP_TYPE_STR32, size); }
bool cmp_write_bin8_marker(cmp_context *ctx, uint8_t size) { return putSize(ctx, CMP_TYPE_BIN8, size); }
bool cmp_write_bin16_marker(cmp_context *ctx, uint16_t size) { return putSize(ctx, CMP_TYPE_BIN16, size); }
bool cmp_write_bin32_marker(cmp_context *ctx, uint32_t size) { return putSize(ctx, CMP_TYPE_BIN32, size); }

bool cmp_write_fixarray(cmp_context *ctx, uint8_t size) {
  Callbacks out{ctx};
  return writeFixarray(out, size, ctx->error);
}

bool cmp_write_array16(cmp_context *ctx, uint16_t size) { return putSize(ctx, CMP_TYPE_ARRAY16, size); }
bool cmp_write_array32(cmp_context *ctx, uint32_t size) { return putSize(ctx, CMP_TYPE_ARRAY32, size); }

bool cmp_write_fixmap(cmp_context *ctx, uint8_t size) {
  Callbacks out{ctx};
  return writeFixmap(out, size, ctx->error);
}

bool cmp_write_map16(cmp_context *ctx, uint16_t size) { return putSize(ctx, CMP_TYPE_MAP16, size); }
bool cmp_write_map32(cmp_context *ctx, uint32_t size) { return putSize(ctx, CMP_TYPE_MAP32, size); }

bool cmp_write_fixext1_marker(cmp_context *ctx, int8_t type) { return putFixext(ctx, CMP_TYPE_FIXEXT1, type); }
bool cmp_write_fixext2_marker(cmp_context *ctx, int8_t type) { return putFixext(ctx, CMP_TYPE_FIXEXT2, type); }
bool cmp_write_fixext4_marker(cmp_context *ctx, int8_t type) { return putFixext(ctx, CMP_TYPE_FIXEXT4, type); }
bool cmp_write_fixext8_marker(cmp_context *ctx, int8_t type) { return putFixext(ctx, CMP_TYPE_FIXEXT8, type); }
bool cmp_write_fixext16_marker(cmp_context *ctx, int8_t type) { return putFixext(ctx, CMP_TYPE_FIXEXT16, type); }

bool cmp_write_ext8_marker(cmp_context *ctx, int8_t type, uint8_t size) {
  return putExt(ctx, CMP_TYPE_EXT8, type, size);
}

bool cmp_write_ext16_marker(cmp_context *ctx, int8_t type, uint16_t size) {
  return putExt(ctx, CMP_TYPE_EXT16, type, size);
}

bool cmp_write_ext32_marker(cmp_context *ctx, int8_t type, uint32_t size) {
  return putExt(ctx, CMP_TYPE_EXT32, type, size);
}

bool cmp_write_fixstr(cmp_context *ctx, const char *data, uint8_t size) {
  return cmp_write_fixstr_marker(ctx, size) && putPayload(ctx, data, size);
}

bool cmp_write_str8(cmp_context *ctx, const char *data, uint8_t size) {
  return cmp_write_str8_marker(ctx, size) && putPayload(ctx, data, size);
}

bool cmp_write_str16(cmp_context *ctx, const char *data, uint16_t size) {
  return cmp_write_str16_marker(ctx, size) && putPayload(ctx, data, size);
}

bool cmp_write_str32(cmp_context *ctx, const char *data, uint32_t size) {
  return cmp_write_str32_marker(ctx, size) && putPayload(ctx, data, size);
}

bool cmp_write_bin8(cmp_context *ctx, const void *data, uint8_t size) {
  return cmp_write_bin8_marker(ctx, size) && putPayload(ctx, data, size);
}

bool cmp_write_bin16(cmp_context *ctx, const void *data, uint16_t size) {
  return cmp_write_bin16_marker(ctx, size) && putPayload(ctx, data, size);
}

bool cmp_write_bin32(cmp_context *ctx, const void *data, uint32_t size) {
  return cmp_write_bin32_marker(ctx, size) && putPayload(ctx, data, size);
}

bool cmp_write_fixext1(cmp_context *ctx, int8_t type, const void *data) {
  return cmp_write_fixext1_marker(ctx, type) && putPayload(ctx, data, 1);
}

bool cmp_write_fixext2(cmp_context *ctx, int8_t type, const void *data) {
  return cmp_write_fixext2_marker(ctx, type) && putPayload(ctx, data, 2);
}

bool cmp_write_fixext4(cmp_context *ctx, int8_t type, const void *data) {
  return cmp_write_fixext4_marker(ctx, type) && putPayload(ctx, data, 4);
}

bool cmp_write_fixext8(cmp_context *ctx, int8_t type, const void *data) {
  return cmp_write_fixext8_marker(ctx, type) && putPayload(ctx, data, 8);
}

bool cmp_write_fixext16(cmp_context *ctx, int8_t type, const void *data) {
  return cmp_write_fixext16_marker(ctx, type) && putPayload(ctx, data, 16);
}

bool cmp_write_ext8(cmp_context *ctx, int8_t type, uint8_t size, const void *data) {
  return cmp_write_ext8_marker(ctx, type, size) && putPayload(ctx, data, size);
}

bool cmp_write_ext16(cmp_context *ctx, int8_t type, uint16_t size, const void *data) {
  return cmp_write_ext16_marker(ctx, type, size) && putPayload(ctx, data, size);
}

bool cmp_write_ext32(cmp_context *ctx, int8_t type, uint32_t size, const void *data) {
  return cmp_write_ext32_marker(ctx, type, size) && putPayload(ctx, data, size);
}

// ---- Readers ----

bool cmp_read_object(cmp_context *ctx, cmp_object *object) {
  Callbacks in{ctx};
  return readObject(in, *object, ctx->error);
}

bool cmp_read_char(cmp_context *ctx, int8_t *value) { return getInteger(ctx, value); }
bool cmp_read_short(cmp_context *ctx, int16_t *value) { return getInteger(ctx, value); }
bool cmp_read_int(cmp_context *ctx, int32_t *value) { return getInteger(ctx, value); }
bool cmp_read_long(cmp_context *ctx, int64_t *value) { return getInteger(ctx, value); }
bool cmp_read_sinteger(cmp_context *ctx, int64_t *value) { return getInteger(ctx, value); }
bool cmp_read_uchar(cmp_context *ctx, uint8_t *value) { return getInteger(ctx, value); }
bool cmp_read_ushort(cmp_context *ctx, uint16_t *value) { return getInteger(ctx, value); }
bool cmp_read_uint(cmp_context *ctx, uint32_t *value) { return getInteger(ctx, value); }
bool cmp_read_ulong(cmp_context *ctx, uint64_t *value) { return getInteger(ctx, value); }
bool cmp_read_uinteger(cmp_context *ctx, uint64_t *value) { return getInteger(ctx, value); }

bool cmp_read_str_size(cmp_context *ctx, uint32_t *size) { return getValue(ctx, isStr, &cmp_value::size, size); }
bool cmp_read_bin_size(cmp_context *ctx, uint32_t *size) { return getValue(ctx, isBin, &cmp_value::size, size); }
bool cmp_read_array(cmp_context *ctx, uint32_t *size) { return getValue(ctx, isArray, &cmp_value::size, size); }
bool cmp_read_map(cmp_context *ctx, uint32_t *size) { return getValue(ctx, isMap, &cmp_value::size, size); }

bool cmp_read_str(cmp_context *ctx, char *data, uint32_t *size) {
  uint32_t length;
  if (!cmp_read_str_size(ctx, &length)) return false;
  if (length >= *size) {
    *size = length;
    return fail(ctx->error, CMP_ERROR_STR_LENGTH);
  }
  if (!getPayload(ctx, data, length)) return false;
  data[length] = 0;
  *size = length;
  return true;
}

bool cmp_read_bin(cmp_context *ctx, void *data, uint32_t *size) {
  uint32_t length;
  if (!cmp_read_bin_size(ctx, &length)) return false;
  if (length > *size) return fail(ctx->error, CMP_ERROR_BIN_LENGTH);
  if (!getPayload(ctx, data, length)) return false;
  *size = length;
  return true;
}

bool cmp_read_pfix(cmp_context *ctx, uint8_t *value) {
  return getValue(ctx, exactly(CMP_TYPE_POSITIVE_FIXNUM), &cmp_value::u8, value);
}

bool cmp_read_nfix(cmp_context *ctx, int8_t *value) {
  return getValue(ctx, exactly(CMP_TYPE_NEGATIVE_FIXNUM), &cmp_value::s8, value);
}

bool cmp_read_sfix(cmp_context *ctx, int8_t *value) {
  const auto isFixnum = [](uint8_t type) {
    return type == CMP_TYPE_POSITIVE_FIXNUM || type == CMP_TYPE_NEGATIVE_FIXNUM;
  };
  cmp_object object;
  return getObject(ctx, object, isFixnum) && integerOf(object, *value);
}

bool cmp_read_ufix(cmp_context *ctx, uint8_t *value) { return cmp_read_pfix(ctx, value); }

bool cmp_read_s8(cmp_context *ctx, int8_t *value) {
  return getValue(ctx, exactly(CMP_TYPE_SINT8), &cmp_value::s8, value);
}

bool cmp_read_s16(cmp_context *ctx, int16_t *value) {
  return getValue(ctx, exactly(CMP_TYPE_SINT16), &cmp_value::s16, value);
}

bool cmp_read_s32(cmp_context *ctx, int32_t *value) {
  return getValue(ctx, exactly(CMP_TYPE_SINT32), &cmp_value::s32, value);
}

bool cmp_read_s64(cmp_context *ctx, int64_t *value) {
  return getValue(ctx, exactly(CMP_TYPE_SINT64), &cmp_value::s64, value);
}

bool cmp_read_u8(cmp_context *ctx, uint8_t *value) {
  return getValue(ctx, exactly(CMP_TYPE_UINT8), &cmp_value::u8, value);
}

bool cmp_read_u16(cmp_context *ctx, uint16_t *value) {
  return getValue(ctx, exactly(CMP_TYPE_UINT16), &cmp_value::u16, value);
}

bool cmp_read_u32(cmp_context *ctx, uint32_t *value) {
  return getValue(ctx, exactly(CMP_TYPE_UINT32), &cmp_value::u32, value);
}

bool cmp_read_u64(cmp_context *ctx, uint64_t *value) {
  return getValue(ctx, exactly(CMP_TYPE_UINT64), &cmp_value::u64, value);
}

bool cmp_read_float(cmp_context *ctx, float *value) {
  return getValue(ctx, exactly(CMP_TYPE_FLOAT), &cmp_value::flt, value);
}

bool cmp_read_double(cmp_context *ctx, double *value) {
  return getValue(ctx, exactly(CMP_TYPE_DOUBLE), &cmp_value::dbl, value);
}

bool cmp_read_nil(cmp_context *ctx) {
  cmp_object object;
  return getObject(ctx, object, exactly(CMP_TYPE_NIL));
}

bool cmp_read_bool(cmp_context *ctx, bool *value) {
  return getValue(ctx, exactly(CMP_TYPE_BOOLEAN), &cmp_value::boolean, value);
}

bool cmp_read_bool_as_u8(cmp_context *ctx, uint8_t *value) {
  return getValue(ctx, exactly(CMP_TYPE_BOOLEAN), &cmp_value::boolean, value);
}

bool cmp_read_fixext1_marker(cmp_context *ctx, int8_t *type) { return getFixextMarker(ctx, CMP_TYPE_FIXEXT1, type); }
bool cmp_read_fixext2_marker(cmp_context *ctx, int8_t *type) { return getFixextMarker(ctx, CMP_TYPE_FIXEXT2, type); }
bool cmp_read_fixext4_marker(cmp_context *ctx, int8_t *type) { return getFixextMarker(ctx, CMP_TYPE_FIXEXT4, type); }
bool cmp_read_fixext8_marker(cmp_context *ctx, int8_t *type) { return getFixextMarker(ctx, CMP_TYPE_FIXEXT8, type); }
bool cmp_read_fixext16_marker(cmp_context *ctx, int8_t *type) { return getFixextMarker(ctx, CMP_TYPE_FIXEXT16, type); }

bool cmp_read_ext8_marker(cmp_context *ctx, int8_t *type, uint8_t *size) {
  return getExtMarker(ctx, exactly(CMP_TYPE_EXT8), type, size);
}

bool cmp_read_ext16_marker(cmp_context *ctx, int8_t *type, uint16_t *size) {
  return getExtMarker(ctx, exactly(CMP_TYPE_EXT16), type, size);
}

bool cmp_read_ext32_marker(cmp_context *ctx, int8_t *type, uint32_t *size) {
  return getExtMarker(ctx, exactly(CMP_TYPE_EXT32), type, size);
}

bool cmp_read_ext_marker(cmp_context *ctx, int8_t *type, uint32_t *size) {
  return getExtMarker(ctx, isExt, type, size);
}

bool cmp_read_fixext1(cmp_context *ctx, int8_t *type, void *data) {
  return getFixext(ctx, CMP_TYPE_FIXEXT1, type, data);
}

bool cmp_read_fixext2(cmp_context *ctx, int8_t *type, void *data) {
  return getFixext(ctx, CMP_TYPE_FIXEXT2, type, data);
}

bool cmp_read_fixext4(cmp_context *ctx, int8_t *type, void *data) {
  return getFixext(ctx, CMP_TYPE_FIXEXT4, type, data);
}

bool cmp_read_fixext8(cmp_context *ctx, int8_t *type, void *data) {
  return getFixext(ctx, CMP_TYPE_FIXEXT8, type, data);
}

bool cmp_read_fixext16(cmp_context *ctx, int8_t *type, void *data) {
  return getFixext(ctx, CMP_TYPE_FIXEXT16, type, data);
}

bool cmp_read_ext8(cmp_context *ctx, int8_t *type, uint8_t *size, void *data) {
  return getExt(ctx, exactly(CMP_TYPE_EXT8), type, size, data);
}

bool cmp_read_ext16(cmp_context *ctx, int8_t *type, uint16_t *size, void *data) {
  return getExt(ctx, exactly(CMP_TYPE_EXT16), type, size, data);
}

bool cmp_read_ext32(cmp_context *ctx, int8_t *type, uint32_t *size, void *data) {
  return getExt(ctx, exactly(CMP_TYPE_EXT32), type, size, data);
}

bool cmp_read_ext(cmp_context *ctx, int8_t *type, uint32_t *size, void *data) {
  return getExt(ctx, isExt, type, size, data);
}

// ---- Questions to an object ----

bool cmp_object_is_char(const cmp_object *object) { return isInteger<int8_t>(object->type); }
bool cmp_object_is_short(const cmp_object *object) { return isInteger<int16_t>(object->type); }
bool cmp_object_is_int(const cmp_object *object) { return isInteger<int32_t>(object->type); }
bool cmp_object_is_long(const cmp_object *object) { return isInteger<int64_t>(object->type); }
bool cmp_object_is_sinteger(const cmp_object *object) { return isInteger<int64_t>(object->type); }
bool cmp_object_is_uchar(const cmp_object *object) { return isInteger<uint8_t>(object->type); }
bool cmp_object_is_ushort(const cmp_object *object) { return isInteger<uint16_t>(object->type); }
bool cmp_object_is_uint(const cmp_object *object) { return isInteger<uint32_t>(object->type); }
bool cmp_object_is_ulong(const cmp_object *object) { return isInteger<uint64_t>(object->type); }
bool cmp_object_is_uinteger(const cmp_object *object) { return isInteger<uint64_t>(object->type); }
bool cmp_object_is_float(const cmp_object *object) { return object->type == CMP_TYPE_FLOAT; }
bool cmp_object_is_double(const cmp_object *object) { return object->type == CMP_TYPE_DOUBLE; }
bool cmp_object_is_nil(const cmp_object *object) { return object->type == CMP_TYPE_NIL; }
bool cmp_object_is_bool(const cmp_object *object) { return object->type == CMP_TYPE_BOOLEAN; }
bool cmp_object_is_str(const cmp_object *object) { return isStr(object->type); }
bool cmp_object_is_bin(const cmp_object *object) { return isBin(object->type); }
bool cmp_object_is_array(const cmp_object *object) { return isArray(object->type); }
bool cmp_object_is_map(const cmp_object *object) { return isMap(object->type); }
bool cmp_object_is_ext(const cmp_object *object) { return isExt(object->type); }

bool cmp_object_as_char(const cmp_object *object, int8_t *value) { return integerOf(*object, *value); }
bool cmp_object_as_short(const cmp_object *object, int16_t *value) { return integerOf(*object, *value); }
bool cmp_object_as_int(const cmp_object *object, int32_t *value) { return integerOf(*object, *value); }
bool cmp_object_as_long(const cmp_object *object, int64_t *value) { return integerOf(*object, *value); }
bool cmp_object_as_sinteger(const cmp_object *object, int64_t *value) { return integerOf(*object, *value); }
bool cmp_object_as_uchar(const cmp_object *object, uint8_t *value) { return integerOf(*object, *value); }
bool cmp_object_as_ushort(const cmp_object *object, uint16_t *value) { return integerOf(*object, *value); }
bool cmp_object_as_uint(const cmp_object *object, uint32_t *value) { return integerOf(*object, *value); }
bool cmp_object_as_ulong(const cmp_object *object, uint64_t *value) { return integerOf(*object, *value); }
bool cmp_object_as_uinteger(const cmp_object *object, uint64_t *value) { return integerOf(*object, *value); }

bool cmp_object_as_float(const cmp_object *object, float *value) {
  return valueOf(object, cmp_object_is_float(object), &cmp_value::flt, value);
}

bool cmp_object_as_double(const cmp_object *object, double *value) {
  return valueOf(object, cmp_object_is_double(object), &cmp_value::dbl, value);
}

bool cmp_object_as_bool(const cmp_object *object, bool *value) {
  return valueOf(object, cmp_object_is_bool(object), &cmp_value::boolean, value);
}

bool cmp_object_as_str(const cmp_object *object, uint32_t *size) {
  return valueOf(object, cmp_object_is_str(object), &cmp_value::size, size);
}

bool cmp_object_as_bin(const cmp_object *object, uint32_t *size) {
  return valueOf(object, cmp_object_is_bin(object), &cmp_value::size, size);
}

bool cmp_object_as_array(const cmp_object *object, uint32_t *size) {
  return valueOf(object, cmp_object_is_array(object), &cmp_value::size, size);
}

bool cmp_object_as_map(const cmp_object *object, uint32_t *size) {
  return valueOf(object, cmp_object_is_map(object), &cmp_value::size, size);
}

bool cmp_object_as_ext(const cmp_object *object, int8_t *type, uint32_t *size) {
  if (!cmp_object_is_ext(object)) return false;
  *type = object->as.ext.type;
  *size = object->as.ext.size;
  return true;
}

}  // extern "C"
