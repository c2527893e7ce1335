#include "../include/lumso_bluetooth/lumso_bluetooth_plugin.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bluez_client.h"
#include "rfcomm_connection.h"

#define LUMSO_BLUETOOTH_PLUGIN(object)                                     \
  (G_TYPE_CHECK_INSTANCE_CAST((object), lumso_bluetooth_plugin_get_type(), \
                              LumsoBluetoothPlugin))

namespace lumso_bluetooth {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// -- Constants ---------------------------------------------------------------

constexpr char kMethodChannel[] = "lumso_bluetooth/methods";
constexpr char kDiscoveryChannel[] = "lumso_bluetooth/discovery";
constexpr char kStateChannel[] = "lumso_bluetooth/state";
constexpr char kDebugChannel[] = "lumso_bluetooth/debug";
constexpr char kReadChannelFormat[] = "lumso_bluetooth/read/%d";

constexpr char kInvalidArgument[] = "EINVAL";
constexpr char kConnectionFailed[] = "ECONN";

constexpr char kRssiUpdate[] = "rssiUpdate";
constexpr char kDeviceLost[] = "deviceLost";

// Names of the devices that the prober asks for a reading begin with these.
constexpr std::string_view kProbedNamePrefixes[] = {
    "VELKAN-", "VELK2N-", "DRU-Palent", "DRU-KX", "DRU-Ostavel",
};
constexpr int kFailuresUntilLost = 2;
constexpr seconds kEmptySecretWait{2};
constexpr int kPauseSteps = 30;
constexpr seconds kPauseStep{1};

constexpr milliseconds kConnectTimeout{5000};
constexpr milliseconds kGreetingTimeout{2500};
constexpr milliseconds kReadyTimeout{2500};
constexpr milliseconds kReplyTimeout{5000};
constexpr milliseconds kDrainTimeout{200};
constexpr int kDrainPolls = 10;
constexpr size_t kDrainReadSize = 64;
constexpr size_t kProbeReadSize = 256;

// -- State -------------------------------------------------------------------

// All state of one plug-in instance. Records queued to the main loop hold it
// weakly, so that they do nothing once it is gone.
struct PluginState : std::enable_shared_from_this<PluginState> {
  // One open connection. Whoever removes an entry releases its reference to
  // the channel first.
  struct ConnectionEntry {
    std::unique_ptr<RfcommConnection> connection;
    FlEventChannel* read_channel = nullptr;  // owned reference
    std::string address;                     // as given to "connect"
  };

  // Null when there is no bus, daemon or adapter.
  std::unique_ptr<BluezClient> client;
  FlMethodChannel* method_channel = nullptr;  // owned reference
  FlBinaryMessenger* messenger = nullptr;     // borrowed; the channels keep it
  FlEventChannel* discovery_channel = nullptr;  // owned reference
  FlEventChannel* state_channel = nullptr;      // owned reference
  FlEventChannel* debug_channel = nullptr;      // owned reference
  // Never reused. Guarded by connections_mutex.
  int32_t next_connection_id = 1;
  std::mutex connections_mutex;
  // By id. Changed by the main thread alone, read by the prober. Guarded by
  // connections_mutex.
  std::map<int32_t, ConnectionEntry> connections;
  std::mutex secret_mutex;
  std::string auth_secret;             // guarded by secret_mutex
  std::thread rssi_thread;             // not joinable before the first secret
  std::atomic<bool> rssi_stop{false};  // set by dispose, polled by the prober
  std::atomic<bool> rssi_running{false};  // the prober was started: once
  // Counted failures in a row by device address. Guarded by
  // rssi_failures_mutex.
  std::unordered_map<std::string, int32_t> rssi_failures;
  std::mutex rssi_failures_mutex;
};

// User data of a read channel's handlers: whose channel it is. They treat all
// alike and use none of it. One that did must not follow `state`: the messenger
// keeps the channel, and with it this record, past "disconnect" and perhaps
// past the state.
struct ReadChannelContext {
  PluginState* state;
  int32_t id;
};

// One callback of a reader thread on its way to the main loop.
struct ReadChunk {
  std::weak_ptr<PluginState> state;
  int32_t id;
  std::vector<uint8_t> bytes;
  bool end;
};

// One result of the prober on its way to the main loop.
struct SideBandEvent {
  std::weak_ptr<PluginState> state;
  std::string type;  // kRssiUpdate or kDeviceLost
  std::string address;
  int32_t value;  // 0 for kDeviceLost
};

}  // namespace
}  // namespace lumso_bluetooth

struct _LumsoBluetoothPlugin {
  GObject parent_instance;
  // Made by instance init, empty from dispose on.
  std::shared_ptr<lumso_bluetooth::PluginState> state;
};

