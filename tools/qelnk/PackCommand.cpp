#include <QELNetworkKit/MPMessagePack.h>

#include "Command.h"
#include "Notation.h"

namespace tool {
namespace {

Exit pack(Invocation &invocation) {
  const qelnk::Value value = parseValue(invocation.session.readAll());
  qelnk::Error error;
  const int64_t options = invocation.arguments.has("sort-keys") ? int64_t(MPMessagePackWriterSortKeys) : 0;
  const qelnk::Data bytes = MPMessagePackWriter::writeObject(value, options, &error);
  if (error) throw Failure(Exit::failed, error.description);
  invocation.output.bytes(bytes.text());
  return Exit::done;
}

}  // namespace

extern const Command packCommand;
const Command packCommand = {
    "pack",
    "One JSON document on standard input to MessagePack bytes on standard output.",
    {"", {{"sort-keys", "", "write the keys of maps in the order of a case-insensitive comparison"}}},
    [] {
      return std::string(
          R"(What JSON lacks is written {"$data": BASE64}, {"$double": "nan"} ("inf", "-inf") and {"$map": [[KEY, VALUE], ...]}.
)");
    },
    pack};

}  // namespace tool
