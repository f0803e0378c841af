#include "platform/Simdjson.h"

#include <string>

namespace qelnk {

/// Like simdjson's own one, which somebody may have chosen; null for a kind that is not known here.
static const simdjson::implementation *copyOf(const std::string &name) {
#if SIMDJSON_IMPLEMENTATION_ICELAKE
  if (name == "icelake") return new simdjson::icelake::implementation;
#endif
#if SIMDJSON_IMPLEMENTATION_HASWELL
  if (name == "haswell") return new simdjson::haswell::implementation;
#endif
#if SIMDJSON_IMPLEMENTATION_WESTMERE
  if (name == "westmere") return new simdjson::westmere::implementation;
#endif
#if SIMDJSON_IMPLEMENTATION_ARM64
  if (name == "arm64") return new simdjson::arm64::implementation;
#endif
#if SIMDJSON_IMPLEMENTATION_PPC64
  if (name == "ppc64") return new simdjson::ppc64::implementation;
#endif
#if SIMDJSON_IMPLEMENTATION_FALLBACK
  if (name == "fallback") return new simdjson::fallback::implementation;
#endif
  return nullptr;
}

// The objects through which simdjson calls its code for this processor are destroyed with the static ones, and a thread
// that is still at work then would end the process by "pure virtual method called". It gets one of the same kind that
// nobody destroys, as the library is loaded: a thread's first use may come in the middle of the exit.
[[maybe_unused]] static const bool isKept = [] {
  auto &active = simdjson::get_active_implementation();
  const auto *const copy = copyOf(active->name());
  if (copy) active = copy;
  return copy != nullptr;
}();

bool validateUTF8(std::string_view text) { return simdjson::validate_utf8(text.data(), text.size()); }

std::unique_ptr<simdjson::dom::parser> makeParser() { return std::make_unique<simdjson::dom::parser>(); }

}  // namespace qelnk
