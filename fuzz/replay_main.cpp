// Runs a fuzz target over files, as libFuzzer would over its corpus, so that ordinary builds (gcc,
// the sanitizer builds) replay every corpus input and every input a fuzzing run once crashed on.
//   <target> PATH...   (a directory stands for every file in it)

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    if (fs::is_directory(argv[i])) {
      for (const auto& entry : fs::directory_iterator(argv[i])) {
        if (entry.is_regular_file()) inputs.push_back(entry.path());
      }
    } else {
      inputs.emplace_back(argv[i]);
    }
  }
  // An empty or misspelt corpus would otherwise pass without running anything.
  if (inputs.empty()) {
    std::fprintf(stderr, "no inputs\n");
    return 1;
  }
  std::sort(inputs.begin(), inputs.end());
  for (const fs::path& path : inputs) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
      std::fprintf(stderr, "cannot read %s\n", path.c_str());
      return 1;
    }
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file),
                                  std::istreambuf_iterator<char>()};
    // A block of exactly the input's size, so that AddressSanitizer sees a read past its end.
    auto copy = std::make_unique<std::uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), copy.get());
    std::fprintf(stderr, "%s\n", path.filename().c_str());
    LLVMFuzzerTestOneInput(copy.get(), bytes.size());
  }
  std::fprintf(stderr, "%zu inputs\n", inputs.size());
  return 0;
}
