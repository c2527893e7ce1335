// The doctor's steps that ask the system bus and the BlueZ daemon.

#include <bluetooth/bluetooth.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <optional>
#include <string_view>
#include <utility>

#include "doctor/safe_text.h"
#include "doctor/steps.h"

namespace lumso_doctor {

namespace {

constexpr char kBus[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";
constexpr char kBluez[] = "org.bluez";
constexpr char kBluezPath[] = "/org/bluez";
constexpr char kSystemd[] = "org.freedesktop.systemd1";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr char kAdapterInterface[] = "org.bluez.Adapter1";
constexpr char kDeviceInterface[] = "org.bluez.Device1";
constexpr char kAgentManager[] = "org.bluez.AgentManager1";
constexpr char kOwnPath[] = "/brel/lumso/lumso_bluetooth/doctor";
constexpr char kOwnInterface[] = "brel.lumso.Doctor";
constexpr char kAccessDenied[] = "org.freedesktop.DBus.Error.AccessDenied";
constexpr char kNoOwner[] = "org.freedesktop.DBus.Error.NameHasNoOwner";
constexpr char kServiceUnknown[] = "org.freedesktop.DBus.Error.ServiceUnknown";
constexpr char kNoReply[] = "org.freedesktop.DBus.Error.NoReply";
constexpr char kNoAgent[] = "org.bluez.Error.DoesNotExist";

constexpr gint64 kSlowMs = 2000;

struct BusCall {
  const char* name;
  const char* path;
  const char* interface;
  const char* method;
  GVariant* arguments;  // Taken; may be null.
  const char* reply_type;
  int limit_ms;
};

void BeLate(int limit_ms, int patience_ms, BusAnswer* answer) {
  answer->late = true;
  answer->hurried = limit_ms < patience_ms;
  answer->message = "no answer within " + std::to_string(limit_ms) + " ms";
}

// Starts nothing that does not run.
BusAnswer Ask(const Patient& patient, const BusCall& call) {
  BusAnswer answer;
  const int limit_ms = TimeFor(patient, call.limit_ms);
  const Wait wait(patient,
                  std::string("an answer of ") +
                      (call.name == kBluez ? "the Bluetooth daemon"
                       : call.name == kBus ? "the bus"
                                           : "systemd"),
                  limit_ms);
  const gint64 began = g_get_monotonic_time();
  g_autoptr(GError) error = nullptr;
  answer.value.reset(g_dbus_connection_call_sync(
      patient.bus.get(), call.name, call.path, call.interface, call.method,
      call.arguments, G_VARIANT_TYPE(call.reply_type),
      G_DBUS_CALL_FLAGS_NO_AUTO_START, limit_ms, nullptr, &error));
  answer.took_ms = (g_get_monotonic_time() - began) / 1000;
  if (error == nullptr) return answer;
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT)) {
    BeLate(limit_ms, call.limit_ms, &answer);
    return answer;
  }
  g_autofree gchar* name = g_dbus_error_get_remote_error(error);
  g_dbus_error_strip_remote_error(error);
  if (name != nullptr) answer.error = name;
  answer.message = Printable(error->message);
  return answer;
}

BusAnswer AskBus(const Patient& patient, const char* method,
                 GVariant* arguments, const char* reply_type) {
  return Ask(patient, {kBus, kBusPath, kBus, method, arguments, reply_type,
                       patient.patience.bus});
}

BusAnswer AskForObjects(const Patient& patient) {
  return Ask(patient, {kBluez, "/", "org.freedesktop.DBus.ObjectManager",
                       "GetManagedObjects", nullptr, "(a{oa{sa{sv}}})",
                       patient.patience.daemon});
}

// Runs the main loop until `done`, or for `limit_ms`.
void RunUntil(const bool& done, int limit_ms) {
  bool late = false;
  const guint timer = g_timeout_add(
      static_cast<guint>(limit_ms),
      [](gpointer data) -> gboolean {
        *static_cast<bool*>(data) = true;
        return G_SOURCE_CONTINUE;
      },
      &late);
  while (!done && !late) g_main_context_iteration(nullptr, TRUE);
  g_source_remove(timer);
}

// Outlives a doctor that no longer waits.
struct Connecting {
  BusAnswer answer;
  std::unique_ptr<GDBusConnection, ConnectionUnref> connection;
  bool done = false;
};
using ConnectingPtr = std::shared_ptr<Connecting>;

void OnConnected(GObject*, GAsyncResult* result, gpointer user_data) {
  const std::unique_ptr<ConnectingPtr> own(
      static_cast<ConnectingPtr*>(user_data));
  Connecting& connecting = **own;
  g_autoptr(GError) error = nullptr;
  connecting.connection.reset(
      g_dbus_connection_new_for_address_finish(result, &error));
  if (error != nullptr) {
    connecting.answer.message = Printable(error->message);
    connecting.answer.denied =
        g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PERMISSION_DENIED) ||
        g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED);
    connecting.answer.absent =
        g_error_matches(error, G_IO_ERROR, G_IO_ERROR_NOT_FOUND) ||
        g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CONNECTION_REFUSED);
  }
  connecting.done = true;
}

