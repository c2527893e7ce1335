// lumso_bench WORK SIZE SUBJECT[,SUBJECT...]: measures one work and prints the
// figures. run.py knows which works, sizes and subjects there are.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "benchmarks/works.h"

namespace {

struct Work {
  const char* name;
  void (*measure)(const lumso_bench::Names& subjects, size_t size);
};

constexpr Work kWorks[] = {
    {"devices", lumso_bench::SetDevices},
    {"list", lumso_bench::MeasureList},
    {"bond", lumso_bench::MeasureBond},
    {"bond-lower-case", lumso_bench::MeasureLowerCaseBond},
    {"start", lumso_bench::MeasureStart},
    {"burst", lumso_bench::MeasureBurst},
    {"receive", lumso_bench::MeasureReceive},
    {"latency", lumso_bench::MeasureLatency},
    {"write", lumso_bench::MeasureWrite},
    {"call", lumso_bench::MeasureCall},
    {"unknown-call", lumso_bench::MeasureUnknownCall},
    {"connection-memory", lumso_bench::MeasureConnectionMemory},
    {"list-memory", lumso_bench::MeasureListMemory},
};

// Whatever hangs ends: an event that is lost is never waited for longer.
constexpr unsigned kDeadlineSeconds = 300;

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: lumso_bench WORK SIZE SUBJECT[,SUBJECT...]\n");
    return 2;
  }
  alarm(kDeadlineSeconds);
  lumso_bench::Names subjects;
  std::istringstream list(argv[3]);
  for (std::string name; std::getline(list, name, ',');) subjects.insert(name);
  for (const Work& work : kWorks) {
    if (std::strcmp(work.name, argv[1]) == 0) {
      work.measure(subjects, std::strtoul(argv[2], nullptr, 10));
      return 0;
    }
  }
  std::fprintf(stderr, "lumso_bench: no such work: %s\n", argv[1]);
  return 2;
}
