// Any bytes as a message from the application to a registered plug-in, without
// a bus. The first byte chooses the channel. Every message that is a method
// call is answered, exactly once and before the handler returns.

#include <flutter_linux/flutter_linux.h>
#include <lumso_bluetooth/lumso_bluetooth_plugin.h>

#include <cstring>
#include <iterator>
#include <string>

#include "example/host/channel_codec.h"
#include "example/host/in_process_messenger.h"
#include "tests/fuzz/fuzz.h"

using lumso_fuzz::Check;
using lumso_host::BytesPtr;
using lumso_host::DecodeEnvelope;
using lumso_host::Envelope;

namespace {

constexpr const char* kChannels[] = {
    "lumso_bluetooth/methods",
    "lumso_bluetooth/discovery",
    "lumso_bluetooth/state",
    "lumso_bluetooth/debug",
};

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

// One plug-in for the life of the process; it ends, and with it the prober that
// a "setAuthSecret" started, before the leak check.
class Application {
 public:
  Application() {
    g_setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", TRUE);
    g_log_set_default_handler(Log, nullptr);
    messenger_ = in_process_messenger_new([](const std::string&, GBytes*) {
      Check(false, "without a bus nothing is sent unasked");
    });
    g_autoptr(InProcessRegistrar) registrar =
        in_process_registrar_new(messenger_);
    lumso_bluetooth_plugin_register_with_registrar(
        FL_PLUGIN_REGISTRAR(registrar));
  }
  ~Application() {
    in_process_messenger_close(messenger_);
    g_object_unref(messenger_);
  }
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  InProcessMessenger* messenger() { return messenger_; }

 private:
  InProcessMessenger* messenger_ = nullptr;  // owned reference
};

bool IsMethodCall(GBytes* message) {
  g_autoptr(FlStandardMethodCodec) codec = fl_standard_method_codec_new();
  g_autofree gchar* name = nullptr;
  g_autoptr(FlValue) args = nullptr;
  g_autoptr(GError) error = nullptr;
  return FL_METHOD_CODEC_GET_CLASS(codec)->decode_method_call(
      FL_METHOD_CODEC(codec), message, &name, &args, &error);
}

void CheckAnswer(const std::string& channel, GBytes* answer) {
  const Envelope envelope = DecodeEnvelope(answer);
  Check(envelope.kind != Envelope::Kind::kMalformed, "an answer is readable");
  if (envelope.kind != Envelope::Kind::kError) return;
  if (channel == kChannels[0]) {
    Check(envelope.code == "EINVAL", "the one error there is without a bus");
    Check(envelope.message == "secret missing" ||
              envelope.message == "BT not initialized or address missing",
          "the two texts it has");
    Check(envelope.details == nullptr, "errors have no details");
  } else {
    Check(envelope.code == "error", "a stream knows two requests");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Application application;
  if (size == 0) return 0;
  const std::string channel = kChannels[data[0] % std::size(kChannels)];
  const BytesPtr message(g_bytes_new(data + 1, size - 1));
  const bool is_call = IsMethodCall(message.get());
  may_stay_unanswered = !is_call;
  int answers = 0;
  in_process_messenger_deliver(application.messenger(), channel, message.get(),
                               [&](GBytes* answer) {
                                 ++answers;
                                 CheckAnswer(channel, answer);
                               });
  Check(answers == 1 || (answers == 0 && !is_call),
        "a method call is answered once, before its handler returns");
  return 0;
}