G_DEFINE_TYPE(LumsoBluetoothPlugin, lumso_bluetooth_plugin, G_TYPE_OBJECT)

namespace lumso_bluetooth {
namespace {

// Borrowed; null from dispose on.
PluginState* StateOf(gpointer plugin) {
  return LUMSO_BLUETOOTH_PLUGIN(plugin)->state.get();
}

// -- Method calls ------------------------------------------------------------

// What a method handler works on; borrowed for the duration of the call.
struct Call {
  PluginState* state;
  FlValue* args;
  bool ready;  // there is a client with an adapter
};

FlMethodResponse* SuccessResponse(FlValue* result) {
  return FL_METHOD_RESPONSE(fl_method_success_response_new(result));
}

FlMethodResponse* BoolResponse(bool result) {
  g_autoptr(FlValue) value = fl_value_new_bool(result);
  return SuccessResponse(value);
}

FlMethodResponse* IntResponse(int64_t result) {
  g_autoptr(FlValue) value = fl_value_new_int(result);
  return SuccessResponse(value);
}

FlMethodResponse* StringResponse(const gchar* result) {
  g_autoptr(FlValue) value = fl_value_new_string(result);
  return SuccessResponse(value);
}

FlMethodResponse* ErrorResponse(const char* code, const char* message) {
  return FL_METHOD_RESPONSE(
      fl_method_error_response_new(code, message, nullptr));
}

// Returns the argument `key`, borrowed, or null when the arguments are not a
// map or have no such key.
FlValue* Argument(const Call& call, const char* key) {
  if (call.args == nullptr ||
      fl_value_get_type(call.args) != FL_VALUE_TYPE_MAP) {
    return nullptr;
  }
  return fl_value_lookup_string(call.args, key);
}

// Returns a string argument, borrowed, or null when it is missing.
const gchar* StringArgument(const Call& call, const char* key) {
  FlValue* value = Argument(call, key);
  if (value == nullptr || fl_value_get_type(value) != FL_VALUE_TYPE_STRING) {
    return nullptr;
  }
  return fl_value_get_string(value);
}

// Returns the argument "id", narrowed to the 32 bits that ids have, or -1 when
// there is no such integer.
int32_t IdArgument(const Call& call) {
  FlValue* value = Argument(call, "id");
  if (value == nullptr || fl_value_get_type(value) != FL_VALUE_TYPE_INT) {
    return -1;
  }
  return static_cast<int32_t>(fl_value_get_int(value));
}

// -- Event streams -----------------------------------------------------------

// Returns the application's map of a device. Transfer full.
FlValue* DeviceToFlValue(const DiscoveredDevice& device) {
  FlValue* map = fl_value_new_map();
  fl_value_set_string_take(map, "address",
                           fl_value_new_string(device.address.c_str()));
  fl_value_set_string_take(map, "name",
                           fl_value_new_string(device.name.c_str()));
  fl_value_set_string_take(map, "type", fl_value_new_int(0));
  fl_value_set_string_take(map, "isConnected",
                           fl_value_new_int(device.connected ? 1 : 0));
  fl_value_set_string_take(map, "bondState",
                           fl_value_new_int(StateCode(device.paired)));
  fl_value_set_string_take(map, "rssi", fl_value_new_int(device.rssi));
  return map;
}

// The application may handle an event inside the send and make any call from
// there, or end the plug-in. So no caller holds a lock or touches the state
// afterwards, and the channel is kept until the send is done.
void SendEvent(FlEventChannel* channel, FlValue* event) {
  g_autoptr(FlEventChannel) kept = FL_EVENT_CHANNEL(g_object_ref(channel));
  fl_event_channel_send(kept, event, nullptr, nullptr);
}

void SendEndOfStream(FlEventChannel* channel) {
  g_autoptr(FlEventChannel) kept = FL_EVENT_CHANNEL(g_object_ref(channel));
  fl_event_channel_send_end_of_stream(kept, nullptr, nullptr);
}

void SendDeviceEvent(PluginState* state, const DiscoveredDevice& device) {
  if (state->discovery_channel == nullptr) return;
  g_autoptr(FlValue) event = fl_value_new_map();
  fl_value_set_string_take(event, "device", DeviceToFlValue(device));
  SendEvent(state->discovery_channel, event);
}

void SendStateEvent(PluginState* state) {
  if (state->state_channel == nullptr) return;
  g_autoptr(FlValue) event =
      fl_value_new_int(StateCode(state->client->powered()));
  SendEvent(state->state_channel, event);
}

// Returns the state that a stream handler works on, or null when there is no
// client. The callables that the handler installs in the client borrow the
// state: the client, and the callables with it, goes before the state. But the
// client calls a copy of its callable, and while the copy is inside its send,
// the application may end client and state. So a callable does nothing after
// its send.
PluginState* StateWithClient(gpointer plugin) {
  if (plugin == nullptr) return nullptr;
  PluginState* state = StateOf(plugin);
  return state != nullptr && state->client != nullptr ? state : nullptr;
}

FlMethodErrorResponse* OnDiscoveryListen(FlEventChannel*, FlValue*,
                                         gpointer user_data) {
  if (PluginState* state = StateWithClient(user_data)) {
    state->client->on_device = [state](const DiscoveredDevice& device) {
      SendDeviceEvent(state, device);
    };
  }
  return nullptr;
}

FlMethodErrorResponse* OnDiscoveryCancel(FlEventChannel*, FlValue*,
                                         gpointer user_data) {
  if (PluginState* state = StateWithClient(user_data)) {
    state->client->on_device = nullptr;
  }
  return nullptr;
}

FlMethodErrorResponse* OnStateListen(FlEventChannel*, FlValue*,
                                     gpointer user_data) {
  if (PluginState* state = StateWithClient(user_data)) {
    state->client->on_state_changed = [state] { SendStateEvent(state); };
    SendStateEvent(state);
  }
  return nullptr;
}

FlMethodErrorResponse* OnStateCancel(FlEventChannel*, FlValue*,
                                     gpointer user_data) {
  if (PluginState* state = StateWithClient(user_data)) {
    state->client->on_state_changed = nullptr;
  }
  return nullptr;
}

FlMethodErrorResponse* OnDebugListen(FlEventChannel*, FlValue*, gpointer) {
  return nullptr;
}

FlMethodErrorResponse* OnDebugCancel(FlEventChannel*, FlValue*, gpointer) {
  return nullptr;
}

// Makes one event channel, whose handlers keep the plug-in. Transfer full.
FlEventChannel* NewEventChannel(LumsoBluetoothPlugin* self, const char* name,
                                FlMethodCodec* codec,
                                FlEventChannelHandler listen,
                                FlEventChannelHandler cancel) {
  FlEventChannel* channel =
      fl_event_channel_new(self->state->messenger, name, codec);
  fl_event_channel_set_stream_handlers(channel, listen, cancel,
                                       g_object_ref(self), g_object_unref);
  return channel;
}

// -- Adapter, devices and bonds ----------------------------------------------

FlMethodResponse* DevicesResponse(
    const std::vector<DiscoveredDevice>& devices) {
  g_autoptr(FlValue) list = fl_value_new_list();
  for (const DiscoveredDevice& device : devices) {
    fl_value_append_take(list, DeviceToFlValue(device));
  }
  return SuccessResponse(list);
}

FlMethodResponse* HandleIsAvailable(const Call& call) {
  return BoolResponse(call.ready);
}

FlMethodResponse* HandleIsEnabled(const Call& call) {
  return BoolResponse(call.ready && call.state->client->powered());
}

FlMethodResponse* HandleGetState(const Call& call) {
  return IntResponse(StateCode(call.ready && call.state->client->powered()));
}

FlMethodResponse* HandleGetAddress(const Call& call) {
  return StringResponse(
      call.ready ? call.state->client->adapter_address().c_str() : "");
}

FlMethodResponse* HandleGetName(const Call& call) {
  return StringResponse(call.ready ? call.state->client->adapter_name().c_str()
                                   : "");
}

FlMethodResponse* HandleIsDiscovering(const Call& call) {
  return BoolResponse(call.ready && call.state->client->discovering());
}

FlMethodResponse* HandleStartDiscovery(const Call& call) {
  return BoolResponse(call.ready && call.state->client->StartDiscovery());
}

FlMethodResponse* HandleCancelDiscovery(const Call& call) {
  return BoolResponse(call.ready && call.state->client->StopDiscovery());
}

FlMethodResponse* HandleGetDiscoveredDevices(const Call& call) {
  return DevicesResponse(call.ready ? call.state->client->GetKnownDevices()
                                    : std::vector<DiscoveredDevice>());
}

FlMethodResponse* HandleGetBondedDevices(const Call& call) {
  return DevicesResponse(call.ready ? call.state->client->GetBondedDevices()
                                    : std::vector<DiscoveredDevice>());
}

FlMethodResponse* HandleGetBondState(const Call& call) {
  const gchar* address = StringArgument(call, "address");
  return IntResponse(call.ready && address != nullptr
                         ? call.state->client->GetBondState(address)
                         : StateCode(false));
}

FlMethodResponse* HandleBondDevice(const Call& call) {
  const gchar* address = StringArgument(call, "address");
  return BoolResponse(call.ready && address != nullptr &&
                      call.state->client->PairDevice(address));
}

FlMethodResponse* HandleRemoveDeviceBond(const Call& call) {
  const gchar* address = StringArgument(call, "address");
  return BoolResponse(call.ready && address != nullptr &&
                      call.state->client->RemoveDevice(address));
}

FlMethodResponse* HandleGetPlatformVersion(const Call&) {
  utsname system = {};
  uname(&system);
  g_autofree gchar* version = g_strdup_printf("Linux %s", system.version);
  return StringResponse(version);
}

// The answer of every method that is false whatever the state is.
FlMethodResponse* HandleAlwaysFalse(const Call&) { return BoolResponse(false); }

// -- Connections -------------------------------------------------------------

// Returns the read channel of connection `id`, borrowed from the table, which
// only this thread changes, or null. Main thread.
FlEventChannel* ReadChannelOf(PluginState* state, int32_t id) {
  const std::lock_guard<std::mutex> lock(state->connections_mutex);
  const auto found = state->connections.find(id);
  return found == state->connections.end() ? nullptr
                                           : found->second.read_channel;
}

// Main thread. Consumes the record.
gboolean DispatchReadBytes(gpointer user_data) {
  const std::unique_ptr<ReadChunk> chunk(static_cast<ReadChunk*>(user_data));
  const std::shared_ptr<PluginState> state = chunk->state.lock();
  if (state == nullptr) return G_SOURCE_REMOVE;
  FlEventChannel* channel = ReadChannelOf(state.get(), chunk->id);
  if (channel == nullptr) return G_SOURCE_REMOVE;
  if (chunk->end) {
    SendEndOfStream(channel);
  } else {
    g_autoptr(FlValue) event =
        fl_value_new_uint8_list(chunk->bytes.data(), chunk->bytes.size());
    SendEvent(channel, event);
  }
  return G_SOURCE_REMOVE;
}

// Runs on the reader thread. Takes no lock: Close() joins this thread while the
// main thread holds connections_mutex.
void QueueReadChunk(const std::weak_ptr<PluginState>& state, int32_t id,
                    const uint8_t* data, size_t count, bool end) {
  auto chunk = std::make_unique<ReadChunk>(
      ReadChunk{state, id, std::vector<uint8_t>(data, data + count), end});
  g_idle_add(DispatchReadBytes, chunk.release());
}

// What a device sends is passed on whether or not anybody listens.
FlMethodErrorResponse* OnReadListen(FlEventChannel*, FlValue*, gpointer) {
  return nullptr;
}

FlMethodErrorResponse* OnReadCancel(FlEventChannel*, FlValue*, gpointer) {
  return nullptr;
}

void FreeReadChannelContext(gpointer user_data) {
  delete static_cast<ReadChannelContext*>(user_data);
}

// Makes the read channel of connection `id`. Transfer full.
FlEventChannel* NewReadChannel(PluginState* state, int32_t id) {
  g_autofree gchar* name = g_strdup_printf(kReadChannelFormat, id);
  g_autoptr(FlStandardMethodCodec) codec = fl_standard_method_codec_new();
  FlEventChannel* channel =
      fl_event_channel_new(state->messenger, name, FL_METHOD_CODEC(codec));
  auto context =
      std::make_unique<ReadChannelContext>(ReadChannelContext{state, id});
  fl_event_channel_set_stream_handlers(channel, OnReadListen, OnReadCancel,
                                       context.release(),
                                       FreeReadChannelContext);
  return channel;
}

FlMethodResponse* HandleConnect(const Call& call) {
  const gchar* address = StringArgument(call, "address");
  if (address == nullptr || !call.ready) {
    return ErrorResponse(kInvalidArgument,
                         "BT not initialized or address missing");
  }
  auto connection = std::make_unique<RfcommConnection>();
  if (!connection->Connect(address)) {
    return ErrorResponse(kConnectionFailed, "RFCOMM connect failed");
  }

  PluginState* state = call.state;
  const std::lock_guard<std::mutex> lock(state->connections_mutex);
  const int32_t id = state->next_connection_id++;
  FlEventChannel* read_channel = NewReadChannel(state, id);
  // No chunk leaves before the entry exists and the answer has left: chunks go
  // through the main loop, and this handler holds the main thread. Where Dart
  // runs on that thread, they can still arrive there before the answer does.
  connection->Start([weak_state = state->weak_from_this(), id](
                        const uint8_t* data, size_t count, bool end) {
    QueueReadChunk(weak_state, id, data, count, end);
  });
  state->connections.emplace(
      id, PluginState::ConnectionEntry{std::move(connection), read_channel,
                                       address});
  return IntResponse(id);
}

FlMethodResponse* HandleWrite(const Call& call) {
  const int32_t id = IdArgument(call);
  FlValue* bytes = Argument(call, "bytes");
  if (id < 0 || bytes == nullptr ||
      fl_value_get_type(bytes) != FL_VALUE_TYPE_UINT8_LIST ||
      fl_value_get_length(bytes) == 0) {
    return BoolResponse(false);
  }
  const std::lock_guard<std::mutex> lock(call.state->connections_mutex);
  const auto found = call.state->connections.find(id);
  return BoolResponse(
      found != call.state->connections.end() &&
      found->second.connection->Write(fl_value_get_uint8_list(bytes),
                                      fl_value_get_length(bytes)));
}

FlMethodResponse* HandleDisconnect(const Call& call) {
  const int32_t id = IdArgument(call);
  if (id < 0) return BoolResponse(false);
  PluginState* state = call.state;
  const std::lock_guard<std::mutex> lock(state->connections_mutex);
  const auto found = state->connections.find(id);
  if (found == state->connections.end()) return BoolResponse(false);
  found->second.connection->Close();
  g_clear_object(&found->second.read_channel);
  state->connections.erase(found);
  return BoolResponse(true);
}

// -- Side-band session -------------------------------------------------------

// What a probe of a device, or a step of one, came to.
struct ProbeOutcome {
  bool ok;
  int32_t value;      // the reading in dBm; 0 unless ok, and where none is read
  bool transient;     // a failure that is not counted
  std::string error;  // empty when ok
};

ProbeOutcome Succeeded(int32_t value = 0) { return {true, value, false, ""}; }

ProbeOutcome Failed(std::string error, bool transient = false) {
  return {false, 0, transient, std::move(error)};
}

ProbeOutcome FailedToConnect(int error) {
  const bool transient =
      error == ENETUNREACH || error == ECONNREFUSED || error == EHOSTUNREACH;
  return Failed(std::string("connect: ") + std::strerror(error), transient);
}

// Reads from `fd` until `buffer` holds `terminator`. Returns false on timeout,
// end of stream or a read error. Removes nothing from the buffer.
bool RecvUntil(int fd, std::string* buffer, const char* terminator,
               milliseconds timeout) {
  const auto deadline = steady_clock::now() + timeout;
  if (buffer->find(terminator) != std::string::npos) return true;
  for (;;) {
    const auto remaining = deadline - steady_clock::now();
    if (remaining <= remaining.zero()) return false;
    pollfd wait = {fd, POLLIN, 0};
    const auto remaining_ms =
        std::chrono::duration_cast<milliseconds>(remaining);
    if (poll(&wait, 1, static_cast<int>(remaining_ms.count())) <= 0) {
      return false;
    }
    char chunk[kProbeReadSize];
    const ssize_t count = ReadReady(fd, wait.revents, chunk, sizeof(chunk));
    if (count > 0) {
      // The terminator may straddle two reads.
      const size_t overlap = std::strlen(terminator) - 1;
      const size_t from = buffer->size() - std::min(buffer->size(), overlap);
      buffer->append(chunk, static_cast<size_t>(count));
      if (buffer->find(terminator, from) != std::string::npos) return true;
    } else if (count == 0 || errno != EINTR) {
      return false;
    }
  }
}

bool SendText(int fd, std::string_view text) {
  return WriteAll(fd, text.data(), text.size());
}

// Connects `fd` within kConnectTimeout and leaves it blocking.
ProbeOutcome ConnectProbe(int fd, const sockaddr_rc& remote) {
  const int flags = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&remote), sizeof(remote)) <
      0) {
    if (errno != EINPROGRESS) return FailedToConnect(errno);
    pollfd wait = {fd, POLLOUT, 0};
    if (poll(&wait, 1, static_cast<int>(kConnectTimeout.count())) <= 0) {
      return Failed("connect timeout");
    }
    const int error = TakeSocketError(fd);
    if (error != 0) return FailedToConnect(error);
  }
  fcntl(fd, F_SETFL, flags);
  return Succeeded();
}

