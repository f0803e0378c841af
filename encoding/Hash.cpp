#include <sys/random.h>

#include <bit>
#include <cmath>
#include <cstring>

#include "encoding/SmallStack.h"
#include "encoding/Text.h"
#include "encoding/ValueStorage.h"

namespace qelnk {

using namespace detail;

namespace {

/// What hashes of this process start from, so that a peer cannot choose keys that meet in one.
struct Seed {
  uint64_t a, b;

  static const Seed &get() {
    static const Seed seed;
    return seed;
  }

 private:
  Seed() : a(reinterpret_cast<uintptr_t>(this)), b(reinterpret_cast<uintptr_t>(&a) * 0x9E3779B97F4A7C15) {
    uint64_t random[2] = {0, 0};
    if (getrandom(random, sizeof random, GRND_NONBLOCK) != sizeof random) return;  // the address has to do
    a = random[0];
    b = random[1];
  }
};

__extension__ using Wide = unsigned __int128;

uint64_t combine(const Seed &seed, uint64_t x, uint64_t y) {
  const Wide product = Wide(x ^ seed.a) * (y ^ seed.b);
  return uint64_t(product) ^ uint64_t(product >> 64);
}

uint64_t hashText(const Seed &seed, std::string_view text) {
  uint64_t hash = text.size();
  uint64_t words[2];
  for (; text.size() > sizeof words; text.remove_prefix(sizeof words)) {
    std::memcpy(words, text.data(), sizeof words);
    hash = combine(seed, words[0] ^ hash, words[1]);
  }
  words[0] = words[1] = 0;
  if (!text.empty()) std::memcpy(words, text.data(), text.size());
  return combine(seed, words[0] ^ hash, words[1]);
}

// The same for every width and form that holds a number.
uint64_t bitsOfNumber(const Value &value) {
  if (!value.isFloat()) return Access::bits(value);
  const double number = value.doubleValue();
  if (std::isnan(number)) return 0x7FF8;
  if (number == std::trunc(number) && number >= -0x1p63 && number < 0x1p64)
    return number < 0x1p63 ? uint64_t(int64_t(number)) : uint64_t(number);
  return std::bit_cast<uint64_t>(number);
}

/// The values of a list or of either map, a map's keys and values in turn.
std::span<const Value> valuesInside(const Value &value) {
  if (value.isOrderedMap()) return Access::values(Access::plain(value.orderedMap()));
  return Access::isContainer(value) ? Access::values(value) : std::span<const Value>();
}

constexpr size_t textLimitInside = 128;

// Of a value without what it contains, and of the first bytes of long text.
uint64_t hashShallow(const Seed &seed, const Value &value, size_t textLimit) {
  const uint64_t tag = Access::tag(value);
  switch (tag) {
    case tagShortString:
    case uint8_t(Kind::null):
    case uint8_t(Kind::boolean):
      return combine(seed, Access::head(value), Access::bits(value));
    case tagString:
    case tagData:
      return hashText(seed, Access::longText(value).substr(0, textLimit)) + Access::length(value) * 64 + tag;
    default:
      return value.isNumber() ? combine(seed, bitsOfNumber(value), 0) : combine(seed, valuesInside(value).size(), tag);
  }
}

}  // namespace

// Looks at all values inside this one, and at up to 64 below them. Each container shares what it may look at among its
// values and does not look inside when that is too little, so that the order of a map's entries does not matter: it
// decides neither what is looked at nor, in a sum, what comes out.
size_t Value::hash() const {
  const Seed &seed = Seed::get();
  uint64_t hash = hashShallow(seed, *this, std::string_view::npos);
  if (valuesInside(*this).empty()) return hash;

  struct Open {
    const Value *container;
    uint64_t context;  // stands for the way to the container
    size_t budget;
  };
  SmallStack<Open, 16> open;
  open.push({this, hash, 64});
  while (!open.empty()) {
    const Open top = open.back();
    open.pop();
    const auto values = valuesInside(*top.container);
    if (values.size() > top.budget && top.container != this) continue;
    const size_t share = values.size() < top.budget ? (top.budget - values.size()) / values.size() : 0;
    const bool isList = top.container->isList();
    uint64_t context = top.context;
    for (size_t i = 0; i < values.size(); ++i) {
      const bool isMapValue = !isList && i % 2 == 1;  // goes with its key, whose hash is in `context`
      context = combine(seed, isMapValue ? context : top.context + (isList ? i : 0),
                        hashShallow(seed, values[i], textLimitInside));
      hash += context;
      if (share && !valuesInside(values[i]).empty()) open.push({&values[i], context, share});
    }
  }
  return hash;
}

size_t detail::hashOfText(std::string_view text) { return hashText(Seed::get(), text); }

}  // namespace qelnk
