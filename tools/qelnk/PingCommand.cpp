#include <QELNetworkKit/qelNKPing.h>

#include <vector>

#include "Command.h"

namespace tool {
namespace {

Exit ping(std::vector<std::string> words) {
  words.insert(words.begin(), "ping");
  std::vector<char *> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string &word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  qelNKPing(int(words.size()), arguments.data());
  return Exit::failed;  // it has escaped: every other end is the process's
}

}  // namespace

extern const Command pingCommand;
const Command pingCommand = {
    "ping", "Pings a host; what stands behind is the ping's own.", {"ARGUMENT...", {}}, nullptr, nullptr, ping};

}  // namespace tool
