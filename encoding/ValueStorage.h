#pragma once

#include <QELNetworkKit/PQODictionary.h>
#include <QELNetworkKit/Value.h>
#include <QELNetworkKit/XMLDocument.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <span>
#include <string_view>

/// How values lie in memory; for the files of this folder alone.
///
/// A Value is two words. The low byte of the first is its tag. A string of at most 14 bytes lies in the other 15 behind
/// its length, padded with zeros, so two short strings are equal when both words are. Everything that lies elsewhere
/// has flags in the second byte, its size in the upper 48 bits, and a pointer in the second word (null when the size is
/// 0):
///
/// - strings and buffers: to their bytes, which follow a BytesHeader;
/// - lists and plain maps: to their values (a map's keys and values in turn), which follow a ContainerHeader;
/// - ordered maps and XML documents: to a Boxed object.
///
/// A decoded tree lies in one Arena, which is freed as a whole: its containers have the short ArenaHeader in front, and
/// its strings none. Inside an arena values are `borrowed`: they own nothing. A copy of a borrowed value takes a share
/// of the arena (containers) or bytes of its own (strings). Arena containers are never changed in place: who changes
/// one takes a copy first.
namespace qelnk::detail {

enum Tag : uint8_t {
  tagShortString = uint8_t(Kind::string),
  tagString,
  tagData,
  tagList,
  tagMap,
  tagOrderedMap,
  tagXML
};
constexpr uint64_t borrowedFlag = uint64_t(1) << 8;
constexpr size_t shortStringLimit = 14;
/// Longer strings and buffers of an arena lie in counted blocks of their own, which the arena keeps.
constexpr size_t arenaBytesLimit = 4096;
constexpr size_t sizeLimit = (size_t(1) << 48) - 1;

struct BytesHeader {
  std::atomic<size_t> references;
  size_t capacity;
  BytesHeader *next;  // the arena's next block

  static uint8_t *allocate(size_t capacity);
  static BytesHeader *of(const void *bytes) {
    return reinterpret_cast<BytesHeader *>(const_cast<uint8_t *>(static_cast<const uint8_t *>(bytes))) - 1;
  }
  void retain() { references.fetch_add(1, std::memory_order_relaxed); }
  void release();
};

struct Arena;

/// Finds entries of a large map by key.
///
/// Open addressing: a slot holds an entry's number plus one and, above the mask, bits of its key's hash, so that other
/// keys are seldom looked at. Where so many keys meet that somebody must have wanted it, the slots hold the entries'
/// numbers in the order of their keys instead: no choice of keys makes finding one cost more than a few comparisons.
struct MapIndex {
  uint32_t mask;
  uint32_t sorted;  // whether the slots are entries in order
  uint32_t *slots() { return reinterpret_cast<uint32_t *>(this + 1); }
  const uint32_t *slots() const { return reinterpret_cast<const uint32_t *>(this + 1); }

  static size_t slotsFor(size_t entries);
  static size_t bytesFor(size_t entries) { return sizeof(MapIndex) + slotsFor(entries) * sizeof(uint32_t); }

  /// Enters entry number `entry`, all before which have been entered, unless one of them has the same key. Returns the
  /// number of the entry with the key, or `crowded` when too many keys meet: then the index has to be sorted.
  size_t enter(const Value *values, size_t entry);
  static constexpr size_t crowded = ~size_t(0);
  /// Makes it the sorted index of `count` entries; entries of equal keys stay in their order.
  void sort(const Value *values, size_t count);
};
/// Smaller maps are searched from the front.
constexpr size_t indexedMapSize = 16;

struct ArenaHeader {
  Arena *arena;  // null in a container with an allocation of its own
  MapIndex *index;
};

struct ContainerHeader {
  union {
    std::atomic<size_t> references;
    ContainerHeader *next;  // while it waits to be freed
  };
  union {
    size_t capacity;  // in values
    size_t doomed;    // number of values, while it waits to be freed
  };
  ArenaHeader tail;

