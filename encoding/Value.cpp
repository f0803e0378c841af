#include <QELNetworkKit/Value.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <ostream>
#include <stdexcept>
#include <vector>

#include "encoding/SmallStack.h"
#include "encoding/ValueStorage.h"

namespace qelnk {

using namespace detail;

static_assert(sizeof(Value) == 16 && sizeof(Value::Entry) == 32);
static_assert(std::endian::native == std::endian::little, "short strings lie behind their tag and length");

std::string_view nameOfKind(Kind kind) {
  static constexpr std::string_view names[] = {"null",   "boolean", "int8",   "int16",  "int32",       "int64",
                                               "uint8",  "uint16",  "uint32", "uint64", "float32",     "float64",
                                               "string", "data",    "list",   "map",    "ordered map", "XML document"};
  return names[size_t(kind)];
}

// --- Making ---

static Value ownedBytes(Tag tag, const void *content, size_t size) {
  uint8_t *bytes = BytesHeader::allocate(size);
  std::memcpy(bytes, content, size);
  return Access::makePointer(tag, 0, size, bytes);
}

Value::Value(std::string_view text)
    : Value(text.size() <= shortStringLimit ? Access::shortString(text)
                                            : ownedBytes(tagString, text.data(), text.size())) {}

Value::Value(Data data) : Value(Access::makePointer(tagData, 0, data.size(), data.data())) {
  if (data.empty()) {
    bits_ = 0;
  } else {
    Access::takeBytes(data);
  }
}

Value::Value(PQODictionary map)
    : Value(Access::makePointer(tagOrderedMap, 0, 0, new BoxedOrderedMap(std::move(map)))) {}

Value::Value(XMLDocument document) : Value(Access::makePointer(tagXML, 0, 0, new BoxedXML(std::move(document)))) {}

Value Value::list(std::initializer_list<Value> items) {
  Value list = Access::makePointer(tagList, 0, 0, nullptr);
  list.reserve(items.size());
  for (const Value &item : items) list.append(item);
  return list;
}

Value Value::map(std::initializer_list<std::pair<Value, Value>> entries) {
  Value map = Access::makePointer(tagMap, 0, 0, nullptr);
  map.reserve(entries.size());
  for (const auto &[key, value] : entries) map.set(key, value);
  return map;
}

// --- Sharing and freeing ---

// Completes a copy of the two words: takes a share of what they point to.
void Value::acquire() {
  switch (Tag(uint8_t(head_))) {
    case tagString:
    case tagData:
      if (!bits_) return;
      if (Access::isBorrowed(*this) && Access::length(*this) <= arenaBytesLimit) {
        const uint64_t head = std::exchange(head_, 0);
        new (this) Value(ownedBytes(Tag(uint8_t(head)), reinterpret_cast<const void *>(bits_), head >> 16));
        return;
      }
      BytesHeader::of(Access::pointer<uint8_t>(*this))->retain();
      break;
    case tagList:
    case tagMap:
      if (!bits_) return;
      if (Arena *arena = Access::arenaHeader(*this)->arena) {
        arena->retain();
      } else {
        Access::containerHeader(*this)->references.fetch_add(1, std::memory_order_relaxed);
      }
      break;
    default:
      Access::pointer<Boxed>(*this)->references.fetch_add(1, std::memory_order_relaxed);
  }
  head_ &= ~borrowedFlag;
}

namespace {

bool dropReference(std::atomic<size_t> &references) { return references.fetch_sub(1, std::memory_order_acq_rel) == 1; }

/// The two words of a value that is freed by hand.
struct Unowned {
  union {
    Value value;
  };
  explicit Unowned(Value &taken) {
    std::memcpy(static_cast<void *>(this), static_cast<const void *>(&taken), sizeof(Value));
    new (&taken) Value();
  }
  ~Unowned() {}
};

/// Frees trees without recursion: containers whose last reference has gone wait in a list that runs through their
/// headers.
class Reaper {
 public:
  /// Gives up what a value holds and leaves null.
  void drop(Value &value) {
    const Unowned words(value);
    const Tag tag = Tag(Access::tag(words.value));
    if (tag <= tagMap && (Access::isBorrowed(words.value) || !Access::bits(words.value))) return;
    if (tag <= tagData) {
      BytesHeader::of(Access::pointer<uint8_t>(words.value))->release();
    } else if (tag <= tagMap) {
      dropContainer(words.value);
    } else if (tag == tagOrderedMap) {
      dropOrderedMap(Access::orderedBox(words.value));
    } else if (auto *box = Access::pointer<BoxedXML>(words.value); dropReference(box->references)) {
      delete box;
    }
  }