// Makes a connection of the doctor's own. It is given up when the bus says
// nothing.
BusAnswer ConnectToBus(Patient* patient) {
  const auto connecting = std::make_shared<Connecting>();
  g_autoptr(GError) error = nullptr;
  g_autofree gchar* address =
      g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (address == nullptr) {
    connecting->answer.message = Printable(error->message);
    return std::move(connecting->answer);
  }
  g_dbus_connection_new_for_address(
      address,
      static_cast<GDBusConnectionFlags>(
          G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, OnConnected,
      std::make_unique<ConnectingPtr>(connecting).release());
  const int limit_ms = TimeFor(*patient, patient->patience.bus);
  const Wait wait(*patient, "the bus to let the doctor in", limit_ms);
  RunUntil(connecting->done, limit_ms);
  if (!connecting->done)
    BeLate(limit_ms, patient->patience.bus, &connecting->answer);
  patient->bus = std::move(connecting->connection);
  return std::move(connecting->answer);
}

// Returns what is called `name` in `properties` (a{sv}); null when it is not
// there or of another type.
VariantPtr Property(GVariant* properties, const char* name, const char* type) {
  return VariantPtr(
      g_variant_lookup_value(properties, name, G_VARIANT_TYPE(type)));
}

std::string Text(GVariant* properties, const char* name) {
  const VariantPtr value = Property(properties, name, "s");
  return value == nullptr ? "" : g_variant_get_string(value.get(), nullptr);
}

bool IsSet(GVariant* properties, const char* name) {
  const VariantPtr value = Property(properties, name, "b");
  return value != nullptr && g_variant_get_boolean(value.get());
}

using Visitor =
    std::function<void(const std::string& path, GVariant* properties)>;

// Visits the objects with that interface in the daemon's order.
void ForEachObject(const Patient& patient, const char* interface,
                   const Visitor& visit) {
  const VariantPtr objects(
      g_variant_get_child_value(patient.objects.value.get(), 0));
  GVariantIter iterator;
  g_variant_iter_init(&iterator, objects.get());
  const gchar* path = nullptr;
  GVariant* interfaces = nullptr;
  while (g_variant_iter_loop(&iterator, "{&o@a{sa{sv}}}", &path, &interfaces)) {
    const VariantPtr properties(
        g_variant_lookup_value(interfaces, interface, G_VARIANT_TYPE_VARDICT));
    if (properties != nullptr) visit(path, properties.get());
  }
}

std::string LastName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

// The daemon tells its version as that of the device that it says to be.
std::string DaemonVersion(const Patient& patient) {
  std::string version;
  ForEachObject(
      patient, kAdapterInterface,
      [&version](const std::string&, GVariant* properties) {
        unsigned number = 0;
        const std::string modalias = Text(properties, "Modalias");
        if (std::sscanf(modalias.c_str(), "usb:v1D6Bp0246d%4x", &number) == 1) {
          version =
              std::to_string(number >> 8) + "." + std::to_string(number & 0xff);
        }
      });
  return version;
}

// Says why the daemon does not run, as its service sees it.
Finding ExamineService(Finding finding, GVariant* unit, bool startable,
                       const Patient& patient) {
  const std::string load = Text(unit, "LoadState");
  const std::string active = Text(unit, "ActiveState");
  const std::string file = Text(unit, "UnitFileState");
  finding.saw.push_back("bluetooth.service: " + Printable(load) + ", " +
                        Printable(active) +
                        (file.empty() ? "" : ", " + Printable(file)));
  if (load == "bad-setting" || load == "error")
    return Problem(std::move(finding), kUnitBroken);
  if (load == "masked" || active == "failed")
    return Problem(std::move(finding), kDaemonFails);
  if (load == "not-found") return Problem(std::move(finding), kNoDaemon);
  if (active != "inactive") {
    return CannotTell(
        std::move(finding),
        "its service is " + Printable(active) + " and has no name on the bus");
  }
  if (file == "disabled") return Problem(std::move(finding), kDaemonDisabled);
  // Nobody asks systemd for it before there is a controller.
  if (Controllers(patient).empty()) {
    const auto radio = patient.lost.find(Part::kRadio);
    return radio == patient.lost.end()
               ? Problem(std::move(finding), kDaemonSkipped)
               : CannotTell(std::move(finding),
                            std::string("see ") + radio->second);
  }
  if (!startable) return Problem(std::move(finding), kDaemonDisabled);
  return CannotTell(std::move(finding),
                    "the bus starts it at an application's first call; after "
                    "systemctl start bluetooth the doctor sees more");
}

// Says the same where systemd does not answer.
Finding ExamineWithoutSystemd(Finding finding, const BusAnswer& unit,
                              bool startable, const Patient& patient) {
  if (IsInFlatpak(patient) || IsInSnap(patient))
    return Problem(std::move(finding), kDaemonUnseen);
  const bool absent = unit.error == kServiceUnknown || unit.error == kNoOwner;
  if (!absent && startable)
    return CannotTell(std::move(finding), "systemd: " + unit.message);
  finding.saw.push_back(absent ? "no systemd on the bus"
                               : "systemd: " + unit.message);
  return Problem(std::move(finding), startable ? kNoSystemd : kNoDaemon);
}

Finding ExamineAbsentDaemon(Patient* patient) {
  const BusAnswer names =
      AskBus(*patient, "ListActivatableNames", nullptr, "(as)");
  Finding finding;
  finding.lost.push_back(Part::kDaemon);
  if (names.late) {
    return CannotTell(
        std::move(finding),
        "it does not run; ListActivatableNames: " + names.message);
  }
  bool startable = false;
  if (names.value != nullptr) {
    g_autofree const gchar** all = nullptr;
    g_variant_get(names.value.get(), "(^a&s)", &all);
    startable = g_strv_contains(all, kBluez);
  }
  finding.saw.push_back(std::string("it does not run, and the bus ") +
                        (startable ? "may start it" : "cannot start it"));
  // GetUnit() would not know a service that nothing has had read.
  const BusAnswer unit =
      Ask(*patient, {kSystemd, "/org/freedesktop/systemd1",
                     "org.freedesktop.systemd1.Manager", "LoadUnit",
                     g_variant_new("(s)", "bluetooth.service"), "(o)",
                     patient->patience.bus});
  if (unit.value == nullptr) {
    return ExamineWithoutSystemd(std::move(finding), unit, startable, *patient);
  }
  const gchar* path = nullptr;
  g_variant_get(unit.value.get(), "(&o)", &path);
  const BusAnswer state =
      Ask(*patient, {kSystemd, path, kProperties, "GetAll",
                     g_variant_new("(s)", "org.freedesktop.systemd1.Unit"),
                     "(a{sv})", patient->patience.bus});
  if (state.value == nullptr)
    return CannotTell(std::move(finding), "systemd: " + state.message);
  const VariantPtr properties(g_variant_get_child_value(state.value.get(), 0));
  return ExamineService(std::move(finding), properties.get(), startable,
                        *patient);
}

struct Device {
  std::string adapter;  // By name.
  VariantPtr properties;
};

// The device's records, one for each adapter that knows it; that of the adapter
// that is taken comes first.
std::vector<Device> FindDevice(const Patient& patient) {
  std::vector<Device> found;
  ForEachObject(
      patient, kDeviceInterface,
      [&](const std::string& path, GVariant* properties) {
        const std::string address = Text(properties, "Address");
        if (g_ascii_strcasecmp(address.c_str(), patient.address.c_str()) != 0) {
          return;
        }
        const std::string adapter = path.substr(0, path.rfind('/'));
        found.insert(
            adapter == patient.adapter ? found.begin() : found.end(),
            Device{LastName(adapter), VariantPtr(g_variant_ref(properties))});
      });
  return found;
}

std::string Joined(const std::vector<std::string>& names) {
  std::string text;
  for (size_t i = 0; i < names.size(); ++i) {
    if (i > 0) text += i + 1 < names.size() ? ", " : " and ";
    text += names[i];
  }
  return text;
}

// The services as people look them up: those of the Bluetooth base are known by
// their numbers.
std::vector<std::string> Services(GVariant* device) {
  constexpr std::string_view kBase = "-0000-1000-8000-00805f9b34fb";
  const VariantPtr uuids = Property(device, "UUIDs", "as");
  if (uuids == nullptr) return {};
  std::vector<std::string> services;
  g_autofree const gchar** all = g_variant_get_strv(uuids.get(), nullptr);
  for (const gchar** uuid = all; *uuid != nullptr; ++uuid) {
    const std::string text = *uuid;
    if (!g_uuid_string_is_valid(*uuid)) continue;
    services.push_back(
        text.rfind("0000", 0) == 0 && text.substr(8) == kBase
            ? "0x" + text.substr(4, 4) +
                  (text.substr(4, 4) == "1101" ? " (serial port)" : "")
            : text);
  }
  return services;
}

// A device that was seen by inquiry has a class; one that says so itself in its
// advertising has no Bluetooth Classic. A random address is always a Low Energy
// one.
bool IsLowEnergyOnly(GVariant* device) {
  if (Text(device, "AddressType") == "random") return true;
  if (Property(device, "Class", "u") != nullptr) return false;
  constexpr guint8 kNoClassic = 0x04;
  const VariantPtr flags = Property(device, "AdvertisingFlags", "ay");
  if (flags == nullptr || g_variant_n_children(flags.get()) == 0) return false;
  guint8 first = 0;
  g_variant_get_child(flags.get(), 0, "y", &first);
  return (first & kNoClassic) != 0;
}

void Note(GDBusConnection*, const gchar*, const gchar*, const gchar*,
          const gchar*, GVariant*, gpointer heard) {
  *static_cast<bool*>(heard) = true;
}

// Tells whether this GLib hands on a signal that pretends to be the daemon's:
// one that the doctor sends to itself. Empty when nothing came back.
std::optional<bool> TakesForgedSignals(const Patient& patient) {
  GDBusConnection* const bus = patient.bus.get();
  const auto listen = [bus](const char* sender, const char* signal,
                            bool* heard) {
    return g_dbus_connection_signal_subscribe(
        bus, sender, kOwnInterface, signal, kOwnPath, nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE, Note, heard, nullptr);
  };
  bool forged = false;
  bool own = false;
  const guint forged_id = listen(kBluez, "Forged", &forged);
  const guint own_id = listen(nullptr, "Own", &own);
  for (const char* signal : {"Forged", "Own"}) {
    g_dbus_connection_emit_signal(bus, g_dbus_connection_get_unique_name(bus),
                                  kOwnPath, kOwnInterface, signal, nullptr,
                                  nullptr);
  }
  const int limit_ms = TimeFor(patient, patient.patience.bus);
  {
    const Wait wait(patient, "a signal of the doctor's own", limit_ms);
    RunUntil(own, limit_ms);
  }
  g_dbus_connection_signal_unsubscribe(bus, forged_id);
  g_dbus_connection_signal_unsubscribe(bus, own_id);
  return own ? std::optional<bool>(forged) : std::nullopt;
}

}  // namespace