  Value *values() { return reinterpret_cast<Value *>(this + 1); }
};

/// A tree's memory: pieces that are filled in order and freed together. The object lies at the start of its first
/// piece.
struct Arena {
  struct Chunk {
    Chunk *next;
  };
  std::atomic<size_t> references{1};
  Chunk *chunks = nullptr;  // all but the first piece
  BytesHeader *blocks = nullptr;
  char *cursor;
  char *end;
  size_t nextChunk;

  static Arena *make(size_t firstPiece);
  void *allocate(size_t bytes) {
    bytes = (bytes + 7) & ~size_t(7);
    if (size_t(end - cursor) < bytes) return allocateSlowly(bytes);
    return std::exchange(cursor, cursor + bytes);
  }
  void retain() { references.fetch_add(1, std::memory_order_relaxed); }
  void release() {
    if (references.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy();
  }

 private:
  explicit Arena(size_t firstPiece)
      : cursor(reinterpret_cast<char *>(this + 1)), end(cursor + firstPiece), nextChunk(2 * firstPiece) {}
  ~Arena() = default;
  void *allocateSlowly(size_t bytes);
  void *newChunk(size_t bytes);
  void destroy();
};

struct Boxed {
  std::atomic<size_t> references{1};
};
struct BoxedOrderedMap : Boxed {
  explicit BoxedOrderedMap(PQODictionary contents) : map(std::move(contents)) {}
  PQODictionary map;
};
struct BoxedXML : Boxed {
  explicit BoxedXML(XMLDocument contents) : document(std::move(contents)) {}
  XMLDocument document;
};

/// Reaches into Value, Data and PQODictionary for the files of this folder.
struct Access {
  static Value make(uint64_t head, uint64_t bits) { return Value(head, bits); }
  static Value makePointer(Tag tag, uint64_t flags, size_t size, const void *pointer) {
    return Value(uint64_t(tag) | flags | uint64_t(size) << 16, reinterpret_cast<uintptr_t>(pointer));
  }
  static uint64_t head(const Value &value) { return value.head_; }
  static uint64_t bits(const Value &value) { return value.bits_; }
  static uint8_t tag(const Value &value) { return uint8_t(value.head_); }
  static size_t length(const Value &value) { return value.head_ >> 16; }
  static bool isBorrowed(const Value &value) { return value.head_ & borrowedFlag; }
  static void setLength(Value &value, size_t size) { value.head_ = (value.head_ & 0xFFFF) | uint64_t(size) << 16; }
  static void setPointer(Value &value, const void *pointer) { value.bits_ = reinterpret_cast<uintptr_t>(pointer); }
  template <class T>
  static T *pointer(const Value &value) {
    return reinterpret_cast<T *>(value.bits_);
  }
  static ArenaHeader *arenaHeader(const Value &value) { return pointer<ArenaHeader>(value) - 1; }
  static ContainerHeader *containerHeader(const Value &value) { return pointer<ContainerHeader>(value) - 1; }
  static BoxedOrderedMap *orderedBox(const Value &value) { return pointer<BoxedOrderedMap>(value); }

  static bool isContainer(const Value &value) { return tag(value) == tagList || tag(value) == tagMap; }
  /// The values of a list or plain map (keys and values in turn), as they lie.
  static std::span<const Value> values(const Value &value) {
    return {pointer<const Value>(value), length(value) << (tag(value) == tagMap)};
  }

  static Value shortString(std::string_view text) {
    uint64_t words[2] = {0, 0};
    if (!text.empty()) std::memcpy(reinterpret_cast<char *>(words) + 2, text.data(), text.size());
    return Value(words[0] | tagShortString | uint64_t(text.size()) << 8, words[1]);
  }
  static size_t shortStringLength(const Value &value) { return uint8_t(value.head_ >> 8); }
  static std::string_view longText(const Value &value) { return {pointer<const char>(value), length(value)}; }