  void run() {
    while (waiting_) {
      ContainerHeader *header = std::exchange(waiting_, waiting_->next);
      Value *values = header->values();
      for (size_t i = 0; i < header->doomed; ++i)
        if (Access::tag(values[i]) > tagShortString) drop(values[i]);
      std::free(header->tail.index);
      std::free(static_cast<void *>(header));
    }
  }

 private:
  void dropContainer(const Value &value) {
    if (Arena *arena = Access::arenaHeader(value)->arena) return arena->release();
    ContainerHeader *header = Access::containerHeader(value);
    if (!dropReference(header->references)) return;
    header->doomed = Access::values(value).size();
    header->next = std::exchange(waiting_, header);
  }

  void dropOrderedMap(BoxedOrderedMap *box) {
    if (!dropReference(box->references)) return;
    drop(Access::keys(box->map));
    drop(Access::plain(box->map));
    delete box;
  }

  ContainerHeader *waiting_ = nullptr;
};

}  // namespace

void Value::release() noexcept {
  const Tag tag = Tag(uint8_t(head_));
  if (tag <= tagMap && (Access::isBorrowed(*this) || !bits_)) return;
  if (tag <= tagData) return BytesHeader::of(Access::pointer<uint8_t>(*this))->release();
  Reaper reaper;
  reaper.drop(*this);
  reaper.run();
}

// --- Scalars ---

namespace {

/// The decimal number at the start of a text, behind white space, as the family's readers of settings and ports take
/// it.
std::string_view numberText(std::string_view text) {
  const size_t start = text.find_first_not_of(" \t\n\v\f\r");
  if (start == std::string_view::npos) return {};
  text.remove_prefix(start);
  if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
  return text;
}

int64_t integerOf(std::string_view text) {
  text = numberText(text);
  int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc::result_out_of_range)
    return text[0] == '-' ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
  return number;
}

double doubleOf(std::string_view text) {
  text = numberText(text);
  if (text.empty() || std::isalpha(uint8_t(text[text[0] == '-' && text.size() > 1]))) return 0;  // no "inf", no "nan"
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc::result_out_of_range) {
    // Infinity or zero, which strtod tells apart; in the user's locale it would not know the point.
    static const locale_t plain = newlocale(LC_ALL_MASK, "C", nullptr);
    const std::string copy(text.data(), end);
    return strtod_l(copy.c_str(), nullptr, plain);
  }
  return number;
}

bool truthOf(std::string_view text) {
  text = text.substr(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) text.remove_prefix(1);
  text = text.substr(std::min(text.find_first_not_of('0'), text.size()));
  return !text.empty() && std::string_view("YyTt123456789").find(text[0]) != std::string_view::npos;
}

int64_t integerOf(double number) {
  if (std::isnan(number)) return 0;
  if (number >= 0x1p63) return std::numeric_limits<int64_t>::max();
  if (number < -0x1p63) return std::numeric_limits<int64_t>::min();
  return int64_t(number);
}

}  // namespace

bool Value::boolValue() const {
  if (isString()) return truthOf(string());
  if (isFloat()) return doubleValue() != 0;
  return (isNumber() || isBool()) && bits_ != 0;
}

int32_t Value::intValue() const {
  const int64_t number = integerValue();
  if (!isFloat() && !isString()) return int32_t(uint32_t(uint64_t(number)));
  using Limits = std::numeric_limits<int32_t>;
  return int32_t(std::clamp(number, int64_t(Limits::min()), int64_t(Limits::max())));
}

