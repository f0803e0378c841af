#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Support.h"

/// Contestants that take turns, in blocks short enough that all see the same machine. Their ratios are medians over
/// rounds, since the machine changes its mind between them.
namespace bench {

/// Calls `block` with every entry, so many rounds, each of which begins with another one.
template <class Entry, class Block>
void takeTurns(std::vector<Entry> &entries, int rounds, const Block &block) {
  for (int round = 0; round < rounds; ++round)
    for (size_t i = 0; i < entries.size(); ++i) block(entries[(i + size_t(round)) % entries.size()]);
}

/// The median of what each round of one gives in relation to the same round of the other.
inline double medianRatio(const std::vector<double> &rounds, const std::vector<double> &reference) {
  std::vector<double> ratios;
  for (size_t i = 0; i < rounds.size(); ++i) ratios.push_back(rounds[i] / reference[i]);
  return median(ratios);
}

/// The ratios to each of the references; the worst of these is the one to the best reference.
template <class Entry>
std::vector<double> ratiosTo(const std::vector<Entry> &entries, const Entry &entry,
                             std::vector<double> Entry::*ofRounds) {
  std::vector<double> ratios;
  for (const size_t reference : entry.references)
    ratios.push_back(medianRatio(entry.*ofRounds, entries[reference].*ofRounds));
  return ratios;
}

/// One that is measured by how long each of its doings takes.
struct TimedEntry {
  std::string peer;
  std::function<std::vector<double>()> block;  // microseconds
  std::vector<size_t> references = {1};        // the entries whose best its ratio is to
  std::vector<double> all{}, ofRounds{};
};

inline void contestOfTimes(const std::string &name, std::vector<TimedEntry> entries, int rounds) {
  takeTurns(entries, rounds, [](TimedEntry &entry) {
    const auto times = entry.block();
    entry.all.insert(entry.all.end(), times.begin(), times.end());
    entry.ofRounds.push_back(median(times));
  });
  for (const TimedEntry &entry : entries)
    printRow(name, entry.peer,
             {{"median_us", median(entry.all)},
              {"p99_us", quantile(entry.all, 0.99)},
              {"ratio", std::ranges::max(ratiosTo(entries, entry, &TimedEntry::ofRounds))}});
}

/// One that is measured by how many it does a second.
struct RatedEntry {
  std::string peer;
  std::function<void(int64_t)> exchange;  // does so many, and returns once all are done
  std::vector<size_t> references = {1};   // the entries whose best its ratio is to
  std::string thread{};                   // the one whose time on a core counts; empty for the process
  std::vector<double> rates{}, costs{}, shares{};
};

/// Of each also the nanoseconds on a core that one costs, and how busy that keeps a core.
inline void contestOfRates(const std::string &name, std::vector<RatedEntry> entries, int rounds, int64_t count) {
  const auto busy = [](const RatedEntry &entry) {
    return entry.thread.empty() ? processSeconds() : threadUse()[entry.thread].seconds;
  };
  for (RatedEntry &entry : entries) entry.exchange(count / 4);
  takeTurns(entries, rounds, [&](RatedEntry &entry) {
    const double busyBefore = busy(entry);
    const auto start = Clock::now();
    entry.exchange(count);
    const double time = seconds(Clock::now() - start), used = busy(entry) - busyBefore;
    entry.rates.push_back(double(count) / time);
    entry.costs.push_back(used * 1e9 / double(count));
    entry.shares.push_back(100 * used / time);
  });
  for (const RatedEntry &entry : entries)
    printRow(name, entry.peer,
             {{"per_second", median(entry.rates)},
              {"ratio", std::ranges::min(ratiosTo(entries, entry, &RatedEntry::rates))},
              {"cpu_ns", median(entry.costs)},
              {"cpu_ratio", std::ranges::max(ratiosTo(entries, entry, &RatedEntry::costs))},
              {"cpu_percent", median(entry.shares)}});
}

}  // namespace bench
