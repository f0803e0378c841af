#include <QELNetworkKit/QELNKOrlinWorkflow.h>
#include <gtest/gtest.h>

#include "daemon/FakeDaemon.h"

using qelnk::Value;
using qelnk::test::portDescription;
using qelnk::test::workflowDescription;

TEST(OrlinWorkflow, TakesItsDescription) {
  const QELNKOrlinWorkflow workflow(workflowDescription("w", true));
  EXPECT_EQ(workflow.name(), "workflow w");
  EXPECT_EQ(workflow.uid(), "w");
  EXPECT_TRUE(workflow.executing());
  EXPECT_TRUE(workflow.executeOnRun());
  const QELNKOrlinWorkflow nameless(Value::map({{"name", Value()}, {"status", "no"}}));
  EXPECT_EQ(nameless.name(), std::nullopt);
  EXPECT_FALSE(nameless.executing());
  EXPECT_FALSE(nameless.executeOnRun());
}

TEST(OrlinWorkflow, FindsPortsByPlaceAndDirection) {
  QELNKOrlinWorkflow workflow(workflowDescription("w"));
  EXPECT_EQ(workflow.portWithIndex(0), nullptr);
  for (const char *direction : {"output", "input", "output", "input"})
    workflow.addPortWithDescription(portDescription(direction, direction, "int_"));
  EXPECT_EQ(workflow.inputPortWithIndex(1), workflow.portWithIndex(3));
  EXPECT_EQ(workflow.outputPortWithIndex(1), workflow.portWithIndex(2));
  EXPECT_EQ(workflow.outputPortWithIndex(2), nullptr);
  EXPECT_EQ(workflow.portWithIndex(4), nullptr);
  EXPECT_EQ(workflow.numberOfPorts(), 4u);
  EXPECT_EQ(workflow.numberOfInputPorts(), 2u);
  EXPECT_EQ(workflow.numberOfOutputPorts(), 2u);
  EXPECT_EQ(workflow.ports().back(), workflow.portWithIndex(3));
}

TEST(OrlinWorkflow, FindsTheFirstPortOfANameOrIdentifier) {
  QELNKOrlinWorkflow workflow(workflowDescription("w"));
  workflow.addPortWithDescription(Value::map());  // without either
  const auto first = workflow.addPortWithDescription(portDescription("a", "input", "int_"));
  workflow.addPortWithDescription(portDescription("a", "output", "bool"));
  EXPECT_EQ(workflow.portWithID("a"), first);
  EXPECT_EQ(workflow.portWithName("port a"), first);
  EXPECT_EQ(workflow.portWithID(""), nullptr);
  EXPECT_EQ(workflow.portWithName("port b"), nullptr);
}