// Ends the stream and drops a little of what has come meanwhile. On a kernel
// RFCOMM socket SHUT_WR ends both directions, so nothing more arrives.
void HalfCloseAndDrain(int fd) {
  shutdown(fd, SHUT_WR);
  for (int i = 0; i < kDrainPolls; ++i) {
    pollfd wait = {fd, POLLIN, 0};
    if (poll(&wait, 1, static_cast<int>(kDrainTimeout.count())) <= 0) return;
    char scratch[kDrainReadSize];
    if (ReadReady(fd, wait.revents, scratch, sizeof(scratch)) <= 0) return;
  }
}

// Runs the exchange on a connected socket. `buffer`, empty before, serves all
// of its waits and holds the reply in the end.
ProbeOutcome RunProbeExchange(int fd, const std::string& secret,
                              std::string* buffer) {
  if (!RecvUntil(fd, buffer, "auth\r\n", kGreetingTimeout)) {
    return Failed("greeting timeout");
  }
  buffer->clear();
  if (!SendText(fd, "auth=" + secret + "\r\n")) return Failed("send auth");
  if (!RecvUntil(fd, buffer, "ready\r\n", kReadyTimeout)) {
    return Failed("ready timeout");
  }
  buffer->clear();
  if (!SendText(fd, "rssi\r\n")) return Failed("send rssi");
  if (!RecvUntil(fd, buffer, "!!END", kReplyTimeout)) {
    return Failed("rssi timeout");
  }
  HalfCloseAndDrain(fd);
  return Succeeded();
}