bool IsProbedName(const std::string& name) {
  return std::any_of(kProbedNamePrefixes.begin(), kProbedNamePrefixes.end(),
                     [&name](std::string_view prefix) {
                       return name.compare(0, prefix.size(), prefix) == 0;
                     });
}

bool RefreshObjects(Patient* patient) {
  BusAnswer now = AskForObjects(*patient);
  if (now.value == nullptr) return false;
  patient->objects = std::move(now);
  return true;
}

std::vector<std::string> BondedAdapters(const Patient& patient) {
  std::vector<std::string> adapters;
  for (const Device& device : FindDevice(patient)) {
    if (IsSet(device.properties.get(), "Paired"))
      adapters.push_back(device.adapter);
  }
  return adapters;
}

bool MayPair(const Patient& patient) {
  const auto& bonded = patient.bonded;
  const std::string own = AdapterOf(patient, patient.address);
  return bonded.empty() ||
         std::any_of(patient.powered.begin(), patient.powered.end(),
                     [&](const std::string& adapter) {
                       return adapter != own &&
                              std::find(bonded.begin(), bonded.end(),
                                        adapter) == bonded.end();
                     });
}

std::string AdapterOf(const Patient& patient, const std::string& address) {
  std::string name;
  if (address.empty() || patient.objects.value == nullptr) return name;
  ForEachObject(patient, kAdapterInterface,
                [&](const std::string& path, GVariant* properties) {
                  const std::string own = Text(properties, "Address");
                  if (g_ascii_strcasecmp(own.c_str(), address.c_str()) == 0)
                    name = LastName(path);
                });
  return name;
}

