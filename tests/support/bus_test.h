// The fixture of all cases that run the plug-in against a bus.

#ifndef LUMSO_BLUETOOTH_TESTS_SUPPORT_BUS_TEST_H_
#define LUMSO_BLUETOOTH_TESTS_SUPPORT_BUS_TEST_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/support/captured_output.h"
#include "tests/support/daemon_double.h"
#include "tests/support/plugin_host.h"
#include "tests/support/private_bus.h"

namespace lumso_test {

inline constexpr char kAdapterPath[] = "/org/bluez/hci0";
inline constexpr char kAdapterAddress[] = "00:11:22:33:44:55";
inline constexpr char kDeviceAddress[] = "AA:BB:CC:DD:EE:FF";
inline constexpr char kDevicePath[] = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF";

struct ObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
using BusPtr = std::unique_ptr<GDBusConnection, ObjectUnref>;

// Returns the process's shared connection to the bus, which the plug-in uses
// too. It outlives the plug-in only while somebody else holds it.
BusPtr SharedBus();

// Checks at the end of each case that everything written on standard error and
// every message of GLib's log was taken and looked at by the case.
class BusTest : public ::testing::Test {
 protected:
  BusTest();
  ~BusTest() override;

  void TearDown() override;

  // Starts what a case needs, step by step.
  void StartBus() { bus = std::make_unique<PrivateBus>(); }
  void StartDaemon() { daemon = std::make_unique<DaemonDouble>(bus.get()); }
  void Register() { host = std::make_unique<PluginHost>(); }

  // All of the above with one powered adapter (kAdapterPath), its calls at
  // registration already taken.
  void RegisterReady();

  // Returns when the main loop has dispatched every message that had arrived at
  // the plug-in's bus connection, the daemon's earlier signals included. Lets a
  // case claim that nothing happens without waiting for a time.
  void Settle();

  // The unique name of the plug-in's bus connection. The plug-in must be alive.
  std::string PluginBusName();

  std::string TakeStandardError() { return standard_error_.Take(); }

  std::unique_ptr<PrivateBus> bus;
  std::unique_ptr<DaemonDouble> daemon;
  std::unique_ptr<PluginHost> host;

 private:
  CapturedStandardError standard_error_;
};

// The common start: bus, daemon, one powered adapter, plug-in registered.
class ReadyTest : public BusTest {
 protected:
  void SetUp() override { RegisterReady(); }
};

}  // namespace lumso_test

#endif  // LUMSO_BLUETOOTH_TESTS_SUPPORT_BUS_TEST_H_
