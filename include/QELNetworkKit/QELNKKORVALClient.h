#pragma once

#include <QELNetworkKit/Export.h>
#include <QELNetworkKit/QELNKClient.h>
#include <QELNetworkKit/QELNKKORVALConstants.h>
#include <QELNetworkKit/QELNKOrlinWorkflow.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qelnk {
class Mirror;
}

/// Drives one processing daemon and mirrors its project, workflows and ports.
///
/// connectToHost() reports "connected" once the mirror is complete: the project, all workflows and all their ports are
/// known. Commands report no errors of the daemon; a value that does not fit is ignored. A message that ended without a
/// response (timed out, cancelled, disconnected) changes nothing in the mirror, and callbacks of the host get it with
/// its error set.
///
/// Threads: every public operation may be called from any thread. Callbacks run on the context's response queue; pushed
/// values are stored on the io thread, before their callback runs.
class QELNK_EXPORT QELNKKORVALClient : public QELNKClient {
 public:
  /// Called for a pushed value, on the response queue.
  using UpdateBlock = QELNKOrlinPort::UpdateBlock;
  /// Gets the client, which is a QELNKKORVALClient, and the finished message.
  using CommandBlock = QELNKMessage::ResponseBlock;

  /// Null, with a line on the log, for no context.
  static std::shared_ptr<QELNKKORVALClient> create(std::shared_ptr<QELNKContext> context);
  ~QELNKKORVALClient() override;

  // The project.

  /// Loads the mirror from the daemon: what it lists is added, then the connected callback is called. Where the daemon
  /// goes meanwhile, or does not answer in time, nothing is added and called, and the log says so: call it again, or
  /// connect anew. Never waits, with syncRequests() neither.
  void updateWorkflows();
  /// Starts the project, then calls `onDone` (which may be empty).
  void startProject(CommandBlock onDone);
  /// Stops the project, then calls `onDone` (which may be empty).
  void stopProject(CommandBlock onDone);
  /// Has the daemon save the project under `name`, and takes over its state from the reply.
  void saveProject(const std::string &name);
  /// Saves the project under its own file.
  void save();
  /// Has the daemon open a project; then empties the mirror, loads it anew and calls `onLoaded`.
  void loadProject(const std::string &name, ConnectedBlock onLoaded);
  /// Takes over the project's state from a description of it.
  void updateProjectState(const qelnk::Value &description);
  /// Asks the daemon to exit, and disconnects once that has been sent.
  virtual void quit();

  /// Whether the project runs, as far as this side knows.
  bool running() const;
  /// None while no project is known, or the daemon gave none.
  std::optional<std::string> projectName() const;
  void setProjectName(std::optional<std::string> name);
  /// The project's file; none while no project is known, or the daemon gave none. Setting it changes this side alone.
  std::optional<std::string> projectFile() const;
  void setProjectFile(std::optional<std::string> file);

  // Workflows; no traffic. The first in order, or null.

  /// The first workflow of that name, or null.
  std::shared_ptr<QELNKOrlinWorkflow> workflowWithName(std::string_view name) const;
  /// The first workflow of that identifier, or null.
  std::shared_ptr<QELNKOrlinWorkflow> workflowWithID(std::string_view uid) const;
  /// The workflow at a place in the daemon's order, or null beyond the end.
  std::shared_ptr<QELNKOrlinWorkflow> workflowWithIndex(size_t index) const;
  /// How many workflows are known.
  size_t numberOfWorkflows() const;
  /// All as they are now, in the daemon's order.
  std::vector<std::shared_ptr<QELNKOrlinWorkflow>> workflows() const;

  // Commands for workflows and ports.

  // The requests for one workflow or port return their message, null where nothing is to be sent.

  /// Null, with nothing sent, for a workflow that is executing already.
  std::shared_ptr<QELNKMessage> startWorkflow(const std::shared_ptr<QELNKOrlinWorkflow> &workflow);
  /// Null, with nothing sent, for a workflow that is not executing.
  std::shared_ptr<QELNKMessage> stopWorkflow(const std::shared_ptr<QELNKOrlinWorkflow> &workflow);

  /// Asks the daemon to set a port; the mirror changes when it has confirmed.
  std::shared_ptr<QELNKMessage> setWorkflow(const std::shared_ptr<QELNKOrlinWorkflow> &workflow,
                                            const std::shared_ptr<QELNKOrlinPort> &port, const qelnk::Value &value);
  /// One request for each port that a key of `values` (a map of port name to value) names; other keys are skipped.
  void setWorkflow(const std::shared_ptr<QELNKOrlinWorkflow> &workflow, const qelnk::Value &values);
  /// The same from two lists of the same length; lists of different lengths send nothing.
  void setWorkflow(const std::shared_ptr<QELNKOrlinWorkflow> &workflow, std::vector<std::string> ports,
                   std::vector<qelnk::Value> values);
  /// Sends true to a trig port, true and then false to a bool port, nothing to any other.
  void triggerWorkflow(const std::shared_ptr<QELNKOrlinWorkflow> &workflow, std::string_view portName);

  /// Has the daemon push the values of output ports, and `onUpdate` called for each push; where 65,536 calls wait for
  /// the response queue, once for several pushes of a port. Input ports and unknown names are skipped. The port keeps
  /// `onUpdate` until it is unregistered: one that holds the client keeps it alive.
  void registerWorkflow(const std::shared_ptr<QELNKOrlinWorkflow> &workflow, std::vector<std::string> updatesForPorts,
                        UpdateBlock onUpdate);
  /// Ends the pushes of these output ports, and lets go of their callbacks at once.
  void unRegisterWorkflow(const std::shared_ptr<QELNKOrlinWorkflow> &workflow,
                          std::vector<std::string> updatesForPorts);
  /// The same with another command of the daemon in place of "registerPortUpdate".
  void registerWorkflow(const std::shared_ptr<QELNKOrlinWorkflow> &workflow, std::vector<std::string> updatesForPorts,
                        std::string command, UpdateBlock onUpdate);

  /// A request map with the command, the time and the next message identifier; for sendRequest().
  qelnk::Value requestForCommand(std::string_view command);
  qelnk::Value requestForCommand(std::string_view command, const std::shared_ptr<QELNKOrlinWorkflow> &workflow);

  /// ZMQ_DEALER.
  int32_t socketType() const override;

 protected:
  /// For create() of subclasses.
  explicit QELNKKORVALClient(std::shared_ptr<QELNKContext> context);
  friend class QELNKSocket;

  void onConnected() override;
  std::shared_ptr<QELNKMessage> messageForResponse(const qelnk::Value &response) override;
  std::optional<int64_t> identifierForMessage(const QELNKMessage &message) const override;
  /// A message for scheduleMessage(), told on the log as sendRequest() does: for requests that must not wait even with
  /// syncRequests().
  static std::shared_ptr<QELNKMessage> messageForRequest(qelnk::Value request, CommandBlock onDone,
                                                         bool responseless = false);

 private:
  class Load;
  void release(Awaiting awaiting);
  void takePush(const qelnk::Value &data);
  void setProjectRunning(std::string_view command, bool runs, CommandBlock onDone);
  void loadingFailed(uint64_t opening, uint64_t connection);
  std::shared_ptr<QELNKMessage> setWorkflowExecuting(std::string_view command,
                                                     const std::shared_ptr<QELNKOrlinWorkflow> &workflow,
                                                     bool executes);
  std::shared_ptr<qelnk::Mirror> mirror_;
};
