// "setAuthSecret", and when the prober asks which device.

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <utility>

#include "tests/bus/prober_test.h"

namespace lumso_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kMissing[] = "error(\"EINVAL\", \"secret missing\", null)";
constexpr nanoseconds kPauseStep = seconds(1);
constexpr nanoseconds kEmptySecretWait = seconds(2);

// A device that holds every probe until it is released.
class Holder {
 public:
  // Hangs up once released.
  FakeRfcomm::Behaviour Behaviour() {
    return [this](Peer& peer) {
      reached_ = true;
      Eventually([this] { return released_.load(); });
      // Answered only now, the probe ends with a short read.
      peer.Send("x");
    };
  }
  bool WaitForProbe() {
    return Eventually([this] { return reached_.load(); });
  }
  void Release() { released_ = true; }

 private:
  std::atomic<bool> reached_{false};
  std::atomic<bool> released_{false};
};

// ---------------------------------------------------------------------------

using SetAuthSecret = ProberTest;

TEST_F(SetAuthSecret, AnswersNullAndStartsTheProberOnce) {
  EXPECT_EQ(CountThreadsNamed(kProber), 0U);
  const size_t threads = CountThreads();
  EXPECT_EQ(host->Call("setAuthSecret", Secret("one")), "null");
  ASSERT_TRUE(gate.WaitForSleeps(1));
  EXPECT_EQ(CountThreadsNamed(kProber), 1U);
  EXPECT_EQ(host->Call("setAuthSecret", Secret("two")), "null");
  EXPECT_EQ(host->Call("setAuthSecret", Secret("")), "null");
  EXPECT_EQ(CountThreadsNamed(kProber), 1U);
  EXPECT_EQ(CountThreads(), threads + 1);
}

TEST_F(SetAuthSecret, AnswersEinvalWithoutASecretAndStartsNothing) {
  EXPECT_EQ(host->Call("setAuthSecret"), kMissing);
  EXPECT_EQ(host->Call("setAuthSecret", Map()), kMissing);
  EXPECT_EQ(host->Call("setAuthSecret", fl_value_new_list()), kMissing);
  EXPECT_EQ(host->Call("setAuthSecret", fl_value_new_string("secret")),
            kMissing);
  EXPECT_EQ(
      host->Call("setAuthSecret", Map({{"Secret", fl_value_new_string("x")}})),
      kMissing);
  const uint8_t bytes[] = {'x'};
  const std::vector<std::function<FlValue*()>> makers = {
      [] { return fl_value_new_null(); },
      [] { return fl_value_new_bool(true); },
      [] { return fl_value_new_int(1); },
      [] { return fl_value_new_float(1.0); },
      [&] { return fl_value_new_uint8_list(bytes, 1); },
      [] { return fl_value_new_list(); },
      [] { return fl_value_new_map(); },
  };
  for (const auto& maker : makers) {
    EXPECT_EQ(host->Call("setAuthSecret", Map({{"secret", maker()}})),
              kMissing);
  }
  EXPECT_EQ(CountThreadsNamed(kProber), 0U);
}

TEST_F(SetAuthSecret, KeepsTheOldSecretWhenTheNewOneIsMissing) {
  const std::string address = AddTarget(Reading(-61));
  RunCycle();
  EXPECT_EQ(host->Call("setAuthSecret", Map()), kMissing);
  RunCycle();
  EXPECT_THAT(TakeEvents(),
              ElementsAre(Update(address, -61), Update(address, -61)));
}

TEST_F(SetAuthSecret, ReplacesTheSecretFromTheNextCycleOn) {
  Holder holder;
  std::vector<std::string> lines;
  const auto listening = [&](Peer& peer) {
    peer.Send("auth\r\n");
    lines.push_back(peer.ReceiveUntil("\r\n"));
  };
  AddTarget(holder.Behaviour());
  AddTarget(listening);
  BeginCycle();
  ASSERT_TRUE(holder.WaitForProbe());
  EXPECT_EQ(host->Call("setAuthSecret", Secret("new")), "null");
  holder.Release();
  EndCycle();
  EXPECT_THAT(lines, ElementsAre("auth=s3cret\r\n"));
  RunCycle();
  EXPECT_THAT(lines, ElementsAre("auth=s3cret\r\n", "auth=new\r\n"));
  TakeLog();
}

