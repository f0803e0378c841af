#pragma once

#include <QELNetworkKit/Error.h>
#include <QELNetworkKit/QELNKKORVALClient.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// One loading of the mirror: asks for the project, then for the workflows, then for the ports of each of them, and
/// reports "connected" once everything asked for has come.
///
/// Its requests are scheduled, never waited for: they are made on the io thread and on the response queue, where a
/// synchronous caller is served.
///
/// Threads: start() on any thread; the rest runs on the response queue. Its messages own it.
class QELNK_HIDDEN QELNKKORVALClient::Load : public std::enable_shared_from_this<Load> {
 public:
  /// For the project of an opening of the mirror's; on the connection that there is now, or on the first.
  Load(uint64_t opening, uint64_t connection) : opening_(opening), connection_(connection) {}
  void start(QELNKKORVALClient &client);

 private:
  using Workflow = std::shared_ptr<QELNKOrlinWorkflow>;
  using Step = std::function<void(QELNKKORVALClient &client, const qelnk::Value &data)>;

  std::shared_ptr<QELNKMessage> ask(qelnk::Value request, std::string what, Step step);
  std::shared_ptr<QELNKMessage> barrier();
  void addWorkflows(QELNKKORVALClient &client, const qelnk::Value &descriptions);
  Workflow addWorkflow(QELNKKORVALClient &client, const qelnk::Value &description);
  void addPorts(QELNKKORVALClient &client, const Workflow &workflow, const qelnk::Value &descriptions);
  /// Ends this load, with one line on the log however many of its requests fail. What it has added goes, so that the
  /// next one brings everything once.
  void fail(QELNKKORVALClient &client, const std::string &what, const qelnk::Error &error);
  void giveUp(QELNKKORVALClient &client);
  /// Those whom the end of this load is reported to; none where another one has taken its place.
  std::optional<Awaiting> takeAwaiting(QELNKKORVALClient &client) const;
  /// Whether its connection has ended. The next one has a load of its own.
  bool isOver(const QELNKKORVALClient &client) const { return client.connection() != connection_; }

  const uint64_t opening_, connection_;
  bool failed_ = false;
  size_t ports_ = 0;  // of all workflows
  std::vector<Workflow> added_;
};