// Reads the integer that follows the key "rssi" and a colon in a reply.
ProbeOutcome ParseReading(const std::string& reply) {
  const size_t key = reply.find("\"rssi\"");
  if (key == std::string::npos) return Failed("no rssi in response");
  const size_t colon = reply.find(':', key);
  if (colon == std::string::npos) return Failed("no rssi value");
  const size_t start =
      std::min(reply.find_first_not_of(" \t", colon + 1), reply.size());
  const bool has_sign =
      start < reply.size() && (reply[start] == '+' || reply[start] == '-');
  const size_t end = std::min(
      reply.find_first_not_of("0123456789", start + (has_sign ? 1 : 0)),
      reply.size());
  const std::string candidate = reply.substr(start, end - start);
  if (candidate.empty()) return Failed("rssi value not integer");

  char* rest = nullptr;
  errno = 0;
  const long value = std::strtol(candidate.c_str(), &rest, 10);
  if (rest == candidate.c_str() || errno == ERANGE || value < INT32_MIN ||
      value > INT32_MAX) {
    return Failed("rssi parse");
  }
  return Succeeded(static_cast<int32_t>(value));
}

// Asks the device at `address` for its signal strength, on a connection of its
// own. Prober thread.
//
// Connecting, the waits for the device's lines and the drain add up to about
// seventeen seconds at most. A secret larger than the socket's buffer adds what
// WriteAll() waits: a device that takes nothing fails the probe after 30 s, or
// after 60 s where a short count comes first; one that takes a frame now and
// then holds it without a bound.
ProbeOutcome ProbeDeviceRssi(const std::string& address,
                             const std::string& secret) {
  sockaddr_rc remote;
  if (!ParseRfcommAddress(address, &remote)) return Failed("bad address");
  const int fd = OpenRfcommSocket();
  if (fd < 0) return Failed(std::string("socket: ") + std::strerror(errno));
  std::string buffer;
  ProbeOutcome outcome = ConnectProbe(fd, remote);
  if (outcome.ok) outcome = RunProbeExchange(fd, secret, &buffer);
  close(fd);
  return outcome.ok ? ParseReading(buffer) : outcome;
}

