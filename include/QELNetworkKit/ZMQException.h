#pragma once

#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/Value.h>

#include <cstdint>
#include <stdexcept>
#include <string>

/// Thrown by ZMQContext and ZMQSocket when ZeroMQ refuses an operation.
class QELNK_EXPORT ZMQException : public std::runtime_error {
 public:
  /// `reason` is ZeroMQ's error text, `code` its error number.
  ZMQException(const std::string &reason, int32_t code) : std::runtime_error(reason), code_(code) {}

  /// "ZMQException"
  const char *name() const { return "ZMQException"; }
  /// ZeroMQ's error text.
  std::string reason() const { return what(); }
  /// ZeroMQ's error number.
  int32_t code() const { return code_; }
  /// A map with the code under "errorCode".
  qelnk::Value userInfo() const { return qelnk::Value::map({{"errorCode", code_}}); }

 private:
  int32_t code_;
};
