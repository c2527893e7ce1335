// The BlueZ daemon as the benchmarks need it: a process of its own on the bus
// in DBUS_SYSTEM_BUS_ADDRESS, with one adapter and as many devices as asked
// for. It is built on libdbus, as the real daemon is, and has its large answers
// ready, so that what is measured is the client. Its own time is part of every
// figure alike.

#include <dbus/dbus.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

constexpr char kBusName[] = "org.bluez";
constexpr char kAdapterPath[] = "/org/bluez/hci0";
constexpr char kAdapterInterface[] = "org.bluez.Adapter1";
constexpr char kDeviceInterface[] = "org.bluez.Device1";
constexpr char kAgentManagerInterface[] = "org.bluez.AgentManager1";
constexpr char kPropertiesInterface[] = "org.freedesktop.DBus.Properties";
constexpr char kIntrospectableInterface[] =
    "org.freedesktop.DBus.Introspectable";
// What the benchmarks ask of this daemon alone.
constexpr char kControlInterface[] = "lumso.Bench";

struct MessageUnref {
  void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<DBusMessage, MessageUnref>;

// An entry of a property dictionary, its value still to be written.
class Dictionary {
 public:
  Dictionary(DBusMessageIter* parent, const char* type) : parent_(parent) {
    dbus_message_iter_open_container(parent, DBUS_TYPE_ARRAY, type, &entries_);
  }
  ~Dictionary() { dbus_message_iter_close_container(parent_, &entries_); }
  Dictionary(const Dictionary&) = delete;
  Dictionary& operator=(const Dictionary&) = delete;

  void Add(const char* key, int type, const void* value) {
    const char signature[] = {static_cast<char>(type), 0};
    DBusMessageIter entry;
    DBusMessageIter variant;
    Open(key, signature, &entry, &variant);
    dbus_message_iter_append_basic(&variant, type, value);
    Close(&entry, &variant);
  }
  void AddText(const char* key, const std::string& text) {
    const char* value = text.c_str();
    Add(key, DBUS_TYPE_STRING, &value);
  }
  void AddPath(const char* key, const char* path) {
    Add(key, DBUS_TYPE_OBJECT_PATH, &path);
  }
  void AddBool(const char* key, bool flag) {
    const dbus_bool_t value = flag ? 1 : 0;
    Add(key, DBUS_TYPE_BOOLEAN, &value);
  }
  void AddTexts(const char* key, const std::vector<std::string>& texts) {
    DBusMessageIter entry;
    DBusMessageIter variant;
    DBusMessageIter array;
    Open(key, "as", &entry, &variant);
    dbus_message_iter_open_container(&variant, DBUS_TYPE_ARRAY, "s", &array);
    for (const std::string& text : texts) {
      const char* value = text.c_str();
      dbus_message_iter_append_basic(&array, DBUS_TYPE_STRING, &value);
    }
    dbus_message_iter_close_container(&variant, &array);
    Close(&entry, &variant);
  }

 private:
  void Open(const char* key, const char* type, DBusMessageIter* entry,
            DBusMessageIter* variant) {
    dbus_message_iter_open_container(&entries_, DBUS_TYPE_DICT_ENTRY, nullptr,
                                     entry);
    dbus_message_iter_append_basic(entry, DBUS_TYPE_STRING, &key);
    dbus_message_iter_open_container(entry, DBUS_TYPE_VARIANT, type, variant);
  }
  void Close(DBusMessageIter* entry, DBusMessageIter* variant) {
    dbus_message_iter_close_container(entry, variant);
    dbus_message_iter_close_container(&entries_, entry);
  }

