// Any bytes as a message from the application to a registered plug-in, one
// plug-in for each. The first byte chooses the channel, and whether there is a
// bus ('0' to '4': none; 'a' to 'e': an adapter, a known device and an open
// connection to it with bytes under way). Every message that is a method call
// is answered, exactly once and before the handler returns, and what it asks of
// the connection happens.

#include <flutter_linux/flutter_linux.h>
#include <lumso_bluetooth/lumso_bluetooth_plugin.h>

#include <csignal>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

#include "host/channel_codec.h"
#include "host/in_process_messenger.h"
#include "tests/fuzz/fake_bus.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/fake_rfcomm.h"

using lumso_fuzz::Check;
using lumso_host::BytesPtr;
using lumso_host::DecodeEnvelope;
using lumso_host::Envelope;
using lumso_host::ValuePtr;

namespace {

constexpr const char* kChannels[] = {
    "lumso_bluetooth/methods", "lumso_bluetooth/discovery",
    "lumso_bluetooth/state",   "lumso_bluetooth/debug",
    "lumso_bluetooth/read/1",
};
constexpr char kGreeting[] = "from the device";

// The messenger criticises an unanswered message, which is right for one that
// is no method call: nobody could know what to answer.
bool may_stay_unanswered = false;

void Log(const gchar* domain, GLogLevelFlags level, const gchar* message,
         gpointer user_data) {
  if (may_stay_unanswered &&
      std::strstr(message, "was not responded to") != nullptr) {
    return;
  }
  lumso_fuzz::EndOnCritical(domain, level, message, user_data);
}

struct MethodCall {
  bool is_one = false;
  std::string name;
  ValuePtr args;
};

MethodCall DecodeCall(GBytes* message) {
  g_autoptr(FlStandardMethodCodec) codec = fl_standard_method_codec_new();
  g_autofree gchar* name = nullptr;
  FlValue* args = nullptr;
  g_autoptr(GError) error = nullptr;
  MethodCall call;
  call.is_one = FL_METHOD_CODEC_GET_CLASS(codec)->decode_method_call(
      FL_METHOD_CODEC(codec), message, &name, &args, &error);
  call.args.reset(args);
  if (name != nullptr) call.name = name;
  return call;
}

// The argument `key` when it has that type, or null.
FlValue* Argument(const MethodCall& call, const char* key, FlValueType type) {
  FlValue* map = call.args.get();
  if (map == nullptr || fl_value_get_type(map) != FL_VALUE_TYPE_MAP) {
    return nullptr;
  }
  FlValue* value = fl_value_lookup_string(map, key);
  return value != nullptr && fl_value_get_type(value) == type ? value : nullptr;
}

// One plug-in and, when it is ready, its one open connection.
class Application {
 public:
  explicit Application(bool ready) {
    lumso_fuzz::ResetBus(ready);
    gate_.Open();
    messenger_ =
        in_process_messenger_new([](const std::string&, GBytes* event) {
          Check(DecodeEnvelope(event).kind != Envelope::Kind::kMalformed,
                "an event is readable");
        });
    g_autoptr(InProcessRegistrar) registrar =
        in_process_registrar_new(messenger_);
    lumso_bluetooth_plugin_register_with_registrar(
        FL_PLUGIN_REGISTRAR(registrar));
    if (ready) Connect();
  }
  ~Application() {
    in_process_messenger_close(messenger_);
    g_object_unref(messenger_);
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    Check(air_.EachClosedOnce(), "every socket is closed once");
  }
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  void Deliver(const std::string& channel, GBytes* message) {
    const MethodCall call = DecodeCall(message);
    may_stay_unanswered = !call.is_one;
    int answers = 0;
    const auto on_answer = [&](GBytes* answer) {
      ++answers;
      const Envelope envelope = DecodeEnvelope(answer);
      CheckAnswer(channel, envelope);
      if (channel == kChannels[0] && peer_ != nullptr) {
        CheckEffect(call, envelope);
      }
    };
    in_process_messenger_deliver(messenger_, channel, message, on_answer);
    Check(answers == 1 || (answers == 0 && !call.is_one),
          "a method call is answered once, before its handler returns");
    ReportDevice();
  }

