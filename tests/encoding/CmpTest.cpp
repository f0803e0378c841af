#include <QELNetworkKit/cmp.h>
#include <encoding/CmpCodec.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <functional>
#include <iterator>
#include <numeric>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

extern "C" int cmpUsedFromC(void);

namespace {

using Bytes = std::vector<uint8_t>;

/// Bytes as hexadecimal text in which each group is one call of a callback: "cd 0100".
std::vector<Bytes> groupsOf(const std::string &text) {
  std::vector<Bytes> groups;
  std::istringstream in(text);
  for (std::string group; in >> group;) {
    Bytes &bytes = groups.emplace_back();
    for (size_t i = 0; i < group.size(); i += 2) bytes.push_back(std::stoi(group.substr(i, 2), nullptr, 16));
  }
  return groups;
}

Bytes bytesOf(const std::vector<Bytes> &groups) {
  Bytes all;
  for (const Bytes &group : groups) all.insert(all.end(), group.begin(), group.end());
  return all;
}

std::vector<int> numbersOf(const std::string &text) {
  std::istringstream in(text);
  return {std::istream_iterator<int>(in), {}};
}

/// A context on memory that keeps its calls apart and can refuse one of them.
struct Stream {
  cmp_context ctx;
  std::vector<Bytes> calls;
  Bytes input;
  size_t position = 0;
  size_t refused = SIZE_MAX;  // the number of the call
  size_t answer = 0;          // what a refused write returns

  explicit Stream(Bytes bytes = {}) : input(std::move(bytes)) { cmp_init(&ctx, this, read, write); }
  explicit Stream(const char *groups) : Stream(bytesOf(groupsOf(groups))) {}
  Stream(const Stream &) = delete;

  Bytes written() const { return bytesOf(calls); }

  static bool read(cmp_context *ctx, void *data, size_t limit) {
    auto *self = static_cast<Stream *>(ctx->buf);
    if (self->calls.size() == self->refused || limit > self->input.size() - self->position) return false;
    if (limit != 0) std::memcpy(data, self->input.data() + self->position, limit);
    const auto from = self->input.begin() + static_cast<ptrdiff_t>(self->position);
    self->calls.emplace_back(from, from + static_cast<ptrdiff_t>(limit));
    self->position += limit;
    return true;
  }

