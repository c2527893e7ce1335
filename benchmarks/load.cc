// Prints how long loading a library takes in a process that has loaded all that
// it depends on: bench_load LIBRARY.

#include <dlfcn.h>

#include <cstdio>

#include "benchmarks/measure.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const int64_t start = lumso_bench::Now();
  if (dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  lumso_bench::Report("ours", "wall",
                      static_cast<double>(lumso_bench::Now() - start));
  return 0;
}