 private:
  void Connect() {
    air_.AddDevice(lumso_fuzz::kDeviceAddress);
    g_autoptr(FlValue) args = fl_value_new_map();
    fl_value_set_string_take(args, "address",
                             fl_value_new_string(lumso_fuzz::kDeviceAddress));
    const BytesPtr message = lumso_host::EncodeMethodCall("connect", args);
    in_process_messenger_deliver(
        messenger_, kChannels[0], message.get(), [](GBytes* answer) {
          const Envelope envelope = DecodeEnvelope(answer);
          Check(envelope.kind == Envelope::Kind::kSuccess &&
                    fl_value_get_int(envelope.value.get()) == 1,
                "the first connection is number 1");
        });
    peer_ = air_.NextPeer(lumso_fuzz::kDeviceAddress);
    peer_->Send(kGreeting);
  }

  void CheckAnswer(const std::string& channel, const Envelope& envelope) {
    Check(envelope.kind != Envelope::Kind::kMalformed, "an answer is readable");
    if (envelope.kind != Envelope::Kind::kError) return;
    if (channel != kChannels[0]) {
      Check(envelope.code == "error", "a stream knows two requests");
      return;
    }
    Check(
        envelope.code == "ECONN"
            ? peer_ != nullptr && envelope.message == "RFCOMM connect failed"
            : envelope.code == "EINVAL" &&
                  (envelope.message == "secret missing" ||
                   envelope.message == "BT not initialized or address missing"),
        "the errors and texts that there are");
    Check(envelope.details == nullptr, "errors have no details");
  }

  // What a call that means the open connection does to it.
  void CheckEffect(const MethodCall& call, const Envelope& envelope) {
    FlValue* id = Argument(call, "id", FL_VALUE_TYPE_INT);
    if (id == nullptr || fl_value_get_int(id) != 1) return;
    FlValue* bytes = Argument(call, "bytes", FL_VALUE_TYPE_UINT8_LIST);
    if (call.name == "write" && bytes != nullptr) {
      const size_t count = fl_value_get_length(bytes);
      const std::string sent(
          reinterpret_cast<const char*>(fl_value_get_uint8_list(bytes)), count);
      Check(fl_value_get_bool(envelope.value.get()) == (count > 0),
            "bytes are written");
      Check(peer_->Receive(count) == sent, "the device gets the bytes");
    } else if (call.name == "disconnect") {
      Check(fl_value_get_bool(envelope.value.get()), "it is disconnected");
      Check(peer_->WaitForClose(), "the device sees the end");
    }
  }

  // The daemon reports a change: an event for who listens, nothing otherwise.
  void ReportDevice() {
    if (peer_ == nullptr) return;
    static const lumso_bluetooth::GVariantPtr changed = lumso_fuzz::ParseText(
        "(sa{sv}as)", "('org.bluez.Device1', @a{sv} {}, @as [])");
    lumso_fuzz::EmitSignal("PropertiesChanged", lumso_fuzz::kDevicePath,
                           changed.get());
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
  }

  lumso_test::FakeRfcomm air_;
  // Open: nobody waits for the pauses of a prober that was started.
  lumso_test::SleepGate gate_;
  std::shared_ptr<lumso_test::Peer> peer_;
  InProcessMessenger* messenger_ = nullptr;  // owned reference
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  g_log_set_default_handler(Log, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  if (size == 0) return 0;
  const bool ready = data[0] >= 'a';
  const size_t choice = data[0] - (ready ? 'a' : '0');
  const BytesPtr message(g_bytes_new(data + 1, size - 1));
  Application(ready).Deliver(kChannels[choice % std::size(kChannels)],
                             message.get());
  return 0;
}