// Nothing but the library orders the two threads here, so that the thread
// sanitizer sees when it does not.
TEST_F(SetAuthSecret, MayComeWhileTheProberReadsTheSecret) {
  gate.Open();
  daemon->TakeCalls();
  for (size_t cycles = 0; cycles < 5; cycles += TakeListings()) {
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(
          host->Call("setAuthSecret", Secret("not the secret of any device")),
          "null");
    }
  }
  EXPECT_EQ(host->Call("setAuthSecret", Secret(kSecret)), "null");
  // The next cycle is one that began after it.
  daemon->TakeCalls();
  for (size_t cycles = 0; cycles < 2; cycles += TakeListings()) {
  }
  AddTarget(Reading(-61));
  EXPECT_TRUE(WaitUntil([&] { return !TakeEvents().empty(); }));
}

TEST_F(SetAuthSecret, WithAnEmptySecretProbesNothingUntilThereIsOne) {
  const std::string address = AddTarget(Reading(-61));
  daemon->TakeCalls();
  EXPECT_EQ(host->Call("setAuthSecret", Secret("")), "null");
  for (size_t sleeps = 1; sleeps <= 5; ++sleeps) {
    ASSERT_TRUE(gate.WaitForSleeps(sleeps));
    if (sleeps < 5) gate.Allow(1);
  }
  EXPECT_THAT(gate.sleeps(), Each(kEmptySecretWait));
  EXPECT_EQ(TakeListings(), 0U);
  EXPECT_EQ(air.sockets(), 0);
  EXPECT_EQ(host->Call("setAuthSecret", Secret(kSecret)), "null");
  gate.Allow(1);
  ASSERT_TRUE(gate.WaitForSleeps(6));
  DispatchQueued();
  EXPECT_EQ(gate.sleeps().back(), kPauseStep);
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -61)));
}

TEST_F(SetAuthSecret, EmptiedLaterStopsTheProbing) {
  AddTarget(Reading(-61));
  RunCycle();
  EXPECT_EQ(host->Call("setAuthSecret", Secret("")), "null");
  gate.Allow(30);
  ASSERT_TRUE(gate.WaitForSleeps(31));
  EXPECT_EQ(gate.sleeps().back(), kEmptySecretWait);
  EXPECT_EQ(air.sockets(), 1);
}

// ---------------------------------------------------------------------------

using ProberCycle = ProberTest;

TEST_F(ProberCycle, PausesThirtySecondsInStepsOfOne) {
  AddTarget(Reading(-61));
  daemon->TakeCalls();
  RunCycle();
  EXPECT_EQ(TakeListings(), 1U);
  for (int step = 2; step <= kPauseSteps; ++step) {
    gate.Allow(1);
    ASSERT_TRUE(gate.WaitForSleeps(static_cast<size_t>(step)));
    EXPECT_EQ(air.sockets(), 1);
  }
  EXPECT_EQ(TakeListings(), 0U);
  gate.Allow(1);
  ASSERT_TRUE(gate.WaitForSleeps(kPauseSteps + 1));
  EXPECT_EQ(TakeListings(), 1U);
  EXPECT_EQ(air.sockets(), 2);
  EXPECT_THAT(gate.sleeps(), Each(kPauseStep));
}

TEST_F(ProberCycle, ResumesAnInterruptedSleepForTheTimeLeft) {
  AddTarget(Reading(-61));
  gate.InterruptNext(milliseconds(400));
  gate.InterruptNext(milliseconds(150));
  RunCycle();
  gate.Allow(2);
  ASSERT_TRUE(gate.WaitForSleeps(3));
  EXPECT_THAT(gate.sleeps(),
              ElementsAre(kPauseStep, milliseconds(400), milliseconds(150)));
  // The two resumed sleeps belong to the first of thirty steps.
  gate.Allow(29);
  ASSERT_TRUE(gate.WaitForSleeps(32));
  EXPECT_EQ(air.sockets(), 1);
  gate.Allow(1);
  ASSERT_TRUE(gate.WaitForSleeps(33));
  EXPECT_EQ(air.sockets(), 2);
}

TEST_F(ProberCycle, ResumesAnInterruptedWaitForASecret) {
  gate.InterruptNext(milliseconds(1200));
  EXPECT_EQ(host->Call("setAuthSecret", Secret("")), "null");
  gate.Allow(2);
  ASSERT_TRUE(gate.WaitForSleeps(3));
  EXPECT_THAT(gate.sleeps(), ElementsAre(kEmptySecretWait, milliseconds(1200),
                                         kEmptySecretWait));
}

