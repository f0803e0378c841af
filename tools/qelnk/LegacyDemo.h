#pragma once

#include "Command.h"

namespace tool {

/// Shows a legacy server and two clients of it at work, or throws a Failure.
void runLegacyDemo(Invocation &invocation);

}  // namespace tool