// -- Side-band events --------------------------------------------------------

// Main thread. Consumes the record.
gboolean DispatchSideBandEvent(gpointer user_data) {
  const std::unique_ptr<SideBandEvent> record(
      static_cast<SideBandEvent*>(user_data));
  const std::shared_ptr<PluginState> state = record->state.lock();
  if (state == nullptr || state->discovery_channel == nullptr) {
    return G_SOURCE_REMOVE;
  }
  g_autoptr(FlValue) event = fl_value_new_map();
  fl_value_set_string_take(event, "type",
                           fl_value_new_string(record->type.c_str()));
  fl_value_set_string_take(event, "address",
                           fl_value_new_string(record->address.c_str()));
  if (record->type == kRssiUpdate) {
    fl_value_set_string_take(event, "rssi", fl_value_new_int(record->value));
  }
  SendEvent(state->discovery_channel, event);
  return G_SOURCE_REMOVE;
}

// Any thread that the state outlives.
void PostSideBandEvent(PluginState* state, const std::string& type,
                       const std::string& address, int32_t value) {
  auto record = std::make_unique<SideBandEvent>(
      SideBandEvent{state->weak_from_this(), type, address, value});
  g_idle_add(DispatchSideBandEvent, record.release());
}

// -- Prober ------------------------------------------------------------------