TEST_F(ProberCycle, SelectsDevicesByTheBeginningsOfTheirNames) {
  std::vector<std::string> expected;
  int value = 0;
  for (const std::string name :
       {"VELKAN-", "VELKAN-7", "VELKAN-\xc3\xa4 long name", "VELK2N-",
        "VELK2N-x", "DRU-Palent", "DRU-Palent 2", "DRU-KX", "DRU-KX9",
        "DRU-Ostavel", "DRU-Ostavel!"}) {
    const std::string address = AddTarget(Reading(--value), name);
    expected.push_back(Update(address, value));
  }
  for (const std::string name :
       {"",           "V",          "VELKAN",
        "velkan-7",   "Velkan-7",   " VELKAN-7",
        "xVELKAN-7",  "VELK2N",     "VELK3N-1",
        "velk2n-1",   "DRU-Palen",  "DRU-palent",
        "dru-Palent", "DRU-K",      "DRU-KY",
        "DRU-kx",     "DRU-Ostave", "DRU-ostavel",
        "DRU-",       "DRU",        "AA-BB-CC-DD-EE-FF"}) {
    AddTarget(Reading(1), name);
  }
  RunCycle();
  EXPECT_EQ(TakeEvents(), expected);
  EXPECT_EQ(air.sockets(), 11);
}

TEST_F(ProberCycle, ListsTheDevicesAgainEachTime) {
  const std::string first = AddTarget(Reading(-1));
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(first, -1)));
  const std::string second = AddTarget(Reading(-2));
  daemon->RemoveObject("/org/bluez/hci0/dev_1");
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(second, -2)));
}

TEST_F(ProberCycle, ProbesOneDeviceAfterTheOther) {
  for (int i = 0; i < 4; ++i) AddTarget(Reading(-i));
  RunCycle();
  int open = 0;
  for (const CallRecord& record : air.calls()) {
    if (record.call == Call::kSocket) ++open;
    if (record.call == Call::kClose) --open;
    EXPECT_LE(open, 1);
  }
  EXPECT_EQ(TakeEvents().size(), 4U);
}

TEST_F(ProberCycle, ProbesNothingWhenTheDaemonDoesNotAnswer) {
  AddTarget(Reading(-61));
  daemon->FailCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                   "org.freedesktop.DBus.Error.Failed", "no");
  RunCycle();
  RunCycle();
  EXPECT_EQ(air.sockets(), 0);
  EXPECT_THAT(gate.sleeps(), Each(kPauseStep));
  daemon->Kill();
  RunCycle();
  EXPECT_EQ(air.sockets(), 0);
}

using ProberWithoutBus = ProberFixture<BusTest>;

TEST_F(ProberWithoutBus, CyclesWithoutTargets) {
  UseNoSystemBus();
  Register();
  TakeStandardError();
  RunCycle();
  RunCycle();
  RunCycle();
  EXPECT_THAT(gate.sleeps(), Each(kPauseStep));
  EXPECT_EQ(air.sockets(), 0);
}

using ProberWithoutAdapter = ProberFixture<BusTest>;

TEST_F(ProberWithoutAdapter, StartsAndCycles) {
  StartBus();
  StartDaemon();
  Register();
  TakeStandardError();
  AddTarget(Reading(-61));
  RunCycle();
  RunCycle();
  EXPECT_EQ(CountThreadsNamed(kProber), 1U);
  EXPECT_EQ(air.sockets(), 0);
}

// ---------------------------------------------------------------------------

using ProberCounts = ProberTest;

TEST_F(ProberCounts, TwoFailuresInARowLoseTheDevice) {
  const std::string address = AddTarget(HangUp);
  RunCycle();
  EXPECT_THAT(TakeEvents(), IsEmpty());
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Lost(address)));
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(address, 1, kHungUp),
                                     Counted(address, 2, kHungUp)));
}

TEST_F(ProberCounts, BeginAgainAfterALoss) {
  const std::string address = AddTarget(HangUp);
  for (int cycle = 0; cycle < 5; ++cycle) RunCycle();
  EXPECT_THAT(
      TakeLog(),
      ElementsAre(Counted(address, 1, kHungUp), Counted(address, 2, kHungUp),
                  Counted(address, 1, kHungUp), Counted(address, 2, kHungUp),
                  Counted(address, 1, kHungUp)));
  EXPECT_THAT(TakeEvents(), ElementsAre(Lost(address), Lost(address)));
}

