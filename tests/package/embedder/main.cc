// Registers the plug-in by hand and prints the answer to one call.

#include <lumso_bluetooth/lumso_bluetooth_plugin.h>

#include <cstdio>
#include <string>

#include "host/channel_codec.h"
#include "host/in_process_messenger.h"

int main() {
  g_autoptr(InProcessMessenger) messenger =
      in_process_messenger_new([](const std::string&, GBytes*) {});
  g_autoptr(InProcessRegistrar) registrar = in_process_registrar_new(messenger);
  lumso_bluetooth_plugin_register_with_registrar(
      FL_PLUGIN_REGISTRAR(registrar));

  const lumso_host::BytesPtr call =
      lumso_host::EncodeMethodCall("getPlatformVersion", nullptr);
  in_process_messenger_deliver(
      messenger, "lumso_bluetooth/methods", call.get(), [](GBytes* answer) {
        const lumso_host::Envelope envelope =
            lumso_host::DecodeEnvelope(answer);
        if (envelope.kind == lumso_host::Envelope::Kind::kSuccess) {
          std::printf("%s, %s\n", fl_value_get_string(envelope.value.get()),
                      g_type_name(lumso_bluetooth_plugin_get_type()));
        }
      });
  in_process_messenger_close(messenger);
  return 0;
}
