// The end of the plug-in: over and over, and in the middle of everything.

#include <algorithm>
#include <atomic>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/bus/prober_test.h"
#include "tests/load/load_test.h"

namespace lumso_test {
namespace {

using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

constexpr int kPauseSteps = 30;
constexpr char kFirstAddress[] = "AA:BB:CC:DD:EE:01";
constexpr char kSecondAddress[] = "AA:BB:CC:DD:EE:02";
constexpr char kThirdAddress[] = "AA:BB:CC:DD:EE:03";
constexpr char kReadingAddress[] = "AA:BB:CC:00:00:01";
constexpr char kHangUpAddress[] = "AA:BB:CC:00:00:02";
constexpr char kEnded[] =
    "lumso_bluetooth: RFCOMM read error: Connection reset by peer";

class Ends : public LoadTest {
 protected:
  void SetUp() override {
    LoadTest::SetUp();
    RegisterReady();
    air.KeepNoRecords();
    AddTarget(kReadingAddress, Reading(-61));
    AddTarget(kHangUpAddress, HangUp);
    shared = SharedBus();
    EndPlugin();
  }

  void TearDown() override {
    LoadTest::TearDown();
    EXPECT_TRUE(Eventually([] { return CountThreadsNamed(kProber) == 0; }));
  }

  // Registers a plug-in whose events are counted and must stop with it.
  void Begin() {
    ended = false;
    Register();
    host->Observe([this](const std::string& channel, FlValue*) {
      EXPECT_FALSE(ended) << channel;
      ++events;
    });
    EXPECT_EQ(host->Listen(kDiscovery), "null");
    EXPECT_EQ(host->Listen(kState), "null");
  }

  // Ends it, and runs what it has left in the main loop.
  void End() {
    host->Dispose();
    ended = true;
    // One that was joined is listed for a moment more.
    EXPECT_TRUE(Eventually([] {
      return CountThreadsNamed(kReader) + CountThreadsNamed(kProber) == 0;
    }));
    EndPlugin();
    air.JoinDevices();
    EXPECT_THAT(TakeLog(),
                Each(HasSubstr("RSSI probe AA:BB:CC:00:00:02 fail")));
    // Of streams that their devices ended.
    EXPECT_THAT(TakeStandardError(),
                MatchesRegex("(" + std::string(kEnded) + "\n)*"));
  }

  bool ended = false;
  size_t events = 0;

 private:
  // A device that the prober asks.
  void AddTarget(const std::string& address, FakeRfcomm::Behaviour behaviour) {
    air.AddDevice(address, std::move(behaviour));
    daemon->AddObject(
        "/org/bluez/hci0/dev_" + address.substr(15), kDeviceInterface,
        "{'Address': <'" + address + "'>, 'Alias': <'VELKAN-1'>}");
  }
};

// ---------------------------------------------------------------------------

class EndRounds : public Ends {
 protected:
  void SetUp() override {
    Ends::SetUp();
    air.AddDevice(kFirstAddress);
    air.AddDevice(kSecondAddress);
    air.AddDevice(kThirdAddress);
  }

  // One plug-in with three streams, one of which the device has ended, with
  // chunks and a signal that were not dispatched, and with a prober that is
  // before, in or behind its devices.
  void Round(int number);

  // Rounds in which work was left in the main loop's queue.
  size_t queued = 0;
};

void EndRounds::Round(int number) {
  const std::string chunk(2048, 'c');
  SleepGate gate;
  Begin();
  const std::vector<std::shared_ptr<Peer>> peers = {
      Open(1, kFirstAddress), Open(2, kSecondAddress), Open(3, kThirdAddress)};
  for (const auto& peer : peers) {
    ASSERT_NE(peer, nullptr);
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(peer->Send(chunk));
  }
  peers[2]->Close();
  EXPECT_EQ(Write(1, "bye"), "true");
  EXPECT_EQ(host->Call("setAuthSecret", Secret(kSecret)), "null");
  if (number % 3 != 0) {
    EXPECT_TRUE(gate.WaitForSleeps(1));
  }
  if (number % 3 == 1) gate.Allow(kPauseSteps);
  daemon->EmitPropertiesChanged(kAdapterPath, kAdapterInterface, "{}");
  EXPECT_TRUE(peers[0]->WaitUntilRead());
  EXPECT_TRUE(peers[1]->WaitUntilRead());
  if (g_main_context_pending(nullptr)) ++queued;
  End();
  for (const auto& peer : peers) peer->Close();
  if (number % 10 == 0) daemon->TakeCalls();
}

// The daemon forgets nobody's rules on a connection that others keep.
TEST_F(EndRounds, OnASharedBusConnectionLeaveNothing) {
  // A sanitizer makes each round several times as long.
  const int rounds = LongOrShort(kSanitized ? 200 : 1000, 25);
  ExpectFlat("register, streams, prober, dispose", rounds,
             [this](int number) { Round(number); });
  EXPECT_EQ(queued, static_cast<size_t>(rounds));
  EXPECT_EQ(events, static_cast<size_t>(rounds)) << "the state's first event";
}

// Here the connection to the bus goes with each plug-in. Of a connection that
// is closed GLib may keep the source that watched for its cancelling, which is
// two blocks: it does so for one that nobody used, too.
TEST_F(EndRounds, OnABusConnectionOfTheirOwnLeaveNoMoreThanGLib) {
  shared.reset();
  EndPlugin();
  const int rounds = LongOrShort(kSanitized ? 200 : 1000, 25);
  Allowance allowance;
  allowance.blocks_per_round = 2;
  allowance.bytes_per_round = 200;
  ExpectFlat(
      "the same, each on a bus connection of its own", rounds,
      [this](int number) { Round(number); }, allowance);
  EXPECT_EQ(queued, static_cast<size_t>(rounds));
}

// ---------------------------------------------------------------------------

// Everything at once, in a random order.
class Stress : public Ends {
 protected:
  static constexpr int kDevices = 4;
  static constexpr size_t kFlood = 256 * 1024;

