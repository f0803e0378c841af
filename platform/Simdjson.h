#pragma once

#include <simdjson.h>

#include <memory>
#include <string_view>

namespace qelnk {

// What uses simdjson goes through these, which come with what has it go on while the process exits. Threads: any.

bool validateUTF8(std::string_view text);
std::unique_ptr<simdjson::dom::parser> makeParser();

}  // namespace qelnk
