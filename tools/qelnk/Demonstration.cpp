#include "Demonstration.h"

namespace tool {

void Demonstration::step(const std::string &text) {
  if (output_.json()) return output_.event("step", {{"text", text}});
  output_.line(output_.bold("* " + text));
}

void Demonstration::expect(const std::string &what, const std::function<bool()> &condition) {
  session_.waitUntil([&] { return condition() || !lost().empty(); }, after(timeout_), std::chrono::milliseconds(5));
  if (session_.stopped()) throw Failure(Exit::failed, "");
  if (condition()) return;
  const std::string reason = lost();
  throw Failure(Exit::failed, "this did not happen: " + what + (reason.empty() ? "" : " (" + reason + ")"));
}

}  // namespace tool