TEST_F(ProberCounts, AreClearedByAReading) {
  const std::string address = AddTarget(HangUp);
  RunCycle();
  air.AddDevice(address, Reading(-70));
  RunCycle();
  air.AddDevice(address, HangUp);
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -70)));
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(address, 1, kHungUp),
                                     Counted(address, 1, kHungUp)));
}

TEST_F(ProberCounts, AreLeftAloneByTransientFailures) {
  const std::string address = AddTarget(HangUp);
  RunCycle();
  for (const int error : {ECONNREFUSED, EHOSTUNREACH, ENETUNREACH}) {
    air.Script(address, Call::kConnect, {Fail(error)});
    RunCycle();
  }
  EXPECT_THAT(TakeEvents(), IsEmpty());
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Lost(address)));
  const auto text = [](int error) {
    return std::string("connect: ") + strerror(error);
  };
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(address, 1, kHungUp),
                                     Transient(address, text(ECONNREFUSED)),
                                     Transient(address, text(EHOSTUNREACH)),
                                     Transient(address, text(ENETUNREACH)),
                                     Counted(address, 2, kHungUp)));
}

TEST_F(ProberCounts, NeverComeFromTransientFailuresAlone) {
  const std::string address = AddTarget(HangUp);
  for (int cycle = 0; cycle < 4; ++cycle) {
    air.Script(address, Call::kConnect, {Fail(ECONNREFUSED)});
    RunCycle();
  }
  EXPECT_THAT(TakeEvents(), IsEmpty());
  EXPECT_THAT(TakeLog(), Each(Transient(address, std::string("connect: ") +
                                                     strerror(ECONNREFUSED))));
}

TEST_F(ProberCounts, AreKeptPerDevice) {
  const std::string first = AddTarget(HangUp);
  const std::string second = AddTarget(Reading(-1));
  RunCycle();
  air.AddDevice(second, HangUp);
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(second, -1), Lost(first)));
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(first, 1, kHungUp),
                                     Counted(first, 2, kHungUp),
                                     Counted(second, 1, kHungUp)));
}

TEST_F(ProberCounts, AddUpForAnAddressThatIsListedTwice) {
  const std::string address = AddTarget(HangUp);
  ListDevice(address, "VELKAN-1");
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Lost(address)));
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(address, 1, kHungUp),
                                     Counted(address, 2, kHungUp)));
}

TEST_F(ProberCounts, OutliveAnAbsenceFromTheList) {
  const std::string address = AddTarget(HangUp);
  RunCycle();
  daemon->RemoveObject("/org/bluez/hci0/dev_1");
  RunCycle();
  ListDevice(address, "VELKAN-1");
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Lost(address)));
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(address, 1, kHungUp),
                                     Counted(address, 2, kHungUp)));
}

// ---------------------------------------------------------------------------

class ProberConnections : public ProberTest {
 protected:
  // Opens a stream and gives the device back its behaviour.
  void Open(const std::string& address, int id,
            FakeRfcomm::Behaviour behaviour) {
    air.AddDevice(address);
    EXPECT_EQ(host->Call("connect", Address(address)), std::to_string(id));
    peers_.push_back(air.NextPeer(address));
    air.AddDevice(address, std::move(behaviour));
  }
  void Close(int id) {
    EXPECT_EQ(host->Call("disconnect", Map({{"id", fl_value_new_int(id)}})),
              "true");
  }

 private:
  std::vector<std::shared_ptr<Peer>> peers_;
};

TEST_F(ProberConnections, SkipTheirDeviceAndKeepItsCount) {
  const std::string first = AddTarget(HangUp);
  const std::string second = AddTarget(Reading(-2));
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(second, -2)));
  Open(first, 1, HangUp);
  const int sockets = air.sockets();
  RunCycle();
  EXPECT_EQ(air.sockets(), sockets + 1);
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(second, -2)));
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(first, 1, kHungUp)));
  Close(1);
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Lost(first), Update(second, -2)));
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(first, 2, kHungUp)));
}

TEST_F(ProberConnections, ThatEndedStillSkipTheirDevice) {
  const std::string address = AddTarget(Reading(-1));
  air.AddDevice(address, HangUp);
  EXPECT_EQ(host->Call("connect", Address(address)), "1");
  ASSERT_TRUE(WaitUntil(
      [&] { return host->Events("lumso_bluetooth/read/1").size() == 2; }));
  TakeStandardError();
  air.AddDevice(address, Reading(-1));
  RunCycle();
  EXPECT_EQ(air.sockets(), 1);
  Close(1);
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -1)));
}

