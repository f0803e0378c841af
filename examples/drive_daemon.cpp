// Launches a daemon with a project, shows what is in it, sets an input, and follows an output.
//   drive_daemon "build/release/bin/Orlin Daemon/orlin Daemon.app" examples/studio.prj
// Change first: the project, and the names of the workflow and its ports.

#include <QELNetworkKit/QELNetworkKit.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

using namespace std::chrono_literals;
using qelnk::Value;

int main(int argc, char **argv) {
  if (argc != 3 && argc != 4) {
    std::fprintf(stderr, "usage: drive_daemon BUNDLE PROJECT [PORT]\n");
    return 64;
  }
  const auto loop = qelnk::RunLoop::main();
  // The spawner gives its daemons the ports from this one on.
  QELNKOrlinDaemonSpawner spawner(argv[1], argc == 4 ? std::atoi(argv[3]) : 5600);
  double meter = 0;
  // The daemon is up and its mirror complete; on the main thread, as everything the client calls.
  const auto onConnected = [&](const auto &daemon) {
    for (const auto &workflow : daemon->workflows())
      for (const auto &port : workflow->ports())
        std::printf("%s / %s is %s\n", workflow->name().value_or("").c_str(), port->name().value_or("").c_str(),
                    port->currentValueAsString().value_or("").c_str());

    const auto mixer = daemon->workflowWithName("Mixer");
    if (!mixer) return loop->stop();
    daemon->registerWorkflow(mixer, {"Meter"}, [&](auto &, auto &, auto &port) {
      std::printf("Meter is now %s\n", port->currentValueAsString()->c_str());
      meter = port->doubleValue();
      loop->stop();
    });
    daemon->setWorkflow(mixer, Value::map({{"Level", 0.75}}));
  };

  try {
    auto client = spawner.spawnConnectedDaemonWithProject(argv[2], Value::map(), onConnected);
    auto limit = loop->performAfter(30s, [&] { loop->stop(); });
    loop->run();
    limit->cancel();
    client->quit();  // ends the daemon and waits for it; it lives on otherwise
  } catch (const qelnk::ProcessError &error) {
    std::fprintf(stderr, "%s\n", error.what());
  }
  if (meter != 0.75) std::fprintf(stderr, "the daemon did not do as it was told\n");
  return meter == 0.75 ? 0 : 1;
}
