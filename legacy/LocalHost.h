#pragma once

#include <string>

namespace qelnk {

/// The name under which this machine publishes services and introduces itself.
std::string publishingName();

/// The name of this machine's domain; "local." when it has none.
std::string localDomainName();

}  // namespace qelnk
