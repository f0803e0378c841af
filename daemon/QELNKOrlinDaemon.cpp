#include <QELNetworkKit/QELNKOrlinDaemon.h>
#include <fmt/format.h>

QELNKOrlinDaemon::QELNKOrlinDaemon(std::string project, int64_t port, int64_t webSocketPort,
                                   std::shared_ptr<qelnk::Process> task)
    : port_(port), webSocketPort_(webSocketPort), project_(std::move(project)), task_(std::move(task)) {}

void QELNKOrlinDaemon::quit() {
  const auto process = task();
  if (!process) return;
  process->waitUntilExit();
  setTask(nullptr);
}

std::string QELNKOrlinDaemon::project() const {
  const qelnk::Lock lock(mutex_);
  return project_;
}

void QELNKOrlinDaemon::setProject(std::string project) {
  const qelnk::Lock lock(mutex_);
  project_.swap(project);
}

std::shared_ptr<qelnk::Process> QELNKOrlinDaemon::task() const {
  const qelnk::Lock lock(mutex_);
  return task_;
}

void QELNKOrlinDaemon::setTask(std::shared_ptr<qelnk::Process> task) {
  const qelnk::Lock lock(mutex_);
  task_.swap(task);
}

std::string QELNKOrlinDaemon::description() const {
  return fmt::format("orlin daemon with project {} on port {}", project(), port_);
}

void QELNKOrlinDaemon::whenEnded(const std::function<void()> &notice) {
  {
    const qelnk::Lock lock(mutex_);
    if (!hasEnded_) return notices_.push_back(notice);
  }
  notice();
}

void QELNKOrlinDaemon::noteEnd() {
  std::vector<std::function<void()>> notices;
  {
    const qelnk::Lock lock(mutex_);
    hasEnded_ = true;
    notices.swap(notices_);
  }
  for (const auto &notice : notices) notice();
}
