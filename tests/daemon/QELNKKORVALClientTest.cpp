#include <QELNetworkKit/PQODictionary.h>
#include <QELNetworkKit/QELNKContext.h>
#include <QELNetworkKit/QELNKKORVALClient.h>
#include <QELNetworkKit/RunLoop.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "daemon/FakeDaemon.h"
#include "support/TestSupport.h"

using namespace qelnk;
using namespace qelnk::test;
using namespace std::chrono_literals;

namespace {

Value push(const std::string &id, Value value) {
  return Value::map({{"command", "portValueUpdate"}, {"data", Value::map({{"id", id}, {"value", std::move(value)}})}});
}

class KORVALClient : public testing::Test {
 protected:
  FakeDaemon daemon_{exampleWorkflows()};
  std::shared_ptr<QELNKKORVALClient> client_ = connectedClient(daemon_);
  const std::shared_ptr<QELNKOrlinWorkflow> a_ = client_->workflowWithID("a"), b_ = client_->workflowWithID("b");
  const std::shared_ptr<QELNKOrlinPort> in_ = a_->portWithID("in"), out_ = a_->portWithID("out");
  const size_t loaded_ = daemon_.requests().size();

  std::vector<Value> commands() const {
    auto requests = daemon_.requests();
    requests.erase(requests.begin(), requests.begin() + ptrdiff_t(loaded_));
    return requests;
  }
  /// Waits until the daemon has had this many commands and each has been answered.
  bool answered(size_t count) {
    return eventually([&] { return commands().size() >= count && client_->pendingMessages() == 0; });
  }
};

/// What some calls send, in order: commands with their data.
struct Sends {
  const char *name;
  std::function<void(QELNKKORVALClient &client)> call;
  std::vector<std::pair<const char *, Value>> requests;
};

class KORVALCommand : public KORVALClient, public testing::WithParamInterface<Sends> {};

Value portValue(const char *id, Value value) { return Value::map({{"id", id}, {"value", std::move(value)}}); }
Value idOf(const char *id) { return Value::map({{"id", id}}); }

using C = QELNKKORVALClient;
const std::vector<std::pair<const char *, Value>> nothing;

}  // namespace

TEST_P(KORVALCommand, SendsItsRequests) {
  const Sends &expected = GetParam();
  expected.call(*client_);
  // A last command: what was to be sent has been sent before it.
  client_->sendRequest(client_->requestForCommand("fence"), nullptr);
  ASSERT_TRUE(eventually([&] { return daemon_.count("fence") == 1; }));
  const auto sent = commands();
  ASSERT_EQ(sent.size(), expected.requests.size() + 1);
  for (size_t i = 0; i < expected.requests.size(); ++i) {
    EXPECT_EQ(sent[i]["command"], Value(expected.requests[i].first));
    EXPECT_EQ(sent[i]["data"], expected.requests[i].second);
    EXPECT_EQ(sent[i]["messageID"], Value(loaded_ + i));
    EXPECT_EQ(sent[i].size(), expected.requests[i].second.isNull() ? 3u : 4u);
  }
}

