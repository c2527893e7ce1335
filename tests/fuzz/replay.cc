// Runs a fuzz target on every file of a folder, so that the corpus is part of
// the tests in builds without libFuzzer too.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "tests/fuzz/fuzz.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
    return 2;
  }
  std::vector<std::filesystem::path> files(
      std::filesystem::directory_iterator(argv[1]), {});
  std::sort(files.begin(), files.end());
  for (const std::filesystem::path& file : files) {
    std::printf("%s\n", file.c_str());
    std::fflush(stdout);
    std::ifstream stream(file, std::ios::binary);
    // Exactly as long as the file, so that a sanitizer sees a read past it.
    const std::vector<uint8_t> bytes(std::istreambuf_iterator<char>(stream),
                                     {});
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::printf("%zu files\n", files.size());
  return files.empty() ? 1 : 0;
}
