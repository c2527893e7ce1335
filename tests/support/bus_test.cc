#include "tests/support/bus_test.h"

namespace lumso_test {

BusPtr SharedBus() {
  return BusPtr(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
}

BusTest::BusTest() { RecordLog(); }

// In this order: the plug-in calls the daemon when it goes.
BusTest::~BusTest() {
  host.reset();
  daemon.reset();
  bus.reset();
}

// What is still queued when the plug-in has gone runs before its output is
// looked at; it may also hold the closed bus connection.
void BusTest::TearDown() {
  host.reset();
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
  EXPECT_EQ(TakeStandardError(), "");
  EXPECT_THAT(TakeLog(), ::testing::IsEmpty());
}

void BusTest::RegisterReady() {
  StartBus();
  StartDaemon();
  daemon->AddAdapter(kAdapterPath,
                     "{'Address': <'00:11:22:33:44:55'>, 'Name': <'desk'>, "
                     "'Alias': <'other'>, 'Powered': <true>, "
                     "'Discovering': <false>}");
  Register();
  daemon->TakeCalls();
}

void BusTest::Settle() {
  const BusPtr shared = SharedBus();
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      shared.get(), "org.bluez", "/", "org.freedesktop.DBus.Peer", "Ping",
      nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  ASSERT_NE(reply, nullptr);
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
}

std::string BusTest::PluginBusName() {
  const BusPtr shared = SharedBus();
  return g_dbus_connection_get_unique_name(shared.get());
}

}  // namespace lumso_test
