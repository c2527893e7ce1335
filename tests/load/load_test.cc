#include "tests/load/load_test.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "tests/bus/connection_test.h"

namespace lumso_test {
namespace {

constexpr char kLoadInterface[] = "org.lumso.Load";
constexpr int kDaemonTimeoutMs = 60000;

size_t ResidentMemory() {
  malloc_trim(0);
  size_t total = 0;
  size_t resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

size_t CountMatchRules(PrivateBus* bus) {
  g_autoptr(GVariant) reply = bus->CallBus("org.freedesktop.DBus.Debug.Stats",
                                           "GetAllMatchRules", nullptr);
  g_autoptr(GVariant) all = g_variant_get_child_value(reply, 0);
  size_t count = 0;
  for (gsize i = 0; i < g_variant_n_children(all); ++i) {
    g_autoptr(GVariant) entry = g_variant_get_child_value(all, i);
    g_autoptr(GVariant) rules = g_variant_get_child_value(entry, 1);
    count += g_variant_n_children(rules);
  }
  return count;
}

unsigned Seed() {
  const char* text = std::getenv("LUMSO_LOAD_SEED");
  return text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 0))
                         : std::random_device()();
}

void PrintRow(const char* what, size_t start, size_t warm, size_t end) {
  std::printf("  %-22s %12zu %12zu %12zu\n", what, start, warm, end);
}

void PrintTable(const Footprint& start, const Footprint& warm,
                const Footprint& end) {
  std::printf("  %-22s %12s %12s %12s\n", "", "before", "warmed up", "after");
  PrintRow("descriptors", start.descriptors, warm.descriptors, end.descriptors);
  PrintRow("threads", start.threads, warm.threads, end.threads);
  PrintRow("match rules", start.match_rules, warm.match_rules, end.match_rules);
  if (HasOwnHeap()) {
    PrintRow("heap, blocks", start.heap.blocks, warm.heap.blocks,
             end.heap.blocks);
  }
  PrintRow("heap, bytes", start.heap.bytes, warm.heap.bytes, end.heap.bytes);
  PrintRow(HasOwnHeap() ? "VmRSS, KiB" : "VmRSS, KiB (no bound)",
           start.resident / 1024, warm.resident / 1024, end.resident / 1024);
}

// What each round has left on the heap beside what is kept on purpose.
void PrintLeft(const HeapUse& warm, const HeapUse& end, const HeapUse& known,
               size_t rounds) {
  const auto left = [rounds](size_t before, size_t after, size_t kept) {
    return (static_cast<double>(after) - static_cast<double>(before) -
            static_cast<double>(kept)) /
           static_cast<double>(rounds);
  };
  std::printf("  kept on purpose: %zu blocks, %zu bytes\n", known.blocks,
              known.bytes);
  std::printf("  left by each round: %.3f blocks, %.2f bytes\n",
              left(warm.blocks, end.blocks, known.blocks),
              left(warm.bytes, end.bytes, known.bytes));
  std::fflush(stdout);
}

}  // namespace

bool IsLongForm() {
  const char* form = std::getenv("LUMSO_LOAD");
  return form != nullptr && std::string_view(form) == "long";
}

HeapUse ReadChannelRecords(int first, int end) {
  // What a handler of such a channel is given.
  struct Context {
    gpointer state;
    gint32 id;
  };
  InProcessMessenger* messenger = in_process_messenger_new({});
  const auto add = [messenger](int id) {
    const std::string name = ReadChannel(id);
    g_autoptr(FlStandardMethodCodec) codec = fl_standard_method_codec_new();
    g_autoptr(FlEventChannel) channel = fl_event_channel_new(
        FL_BINARY_MESSENGER(messenger), name.c_str(), FL_METHOD_CODEC(codec));
    fl_event_channel_set_stream_handlers(
        channel, nullptr, nullptr, new Context{nullptr, id},
        [](gpointer data) { delete static_cast<Context*>(data); });
  };
  add(0);
  const HeapUse before = HeapInUse();
  for (int id = first; id < end; ++id) add(id);
  const HeapUse after = HeapInUse();
  in_process_messenger_close(messenger);
  g_object_unref(messenger);
  return {after.blocks - before.blocks, after.bytes - before.bytes};
}

