// The fixture of all cases that run the prober.

#ifndef LUMSO_BLUETOOTH_TESTS_BUS_PROBER_TEST_H_
#define LUMSO_BLUETOOTH_TESTS_BUS_PROBER_TEST_H_

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/bus_test.h"
#include "tests/support/fake_rfcomm.h"

namespace lumso_test {

inline constexpr char kProber[] = "lumso-prober";
inline constexpr char kSecret[] = "s3cret";

// A new map with the single key "secret".
inline FlValue* Secret(const std::string& secret) {
  return Map({{"secret", fl_value_new_string(secret.c_str())}});
}

// What the application and the log get to see of one probe.
inline std::string Update(const std::string& address, int value) {
  return R"({"type": "rssiUpdate", "address": ")" + address + R"(", "rssi": )" +
         std::to_string(value) + "}";
}

inline std::string Lost(const std::string& address) {
  return R"({"type": "deviceLost", "address": ")" + address + "\"}";
}

inline std::string Counted(const std::string& address, int count,
                           const std::string& error) {
  return "warning: lumso_bluetooth: RSSI probe " + address + " fail " +
         std::to_string(count) + "/2: " + error;
}

inline std::string Transient(const std::string& address,
                             const std::string& error) {
  return "debug: lumso_bluetooth: RSSI probe " + address +
         " transient: " + error;
}

// A device that goes through the whole exchange and answers with `reply`.
inline FakeRfcomm::Behaviour Replying(std::string reply) {
  return [reply = std::move(reply)](Peer& peer) {
    peer.Send("auth\r\n");
    EXPECT_EQ(peer.ReceiveUntil("\r\n"),
              std::string("auth=") + kSecret + "\r\n");
    peer.Send("ready\r\n");
    EXPECT_EQ(peer.ReceiveUntil("\r\n"), "rssi\r\n");
    peer.Send(reply);
    EXPECT_EQ(peer.ReceiveAll(), "");
  };
}

// A device that answers with a reading.
inline FakeRfcomm::Behaviour Reading(int value) {
  return Replying("{\"rssi\": " + std::to_string(value) + "}!!END");
}

// A device that hangs up on a probe that waits for its greeting: it is counted.
// Hanging up sooner, connecting may be told of it.
inline void HangUp(Peer& peer) {
  peer.Send("?");
  peer.WaitUntilRead();
}

// The outcome of a probe of HangUp().
inline constexpr char kHungUp[] = "greeting timeout";

// Gates the prober's sleeps: the prober stands still at the first sleep after
// each cycle until the case goes on.
class GatedProber {
 protected:
  FakeRfcomm air;
  SleepGate gate;
};

// `Base` is BusTest or ReadyTest.
template <typename Base>
class ProberFixture : public Base, protected GatedProber {
 protected:
  static constexpr int kPauseSteps = 30;

  void TearDown() override {
    Base::TearDown();
    EXPECT_TRUE(air.EachClosedOnce());
    EXPECT_TRUE(Eventually([] { return CountThreadsNamed(kProber) == 0; }));
  }

  // Puts a device on the daemon's list and on the air, and returns its address.
  // The devices are probed in the order of these calls.
  std::string AddTarget(FakeRfcomm::Behaviour behaviour,
                        const std::string& name = "VELKAN-1") {
    char address[18];
    std::snprintf(address, sizeof(address), "AA:BB:CC:00:%02X:%02X",
                  targets_ / 256, targets_ % 256);
    ++targets_;
    air.AddDevice(address, std::move(behaviour));
    ListDevice(address, name);
    return address;
  }

  // Puts a device on the daemon's list only.
  void ListDevice(const std::string& address, const std::string& name) {
    this->daemon->AddObject(
        "/org/bluez/hci0/dev_" + std::to_string(++listed_), kDeviceInterface,
        "{'Address': <'" + address + "'>, 'Alias': <'" + name + "'>}");
  }

  // Takes all devices off the daemon's list.
  void RemoveTargets() {
    for (; listed_ > removed_; ++removed_) {
      this->daemon->RemoveObject("/org/bluez/hci0/dev_" +
                                 std::to_string(removed_ + 1));
    }
  }

  // Runs one whole cycle up to the beginning of its pause and dispatches its
  // events; the first time it hands over the secret.
  void RunCycle() {
    BeginCycle();
    EndCycle();
  }
  // The same in two steps.
  void BeginCycle() {
    if (cycles_++ == 0) {
      EXPECT_EQ(this->host->Call("setAuthSecret", Secret(kSecret)), "null");
    } else {
      gate.Allow(kPauseSteps);
    }
  }
  void EndCycle() {
    EXPECT_TRUE(gate.WaitForSleeps((cycles_ - 1) * kPauseSteps + 1));
    air.JoinDevices();
    DispatchQueued();
  }

  void DispatchQueued() {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
  }

  // The events on the discovery stream since the last time.
  std::vector<std::string> TakeEvents() {
    const auto all = this->host->Events(kDiscovery);
    std::vector<std::string> fresh(all.begin() + taken_events_, all.end());
    taken_events_ = all.size();
    return fresh;
  }

  // The number of times the daemon was asked for its objects since the last
  // look at its calls.
  size_t TakeListings() {
    size_t count = 0;
    for (const std::string& call : this->daemon->TakeCalls()) {
      if (call.find("GetManagedObjects") != std::string::npos) ++count;
    }
    return count;
  }

 private:
  int targets_ = 0;
  int listed_ = 0;
  int removed_ = 0;
  int cycles_ = 0;
  ptrdiff_t taken_events_ = 0;
};

using ProberTest = ProberFixture<ReadyTest>;

}  // namespace lumso_test

#endif  // LUMSO_BLUETOOTH_TESTS_BUS_PROBER_TEST_H_
