#include <QELNetworkKit/MPMessagePack.h>
#include <QELNetworkKit/Value.h>
#include <QELNetworkKit/XMLDocument.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <limits>
#include <sstream>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "encoding/ValueStorage.h"

using qelnk::Data;
using qelnk::Kind;
using qelnk::Value;

namespace {

const std::string longText(300, 'x');

TEST(Value, RemembersKindsAndWidths) {
  const std::vector<std::pair<Value, Kind>> cases = {{nullptr, Kind::null},
                                                     {true, Kind::boolean},
                                                     {int8_t(-3), Kind::int8},
                                                     {int16_t(-3), Kind::int16},
                                                     {-3, Kind::int32},
                                                     {int64_t(-3), Kind::int64},
                                                     {uint8_t(3), Kind::uint8},
                                                     {uint16_t(3), Kind::uint16},
                                                     {3u, Kind::uint32},
                                                     {uint64_t(3), Kind::uint64},
                                                     {3.5f, Kind::float32},
                                                     {3.5, Kind::float64},
                                                     {"", Kind::string},
                                                     {longText, Kind::string},
                                                     {Data{1, 2}, Kind::data},
                                                     {Value::list(), Kind::list},
                                                     {Value::map(), Kind::map},
                                                     {PQODictionary(), Kind::orderedMap},
                                                     {qelnk::XMLDocument(), Kind::xml}};
  for (const auto &[value, kind] : cases) {
    EXPECT_EQ(value.kind(), kind) << value;
    const Value copy = value;
    EXPECT_EQ(copy.kind(), kind);
    EXPECT_EQ(copy, value) << value;
    EXPECT_EQ(copy.hash(), value.hash()) << value;
  }
}

TEST(Value, NumbersAreEqualByValueAndHashAlike) {
  const std::vector<std::vector<Value>> classes = {{int8_t(7), uint16_t(7), 7, int64_t(7), uint64_t(7), 7.0f, 7.0},
                                                   {-7, int64_t(-7), -7.0},
                                                   {0, 0u, 0.0, -0.0},
                                                   {true},
                                                   {false},
                                                   {0.1},
                                                   {0.1f},
                                                   {std::numeric_limits<uint64_t>::max()},
                                                   {std::numeric_limits<int64_t>::max()},
                                                   {0x1p63, uint64_t(1) << 63},
                                                   {std::numeric_limits<int64_t>::min(), -0x1p63},
                                                   {(int64_t(1) << 53) + 1},
                                                   {0x1p53, int64_t(1) << 53},
                                                   {std::numeric_limits<double>::infinity()},
                                                   {"7"},
                                                   {std::nan(""), float(std::nan("1"))},
                                                   {nullptr}};
  for (size_t i = 0; i < classes.size(); ++i)
    for (const Value &a : classes[i])
      for (size_t j = 0; j < classes.size(); ++j)
        for (const Value &b : classes[j]) {
          EXPECT_EQ(a == b, i == j) << a << " and " << b;
          if (i == j) {
            EXPECT_EQ(a.hash(), b.hash()) << a << " and " << b;
          }
        }
}

TEST(Value, HashesLookIntoWhatIsNested) {
  std::unordered_set<size_t> hashes;
  for (int i = 0; i < 1000; ++i) {
    hashes.insert(Value::list({Value::list({i})}).hash());
    hashes.insert(Value::list({Value::list({Value::map({{"k", Value::list({i})}})})}).hash());
    hashes.insert(Value::map({{"k", PQODictionary{{"deep", Value::list({longText + std::to_string(i), i})}}}}).hash());
  }
  EXPECT_GT(hashes.size(), 2990u);
  // Neither the order of entries nor the form of a number changes what is equal.
  const Value list = Value::list({1, Value::list({2.0f, "x"})}), same = Value::list({1.0, Value::list({2, "x"})});
  EXPECT_EQ(Value::list({Value::map({{"a", list}, {"b", Value::list({"b"})}})}).hash(),
            Value::list({Value::map({{"b", Value::list({"b"})}, {"a", same}})}).hash());
  PQODictionary twice{{"a", list}};
  twice.insertObject(list, "b", 0);
  EXPECT_EQ(twice.hash(), (PQODictionary{{"a", same}, {"b", same}}.hash()));
}

// A key that differs from others of its kind only where no hash looks.
Value crowdedKey(int number) {
  Value inner = Value::list();
  for (int i = 0; i < 100; ++i) inner.append(0);
  inner.append(number);
  return Value::list({inner});
}

TEST(Value, MapsWorkWithKeysOfOneHash) {
  constexpr int count = 500;
  Value entries = Value::map(), list = Value::list();
  ASSERT_EQ(crowdedKey(1).hash(), crowdedKey(2).hash());
  Data bytes{0xDE, 0x03, 0xE8};  // every key twice, the second time with another value
  for (int i = 0; i < 2 * count; ++i) {
    bytes.append(mp_messagePack(crowdedKey(i * 7 % count)).span());
    bytes.append(qelnk::mp_messagePack(i).span());
  }
  for (const int64_t options : {0, int(MPMessagePackReaderOrderedDictionaries)}) {
    const auto decoded = qelnk::mp_dict(bytes.span(), options);
    ASSERT_EQ(decoded->size(), size_t(count));
    Value built = Value::map(), reversed = Value::map();
    for (int i = 0; i < count; ++i) built.set(crowdedKey(i * 7 % count), count + i);
    for (int i = count; i-- > 0;) reversed.set(crowdedKey(i * 7 % count), count + i);
    EXPECT_EQ(options ? decoded->orderedMap().toDictionary() : *decoded, built);
    EXPECT_EQ(reversed, built);
    EXPECT_EQ(mp_messagePack(*decoded), mp_messagePack(built));  // the keys are where they first were
    for (int i = 0; i < count; ++i) EXPECT_EQ(*decoded->find(crowdedKey(i * 7 % count)), Value(count + i));
    EXPECT_FALSE(decoded->find(crowdedKey(count)));
    EXPECT_TRUE(built.erase(crowdedKey(3)));
    EXPECT_FALSE(built.find(crowdedKey(3)));
    EXPECT_EQ(*built.find(crowdedKey(4)), *decoded->find(crowdedKey(4)));
  }
}

// What a peer's keys cost must come from their size, not from how they were chosen.
TEST(Value, ChosenKeysCostLittleMoreThanOthers) {
  constexpr int count = 4000;
  const auto secondsFor = [](const auto &keyFor) {
    Data bytes{0xDE, count >> 8, count & 0xFF};
    for (int i = 0; i < count; ++i) {
      bytes.append(mp_messagePack(keyFor(i)).span());
      bytes.append("\x01");
    }
    timespec before, after;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
    EXPECT_EQ(qelnk::mp_dict(bytes.span())->size(), size_t(count));
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
    return double(after.tv_sec - before.tv_sec) + double(after.tv_nsec - before.tv_nsec) * 1e-9;
  };
  const double ordinary = secondsFor([](int i) { return Value::list({i, crowdedKey(0)}); });
  EXPECT_LT(secondsFor([](int i) { return Value::list({0, crowdedKey(i)}); }), 60 * ordinary);
}

TEST(Value, KeysHaveOneOrder) {
  PQODictionary twice{{"a", 1}};
  twice.insertObject(1, "a", 0);
  std::vector<Value> keys = {nullptr,
                             false,
                             true,
                             std::nan(""),
                             -1e300,
                             std::numeric_limits<int64_t>::min(),
                             -7.5,
                             -7,
                             0,
                             7.0f,
                             7.5,
                             int64_t(1) << 53,
                             (int64_t(1) << 53) + 1,
                             std::numeric_limits<int64_t>::max(),
                             0x1p63,
                             std::numeric_limits<uint64_t>::max(),
                             0x1p64,
                             "a",
                             "b",
                             longText,
                             longText + "y",
                             Data{1},
                             Data{2},
                             Value::list(),
                             Value::list({1, 2}),
                             Value::list({1, 3}),
                             Value::map({{1, 2}, {3, 4}}),
                             Value::map({{3, 4}, {1, 2}}),
                             PQODictionary{{"a", 1}},
                             PQODictionary{{"a", 1}, {"b", 2}},
                             PQODictionary{{"b", 1}, {"a", 2}},
                             twice,
                             *qelnk::XMLDocument::parse("<a/>"),
                             *qelnk::XMLDocument::parse("<b/>")};
  using qelnk::detail::keyBefore;
  std::stable_sort(keys.begin(), keys.end(), keyBefore);
  EXPECT_EQ(keys[4], Value(-1e300));
  EXPECT_EQ(keys[16], Value(0x1p64));
  for (size_t i = 0; i < keys.size(); ++i)
    for (size_t j = 0; j < keys.size(); ++j)
      EXPECT_EQ(keyBefore(keys[i], keys[j]), i < j) << keys[i] << " and " << keys[j];
}

TEST(Value, IntegersAndNullAreKeysHoweverTheyAreWritten) {
  Value map = Value::map({{0, "zero"}, {"", "empty"}, {true, "yes"}});
  EXPECT_EQ(*map.find(0), Value("zero"));
  EXPECT_EQ(*map.find(0u), Value("zero"));
  EXPECT_EQ(*map.find(true), Value("yes"));
  EXPECT_TRUE(map.contains(0));
  EXPECT_FALSE(map.contains(1));
  EXPECT_FALSE(map.contains(nullptr));
  const PQODictionary ordered{{0, "zero"}};
  EXPECT_EQ(*ordered.objectForKey(0), Value("zero"));
  EXPECT_EQ(ordered[0], Value("zero"));
  EXPECT_TRUE(ordered[1].isNull());
  EXPECT_TRUE(map.erase(0));
  EXPECT_FALSE(map.contains(0));
  Value list = Value::list({1, 2, 3});
  EXPECT_EQ(list[0], list[0u]);
  list.eraseAt(1);
  list.eraseAt(2);
  EXPECT_EQ(list, Value::list({1, 3}));
}

struct Reading {
  Value value;
  bool truth;
  int64_t integer;
  double number;
};

TEST(Value, ReadsScalarsAsThePlatformDoes) {
  const Reading readings[] = {{"  42abc", true, 42, 42},
                              {"-7.5e1x", true, -7, -75},
                              {"+3", true, 3, 3},
                              {"", false, 0, 0},
                              {"abc", false, 0, 0},
                              {"inf", false, 0, 0},
                              {" -0009", true, -9, -9},
                              {"000", false, 0, 0},
                              {"Yes", true, 0, 0},
                              {"true", true, 0, 0},
                              {"no", false, 0, 0},
                              {"99999999999999999999", true, std::numeric_limits<int64_t>::max(), 1e20},
                              {true, true, 1, 1},
                              {nullptr, false, 0, 0},
                              {-2.9, true, -2, -2.9},
                              {1e30, true, std::numeric_limits<int64_t>::max(), 1e30},
                              {-1e30, true, std::numeric_limits<int64_t>::min(), -1e30},
                              {Value::list({1}), false, 0, 0}};
  for (const Reading &reading : readings) {
    EXPECT_EQ(reading.value.boolValue(), reading.truth) << reading.value;
    EXPECT_EQ(reading.value.integerValue(), reading.integer) << reading.value;
    EXPECT_EQ(reading.value.doubleValue(), reading.number) << reading.value;
  }
  EXPECT_EQ(Value((int64_t(1) << 40) + 5).intValue(), 5);
  constexpr int32_t least = std::numeric_limits<int32_t>::min(), most = std::numeric_limits<int32_t>::max();
  EXPECT_EQ(Value(3e9).intValue(), most);
  EXPECT_EQ(Value(-3e9f).intValue(), least);
  EXPECT_EQ(Value("4294967301").intValue(), most);
  EXPECT_EQ(Value("-99999999999999999999").intValue(), least);
  EXPECT_EQ(Value(std::numeric_limits<uint64_t>::max()).unsignedValue(), std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(Value(1e19).unsignedValue(), 10000000000000000000u);
}

TEST(Value, ReadsNumbersAlikeInEveryLocale) {
  const std::string folder = testing::TempDir() + "qelnk-locales";
  std::filesystem::create_directories(folder);
  ASSERT_EQ(std::system(("localedef -i de_DE -f ISO-8859-1 " + folder + "/de_DE.ISO-8859-1").c_str()), 0);
  setenv("LOCPATH", folder.c_str(), 1);
  ASSERT_TRUE(std::setlocale(LC_NUMERIC, "de_DE.ISO-8859-1"));
  EXPECT_EQ(Value("1.5e400").doubleValue(), std::numeric_limits<double>::infinity());
  EXPECT_EQ(Value("-1.5e400").doubleValue(), -std::numeric_limits<double>::infinity());
  EXPECT_EQ(Value("1.5e-400").doubleValue(), 0);
  EXPECT_EQ(Value("1.5").doubleValue(), 1.5);
  std::setlocale(LC_NUMERIC, "C");
  unsetenv("LOCPATH");
  std::filesystem::remove_all(folder);
}

TEST(Value, CopiesShareUntilChanged) {
  Value original = Value::map({{"list", Value::list({1, longText})}, {longText, Data{1, 2, 3}}});
  const Value copy = original;
  original.at("list").append("more");
  original.at("list").at(size_t(0)) = 9;
  original.set(longText, 5);
  EXPECT_EQ(original, Value::map({{"list", Value::list({9, longText, "more"})}, {longText, 5}}));
  EXPECT_EQ(copy, Value::map({{"list", Value::list({1, longText})}, {longText, Data{1, 2, 3}}}));

  Data bytes{1, 2, 3};
  const Value held = bytes;
  bytes.mutableData()[0] = 9;
  bytes.append(bytes.span());
  EXPECT_EQ(held.data(), (Data{1, 2, 3}));
  EXPECT_EQ(bytes, (Data{9, 2, 3, 9, 2, 3}));

  Value self = Value::list({1});
  self.append(self);
  self = self[1];
  EXPECT_EQ(self, Value::list({1}));
}

TEST(Value, DecodedTreesAreChangedAndTakenApartSafely) {
  const Data bytes = mp_messagePack(Value::map(
      {{"a", Value::list({longText, Value::map({{"k", longText}})})}, {"big", Data::uninitialized(10000)}, {"n", 1}}));
  Value part, text, changed;
  Data big;
  {
    std::optional<Value> tree = qelnk::mp_dict(bytes.span());
    ASSERT_TRUE(tree);
    part = (*tree)["a"][1];
    text = (*tree)["a"][0];
    big = (*tree)["big"].data();
    changed = *tree;
    changed.at("a").at(size_t(1)).set("k", "new");
    changed.erase("big");
    EXPECT_EQ((*tree)["a"][1]["k"], Value(longText));
    tree->set("n", 2);
    EXPECT_EQ((*tree)["n"], Value(2));
  }
  EXPECT_EQ(part, Value::map({{"k", longText}}));
  EXPECT_EQ(text.string(), longText);
  EXPECT_EQ(big.size(), 10000u);
  EXPECT_EQ(changed["a"][1]["k"], Value("new"));
  EXPECT_EQ(changed.size(), 2u);
  const Value detached = changed.detached();
  changed = nullptr;
  EXPECT_EQ(detached["a"][0].string(), longText);
}

TEST(Value, MapsFindReplaceAndEraseAtEverySize) {
  Value map;
  for (int n = 0; n < 200; ++n) {
    map.set("key " + std::to_string(n), n);
    map.set(n, -n);  // keys need not be strings
  }
  for (int n = 0; n < 200; n += 3) map.set("key " + std::to_string(n), "three");
  for (int n = 0; n < 200; n += 2) EXPECT_TRUE(map.erase(Value("key " + std::to_string(n))));
  EXPECT_FALSE(map.erase("key 0"));
  EXPECT_EQ(map.size(), 300u);
  for (int n = 0; n < 200; ++n) {
    const Value *value = map.find("key " + std::to_string(n));
    ASSERT_EQ(value != nullptr, n % 2 == 1) << n;
    if (value) {
      EXPECT_EQ(*value, n % 3 == 0 ? Value("three") : Value(n));
    }
    EXPECT_EQ(*map.find(Value(double(n))), Value(-n));
  }
  EXPECT_EQ(map.entries()[0].key, Value(0));
  // The same entries in another order, and through an encoding.
  Value reversed = Value::map();
  for (size_t i = map.size(); i-- > 0;) reversed.set(map.entries()[i].key, map.entries()[i].value);
  EXPECT_EQ(reversed, map);
  EXPECT_EQ(reversed.hash(), map.hash());
  EXPECT_EQ(*qelnk::mp_dict(mp_messagePack(map).span()), map);
  reversed.set("key 1", 0);
  EXPECT_NE(reversed, map);
}

TEST(Value, ReadsWhatIsNotThereAsNothing) {
  const Value map = Value::map({{"null", nullptr}, {"n", 1}});
  EXPECT_TRUE(map.contains("null"));
  EXPECT_FALSE(map.contains("absent"));
  EXPECT_TRUE(map["absent"]["deeper"][7].isNull());
  EXPECT_EQ(map["n"].size(), 0u);
  EXPECT_TRUE(map.items().empty());
  EXPECT_TRUE(Value("text").entries().empty());
  EXPECT_THROW(Value(1).append(2), std::logic_error);
  EXPECT_THROW(Value("x").set("k", 2), std::logic_error);
  EXPECT_THROW(Value::list().at(size_t(0)), std::out_of_range);
  EXPECT_THROW(Value::map().at("k"), std::out_of_range);
}

TEST(Value, DescribesItselfOnOneLine) {
  const Value tree = Value::map({{"a\"b", Value::list({1, -2.5, 1.0, true, nullptr, "line\n"})},
                                 {7, Data{1, 2, 255}},
                                 {"ordered", PQODictionary{{"z", 1}, {"a", Value::map()}}}});
  EXPECT_EQ(tree.description(),
            R"({"a\"b": [1, -2.5, 1.0, true, null, "line\n"], 7: <3 bytes: 0102ff>, "ordered": {"z": 1, "a": {}}})");
  std::ostringstream out;
  out << Value(std::numeric_limits<double>::infinity());
  EXPECT_EQ(out.str(), "inf");
}

// A million levels, in each of the shapes that hold something, on a stack of the ordinary size.
TEST(Value, DepthIsLimitedByMemoryAlone) {
  constexpr size_t depth = 1'000'000;
  Data lists, maps, keys;
  for (size_t i = 0; i < depth; ++i) {
    lists.append("\x91");
    maps.append("\x81\xa1k");
    keys.append("\x81");
  }
  lists.append("\x01");
  maps.append("\x01");
  keys.append("\x01");
  for (size_t i = 0; i < depth; ++i) keys.append("\x02");
  for (const Data &bytes : {lists, maps, keys})
    for (const int64_t options : {0, int(MPMessagePackReaderOrderedDictionaries)}) {
      std::optional<Value> tree = MPMessagePackReader::readData(bytes.span(), options);
      ASSERT_TRUE(tree);
      const Value copy = tree->detached();
      EXPECT_TRUE(copy == *tree);
      EXPECT_EQ(copy.hash(), tree->hash());
      EXPECT_EQ(MPMessagePackWriter::writeObject(copy), bytes);
      if (options == 0) {
        EXPECT_EQ(MPMessagePackWriter::writeObject(copy, MPMessagePackWriterSortKeys), bytes);
      }
      EXPECT_GT(copy.description().size(), depth);
      Value other = copy;
      other.isList() ? other.append(1) : other.set("new", 1);
      EXPECT_FALSE(other == copy);
    }
}

TEST(Value, SharedTreesAreReadAndDroppedOnManyThreads) {
  const Value tree =
      *qelnk::mp_dict(mp_messagePack(Value::map({{"list", Value::list({longText, 1})}, {"t", longText}})).span());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([tree] {
      for (int i = 0; i < 2000; ++i) {
        Value mine = tree["list"];
        mine.append(i);
        const Value text = tree["t"];
        ASSERT_EQ(mine.size(), 3u);
        ASSERT_EQ(text.string(), longText);
      }
    });
  for (std::thread &thread : threads) thread.join();
}

TEST(XMLDocument, RoundTripsAndTellsWhereItIsMalformed) {
  const std::string text = R"(<?xml version="1.0"?><project id="7"><name>A &amp; B</name><empty/></project>)";
  qelnk::Error error;
  const auto document = qelnk::XMLDocument::parse(text, &error);
  ASSERT_TRUE(document) << error.description;
  EXPECT_EQ(document->data().text(), text);
  EXPECT_EQ(document->rootName(), "project");
  EXPECT_EQ(document->text("/project/name"), "A & B");
  EXPECT_EQ(document->text("/project/@id"), "7");
  EXPECT_FALSE(document->text("/project/absent"));
  EXPECT_EQ(Value(*document), Value(*qelnk::XMLDocument::parse(text)));
  EXPECT_FALSE(qelnk::XMLDocument::parse("<a><b></a>", &error));
  EXPECT_EQ(error.domain, "XML");
  EXPECT_FALSE(qelnk::XMLDocument::parse(std::string_view(), &error));
}

TEST(XMLDocument, UnderstandsItsEncodingsAndDeclaresTheOneItWrites) {
  const auto written = [](const std::string &text) {
    return std::string(qelnk::XMLDocument::parse(text)->data().text());
  };
  const auto wide = [](const std::string &text, size_t width, bool big, bool mark) {
    std::u32string letters(text.begin(), text.end());
    if (mark) letters.insert(letters.begin(), U'\uFEFF');
    std::string bytes;
    for (const char32_t letter : letters)
      for (size_t i = 0; i < width; ++i) bytes += char(letter >> 8 * (big ? width - 1 - i : i));
    return bytes;
  };
  const std::string body = "<a>x</a>";
  for (const size_t width : {2, 4})
    for (const bool big : {false, true})
      for (const bool mark : {false, true}) {
        const std::string declared = R"(<?xml version="1.0" encoding="UTF-)" + std::to_string(8 * width) + R"("?>)";
        EXPECT_EQ(written(wide(declared + body, width, big, mark)), R"(<?xml version="1.0" encoding="UTF-8"?>)" + body);
        EXPECT_EQ(written(wide(R"(<?xml version="1.0"?>)" + body, width, big, mark)),
                  R"(<?xml version="1.0"?>)" + body);
      }
  EXPECT_EQ(written("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><a>\xe9</a>"),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?><a>é</a>");
  EXPECT_EQ(written(R"(<?xml version="1.0" encoding="windows-1252"?><a>é</a>)"),
            R"(<?xml version="1.0" encoding="windows-1252"?><a>é</a>)");
}

// The byte order mark tells that it is UTF-8; without it a reader would go by the declaration.
TEST(XMLDocument, DeclaresUTF8WhereOnlyAMarkToldSo) {
  for (const std::string declared : {"ISO-8859-1", "iso-8859-1", "Latin1"}) {
    const auto document = qelnk::XMLDocument::parse("\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"" + declared +
                                                    "\" standalone=\"yes\"?><a>é</a>");
    ASSERT_TRUE(document);
    EXPECT_EQ(document->data().text(), R"(<?xml version="1.0" encoding="UTF-8" standalone="yes"?><a>é</a>)");
    EXPECT_EQ(qelnk::XMLDocument::parse(document->data().span())->text("/a"), "é");
  }
}

}  // namespace
