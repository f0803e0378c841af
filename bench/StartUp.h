#pragma once

#include <cstdint>
#include <ctime>

/// What a program that is measured from outside tells on its standard output: once as main begins, once when what it
/// was asked for is there.
struct StartUpReport {
  int64_t nanoseconds = 0;  // on the clock that all processes share
  int32_t port = 0;         // that it listens on

  static int64_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return int64_t(time.tv_sec) * 1000000000 + time.tv_nsec;
  }
};