static const Sends commandCases[] = {
    {"Start", [](C &c) { c.startProject(nullptr); }, {{"startProject", {}}}},
    {"Stop", [](C &c) { c.stopProject(nullptr); }, {{"stopProject", {}}}},
    {"Save", [](C &c) { c.save(); }, {{"saveProject", Value::map({{"name", "show.prj"}})}}},
    {"SaveAs", [](C &c) { c.saveProject("x.prj"); }, {{"saveProject", Value::map({{"name", "x.prj"}})}}},
    {"StartWorkflow", [](C &c) { c.startWorkflow(c.workflowWithID("a")); }, {{"startWorkflow", idOf("a")}}},
    {"StartExecutingWorkflow", [](C &c) { c.startWorkflow(c.workflowWithID("b")); }, nothing},
    {"StopWorkflow", [](C &c) { c.stopWorkflow(c.workflowWithID("b")); }, {{"stopWorkflow", idOf("b")}}},
    {"StopIdleWorkflow", [](C &c) { c.stopWorkflow(c.workflowWithID("a")); }, nothing},
    {"SetPort",
     [](C &c) {
       c.setWorkflow(c.workflowWithID("a"), c.workflowWithID("a")->portWithID("in"), Value::list({1, "x"}));
     },
     {{"setPortValue", portValue("in", Value::list({1, "x"}))}}},
    {"SetMap",
     [](C &c) {
       c.setWorkflow(c.workflowWithID("a"), Value::map({{"port in", 2}, {"nobody", 3}, {7, 1}}));
     },
     {{"setPortValue", portValue("in", 2)}}},
    {"SetOrderedMap",
     [](C &c) {
       c.setWorkflow(c.workflowWithID("a"), PQODictionary{{"port out", 2.5}, {"port in", Value()}});
     },
     {{"setPortValue", portValue("out", 2.5)}, {"setPortValue", portValue("in", Value())}}},
    {"SetLists",
     [](C &c) {
       c.setWorkflow(c.workflowWithID("a"), {"port out", "nobody", "port in"}, {1.5, 0, true});
     },
     {{"setPortValue", portValue("out", 1.5)}, {"setPortValue", portValue("in", true)}}},
    {"SetListsOfDifferentLengths",
     [](C &c) {
       c.setWorkflow(c.workflowWithID("a"), {"port out", "port in"}, {1, 2, 3});
     },
     nothing},
    {"SetEmptyLists",
     [](C &c) { c.setWorkflow(c.workflowWithID("a"), std::vector<std::string>(), std::vector<Value>()); }, nothing},
    {"TriggerBool",
     [](C &c) { c.triggerWorkflow(c.workflowWithID("a"), "port on"); },
     {{"setPortValue", portValue("on", true)}, {"setPortValue", portValue("on", false)}}},
    {"TriggerTrig",
     [](C &c) { c.triggerWorkflow(c.workflowWithID("a"), "port go"); },
     {{"setPortValue", portValue("go", true)}}},
    {"TriggerOthers",
     [](C &c) {
       c.triggerWorkflow(c.workflowWithID("a"), "port in");
       c.triggerWorkflow(c.workflowWithID("a"), "nobody");
     },
     nothing},
    {"Register",
     [](C &c) {
       c.registerWorkflow(c.workflowWithID("a"), {"port in", "port out", "nobody"}, nullptr);
     },
     {{"registerPortUpdate", idOf("out")}}},
    {"Unregister",
     [](C &c) {
       c.unRegisterWorkflow(c.workflowWithID("a"), {"port out", "port in"});
     },
     {{"unregisterPortUpdate", idOf("out")}}},
    {"NobodysWorkflow",
     [](C &c) {
       c.startWorkflow(nullptr);
       c.setWorkflow(nullptr, nullptr, 1);
       c.setWorkflow(nullptr, Value::map({{"port in", 1}}));
       c.setWorkflow(nullptr, {"port in"}, {1});
       c.triggerWorkflow(nullptr, "port on");
       c.registerWorkflow(nullptr, {"port out"}, nullptr);
     },
     nothing}};

INSTANTIATE_TEST_SUITE_P(Commands, KORVALCommand, testing::ValuesIn(commandCases),
                         [](const auto &info) { return info.param.name; });

TEST_F(KORVALClient, ChangesItsMirrorWhenTheDaemonHasAnswered) {
  daemon_.fallSilent();
  client_->startProject(nullptr);
  client_->startWorkflow(a_);
  client_->stopWorkflow(b_);
  client_->setWorkflow(a_, in_, "17");
  ASSERT_TRUE(eventually([&] { return commands().size() == 4; }));
  EXPECT_FALSE(client_->running());
  EXPECT_FALSE(a_->executing());
  EXPECT_TRUE(b_->executing());
  EXPECT_EQ(in_->intValue(), 1);
  for (const Value &request : commands()) daemon_.send(answerTo(request, Value::map({{"value", "18"}})));
  ASSERT_TRUE(eventually([&] { return in_->intValue() == 18; }));
  EXPECT_TRUE(client_->running());
  EXPECT_TRUE(a_->executing());
  EXPECT_FALSE(b_->executing());
  daemon_.setScript(nullptr);
  std::atomic<bool> stopped{false};
  client_->stopProject([&](const auto &of, const auto &message) {
    EXPECT_EQ(of, client_);
    EXPECT_TRUE(message->response());
    EXPECT_FALSE(client_->running());
    stopped = true;
  });
  EXPECT_TRUE(eventually([&] { return stopped.load(); }));
}

