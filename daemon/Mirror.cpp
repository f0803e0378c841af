#include "daemon/Mirror.h"

#include <algorithm>

namespace qelnk {

size_t Mirror::append(const Workflow &workflow) {
  const Lock lock(mutex_);
  workflows_.push_back(workflow);
  return workflows_.size() - 1;
}

void Mirror::takeBack(const std::vector<Workflow> &added) {
  const Lock lock(mutex_);
  if (added.size() > workflows_.size() || !std::equal(added.rbegin(), added.rend(), workflows_.rbegin())) return;
  workflows_.resize(workflows_.size() - added.size());
  std::erase_if(placeByPort_, [left = workflows_.size()](const auto &entry) { return entry.second >= left; });
}

void Mirror::opened(uint64_t opening) {
  std::vector<Workflow> removed;  // ends after the lock: with it may end callbacks of the host
  const Lock lock(mutex_);
  removed.swap(workflows_);
  placeByPort_.clear();
  opening_ = opening;
  openingsAsked_.erase(opening);
}

uint64_t Mirror::opening() const {
  const Lock lock(mutex_);
  return opening_;
}

std::vector<Mirror::Workflow> Mirror::workflows() const {
  const Lock lock(mutex_);
  return workflows_;
}

Mirror::Workflow Mirror::workflowWithIndex(size_t index) const {
  const Lock lock(mutex_);
  return index < workflows_.size() ? workflows_[index] : nullptr;
}

size_t Mirror::numberOfWorkflows() const {
  const Lock lock(mutex_);
  return workflows_.size();
}

void Mirror::portAdded(const QELNKOrlinWorkflow *workflow, size_t place, const std::string &uid) {
  const Lock lock(mutex_);
  if (place >= workflows_.size() || workflows_[place].get() != workflow) return;
  const auto [known, isNew] = placeByPort_.try_emplace(uid, place);
  if (!isNew && place < known->second) known->second = place;
}

Mirror::Workflow Mirror::workflowWithPort(std::string_view uid) const {
  const Lock lock(mutex_);
  const auto found = placeByPort_.find(uid);
  return found == placeByPort_.end() ? nullptr : workflows_[found->second];
}

std::optional<std::string> Mirror::read(Text text) const {
  const Lock lock(mutex_);
  return this->*text;
}

void Mirror::swapIn(Text text, std::optional<std::string> &value) {
  const Lock lock(mutex_);
  (this->*text).swap(value);
}

}  // namespace qelnk
