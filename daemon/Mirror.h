#pragma once

#include <QELNetworkKit/Mutex.h>
#include <QELNetworkKit/QELNKOrlinWorkflow.h>
#include <QELNetworkKit/Value.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "encoding/Text.h"

namespace qelnk {

/// What a client knows of its daemon's project and workflows.
///
/// Threads: any. It calls nobody while it holds its lock.
class Mirror {
 public:
  using Workflow = std::shared_ptr<QELNKOrlinWorkflow>;

  std::atomic<bool> running{false};
  std::atomic<int64_t> nextMessageID{0};
  /// Callbacks for pushed values that wait on the response queue, and whether that is behind.
  std::atomic<size_t> waitingUpdates{0};
  std::atomic<bool> isBehind{false};
  std::optional<std::string> projectName() const { return read(&Mirror::projectName_); }
  void setProjectName(std::optional<std::string> name) { swapIn(&Mirror::projectName_, name); }
  std::optional<std::string> projectFile() const { return read(&Mirror::projectFile_); }
  void setProjectFile(std::optional<std::string> file) { swapIn(&Mirror::projectFile_, file); }

  /// Appends a workflow and returns its place.
  size_t append(const Workflow &workflow);
  /// Removes the last workflows where they are these.
  void takeBack(const std::vector<Workflow> &added);

  // The daemon is asked to open projects; each opening has a number, 0 is for the project that was open already.

  /// Numbers an opening that is about to be asked for, and does `also` in the same step: it must not call anybody.
  template <class Also>
  uint64_t beginOpening(Also also) {
    const Lock lock(mutex_);
    also();
    openingsAsked_.insert(++lastOpening_);
    return lastOpening_;
  }
  /// The daemon has opened the project: empties the list; the workflows' ports are not found any more.
  void opened(uint64_t opening);
  /// Nothing came of an opening. Does `whenLast` in one step with seeing that no later one was asked for: it must not
  /// call anybody.
  template <class WhenLast>
  void openingFailed(uint64_t opening, WhenLast whenLast) {
    const Lock lock(mutex_);
    openingsAsked_.erase(opening);
    if (opening == lastOpening_) whenLast();
  }
  /// Which opening the list belongs to.
  uint64_t opening() const;
  /// Does `then` in one step with seeing that the list belongs to `opening` and no later one is under way. It must not
  /// call anybody.
  template <class Then>
  void ifNewest(uint64_t opening, Then then) const {
    const Lock lock(mutex_);
    if (opening_ == opening && openingsAsked_.upper_bound(opening) == openingsAsked_.end()) then();
  }

  std::vector<Workflow> workflows() const;
  Workflow workflowWithIndex(size_t index) const;
  /// The first workflow for which `matches`, or null.
  template <class Matches>
  Workflow firstWorkflow(Matches matches) const {
    const Lock lock(mutex_);
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
    size_t operator()(std::string_view text) const { return detail::hashOfText(text); }
  };
  using Text = std::optional<std::string> Mirror::*;
  std::optional<std::string> read(Text text) const;
  void swapIn(Text text, std::optional<std::string> &value);

  mutable Mutex mutex_;
  std::optional<std::string> projectName_ QELNK_GUARDED_BY(mutex_), projectFile_ QELNK_GUARDED_BY(mutex_);
  uint64_t lastOpening_ QELNK_GUARDED_BY(mutex_) = 0, opening_ QELNK_GUARDED_BY(mutex_) = 0;
  std::set<uint64_t> openingsAsked_ QELNK_GUARDED_BY(mutex_);  // those not answered yet
  std::vector<Workflow> workflows_ QELNK_GUARDED_BY(mutex_);
  std::unordered_map<std::string, size_t, Hash, std::equal_to<>> placeByPort_ QELNK_GUARDED_BY(mutex_);
};

}  // namespace qelnk