TEST_F(KORVALClient, KeepsAValueThatTheAnswerDoesNotConfirm) {
  daemon_.setScript([](const Value &request, std::vector<Value>) {
    const Value &value = request["data"]["value"];
    if (value == Value(0)) return std::vector<Value>{Value::map({{"messageID", request["messageID"]}})};
    return std::vector<Value>{answerTo(request, value == Value(1) ? Value() : Value::map({{"value", Value::list()}}))};
  });
  for (int value = 0; value < 3; ++value) client_->setWorkflow(a_, in_, value);
  ASSERT_TRUE(answered(3));
  EXPECT_EQ(in_->intValue(), 1);
}

TEST_F(KORVALClient, TakesTheProjectsStateFromTheAnswerToSave) {
  daemon_.setScript([](const Value &request, std::vector<Value>) {
    return std::vector<Value>{
        answerTo(request, Value::map({{"name", "new"}, {"file", Value()}, {"status", "running? no, yes: Y"}}))};
  });
  client_->saveProject("new.prj");
  ASSERT_TRUE(eventually([&] { return client_->projectName() == "new"; }));
  EXPECT_EQ(client_->projectFile(), std::nullopt);
}

TEST_F(KORVALClient, GivesAnswersInReverseOrderToTheirOwnCallbacks) {
  daemon_.fallSilent();
  std::atomic<int> done{0};
  for (int i = 0; i < 3; ++i)
    client_->startProject([&, i](const auto &, const auto &message) {
      EXPECT_EQ((*message->response())["data"], Value(i));
      ++done;
    });
  ASSERT_TRUE(eventually([&] { return commands().size() == 3; }));
  for (int i = 2; i >= 0; --i) daemon_.send(answerTo(commands()[size_t(i)], i));
  EXPECT_TRUE(eventually([&] { return done == 3; }));
}

TEST_F(KORVALClient, TellsTheHostOfACommandThatEndedWithoutAnAnswer) {
  daemon_.fallSilent();
  std::atomic<int> done{0};
  const auto expectFailure = [&](const auto &, const auto &message) {
    EXPECT_FALSE(message->response());
    EXPECT_TRUE(message->error());
    ++done;
  };
  client_->startProject(expectFailure);
  client_->startWorkflow(a_);
  client_->saveProject("x");
  client_->loadProject("x", [](const auto &) { ADD_FAILURE() << "not loaded"; });
  ASSERT_TRUE(eventually([&] { return commands().size() == 4; }));
  const CapturedLog log(LogLevel::error);
  client_->disconnect();
  EXPECT_TRUE(eventually([&] { return done == 1 && log.contains("QELNKKORVALClient could not load project x"); }));
  client_->stopProject(expectFailure);
  EXPECT_TRUE(eventually([&] { return done == 2; }));
  EXPECT_FALSE(client_->running());
  EXPECT_FALSE(a_->executing());
  EXPECT_EQ(client_->projectName(), "show");
  EXPECT_EQ(client_->numberOfWorkflows(), 3u);
}

// Pushes.

TEST_F(KORVALClient, StoresAPushAndThenCallsBack) {
  std::vector<double> seen;
  std::atomic<int> calls{0};
  client_->registerWorkflow(a_, {"port in", "port out"},
                            [&](const auto &client, const auto &workflow, const auto &port) {
                              EXPECT_EQ(client, client_);
                              EXPECT_EQ(workflow, a_);
                              EXPECT_EQ(port, out_);
                              seen.push_back(port->doubleValue());
                              ++calls;
                            });
  ASSERT_TRUE(answered(1));
  daemon_.send(push("in", 5));
  daemon_.send(push("nobody", 5));
  daemon_.send(push("out", 2.5));
  ASSERT_TRUE(eventually([&] { return calls == 1; }));
  EXPECT_EQ(seen, std::vector<double>{2.5});
  EXPECT_EQ(in_->intValue(), 5);
  EXPECT_EQ(b_->portWithID("out")->stringValue(), std::nullopt) << "the first workflow with the identifier takes it";

  client_->unRegisterWorkflow(a_, {"port out"});
  ASSERT_TRUE(answered(2));
  daemon_.send(push("out", 3.5));
  daemon_.send(push("in", 6));
  ASSERT_TRUE(eventually([&] { return in_->intValue() == 6; }));
  EXPECT_EQ(out_->doubleValue(), 3.5);
  EXPECT_EQ(calls, 1);
}

