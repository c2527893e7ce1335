// The fixture of all cases that go on for long, and what they measure.

#ifndef LUMSO_BLUETOOTH_TESTS_LOAD_LOAD_TEST_H_
#define LUMSO_BLUETOOTH_TESTS_LOAD_LOAD_TEST_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <string_view>

#include "tests/load/heap.h"
#include "tests/support/bus_test.h"
#include "tests/support/fake_rfcomm.h"

namespace lumso_test {

// The cases have two forms, chosen by LUMSO_LOAD in the environment: "long" is
// what script/soak runs, anything else is the one that belongs to the tests.
bool IsLongForm();
template <typename Size>
Size LongOrShort(Size in_long_form, Size in_short_form) {
  return IsLongForm() ? in_long_form : in_short_form;
}

// What the process and its bus hold at one moment.
struct Footprint {
  size_t descriptors = 0;
  size_t threads = 0;
  size_t match_rules = 0;  // of everybody on the bus
  HeapUse heap;
  size_t resident = 0;  // bytes of VmRSS, after free memory was given back
};

// What may be left behind.
struct Allowance {
  // What the embedding or the case itself keeps on purpose for the rounds from
  // `first` up to but not including `end`; asked after the last.
  std::function<HeapUse(int first, int end)> known = [](int, int) {
    return HeapUse();
  };
  // Blocks of the heap besides, once and for each round; and bytes, once and
  // for each round. The bytes are less than the smallest block in each round.
  size_t blocks = 16;
  double blocks_per_round = 0;
  size_t bytes = 4096;
  size_t bytes_per_round = 12;
  // Bytes of resident memory that may come beside those of the heap: what is
  // free between blocks in use. Not looked at with a sanitizer, which keeps
  // freed memory for a while and its own notes for ever.
  size_t resident = 1024 * 1024;
};

// What the embedding's messenger keeps for the read channels of the connections
// from `first` up to but not including `end`, which it does not let go of
// before it closes; found by making such channels without the plug-in.
HeapUse ReadChannelRecords(int first, int end);

class LoadTest : public BusTest {
 protected:
  static constexpr char kReader[] = "lumso-reader";

  LoadTest();

  void TearDown() override;

  // Runs what is queued to the main loop, then looks around.
  Footprint Measure();

  // Runs round(0), round(1), ... and expects that the last three quarters leave
  // nothing behind but what is allowed; the first quarter is the warm-up, in
  // which GLib and libc make what they keep. Prints a table. Stops at the first
  // round that fails.
  void ExpectFlat(const std::string& title, int rounds,
                  const std::function<void(int)>& round,
                  const Allowance& allowance = Allowance());

  // Prints one line of the report.
  void Note(const std::string& text);

  // Calls "connect" and returns the device's end; the id has to be `id`.
  std::shared_ptr<Peer> Open(int id, const std::string& address);
  std::string Write(int64_t id, std::string_view bytes);
  std::string Disconnect(int64_t id);

  // Runs Python in the daemon: the bodies of its methods see its globals.
  void RunInDaemon(const std::string& code);

  // Dispatches what is queued to the main loop.
  void DispatchQueued();

  // Ends the plug-in, and returns when its bus connection has gone too if
  // nobody else keeps it.
  void EndPlugin();

  // A random number of [low, high].
  int Random(int low, int high);

  FakeRfcomm air;
  // Keeps the bus connection that one plug-in after the other uses.
  BusPtr shared;
  // Its seed is printed, and taken from LUMSO_LOAD_SEED when that is set.
  std::mt19937 random;
};

}  // namespace lumso_test

#endif  // LUMSO_BLUETOOTH_TESTS_LOAD_LOAD_TEST_H_
