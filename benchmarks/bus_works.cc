// Works that need the daemon.

#include <gio/gio.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "benchmarks/application.h"
#include "benchmarks/measure.h"
#include "benchmarks/plain.h"
#include "benchmarks/works.h"

namespace lumso_bench {
namespace {

using lumso_host::BytesPtr;

constexpr char kBusName[] = "org.bluez";
constexpr char kAdapterPath[] = "/org/bluez/hci0";
constexpr char kAdapterInterface[] = "org.bluez.Adapter1";
constexpr char kDeviceInterface[] = "org.bluez.Device1";
constexpr char kAgentManagerInterface[] = "org.bluez.AgentManager1";
constexpr char kAgentPath[] = "/lumso/bench/agent";
constexpr char kPropertiesInterface[] = "org.freedesktop.DBus.Properties";
constexpr char kObjectManagerInterface[] = "org.freedesktop.DBus.ObjectManager";
constexpr char kControlInterface[] = "lumso.Bench";

constexpr char kPairedAddress[] = "C0:FF:EE:00:00:04";
constexpr char kPairedPath[] = "/org/bluez/hci0/dev_C0_FF_EE_00_00_04";
constexpr char kPairedLowerCaseAddress[] = "c0:ff:ee:00:00:04";
constexpr char kPairedLowerCasePath[] = "/org/bluez/hci0/dev_c0_ff_ee_00_00_04";

struct VariantUnref {
  void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
using VariantPtr = std::unique_ptr<GVariant, VariantUnref>;

// The connection that the plug-in uses too: GLib shares it within the process.
GDBusConnection* Bus() {
  static GDBusConnection* const bus =
      g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
  if (bus == nullptr) g_error("no bus");
  return bus;
}

// One call to the daemon, as plain as it can be. Null when it is refused.
VariantPtr CallDaemon(const char* path, const char* interface,
                      const char* method, GVariant* arguments) {
  return VariantPtr(g_dbus_connection_call_sync(
      Bus(), kBusName, path, interface, method, arguments, nullptr,
      G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
}

VariantPtr GetManagedObjects() {
  return CallDaemon("/", kObjectManagerInterface, "GetManagedObjects", nullptr);
}

VariantPtr GetAll(const char* path, const char* interface) {
  return CallDaemon(path, kPropertiesInterface, "GetAll",
                    g_variant_new("(s)", interface));
}

VariantPtr GetProperty(const char* path, const char* name) {
  return CallDaemon(path, kPropertiesInterface, "Get",
                    g_variant_new("(ss)", kDeviceInterface, name));
}

// So many that a measurement takes about a third of a second.
int Rounds(size_t devices) {
  return static_cast<int>(std::clamp<size_t>(20000 / (devices + 1), 7, 200));
}

Subject CallSubject(const char* name, Application* application,
                    const char* channel, GBytes* message) {
  return {name,
          [application, to = std::string(channel), message] {
            if (application->Call(to, message) == nullptr) {
              g_error("no answer");
            }
            return size_t{1};
          },
          nullptr, nullptr};
}

std::vector<Subject> Selected(const Names& names,
                              std::vector<Subject> subjects) {
  subjects.erase(std::remove_if(subjects.begin(), subjects.end(),
                                [&names](const Subject& subject) {
                                  return names.count(subject.name) == 0;
                                }),
                 subjects.end());
  return subjects;
}

void WalkObjectManager() {
  g_autoptr(GDBusObjectManager) manager = g_dbus_object_manager_client_new_sync(
      Bus(), G_DBUS_OBJECT_MANAGER_CLIENT_FLAGS_NONE, kBusName, "/", nullptr,
      nullptr, nullptr, nullptr, nullptr);
  if (manager == nullptr) g_error("no object manager");
  GList* objects = g_dbus_object_manager_get_objects(manager);
  for (GList* node = objects; node != nullptr; node = node->next) {
    auto* object = static_cast<GDBusObject*>(node->data);
    g_autoptr(GDBusInterface) device =
        g_dbus_object_get_interface(object, kDeviceInterface);
    if (device == nullptr) continue;
    for (const char* name :
         {"Address", "Alias", "RSSI", "Paired", "Connected"}) {
      const VariantPtr value(
          g_dbus_proxy_get_cached_property(G_DBUS_PROXY(device), name));
    }
  }
  g_list_free_full(objects, g_object_unref);
}

void MeasureBondOf(const Names& names, size_t devices, const char* address,
                   const std::function<void()>& floor) {
  Application application;
  application.Register();
  const BytesPtr message =
      Message("getBondState", {{"address", fl_value_new_string(address)}});
  const BytesPtr answer = application.Call(kMethods, message.get());
  const lumso_host::Envelope envelope =
      lumso_host::DecodeEnvelope(answer.get());
  if (fl_value_get_int(envelope.value.get()) != 12) g_error("not bonded");
  Compare(Selected(names,
                   {CallSubject("ours", &application, kMethods, message.get()),
                    {"floor",
                     [&floor] {
                       floor();
                       return size_t{1};
                     },
                     nullptr, nullptr}}),
          Rounds(devices));
}

void OnSignal(GDBusConnection*, const gchar*, const gchar* path, const gchar*,
              const gchar*, GVariant*, gpointer user_data) {
  GetAll(path, kDeviceInterface);
  ++*static_cast<size_t*>(user_data);
}

void IgnoreSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                  const gchar*, GVariant*, gpointer) {}

guint Subscribe(const char* interface, const char* signal, const char* path,
                GDBusSignalCallback handler, gpointer user_data) {
  return g_dbus_connection_signal_subscribe(
      Bus(), kBusName, interface, signal, path, nullptr,
      G_DBUS_SIGNAL_FLAGS_NONE, handler, user_data, nullptr);
}

// The calls that a client cannot do without before it is ready.
void StartFloor() {
  GetManagedObjects();
  GetAll(kAdapterPath, kAdapterInterface);
  Subscribe(kObjectManagerInterface, "InterfacesAdded", "/", IgnoreSignal,
            nullptr);
  Subscribe(kObjectManagerInterface, "InterfacesRemoved", "/", IgnoreSignal,
            nullptr);
  Subscribe(kPropertiesInterface, "PropertiesChanged", nullptr, IgnoreSignal,
            nullptr);
  CallDaemon("/org/bluez", kAgentManagerInterface, "RegisterAgent",
             g_variant_new("(os)", kAgentPath, "NoInputNoOutput"));
  CallDaemon("/org/bluez", kAgentManagerInterface, "RequestDefaultAgent",
             g_variant_new("(o)", kAgentPath));
}

// Asks for a burst without waiting for anything.
void AskForBurst(size_t changes) {
  g_dbus_connection_call(Bus(), kBusName, "/", kControlInterface, "Burst",
                         g_variant_new("(u)", static_cast<guint>(changes)),
                         nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr,
                         nullptr);
}

// Returns the size of the tree's message in bytes.
guint SetDeviceCount(size_t count) {
  const VariantPtr size =
      CallDaemon("/", kControlInterface, "SetDevices",
                 g_variant_new("(u)", static_cast<guint>(count)));
  guint bytes = 0;
  g_variant_get(size.get(), "(u)", &bytes);
  return bytes;
}

// The memory that the process holds at most since the last reset, in bytes.
size_t PeakMemory() {
  size_t kilobytes = 0;
  std::FILE* status = std::fopen("/proc/self/status", "re");
  char line[128];
  while (std::fgets(line, sizeof(line), status) != nullptr) {
    if (std::sscanf(line, "VmHWM: %zu", &kilobytes) == 1) break;
  }
  std::fclose(status);
  return kilobytes * 1024;
}

void ResetPeakMemory() {
  malloc_trim(0);
  std::FILE* refs = std::fopen("/proc/self/clear_refs", "we");
  std::fputs("5", refs);
  std::fclose(refs);
}

}  // namespace

void SetDevices(const Names&, size_t count) {
  Report("daemon", "bytes", SetDeviceCount(count));
}

void MeasureList(const Names& names, size_t devices) {
  const BytesPtr message = Message("getDiscoveredDevices");
  Application application;
  const PlainList plain(application.messenger(), Bus());
  if (names.count("ours") != 0) {
    application.Register();
    const BytesPtr answer = application.Call(kMethods, message.get());
    const lumso_host::Envelope envelope =
        lumso_host::DecodeEnvelope(answer.get());
    if (fl_value_get_length(envelope.value.get()) != devices) {
      g_error("not all devices are listed");
    }
    const BytesPtr other = application.Call(kPlainMethods, message.get());
    if (!g_bytes_equal(answer.get(), other.get())) {
      g_error("the plain program lists something else");
    }
  }
  Compare(Selected(
              names,
              {CallSubject("ours", &application, kMethods, message.get()),
               CallSubject("plain", &application, kPlainMethods, message.get()),
               {"floor",
                [] {
                  if (GetManagedObjects() == nullptr) g_error("no");
                  return size_t{1};
                },
                nullptr, nullptr},
               {"object manager",
                [] {
                  WalkObjectManager();
                  return size_t{1};
                },
                nullptr,
                [] {
                  while (g_main_context_iteration(nullptr, FALSE)) {
                  }
                }}}),
          Rounds(devices));
}

void MeasureBond(const Names& names, size_t) {
  MeasureBondOf(names, 0, kPairedAddress, [] {
    GetProperty(kPairedPath, "Address");
    GetProperty(kPairedPath, "Paired");
  });
}

// Here the object has to be searched for, so the floor asks for the tree too.
void MeasureLowerCaseBond(const Names& names, size_t devices) {
  MeasureBondOf(names, devices, kPairedLowerCaseAddress, [] {
    GetProperty(kPairedLowerCasePath, "Address");
    GetManagedObjects();
    GetProperty(kPairedPath, "Paired");
  });
}

void MeasureStart(const Names& names, size_t) {
  const std::string subject = *names.begin();
  Application application;
  const int64_t start = Now();
  if (subject == "ours") {
    application.Register();
  } else if (subject == "floor") {
    StartFloor();
  } else {
    WalkObjectManager();
  }
  Report(subject, "wall", static_cast<double>(Now() - start));
}

// The subjects need a process each: a plug-in that nobody listens to follows
// every change too.
void MeasureBurst(const Names& names, size_t changes) {
  Application application;
  size_t changed = 0;
  Subject subject{*names.begin(), nullptr, nullptr, nullptr};
  std::function<void()> follow;
  if (subject.name == "ours") {
    application.Register();
    application.Call(kDiscovery, Message("listen").get());
    follow = [&] { application.AwaitEvents(changes); };
  } else {
    Subscribe(kPropertiesInterface, "PropertiesChanged", nullptr, OnSignal,
              &changed);
    follow = [&] {
      const size_t wanted = changed + changes;
      while (changed < wanted) g_main_context_iteration(nullptr, TRUE);
    };
  }
  subject.body = [&] {
    AskForBurst(changes);
    follow();
    return changes;
  };
  Compare({subject}, 1);
  LoopWatch watch;
  subject.body();
  Report(subject.name, "gap", static_cast<double>(watch.longest()));
}

// The tree is empty until all else is in place: the memory that an earlier list
// leaves in the allocator would not be counted.
void MeasureListMemory(const Names& names, size_t devices) {
  const BytesPtr message = Message("getDiscoveredDevices");
  SetDeviceCount(0);
  Application application;
  application.Register();
  SetDeviceCount(devices);
  ResetPeakMemory();
  const size_t before = PeakMemory();
  if (names.count("ours") != 0) {
    application.Call(kMethods, message.get());
  } else {
    GetManagedObjects();
  }
  Report(*names.begin(), "bytes", static_cast<double>(PeakMemory() - before));
}

}  // namespace lumso_bench