// A queue that is slower than the daemon would fill up for ever.
TEST_F(KORVALClient, CallsBackOnceForSeveralPushesWhenVeryManyWait) {
  const CapturedLog quiet(LogLevel::off);
  constexpr int most = 65536, pushes = 70000;
  std::promise<void> goOn;
  std::atomic<int> calls{0}, last{0};
  client_->registerWorkflow(a_, {"port out"}, [&](auto &, auto &, const auto &port) {
    if (calls++ == 0) goOn.get_future().wait();
    last = int(port->doubleValue());
  });
  ASSERT_TRUE(answered(1));
  for (int i = 1; i <= pushes; ++i) {
    daemon_.send(push("out", i));
    const bool isRead = i % 500 != 0 || eventually([&] { return int(out_->doubleValue()) == i; });
    ASSERT_TRUE(isRead);  // so that ZeroMQ drops none
  }
  goOn.set_value();
  EXPECT_TRUE(eventually([&] { return last == pushes && calls >= most; }));
  EXPECT_LE(calls, most + 2);
  daemon_.send(push("out", -1));
  EXPECT_TRUE(eventually([&] { return last == -1; }));
}

TEST_F(KORVALClient, DiscardsWhatIsNoAnswerAndNoPush) {
  const CapturedLog log(LogLevel::error);
  daemon_.send(Value::map({{"command", "other"}, {"data", Value::map({{"id", "in"}, {"value", 9}})}}));
  daemon_.send(Value::map({{"messageID", -3}}));
  daemon_.send(Value::map({{"command", "portValueUpdate"}}));
  daemon_.send(push("in", "not a push that fits: 0"));
  ASSERT_TRUE(eventually([&] { return in_->intValue() == 0; }));
  EXPECT_EQ(log.count("QELNKClient got response without matching message, discarding it"), 4u);
}

// A push carries no number, which reads as 0: the number of a client's first request, and of the empty message that
// waits behind the ports.
TEST(KORVALPush, WithoutANumberAnswersTheFirstRequestOrTheBarrier) {
  FakeDaemon daemon(exampleWorkflows());
  daemon.setScript([&](const Value &request, std::vector<Value> answers) {
    if (request["messageID"] == Value(0))
      return std::vector<Value>{
          Value::map({{"command", "portValueUpdate"}, {"data", Value::map({{"name", "pushed"}})}})};
    if (request["messageID"] == Value(4)) return std::vector<Value>{push("in", 9)};
    return answers;
  });
  const auto client = connectedClient(daemon);
  EXPECT_EQ(client->projectName(), "pushed");
  EXPECT_EQ(client->workflowWithID("a")->portWithID("in")->intValue(), 1);
  EXPECT_TRUE(eventually([&] { return client->pendingMessages() == 1; })) << "the last list of ports is still to come";
}

TEST(KORVALLife, EndsInItsCallbacks) {
  FakeDaemon daemon(exampleWorkflows());
  LastReference pushed(connectedClient(daemon));
  pushed->registerWorkflow(pushed->workflowWithID("a"), {"port out"},
                           [&](const auto &, const auto &, const auto &) { pushed.letGo(); });
  ASSERT_TRUE(eventually([&] { return daemon.count("registerPortUpdate") == 1; }));
  for (int i = 0; i < 100; ++i) daemon.send(push("out", i));
  EXPECT_TRUE(eventually([&] { return pushed.isDestroyed(); }));

  LastReference answered(connectedClient(daemon));
  answered->startProject([&](const auto &, const auto &) { answered.letGo(); });
  EXPECT_TRUE(eventually([&] { return answered.isDestroyed(); }));
}