int64_t Value::integerValue() const {
  if (isFloat()) return integerOf(doubleValue());
  if (isNumber() || isBool()) return int64_t(bits_);
  return isString() ? integerOf(string()) : 0;
}

uint64_t Value::unsignedFromFloat() const {
  const double number = doubleValue();
  if (!(number > 0)) return uint64_t(integerOf(number));
  return number >= 0x1p64 ? std::numeric_limits<uint64_t>::max() : uint64_t(number);
}

double Value::doubleValue() const {
  switch (kind()) {
    case Kind::float32:
      return std::bit_cast<float>(uint32_t(bits_));
    case Kind::float64:
      return std::bit_cast<double>(bits_);
    case Kind::string:
      return doubleOf(string());
    case Kind::uint64:
      return double(bits_);
    default:
      return isNumber() || isBool() ? double(int64_t(bits_)) : 0;
  }
}

// --- Bytes, boxes ---

std::span<const uint8_t> Value::bytes() const {
  if (!isData()) return {};
  return {Access::pointer<const uint8_t>(*this), Access::length(*this)};
}

Data Value::data() const {
  const auto content = bytes();
  if (content.empty()) return {};
  if (Access::isBorrowed(*this) && content.size() <= arenaBytesLimit) return Data(content);
  BytesHeader::of(content.data())->retain();
  return Access::dataSharing(content.data(), content.size());
}

const PQODictionary &Value::orderedMap() const {
  static const auto &none = *new PQODictionary();
  return isOrderedMap() ? Access::orderedBox(*this)->map : none;
}

const XMLDocument &Value::xml() const {
  static const auto &none = *new XMLDocument();
  return isXML() ? Access::pointer<BoxedXML>(*this)->document : none;
}

// --- Lists and maps ---

size_t Value::size() const {
  if (Access::isContainer(*this)) return Access::length(*this);
  return isOrderedMap() ? orderedMap().count() : 0;
}

std::span<const Value> Value::items() const { return isList() ? Access::values(*this) : std::span<const Value>(); }

std::span<const Value::Entry> Value::entries() const {
  if (!isMap()) return {};
  return {Access::pointer<const Entry>(*this), Access::length(*this)};
}

static const Value &nullValue() {
  static const Value &null = *new Value;  // there while threads look at values during the process's exit
  return null;
}

// The number of an entry of a plain map.
static size_t findIn(const Value &map, const Value &key) {
  const size_t count = map.size();
  if (count == 0) return 0;
  return findEntry(Access::values(map).data(), count, Access::arenaHeader(map)->index, key);
}

const Value *Value::find(const Value &key) const {
  if (isOrderedMap()) return orderedMap().objectForKey(key);
  if (!isMap()) return nullptr;
  const size_t entry = findIn(*this, key);
  return entry < size() ? &entries()[entry].value : nullptr;
}

const Value *Value::find(std::string_view key) const {
  if (key.size() <= shortStringLimit) return find(Access::shortString(key));
  // A value that borrows the caller's characters: nothing is copied and nothing freed.
  return find(Access::makePointer(tagString, borrowedFlag, key.size(), key.data()));
}

const Value &Value::operator[](std::string_view key) const {
  const Value *value = find(key);
  return value ? *value : nullValue();
}

const Value &Value::operator[](size_t index) const {
  const auto all = items();
  return index < all.size() ? all[index] : nullValue();
}

// --- Changing ---

