#include "legacy/OutgoingBytes.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

using namespace qelnk;

TEST(OutgoingBytes, AreTakenInOrderWhateverTheSizes) {
  std::mt19937 random(1);
  const auto upTo = [&](size_t limit) { return random() % (limit + 1); };
  const auto anySize = [&] { return upTo(size_t(1) << upTo(18)); };
  OutgoingBytes bytes;
  std::string expected;
  std::string source(300000, '\0');
  for (char &c : source) c = char(random());
  for (int step = 0; step < 2000; ++step) {
    if (upTo(2) > 0 && expected.size() < 300000) {
      const std::string more = source.substr(upTo(1000), anySize());
      if (upTo(1))
        bytes.append(Data(more));
      else
        bytes.append(Data(more).span());
      expected += more;
    } else {
      const auto piece = bytes.first(anySize());
      ASSERT_LE(piece.bytes.size(), expected.size());
      ASSERT_TRUE(piece.bytes.empty() || !std::memcmp(piece.bytes.data(), expected.data(), piece.bytes.size()));
      const size_t written = upTo(1) ? piece.bytes.size() : upTo(piece.bytes.size());
      bytes.removeFirst(written);
      expected.erase(0, written);
      if (upTo(100) == 0) {
        bytes.clear();
        expected.clear();
      }
    }
    ASSERT_EQ(bytes.size(), expected.size());
  }
}