// What a call serves while it waits may let go of the client and of all that the call was given.
TEST(KORVALLife, EndsInsideASynchronousCall) {
  FakeDaemon daemon(exampleWorkflows());
  for (const bool registering : {false, true}) {
    auto client = QELNKKORVALClient::create(QELNKContext::sharedContext());
    client->setSyncRequests(true);
    client->connectToHost("localhost", daemon.port(), nullptr);
    auto workflow = client->workflowWithID("a");
    ASSERT_TRUE(workflow);
    const std::weak_ptr weakly = client;
    RunLoop::main()->performAfter(0ms, [&] {
      client = nullptr;
      workflow = nullptr;
    });
    if (registering)
      client->registerWorkflow(workflow, {"port out", "port out"}, nullptr);
    else
      client->setWorkflow(workflow, Value::map({{"port in", 1}, {"port on", true}}));
    EXPECT_TRUE(eventually([&] { return weakly.expired(); }));
  }
}

// Ending, and synchronous calls.

TEST_F(KORVALClient, QuitsAndDisconnects) {
  client_->quit();
  EXPECT_TRUE(eventually([&] { return daemon_.count("quit") == 1 && !client_->socket(); }));
}

TEST(KORVALSync, CallsReturnWithTheirEffect) {
  FakeDaemon daemon(exampleWorkflows());
  const auto client = QELNKKORVALClient::create(QELNKContext::contextWithBackgroundQueue());
  client->setSyncRequests(true);
  std::atomic<bool> connected{false};
  client->connectToHost("localhost", daemon.port(), [&](const auto &) { connected = true; });
  EXPECT_TRUE(connected);
  const auto workflow = client->workflowWithID("a");
  const auto hammer = [&] {
    for (int i = 0; i < 50; ++i) client->setWorkflow(workflow, workflow->portWithID("in"), i);
  };
  std::thread other(hammer);
  hammer();
  other.join();
  EXPECT_EQ(daemon.count("setPortValue"), 100u);
  client->triggerWorkflow(workflow, "port on");
  EXPECT_EQ(daemon.count("setPortValue"), 102u);
  client->quit();
  EXPECT_TRUE(eventually([&] { return daemon.count("quit") == 1; }));
}

TEST(KORVALSync, ServesTheMainQueueMeanwhile) {
  FakeDaemon daemon(exampleWorkflows());
  const auto client = QELNKKORVALClient::create(QELNKContext::sharedContext());
  client->setSyncRequests(true);
  bool connected = false, loaded = false;
  client->connectToHost("localhost", daemon.port(), [&](const auto &) { connected = true; });
  EXPECT_TRUE(connected);
  client->loadProject("other", [&](const auto &) { loaded = true; });
  EXPECT_TRUE(eventually([&] { return loaded; }));
}

// Size.

TEST(KORVALSize, ManyWorkflowsAndPushes) {
  FakeDaemon::Workflows workflows;
  for (int w = 0; w < 1000; ++w) {
    const auto name = std::to_string(w);
    workflows.emplace_back(workflowDescription(name), std::vector<Value>());
    for (int p = 0; p < 50; ++p)
      workflows.back().second.push_back(portDescription(name + "." + std::to_string(p), "output", "int_", p));
  }
  FakeDaemon daemon(workflows);
  const auto client = connectedClient(daemon);
  ASSERT_EQ(client->numberOfWorkflows(), 1000u);
  const auto last = client->workflowWithIndex(999);
  EXPECT_EQ(last->numberOfPorts(), 50u);

  const CapturedLog log(LogLevel::off);
  std::atomic<int> calls{0};
  client->registerWorkflow(last, {"port 999.49"}, [&](const auto &, const auto &, const auto &) { ++calls; });
  for (int i = 1; i <= 20000; ++i) daemon.send(push("999.49", i));
  EXPECT_TRUE(eventually([&] { return calls == 20000; }));
  EXPECT_EQ(last->portWithIndex(49)->intValue(), 20000);
}