namespace {

ContainerHeader *allocateContainer(size_t capacity) {
  if (capacity > sizeLimit / sizeof(Value)) throw std::bad_alloc();
  void *memory = std::malloc(sizeof(ContainerHeader) + capacity * sizeof(Value));
  if (!memory) throw std::bad_alloc();
  return new (memory) ContainerHeader{{.references = {1}}, {.capacity = capacity}, {nullptr, nullptr}};
}

MapIndex *allocateIndex(size_t entries) {
  auto *index = static_cast<MapIndex *>(std::calloc(1, MapIndex::bytesFor(entries)));
  if (!index) throw std::bad_alloc();
  index->mask = uint32_t(MapIndex::slotsFor(entries) - 1);
  return index;
}

MapIndex *makeIndex(const Value *values, size_t entries, size_t capacity) {
  MapIndex *index = allocateIndex(capacity);
  for (size_t i = 0; i < entries && !index->sorted; ++i)
    if (index->enter(values, i) == MapIndex::crowded) index->sort(values, entries);
  return index;
}

}  // namespace

Value *Access::mutableValues(Value &value, size_t capacity) {
  const auto old = values(value);
  ContainerHeader *header = nullptr;
  if (value.bits_ && !arenaHeader(value)->arena) header = containerHeader(value);
  if (header && header->references.load(std::memory_order_acquire) == 1) {
    if (header->capacity >= capacity) return header->values();
    const size_t wanted = std::max(capacity, header->capacity * 2);
    if (wanted > sizeLimit / sizeof(Value)) throw std::bad_alloc();
    void *memory = std::realloc(static_cast<void *>(header), sizeof(ContainerHeader) + wanted * sizeof(Value));
    if (!memory) throw std::bad_alloc();
    header = static_cast<ContainerHeader *>(memory);
    header->capacity = wanted;
    setPointer(value, header->values());
    return header->values();
  }
  Value own = make(uint64_t(tag(value)), 0);
  header = allocateContainer(std::max(capacity, old.size()));
  setPointer(own, header->values());
  for (size_t i = 0; i < old.size(); ++i) {  // the size follows each copy, so that a failure frees what is there
    new (header->values() + i) Value(old[i]);
    if (tag(own) == tagList) setLength(own, i + 1);
    if (tag(own) == tagMap) setLength(own, (i + 1) / 2);
  }
  if (tag(own) == tagMap && length(own) > indexedMapSize)
    header->tail.index = makeIndex(header->values(), length(own), length(own));
  value = std::move(own);
  return header->values();
}

PQODictionary &Access::mutableOrderedMap(Value &value) {
  if (orderedBox(value)->references.load(std::memory_order_acquire) != 1) value = Value(orderedBox(value)->map);
  return orderedBox(value)->map;
}

void Value::append(Value item) {
  if (isNull()) *this = list();
  if (!isList()) throw std::logic_error("append to a " + std::string(nameOfKind(kind())));
  Value *values = Access::mutableValues(*this, size() + 1);
  new (values + size()) Value(std::move(item));
  Access::setLength(*this, size() + 1);
}

// Appends an entry whose key is not there.
static void appendEntry(Value &map, Value &&key, Value &&value) {
  const size_t count = map.size();
  Value *values = Access::mutableValues(map, 2 * count + 2);
  MapIndex *&index = Access::arenaHeader(map)->index;
  if (count >= indexedMapSize && (!index || MapIndex::slotsFor(count + 1) > size_t(index->mask) + 1)) {
    MapIndex *larger = makeIndex(values, count, 2 * count);
    std::free(std::exchange(index, larger));
  }
  new (values + 2 * count) Value(std::move(key));
  new (values + 2 * count + 1) Value(std::move(value));
  Access::setLength(map, count + 1);
  if (index && index->enter(values, count) == MapIndex::crowded) index->sort(values, count + 1);
}

void Value::set(Value key, Value value) {
  if (isNull()) *this = map();
  if (isOrderedMap()) return Access::mutableOrderedMap(*this).setObject(std::move(value), key);
  if (!isMap()) throw std::logic_error("set a key of a " + std::string(nameOfKind(kind())));
  const size_t entry = findIn(*this, key);
  if (entry == size()) return appendEntry(*this, std::move(key), std::move(value));
  Access::mutableValues(*this, 0)[2 * entry + 1] = std::move(value);
}

