#pragma once

#include <QELNetworkKit/Error.h>

#include "platform/LogFormat.h"

#include <zmq.h>

#include <string>

namespace qelnk {

/// An error as the lines of the log show it.
inline std::string describe(const Error &error) {
  return error ? fmt::format("{} ({} {})", error.description, error.domain, error.code) : "(null)";
}

/// The error of a ZeroMQ error number.
inline Error zmqError(int number) {
  return {.domain = "ZMQ", .code = number, .description = zmq_strerror(number), .userInfo = {}};
}

/// An error number as the lines of the log show it.
inline std::string describeNumber(int number) { return fmt::format("[{}: {}]", number, zmq_strerror(number)); }

}  // namespace qelnk