bool IsProbedName(std::string_view name) {
  return std::any_of(std::begin(kProbedNamePrefixes),
                     std::end(kProbedNamePrefixes),
                     [name](std::string_view prefix) {
                       return name.substr(0, prefix.size()) == prefix;
                     });
}

// Returns the address and name of each device to probe, in the daemon's order.
std::vector<std::pair<std::string, std::string>> ProbeTargets(
    const PluginState& state) {
  std::vector<std::pair<std::string, std::string>> targets;
  if (state.client == nullptr) return targets;
  for (const DiscoveredDevice& device : state.client->GetKnownDevices()) {
    if (IsProbedName(device.name)) {
      targets.emplace_back(device.address, device.name);
    }
  }
  return targets;
}

std::set<std::string> ConnectedAddresses(PluginState* state) {
  std::set<std::string> addresses;
  const std::lock_guard<std::mutex> lock(state->connections_mutex);
  for (const auto& [id, entry] : state->connections) {
    if (!entry.address.empty()) addresses.insert(entry.address);
  }
  return addresses;
}

void ForgetFailures(PluginState* state, const std::string& address) {
  const std::lock_guard<std::mutex> lock(state->rssi_failures_mutex);
  state->rssi_failures.erase(address);
}

void ReportProbe(PluginState* state, const std::string& address,
                 const ProbeOutcome& outcome) {
  if (outcome.ok) {
    ForgetFailures(state, address);
    PostSideBandEvent(state, kRssiUpdate, address, outcome.value);
    return;
  }
  if (outcome.transient) {
    g_log(nullptr, G_LOG_LEVEL_DEBUG,
          "lumso_bluetooth: RSSI probe %s transient: %s", address.c_str(),
          outcome.error.c_str());
    return;
  }
  int32_t failures = 0;
  {
    const std::lock_guard<std::mutex> lock(state->rssi_failures_mutex);
    failures = ++state->rssi_failures[address];
  }
  g_log(nullptr, G_LOG_LEVEL_WARNING,
        "lumso_bluetooth: RSSI probe %s fail %d/%d: %s", address.c_str(),
        failures, kFailuresUntilLost, outcome.error.c_str());
  if (failures >= kFailuresUntilLost) {
    ForgetFailures(state, address);
    PostSideBandEvent(state, kDeviceLost, address, 0);
  }
}

