// Heap that decoded MessagePack holds, beside msgpack-cxx and nlohmann-json: every block that is in use once a document
// has been decoded, at its real size with the 8 bytes that the allocator keeps for it.

#include <QELNetworkKit/MPMessagePack.h>
#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <msgpack.hpp>
#include <nlohmann/json.hpp>

#include "Documents.h"
#include "Support.h"

// The C library's own functions, behind the ones that count.
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *block);
}

namespace {

std::atomic<int64_t> bytesInUse{0}, blocksInUse{0};

void *enter(void *block) {
  if (block) {
    bytesInUse += int64_t(malloc_usable_size(block)) + 8;
    ++blocksInUse;
  }
  return block;
}

void leave(void *block) {
  if (!block) return;
  bytesInUse -= int64_t(malloc_usable_size(block)) + 8;
  --blocksInUse;
}

}  // namespace

// operator new and the libraries come here too.
extern "C" {
void *malloc(size_t size) { return enter(__libc_malloc(size)); }
void *calloc(size_t count, size_t size) { return enter(__libc_calloc(count, size)); }
void *realloc(void *block, size_t size) {
  leave(block);
  void *moved = __libc_realloc(block, size);
  if (!moved && size != 0) enter(block);
  return enter(moved);
}
void *memalign(size_t alignment, size_t size) { return enter(__libc_memalign(alignment, size)); }
void *aligned_alloc(size_t alignment, size_t size) { return enter(__libc_memalign(alignment, size)); }
int posix_memalign(void **block, size_t alignment, size_t size) {
  *block = enter(__libc_memalign(alignment, size));
  return *block ? 0 : ENOMEM;
}
void free(void *block) {
  leave(block);
  __libc_free(block);
}
}

namespace {

size_t countValues(const qelnk::Value &tree) {
  size_t count = 1;
  for (const qelnk::Value &item : tree.items()) count += countValues(item);
  for (const auto &[key, value] : tree.entries()) count += 1 + countValues(value);
  return count;
}

template <class Decode>
void measure(const std::string &document, const char *peer, size_t values, Decode decode) {
  { const auto warm = decode(); }  // what is allocated once for all is not the tree's
  const int64_t bytes = bytesInUse, blocks = blocksInUse;
  const auto tree = decode();
  bench::printRow("heap/" + document, peer,
                  {{"bytes_per_value", double(bytesInUse - bytes) / double(values)},
                   {"bytes", double(bytesInUse - bytes)},
                   {"blocks", double(blocksInUse - blocks)},
                   {"values", double(values)}});
}

}  // namespace

int main() {
  for (const auto &[name, tree] : benchmarkDocuments()) {
    const qelnk::Data bytes = MPMessagePackWriter::writeObject(tree);
    const size_t values = countValues(tree);
    measure(name, "qelnk", values, [&] { return qelnk::mp_object(bytes.span()); });
    measure(name, "msgpack-cxx", values,
            [&] { return msgpack::unpack(reinterpret_cast<const char *>(bytes.data()), bytes.size()); });
    measure(name, "nlohmann", values, [&] { return nlohmann::json::from_msgpack(bytes.begin(), bytes.end()); });
  }
}
