// Runs a target over all files of the given folders, in any build: what the fuzzer has found once stays found.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "Fuzz.h"

int main(int count, char **arguments) {
  size_t inputs = 0;
  for (int i = 1; i < count; ++i)
    for (const auto &entry : std::filesystem::recursive_directory_iterator(arguments[i])) {
      if (!entry.is_regular_file()) continue;
      std::ifstream file(entry.path(), std::ios::binary);
      const std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
      const std::vector<uint8_t> bytes(content.begin(), content.end());  // no longer than its content, for sanitizers
      std::printf("%s\n", entry.path().c_str());
      std::fflush(stdout);  // the last one named is the one that failed
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      ++inputs;
    }
  std::printf("%zu inputs\n", inputs);
  return inputs == 0;
}