// Takes `count` values at `first` out of a container of its own.
static void eraseValues(Value &container, size_t first, size_t count) {
  const size_t total = Access::values(container).size();
  Value *values = Access::mutableValues(container, 0);
  std::move(values + first + count, values + total, values + first);
  std::destroy(values + total - count, values + total);
  Access::setLength(container, container.size() - 1);
}

bool Value::erase(const Value &key) {
  if (isOrderedMap()) {
    if (!find(key)) return false;
    Access::mutableOrderedMap(*this).removeObjectForKey(key);
    return true;
  }
  const size_t entry = isMap() ? findIn(*this, key) : 0;
  if (!isMap() || entry == size()) return false;
  eraseValues(*this, 2 * entry, 2);
  MapIndex *&index = Access::arenaHeader(*this)->index;
  std::free(std::exchange(index, nullptr));
  if (size() > indexedMapSize) index = makeIndex(Access::values(*this).data(), size(), size());
  return true;
}

void Value::eraseAt(size_t index) {
  if (index < items().size()) eraseValues(*this, index, 1);
}

Value &Value::at(size_t index) {
  if (index >= items().size()) throw std::out_of_range("no element " + std::to_string(index));
  return Access::mutableValues(*this, 0)[index];
}

Value &Value::at(std::string_view key) {
  if (!contains(key)) throw std::out_of_range("no entry \"" + std::string(key) + '"');
  if (isOrderedMap()) return Access::plain(Access::mutableOrderedMap(*this)).at(key);
  const size_t entry = size_t(find(key) - &entries()[0].value) / 2;
  return Access::mutableValues(*this, 0)[2 * entry + 1];
}

void Value::reserve(size_t count) {
  if (Access::isContainer(*this) && count > size()) Access::mutableValues(*this, count << isMap());
}

// --- Whole trees ---

namespace {

/// Copies a tree without recursion.
class TreeCopy {
 public:
  explicit TreeCopy(bool ordered) : ordered_(ordered) {}

  Value copy(const Value &root) {
    Value copied;
    steps_.push_back({&root, &copied});
    while (!steps_.empty()) {
      const Step step = steps_.back();
      steps_.pop_back();
      take(*step.from, *step.to);
    }
    // Inner maps were met after the ones that hold them, and lie where they will stay.
    for (auto map = maps_.rbegin(); map != maps_.rend(); ++map) finish(*map->from, *map->to);
    return copied;
  }

 private:
  struct Step {
    const Value *from;
    Value *to;
  };

  void take(const Value &from, Value &to) {
    if (Access::isContainer(from)) {
      takeValues(from, to);
      if (from.isMap() && (ordered_ || from.size() > indexedMapSize)) maps_.push_back({&from, &to});
    } else if (from.isOrderedMap()) {
      takeValues(Access::plain(from.orderedMap()), to);
      maps_.push_back({&from, &to});
    } else {
      to = from;
    }
  }

  void takeValues(const Value &from, Value &to) {
    const auto old = Access::values(from);
    to = Access::make(Access::tag(from), 0);
    if (old.empty()) return;
    ContainerHeader *header = allocateContainer(old.size());
    std::uninitialized_value_construct_n(header->values(), old.size());
    Access::setPointer(to, header->values());
    Access::setLength(to, from.size());
    for (size_t i = 0; i < old.size(); ++i) steps_.push_back({&old[i], header->values() + i});
  }

  // Completes a map whose entries are complete: an index needs them in place, and an ordered map takes them over.
  void finish(const Value &from, Value &to) {
    if (to.size() > indexedMapSize)
      Access::arenaHeader(to)->index = makeIndex(Access::values(to).data(), to.size(), to.size());
    if (!ordered_ && from.isMap()) return;
    PQODictionary boxed(0);
    Value &keys = Access::keys(boxed);
    keys.reserve(from.size());
    if (from.isMap()) {
      for (const Value::Entry &entry : to.entries()) keys.append(entry.key);
    } else {
      for (const Value &key : from.orderedMap()) {  // the copy of each key, which lies at the same place
        const Value::Entry *first = Access::plain(from.orderedMap()).entries().data();
        const size_t place = size_t(from.orderedMap().objectForKey(key) - &first->value) / 2;
        keys.append(to.entries()[place].key);
      }
    }
    Access::plain(boxed) = std::move(to);
    to = Value(std::move(boxed));
  }