std::string HowToForget(const Patient& patient, const std::string& adapter) {
  size_t adapters = 0;
  std::string address;
  ForEachObject(patient, kAdapterInterface,
                [&](const std::string& path, GVariant* properties) {
                  ++adapters;
                  if (LastName(path) == adapter)
                    address = Text(properties, "Address");
                });
  const std::string remove = "remove " + patient.address;
  return adapters == 1 ? "bluetoothctl " + remove
                       : "in bluetoothctl, select " + Printable(address) +
                             " and then " + remove;
}

Finding ExamineBus(Patient* patient) {
  const bool sandbox = IsInFlatpak(*patient) || IsInSnap(*patient);
  Finding finding;
  finding.lost = {Part::kBus};
  const gint64 began = g_get_monotonic_time();
  BusAnswer answer = ConnectToBus(patient);
  if (patient->bus != nullptr) {
    answer =
        AskBus(*patient, "GetNameOwner", g_variant_new("(s)", kBluez), "(s)");
  }
  if (answer.hurried)
    return CannotTell(std::move(finding), "no time was left to wait for it");
  if (answer.late) {
    finding.saw.push_back(answer.message);
    return Problem(std::move(finding), kBusSilent);
  }
  if (patient->bus == nullptr) {
    finding.saw.push_back(answer.message);
    if (sandbox && (answer.absent || answer.denied))
      return Problem(std::move(finding), kBusWithheld);
    return Problem(std::move(finding), answer.absent ? kNoBus : kBusRefuses);
  }
  if (answer.value == nullptr && answer.error != kNoOwner) {
    finding.saw.push_back("GetNameOwner: " + answer.message);
    if (sandbox && answer.error == kAccessDenied)
      return Problem(std::move(finding), kBusWithheld);
    finding.verdict = Verdict::kProblem;
    return finding;
  }
  finding.saw.push_back(
      "answers after " +
      std::to_string((g_get_monotonic_time() - began) / 1000) + " ms");
  finding.lost.clear();
  if (answer.value == nullptr) return finding;
  const gchar* owner = nullptr;
  g_variant_get(answer.value.get(), "(&s)", &owner);
  patient->daemon_owner = owner;

  patient->objects = AskForObjects(*patient);
  if (patient->objects.error == kAccessDenied) {
    finding.lost = {Part::kDaemon};
    finding.saw.insert(finding.saw.begin(),
                       "org.bluez: " + patient->objects.message);
    return Problem(std::move(finding), sandbox ? kBusWithheld : kDenied);
  }
  finding.saw.push_back("lets this user call org.bluez");
  return finding;
}