// One pass over the devices. Holds no lock while it asks the daemon, probes,
// logs or posts.
void ProbeDevices(PluginState* state, const std::string& secret) {
  const auto targets = ProbeTargets(*state);
  const std::set<std::string> connected = ConnectedAddresses(state);
  for (const auto& [address, name] : targets) {
    if (state->rssi_stop.load()) return;
    if (connected.count(address) != 0) continue;
    ReportProbe(state, address, ProbeDeviceRssi(address, secret));
  }
}

// Body of the prober thread; ends at the first stop check after rssi_stop.
void RssiProbeLoop(PluginState* state) {
  while (!state->rssi_stop.load()) {
    std::string secret;
    {
      const std::lock_guard<std::mutex> lock(state->secret_mutex);
      secret = state->auth_secret;
    }
    if (secret.empty()) {
      std::this_thread::sleep_for(kEmptySecretWait);
      continue;
    }
    ProbeDevices(state, secret);
    for (int i = 0; i < kPauseSteps && !state->rssi_stop.load(); ++i) {
      std::this_thread::sleep_for(kPauseStep);
    }
  }
}

// Starts the prober on the first call; the thread borrows the state, and
// dispose joins it before the state goes.
void EnsureRssiProberStarted(PluginState* state) {
  bool expected = false;
  if (!state->rssi_running.compare_exchange_strong(expected, true)) return;
  state->rssi_stop.store(false);
  state->rssi_thread =
      StartThread("lumso-prober", [state] { RssiProbeLoop(state); });
}

FlMethodResponse* HandleSetAuthSecret(const Call& call) {
  const gchar* secret = StringArgument(call, "secret");
  if (secret == nullptr) {
    return ErrorResponse(kInvalidArgument, "secret missing");
  }
  {
    const std::lock_guard<std::mutex> lock(call.state->secret_mutex);
    call.state->auth_secret = secret;
  }
  EnsureRssiProberStarted(call.state);
  return SuccessResponse(nullptr);
}

// -- Dispatch ----------------------------------------------------------------

struct Method {
  const char* name;
  FlMethodResponse* (*handle)(const Call& call);  // transfer full
};

// In order of comparison.
constexpr Method kMethods[] = {
    {"isAvailable", HandleIsAvailable},
    {"isEnabled", HandleIsEnabled},
    {"isOn", HandleIsEnabled},
    {"getState", HandleGetState},
    {"getAddress", HandleGetAddress},
    {"getName", HandleGetName},
    {"isDiscovering", HandleIsDiscovering},
    {"startDiscovery", HandleStartDiscovery},
    {"cancelDiscovery", HandleCancelDiscovery},
    {"getDiscoveredDevices", HandleGetDiscoveredDevices},
    {"getBondedDevices", HandleGetBondedDevices},
    {"getDeviceBondState", HandleGetBondState},
    {"getBondState", HandleGetBondState},
    {"bondDevice", HandleBondDevice},
    {"removeDeviceBond", HandleRemoveDeviceBond},
    {"connect", HandleConnect},
    {"setAuthSecret", HandleSetAuthSecret},
    {"disconnect", HandleDisconnect},
    {"write", HandleWrite},
    {"requestEnable", HandleAlwaysFalse},
    {"requestDisable", HandleAlwaysFalse},
    {"openSettings", HandleAlwaysFalse},
    {"isDiscoverable", HandleAlwaysFalse},
    {"requestDiscoverable", HandleAlwaysFalse},
    {"setName", HandleAlwaysFalse},
    {"pairingRequestHandlingEnable", HandleAlwaysFalse},
    {"pairingRequestHandlingDisable", HandleAlwaysFalse},
    {"getPlatformVersion", HandleGetPlatformVersion},
};

