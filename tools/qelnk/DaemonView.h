#pragma once

#include <QELNetworkKit/QELNKKORVALClient.h>

#include <optional>

#include "Output.h"

namespace tool {

// What the commands show of a daemon's mirror: an event each, or a line of text.

void showProject(Output &output, const QELNKKORVALClient &client);
void showWorkflow(Output &output, const QELNKOrlinWorkflow &workflow);
void showPort(Output &output, const QELNKOrlinWorkflow &workflow, const QELNKOrlinPort &port);
void showUpdate(Output &output, const QELNKOrlinWorkflow &workflow, const QELNKOrlinPort &port,
                const std::optional<qelnk::Value> &value);
/// All of it: as text a tree, else the events of the project, of each workflow and of its ports.
void showTree(Output &output, const QELNKKORVALClient &client);

/// The name, or the identifier of what has none.
template <class Item>
std::string labelOf(const Item &item) {
  return item.name() ? *item.name() : item.uid().value_or("");
}

}  // namespace tool
