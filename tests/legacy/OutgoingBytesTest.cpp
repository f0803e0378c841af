#include "legacy/OutgoingBytes.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

using namespace qelnk;

TEST(OutgoingBytes, AreTakenInOrderWhateverTheSizes) {
  std::mt19937 random(1);
  const auto upTo = [&](size_t limit) { return random() % (limit + 1); };
  const auto anySize = [&] { return upTo(size_t(1) << upTo(18)); };
  OutgoingBytes bytes;
  std::string expected;
  uint8_t next = 0;
  for (int step = 0; step < 20000; ++step) {
    if (upTo(2) > 0 && expected.size() < 1 << 20) {
      std::string more(anySize(), '\0');
      for (char &c : more) c = char(next++);
      if (upTo(1))
        bytes.append(Data(more));
      else
        bytes.append(Data(more).span());
      expected += more;
    } else {
      const auto piece = bytes.first(anySize());
      ASSERT_LE(piece.bytes.size(), expected.size());
      ASSERT_TRUE(std::equal(piece.bytes.begin(), piece.bytes.end(), expected.begin(),
                             [](uint8_t a, char b) { return a == uint8_t(b); }));
      const size_t written = upTo(1) ? piece.bytes.size() : upTo(piece.bytes.size());
      bytes.removeFirst(written);
      expected.erase(0, written);
      if (upTo(1000) == 0) {
        bytes.clear();
        expected.clear();
      }
    }
    ASSERT_EQ(bytes.size(), expected.size());
  }
}