  void SetUp() override {
    Ends::SetUp();
    for (int i = 0; i < kDevices; ++i) {
      air.AddDevice(DeviceAddress(i), [this, i](Peer& peer) {
        Flood(peer, static_cast<size_t>(i));
      });
    }
  }

  static std::string DeviceAddress(int i) {
    return "AA:BB:CC:DD:EE:1" + std::to_string(i);
  }

  // A device that sends as fast as it can and hears nothing.
  void Flood(Peer& peer, size_t number) {
    const std::string bytes(8192, 'f');
    size_t sent = 0;
    for (size_t step = number; sent < kFlood; ++step) {
      const size_t size = step * 997 % bytes.size() + 1;
      if (!peer.Send(std::string_view(bytes).substr(0, size))) return;
      sent += size;
    }
    ++floods;
    peer.WaitForClose();
  }

  // Connects to one of the devices, which refuses a second stream.
  void ConnectAny() {
    const int device = Random(0, kDevices - 1);
    const bool taken = std::any_of(
        open.begin(), open.end(),
        [device](const auto& stream) { return stream.second == device; });
    const std::string answer =
        host->Call("connect", Address(DeviceAddress(device)));
    if (taken) {
      EXPECT_THAT(answer, HasSubstr("ECONN"));
      EXPECT_THAT(TakeStandardError(),
                  HasSubstr("failed: Device or resource busy\n"));
      return;
    }
    EXPECT_EQ(answer, std::to_string(++last_id));
    open[last_id] = device;
  }

  // One of the connections, or an id that is none.
  int AnyId() {
    if (open.empty()) return last_id + 1;
    return std::next(open.begin(), Random(0, static_cast<int>(open.size()) - 1))
        ->first;
  }

  void DisconnectAny() {
    const bool has = !open.empty();
    const int id = AnyId();
    EXPECT_EQ(Disconnect(id), has ? "true" : "false");
    open.erase(id);
  }

  void Act(SleepGate* gate) {
    const bool has = !open.empty();
    switch (Random(0, 9)) {
      case 0:
      case 1:
        return ConnectAny();
      case 2:
        return DisconnectAny();
      case 3:
      case 4:
        EXPECT_EQ(Write(AnyId(), std::string(Random(1, 1000), 'w')),
                  has ? "true" : "false");
        return;
      case 5:
        EXPECT_EQ(host->Call("setAuthSecret", Secret(kSecret)), "null");
        return;
      case 6:
        return gate->Allow(Random(1, 2 * kPauseSteps));
      case 7:
        EXPECT_THAT(host->Call("getDiscoveredDevices"), HasSubstr("VELKAN-1"));
        return;
      default:
        for (int i = Random(1, 200); i > 0; --i) {
          g_main_context_iteration(nullptr, FALSE);
        }
        return;
    }
  }

  std::atomic<int> floods{0};
  std::map<int, int> open;  // the device of each stream by id
  int last_id = 0;
};

TEST_F(Stress, InRandomOrderEndsCleanly) {
  size_t actions = 0;
  const auto round = [&](int) {
    SleepGate gate;
    Begin();
    last_id = 0;
    open.clear();
    ConnectAny();
    for (int i = Random(0, 40); i > 0; --i, ++actions) Act(&gate);
    End();
    daemon->TakeCalls();
  };
  const int rounds = LongOrShort(1000, 20);
  // What is kept goes by the most there was at once, which comes at random
  // here: libc has the stacks of threads that ended, with two blocks for each,
  // and the main context its list of ready sources, which doubles to hold every
  // chunk.
  Allowance allowance;
  allowance.blocks = 128;
  allowance.bytes = 64 * 1024;
  allowance.resident = 4 * 1024 * 1024;
  ExpectFlat("streams, prober, calls and dispose at random", rounds, round,
             allowance);
  Note(std::to_string(actions) + " random actions, " + std::to_string(events) +
       " events, " + std::to_string(floods.load()) + " floods read to the end");
  EXPECT_GT(events, static_cast<size_t>(rounds));
}

}  // namespace
}  // namespace lumso_test