Finding ExamineDaemon(Patient* patient) {
  if (patient->daemon_owner.empty()) return ExamineAbsentDaemon(patient);
  const BusAnswer& objects = patient->objects;
  Finding finding;
  if (objects.value == nullptr) {
    finding.lost.push_back(Part::kDaemon);
    if (objects.hurried)
      return CannotTell(std::move(finding), "no time was left to wait for it");
    if (objects.late) {
      finding.saw.push_back("it runs: " + objects.message);
      return Problem(std::move(finding), kDaemonHangs);
    }
    finding.saw.push_back("GetManagedObjects: " + objects.message);
    if (objects.error == kNoReply)
      return Problem(std::move(finding), kDaemonFails);
    finding.verdict = Verdict::kProblem;
    return finding;
  }
  const std::string version = DaemonVersion(*patient);
  finding.saw.push_back(
      "it answers after " + std::to_string(objects.took_ms) + " ms, " +
      (version.empty() ? "version not told" : "version " + version));
  return objects.took_ms < kSlowMs ? std::move(finding)
                                   : Problem(std::move(finding), kDaemonSlow);
}

Finding ExamineAdapter(Patient* patient) {
  Finding finding;
  bool is_on = false;
  ForEachObject(
      *patient, kAdapterInterface,
      [&](const std::string& path, GVariant* properties) {
        const std::string name = LastName(path);
        const bool powered = IsSet(properties, "Powered");
        finding.saw.push_back(
            name + " " + Printable(Text(properties, "Address")) +
            (powered ? ", on" : ", off") +
            (IsSet(properties, "Discovering") ? ", discovering" : "") +
            (IsSet(properties, "Pairable") ? ", pairable" : ", not pairable"));
        if (powered) patient->powered.push_back(name);
        if (!patient->adapter.empty()) return;
        patient->adapter = path;
        is_on = powered;
      });
  if (patient->powered.empty()) finding.lost.push_back(Part::kAdapter);
  const auto radio = patient->lost.find(Part::kRadio);
  const auto see_radio = [&] {
    return CannotTell(std::move(finding), std::string("see ") + radio->second);
  };
  if (patient->adapter.empty()) {
    finding.saw.push_back("the daemon lists none");
    if (radio != patient->lost.end()) return see_radio();
    const std::vector<std::string> controllers = Controllers(*patient);
    if (controllers.empty()) return Problem(std::move(finding), kNoAdapter);
    finding.saw.push_back("the kernel has " + Joined(controllers));
    return Problem(std::move(finding), kAdapterWithheld);
  }
  const std::string name = LastName(patient->adapter);
  // The listing of the others comes after what matters of them.
  auto next = finding.saw.begin() + 1;
  if (patient->powered.size() > 1) {
    next = finding.saw.insert(
        next, Joined(patient->powered) +
                  " are on: a stream is opened by whichever the kernel "
                  "chooses");
    finding.telling = 2;
    ++next;
  }
  finding.saw.insert(next, "an application takes " + name +
                               ", the first that the daemon lists, for "
                               "discovery, bonds and state");
  if (is_on) return finding;
  if (radio != patient->lost.end()) return see_radio();
  const auto& blocked = patient->blocked;
  const bool is_blocked = std::any_of(
      blocked.begin(), blocked.end(), [&name](const std::string& switched) {
        return switched == name || !IsController(switched);
      });
  return Problem(std::move(finding), is_blocked ? kBlocked : kAdapterOff);
}

