#pragma once

#include <cxxabi.h>

#include <exception>
#include <string_view>
#include <utility>

namespace qelnk {

/// Writes the one line about an exception that left foreign code; `who` ran it.
void reportEscaped(std::string_view who, std::string_view what);

/// Calls `code`, which is the host's or an observer's: an exception that leaves it is reported on the log and goes no
/// further. Returns whether it ended without one.
template <class Code>
bool runGuarded(std::string_view who, Code &&code) {
  try {
    std::forward<Code>(code)();
    return true;
  } catch (const std::exception &error) {
    reportEscaped(who, error.what());
  } catch (const abi::__forced_unwind &) {
    throw;  // the thread is being ended by pthread_exit(), which may not be stopped
  } catch (...) {
    reportEscaped(who, "an object that is not a std::exception");
  }
  return false;
}

}  // namespace qelnk
