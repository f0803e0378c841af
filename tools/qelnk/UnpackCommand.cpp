#include <QELNetworkKit/MPMessagePack.h>

#include "Command.h"
#include "Notation.h"

namespace tool {
namespace {

Exit unpack(Invocation &invocation) {
  const std::string bytes = invocation.session.readAll();
  MPMessagePackReader reader(qelnk::Data(bytes),
                             invocation.arguments.has("ordered") ? int64_t(MPMessagePackReaderOrderedDictionaries) : 0);
  qelnk::Error error;
  const auto value = reader.readObject(&error);
  if (!value) {
    tell("MPMessagePack error " + std::to_string(error.code) + ": " + error.description);
    throw Failure(Exit::malformed, "");
  }
  invocation.output.line(textOf(*value));
  if (const uint64_t rest = bytes.size() - reader.index(); rest != 0)
    complain("unpack: " + std::to_string(rest) + " bytes behind the first object are left out");
  return Exit::done;
}

}  // namespace

extern const Command unpackCommand;
const Command unpackCommand = {
    "unpack",
    "MessagePack bytes on standard input to one line of JSON.",
    {"", {{"ordered", "", "read maps as ordered maps"}}},
    [] {
      return std::string(
          R"(What JSON lacks is written {"$data": BASE64}, {"$double": "nan"} ("inf", "-inf") and {"$map": [[KEY, VALUE], ...]}.
)");
    },
    unpack};

}  // namespace tool
