// Runs a fuzz target over the files of its corpus, which are given by folder: what was ever found
// stays found.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/switch_root.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
// Not every target has one.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace {

struct input {
  std::string name;
  std::vector<uint8_t> bytes; // of exactly its size: whoever reads behind it is found
};
std::vector<input> g_inputs;

void add(const std::filesystem::path &file) {
  std::ifstream in(file, std::ios::binary);
  g_inputs.push_back({file.filename(), {std::istreambuf_iterator<char>(in), {}}});
  g_inputs.back().bytes.shrink_to_fit();
}

int replay(int argc, char **argv) {
  if (LLVMFuzzerInitialize != nullptr) {
    LLVMFuzzerInitialize(&argc, &argv);
  }
  for (const input &one : g_inputs) {
    // The last line names the input that the process died of.
    const std::string line = one.name + "\n";
    static_cast<void>(!write(STDERR_FILENO, line.data(), line.size()));
    LLVMFuzzerTestOneInput(one.bytes.data(), one.bytes.size());
  }
  std::printf("%zu inputs\n", g_inputs.size());
  return g_inputs.empty() ? 1 : 0;
}

} // namespace

int main(int argc, char **argv) {
  for (int at = 1; at < argc; ++at) {
    for (const auto &entry : std::filesystem::directory_iterator(argv[at])) {
      add(entry.path());
    }
  }
  std::sort(g_inputs.begin(), g_inputs.end(),
            [](const input &one, const input &other) { return one.name < other.name; });
  return switch_root::run_inside(argc, argv, replay);
}
