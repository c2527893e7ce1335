#include "benchmarks/measure.h"

#include <glib.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <numeric>
#include <random>

namespace lumso_bench {
namespace {

constexpr int kCallgrindRounds = 5;

int64_t Read(clockid_t clock) {
  timespec time;
  clock_gettime(clock, &time);
  return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

size_t RunOnce(const Subject& subject, double* wall, double* cpu) {
  if (subject.prepare) subject.prepare();
  CALLGRIND_ZERO_STATS;
  const int64_t cpu_start = ProcessorTime();
  const int64_t start = Now();
  const size_t operations = subject.body();
  *wall = static_cast<double>(Now() - start);
  *cpu = static_cast<double>(ProcessorTime() - cpu_start);
  CALLGRIND_DUMP_STATS_AT(subject.name.c_str());
  if (subject.finish) subject.finish();
  return operations;
}

// The dump of the warm-up bears the same name; the reader of the dumps leaves
// the first of each subject out.
void CompareInstructions(const std::vector<Subject>& subjects) {
  std::vector<size_t> operations(subjects.size());
  for (int round = 0; round <= kCallgrindRounds; ++round) {
    for (size_t i = 0; i < subjects.size(); ++i) {
      double ignored = 0;
      const size_t done = RunOnce(subjects[i], &ignored, &ignored);
      if (round > 0) operations[i] += done;
    }
  }
  for (size_t i = 0; i < subjects.size(); ++i) {
    Report(subjects[i].name, "operations", static_cast<double>(operations[i]));
  }
}

}  // namespace

int64_t Now() { return Read(CLOCK_MONOTONIC); }

int64_t ProcessorTime() { return Read(CLOCK_PROCESS_CPUTIME_ID); }

double Percentile(std::vector<double> values, double share) {
  const auto at =
      values.begin() +
      static_cast<ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), at, values.end());
  return *at;
}

void Report(const std::string& subject, const char* metric, double value) {
  std::printf("{\"subject\": \"%s\", \"metric\": \"%s\", \"value\": %.1f}\n",
              subject.c_str(), metric, value);
}

void Compare(const std::vector<Subject>& subjects, int rounds) {
  if (RUNNING_ON_VALGRIND) {
    CompareInstructions(subjects);
    return;
  }
  struct Samples {
    std::vector<double> wall;
    std::vector<double> cpu;
    double longest = 0;
  };
  std::vector<Samples> samples(subjects.size());
  std::vector<size_t> order(subjects.size());
  std::iota(order.begin(), order.end(), size_t{0});
  std::minstd_rand shuffler;
  for (int round = 0; round <= rounds; ++round) {
    std::shuffle(order.begin(), order.end(), shuffler);
    for (const size_t i : order) {
      double wall = 0;
      double cpu = 0;
      const auto operations =
          static_cast<double>(RunOnce(subjects[i], &wall, &cpu));
      if (round == 0) continue;
      samples[i].wall.push_back(wall / operations);
      samples[i].cpu.push_back(cpu / operations);
      samples[i].longest = std::max(samples[i].longest, wall);
    }
  }
  for (size_t i = 0; i < subjects.size(); ++i) {
    Report(subjects[i].name, "wall", Percentile(samples[i].wall, 0.5));
    Report(subjects[i].name, "cpu", Percentile(samples[i].cpu, 0.5));
    Report(subjects[i].name, "longest", samples[i].longest);
  }
}

LoopWatch::LoopWatch() : source_(g_timeout_add(1, Tick, this)), last_(Now()) {}

LoopWatch::~LoopWatch() { g_source_remove(source_); }

int LoopWatch::Tick(void* user_data) {
  auto* self = static_cast<LoopWatch*>(user_data);
  const int64_t now = Now();
  self->longest_ = std::max(self->longest_, now - self->last_);
  self->last_ = now;
  return G_SOURCE_CONTINUE;
}

}  // namespace lumso_bench
