#include <QELNetworkKit/cmp.h>
#include <encoding/CmpCodec.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

extern "C" int cmpUsedFromC(void);

namespace {

using namespace std::string_literals;

// Types and errors stand here as the numbers that programs see: mixed up names must not go unnoticed.

/// What one call of a callback moves. Kinds: m marker, s size of bin or ext, n any other size, t ext type, v value,
/// p payload.
struct Field {
  char kind;
  std::string bytes;
};

/// The fields of an item in hexadecimal, the marker first: "c7 s03 tf9 p616263".
std::vector<Field> fieldsOf(const std::string &wire) {
  std::vector<Field> fields;
  std::istringstream in(wire);
  for (std::string text; in >> text;) {
    if (fields.empty()) text.insert(0, "m");
    Field &field = fields.emplace_back(Field{text[0], ""});
    for (size_t i = 1; i < text.size(); i += 2) field.bytes += char(std::stoi(text.substr(i, 2), nullptr, 16));
  }
  return fields;
}

std::vector<Field> headerOf(std::vector<Field> fields) {
  if (fields.back().kind == 'p') fields.pop_back();
  return fields;
}

using Calls = std::vector<std::string>;

Calls callsFor(const std::vector<Field> &fields) {
  Calls calls;
  for (const Field &field : fields) calls.push_back(field.bytes);
  return calls;
}

/// The pairs of "a=b, c=d, e=".
std::vector<std::pair<std::string, std::string>> pairsOf(const std::string &text) {
  std::vector<std::pair<std::string, std::string>> pairs;
  std::istringstream in(text);
  for (std::string left, right; std::getline(in >> std::ws, left, '='); pairs.emplace_back(left, right)) {
    std::getline(in, right, ',');
  }
  return pairs;
}

int errorOfReading(const Field &field) {
  return field.kind == 'm' ? 7 : field.kind == 's' ? 14 : field.kind == 't' ? 11 : 9;
}

int errorOfWriting(const Field &field) {
  const auto first = uint8_t(field.bytes[0]);
  if (field.kind == 'm') return first < 0x80 || first >= 0xe0 ? 6 : 8;
  return field.kind == 't' ? 12 : field.kind == 's' || field.kind == 'n' ? 15 : 10;
}

/// A context on memory that keeps its calls apart and can refuse one of them.
struct Stream {
  cmp_context ctx;
  Calls calls;
  std::string input;
  size_t position = 0;
  size_t refused;  // the number of the call
  size_t answer;   // what a refused write returns

  explicit Stream(const std::string &wire = "", size_t refused = SIZE_MAX, size_t answer = 0)
      : refused(refused), answer(answer) {
    for (const Field &field : fieldsOf(wire)) input += field.bytes;
    cmp_init(&ctx, this, read, write);
  }
  Stream(const Stream &) = delete;

  static bool read(cmp_context *ctx, void *data, size_t limit) {
    auto *self = static_cast<Stream *>(ctx->buf);
    if (self->calls.size() == self->refused || limit > self->input.size() - self->position) return false;
    self->calls.push_back(self->input.substr(self->position, limit));
    std::memcpy(data, self->calls.back().data(), limit);
    self->position += limit;
    return true;
  }

