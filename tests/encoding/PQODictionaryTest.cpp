#include <QELNetworkKit/PQODictionary.h>
#include <gtest/gtest.h>

#include <utility>

using qelnk::Value;

namespace {

Value keysOf(const PQODictionary &dictionary) {
  Value keys = Value::list();
  for (const Value &key : dictionary) keys.append(key);
  return keys;
}

TEST(PQODictionary, KeepsTheOrderOfFirstSetting) {
  PQODictionary dictionary;
  dictionary.setObject(1, "b");
  dictionary.setObject(2, "a");
  dictionary.setObject(3, "b");
  EXPECT_EQ(keysOf(dictionary), Value::list({"b", "a"}));
  EXPECT_EQ(*dictionary.objectForKey("b"), Value(3));
  const PQODictionary before = dictionary;
  dictionary.setObject(std::nullopt, "b");
  EXPECT_EQ(keysOf(dictionary), Value::list({"a"}));
  EXPECT_EQ(dictionary.objectForKey("b"), nullptr);
  dictionary.setObject(nullptr, "null");  // null is a value, absence removes
  EXPECT_EQ(dictionary.count(), 2u);
  EXPECT_EQ(before.count(), 2u);
  EXPECT_EQ(before.reverseKeyEnumerator(), (std::vector<Value>{"a", "b"}));
  EXPECT_EQ(before.keyAtIndex(1), Value("a"));
  EXPECT_THROW(before.keyAtIndex(2), std::out_of_range);
}

TEST(PQODictionary, EqualityLooksAtOrderAndHashDoesNot) {
  const PQODictionary a{{"x", 1}, {"y", Value::list({1})}}, b{{"y", Value::list({1})}, {"x", 1}};
  EXPECT_FALSE(a == b);
  EXPECT_EQ(a.hash(), b.hash());
  EXPECT_TRUE(a == a.copy());
  EXPECT_EQ(a.toDictionary(), b.toDictionary());
  EXPECT_NE(Value(a), a.toDictionary());
  EXPECT_EQ(Value(a), Value(a.mutableCopy()));
}

TEST(PQODictionary, InsertingListsAKeyTwice) {
  PQODictionary dictionary{{"a", 1}, {"b", 2}};
  dictionary.insertObject(3, "c", 0);
  EXPECT_EQ(keysOf(dictionary), Value::list({"c", "a", "b", "c"}));
  EXPECT_EQ(dictionary.count(), 4u);
  EXPECT_EQ(dictionary.toDictionary().size(), 3u);
  dictionary.insertObject(4, "c", 2);  // leaves both of its places first
  EXPECT_EQ(keysOf(dictionary), Value::list({"a", "b", "c", "c"}));
  EXPECT_THROW(dictionary.insertObject(5, "c", 3), std::out_of_range);
  EXPECT_EQ(*dictionary.objectForKey("c"), Value(4));
  dictionary.removeObjectForKey(dictionary.keyAtIndex(2));
  EXPECT_EQ(keysOf(dictionary), Value::list({"a", "b"}));
}

// In a map that is a key, the order of entries counts, in both of a dictionary's containers.
TEST(PQODictionary, MapsThatAreKeysAreToldApartByTheirOrder) {
  const Value xy = Value::map({{"x", 1}, {"y", 2}}), yx = Value::map({{"y", 2}, {"x", 1}});
  PQODictionary dictionary{{xy, 1}, {yx, 2}};
  EXPECT_EQ(dictionary.count(), 2u);
  dictionary.insertObject(3, xy, 1);  // beyond the end, had it taken both out
  EXPECT_EQ(dictionary.count(), 3u);
  dictionary.removeObjectForKey(xy);
  EXPECT_EQ(dictionary.count(), 1u);
  EXPECT_EQ(*dictionary.objectForKey(dictionary.keyAtIndex(0)), Value(2));
  EXPECT_NE((PQODictionary{{xy, 1}}), (PQODictionary{{yx, 1}}));
  EXPECT_NE(Value(PQODictionary{{xy, 1}}), Value(PQODictionary{{yx, 1}}));
}

TEST(PQODictionary, ThePlainMapIsACopyThatCannotBeAddedTo) {
  PQODictionary dictionary{{"a", 1}};
  const auto &plain = dictionary.toDictionary();
  dictionary.setObject(2, "b");
  EXPECT_EQ(plain, Value::map({{"a", 1}}));
  EXPECT_THROW(PQODictionary().addEntriesFromDictionary(dictionary.toDictionary()), qelnk::UnrecognizedOperation);
}

TEST(PQODictionary, WhatWasMovedFromIsEmpty) {
  PQODictionary dictionary{{"a", 1}};
  const PQODictionary taken = std::move(dictionary);
  dictionary.sortKeysUsingSelector([](const Value &, const Value &) { return false; }, true);
  EXPECT_EQ(dictionary.description(), "{\n}");
  dictionary.setObject(2, "b");
  EXPECT_EQ(dictionary, (PQODictionary{{"b", 2}}));
}

TEST(PQODictionary, AddsToTheListUnderAKey) {
  PQODictionary dictionary{{"n", 1}};
  dictionary.addObject("x", "list");
  dictionary.addObject("y", "list");
  EXPECT_EQ(*dictionary.objectForKey("list"), Value::list({"x", "y"}));
  EXPECT_THROW(dictionary.addObject(2, "n"), std::logic_error);
}

TEST(PQODictionary, AddingEntriesChangesNothingOrIsRefused) {
  Value plain = Value::map({{"a", 1}, {"b", 2}, {"c", 3}});
  const Value constant = plain;
  PQODictionary dictionary{{"own", 1}};
  dictionary.addEntriesFromDictionary(plain);
  dictionary.addEntriesFromDictionary(Value::map({{"x", 1}}));
  EXPECT_EQ(dictionary, (PQODictionary{{"own", 1}}));
  EXPECT_EQ(plain, constant);
  EXPECT_THROW(dictionary.addEntriesFromDictionary(constant), qelnk::UnrecognizedOperation);
  EXPECT_THROW(dictionary.addEntriesFromOrderedDictionary(PQODictionary{{"x", 1}}), qelnk::UnrecognizedOperation);
  EXPECT_EQ(PQODictionary::dictionaryWithDictionary(plain).count(), 0u);
  EXPECT_EQ(PQODictionary::d(plain).count(), 0u);
  EXPECT_THROW(PQODictionary::d(constant), qelnk::UnrecognizedOperation);
}

TEST(PQODictionary, SortsDeeplyThroughOrderedMapsAlone) {
  const auto before = [](const Value &a, const Value &b) { return a.string() < b.string(); };
  const PQODictionary inner{{"q", 1}, {"p", PQODictionary{{"2", 1}, {"1", 1}}}};
  PQODictionary dictionary{{"b", inner}, {"a", Value::map({{"z", 1}, {"y", 2}})}};
  PQODictionary shallow = dictionary;
  shallow.sortKeysUsingSelector(before, false);
  EXPECT_EQ(keysOf(shallow), Value::list({"a", "b"}));
  EXPECT_EQ(*shallow.objectForKey("b"), Value(inner));
  dictionary.sortKeysUsingSelector(before, true);
  EXPECT_EQ(keysOf(dictionary.objectForKey("b")->orderedMap()), Value::list({"p", "q"}));
  EXPECT_EQ(keysOf(dictionary["b"]["p"].orderedMap()), Value::list({"1", "2"}));
  EXPECT_EQ(dictionary["a"].entries()[0].key, Value("z"));
}

TEST(PQODictionary, EnumeratesUntilStoppedAndMaps) {
  PQODictionary dictionary{{"a", 1}, {"b", 2}, {"c", 3}};
  std::string seen;
  dictionary.enumerateKeysAndObjectsUsingBlock([&](const Value &key, const Value &, bool &stop) {
    seen += key.string();
    dictionary.removeObjectForKey("c");
    stop = key == Value("b");
  });
  EXPECT_EQ(seen, "ab");
  const Value doubled = PQODictionary{{"a", 1}, {"b", "no"}, {"c", 3}}.map(
      [](const Value &, const Value &value, bool &) -> std::optional<Value> {
        if (!value.isNumber()) return std::nullopt;
        return value.integerValue() * 2;
      });
  EXPECT_EQ(doubled, Value::list({2, 6}));
}

TEST(PQODictionary, DescribesItsEntriesLineByLine) {
  EXPECT_EQ(PQODictionary().description(), "{\n}");
  EXPECT_EQ((PQODictionary{{"name", "text"}, {"n", 7}}.description()), "{\n  name: text\n  n: 7\n}");
  const PQODictionary inner{{"n", 7}};
  EXPECT_EQ((PQODictionary{{"in", inner}, {inner, PQODictionary()}, {"list", Value::list({"x"})}}.description()),
            "{\n  in: {\n  n: 7\n}\n  {\n  n: 7\n}: {\n}\n  list: [\"x\"]\n}");
  PQODictionary deep;
  for (int i = 0; i < 100'000; ++i) deep = i % 2 ? PQODictionary{{"k", deep}} : PQODictionary{{deep, i}};
  EXPECT_GT(deep.description().size(), 500'000u);
}

}  // namespace