  bool ordered_;
  std::vector<Step> steps_;
  std::vector<Step> maps_;
};

}  // namespace

Value Access::copyTree(const Value &root, bool ordered) { return TreeCopy(ordered).copy(root); }

Value Value::detached() const { return Access::copyTree(*this, false); }

namespace {

/// Compares scalars and what is decided without looking inside; containers of the same kind and size remain.
enum class Verdict { different, equal, inside };

bool numbersEqual(const Value &a, const Value &b) {
  if (a.isInteger() && b.isInteger()) {
    const bool aBig = a.kind() == Kind::uint64 && int64_t(Access::bits(a)) < 0;
    const bool bBig = b.kind() == Kind::uint64 && int64_t(Access::bits(b)) < 0;
    return aBig == bBig && Access::bits(a) == Access::bits(b);
  }
  if (a.isFloat() && b.isFloat()) {
    const double x = a.doubleValue(), y = b.doubleValue();
    return x == y || (std::isnan(x) && std::isnan(y));
  }
  const Value &whole = a.isFloat() ? b : a;
  const double number = a.isFloat() ? a.doubleValue() : b.doubleValue();
  if (number != std::trunc(number) || std::isinf(number)) return false;
  if (whole.kind() == Kind::uint64) return number >= 0 && number < 0x1p64 && uint64_t(number) == Access::bits(whole);
  return number >= -0x1p63 && number < 0x1p63 && int64_t(number) == int64_t(Access::bits(whole));
}

// Differs from the size of an ordered map when a key is listed twice.
size_t plainSize(const Value &orderedMap) { return Access::plain(orderedMap.orderedMap()).size(); }

Verdict compareShallow(const Value &a, const Value &b) {
  const auto verdict = [](bool equal) { return equal ? Verdict::equal : Verdict::different; };
  if (a.isNumber() && b.isNumber()) return verdict(numbersEqual(a, b));
  if (Access::tag(a) != Access::tag(b)) return Verdict::different;
  switch (Tag(Access::tag(a))) {
    case tagString:
    case tagData:
      return verdict(Access::longText(a) == Access::longText(b));
    case tagList:
    case tagMap:
      if (a.size() != b.size()) return Verdict::different;
      return Access::bits(a) == Access::bits(b) ? Verdict::equal : Verdict::inside;  // shared, or both empty
    case tagOrderedMap:
      if (Access::bits(a) == Access::bits(b)) return Verdict::equal;
      if (a.size() != b.size()) return Verdict::different;
      return plainSize(a) == plainSize(b) ? Verdict::inside : Verdict::different;
    case tagXML:
      return verdict(a.xml() == b.xml());
    default:
      return verdict(Access::head(a) == Access::head(b) && Access::bits(a) == Access::bits(b));
  }
}

// Of different numbers.
bool numberBefore(const Value &a, const Value &b) {
  const double x = a.doubleValue(), y = b.doubleValue();
  if (x != y) return !std::isnan(y) && (std::isnan(x) || x < y);
  if (x < 0) return a.integerValue() < b.integerValue();
  const uint64_t m = a.unsignedValue(), n = b.unsignedValue();
  return m != n ? m < n : b.isFloat();  // a float of 2^64 is cut to the largest integer, which comes before it
}

// Of two values that differ without a look inside containers.
bool shallowBefore(const Value &a, const Value &b) {
  if (a.isNumber() && b.isNumber()) return numberBefore(a, b);
  if (Access::tag(a) != Access::tag(b)) return Access::tag(a) < Access::tag(b);
  switch (Tag(Access::tag(a))) {
    case tagString:
    case tagData:
      return Access::longText(a) < Access::longText(b);
    case tagList:
    case tagMap:
      return a.size() < b.size();
    case tagOrderedMap:
      return a.size() != b.size() ? a.size() < b.size() : plainSize(a) < plainSize(b);
    case tagXML:
      return a.xml().data().text() < b.xml().data().text();
    default:
      return std::pair(Access::head(a), Access::bits(a)) < std::pair(Access::head(b), Access::bits(b));
  }
}

/// Compares trees without recursion: what is still to be compared waits in a stack of runs of values.
class TreeComparison {
 public:
  /// With `mapsInOrder` plain maps are equal only when their entries come in the same order, which needs no search.
  explicit TreeComparison(bool mapsInOrder) : mapsInOrder_(mapsInOrder) {}