  /// The values of a list or plain map for changing: in an allocation of their own that nobody shares, with room for
  /// `capacity`.
  static Value *mutableValues(Value &value, size_t capacity);
  /// Ownership of an ordered map for changing it.
  static PQODictionary &mutableOrderedMap(Value &value);
  /// A deep copy in allocations of its own; with `ordered` each plain map becomes an ordered one.
  static Value copyTree(const Value &value, bool ordered);

  static Value &keys(PQODictionary &map) { return map.array_; }
  static Value &plain(PQODictionary &map) { return map.dictionary_; }
  static const Value &plain(const PQODictionary &map) { return map.dictionary_; }

  static uint8_t *takeBytes(Data &data) {
    data.size_ = 0;
    return std::exchange(data.bytes_, nullptr);
  }
  static Data dataSharing(const uint8_t *bytes, size_t size) {
    Data data;
    data.bytes_ = const_cast<uint8_t *>(bytes);
    data.size_ = size;
    return data;
  }
};

bool longKeysEqual(const Value &a, const Value &b);
/// Whether two keys are equal; containers entry by entry in order. Most keys are short strings, which are their words.
inline bool keysEqual(const Value &a, const Value &b) {
  if (Access::tag(a) != tagShortString && Access::tag(b) != tagShortString) return longKeysEqual(a, b);
  return Access::head(a) == Access::head(b) && Access::bits(a) == Access::bits(b);
}
/// An order of keys, of no meaning to people. Comparing two costs at most the size of the smaller.
bool keyBefore(const Value &a, const Value &b);
/// The number of the entry with a key among a map's values, or `count`.
size_t findEntry(const Value *values, size_t count, const MapIndex *index, const Value &key);

/// Builds a tree in an arena, for readers that know the size of a container before its elements.
class TreeBuilder {
 public:
  /// `inputSize` is the size of the encoded text or bytes, from which the first chunk is estimated.
  explicit TreeBuilder(size_t inputSize) : inputSize_(inputSize) {}
  ~TreeBuilder() {
    if (arena_) arena_->release();
  }
  TreeBuilder(const TreeBuilder &) = delete;
  TreeBuilder &operator=(const TreeBuilder &) = delete;

  /// Writes a string or buffer over the null at `slot`.
  void string(Value *slot, std::string_view text) {
    if (text.size() <= shortStringLimit) {
      new (slot) Value(Access::shortString(text));
    } else if (text.size() <= arenaBytesLimit) {
      void *place = arena().allocate(text.size());
      std::memcpy(place, text.data(), text.size());
      new (slot) Value(Access::makePointer(tagString, borrowedFlag, text.size(), place));
    } else {
      bytes(slot, tagString, text.data(), text.size());
    }
  }
  void data(Value *slot, std::span<const uint8_t> content) { bytes(slot, tagData, content.data(), content.size()); }

  /// Writes a list of `count` values, or a map of `count` entries, over the null at `slot`; returns where its values
  /// (twice as many for a map) are to be written, uninitialised. Each must have been written before another builder
  /// call that could throw, or be trivially abandoned: nothing in an arena is ever destroyed one by one.
  Value *container(Value *slot, Tag tag, size_t count);
  /// To be called once a map's values are there: merges repeated keys, whose later value wins, and makes the index of a
  /// large map.
  void finishMap(Value *slot);

  /// Hands out the tree whose root was written to `root`, with the builder's memory.
  Value finish(Value *root);

 private:
  Arena &arena() {
    if (!arena_) makeArena();
    return *arena_;
  }
  void makeArena();
  void bytes(Value *slot, Tag tag, const void *content, size_t size);
  size_t mergeRepeatedKeys(Value *values, size_t count);
  size_t indexMap(Value *values, size_t count);
  size_t mergeSorted(MapIndex &index, Value *values, size_t count);

  size_t inputSize_;
  Arena *arena_ = nullptr;
};

}  // namespace qelnk::detail