TEST_F(ProberConnections, OpenedDuringACycleCountFromTheNext) {
  Holder holder;
  const std::string first = AddTarget(holder.Behaviour());
  const std::string second = AddTarget(Reading(-2));
  BeginCycle();
  ASSERT_TRUE(holder.WaitForProbe());
  Open(second, 1, Reading(-2));
  holder.Release();
  EndCycle();
  // Probed all the same, to learn that its channel is taken.
  EXPECT_THAT(TakeLog(), ElementsAre(testing::_, Counted(second, 1,
                                                         "connect: Device or "
                                                         "resource busy")));
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Lost(first)));
  TakeLog();
}

TEST_F(ProberConnections, ClosedDuringACycleCountToItsEnd) {
  Holder holder;
  const std::string first = AddTarget(holder.Behaviour());
  const std::string second = AddTarget(Reading(-2));
  Open(second, 1, Reading(-2));
  BeginCycle();
  ASSERT_TRUE(holder.WaitForProbe());
  Close(1);
  holder.Release();
  EndCycle();
  EXPECT_THAT(TakeEvents(), IsEmpty());
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Lost(first), Update(second, -2)));
  TakeLog();
}

// Nothing but the library orders the two threads here, so that the thread
// sanitizer sees when it does not.
TEST_F(ProberConnections, MayComeAndGoWhileTheProberLooks) {
  gate.Open();
  EXPECT_EQ(host->Call("setAuthSecret", Secret(kSecret)), "null");
  daemon->TakeCalls();
  int id = 0;
  for (size_t cycles = 0; cycles < 10; cycles += TakeListings()) {
    Open(kDeviceAddress, ++id, nullptr);
    Open("AA:BB:CC:DD:EE:01", ++id, nullptr);
    Close(id - 1);
    Close(id);
  }
}

// ---------------------------------------------------------------------------

using ProberLocks = ProberTest;

TEST_F(ProberLocks, AreFreeWhileAProbeHangs) {
  Holder holder;
  const std::string held = AddTarget(holder.Behaviour());
  air.AddDevice(kDeviceAddress);
  BeginCycle();
  ASSERT_TRUE(holder.WaitForProbe());
  EXPECT_EQ(host->Call("connect", Address(kDeviceAddress)), "1");
  const auto peer = air.NextPeer(kDeviceAddress);
  const uint8_t bytes[] = {'h', 'i'};
  EXPECT_EQ(
      host->Call("write", Map({{"id", fl_value_new_int(1)},
                               {"bytes", fl_value_new_uint8_list(bytes, 2)}})),
      "true");
  EXPECT_EQ(peer->Receive(2), "hi");
  ASSERT_TRUE(peer->Send("x"));
  EXPECT_TRUE(WaitUntil(
      [&] { return host->Events("lumso_bluetooth/read/1").size() == 1; }));
  EXPECT_EQ(host->Call("disconnect", Map({{"id", fl_value_new_int(1)}})),
            "true");
  EXPECT_EQ(host->Call("setAuthSecret", Secret("other")), "null");
  EXPECT_EQ(host->Call("isEnabled"), "true");
  // All of that went on during the one probe.
  EXPECT_EQ(air.count(Call::kClose, 1), 0U);
  holder.Release();
  EndCycle();
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(held, 1, kHungUp)));
}

TEST_F(ProberLocks, AreFreeWhileTheDaemonIsSlow) {
  AddTarget(Reading(-61));
  air.AddDevice(kDeviceAddress);
  daemon->OnCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                 "a{oa{sa{sv}}}", "time.sleep(3)\nret = {}");
  BeginCycle();
  EXPECT_EQ(host->Call("connect", Address(kDeviceAddress)), "1");
  EXPECT_EQ(host->Call("setAuthSecret", Secret("other")), "null");
  EXPECT_EQ(host->Call("disconnect", Map({{"id", fl_value_new_int(1)}})),
            "true");
  // The cycle has not come past the daemon's answer.
  EXPECT_THAT(gate.sleeps(), IsEmpty());
  EndCycle();
  EXPECT_EQ(air.sockets(), 1);
}