const Method* FindMethod(const gchar* name) {
  for (const Method& method : kMethods) {
    if (g_strcmp0(name, method.name) == 0) return &method;
  }
  return nullptr;
}

// Handles every call on the method channel and answers it before it returns. A
// plug-in that was disposed implements nothing.
void LumsoHandleMethod(FlMethodChannel*, FlMethodCall* method_call,
                       gpointer user_data) {
  PluginState* state = StateOf(user_data);
  const Method* method = state == nullptr
                             ? nullptr
                             : FindMethod(fl_method_call_get_name(method_call));
  g_autoptr(FlMethodResponse) response = nullptr;
  if (method != nullptr) {
    const bool ready =
        state->client != nullptr && state->client->adapter_path() != nullptr;
    response =
        method->handle({state, fl_method_call_get_args(method_call), ready});
  } else {
    response = FL_METHOD_RESPONSE(fl_method_not_implemented_response_new());
  }
  fl_method_call_respond(method_call, response, nullptr);
}

// -- Lifecycle ---------------------------------------------------------------

// Ends the threads, then the client, then the channels. Waits for what the
// prober is at: a probe, a listing (25 s at most) or a sleep (2 s); then for
// the daemon to forget the agent (25 s at most).
void TearDown(PluginState* state) {
  state->rssi_stop.exchange(true);
  if (state->rssi_thread.joinable()) state->rssi_thread.join();
  state->rssi_running.exchange(false);
  {
    const std::lock_guard<std::mutex> lock(state->connections_mutex);
    for (auto& [id, entry] : state->connections) {
      entry.connection->Close();
      g_clear_object(&entry.read_channel);
    }
    state->connections.clear();
  }
  state->client.reset();
  g_clear_object(&state->method_channel);
  g_clear_object(&state->discovery_channel);
  g_clear_object(&state->state_channel);
  g_clear_object(&state->debug_channel);
}

}  // namespace
}  // namespace lumso_bluetooth

static void lumso_bluetooth_plugin_dispose(GObject* object) {
  LumsoBluetoothPlugin* self = LUMSO_BLUETOOTH_PLUGIN(object);
  if (self->state != nullptr) {
    lumso_bluetooth::TearDown(self->state.get());
    self->state.reset();
  }
  G_OBJECT_CLASS(lumso_bluetooth_plugin_parent_class)->dispose(object);
}

static void lumso_bluetooth_plugin_class_init(
    LumsoBluetoothPluginClass* klass) {
  G_OBJECT_CLASS(klass)->dispose = lumso_bluetooth_plugin_dispose;
}

// The instance's memory is zeroed and freed by GObject. Dispose leaves the
// pointer empty, so that no finalize is needed.
static void lumso_bluetooth_plugin_init(LumsoBluetoothPlugin* self) {
  new (&self->state) std::shared_ptr<lumso_bluetooth::PluginState>(
      std::make_shared<lumso_bluetooth::PluginState>());
}

void lumso_bluetooth_plugin_register_with_registrar(
    FlPluginRegistrar* registrar) {
  namespace lb = lumso_bluetooth;
  LumsoBluetoothPlugin* self = LUMSO_BLUETOOTH_PLUGIN(
      g_object_new(lumso_bluetooth_plugin_get_type(), nullptr));
  lb::PluginState* state = self->state.get();
  state->messenger = fl_plugin_registrar_get_messenger(registrar);
  state->client = std::make_unique<lb::BluezClient>();
  if (!state->client->Initialize()) state->client.reset();

  g_autoptr(FlStandardMethodCodec) standard_codec =
      fl_standard_method_codec_new();
  FlMethodCodec* codec = FL_METHOD_CODEC(standard_codec);
  state->method_channel =
      fl_method_channel_new(state->messenger, lb::kMethodChannel, codec);
  fl_method_channel_set_method_call_handler(state->method_channel,
                                            lb::LumsoHandleMethod,
                                            g_object_ref(self), g_object_unref);
  state->discovery_channel =
      lb::NewEventChannel(self, lb::kDiscoveryChannel, codec,
                          lb::OnDiscoveryListen, lb::OnDiscoveryCancel);
  state->state_channel = lb::NewEventChannel(
      self, lb::kStateChannel, codec, lb::OnStateListen, lb::OnStateCancel);
  state->debug_channel = lb::NewEventChannel(
      self, lb::kDebugChannel, codec, lb::OnDebugListen, lb::OnDebugCancel);
  g_object_unref(self);
}
