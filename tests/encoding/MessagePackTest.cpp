#include <QELNetworkKit/MPMessagePack.h>
#include <QELNetworkKit/XMLDocument.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <array>
#include <limits>

using qelnk::Data;
using qelnk::Error;
using qelnk::Kind;
using qelnk::Value;

namespace {

std::string hex(const Value &value) {
  return qelnk::mp_hexString(MPMessagePackWriter::writeObject(value).span()).value();
}
Data bytes(std::string_view digits) { return qelnk::mp_dataFromHexString(digits); }

TEST(MessagePack, WritesTheSmallestForm) {
  const std::pair<Value, const char *> cases[] = {{nullptr, "c0"},
                                                  {true, "c3"},
                                                  {false, "c2"},
                                                  {127, "7f"},
                                                  {uint64_t(128), "cc80"},
                                                  {255, "ccff"},
                                                  {256, "cd0100"},
                                                  {65536, "ce00010000"},
                                                  {int64_t(1) << 32, "cf0000000100000000"},
                                                  {std::numeric_limits<uint64_t>::max(), "cfffffffffffffffff"},
                                                  {-1, "ff"},
                                                  {-32, "e0"},
                                                  {-33, "d0df"},
                                                  {-129, "d1ff7f"},
                                                  {int64_t(-32769), "d2ffff7fff"},
                                                  {std::numeric_limits<int64_t>::min(), "d38000000000000000"},
                                                  {3.5f, "ca40600000"},
                                                  {3.5, "cb400c000000000000"},
                                                  {"", "a0"},
                                                  {"abc", "a3616263"},
                                                  {Data(), "c400"},
                                                  {Data{1, 2}, "c4020102"},
                                                  {Value::list(), "90"},
                                                  {Value::list({1, "a"}), "9201a161"},
                                                  {Value::map({{"k", Value::list()}}), "81a16b90"}};
  for (const auto &[value, expected] : cases) EXPECT_EQ(hex(value), expected) << value;
  EXPECT_EQ(hex(std::string(32, 'a')).substr(0, 6), "d92061");
  EXPECT_EQ(hex(std::string(300, 'a')).substr(0, 6), "da012c");
}

// Short strings are written by whole words: at every length, and at every distance from where the writer's room ends.
TEST(MessagePack, StringsOfEveryLengthAtEveryPlace) {
  for (size_t length = 0; length < 31; ++length)
    for (size_t before = 440; before < 530; ++before) {
      std::string letters(length, 'x');
      for (size_t i = 0; i < length; ++i) letters[i] = char('a' + i);
      Value list = Value::list();
      list.append(std::string(before, '-'));
      for (int i = 0; i < 4; ++i) list.append(letters);
      std::string expected = "\x95\xda" + std::string{char(before >> 8), char(before)} + std::string(before, '-');
      for (int i = 0; i < 4; ++i) expected += char(0xA0 | length) + letters;
      ASSERT_EQ(Data(expected), MPMessagePackWriter::writeObject(list)) << length << " behind " << before;
    }
}

TEST(MessagePack, ReadsEveryTypeToItsWidth) {
  const std::tuple<const char *, Kind, Value> cases[] = {
      {"00", Kind::uint8, 0},
      {"ff", Kind::int8, -1},
      {"cc80", Kind::uint8, 128},
      {"cd0100", Kind::uint16, 256},
      {"ce00010000", Kind::uint32, 65536},
      {"cf8000000000000000", Kind::uint64, uint64_t(1) << 63},
      {"d0df", Kind::int8, -33},
      {"d1ff7f", Kind::int16, -129},
      {"d2ffff7fff", Kind::int32, -32769},
      {"d3ffffffffffffffff", Kind::int64, -1},
      {"ca40600000", Kind::float32, 3.5},
      {"cb400c000000000000", Kind::float64, 3.5},
      {"c3", Kind::boolean, true},
      {"c0", Kind::null, nullptr},
      {"a161", Kind::string, "a"},
      {"d90161", Kind::string, "a"},
      {"da000161", Kind::string, "a"},
      {"db0000000161", Kind::string, "a"},
      {"a2c3a9", Kind::string, "é"},
      {"a2ff61", Kind::data, Data{0xFF, 0x61}},  // no UTF-8: the bytes
      {"c40161", Kind::data, Data{0x61}},
      {"c5000161", Kind::data, Data{0x61}},
      {"c60000000161", Kind::data, Data{0x61}},
      {"dc000101", Kind::list, Value::list({1})},
      {"dd0000000101", Kind::list, Value::list({1})},
      {"de0001a16101", Kind::map, Value::map({{"a", 1}})},
      {"df0000000101c0", Kind::map, Value::map({{1, nullptr}})},
      {"82a16101a16102", Kind::map, Value::map({{"a", 2}})},
      {"01c1c1", Kind::uint8, 1}};  // what follows is not looked at
  for (const auto &[digits, kind, expected] : cases) {
    Error error;
    const auto value = qelnk::mp_object(bytes(digits).span(), &error);
    ASSERT_TRUE(value) << digits << ": " << error.description;
    EXPECT_EQ(value->kind(), kind) << digits;
    EXPECT_EQ(*value, expected) << digits;
  }
}

TEST(MessagePack, TellsWhatIsWrong) {
  const std::tuple<const char *, int, const char *> cases[] = {
      {"", 200, "Unable to read object"},
      {"c1", 200, "Unable to read object"},
      {"cd01", 200, "Unable to read object"},
      {"d9c861626364656667", 298, "Invalid data length, data might be malformed"},
      {"c4c861626364656667", 298, "Invalid data length, data might be malformed"},
      {"9200a5616263", 206, "Unable to read string"},
      {"9200c4056162", 202, "Unable to read bytes"},
      {"92c0", 200, "Unable to read object"},
      {"dd7fffffff0102", 200, "Unable to read object"},
      {"d40102", 201, "Unsupported object type: 22"},
      {"c7020102", 201, "Unsupported object type: 9"},
      {"9301c703", 200, "Unable to read object"},
      {"81a16bd7000000000000000000", 201, "Unsupported object type: 25"}};
  for (const auto &[digits, code, text] : cases) {
    Error error;
    const auto value = qelnk::mp_object(bytes(digits).span(), &error);
    EXPECT_FALSE(value) << digits;
    EXPECT_EQ(error.domain, "MPMessagePack");
    EXPECT_EQ(error.code, code) << digits;
    EXPECT_EQ(error.description, text) << digits;
  }
}

TEST(MessagePack, MapsAndListsAreToldApart) {
  Error error;
  EXPECT_FALSE(qelnk::mp_dict(bytes("9101").span(), &error));
  EXPECT_EQ(error.code, -1);
  EXPECT_EQ(error.description, "Object was not of type NSDictionary or PQODictionary");
  EXPECT_EQ(error.userInfo["MPObject"], Value::list({1}));
  EXPECT_FALSE(qelnk::mp_array(bytes("80").span(), &error));
  EXPECT_EQ(error.description, "Object was not of type NSArray");
  EXPECT_TRUE(qelnk::mp_dict(bytes("80").span(), MPMessagePackReaderOrderedDictionaries)->isOrderedMap());
  // The options of mp_array are not passed on.
  EXPECT_TRUE((*qelnk::mp_array(bytes("9180").span(), MPMessagePackReaderOrderedDictionaries))[0].isMap());
}

TEST(MessagePack, OrderedDictionariesKeepTheirOrder) {
  PQODictionary inner{{"y", 1}, {"x", 2}};
  const Value tree = PQODictionary{{"z", Value::list({inner, "text"})}, {"a", 1}, {"m", inner}};
  const Data encoded = mp_messagePack(tree);
  const auto back = qelnk::mp_dict(encoded.span(), MPMessagePackReaderOrderedDictionaries);
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, tree);
  EXPECT_EQ(mp_messagePack(*back), encoded);
  EXPECT_EQ((*qelnk::mp_dict(encoded.span()))["z"][0], inner.toDictionary());
  PQODictionary twice{{"a", 1}};
  twice.insertObject(2, "b", 0);
  EXPECT_EQ(hex(twice), "83a16202a16101a16202");
}

