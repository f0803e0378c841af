#pragma once

#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKOrlinPort.h>
#include <QELNetworkKit/Value.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

/// One workflow of the daemon's project and the ports that it exposes.
///
/// Threads: any.
class QELNK_EXPORT QELNKOrlinWorkflow {
 public:
  /// Builds a workflow without ports from the daemon's description of it (a map).
  explicit QELNKOrlinWorkflow(const qelnk::Value &description);
  QELNKOrlinWorkflow(const QELNKOrlinWorkflow &) = delete;
  QELNKOrlinWorkflow &operator=(const QELNKOrlinWorkflow &) = delete;

  /// Builds a port from the daemon's description of it, appends it and returns it.
  std::shared_ptr<QELNKOrlinPort> addPortWithDescription(const qelnk::Value &description);

  /// None where the description had none.
  const std::optional<std::string> &name() const { return name_; }
  /// The daemon's identifier; none where the description had none.
  const std::optional<std::string> &uid() const { return uid_; }
  /// Whether it executes, as far as this side knows. Setting it changes this side alone.
  bool executing() const { return executing_.load(std::memory_order_relaxed); }
  void setExecuting(bool executing) { executing_.store(executing, std::memory_order_relaxed); }
  /// Whether it executes when its project runs.
  bool executeOnRun() const { return executeOnRun_; }

  /// The ports as they are now, in order.
  std::vector<std::shared_ptr<QELNKOrlinPort>> ports() const;
  /// The first port in order with that name, or null.
  std::shared_ptr<QELNKOrlinPort> portWithName(std::string_view name) const;
  /// The first port with that identifier, or null. The cost does not grow with the number of ports.
  std::shared_ptr<QELNKOrlinPort> portWithID(std::string_view uid) const;
  /// The port at a place among all ports; null beyond the end.
  std::shared_ptr<QELNKOrlinPort> portWithIndex(size_t index) const;
  /// The port at a place among the input ports; null beyond the end.
  std::shared_ptr<QELNKOrlinPort> inputPortWithIndex(size_t index) const;
  /// The port at a place among the output ports; null beyond the end.
  std::shared_ptr<QELNKOrlinPort> outputPortWithIndex(size_t index) const;
  /// How many ports there are.
  size_t numberOfPorts() const;
  /// How many of them are input ports.
  size_t numberOfInputPorts() const;
  /// How many of them are output ports.
  size_t numberOfOutputPorts() const;

 private:
  friend class QELNKKORVALClient;
  using PortAddedBlock = std::function<void(const std::shared_ptr<QELNKOrlinPort> &)>;
  std::shared_ptr<QELNKOrlinPort> portOfType(int32_t portType, size_t index) const;
  size_t numberOfPortsOfType(int32_t portType) const;

  std::optional<std::string> name_, uid_;
  bool executeOnRun_;
  std::atomic<bool> executing_;
  mutable qelnk::Mutex mutex_;
  std::vector<std::shared_ptr<QELNKOrlinPort>> ports_ QELNK_GUARDED_BY(mutex_);
  struct QELNK_HIDDEN Hash {
    size_t operator()(std::string_view text) const;
  };
  // By views into the ports' own identifiers.
  std::unordered_map<std::string_view, size_t, Hash> portsByID_ QELNK_GUARDED_BY(mutex_);
  PortAddedBlock onPortAdded_;  // set by the client that mirrors this workflow, before anybody else has it
};
