// Runs a fuzz target over the files of its corpus, which are given by folder: what was ever found
// stays found.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/switch_root.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

std::vector<std::string> g_inputs;

std::string content(const std::filesystem::path &file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

int replay(int, char **) {
  for (const std::string &input : g_inputs) {
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
  }
  std::printf("%zu inputs\n", g_inputs.size());
  return g_inputs.empty() ? 1 : 0;
}

} // namespace

int main(int argc, char **argv) {
  for (int at = 1; at < argc; ++at) {
    for (const auto &entry : std::filesystem::directory_iterator(argv[at])) {
      g_inputs.push_back(content(entry.path()));
    }
  }
  return switch_root::run_inside(argc, argv, replay);
}