  bool equal(const Value &a, const Value &b) {
    runs_.push({&a, &b, 1});
    while (!runs_.empty()) {
      Run &run = runs_.back();
      if (run.count == 0) {
        runs_.pop();
        continue;
      }
      --run.count;
      if (!compare(*run.a++, *run.b++)) return false;
    }
    return true;
  }

  /// Which comes first of two trees that equal() has found different, with maps in order.
  bool before() const { return shallowBefore(*differentA_, *differentB_); }

 private:
  struct Run {
    const Value *a, *b;
    size_t count;
  };

  bool compare(const Value &a, const Value &b) {
    switch (compareShallow(a, b)) {
      case Verdict::different:
        differentA_ = &a;
        differentB_ = &b;
        return false;
      case Verdict::equal:
        return true;
      case Verdict::inside:
        break;
    }
    if (a.isOrderedMap()) return compareOrderedMaps(a.orderedMap(), b.orderedMap());
    if (a.isMap() && !mapsInOrder_) return compareMaps(a, b);
    runs_.push({Access::values(a).data(), Access::values(b).data(), Access::values(a).size()});
    return true;
  }

  // The key lists, and the values alone: to look into the plain maps' keys as well would double the work at every level
  // of keys. Keys are compared as such, as they are in plain maps.
  bool compareOrderedMaps(const PQODictionary &a, const PQODictionary &b) {
    for (size_t i = 0; i < a.count(); ++i) {
      const Value &key = a.allKeys()[i], &other = b.allKeys()[i];
      if (!mapsInOrder_ && !keysEqual(key, other)) return false;
      runs_.push({a.objectForKey(key), b.objectForKey(other), 1});
    }
    if (mapsInOrder_) runs_.push({a.begin(), b.begin(), a.count()});
    return true;
  }

  bool compareMaps(const Value &a, const Value &b) {
    const auto others = b.entries();
    size_t place = 0;  // maps are usually in the same order: look there first
    for (const Value::Entry &entry : a.entries()) {
      const Value *value = keysEqual(entry.key, others[place].key) ? &others[place].value : b.find(entry.key);
      if (!value) return false;
      if (++place == others.size()) place = 0;
      if (const Verdict verdict = compareShallow(entry.value, *value); verdict == Verdict::different) {
        return false;
      } else if (verdict == Verdict::inside) {
        runs_.push({&entry.value, value, 1});
      }
    }
    return true;
  }

  SmallStack<Run, 16> runs_;
  const Value *differentA_ = nullptr, *differentB_ = nullptr;
  bool mapsInOrder_;
};

}  // namespace

bool detail::longKeysEqual(const Value &a, const Value &b) {
  const Verdict verdict = compareShallow(a, b);
  return verdict == Verdict::inside ? TreeComparison(true).equal(a, b) : verdict == Verdict::equal;
}

bool detail::keyBefore(const Value &a, const Value &b) {
  const Verdict verdict = compareShallow(a, b);
  if (verdict != Verdict::inside) return verdict == Verdict::different && shallowBefore(a, b);
  TreeComparison comparison(true);
  return !comparison.equal(a, b) && comparison.before();
}

bool operator==(const Value &a, const Value &b) {
  const Verdict verdict = compareShallow(a, b);
  return verdict == Verdict::inside ? TreeComparison(false).equal(a, b) : verdict == Verdict::equal;
}

std::ostream &operator<<(std::ostream &out, const Value &value) { return out << value.description(); }

}  // namespace qelnk
