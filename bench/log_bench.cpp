// A log line that describes a large tree, below the level in force and at it.

#include <QELNetworkKit/Log.h>
#include <benchmark/benchmark.h>

#include <atomic>

#include "Documents.h"

namespace {

using qelnk::LogLevel;

const qelnk::Value &ports() {
  static const qelnk::Value tree = benchmarkDocuments()[1].second;
  return tree;
}

void describe(benchmark::State &state, LogLevel inForce) {
  QLGetHandle().setSink([](LogLevel, std::string_view line) { benchmark::DoNotOptimize(line.data()); });
  QLGetHandle().setLevel(inForce);
  for (auto _ : state)
    if (QLGetHandle().enabled(LogLevel::debug)) QLGetHandle().write(LogLevel::debug, ports().description());
  QLGetHandle().setSink(nullptr);
}

void belowLevel(benchmark::State &state) { describe(state, LogLevel::standard); }
void atLevel(benchmark::State &state) { describe(state, LogLevel::debug); }

// The least that asking can cost.
void oneComparison(benchmark::State &state) {
  static std::atomic<uint8_t> level{1};
  for (auto _ : state) {
    bool enabled = level.load(std::memory_order_relaxed) <= 0;
    benchmark::DoNotOptimize(enabled);
  }
}

}  // namespace

BENCHMARK(belowLevel)->Name("log/below-level/qelnk");
BENCHMARK(oneComparison)->Name("log/below-level/one-comparison");
BENCHMARK(atLevel)->Name("log/at-level/qelnk");

BENCHMARK_MAIN();
