#include "Options.h"

#include <charconv>
#include <limits>
#include <optional>
#include <sstream>

namespace sim {

const char usage[] =
    "usage: orlin-sim [-ffpath FOLDER] -tcp PORT [-web PORT] [faults] PROJECT\n"
    "\n"
    "A simulated processing daemon for the project file PROJECT (JSON). With port 0 the system chooses one, which is\n"
    "printed. The port of -web serves a page that shows the project and lets you drive it, and WebSocket clients, "
    "which\n"
    "get each change of an output port, as JSON. Ports are open to this machine alone.\n"
    "\n"
    "faults, also taken from the environment variable ORLIN_SIM_OPTIONS:\n"
    "  --delay MS         send each reply that much later\n"
    "  --drop-replies N   lose the first N replies\n"
    "  --garbage-every N  send a frame that is no message before each Nth reply\n"
    "  --exit-after N     end abruptly once N requests have been answered\n";

namespace {

uint64_t number(const std::string &option, const std::string &text, uint64_t highest) {
  uint64_t value = 0;
  const auto [stop, problem] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (problem != std::errc() || stop != text.data() + text.size() || value > highest)
    throw UsageError(option + " takes a number up to " + std::to_string(highest) + ", not " + text);
  return value;
}

constexpr uint64_t highestPort = 65535;
constexpr uint64_t anyNumber = std::numeric_limits<uint64_t>::max();
constexpr uint64_t longestDelay = 86'400'000;

}  // namespace

Options Options::parse(std::vector<std::string> words, const char *environment) {
  std::istringstream stream(environment ? environment : "");
  std::vector<std::string> all;
  for (std::string word; stream >> word;) all.push_back(word);
  all.insert(all.end(), words.begin(), words.end());

  Options options;
  std::optional<int> port;
  for (size_t index = 0; index < all.size(); ++index) {
    const std::string &word = all[index];
    if (!word.starts_with('-')) {
      if (!options.project.empty()) throw UsageError("more than one project: " + word);
      options.project = word;
      continue;
    }
    if (index + 1 == all.size()) throw UsageError("unknown option, or no value for it: " + word);
    const std::string &value = all[++index];
    if (word == "-ffpath")
      options.ffmpegPath = value;
    else if (word == "-tcp")
      port = int(number(word, value, highestPort));
    else if (word == "-web")
      options.webPort = int(number(word, value, highestPort));
    else if (word == "--delay")
      options.delay = std::chrono::milliseconds(number(word, value, longestDelay));
    else if (word == "--drop-replies")
      options.dropReplies = number(word, value, anyNumber);
    else if (word == "--garbage-every")
      options.garbageEvery = number(word, value, anyNumber);
    else if (word == "--exit-after")
      options.exitAfter = number(word, value, anyNumber);
    else
      throw UsageError("unknown option " + word);
  }
  if (!port) throw UsageError("no -tcp PORT given");
  if (options.project.empty()) throw UsageError("no project given");
  options.port = *port;
  return options;
}

}  // namespace sim