// Registers none: an agent that comes or goes changes the adapters. To
// withdraw one that is not there is refused, and tells who may ask.
Finding ExamineAgent(Patient* patient) {
  Finding finding;
  bool takes_agents = false;
  ForEachObject(*patient, kAgentManager,
                [&takes_agents](const std::string& path, GVariant*) {
                  takes_agents |= path == kBluezPath;
                });
  if (!takes_agents) {
    finding.saw.push_back("the daemon has no agent manager");
    return Problem(std::move(finding), kAgentRefused);
  }
  const BusAnswer answer = Ask(
      *patient, {kBluez, kBluezPath, kAgentManager, "UnregisterAgent",
                 g_variant_new("(o)", kOwnPath), "()", patient->patience.bus});
  if (answer.hurried)
    return CannotTell(std::move(finding), "no time was left to wait for it");
  if (answer.error != kNoAgent) {
    finding.saw.push_back("AgentManager1: " + answer.message);
    return Problem(std::move(finding), answer.late ? kDaemonHangs
                                       : answer.error == kAccessDenied
                                           ? kDenied
                                           : kAgentRefused);
  }
  finding.saw.push_back("the daemon lets this user ask for one");
  finding.saw.push_back(
      "pairings that a device begins go to whoever asked last to be the "
      "default: the application, or a desktop's dialogue that came later");
  return finding;
}

