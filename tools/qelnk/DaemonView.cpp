#include "DaemonView.h"

#include "Notation.h"
#include "Table.h"

namespace tool {

using qelnk::Value;

namespace {

Value plain(const std::optional<std::string> &text) { return text ? Value(*text) : Value(); }
Value plain(const std::optional<Value> &value) { return value ? notationOf(*value) : Value(); }

/// A value for people: strings as they are, "-" for none.
std::string readable(const std::optional<Value> &value) {
  if (!value || value->isNull()) return "-";
  return value->isString() ? std::string(value->string()) : textOf(*value);
}

std::string projectLine(const QELNKKORVALClient &client) {
  std::string line = client.projectName().value_or("(no project)");
  if (const auto file = client.projectFile()) line += "  " + *file;
  return line + (client.running() ? "  running" : "  stopped");
}

std::string workflowState(const QELNKOrlinWorkflow &workflow) {
  return std::string(workflow.executing() ? "executing" : "idle") +
         (workflow.executeOnRun() ? ", executes with the project" : "");
}

std::string_view directionOf(const QELNKOrlinPort &port) {
  return port.portType() == QELNKOrlinPortTypeOutput ? "output" : "input";
}

void showProjectTree(Output &output, const QELNKKORVALClient &client) {
  output.line(output.bold(projectLine(client)));
  for (const auto &workflow : client.workflows()) {
    output.line("  " + output.bold(labelOf(*workflow)) + "  [" + workflow->uid().value_or("") + "]  " +
                workflowState(*workflow));
    Table table;
    for (const auto &port : workflow->ports())
      table.add({std::string(directionOf(*port)), labelOf(*port), "[" + port->uid().value_or("") + "]",
                 std::string(QELNKOrlinPort::nameOfValueType(port->valueType())), readable(port->currentValue())});
    if (std::string rows = table.text("    "); !rows.empty()) {
      rows.pop_back();
      output.line(rows);
    }
  }
}

}  // namespace

void showProject(Output &output, const QELNKKORVALClient &client) {
  if (!output.json()) return output.line(projectLine(client));
  output.event(
      "project",
      {{"name", plain(client.projectName())}, {"file", plain(client.projectFile())}, {"running", client.running()}});
}

void showWorkflow(Output &output, const QELNKOrlinWorkflow &workflow) {
  if (!output.json()) return output.line(labelOf(workflow) + "  " + workflowState(workflow));
  output.event("workflow", {{"id", plain(workflow.uid())},
                            {"name", plain(workflow.name())},
                            {"executing", workflow.executing()},
                            {"executeOnRun", workflow.executeOnRun()}});
}

void showPort(Output &output, const QELNKOrlinWorkflow &workflow, const QELNKOrlinPort &port) {
  const auto value = port.currentValue();
  if (!output.json()) return output.line(labelOf(workflow) + "  " + labelOf(port) + "  " + readable(value));
  output.event("port", {{"workflow", labelOf(workflow)},
                        {"id", plain(port.uid())},
                        {"name", plain(port.name())},
                        {"direction", directionOf(port)},
                        {"valueType", QELNKOrlinPort::nameOfValueType(port.valueType())},
                        {"value", plain(value)},
                        {"text", plain(port.currentValueAsString())}});
}

void showUpdate(Output &output, const QELNKOrlinWorkflow &workflow, const QELNKOrlinPort &port,
                const std::optional<Value> &value) {
  if (!output.json()) return output.line(labelOf(workflow) + "  " + labelOf(port) + "  " + readable(value));
  output.event("update", {{"workflow", labelOf(workflow)}, {"port", labelOf(port)}, {"value", plain(value)}});
}

void showTree(Output &output, const QELNKKORVALClient &client) {
  if (!output.json()) return showProjectTree(output, client);
  showProject(output, client);
  for (const auto &workflow : client.workflows()) {
    showWorkflow(output, *workflow);
    for (const auto &port : workflow->ports()) showPort(output, *workflow, *port);
  }
}

}  // namespace tool
