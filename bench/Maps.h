#pragma once

#include <msgpack.hpp>
#include <string_view>

#include "Support.h"

/// Maps as a program reads them with msgpack-cxx.
namespace bench {

inline msgpack::object_handle decodeMap(std::string_view bytes) { return msgpack::unpack(bytes.data(), bytes.size()); }

/// Null for no such entry.
inline const msgpack::object *find(const msgpack::object &map, std::string_view key) {
  if (map.type != msgpack::type::MAP) return nullptr;
  for (const auto &[name, value] : map.via.map)
    if (name.type == msgpack::type::STR && std::string_view(name.via.str.ptr, name.via.str.size) == key) return &value;
  return nullptr;
}

}  // namespace bench
