#ifndef LUMSO_BLUETOOTH_SRC_BLUEZ_CLIENT_H_
#define LUMSO_BLUETOOTH_SRC_BLUEZ_CLIENT_H_

#include <gio/gio.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace lumso_bluetooth {

struct GVariantUnref {
  void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
using GVariantPtr = std::unique_ptr<GVariant, GVariantUnref>;

// The application's scale: 12 for an adapter that is on or a bond that exists,
// 10 for one that is not.
constexpr int StateCode(bool on) { return 10 + 2 * static_cast<int>(on); }

// One remote device as the daemon's org.bluez.Device1 object describes it
// (BlueZ device API). A property that is absent, or not of its documented type,
// leaves its field at the value given here.
struct DiscoveredDevice {
  std::string address;             // "Address": AA:BB:CC:DD:EE:FF
  std::string name;                // "Alias"; "Name" only where no name is set
  std::string path;                // D-Bus object path
  int32_t rssi = 0;                // "RSSI" in dBm; 0: not in range or unknown
  bool paired = false;             // "Paired"
  bool connected = false;          // "Connected"
  std::vector<std::string> uuids;  // "UUIDs", in the daemon's order
};

// The only speaker of D-Bus: the system bus, one adapter of the BlueZ daemon
// and its cached state, the daemon's devices, bonding, and the pairing agent.
//
// Everything runs on the main thread, where the daemon's signals and the
// agent's calls are dispatched too, except GetKnownDevices(). Each call to
// the daemon is synchronous and blocks for at most the bus library's default
// timeout of 25 s, "Pair" for 60 s. A method makes at most three, Initialize()
// four after it has connected to the bus, which has no bound of its own.
// Failures are values; the ones worth telling are written to standard error
// with the bus's own text.
class BluezClient {
 public:
  BluezClient() = default;
  BluezClient(const BluezClient&) = delete;
  BluezClient& operator=(const BluezClient&) = delete;

  // Ends the subscriptions, withdraws the agent and releases the bus. Does not
  // stop a discovery that this client started. No thread may be inside
  // GetKnownDevices().
  ~BluezClient();

  // Connects to the system bus, takes the first adapter that the daemon lists,
  // follows its signals and registers the agent. Returns whether there is an
  // adapter. Call it once, on the main thread.
  bool Initialize();

  // The adapter's object path, null when there is none.
  const char* adapter_path() const { return adapter_path_; }
  // The adapter's "Address" and "Name" as they were at start-up.
  const std::string& adapter_address() const { return adapter_address_; }
  std::string adapter_name() const { return adapter_name_; }
  // The adapter's "Powered" and "Discovering", kept current by its signals.
  bool powered() const { return powered_; }
  bool discovering() const { return discovering_; }

  // Starts discovery on the adapter unless it already runs, whoever started
  // it. Returns whether discovery runs or was asked for.
  bool StartDiscovery();
  // Stops discovery if this client started it. Returns false only when there is
  // no adapter or the daemon refused; a later call tries again.
  bool StopDiscovery();

  // Makes a record of one device's properties (a{sv}, borrowed). Any thread.
  static DiscoveredDevice ParseDevice(const std::string& path,
                                      GVariant* properties);
  // Asks the daemon for every device it knows, under all adapters, in its
  // order; empty when it does not answer. Any thread.
  std::vector<DiscoveredDevice> GetKnownDevices() const;
  // The known devices that are paired.
  std::vector<DiscoveredDevice> GetBondedDevices() const;

  // Finds the object path of the device with `address`, letter case ignored;
  // empty when the daemon does not know it.
  std::string FindDevicePath(const std::string& address) const;
  // Returns 12 when the device is paired, else 10.
  int GetBondState(const std::string& address) const;
  // Pairs with a device that the daemon knows. Returns whether the daemon
  // reported success. The agent answers nothing while this runs: both belong to
  // the main thread.
  bool PairDevice(const std::string& address);
  // Makes the daemon forget the device and its bond. Returns true also when the
  // device is not found: the daemon never knew it, or does not answer.
  bool RemoveDevice(const std::string& address);

 private:
  // One synchronous call to the daemon.
  struct BusCall {
    const char* path;
    const char* interface;
    const char* method;
    GVariant* arguments = nullptr;     // floating, consumed
    const char* reply_type = nullptr;  // null: any, for replies nobody reads
    int timeout_ms = -1;               // -1: the bus library's default
  };

  // Returns the reply, or null after writing "`what` failed" and the bus error
  // to standard error (nothing when `what` is null). Any thread.
  GVariantPtr CallSync(const BusCall& call, const char* what = nullptr) const;
  GVariantPtr GetManagedObjects(const char* what = nullptr) const;
  // Returns the value of one property of org.bluez.Device1, or null.
  GVariantPtr GetDeviceProperty(const std::string& path,
                                const char* property) const;
  // Returns the properties (a{sv}) of one interface of an object, or null.
  GVariantPtr GetAllProperties(const char* path, const char* interface) const;

  bool ResolveAdapter();
  void TakeAdapter(const char* path, GVariant* properties);
  void RefreshAdapterProperties();
  void Subscribe();

  static void OnInterfacesAdded(GDBusConnection* connection,
                                const gchar* sender, const gchar* path,
                                const gchar* interface, const gchar* signal,
                                GVariant* parameters, gpointer user_data);
  static void OnInterfacesRemoved(GDBusConnection* connection,
                                  const gchar* sender, const gchar* path,
                                  const gchar* interface, const gchar* signal,
                                  GVariant* parameters, gpointer user_data);
  static void OnPropertiesChanged(GDBusConnection* connection,
                                  const gchar* sender, const gchar* path,
                                  const gchar* interface, const gchar* signal,
                                  GVariant* parameters, gpointer user_data);
  void ReportDevice(const DiscoveredDevice& device) const;
  void ReportState() const;

  bool RegisterAgent();
  void UnregisterAgent();
  static void AgentMethodCall(GDBusConnection* connection, const gchar* sender,
                              const gchar* path, const gchar* interface,
                              const gchar* method, GVariant* parameters,
                              GDBusMethodInvocation* invocation,
                              gpointer user_data);

  GDBusConnection* connection_ = nullptr;      // owned; the system bus
  GDBusNodeInfo* agent_node_info_ = nullptr;   // owned; the agent's interface
  guint agent_registration_id_ = 0;            // 0: the agent is not exported
  guint interfaces_added_subscription_ = 0;    // 0: none
  guint interfaces_removed_subscription_ = 0;  // 0: none
  guint properties_changed_subscription_ = 0;  // 0: none
  gchar* adapter_path_ = nullptr;              // owned; set once
  std::string adapter_address_;
  std::string adapter_name_;
  bool powered_ = false;
  bool discovering_ = false;
  bool discovery_started_ = false;  // by this client, and not yet stopped
  // Ends with the client, and holds nothing: OnInterfacesAdded(), which may
  // have several reports to make, learns from it whether one has ended the
  // client.
  struct Life {};
  const std::shared_ptr<Life> life_ = std::make_shared<Life>();

 public:
  // Set and cleared by the owner, also from within themselves.
  //
  // Called on the main thread with each new or changed device; the record lives
  // only during the call. May be empty.
  std::function<void(const DiscoveredDevice&)> on_device;
  // Called on the main thread after any property of the adapter changed and its
  // cached state was read again. May be empty.
  std::function<void()> on_state_changed;
};

}  // namespace lumso_bluetooth

#endif  // LUMSO_BLUETOOTH_SRC_BLUEZ_CLIENT_H_