TEST(MessagePack, SortsKeysWithoutCase) {
  const Value map =
      Value::map({{"cherry", 1}, {"Banana", 2}, {"apple", Value::map({{"b", 1}, {"A", 2}})}, {"Éclair", 3}, {7, 4}});
  const auto sorted =
      qelnk::mp_dict(mp_messagePack(map, MPMessagePackWriterSortKeys).span(), MPMessagePackReaderOrderedDictionaries);
  std::string order;
  for (const Value &key : sorted->orderedMap()) order += key.isString() ? std::string(key.string()) + " " : "7 ";
  EXPECT_EQ(order, "7 apple Banana cherry Éclair ");
  EXPECT_EQ((*sorted)["apple"].orderedMap().keyAtIndex(0), Value("A"));
  EXPECT_EQ(MPMessagePackWriter::writeObject(PQODictionary{{"b", 1}, {"a", 2}}, MPMessagePackWriterSortKeys),
            bytes("82a16102a16201"));
}

// Lists and maps as keys come last, in an order of their own, and cost no text.
TEST(MessagePack, SortsKeysOfEveryKind) {
  const Value map = Value::map({{Value::list({2}), 1}, {Value::map(), 2}, {"b", 3}, {Value::list({1}), 4}, {10, 5}});
  EXPECT_EQ(qelnk::mp_hexString(mp_messagePack(map, MPMessagePackWriterSortKeys).span()),
            "850a05a162039101049102018002");
  constexpr size_t depth = 100'000;
  Data unsorted, sorted;  // each level {deeper: 1, 2: 3}, deeper first and last
  for (size_t i = 0; i < depth; ++i) {
    unsorted.append("\x82");
    sorted.append(Data{0x82, 2, 3}.span());
  }
  unsorted.append("\x05");
  sorted.append("\x05");
  for (size_t i = 0; i < depth; ++i) {
    unsorted.append(Data{1, 2, 3}.span());
    sorted.append("\x01");
  }
  // The innermost has numbers alone.
  std::copy_n(Data{0x82, 2, 3, 5, 1}.data(), 5, sorted.mutableData() + 3 * (depth - 1));
  EXPECT_EQ(mp_messagePack(*qelnk::mp_dict(unsorted.span()), MPMessagePackWriterSortKeys), sorted);
}