LoadTest::LoadTest() {
  const unsigned seed = Seed();
  random.seed(seed);
  Note("seed " + std::to_string(seed) + ", " +
       LongOrShort("long form", "short form"));
}

void LoadTest::TearDown() {
  shared.reset();
  BusTest::TearDown();
  EXPECT_EQ(air.open_sockets(), 0U);
  EXPECT_TRUE(Eventually([] { return CountThreadsNamed(kReader) == 0; }));
}

Footprint LoadTest::Measure() {
  DispatchQueued();
  return {CountDescriptors(), CountThreads(), CountMatchRules(bus.get()),
          HeapInUse(), ResidentMemory()};
}

void LoadTest::ExpectFlat(const std::string& title, int rounds,
                          const std::function<void(int)>& round,
                          const Allowance& allowance) {
  const int warm_up = std::max(rounds / 4, 1);
  const auto counted = static_cast<size_t>(rounds - warm_up);
  const auto begin = std::chrono::steady_clock::now();
  const Footprint start = Measure();
  Footprint warm;
  for (int i = 0; i < rounds; ++i) {
    if (i == warm_up) warm = Measure();
    round(i);
    if (HasFailure()) {
      Note("failed in round " + std::to_string(i) + " of " + title);
      return;
    }
  }
  const HeapUse known = allowance.known(warm_up, rounds);
  Footprint most = warm;
  most.heap.blocks += known.blocks + allowance.blocks +
                      static_cast<size_t>(static_cast<double>(counted) *
                                          allowance.blocks_per_round);
  most.heap.bytes +=
      known.bytes + allowance.bytes + counted * allowance.bytes_per_round;
  most.resident += known.bytes + allowance.resident;
  Footprint end;
  // What was let go of may take a moment to be gone.
  WaitUntil([&] {
    end = Measure();
    return end.descriptors <= most.descriptors && end.threads <= most.threads &&
           end.match_rules <= most.match_rules &&
           end.heap.blocks <= most.heap.blocks &&
           end.heap.bytes <= most.heap.bytes;
  });
  const std::chrono::duration<double> seconds =
      std::chrono::steady_clock::now() - begin;
  std::printf("\n%s: %d rounds, of which %d to warm up; %.1f s\n",
              title.c_str(), rounds, warm_up, seconds.count());
  PrintTable(start, warm, end);
  PrintLeft(warm.heap, end.heap, known, counted);
  EXPECT_LE(end.descriptors, most.descriptors);
  EXPECT_LE(end.threads, most.threads);
  EXPECT_LE(end.match_rules, most.match_rules);
  EXPECT_LE(end.heap.blocks, most.heap.blocks);
  EXPECT_LE(end.heap.bytes, most.heap.bytes);
  if (HasOwnHeap()) {
    EXPECT_LE(end.resident, most.resident);
  }
}

void LoadTest::Note(const std::string& text) {
  std::printf("  %s\n", text.c_str());
  std::fflush(stdout);
}

std::shared_ptr<Peer> LoadTest::Open(int id, const std::string& address) {
  EXPECT_EQ(host->Call("connect", Address(address)), std::to_string(id));
  return air.NextPeer(address);
}

std::string LoadTest::Write(int64_t id, std::string_view bytes) {
  return host->Call(
      "write", Map({{"id", fl_value_new_int(id)}, {"bytes", ByteList(bytes)}}));
}

std::string LoadTest::Disconnect(int64_t id) {
  return host->Call("disconnect", Map({{"id", fl_value_new_int(id)}}));
}

void LoadTest::RunInDaemon(const std::string& code) {
  daemon->OnCall("/", kLoadInterface, "Run", "", "", code);
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      bus->connection(), "org.bluez", "/", kLoadInterface, "Run", nullptr,
      nullptr, G_DBUS_CALL_FLAGS_NONE, kDaemonTimeoutMs, nullptr, &error);
  if (reply == nullptr) g_error("%s: %s", code.c_str(), error->message);
}

void LoadTest::DispatchQueued() {
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
}

void LoadTest::EndPlugin() {
  host.reset();
  DispatchQueued();
  if (shared != nullptr) return;
  EXPECT_TRUE(WaitUntil([this] { return bus->OtherConnections().size() == 1; }))
      << "the daemon's is not the only connection";
}

int LoadTest::Random(int low, int high) {
  return std::uniform_int_distribution<int>(low, high)(random);
}

}  // namespace lumso_test
