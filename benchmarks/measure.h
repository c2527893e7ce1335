// How everything is measured: the subjects of one measurement take turns in one
// process, and every figure goes to standard output as a line of JSON, which
// run.py collects from all programs.

#ifndef LUMSO_BLUETOOTH_BENCHMARKS_MEASURE_H_
#define LUMSO_BLUETOOTH_BENCHMARKS_MEASURE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace lumso_bench {

// Nanoseconds of the monotonic clock, and of this process's own time.
int64_t Now();
int64_t ProcessorTime();

double Percentile(std::vector<double> values, double share);

// Prints one figure of a subject.
void Report(const std::string& subject, const char* metric, double value);

struct Subject {
  std::string name;
  // What is measured; returns how many operations it was.
  std::function<size_t()> body;
  // What comes before and after it; may be empty.
  std::function<void()> prepare;
  std::function<void()> finish;
};

// Runs each subject once to warm up and then `rounds` times, in turn and in
// another order each time: what runs before leaves its mark on caches and
// allocator. Reports per subject, as medians per operation, "wall" and "cpu" in
// nanoseconds, and "longest": the longest single run in nanoseconds. Under
// callgrind there are no times; there the instructions of each subject go into
// a dump of its name, and "operations" tells how many they were for.
void Compare(const std::vector<Subject>& subjects, int rounds);

// Watches how long the main loop goes without looking at its timers.
class LoopWatch {
 public:
  LoopWatch();
  ~LoopWatch();
  LoopWatch(const LoopWatch&) = delete;
  LoopWatch& operator=(const LoopWatch&) = delete;

  int64_t longest() const { return longest_; }

 private:
  static int Tick(void* user_data);

  unsigned source_;
  int64_t last_;
  int64_t longest_ = 0;
};

}  // namespace lumso_bench

#endif  // LUMSO_BLUETOOTH_BENCHMARKS_MEASURE_H_