TEST(MessagePack, ZeroIsAnOptionEverywhere) {
  const Value map = Value::map({{"a", 1}}), list = Value::list({1});
  const Data bytes = mp_messagePack(map, 0);
  Error error;
  EXPECT_EQ(MPMessagePackWriter::writeObject(map, 0), bytes);
  EXPECT_EQ(MPMessagePackWriter::writeObject(map, 0u, &error), bytes);
  EXPECT_EQ(MPMessagePackWriter::writeObject(map, nullptr), bytes);
  EXPECT_EQ(*MPMessagePackReader::readData(bytes.span(), 0), map);
  EXPECT_EQ(*qelnk::mp_dict(bytes.span(), 0), map);
  EXPECT_EQ(*qelnk::mp_array(mp_messagePack(list, 0).span(), 0), list);
}

TEST(MessagePack, AFailedWriteKeepsItsBytesOrGivesNone) {
  const Value tree = Value::list({1, qelnk::XMLDocument(), 2});
  Error error;
  EXPECT_EQ(MPMessagePackWriter::writeObject(tree, &error), bytes("9301"));
  EXPECT_EQ(error.code, 102);
  EXPECT_EQ(error.description.rfind("Unable to write object: ", 0), 0u);
  error = {};
  EXPECT_FALSE(MPMessagePackWriter().write(tree, 0, &error));
  EXPECT_TRUE(error);
}

TEST(MessagePack, AReaderGoesThroughABufferObjectByObject) {
  MPMessagePackReader reader(bytes("01a161d9"));
  EXPECT_EQ(*reader.readObject(), Value(1));
  EXPECT_EQ(*reader.readObject(), Value("a"));
  EXPECT_EQ(reader.index(), 3u);
  Error error;
  EXPECT_FALSE(reader.readObject(&error));
  EXPECT_EQ(reader.index(), 3u);
  EXPECT_EQ(error.code, 200);
}