  static size_t write(cmp_context *ctx, const void *data, size_t count) {
    auto *self = static_cast<Stream *>(ctx->buf);
    self->calls.emplace_back(static_cast<const char *>(data), count);
    return self->calls.size() - 1 == self->refused ? self->answer : count;
  }
};

// ---- Functions with results ----

/// A result before the call. As a size it is the room for a payload.
constexpr int untouched = 90;

template <class T>
struct Result {
  T value = static_cast<T>(untouched);
  T *address() { return &value; }
  void print(std::string &numbers, std::string &) const { numbers += "/" + std::to_string(value); }
};

template <>
struct Result<void> {
  std::string bytes = std::string(untouched, '#');
  char *address() { return bytes.data(); }
  void print(std::string &, std::string &data) const { data = ":" + bytes.substr(0, bytes.find_last_not_of('#') + 1); }
};

template <>
struct Result<char> : Result<void> {};

/// Calls a function and prints what it stored as "/-7/3:abc", or "no" when it fails and stores nothing.
using Reader = std::function<std::string(cmp_context *)>;
using Query = std::function<std::string(const cmp_object *)>;

/// `size` is printed for a form that does not store it.
template <class From, class... T>
std::function<std::string(From)> taking(bool (*function)(From, T *...), std::string size = "") {
  return [=](From from) {
    const auto take = [&](auto... result) {
      const auto print = [&] {
        std::string numbers, data;
        (result.print(numbers, data), ...);
        return numbers + size + data;
      };
      const std::string before = print();
      if (function(from, result.address()...)) return print();
      return print() == before ? "no" : "no, but " + print();
    };
    return take(Result<T>()...);
  };
}

#define WRITE(call) [](cmp_context *c) { return cmp_write_##call; }
#define READ(name, ...) taking(&cmp_read_##name __VA_OPT__(, ) __VA_ARGS__)
#define STR_OR_BIN(form) WRITE(form##_marker(c, 3)), {}, WRITE(form(c, "abc", 3))
#define EXT(form) WRITE(form##_marker(c, -7, 3)), READ(form##_marker), WRITE(form(c, -7, 3, "abc")), READ(form)
#define FIXEXT(size)                                                           \
  WRITE(fixext##size##_marker(c, -7)), READ(fixext##size##_marker, "/" #size), \
      WRITE(fixext##size(c, -7, "0123456789abcdef")), READ(fixext##size, "/" #size)

/// An item of each type, what readers print of it, and the functions for that form alone.
const struct Form {
  int type;
  const char *wire, *value;
  bool (*write)(cmp_context *);
  Reader read = {};
  bool (*writeWhole)(cmp_context *) = nullptr;
  Reader readWhole = {};
} forms[] = {
    {0, "05", "/5", WRITE(pfix(c, 5)), READ(pfix)},
    {1, "83", "/3", WRITE(fixmap(c, 3))},
    {2, "93", "/3", WRITE(fixarray(c, 3))},
    {3, "a3 p616263", "/3", STR_OR_BIN(fixstr)},
    {4, "c0", "", WRITE(nil(c))},
    {5, "c2", "/0", WRITE(false(c))},
    {6, "c4 s03 p616263", "/3", STR_OR_BIN(bin8)},
    {7, "c5 s0003 p616263", "/3", STR_OR_BIN(bin16)},
    {8, "c6 s00000003 p616263", "/3", STR_OR_BIN(bin32)},
    {9, "c7 s03 tf9 p616263", "/-7/3", EXT(ext8)},
    {10, "c8 s0003 tf9 p616263", "/-7/3", EXT(ext16)},
    {11, "c9 s00000003 tf9 p616263", "/-7/3", EXT(ext32)},
    {12, "ca vbfc00000", "/-1.500000", WRITE(float(c, -1.5f))},
    {13, "cb vbff8000000000000", "/-1.500000", WRITE(double(c, -1.5))},
    {14, "cc v05", "/5", WRITE(u8(c, 5)), READ(u8)},
    {15, "cd v0102", "/258", WRITE(u16(c, 258)), READ(u16)},
    {16, "ce v01020304", "/16909060", WRITE(u32(c, 16909060)), READ(u32)},
    {17, "cf v0102030405060708", "/72623859790382856", WRITE(u64(c, 72623859790382856)), READ(u64)},
    {18, "d0 v05", "/5", WRITE(s8(c, 5)), READ(s8)},
    {19, "d1 v0102", "/258", WRITE(s16(c, 258)), READ(s16)},
    {20, "d2 v01020304", "/16909060", WRITE(s32(c, 16909060)), READ(s32)},
    {21, "d3 v0102030405060708", "/72623859790382856", WRITE(s64(c, 72623859790382856)), READ(s64)},
    {22, "d4 tf9 p30", "/-7/1", FIXEXT(1)},
    {23, "d5 tf9 p3031", "/-7/2", FIXEXT(2)},
    {24, "d6 tf9 p30313233", "/-7/4", FIXEXT(4)},
    {25, "d7 tf9 p3031323334353637", "/-7/8", FIXEXT(8)},
    {26, "d8 tf9 p30313233343536373839616263646566", "/-7/16", FIXEXT(16)},
    {27, "d9 n03 p616263", "/3", STR_OR_BIN(str8)},
    {28, "da n0003 p616263", "/3", STR_OR_BIN(str16)},
    {29, "db n00000003 p616263", "/3", STR_OR_BIN(str32)},
    {30, "dc n0102", "/258", WRITE(array16(c, 258))},
    {31, "dd n01020304", "/16909060", WRITE(array32(c, 16909060))},
    {32, "de n0102", "/258", WRITE(map16(c, 258))},
    {33, "df n01020304", "/16909060", WRITE(map32(c, 16909060))},
    {34, "ff", "/-1", WRITE(nfix(c, -1)), READ(nfix)},
};
static_assert(std::size(forms) == 35);

/// Sets of types, a bit for each; `payload` is none of them and marks a reader that takes the payload too.
constexpr uint64_t types(int first, int last) { return (uint64_t{2} << last) - (uint64_t{1} << first); }
constexpr uint64_t type(int number) { return uint64_t{1} << number; }
constexpr uint64_t uchar = type(0) | type(14), ushort = uchar | type(15), uint = ushort | type(16);
constexpr uint64_t schar = type(34) | type(18), sshort = schar | type(19), sint = sshort | type(20);
constexpr uint64_t ulong = uint | type(17), slong = sint | type(21);
constexpr uint64_t str = type(3) | types(27, 29), bin = types(6, 8), ext = types(9, 11) | types(22, 26);
constexpr uint64_t array = type(2) | types(30, 31), map = type(1) | types(32, 33), payload = type(63);

/// A reader and the query for the same value, which take the same types, and the query for the type.
struct Family {
  std::string name;
  uint64_t taken;
  Reader read;
  Query asValue = {};
  uint64_t is = 0;
  Query isOne = {};
};

#define READER(name, taken) \
  Family { #name, taken, READ(name) }
#define FAMILY(name, taken, is) \
  Family { #name, taken, READ(name), taking(&cmp_object_as_##name), is, taking(&cmp_object_is_##name) }

std::vector<Family> allFamilies() {
  std::vector<Family> all = {
      FAMILY(char, schar | uchar, schar),
      FAMILY(short, sshort | ushort, sshort),
      FAMILY(int, sint | uint, sint),
      FAMILY(long, slong | ulong, slong),
      FAMILY(sinteger, slong | ulong, slong),
      FAMILY(uchar, uchar, uchar),
      FAMILY(ushort, ushort, ushort),
      FAMILY(uint, uint, uint),
      FAMILY(ulong, ulong, ulong),
      FAMILY(uinteger, ulong, ulong),
      FAMILY(float, type(12), type(12)),
      FAMILY(double, type(13), type(13)),
      FAMILY(bool, type(5), type(5)),
      FAMILY(str, str | payload, str),
      FAMILY(bin, bin | payload, bin),
      FAMILY(ext, ext | payload, ext),
      FAMILY(array, array, array),
      FAMILY(map, map, map),
      {"nil", type(4), READ(nil), {}, type(4), taking(&cmp_object_is_nil)},
      READER(sfix, type(0) | type(34)),
      READER(ufix, type(0)),
      READER(bool_as_u8, type(5)),
      READER(str_size, str),
      READER(bin_size, bin),
      READER(ext_marker, ext),
  };
  for (const Form &form : forms) {
    const std::string name = "that of "s + form.wire;
    if (form.read) all.push_back({name, type(form.type), form.read});
    if (form.readWhole) all.push_back({name + " with payload", type(form.type) | payload, form.readWhole});
  }
  return all;
}

const std::vector<Family> families = allFamilies();

cmp_object objectOf(const std::string &wire) {
  Stream stream(wire);
  cmp_object object = {77, {}};
  EXPECT_TRUE(cmp_read_object(&stream.ctx, &object)) << wire;
  return object;
}

TEST(Cmp, ReadersAndQueriesTakeTheirTypesAndNoOther) {
  for (const Form &form : forms) {
    const std::vector<Field> whole = fieldsOf(form.wire), header = headerOf(whole);
    const cmp_object object = objectOf(form.wire);
    EXPECT_EQ(object.type, form.type);
    for (const Family &family : families) {
      SCOPED_TRACE(family.name + " of " + form.wire);
      const bool takes = family.taken & type(form.type), takesPayload = takes && family.taken & payload;
      const std::string value = takes ? form.value : "no";
      const std::string data = takesPayload ? ":" + whole.back().bytes + (family.name == "str" ? "\0"s : "") : "";
      const std::vector<Field> &fields = takesPayload ? whole : header;
      Stream stream(form.wire);
      EXPECT_EQ(family.read(&stream.ctx), value + data);
      EXPECT_EQ(stream.ctx.error, takes ? 0 : 13);
      EXPECT_EQ(stream.calls, callsFor(fields));
      for (size_t call = 0; call < fields.size(); ++call) {
        Stream refusing(form.wire, call);
        EXPECT_EQ(family.read(&refusing.ctx), "no");
        EXPECT_EQ(refusing.ctx.error, errorOfReading(fields[call]));
      }
      if (family.asValue) {
        EXPECT_EQ(family.asValue(&object), value) << "as a query";
      }
      if (family.isOne) {
        EXPECT_EQ(family.isOne(&object), family.is & type(form.type) ? "" : "no") << "as a question";
      }
    }
  }
}

TEST(Cmp, StoresOnlyWhatFits) {
  const std::pair<std::string, const char *> cases[] = {
      {"char", "cc7f=/127, cc80=no, d080=/-128, e0=/-32, 7f=/127"},
      {"short", "cd7fff=/32767, cd8000=no, ccff=/255, d18000=/-32768"},
      {"int", "ce7fffffff=/2147483647, ce80000000=no, cdffff=/65535, d280000000=/-2147483648"},
      {"long", "cf7fffffffffffffff=/9223372036854775807, cf8000000000000000=no, ceffffffff=/4294967295, d0ff=/-1"},
      {"sinteger", "d38000000000000000=/-9223372036854775808, cfffffffffffffffff=no"},
      {"uchar", "ccff=/255, d005=no"},
      {"ushort", "cdffff=/65535"},
      {"uint", "ceffffffff=/4294967295"},
      {"ulong", "cfffffffffffffffff=/18446744073709551615"},
      {"uinteger", "cf8000000000000000=/9223372036854775808"},
      {"sfix", "e0=/-32, 7f=/127"},
      {"bool", "c3=/1"},
      {"bool_as_u8", "c3=/1"},
      {"str_size", "bf=/31, d9ff=/255, da0102=/258, db01020304=/16909060"},
      {"bin_size", "c4ff=/255, c50102=/258, c601020304=/16909060"},
      {"ext_marker", "c7ff05=/5/255, c8010205=/5/258, c90102030480=/-128/16909060"},
  };
  for (const auto &[name, items] : cases) {
    const Family &family = *std::ranges::find(families, name, &Family::name);
    for (const auto &[wire, results] : pairsOf(items)) {
      SCOPED_TRACE(name + " of " + wire);
      Stream stream(wire);
      EXPECT_EQ(family.read(&stream.ctx), results);
      EXPECT_EQ(stream.ctx.error, results == "no" ? 13 : 0);
      const cmp_object object = objectOf(wire);
      if (family.asValue) {
        EXPECT_EQ(family.asValue(&object), results);
      }
    }
  }
}

// ---- Writers ----

struct Writer {
  std::string name;
  std::function<bool(cmp_context *)> write;
  std::vector<Field> fields;  // none when it refuses
};

#define WRITER(call, wire) \
  Writer { #call, WRITE(call), fieldsOf(wire) }

/// What a writer makes of each number, nothing when it refuses: "127=7f, 128=cc v80".
template <class T>
void add(std::vector<Writer> &all, const char *name, bool (*write)(cmp_context *, T), const char *numbers) {
  for (const auto &[number, wire] : pairsOf(numbers)) {
    const auto writeIt = [write, n = static_cast<T>(std::stoull(number))](cmp_context *ctx) { return write(ctx, n); };
    all.push_back({name + " of "s + number, writeIt, fieldsOf(wire)});
  }
}
#define ADD(name, numbers) add(all, #name, &cmp_write_##name, numbers)

bool cmp_write_ext_9(cmp_context *ctx, uint32_t size) { return cmp_write_ext_marker(ctx, 9, size); }

std::vector<Writer> allWriters() {
  std::vector<Writer> all = {
      WRITER(true(c), "c3"),
      WRITER(str(c, "abc", 3), "a3 p616263"),
      WRITER(bin(c, "abc", 3), "c4 s03 p616263"),
      WRITER(ext(c, 9, 3, "abc"), "c7 s03 t09 p616263"),
      WRITER(ext(c, 9, 2, "abc"), "d5 t09 p6162"),
      // Nothing behind the header: no call that could only be answered with 0.
      WRITER(str(c, nullptr, 0), "a0"),
      WRITER(str32(c, nullptr, 0), "db n00000000"),
      WRITER(bin(c, nullptr, 0), "c4 s00"),
      WRITER(ext(c, 9, 0, nullptr), "c7 s00 t09"),
      WRITER(fixstr(c, nullptr, 32), ""),
  };
  for (const Form &form : forms) {
    const std::vector<Field> whole = fieldsOf(form.wire), header = headerOf(whole);
    all.push_back({"that of "s + form.wire, form.write, header});
    if (form.writeWhole) all.push_back({"that with payload of "s + form.wire, form.writeWhole, whole});
    const auto writeObject = [object = objectOf(form.wire)](cmp_context *c) { return cmp_write_object(c, &object); };
    all.push_back({"object "s + form.wire, writeObject, header});
  }
  ADD(pfix, "0=00, 127=7f, 128=, 255=");
  ADD(ufix, "0=00, 127=7f, 128=, 255=");
  ADD(nfix, "-128=, -33=, -32=e0, -1=ff, 0=");
  ADD(sfix, "-128=, -33=, -32=e0, -1=ff, 0=00, 127=7f");
  ADD(s16, "-2=d1 vfffe, -32768=d1 v8000");
  ADD(bool, "1=c3, 0=c2");
  ADD(u8_as_bool, "0=c2, 2=c3");
  ADD(fixstr_marker, "0=a0, 31=bf, 32=");
  ADD(fixarray, "15=9f, 16=");
  ADD(fixmap, "15=8f, 16=");
  ADD(uint,
      "0=00, 127=7f, 128=cc v80, 255=cc vff, 256=cd v0100, 65535=cd vffff, 65536=ce v00010000, "
      "4294967295=ce vffffffff, 4294967296=cf v0000000100000000, "
      "18446744073709551615=cf vffffffffffffffff");
  ADD(sint,
      "0=00, 127=7f, 128=cc v80, 9223372036854775807=cf v7fffffffffffffff, -1=ff, -32=e0, -33=d0 vdf, "
      "-128=d0 v80, -129=d1 vff7f, -32768=d1 v8000, -32769=d2 vffff7fff, -2147483648=d2 v80000000, "
      "-2147483649=d3 vffffffff7fffffff, -9223372036854775808=d3 v8000000000000000");
  ADD(str_marker,
      "0=a0, 31=bf, 32=d9 n20, 255=d9 nff, 256=da n0100, 65535=da nffff, 65536=db n00010000, "
      "4294967295=db nffffffff");
  ADD(bin_marker, "0=c4 s00, 255=c4 sff, 256=c5 s0100, 65535=c5 sffff, 65536=c6 s00010000, 4294967295=c6 sffffffff");
  ADD(array, "0=90, 15=9f, 16=dc n0010, 65535=dc nffff, 65536=dd n00010000, 4294967295=dd nffffffff");
  ADD(map, "0=80, 15=8f, 16=de n0010, 65535=de nffff, 65536=df n00010000, 4294967295=df nffffffff");
  ADD(ext_9,
      "0=c7 s00 t09, 1=d4 t09, 2=d5 t09, 3=c7 s03 t09, 4=d6 t09, 8=d7 t09, 16=d8 t09, 32=c7 s20 t09, "
      "255=c7 sff t09, 256=c8 s0100 t09, 65535=c8 sffff t09, 65536=c9 s00010000 t09, "
      "4294967295=c9 sffffffff t09");
  return all;
}

TEST(Cmp, WritersMakeOneCallAField) {
  for (const auto &[name, write, fields] : allWriters()) {
    SCOPED_TRACE(name);
    Stream stream;
    EXPECT_EQ(write(&stream.ctx), !fields.empty());
    EXPECT_EQ(stream.ctx.error, fields.empty() ? 5 : 0);
    EXPECT_EQ(stream.calls, callsFor(fields));
    for (size_t call = 0; call < fields.size(); ++call) {
      Stream refusing("", call, 0);
      EXPECT_FALSE(write(&refusing.ctx));
      EXPECT_EQ(refusing.ctx.error, errorOfWriting(fields[call]));
      EXPECT_EQ(refusing.calls.size(), call + 1);
      // Of the marker exactly one byte must go, of another field anything.
      Stream odd("", call, call == 0 ? 2 : fields[call].bytes.size() == 1 ? 99 : 1);
      EXPECT_EQ(write(&odd.ctx), call != 0);
      EXPECT_EQ(odd.ctx.error, call == 0 ? errorOfWriting(fields[0]) : 0);
    }
  }
}

TEST(Cmp, AnObjectThatItsFormCannotHoldIsNotWritten) {
  const char *const sizes =
      "0=128, 1=16, 2=16, 3=32, 6=256, 7=65536, 9=256, 10=65536, 27=256, 28=65536, 30=65536, 32=65536, 34=5, 35=0, "
      "255=0";
  for (const auto &[type, size] : pairsOf(sizes)) {
    SCOPED_TRACE("size " + size + " in type " + type);
    cmp_object object = {uint8_t(std::stoi(type)), {.size = uint32_t(std::stoul(size))}};
    if (type == "9" || type == "10") object.as.ext = {1, object.as.size};
    if (type == "0" || type == "34") object.as.u8 = uint8_t(object.as.size);
    Stream stream;
    EXPECT_FALSE(cmp_write_object(&stream.ctx, &object));
    EXPECT_EQ(stream.ctx.error, object.type < 35 ? 5 : 13);
    EXPECT_TRUE(stream.calls.empty());
  }
}

TEST(Cmp, AnItemOfEveryMarkerIsWrittenAsItWasRead) {
  for (int marker = 0; marker < 256; ++marker) {
    SCOPED_TRACE(marker);
    const std::string bytes = char(marker) + "ABCDEFGHI"s;
    Stream in;
    in.input = bytes;
    cmp_object object = {77, {.u64 = 88}};
    if (marker == 0xc1) {
      EXPECT_FALSE(cmp_read_object(&in.ctx, &object));
      EXPECT_EQ(in.ctx.error, 13);
    } else {
      ASSERT_TRUE(cmp_read_object(&in.ctx, &object));
      Stream out;
      EXPECT_TRUE(cmp_write_object(&out.ctx, &object));
      EXPECT_EQ(out.calls, in.calls);
      object = {77, {.u64 = 88}};
    }
    for (size_t call = 0; call < in.calls.size(); ++call) {
      Stream refusing("", call);
      refusing.input = bytes;
      EXPECT_FALSE(cmp_read_object(&refusing.ctx, &object));
    }
    EXPECT_TRUE(object.type == 77 && object.as.u64 == 88);
  }
}

TEST(Cmp, FloatsKeepEveryBit) {
  for (const uint64_t bits : {0x8000000000000000u, 0x7ff0000000000000u, 0x7ff0000000000001u, 0xfff8000000abcdefu}) {
    const auto narrow = uint32_t(bits >> 32 | (bits & 0xffff));
    Stream out;
    EXPECT_TRUE(cmp_write_double(&out.ctx, std::bit_cast<double>(bits)));
    EXPECT_TRUE(cmp_write_float(&out.ctx, std::bit_cast<float>(narrow)));
    Stream in;
    for (const std::string &call : out.calls) in.input += call;
    double wideBack = 0;
    float narrowBack = 0;
    EXPECT_TRUE(cmp_read_double(&in.ctx, &wideBack) && cmp_read_float(&in.ctx, &narrowBack));
    EXPECT_EQ(std::bit_cast<uint64_t>(wideBack), bits);
    EXPECT_EQ(std::bit_cast<uint32_t>(narrowBack), narrow);
  }
}

TEST(Cmp, StringsNeedRoomForTheirZeroByteAndBytesDoNot) {
  const std::tuple<bool, const char *, uint32_t, int, uint32_t, std::string> cases[] = {
      {true, "a5 p68656c6c6f", 0, 1, 5, "########"},
      {true, "a5 p68656c6c6f", 4, 1, 5, "########"},
      {true, "a5 p68656c6c6f", 5, 1, 5, "########"},
      {true, "a5 p68656c6c6f", 6, 0, 5, "hello\0##"s},
      {true, "a0", 0, 1, 0, "########"},
      {true, "a0", 1, 0, 0, "\0#######"s},
      {true, "db nffffffff", UINT32_MAX, 1, UINT32_MAX, "########"},
      {false, "c4 s05 p68656c6c6f", 4, 2, 4, "########"},
      {false, "c4 s05 p68656c6c6f", 5, 0, 5, "hello###"},
      {false, "c4 s00", 0, 0, 0, "########"},
      {false, "c6 sffffffff", UINT32_MAX - 1, 2, UINT32_MAX - 1, "########"},
  };
  for (const auto &[isString, wire, room, error, size, data] : cases) {
    SCOPED_TRACE(wire + " into "s + std::to_string(room));
    Stream stream(wire);
    std::string to = "########";
    uint32_t length = room;
    const auto read = [&] {
      return isString ? cmp_read_str(&stream.ctx, to.data(), &length) : cmp_read_bin(&stream.ctx, to.data(), &length);
    };
    EXPECT_EQ(read(), error == 0);
    EXPECT_EQ(stream.ctx.error, error);
    EXPECT_EQ(length, size);
    EXPECT_EQ(to, data);
    EXPECT_EQ(stream.calls, callsFor(error == 0 ? fieldsOf(wire) : headerOf(fieldsOf(wire))));
  }
}

// ---- Errors and the context ----

TEST(Cmp, TextsOfTheErrors) {
  const char *const texts[] = {"No Error",
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
                               "Max Error"};
  static_assert(std::size(cmp_error_messages) == std::size(texts));
  for (size_t code = 0; code < std::size(texts); ++code) EXPECT_STREQ(cmp_error_messages[code], texts[code]);
  for (size_t code = 0; code < 256; ++code) {
    const cmp_context ctx = {uint8_t(code), nullptr, nullptr, nullptr};
    EXPECT_STREQ(cmp_strerror(&ctx), code >= 1 && code <= 15 ? texts[code] : "") << code;
  }
}

TEST(Cmp, AnErrorStaysUntilTheNextOneOrANewStart) {
  Stream stream("c0 vc0");
  uint8_t number;
  EXPECT_FALSE(cmp_read_u8(&stream.ctx, &number));
  EXPECT_TRUE(cmp_read_nil(&stream.ctx));
  EXPECT_EQ(stream.ctx.error, 13);
  EXPECT_FALSE(cmp_write_pfix(&stream.ctx, 200));
  EXPECT_EQ(stream.ctx.error, 5);
  cmp_init(&stream.ctx, &stream, Stream::read, Stream::write);
  EXPECT_EQ(stream.ctx.error, 0);
}

TEST(Cmp, AMissingCallbackRefuses) {
  cmp_context ctx;
  cmp_init(&ctx, nullptr, nullptr, nullptr);
  EXPECT_FALSE(cmp_read_nil(&ctx));
  EXPECT_EQ(ctx.error, 7);
  EXPECT_FALSE(cmp_write_nil(&ctx));
  EXPECT_EQ(ctx.error, 8);
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
  EXPECT_EQ(error, 1);
  EXPECT_FALSE(qelnk::cmp::writeBin(out, nullptr, tooLong, error));
  EXPECT_EQ(error, 2);
  EXPECT_FALSE(qelnk::cmp::writeArray(out, tooLong, error));
  EXPECT_EQ(error, 3);
  EXPECT_FALSE(qelnk::cmp::writeMap(out, tooLong, error));
  EXPECT_EQ(error, 4);
}

}  // namespace