// Since 2.78.5, 2.80.1 and 2.81, and in what distributions mended, a signal
// counts only when the owner of the name sent it (CVE-2024-34397).
Finding ExamineGlib(Patient* patient) {
  Finding finding;
  finding.saw.push_back("version " + std::to_string(glib_major_version) + "." +
                        std::to_string(glib_minor_version) + "." +
                        std::to_string(glib_micro_version));
  const auto takes_forged =
      patient->bus != nullptr && patient->lost.count(Part::kBus) == 0
          ? TakesForgedSignals(*patient)
          : std::nullopt;
  if (!takes_forged) {
    return JudgeGlib(std::move(finding), glib_major_version, glib_minor_version,
                     glib_micro_version);
  }
  if (*takes_forged) {
    return Problem(std::move(finding),
                   "it takes a signal with a forged sender for the daemon's "
                   "(CVE-2024-34397): update it");
  }
  finding.saw.push_back("it drops a signal with a forged sender");
  return finding;
}

Finding JudgeGlib(Finding finding, unsigned major, unsigned minor,
                  unsigned micro) {
  const bool fixed = major > 2 || (major == 2 && minor >= 81) ||
                     (major == 2 && minor == 80 && micro >= 1) ||
                     (major == 2 && minor == 78 && micro >= 5);
  if (fixed) return finding;
  return CannotTell(
      std::move(finding),
      "older than the fix of 2024 (2.78.5, 2.80.1) against signals with a "
      "forged sender; distributions carry it in older versions too, Debian 12 "
      "since 2.74.6-2+deb12u2, which the number does not show");
}

Finding ExamineDevice(Patient* patient) {
  Finding finding;
  const std::string own = AdapterOf(*patient, patient->address);
  patient->own_address = !own.empty();
  if (patient->own_address) {
    finding.saw.push_back("this is " + own + ", an adapter of this machine");
    finding.telling = 2;
    if (patient->powered == std::vector<std::string>{own}) {
      finding.lost.push_back(Part::kAddress);
      return Problem(std::move(finding), kOwnAddress);
    }
  }
  const std::vector<Device> records = FindDevice(*patient);
  if (records.empty()) {
    finding.trouble = &kNotKnown;
    return CannotTell(std::move(finding),
                      "not known to the daemon, which matters only to pairing");
  }
  const std::string taken = LastName(patient->adapter);
  std::vector<std::string> knowing(records.size());
  std::transform(records.begin(), records.end(), knowing.begin(),
                 [](const Device& record) { return record.adapter; });
  GVariant* const device = records.front().properties.get();
  std::string name = Text(device, "Alias");
  if (name.empty()) name = Text(device, "Name");
  const bool is_known = knowing.front() == taken;
  finding.saw.push_back(
      "known to " + Joined(knowing) + " as " + Quoted(name) +
      (is_known ? ""
                : ", and not to " + taken + ", which an application takes"));
  finding.saw.push_back(IsProbedName(name)
                            ? "its name is one that the prober asks"
                            : "its name is not one that the prober asks");
  patient->bonded = BondedAdapters(*patient);
  finding.saw.push_back(patient->bonded.empty()
                            ? "not paired"
                            : "paired with " + Joined(patient->bonded));
  finding.saw.push_back(IsSet(device, "Connected") ? "connected"
                                                   : "not connected");
  const VariantPtr rssi = Property(device, "RSSI", "n");
  finding.saw.push_back(
      rssi == nullptr
          ? "no signal strength: not seen by a running discovery"
          : "signal strength " +
                std::to_string(g_variant_get_int16(rssi.get())) + " dBm");
  patient->services = Services(device);
  for (const std::string& service : patient->services)
    finding.saw.push_back("service " + service);
  if (IsLowEnergyOnly(device)) {
    finding.lost.push_back(Part::kAddress);
    return Problem(std::move(finding), kLowEnergyOnly);
  }
  if (is_known) return finding;
  finding.trouble = &kNotKnown;
  finding.verdict = Verdict::kCannotTell;
  return finding;
}

}  // namespace lumso_doctor