TEST(MessagePack, BytesBetweenObjectsAreReadAndWrittenAsTheyAre) {
  MPMessagePackWriter writer;
  ASSERT_TRUE(writer.write(1, 0));
  EXPECT_EQ(writer.write(Data{0xC1, 0xC1, 0x80}.span()), 3u);
  EXPECT_EQ(writer.data(), bytes("01c1c180"));
  MPMessagePackReader reader(writer.data());
  EXPECT_EQ(*reader.readObject(), Value(1));
  std::array<uint8_t, 4> room{};
  EXPECT_EQ(reader.read(room), 0u);
  EXPECT_EQ(reader.index(), 1u);
  EXPECT_EQ(reader.read(std::span(room).first(2)), 2u);
  EXPECT_EQ(room, (std::array<uint8_t, 4>{0xC1, 0xC1}));
  reader.setOptions(MPMessagePackReaderOrderedDictionaries);
  EXPECT_TRUE(reader.readObject()->isOrderedMap());
  EXPECT_EQ(reader.index(), reader.data().size());
}

TEST(MessagePack, HexadecimalText) {
  EXPECT_EQ(qelnk::mp_hexString(Data{0x0A, 0xFF}.span()), "0aff");
  EXPECT_FALSE(qelnk::mp_hexString({}));
  EXPECT_EQ(qelnk::mp_dataFromHexString("0aff"), (Data{0x0A, 0xFF}));
  EXPECT_EQ(qelnk::mp_dataFromHexString("abc"), (Data{0xAB, 0x0C}));
  EXPECT_EQ(qelnk::mp_dataFromHexString("zz1xx2"), (Data{0x00, 0x01, 0x00}));
  EXPECT_TRUE(qelnk::mp_dataFromHexString("").empty());
  // Pairs of characters, of which one beyond the basic plane counts as two.
  EXPECT_EQ(qelnk::mp_dataFromHexString("é1ab"), (Data{0x00, 0xAB}));
  EXPECT_EQ(qelnk::mp_dataFromHexString("1€ab"), (Data{0x01, 0xAB}));
  EXPECT_EQ(qelnk::mp_dataFromHexString("😀ab"), (Data{0x00, 0xAB}));
}

Data sample() {
  return mp_messagePack(Value::map({{"command", "setPortValue"},
                                    {"list", Value::list({1, -5, 3.5, 2.5f, true, nullptr, std::string(32, 's')})},
                                    {"bytes", Data{1, 2, 3, 0x91, 0xDF}},
                                    {"map", Value::map({{1, 2}, {"k", Value::list({"é", Value::map()})}})},
                                    {"big", int64_t(-1) << 40}}));
}

// Whatever is cut off or changed, the end is a value or an error, and what a value holds can be used.
TEST(MessagePack, EveryTruncationAndEveryChangedByteEndsInAValueOrAnError) {
  const Data good = sample();
  const auto check = [](std::span<const uint8_t> input, int64_t options) {
    Error error;
    const auto value = MPMessagePackReader::readData(input, options, &error);
    ASSERT_EQ(value.has_value(), !error) << error.description;
    if (value) {
      EXPECT_GT(MPMessagePackWriter::writeObject(*value).size(), 0u);
      EXPECT_FALSE(value->description().empty());
    }
  };
  for (size_t length = 0; length < good.size(); ++length) {
    const Data cut(good.span().first(length));  // in a block of its own, so that a sanitizer sees a read beyond it
    Error error;
    EXPECT_FALSE(qelnk::mp_object(cut.span(), &error)) << length;
    check(cut.span(), 0);
    check(cut.span(), 1);
  }
  const size_t text = good.text().find("ssss");  // the same everywhere inside
  Data changed(good.span());
  for (size_t at = 0; at < good.size(); at = at == text ? text + 31 : at + 1)
    for (int byte = 0; byte < 256; ++byte) {
      changed.mutableData()[at] = uint8_t(byte);
      check(changed.span(), byte % 2);
      changed.mutableData()[at] = good[at];
    }
}

// Lengths that an input only claims must not cost memory: nested arrays of "all that remains", and a huge map.
TEST(MessagePack, ClaimsCostNoMemory) {
  Data nested;
  for (int i = 0; i < 200000; ++i) nested.append(Data{0xDC, 0xFF, 0xFF}.span());
  const size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
  Error error;
  EXPECT_FALSE(qelnk::mp_object(nested.span(), &error));
  EXPECT_EQ(error.code, 200);
  EXPECT_FALSE(qelnk::mp_object(bytes("dfffffffff01").span()));
  // The peak is not visible here, but an allocation in proportion to the claims would have failed or taken minutes.
  EXPECT_LT(mallinfo2().uordblks + mallinfo2().hblkhd, before + (size_t(64) << 20));
}

}  // namespace
