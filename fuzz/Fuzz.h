#pragma once

#include <QELNetworkKit/Log.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string_view>

/// Called with each input that the fuzzer makes up, or that lies in the corpus.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fuzz {

/// Ends the process, which is a finding, where a property does not hold.
inline void require(bool holds, const char *property) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", property);
  std::abort();
}

/// Lines of the log are made, and go nowhere.
inline const bool silent = (QLGetHandle().setSink([](qelnk::LogLevel, std::string_view) {}), true);

inline std::string_view textOf(std::span<const uint8_t> bytes) {
  return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

/// Takes an input apart, from its start.
class Input {
 public:
  Input(const uint8_t *data, size_t size) : rest_(data, size) {}

  bool empty() const { return rest_.empty(); }
  /// 0 behind the end.
  uint8_t byte() {
    const auto one = bytes(1);
    return one.empty() ? 0 : one[0];
  }
  /// So many, or what is left.
  std::span<const uint8_t> bytes(size_t count) {
    const auto taken = rest_.first(std::min(count, rest_.size()));
    rest_ = rest_.subspan(taken.size());
    return taken;
  }
  /// What is left, which stays.
  std::span<const uint8_t> rest() const { return rest_; }

 private:
  std::span<const uint8_t> rest_;
};

}  // namespace fuzz