  DBusMessageIter* parent_;
  DBusMessageIter entries_;
};

struct Device {
  std::string address;
  std::string path;
  int16_t rssi;
  bool paired;
};

Device MakeDevice(unsigned number) {
  char fields[18];
  std::snprintf(fields, sizeof(fields), "C0:FF:EE:%02X:%02X:%02X",
                (number >> 16) & 0xff, (number >> 8) & 0xff, number & 0xff);
  std::string path = std::string(kAdapterPath) + "/dev_" + fields;
  for (char& letter : path) {
    if (letter == ':') letter = '_';
  }
  return {fields, std::move(path), static_cast<int16_t>(-40 - number % 50),
          number % 4 == 0};
}

// The seventeen properties that a scanned device usually has.
void AppendDeviceProperties(DBusMessageIter* iter, const Device& device) {
  const std::string name = "Device " + device.address;
  const uint32_t device_class = 0x240404;
  Dictionary properties(iter, "{sv}");
  properties.AddText("Address", device.address);
  properties.AddText("AddressType", "public");
  properties.AddText("Name", name);
  properties.AddText("Alias", name);
  properties.Add("Class", DBUS_TYPE_UINT32, &device_class);
  properties.AddText("Icon", "audio-headset");
  properties.AddBool("Paired", device.paired);
  properties.AddBool("Bonded", device.paired);
  properties.AddBool("Trusted", false);
  properties.AddBool("Blocked", false);
  properties.AddBool("LegacyPairing", false);
  properties.Add("RSSI", DBUS_TYPE_INT16, &device.rssi);
  properties.AddBool("Connected", false);
  properties.AddTexts("UUIDs", {"00001101-0000-1000-8000-00805f9b34fb",
                                "0000110b-0000-1000-8000-00805f9b34fb",
                                "0000111e-0000-1000-8000-00805f9b34fb"});
  properties.AddText("Modalias", "bluetooth:v000Fp1200d1436");
  properties.AddPath("Adapter", kAdapterPath);
  properties.AddBool("ServicesResolved", false);
}

void AppendAdapterProperties(DBusMessageIter* iter) {
  const uint32_t adapter_class = 0x7c010c;
  const uint32_t timeout = 180;
  Dictionary properties(iter, "{sv}");
  properties.AddText("Address", "00:11:22:33:44:55");
  properties.AddText("AddressType", "public");
  properties.AddText("Name", "desk");
  properties.AddText("Alias", "desk");
  properties.Add("Class", DBUS_TYPE_UINT32, &adapter_class);
  properties.AddBool("Powered", true);
  properties.AddBool("Discoverable", false);
  properties.Add("DiscoverableTimeout", DBUS_TYPE_UINT32, &timeout);
  properties.AddBool("Pairable", true);
  properties.Add("PairableTimeout", DBUS_TYPE_UINT32, &timeout);
  properties.AddBool("Discovering", false);
  properties.AddTexts("UUIDs", {"0000110e-0000-1000-8000-00805f9b34fb"});
  properties.AddText("Modalias", "usb:v1D6Bp0246d0542");
}

// One object of the tree with the interface that matters and the two that every
// object of the daemon has.
template <typename AppendProperties>
void AppendObject(DBusMessageIter* objects, const char* path,
                  const char* interface, AppendProperties append) {
  DBusMessageIter object;
  DBusMessageIter interfaces;
  dbus_message_iter_open_container(objects, DBUS_TYPE_DICT_ENTRY, nullptr,
                                   &object);
  dbus_message_iter_append_basic(&object, DBUS_TYPE_OBJECT_PATH, &path);
  dbus_message_iter_open_container(&object, DBUS_TYPE_ARRAY, "{sa{sv}}",
                                   &interfaces);
  for (const char* name :
       {kIntrospectableInterface, interface, kPropertiesInterface}) {
    DBusMessageIter entry;
    dbus_message_iter_open_container(&interfaces, DBUS_TYPE_DICT_ENTRY, nullptr,
                                     &entry);
    dbus_message_iter_append_basic(&entry, DBUS_TYPE_STRING, &name);
    if (name == interface) {
      append(&entry);
    } else {
      const Dictionary none(&entry, "{sv}");
    }
    dbus_message_iter_close_container(&interfaces, &entry);
  }
  dbus_message_iter_close_container(&object, &interfaces);
  dbus_message_iter_close_container(objects, &object);
}

void AppendNothing(DBusMessageIter* iter) {
  const Dictionary none(iter, "{sv}");
}

// A finished answer but for whom it goes to.
MessagePtr NewAnswer() {
  return MessagePtr(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
}

class Daemon {
 public:
  explicit Daemon(DBusConnection* connection) : connection_(connection) {
    SetDevices(0);
    dbus_connection_add_filter(connection, Dispatch, this, nullptr);
  }

  void Run() {
    while (dbus_connection_read_write_dispatch(connection_, -1)) {
    }
  }

 private:
  static DBusHandlerResult Dispatch(DBusConnection*, DBusMessage* message,
                                    void* user_data) {
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
      return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    static_cast<Daemon*>(user_data)->Handle(message);
    return DBUS_HANDLER_RESULT_HANDLED;
  }

  void Handle(DBusMessage* call) {
    const char* member = dbus_message_get_member(call);
    const char* named = dbus_message_get_interface(call);
    const std::string interface = named == nullptr ? "" : named;
    if (interface == kControlInterface) {
      Control(call, member);
    } else if (std::strcmp(member, "GetManagedObjects") == 0) {
      SendCopy(call, tree_.get());
    } else if (std::strcmp(member, "GetAll") == 0) {
      GetAll(call);
    } else if (std::strcmp(member, "Get") == 0) {
      Get(call);
    } else if (interface == kAdapterInterface ||
               interface == kAgentManagerInterface) {
      Send(MessagePtr(dbus_message_new_method_return(call)));
    } else {
      Refuse(call, DBUS_ERROR_UNKNOWN_METHOD);
    }
  }

  void Control(DBusMessage* call, const char* member) {
    dbus_uint32_t count = 0;
    dbus_message_get_args(call, nullptr, DBUS_TYPE_UINT32, &count,
                          DBUS_TYPE_INVALID);
    if (std::strcmp(member, "Burst") == 0) {
      Burst(count);
      return;
    }
    SetDevices(count);
    MessagePtr answer(dbus_message_new_method_return(call));
    char* bytes = nullptr;
    int size = 0;
    dbus_message_marshal(tree_.get(), &bytes, &size);
    std::free(bytes);
    const dbus_uint32_t tree_size = static_cast<dbus_uint32_t>(size);
    dbus_message_append_args(answer.get(), DBUS_TYPE_UINT32, &tree_size,
                             DBUS_TYPE_INVALID);
    Send(std::move(answer));
  }

  void SetDevices(unsigned count) {
    devices_.clear();
    properties_.clear();
    index_.clear();
    for (unsigned i = 0; i < count; ++i) {
      devices_.push_back(MakeDevice(i));
      index_[devices_.back().path] = i;
      MessagePtr answer = NewAnswer();
      DBusMessageIter body;
      dbus_message_iter_init_append(answer.get(), &body);
      AppendDeviceProperties(&body, devices_.back());
      properties_.push_back(std::move(answer));
    }
    BuildTree();
  }

  // Parents before children, siblings newest first.
  void BuildTree() {
    tree_ = NewAnswer();
    DBusMessageIter body;
    DBusMessageIter objects;
    dbus_message_iter_init_append(tree_.get(), &body);
    dbus_message_iter_open_container(&body, DBUS_TYPE_ARRAY, "{oa{sa{sv}}}",
                                     &objects);
    AppendObject(&objects, "/org/bluez", kAgentManagerInterface, AppendNothing);
    AppendObject(&objects, kAdapterPath, kAdapterInterface,
                 AppendAdapterProperties);
    for (auto device = devices_.rbegin(); device != devices_.rend(); ++device) {
      AppendObject(&objects, device->path.c_str(), kDeviceInterface,
                   [device](DBusMessageIter* iter) {
                     AppendDeviceProperties(iter, *device);
                   });
    }
    dbus_message_iter_close_container(&body, &objects);
    dbus_message_set_reply_serial(tree_.get(), 1);
    dbus_message_set_destination(tree_.get(), ":1.0");
    dbus_message_set_sender(tree_.get(), ":1.0");
  }

  void GetAll(DBusMessage* call) {
    const char* path = dbus_message_get_path(call);
    const auto found = index_.find(path);
    if (found != index_.end()) {
      SendCopy(call, properties_[found->second].get());
    } else if (std::strcmp(path, kAdapterPath) == 0) {
      MessagePtr answer(dbus_message_new_method_return(call));
      DBusMessageIter body;
      dbus_message_iter_init_append(answer.get(), &body);
      AppendAdapterProperties(&body);
      Send(std::move(answer));
    } else {
      Refuse(call, DBUS_ERROR_UNKNOWN_OBJECT);
    }
  }

  // Copies the value out of the dictionary that GetAll would answer.
  void Get(DBusMessage* call) {
    const char* interface = nullptr;
    const char* name = nullptr;
    dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &interface,
                          DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
    const char* path = dbus_message_get_path(call);
    const auto found = index_.find(path);
    MessagePtr adapter;
    DBusMessage* all = nullptr;
    if (found != index_.end()) {
      all = properties_[found->second].get();
    } else if (std::strcmp(path, kAdapterPath) == 0) {
      adapter = NewAnswer();
      DBusMessageIter body;
      dbus_message_iter_init_append(adapter.get(), &body);
      AppendAdapterProperties(&body);
      all = adapter.get();
    }
    MessagePtr answer(dbus_message_new_method_return(call));
    if (all != nullptr && name != nullptr &&
        CopyProperty(all, name, answer.get())) {
      Send(std::move(answer));
    } else {
      Refuse(call, DBUS_ERROR_UNKNOWN_OBJECT);
    }
  }

  // Basic values only.
  static bool CopyProperty(DBusMessage* all, const char* name,
                           DBusMessage* answer) {
    DBusMessageIter body;
    DBusMessageIter entries;
    dbus_message_iter_init(all, &body);
    dbus_message_iter_recurse(&body, &entries);
    for (; dbus_message_iter_get_arg_type(&entries) != DBUS_TYPE_INVALID;
         dbus_message_iter_next(&entries)) {
      DBusMessageIter entry;
      DBusMessageIter value;
      const char* key = nullptr;
      dbus_message_iter_recurse(&entries, &entry);
      dbus_message_iter_get_basic(&entry, &key);
      if (std::strcmp(key, name) != 0) continue;
      dbus_message_iter_next(&entry);
      dbus_message_iter_recurse(&entry, &value);
      const int type = dbus_message_iter_get_arg_type(&value);
      if (!dbus_type_is_basic(type)) return false;
      DBusBasicValue basic;
      dbus_message_iter_get_basic(&value, &basic);
      const char signature[] = {static_cast<char>(type), 0};
      DBusMessageIter to;
      DBusMessageIter variant;
      dbus_message_iter_init_append(answer, &to);
      dbus_message_iter_open_container(&to, DBUS_TYPE_VARIANT, signature,
                                       &variant);
      dbus_message_iter_append_basic(&variant, type, &basic);
      dbus_message_iter_close_container(&to, &variant);
      return true;
    }
    return false;
  }

  // A new signal strength for one device after the other.
  void Burst(unsigned count) {
    const char* interface = kDeviceInterface;
    for (unsigned i = 0; i < count && !devices_.empty(); ++i) {
      const Device& device = devices_[i % devices_.size()];
      const MessagePtr signal(dbus_message_new_signal(
          device.path.c_str(), kPropertiesInterface, "PropertiesChanged"));
      DBusMessageIter body;
      DBusMessageIter invalidated;
      dbus_message_iter_init_append(signal.get(), &body);
      dbus_message_iter_append_basic(&body, DBUS_TYPE_STRING, &interface);
      {
        Dictionary changed(&body, "{sv}");
        changed.Add("RSSI", DBUS_TYPE_INT16, &device.rssi);
      }
      dbus_message_iter_open_container(&body, DBUS_TYPE_ARRAY, "s",
                                       &invalidated);
      dbus_message_iter_close_container(&body, &invalidated);
      dbus_connection_send(connection_, signal.get(), nullptr);
    }
  }

  void SendCopy(DBusMessage* call, const DBusMessage* finished) {
    MessagePtr answer(dbus_message_copy(finished));
    dbus_message_set_reply_serial(answer.get(), dbus_message_get_serial(call));
    dbus_message_set_destination(answer.get(), dbus_message_get_sender(call));
    dbus_message_set_sender(answer.get(), nullptr);
    Send(std::move(answer));
  }

  void Refuse(DBusMessage* call, const char* error) {
    Send(MessagePtr(dbus_message_new_error(call, error, "no such thing here")));
  }

  void Send(MessagePtr message) {
    dbus_connection_send(connection_, message.get(), nullptr);
  }

  DBusConnection* connection_;
  std::vector<Device> devices_;
  std::unordered_map<std::string, unsigned> index_;  // by path
  std::vector<MessagePtr> properties_;               // answers of GetAll
  MessagePtr tree_;  // the answer of GetManagedObjects
};

}  // namespace

int main() {
  DBusError error;
  dbus_error_init(&error);
  DBusConnection* connection = dbus_bus_get(DBUS_BUS_SYSTEM, &error);
  if (connection == nullptr) {
    std::fprintf(stderr, "bench_daemon: %s\n", error.message);
    return 1;
  }
  Daemon daemon(connection);
  if (dbus_bus_request_name(connection, kBusName, DBUS_NAME_FLAG_DO_NOT_QUEUE,
                            &error) != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
    std::fprintf(stderr, "bench_daemon: the name is taken\n");
    return 1;
  }
  std::puts("ready");
  std::fflush(stdout);
  daemon.Run();
  return 0;
}
