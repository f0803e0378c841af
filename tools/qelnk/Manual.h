#pragma once

#include <string>

namespace tool {

/// The manual page of the tool, for man(1).
std::string manualPage();
/// What completes the tool's command lines in a shell, "bash" or "zsh"; a usage Failure for another.
std::string completionFor(const std::string &shell);

}  // namespace tool
