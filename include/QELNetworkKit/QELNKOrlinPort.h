#pragma once

#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/Value.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

class QELNKKORVALClient;
class QELNKOrlinWorkflow;

/// Direction of a port.
enum QELNKOrlinPortType : int32_t { QELNKOrlinPortTypeInput = 0, QELNKOrlinPortTypeOutput = 1 };

/// Value type of a port; the member names are the protocol's four characters.
enum QELNKOrlinPortValueType : int32_t {
  QELNKOrlinPortValueType_bool = 0,
  QELNKOrlinPortValueType_int_ = 1,
  QELNKOrlinPortValueType_long = 2,
  QELNKOrlinPortValueType_indx = 3,
  QELNKOrlinPortValueType_doub = 4,
  QELNKOrlinPortValueType_str_ = 5,
  QELNKOrlinPortValueType_arry = 6,
  QELNKOrlinPortValueType_colr = 7,
  QELNKOrlinPortValueType_imag = 8,
  QELNKOrlinPortValueType_tico = 9,
  QELNKOrlinPortValueType_strc = 10,
  QELNKOrlinPortValueType_bytb = 11,
  QELNKOrlinPortValueType_trig = 12
};

/// One port that a workflow exposes, with its current value as far as this side knows it.
///
/// Values that the daemon pushes are stored on the client's io thread, confirmed ones on the response queue. The types
/// indx, colr, imag, tico, strc and bytb are known by name alone: their values are neither stored nor reported.
///
/// Threads: any; a reader gets the old or the new value whole.
class QELNK_EXPORT QELNKOrlinPort {
 public:
  /// Called on the response queue after a pushed value has been stored.
  using UpdateBlock = std::function<void(const std::shared_ptr<QELNKKORVALClient> &client,
                                         const std::shared_ptr<QELNKOrlinWorkflow> &workflow,
                                         const std::shared_ptr<QELNKOrlinPort> &port)>;

  /// Builds a port from the daemon's description of it (a map). An unknown direction counts as input; an unknown value
  /// type is told on the log and counts as bool, with no value stored.
  explicit QELNKOrlinPort(const qelnk::Value &description);
  QELNKOrlinPort(const QELNKOrlinPort &) = delete;
  QELNKOrlinPort &operator=(const QELNKOrlinPort &) = delete;

  /// None where the description had none.
  const std::optional<std::string> &name() const { return name_; }
  /// The daemon's identifier; none where the description had none.
  const std::optional<std::string> &uid() const { return uid_; }
  /// QELNKOrlinPortType.
  int32_t portType() const { return portType_; }
  /// QELNKOrlinPortValueType.
  int32_t valueType() const { return valueType_; }
  /// The four characters of a value type, "" for a number that is none.
  static std::string_view nameOfValueType(int32_t valueType);

  /// Stores a value that came from the daemon, converted to the value type: numbers and strings where a truth value or
  /// a number is held, strings for str_, lists for arry. Anything else changes nothing.
  void setValue(const qelnk::Value &value);

  /// The value as the value type has it; none where the type has no value here. An unset string or list is null.
  std::optional<qelnk::Value> currentValue() const;
  /// "T" or "F", an integer, a number with six decimals, the string (none while it is unset), else "".
  std::optional<std::string> currentValueAsString() const;

  // The slots of the value, one of which belongs to the value type. The setters store without any check.
  /// Of str_; none while it is unset.
  std::optional<std::string> stringValue() const;
  void setStringValue(std::optional<std::string> value);
  /// Of arry; none while it is unset.
  std::optional<qelnk::Value> arrayValue() const;
  void setArrayValue(std::optional<qelnk::Value> value);
  /// Of int_ and long.
  int32_t intValue() const { return intValue_.load(std::memory_order_relaxed); }
  void setIntValue(int32_t value) { intValue_.store(value, std::memory_order_relaxed); }
  /// Of doub.
  double doubleValue() const { return doubleValue_.load(std::memory_order_relaxed); }
  void setDoubleValue(double value) { doubleValue_.store(value, std::memory_order_relaxed); }
  /// Of bool and trig.
  bool boolValue() const { return boolValue_.load(std::memory_order_relaxed); }
  void setBoolValue(bool value) { boolValue_.store(value, std::memory_order_relaxed); }

  /// The callback for pushed values, set by QELNKKORVALClient::registerWorkflow().
  UpdateBlock updateBlock() const;
  void setUpdateBlock(UpdateBlock block);

 private:
  friend class QELNKKORVALClient;
  std::shared_ptr<const UpdateBlock> sharedUpdateBlock() const;

  std::optional<std::string> name_, uid_;
  int32_t portType_ = 0, valueType_ = 0;
  std::atomic<int32_t> intValue_{0};
  std::atomic<double> doubleValue_{0};
  std::atomic<bool> boolValue_{false};
  mutable qelnk::Mutex mutex_;
  std::optional<std::string> stringValue_ QELNK_GUARDED_BY(mutex_);
  std::optional<qelnk::Value> arrayValue_ QELNK_GUARDED_BY(mutex_);
  std::shared_ptr<const UpdateBlock> updateBlock_ QELNK_GUARDED_BY(mutex_);
  std::atomic<uint32_t> waitingUpdates_{0};  // calls of it that wait on the response queue
};
