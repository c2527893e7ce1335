// Works that need neither the daemon nor a stream: the channel itself, memory
// and loading.

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "benchmarks/application.h"
#include "benchmarks/measure.h"
#include "benchmarks/socket_double.h"
#include "benchmarks/works.h"

namespace lumso_bench {
namespace {

using lumso_host::BytesPtr;

// As long as the plug-in's, since the messenger copies names.
constexpr char kFloorChannel[] = "bench_bluetooth/methods";
constexpr size_t kCalls = 2000;
constexpr int kCallRounds = 50;

void AnswerTrue(FlMethodChannel*, FlMethodCall* call, gpointer) {
  g_autoptr(FlValue) result = fl_value_new_bool(TRUE);
  g_autoptr(FlMethodResponse) response =
      FL_METHOD_RESPONSE(fl_method_success_response_new(result));
  fl_method_call_respond(call, response, nullptr);
}

void AnswerNotImplemented(FlMethodChannel*, FlMethodCall* call, gpointer) {
  g_autoptr(FlMethodResponse) response =
      FL_METHOD_RESPONSE(fl_method_not_implemented_response_new());
  fl_method_call_respond(call, response, nullptr);
}

void MeasureCallOf(const Names& names, const char* method,
                   FlMethodChannelMethodCallHandler floor) {
  Application application;
  application.Register();
  g_autoptr(FlStandardMethodCodec) codec = fl_standard_method_codec_new();
  g_autoptr(FlMethodChannel) channel = fl_method_channel_new(
      application.messenger(), kFloorChannel, FL_METHOD_CODEC(codec));
  fl_method_channel_set_method_call_handler(channel, floor, nullptr, nullptr);
  const BytesPtr message = Message(method);
  std::vector<Subject> subjects;
  for (const auto& [name, target] :
       {std::pair{"ours", kMethods}, std::pair{"floor", kFloorChannel}}) {
    if (names.count(name) == 0) continue;
    subjects.push_back({name,
                        [&application, &message, to = std::string(target)] {
                          for (size_t i = 0; i < kCalls; ++i) {
                            application.Call(to, message.get());
                          }
                          return kCalls;
                        },
                        nullptr, nullptr});
  }
  Compare(subjects, kCallRounds);
}

size_t ResidentMemory() {
  size_t total = 0;
  size_t resident = 0;
  std::FILE* file = std::fopen("/proc/self/statm", "re");
  if (std::fscanf(file, "%zu %zu", &total, &resident) != 2) g_error("statm");
  std::fclose(file);
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace

void MeasureCall(const Names& names, size_t) {
  MeasureCallOf(names, "isAvailable", AnswerTrue);
}

void MeasureUnknownCall(const Names& names, size_t) {
  MeasureCallOf(names, "noSuchMethod", AnswerNotImplemented);
}

// Each connection has received something.
void MeasureConnectionMemory(const Names&, size_t connections) {
  Application application;
  application.Register();
  const auto open =
      [&application](std::vector<std::unique_ptr<DevicePair>>* pairs) {
        pairs->push_back(std::make_unique<DevicePair>());
        pairs->back()->Fill(127, 10);
        pairs->back()->HandOver();
        application.Connect();
        application.AwaitEvents(10);
      };
  std::vector<std::unique_ptr<DevicePair>> pairs;
  pairs.reserve(connections + 1);
  open(&pairs);
  const size_t before = ResidentMemory();
  for (size_t i = 0; i < connections; ++i) open(&pairs);
  Report("ours", "bytes",
         static_cast<double>(ResidentMemory() - before) /
             static_cast<double>(connections));
}

}  // namespace lumso_bench
