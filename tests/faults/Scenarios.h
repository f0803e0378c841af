#pragma once

#include <vector>

#include "faults/Trial.h"

namespace qelnk::test {

/// Each endpoint and stream of the library, at work.
const std::vector<Scenario> &scenarios();

}  // namespace qelnk::test