  static size_t write(cmp_context *ctx, const void *data, size_t count) {
    auto *self = static_cast<Stream *>(ctx->buf);
    const bool refuses = self->calls.size() == self->refused;
    const auto *from = static_cast<const uint8_t *>(data);
    self->calls.emplace_back(from, from + count);
    return refuses ? self->answer : count;
  }
};

// ---- Writers ----

struct Writer {
  const char *name;
  bool (*write)(cmp_context *);
  const char *bytes;
  const char *errors;  // when the sink refuses that call
};

#define WRITER(call, wire, codes)                                                                           \
  {                                                                                                         \
    .name = #call, .write = [](cmp_context *c) { return cmp_write_##call; }, .bytes = wire, .errors = codes \
  }

const char *const sixteen = "0123456789abcdef";

const Writer writers[] = {
    WRITER(pfix(c, 127), "7f", "6"),
    WRITER(nfix(c, -32), "e0", "6"),
    WRITER(sfix(c, 0), "00", "6"),
    WRITER(sfix(c, -1), "ff", "6"),
    WRITER(ufix(c, 1), "01", "6"),
    WRITER(s8(c, -128), "d0 80", "8 10"),
    WRITER(s16(c, -2), "d1 fffe", "8 10"),
    WRITER(s32(c, 0x01020304), "d2 01020304", "8 10"),
    WRITER(s64(c, INT64_MIN), "d3 8000000000000000", "8 10"),
    WRITER(u8(c, 1), "cc 01", "8 10"),
    WRITER(u16(c, 0x0102), "cd 0102", "8 10"),
    WRITER(u32(c, 0x01020304), "ce 01020304", "8 10"),
    WRITER(u64(c, 0x0102030405060708), "cf 0102030405060708", "8 10"),
    WRITER(float(c, -1.5f), "ca bfc00000", "8 10"),
    WRITER(double(c, 0.1), "cb 3fb999999999999a", "8 10"),
    WRITER(nil(c), "c0", "8"),
    WRITER(true(c), "c3", "8"),
    WRITER(false(c), "c2", "8"),
    WRITER(bool(c, true), "c3", "8"),
    WRITER(bool(c, false), "c2", "8"),
    WRITER(u8_as_bool(c, 2), "c3", "8"),
    WRITER(u8_as_bool(c, 0), "c2", "8"),
    WRITER(fixstr_marker(c, 31), "bf", "8"),
    WRITER(str8_marker(c, 1), "d9 01", "8 15"),
    WRITER(str16_marker(c, 1), "da 0001", "8 15"),
    WRITER(str32_marker(c, 1), "db 00000001", "8 15"),
    WRITER(bin8_marker(c, 1), "c4 01", "8 15"),
    WRITER(bin16_marker(c, 1), "c5 0001", "8 15"),
    WRITER(bin32_marker(c, 1), "c6 00000001", "8 15"),
    WRITER(fixarray(c, 15), "9f", "8"),
    WRITER(array16(c, 258), "dc 0102", "8 15"),
    WRITER(array32(c, 1), "dd 00000001", "8 15"),
    WRITER(fixmap(c, 15), "8f", "8"),
    WRITER(map16(c, 1), "de 0001", "8 15"),
    WRITER(map32(c, 1), "df 00000001", "8 15"),
    WRITER(fixext1_marker(c, -1), "d4 ff", "8 12"),
    WRITER(fixext2_marker(c, 2), "d5 02", "8 12"),
    WRITER(fixext4_marker(c, 3), "d6 03", "8 12"),
    WRITER(fixext8_marker(c, 4), "d7 04", "8 12"),
    WRITER(fixext16_marker(c, 5), "d8 05", "8 12"),
    WRITER(ext8_marker(c, 6, 1), "c7 01 06", "8 15 12"),
    WRITER(ext16_marker(c, 7, 1), "c8 0001 07", "8 15 12"),
    WRITER(ext32_marker(c, -128, 1), "c9 00000001 80", "8 15 12"),
    WRITER(fixstr(c, "abc", 3), "a3 616263", "8 10"),
    WRITER(str8(c, "abc", 3), "d9 03 616263", "8 15 10"),
    WRITER(str16(c, "abc", 3), "da 0003 616263", "8 15 10"),
    WRITER(str32(c, "abc", 3), "db 00000003 616263", "8 15 10"),
    WRITER(bin8(c, "abc", 3), "c4 03 616263", "8 15 10"),
    WRITER(bin16(c, "abc", 3), "c5 0003 616263", "8 15 10"),
    WRITER(bin32(c, "abc", 3), "c6 00000003 616263", "8 15 10"),
    WRITER(fixext1(c, 1, sixteen), "d4 01 30", "8 12 10"),
    WRITER(fixext2(c, 1, sixteen), "d5 01 3031", "8 12 10"),
    WRITER(fixext4(c, 1, sixteen), "d6 01 30313233", "8 12 10"),
    WRITER(fixext8(c, 1, sixteen), "d7 01 3031323334353637", "8 12 10"),
    WRITER(fixext16(c, 1, sixteen), "d8 01 30313233343536373839616263646566", "8 12 10"),
    WRITER(ext8(c, 1, 3, "abc"), "c7 03 01 616263", "8 15 12 10"),
    WRITER(ext16(c, 1, 3, "abc"), "c8 0003 01 616263", "8 15 12 10"),
    WRITER(ext32(c, 1, 3, "abc"), "c9 00000003 01 616263", "8 15 12 10"),
    // Smallest forms.
    WRITER(uint(c, 0), "00", "6"),
    WRITER(uint(c, 127), "7f", "6"),
    WRITER(uint(c, 128), "cc 80", "8 10"),
    WRITER(uint(c, 255), "cc ff", "8 10"),
    WRITER(uint(c, 256), "cd 0100", "8 10"),
    WRITER(uint(c, 65535), "cd ffff", "8 10"),
    WRITER(uint(c, 65536), "ce 00010000", "8 10"),
    WRITER(uint(c, 4294967295), "ce ffffffff", "8 10"),
    WRITER(uint(c, 4294967296), "cf 0000000100000000", "8 10"),
    WRITER(uint(c, UINT64_MAX), "cf ffffffffffffffff", "8 10"),
    WRITER(sint(c, 0), "00", "6"),
    WRITER(sint(c, 127), "7f", "6"),
    WRITER(sint(c, 128), "cc 80", "8 10"),
    WRITER(sint(c, INT64_MAX), "cf 7fffffffffffffff", "8 10"),
    WRITER(sint(c, -1), "ff", "6"),
    WRITER(sint(c, -32), "e0", "6"),
    WRITER(sint(c, -33), "d0 df", "8 10"),
    WRITER(sint(c, -128), "d0 80", "8 10"),
    WRITER(sint(c, -129), "d1 ff7f", "8 10"),
    WRITER(sint(c, -32768), "d1 8000", "8 10"),
    WRITER(sint(c, -32769), "d2 ffff7fff", "8 10"),
    WRITER(sint(c, INT32_MIN), "d2 80000000", "8 10"),
    WRITER(sint(c, -2147483649), "d3 ffffffff7fffffff", "8 10"),
    WRITER(sint(c, INT64_MIN), "d3 8000000000000000", "8 10"),
    WRITER(str_marker(c, 0), "a0", "8"),
    WRITER(str_marker(c, 31), "bf", "8"),
    WRITER(str_marker(c, 32), "d9 20", "8 15"),
    WRITER(str_marker(c, 255), "d9 ff", "8 15"),
    WRITER(str_marker(c, 256), "da 0100", "8 15"),
    WRITER(str_marker(c, 65535), "da ffff", "8 15"),
    WRITER(str_marker(c, 65536), "db 00010000", "8 15"),
    WRITER(str_marker(c, UINT32_MAX), "db ffffffff", "8 15"),
    WRITER(bin_marker(c, 0), "c4 00", "8 15"),
    WRITER(bin_marker(c, 255), "c4 ff", "8 15"),
    WRITER(bin_marker(c, 256), "c5 0100", "8 15"),
    WRITER(bin_marker(c, 65535), "c5 ffff", "8 15"),
    WRITER(bin_marker(c, 65536), "c6 00010000", "8 15"),
    WRITER(bin_marker(c, UINT32_MAX), "c6 ffffffff", "8 15"),
    WRITER(array(c, 0), "90", "8"),
    WRITER(array(c, 15), "9f", "8"),
    WRITER(array(c, 16), "dc 0010", "8 15"),
    WRITER(array(c, 65535), "dc ffff", "8 15"),
    WRITER(array(c, 65536), "dd 00010000", "8 15"),
    WRITER(array(c, UINT32_MAX), "dd ffffffff", "8 15"),
    WRITER(map(c, 0), "80", "8"),
    WRITER(map(c, 15), "8f", "8"),
    WRITER(map(c, 16), "de 0010", "8 15"),
    WRITER(map(c, 65535), "de ffff", "8 15"),
    WRITER(map(c, 65536), "df 00010000", "8 15"),
    WRITER(map(c, UINT32_MAX), "df ffffffff", "8 15"),
    WRITER(ext_marker(c, 9, 0), "c7 00 09", "8 15 12"),
    WRITER(ext_marker(c, 9, 1), "d4 09", "8 12"),
    WRITER(ext_marker(c, 9, 2), "d5 09", "8 12"),
    WRITER(ext_marker(c, 9, 3), "c7 03 09", "8 15 12"),
    WRITER(ext_marker(c, 9, 4), "d6 09", "8 12"),
    WRITER(ext_marker(c, 9, 8), "d7 09", "8 12"),
    WRITER(ext_marker(c, 9, 16), "d8 09", "8 12"),
    WRITER(ext_marker(c, 9, 17), "c7 11 09", "8 15 12"),
    WRITER(ext_marker(c, 9, 32), "c7 20 09", "8 15 12"),
    WRITER(ext_marker(c, 9, 255), "c7 ff 09", "8 15 12"),
    WRITER(ext_marker(c, 9, 256), "c8 0100 09", "8 15 12"),
    WRITER(ext_marker(c, 9, 65535), "c8 ffff 09", "8 15 12"),
    WRITER(ext_marker(c, 9, 65536), "c9 00010000 09", "8 15 12"),
    WRITER(str(c, "abc", 3), "a3 616263", "8 10"),
    WRITER(bin(c, "abc", 3), "c4 03 616263", "8 15 10"),
    WRITER(ext(c, 9, 3, "abc"), "c7 03 09 616263", "8 15 12 10"),
    WRITER(ext(c, 9, 2, "abc"), "d5 09 6162", "8 12 10"),
    // Nothing behind the header: no call that could only be answered with 0.
    WRITER(str(c, nullptr, 0), "a0", "8"),
    WRITER(str32(c, nullptr, 0), "db 00000000", "8 15"),
    WRITER(bin(c, nullptr, 0), "c4 00", "8 15"),
    WRITER(ext(c, 9, 0, nullptr), "c7 00 09", "8 15 12"),
};

TEST(CmpWriters, WriteTheMarkerAndEachFieldInOneCall) {
  for (const Writer &writer : writers) {
    SCOPED_TRACE(writer.name);
    Stream stream;
    EXPECT_TRUE(writer.write(&stream.ctx));
    EXPECT_EQ(stream.calls, groupsOf(writer.bytes));
    EXPECT_EQ(stream.ctx.error, CMP_ERROR_NONE);
  }
}

TEST(CmpWriters, StopAtTheCallThatIsRefused) {
  for (const Writer &writer : writers) {
    SCOPED_TRACE(writer.name);
    const std::vector<int> errors = numbersOf(writer.errors);
    ASSERT_EQ(groupsOf(writer.bytes).size(), errors.size());
    for (size_t call = 0; call < errors.size(); ++call) {
      Stream stream;
      stream.refused = call;
      EXPECT_FALSE(writer.write(&stream.ctx));
      EXPECT_EQ(stream.ctx.error, errors[call]) << "call " << call;
      EXPECT_EQ(stream.calls.size(), call + 1);
    }
  }
}

TEST(CmpWriters, WantExactlyOneByteOfTheMarkerAndAnythingOfTheRest) {
  for (const Writer &writer : writers) {
    SCOPED_TRACE(writer.name);
    const std::vector<int> errors = numbersOf(writer.errors);
    for (size_t call = 0; call < errors.size(); ++call) {
      Stream stream;
      stream.refused = call;
      stream.answer = call == 0 ? 2 : 99;
      EXPECT_EQ(writer.write(&stream.ctx), call != 0);
      EXPECT_EQ(stream.ctx.error, call == 0 ? errors[0] : CMP_ERROR_NONE);
    }
  }
}

// ---- Readers ----

/// One item of each type, its payload included, with small values, so that only the type decides who takes it.
struct Sample {
  int type;
  const char *bytes;   // one group for each call, the payload last
  const char *errors;  // when the source refuses that call
  const char *value;   // as the readers below print it
};

const Sample samples[] = {
    {CMP_TYPE_POSITIVE_FIXNUM, "05", "7", "5"},
    {CMP_TYPE_FIXMAP, "83", "7", "3"},
    {CMP_TYPE_FIXARRAY, "93", "7", "3"},
    {CMP_TYPE_FIXSTR, "a3 616263", "7 9", "3"},
    {CMP_TYPE_NIL, "c0", "7", "nil"},
    {CMP_TYPE_BOOLEAN, "c3", "7", "1"},
    {CMP_TYPE_BIN8, "c4 03 616263", "7 14 9", "3"},
    {CMP_TYPE_BIN16, "c5 0003 616263", "7 14 9", "3"},
    {CMP_TYPE_BIN32, "c6 00000003 616263", "7 14 9", "3"},
    {CMP_TYPE_EXT8, "c7 03 f9 616263", "7 14 11 9", "-7/3"},
    {CMP_TYPE_EXT16, "c8 0003 f9 616263", "7 14 11 9", "-7/3"},
    {CMP_TYPE_EXT32, "c9 00000003 f9 616263", "7 14 11 9", "-7/3"},
    {CMP_TYPE_FLOAT, "ca bfc00000", "7 9", "-1.5"},
    {CMP_TYPE_DOUBLE, "cb bff8000000000000", "7 9", "-1.5"},
    {CMP_TYPE_UINT8, "cc 05", "7 9", "5"},
    {CMP_TYPE_UINT16, "cd 0005", "7 9", "5"},
    {CMP_TYPE_UINT32, "ce 00000005", "7 9", "5"},
    {CMP_TYPE_UINT64, "cf 0000000000000005", "7 9", "5"},
    {CMP_TYPE_SINT8, "d0 05", "7 9", "5"},
    {CMP_TYPE_SINT16, "d1 0005", "7 9", "5"},
    {CMP_TYPE_SINT32, "d2 00000005", "7 9", "5"},
    {CMP_TYPE_SINT64, "d3 0000000000000005", "7 9", "5"},
    {CMP_TYPE_FIXEXT1, "d4 f9 61", "7 11 9", "-7/1"},
    {CMP_TYPE_FIXEXT2, "d5 f9 6162", "7 11 9", "-7/2"},
    {CMP_TYPE_FIXEXT4, "d6 f9 61626364", "7 11 9", "-7/4"},
    {CMP_TYPE_FIXEXT8, "d7 f9 6162636465666768", "7 11 9", "-7/8"},
    {CMP_TYPE_FIXEXT16, "d8 f9 6162636465666768696a6b6c6d6e6f70", "7 11 9", "-7/16"},
    {CMP_TYPE_STR8, "d9 03 616263", "7 9 9", "3"},
    {CMP_TYPE_STR16, "da 0003 616263", "7 9 9", "3"},
    {CMP_TYPE_STR32, "db 00000003 616263", "7 9 9", "3"},
    {CMP_TYPE_ARRAY16, "dc 0003", "7 9", "3"},
    {CMP_TYPE_ARRAY32, "dd 00000003", "7 9", "3"},
    {CMP_TYPE_MAP16, "de 0003", "7 9", "3"},
    {CMP_TYPE_MAP32, "df 00000003", "7 9", "3"},
    {CMP_TYPE_NEGATIVE_FIXNUM, "ff", "7", "-1"},
};

/// What a reader or a query answers, printed; none when it refuses.
using Answer = std::optional<std::string>;
using Read = std::function<Answer(cmp_context *)>;
using Query = std::function<Answer(const cmp_object *)>;

template <class... T>
std::string print(const T &...parts) {
  std::ostringstream out;
  const char *separator = "";
  ((out << separator << +parts, separator = "/"), ...);
  return out.str();
}

/// A function with results of these types, after a context or an object.
template <class From, class... T>
std::function<Answer(From)> printing(bool (*function)(From, T *...)) {
  return [function](From from) {
    std::tuple<T...> results;
    const bool done = std::apply([&](T &...result) { return function(from, &result...); }, results);
    return done ? Answer(std::apply(print<T...>, results)) : std::nullopt;
  };
}

std::string asText(const void *data, size_t size) { return {static_cast<const char *>(data), size}; }

/// The ext readers with payload.
template <class Size>
Read printing(bool (*function)(cmp_context *, int8_t *, Size *, void *)) {
  return [function](cmp_context *ctx) -> Answer {
    int8_t type;
    Size size;
    char data[256];
    if (!function(ctx, &type, &size, data)) return std::nullopt;
    return print(type, size) + "/" + asText(data, size);
  };
}

template <size_t size>
Read printingFixext(bool (*function)(cmp_context *, int8_t *, void *)) {
  return [function](cmp_context *ctx) -> Answer {
    int8_t type;
    char data[size];
    if (!function(ctx, &type, data)) return std::nullopt;
    return print(type, size) + "/" + asText(data, size);
  };
}

template <size_t size>
Read printingFixextMarker(bool (*function)(cmp_context *, int8_t *)) {
  return [function](cmp_context *ctx) -> Answer {
    int8_t type;
    return function(ctx, &type) ? Answer(print(type, size)) : std::nullopt;
  };
}

/// cmp_read_str and cmp_read_bin.
template <class T>
Read printingData(bool (*function)(cmp_context *, T *, uint32_t *)) {
  return [function](cmp_context *ctx) -> Answer {
    char data[16];
    uint32_t size = sizeof data;
    if (!function(ctx, data, &size)) return std::nullopt;
    return print(size) + "/" + asText(data, size);
  };
}

/// A question without a result.
template <class From>
std::function<Answer(From)> asking(bool (*function)(From)) {
  return [function](From from) { return function(from) ? Answer("nil") : std::nullopt; };
}

using Types = std::set<int>;

Types operator+(Types a, const Types &b) {
  a.insert(b.begin(), b.end());
  return a;
}

const Types pfix = {CMP_TYPE_POSITIVE_FIXNUM}, nfix = {CMP_TYPE_NEGATIVE_FIXNUM};
const Types s8 = {CMP_TYPE_SINT8}, s16 = {CMP_TYPE_SINT16}, s32 = {CMP_TYPE_SINT32}, s64 = {CMP_TYPE_SINT64};
const Types u8 = {CMP_TYPE_UINT8}, u16 = {CMP_TYPE_UINT16}, u32 = {CMP_TYPE_UINT32}, u64 = {CMP_TYPE_UINT64};
const Types uchar = pfix + u8, ushort = uchar + u16, uint = ushort + u32, ulong = uint + u64;
const Types schar = nfix + s8, sshort = schar + s16, sint = sshort + s32, slong = sint + s64;
const Types flt = {CMP_TYPE_FLOAT}, dbl = {CMP_TYPE_DOUBLE}, nil = {CMP_TYPE_NIL}, boolean = {CMP_TYPE_BOOLEAN};
const Types str = {CMP_TYPE_FIXSTR, CMP_TYPE_STR8, CMP_TYPE_STR16, CMP_TYPE_STR32};
const Types bin = {CMP_TYPE_BIN8, CMP_TYPE_BIN16, CMP_TYPE_BIN32};
const Types array = {CMP_TYPE_FIXARRAY, CMP_TYPE_ARRAY16, CMP_TYPE_ARRAY32};
const Types map = {CMP_TYPE_FIXMAP, CMP_TYPE_MAP16, CMP_TYPE_MAP32};
const Types ext = {CMP_TYPE_EXT8,    CMP_TYPE_EXT16,   CMP_TYPE_EXT32,   CMP_TYPE_FIXEXT1,
                   CMP_TYPE_FIXEXT2, CMP_TYPE_FIXEXT4, CMP_TYPE_FIXEXT8, CMP_TYPE_FIXEXT16};
const Types withPayload = str + bin + ext;

struct Reader {
  std::string name;
  Read read;
  Types accepted;
  bool takesPayload = false;
};

#define READER(name, accepted) \
  Reader { #name, printing(&cmp_read_##name), accepted }

const std::vector<Reader> readers = {
    READER(char, schar + uchar),
    READER(short, sshort + ushort),
    READER(int, sint + uint),
    READER(long, slong + ulong),
    READER(sinteger, slong + ulong),
    READER(uchar, uchar),
    READER(ushort, ushort),
    READER(uint, uint),
    READER(ulong, ulong),
    READER(uinteger, ulong),
    READER(pfix, pfix),
    READER(nfix, nfix),
    READER(sfix, pfix + nfix),
    READER(ufix, pfix),
    READER(s8, s8),
    READER(s16, s16),
    READER(s32, s32),
    READER(s64, s64),
    READER(u8, u8),
    READER(u16, u16),
    READER(u32, u32),
    READER(u64, u64),
    READER(float, flt),
    READER(double, dbl),
    READER(bool, boolean),
    READER(bool_as_u8, boolean),
    READER(str_size, str),
    READER(bin_size, bin),
    READER(array, array),
    READER(map, map),
    READER(ext8_marker, Types{CMP_TYPE_EXT8}),
    READER(ext16_marker, Types{CMP_TYPE_EXT16}),
    READER(ext32_marker, Types{CMP_TYPE_EXT32}),
    READER(ext_marker, ext),
    {"nil", asking(&cmp_read_nil), nil},
    {"fixext1_marker", printingFixextMarker<1>(&cmp_read_fixext1_marker), {CMP_TYPE_FIXEXT1}},
    {"fixext2_marker", printingFixextMarker<2>(&cmp_read_fixext2_marker), {CMP_TYPE_FIXEXT2}},
    {"fixext4_marker", printingFixextMarker<4>(&cmp_read_fixext4_marker), {CMP_TYPE_FIXEXT4}},
    {"fixext8_marker", printingFixextMarker<8>(&cmp_read_fixext8_marker), {CMP_TYPE_FIXEXT8}},
    {"fixext16_marker", printingFixextMarker<16>(&cmp_read_fixext16_marker), {CMP_TYPE_FIXEXT16}},
    {"str", printingData(&cmp_read_str), str, true},
    {"bin", printingData(&cmp_read_bin), bin, true},
    {"fixext1", printingFixext<1>(&cmp_read_fixext1), {CMP_TYPE_FIXEXT1}, true},
    {"fixext2", printingFixext<2>(&cmp_read_fixext2), {CMP_TYPE_FIXEXT2}, true},
    {"fixext4", printingFixext<4>(&cmp_read_fixext4), {CMP_TYPE_FIXEXT4}, true},
    {"fixext8", printingFixext<8>(&cmp_read_fixext8), {CMP_TYPE_FIXEXT8}, true},
    {"fixext16", printingFixext<16>(&cmp_read_fixext16), {CMP_TYPE_FIXEXT16}, true},
    {"ext8", printing(&cmp_read_ext8), {CMP_TYPE_EXT8}, true},
    {"ext16", printing(&cmp_read_ext16), {CMP_TYPE_EXT16}, true},
    {"ext32", printing(&cmp_read_ext32), {CMP_TYPE_EXT32}, true},
    {"ext", printing(&cmp_read_ext), ext, true},
};

/// The calls that the reader makes for a sample: those of the header, and of the payload when it takes that.
std::vector<Bytes> callsFor(const Reader &reader, const Sample &sample) {
  std::vector<Bytes> calls = groupsOf(sample.bytes);
  const bool taken = reader.takesPayload && reader.accepted.count(sample.type);
  if (withPayload.count(sample.type) && !taken) calls.pop_back();
  return calls;
}

/// What the reader answers to a sample.
Answer answerFor(const Reader &reader, const Sample &sample) {
  if (!reader.accepted.count(sample.type)) return std::nullopt;
  if (!reader.takesPayload) return sample.value;
  const Bytes payload = groupsOf(sample.bytes).back();
  return sample.value + ("/" + asText(payload.data(), payload.size()));
}

TEST(CmpReaders, TakeTheirTypesAndNoOther) {
  static_assert(std::size(samples) == 35);
  for (const Reader &reader : readers) {
    for (const Sample &sample : samples) {
      SCOPED_TRACE(reader.name + " of " + sample.bytes);
      Stream stream(sample.bytes);
      const Answer answer = reader.read(&stream.ctx);
      EXPECT_EQ(answer, answerFor(reader, sample));
      EXPECT_EQ(stream.ctx.error, answer ? CMP_ERROR_NONE : CMP_ERROR_INVALID_TYPE);
      EXPECT_EQ(stream.calls, callsFor(reader, sample));
    }
  }
}

TEST(CmpReaders, StopAtTheCallThatIsRefused) {
  for (const Reader &reader : readers) {
    for (const Sample &sample : samples) {
      SCOPED_TRACE(reader.name + " of " + sample.bytes);
      for (size_t call = 0; call < callsFor(reader, sample).size(); ++call) {
        Stream stream(sample.bytes);
        stream.refused = call;
        EXPECT_EQ(reader.read(&stream.ctx), std::nullopt);
        EXPECT_EQ(stream.ctx.error, numbersOf(sample.errors)[call]) << "call " << call;
      }
    }
  }
}

TEST(CmpReaders, FailOnAnItemCutShortAnywhere) {
  for (const Reader &reader : readers) {
    for (const Sample &sample : samples) {
      SCOPED_TRACE(reader.name + " of " + sample.bytes);
      Bytes cut;
      for (size_t call = 0; const Bytes &group : callsFor(reader, sample)) {
        for (const uint8_t byte : group) {
          Stream stream(cut);
          EXPECT_EQ(reader.read(&stream.ctx), std::nullopt);
          EXPECT_EQ(stream.ctx.error, numbersOf(sample.errors)[call]) << "cut at " << cut.size();
          cut.push_back(byte);
        }
        ++call;
      }
    }
  }
}

struct Conversion {
  const char *reader, *bytes, *answer;  // no answer when it does not fit
};

TEST(Cmp, ConvertsANumberOnlyWhenItFits) {
  const Conversion conversions[] = {
      {"char", "cc7f", "127"},
      {"char", "cc80", nullptr},
      {"char", "ccc8", nullptr},
      {"char", "d080", "-128"},
      {"char", "e0", "-32"},
      {"short", "cd7fff", "32767"},
      {"short", "cd8000", nullptr},
      {"short", "ccff", "255"},
      {"short", "d18000", "-32768"},
      {"int", "ce7fffffff", "2147483647"},
      {"int", "ce80000000", nullptr},
      {"int", "cdffff", "65535"},
      {"int", "d280000000", "-2147483648"},
      {"long", "cf7fffffffffffffff", "9223372036854775807"},
      {"long", "cf8000000000000000", nullptr},
      {"long", "ceffffffff", "4294967295"},
      {"sinteger", "d38000000000000000", "-9223372036854775808"},
      {"sinteger", "cfffffffffffffffff", nullptr},
      {"uchar", "ccff", "255"},
      {"ushort", "cdffff", "65535"},
      {"uint", "ceffffffff", "4294967295"},
      {"ulong", "cfffffffffffffffff", "18446744073709551615"},
      {"uinteger", "cf8000000000000000", "9223372036854775808"},
  };
  for (const Conversion &conversion : conversions) {
    const auto reader = std::ranges::find(readers, std::string(conversion.reader), &Reader::name);
    Stream stream(conversion.bytes);
    const Answer expected = conversion.answer ? Answer(conversion.answer) : std::nullopt;
    EXPECT_EQ(reader->read(&stream.ctx), expected) << conversion.reader << " of " << conversion.bytes;
    EXPECT_EQ(stream.ctx.error, conversion.answer ? CMP_ERROR_NONE : CMP_ERROR_INVALID_TYPE);
  }
}

TEST(Cmp, NumbersComeBackFromTheirSmallestForm) {
  for (int bits = 0; bits < 64; ++bits) {
    for (const int64_t offset : {-1, 0, 1}) {
      const uint64_t number = (uint64_t{1} << bits) + static_cast<uint64_t>(offset);
      Stream out;
      ASSERT_TRUE(cmp_write_uint(&out.ctx, number));
      Stream in(out.written());
      uint64_t back = 0;
      EXPECT_TRUE(cmp_read_uinteger(&in.ctx, &back));
      EXPECT_EQ(back, number);

      const auto negative = static_cast<int64_t>(~number);
      Stream signedOut;
      ASSERT_TRUE(cmp_write_sint(&signedOut.ctx, negative));
      Stream signedIn(signedOut.written());
      int64_t signedBack = 0;
      EXPECT_TRUE(cmp_read_sinteger(&signedIn.ctx, &signedBack));
      EXPECT_EQ(signedBack, negative);
    }
  }
}

TEST(Cmp, FloatsKeepEveryBit) {
  for (const uint64_t bits : {0x8000000000000000u, 0x7ff0000000000000u, 0x7ff0000000000001u, 0xfff8000000abcdefu}) {
    Stream out;
    ASSERT_TRUE(cmp_write_double(&out.ctx, std::bit_cast<double>(bits)));
    const auto narrow = static_cast<uint32_t>(bits >> 32 | (bits & 0xffff));
    ASSERT_TRUE(cmp_write_float(&out.ctx, std::bit_cast<float>(narrow)));
    Stream in(out.written());
    double wideBack = 0;
    float narrowBack = 0;
    EXPECT_TRUE(cmp_read_double(&in.ctx, &wideBack) && cmp_read_float(&in.ctx, &narrowBack));
    EXPECT_EQ(std::bit_cast<uint64_t>(wideBack), bits);
    EXPECT_EQ(std::bit_cast<uint32_t>(narrowBack), narrow);
  }
}

// ---- Strings, bytes, ext with their payload ----

TEST(Cmp, PayloadsComeBackAtEveryBoundaryOfTheirForms) {
  for (const uint32_t size : {0, 1, 2, 3, 4, 8, 15, 16, 17, 31, 32, 255, 256, 65535, 65536}) {
    std::string text(size, 0);
    std::iota(text.begin(), text.end(), 1);
    Stream out;
    ASSERT_TRUE(cmp_write_str(&out.ctx, text.data(), size) && cmp_write_bin(&out.ctx, text.data(), size) &&
                cmp_write_ext(&out.ctx, -3, size, text.data()));
    Stream in(out.written());
    std::string back(size + 1, 'x');
    uint32_t length = size + 1;
    EXPECT_TRUE(cmp_read_str(&in.ctx, back.data(), &length));
    EXPECT_EQ(back, text + '\0');
    EXPECT_EQ(length, size);

    back.assign(size, 'x');
    EXPECT_TRUE(cmp_read_bin(&in.ctx, back.data(), &length));
    EXPECT_EQ(back, text);
    EXPECT_EQ(length, size);

    back.assign(size, 'x');
    int8_t type = 0;
    length = 0;
    EXPECT_TRUE(cmp_read_ext(&in.ctx, &type, &length, back.data()));
    EXPECT_EQ(back, text);
    EXPECT_EQ(length, size);
    EXPECT_EQ(type, -3);
    EXPECT_EQ(in.position, in.input.size());
  }
}

TEST(Cmp, AStringNeedsRoomForItsZeroByte) {
  for (const uint32_t room : {0u, 4u, 5u}) {
    Stream stream("a5 68656c6c6f");
    char data[5] = {'#', '#', '#', '#', '#'};
    uint32_t size = room;
    EXPECT_FALSE(cmp_read_str(&stream.ctx, data, &size));
    EXPECT_EQ(stream.ctx.error, CMP_ERROR_STR_LENGTH);
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(data[0], '#');
    EXPECT_EQ(stream.position, 1u);
  }
  Stream longest("db ffffffff");
  uint32_t size = UINT32_MAX;
  EXPECT_FALSE(cmp_read_str(&longest.ctx, nullptr, &size));
  EXPECT_EQ(longest.ctx.error, CMP_ERROR_STR_LENGTH);
}

TEST(Cmp, BytesThatDoNotFitLeaveTheSizeAlone) {
  Stream stream("c4 05 68656c6c6f");
  char data[4] = {'#'};
  uint32_t size = sizeof data;
  EXPECT_FALSE(cmp_read_bin(&stream.ctx, data, &size));
  EXPECT_EQ(stream.ctx.error, CMP_ERROR_BIN_LENGTH);
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(data[0], '#');
}

// ---- Objects ----

TEST(Cmp, AnObjectOfEveryMarkerIsWrittenAsItWasRead) {
  for (int marker = 0; marker < 256; ++marker) {
    Bytes bytes(10, 0x41);
    bytes[0] = static_cast<uint8_t>(marker);
    Stream in(bytes);
    cmp_object object;
    object.type = 77;
    if (marker == 0xc1) {
      EXPECT_FALSE(cmp_read_object(&in.ctx, &object));
      EXPECT_EQ(in.ctx.error, CMP_ERROR_INVALID_TYPE);
      EXPECT_EQ(object.type, 77);
      continue;
    }
    ASSERT_TRUE(cmp_read_object(&in.ctx, &object));
    Stream out;
    EXPECT_TRUE(cmp_write_object(&out.ctx, &object)) << marker;
    EXPECT_EQ(out.calls, in.calls) << marker;
  }
}

TEST(Cmp, WritingAnObjectStopsAtTheCallThatIsRefused) {
  for (const Sample &sample : samples) {
    SCOPED_TRACE(sample.bytes);
    Stream in(sample.bytes);
    cmp_object object;
    ASSERT_TRUE(cmp_read_object(&in.ctx, &object));
    for (size_t call = 0; call < in.calls.size(); ++call) {
      Stream out;
      out.refused = call;
      EXPECT_FALSE(cmp_write_object(&out.ctx, &object));
      if (call == 0) {
        EXPECT_EQ(out.ctx.error,
                  (pfix + nfix).count(sample.type) ? CMP_ERROR_WRITING_FIXNUM : CMP_ERROR_WRITING_MARKER);
      } else if (ext.count(sample.type)) {
        EXPECT_EQ(out.ctx.error, call + 1 == in.calls.size() ? CMP_ERROR_WRITING_EXT_TYPE : CMP_ERROR_WRITING_SIZE);
      } else {
        const bool isNumber = (slong + ulong + flt + dbl).count(sample.type);
        EXPECT_EQ(out.ctx.error, isNumber ? CMP_ERROR_WRITING_DATA : CMP_ERROR_WRITING_SIZE);
      }
    }
  }
}

struct Asked {
  std::string name;
  Query query;
  Types accepted;
};

#define IS(name, accepted) \
  Asked { "is_" #name, asking(&cmp_object_is_##name), accepted }
#define AS(name, accepted) \
  Asked { "as_" #name, printing(&cmp_object_as_##name), accepted }

TEST(Cmp, QueriesAreTrueForTheirTypesAndNoOther) {
  const std::vector<Asked> queries = {
      IS(char, schar),      IS(short, sshort),       IS(int, sint),
      IS(long, slong),      IS(sinteger, slong),     IS(uchar, uchar),
      IS(ushort, ushort),   IS(uint, uint),          IS(ulong, ulong),
      IS(uinteger, ulong),  IS(float, flt),          IS(double, dbl),
      IS(nil, nil),         IS(bool, boolean),       IS(str, str),
      IS(bin, bin),         IS(array, array),        IS(map, map),
      IS(ext, ext),         AS(char, schar + uchar), AS(short, sshort + ushort),
      AS(int, sint + uint), AS(long, slong + ulong), AS(sinteger, slong + ulong),
      AS(uchar, uchar),     AS(ushort, ushort),      AS(uint, uint),
      AS(ulong, ulong),     AS(uinteger, ulong),     AS(float, flt),
      AS(double, dbl),      AS(bool, boolean),       AS(str, str),
      AS(bin, bin),         AS(array, array),        AS(map, map),
      AS(ext, ext),
  };
  for (const Sample &sample : samples) {
    Stream stream(sample.bytes);
    cmp_object object;
    ASSERT_TRUE(cmp_read_object(&stream.ctx, &object));
    EXPECT_EQ(object.type, sample.type);
    for (const Asked &asked : queries) {
      const bool extracts = asked.name.starts_with("as_");
      const Answer expected =
          asked.accepted.count(sample.type) ? Answer(extracts ? sample.value : "nil") : std::nullopt;
      EXPECT_EQ(asked.query(&object), expected) << asked.name << " of type " << sample.type;
    }
  }
}

TEST(Cmp, ExtractingANumberThatDoesNotFitIsFalseWithoutAnError) {
  cmp_object object;
  object.type = CMP_TYPE_UINT64;
  object.as.u64 = uint64_t{1} << 63;
  int64_t value = 42;
  EXPECT_FALSE(cmp_object_as_long(&object, &value));
  EXPECT_EQ(value, 42);
}

cmp_object sized(uint8_t type, uint32_t size) {
  cmp_object object;
  object.type = type;
  if (ext.count(type)) {
    object.as.ext = {1, size};
  } else {
    object.as.size = size;
  }
  return object;
}

TEST(Cmp, AnObjectThatItsFormCannotHoldIsNotWritten) {
  const std::vector<cmp_object> objects = {
      sized(CMP_TYPE_FIXSTR, 32),   sized(CMP_TYPE_FIXARRAY, 16), sized(CMP_TYPE_FIXMAP, 16),
      sized(CMP_TYPE_STR8, 256),    sized(CMP_TYPE_BIN8, 256),    sized(CMP_TYPE_EXT8, 256),
      sized(CMP_TYPE_STR16, 65536), sized(CMP_TYPE_BIN16, 65536), sized(CMP_TYPE_ARRAY16, 65536),
      sized(CMP_TYPE_MAP16, 65536), sized(CMP_TYPE_EXT16, 65536),
  };
  for (const cmp_object &object : objects) {
    Stream stream;
    EXPECT_FALSE(cmp_write_object(&stream.ctx, &object));
    EXPECT_EQ(stream.ctx.error, CMP_ERROR_INPUT_TOO_LARGE) << int(object.type);
    EXPECT_TRUE(stream.calls.empty());
  }
  for (const uint8_t type : {35, 255}) {
    Stream stream;
    const cmp_object object = sized(type, 0);
    EXPECT_FALSE(cmp_write_object(&stream.ctx, &object));
    EXPECT_EQ(stream.ctx.error, CMP_ERROR_INVALID_TYPE);
    EXPECT_TRUE(stream.calls.empty());
  }
}

// ---- Errors and the context ----

TEST(Cmp, FixFormsRefuseWhatTheyCannotHold) {
  const Writer outside[] = {
      WRITER(pfix(c, 128), "", ""),         WRITER(ufix(c, 255), "", ""),        WRITER(nfix(c, 0), "", ""),
      WRITER(nfix(c, -33), "", ""),         WRITER(sfix(c, -33), "", ""),        WRITER(sfix(c, -128), "", ""),
      WRITER(fixstr_marker(c, 32), "", ""), WRITER(fixstr(c, "x", 255), "", ""), WRITER(fixarray(c, 16), "", ""),
      WRITER(fixmap(c, 16), "", ""),
  };
  for (const Writer &writer : outside) {
    Stream stream;
    EXPECT_FALSE(writer.write(&stream.ctx)) << writer.name;
    EXPECT_EQ(stream.ctx.error, CMP_ERROR_INPUT_TOO_LARGE);
    EXPECT_TRUE(stream.calls.empty());
  }
}

TEST(Cmp, TextsOfTheErrors) {
  const std::array texts = {"",
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
                            "Error writing size"};
  Stream stream;
  for (int code = 0; code < 256; ++code) {
    stream.ctx.error = static_cast<uint8_t>(code);
    EXPECT_STREQ(cmp_strerror(&stream.ctx), code < 16 ? texts[static_cast<size_t>(code)] : "");
  }
}

TEST(Cmp, AnErrorStaysUntilTheNextOneOrANewStart) {
  Stream stream("c0 c0 c0");
  uint8_t number;
  EXPECT_FALSE(cmp_read_u8(&stream.ctx, &number));
  EXPECT_TRUE(cmp_read_nil(&stream.ctx));
  EXPECT_EQ(stream.ctx.error, CMP_ERROR_INVALID_TYPE);
  EXPECT_FALSE(cmp_write_pfix(&stream.ctx, 200));
  EXPECT_EQ(stream.ctx.error, CMP_ERROR_INPUT_TOO_LARGE);
  cmp_init(&stream.ctx, &stream, Stream::read, Stream::write);
  EXPECT_EQ(stream.ctx.error, CMP_ERROR_NONE);
  EXPECT_STREQ(cmp_strerror(&stream.ctx), "");
}

TEST(Cmp, AMissingCallbackRefuses) {
  cmp_context ctx;
  cmp_init(&ctx, nullptr, nullptr, nullptr);
  EXPECT_FALSE(cmp_read_nil(&ctx));
  EXPECT_EQ(ctx.error, CMP_ERROR_READING_MARKER);
  EXPECT_FALSE(cmp_write_nil(&ctx));
  EXPECT_EQ(ctx.error, CMP_ERROR_WRITING_MARKER);
}

TEST(Cmp, Versions) {
  EXPECT_EQ(cmp_version(), 10u);
  EXPECT_EQ(cmp_mp_version(), 5u);
}

TEST(Cmp, UsableFromC) { EXPECT_EQ(cmpUsedFromC(), 0) << "the line in CmpUser.c"; }

/// The lengths of C++ have 64 bits; one that the format cannot hold is refused, not cut.
TEST(CmpCodec, RefusesLengthsBeyondTheFormat) {
  struct {
    size_t write(const void *, size_t count) { return count; }
  } out;
  constexpr uint64_t tooLong = uint64_t{UINT32_MAX} + 1;
  uint8_t error = 0;
  EXPECT_FALSE(qelnk::cmp::writeStr(out, nullptr, tooLong, error));
  EXPECT_EQ(error, CMP_ERROR_STR_LENGTH);
  EXPECT_FALSE(qelnk::cmp::writeBin(out, nullptr, tooLong, error));
  EXPECT_EQ(error, CMP_ERROR_BIN_LENGTH);
  EXPECT_FALSE(qelnk::cmp::writeArray(out, tooLong, error));
  EXPECT_EQ(error, CMP_ERROR_ARRAY_LENGTH);
  EXPECT_FALSE(qelnk::cmp::writeMap(out, tooLong, error));
  EXPECT_EQ(error, CMP_ERROR_MAP_LENGTH);
}

}  // namespace