TEST_F(ProberLocks, AreFreeDuringTheSleeps) {
  air.AddDevice(kDeviceAddress);
  RunCycle();
  EXPECT_EQ(host->Call("connect", Address(kDeviceAddress)), "1");
  EXPECT_EQ(host->Call("setAuthSecret", Secret("")), "null");
  EXPECT_EQ(host->Call("disconnect", Map({{"id", fl_value_new_int(1)}})),
            "true");
  gate.Allow(30);
  ASSERT_TRUE(gate.WaitForSleeps(31));
  EXPECT_EQ(gate.sleeps().back(), kEmptySecretWait);
  EXPECT_EQ(host->Call("connect", Address(kDeviceAddress)), "2");
  EXPECT_EQ(host->Call("setAuthSecret", Secret("x")), "null");
}

// ---------------------------------------------------------------------------

using ProberDispose = ProberTest;

TEST_F(ProberDispose, EndsThePauseWithTheSleepUnderWay) {
  AddTarget(Reading(-61));
  RunCycle();
  gate.Allow(3);
  ASSERT_TRUE(gate.WaitForSleeps(4));
  // Joining the prober opens the gate.
  host->Dispose();
  EXPECT_TRUE(Eventually([] { return CountThreadsNamed(kProber) == 0; }));
  EXPECT_EQ(gate.sleeps().size(), 4U);
  EXPECT_EQ(air.sockets(), 1);
}

TEST_F(ProberDispose, EndsTheWaitForASecretWithTheSleepUnderWay) {
  EXPECT_EQ(host->Call("setAuthSecret", Secret("")), "null");
  gate.Allow(1);
  ASSERT_TRUE(gate.WaitForSleeps(2));
  host->Dispose();
  EXPECT_TRUE(Eventually([] { return CountThreadsNamed(kProber) == 0; }));
  EXPECT_EQ(gate.sleeps().size(), 2U);
}

TEST_F(ProberDispose, LetsTheProbeUnderWayFinishAndBeginsNoOther) {
  std::atomic<bool> reached{false};
  const std::string first = AddTarget([&](Peer& peer) {
    reached = true;
    // Keeps silent: the probe lasts until its own timeout.
    peer.ReceiveAll();
  });
  AddTarget(Reading(-2));
  BeginCycle();
  ASSERT_TRUE(Eventually([&] { return reached.load(); }));
  host->Dispose();
  EXPECT_TRUE(air.EachClosedOnce());
  EXPECT_EQ(air.sockets(), 1);
  EXPECT_THAT(gate.sleeps(), IsEmpty());
  EXPECT_TRUE(Eventually([] { return CountThreadsNamed(kProber) == 0; }));
  DispatchQueued();
  EXPECT_THAT(TakeEvents(), IsEmpty());
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(first, 1, kHungUp)));
}

TEST_F(ProberDispose, LetsTheListingUnderWayFinish) {
  AddTarget(Reading(-61));
  daemon->OnCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                 "a{oa{sa{sv}}}", "time.sleep(2)\nret = {}");
  BeginCycle();
  ASSERT_TRUE(Eventually([] { return CountThreadsNamed(kProber) == 1; }));
  host->Dispose();
  EXPECT_EQ(air.sockets(), 0);
  EXPECT_TRUE(Eventually([] { return CountThreadsNamed(kProber) == 0; }));
}

TEST_F(ProberDispose, LeavesQueuedEventsWithoutEffect) {
  AddTarget(Reading(-1));
  const std::string lost = AddTarget(HangUp);
  ListDevice(lost, "VELKAN-1");
  EXPECT_EQ(host->Call("setAuthSecret", Secret(kSecret)), "null");
  ASSERT_TRUE(gate.WaitForSleeps(1));
  host->Dispose();
  DispatchQueued();
  EXPECT_THAT(TakeEvents(), IsEmpty());
  EXPECT_EQ(TakeLog().size(), 2U);
}

// Without a gate, in real time.
class ProberRealTime : public ReadyTest {
 protected:
  FakeRfcomm air;
};

TEST_F(ProberRealTime, DisposeEndsThePauseWithinAboutASecond) {
  air.AddDevice(kDeviceAddress, Reading(-61));
  daemon->AddDevice(kDevicePath,
                    "{'Address': <'AA:BB:CC:DD:EE:FF'>, 'Alias': <'DRU-KX'>}");
  EXPECT_EQ(host->Call("setAuthSecret", Secret(kSecret)), "null");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 1; }));
  const auto before = std::chrono::steady_clock::now();
  host->Dispose();
  EXPECT_LT(std::chrono::steady_clock::now() - before, seconds(5));
  EXPECT_TRUE(air.EachClosedOnce());
}

}  // namespace
}  // namespace lumso_test
