#pragma once

#include <QELNetworkKit/QELNKOrlinWorkflow.h>
#include <QELNetworkKit/Value.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qelnk {

/// What a client knows of its daemon's project and workflows.
///
/// Threads: any. It calls nobody while it holds its lock.
class Mirror {
 public:
  using Workflow = std::shared_ptr<QELNKOrlinWorkflow>;

  std::atomic<bool> running{false};
  std::atomic<int64_t> nextMessageID{0};
  /// How many times the daemon was asked to open a project.
  std::atomic<uint64_t> openingsAsked{0};

  std::optional<std::string> projectName() const { return read(projectName_); }
  void setProjectName(std::optional<std::string> name) { swapIn(projectName_, name); }
  std::optional<std::string> projectFile() const { return read(projectFile_); }
  void setProjectFile(std::optional<std::string> file) { swapIn(projectFile_, file); }

  /// Appends a workflow and returns its place.
  size_t append(const Workflow &workflow);
  /// Empties the list, because the daemon has opened a project; the workflows' ports are not found any more.
  void emptyForOpening(uint64_t opening);
  /// Which opening the list belongs to; 0 for the project that was open already.
  uint64_t opening() const;
  std::vector<Workflow> workflows() const;
  Workflow workflowWithIndex(size_t index) const;
  /// The first workflow for which `matches`, or null.
  template <class Matches>
  Workflow firstWorkflow(Matches matches) const {
    const std::lock_guard lock(mutex_);
    for (const Workflow &workflow : workflows_)
      if (matches(*workflow)) return workflow;
    return nullptr;
  }
  size_t numberOfWorkflows() const;

  /// Notes that the workflow at `place` has a port with the identifier; nothing when `workflow` is not there any more.
  void portAdded(const QELNKOrlinWorkflow *workflow, size_t place, const std::string &uid);
  /// The first workflow in order that has a port with the identifier, or null. The cost does not grow with their
  /// number: values may be pushed a hundred thousand times a second.
  Workflow workflowWithPort(std::string_view uid) const;

 private:
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  std::optional<std::string> read(const std::optional<std::string> &text) const;
  void swapIn(std::optional<std::string> &text, std::optional<std::string> &value);

  mutable std::mutex mutex_;  // guards what follows
  std::optional<std::string> projectName_, projectFile_;
  uint64_t opening_ = 0;
  std::vector<Workflow> workflows_;
  std::unordered_map<std::string, size_t, Hash, std::equal_to<>> placeByPort_;
};

}  // namespace qelnk
