// An application without a window: registers its plug-ins as every runner does,
// calls the methods named on the command line, and prints their answers.

#include <flutter_linux/flutter_linux.h>

#include <cstdio>
#include <string>

#include "flutter/generated_plugin_registrant.h"
#include "host/channel_codec.h"
#include "host/in_process_messenger.h"

G_DECLARE_FINAL_TYPE(ApplicationRegistry, application_registry, APPLICATION,
                     REGISTRY, GObject)

// Hands out registrars for one messenger.
struct _ApplicationRegistry {
  GObject parent_instance;
  InProcessMessenger* messenger;  // Borrowed.
};

static FlPluginRegistrar* application_registry_get_registrar_for_plugin(
    FlPluginRegistry* registry, const gchar* name) {
  std::printf("registrar for %s\n", name);
  return FL_PLUGIN_REGISTRAR(
      in_process_registrar_new(APPLICATION_REGISTRY(registry)->messenger));
}

static void application_registry_plugin_registry_init(
    FlPluginRegistryInterface* iface) {
  iface->get_registrar_for_plugin =
      application_registry_get_registrar_for_plugin;
}

G_DEFINE_TYPE_WITH_CODE(
    ApplicationRegistry, application_registry, G_TYPE_OBJECT,
    G_IMPLEMENT_INTERFACE(fl_plugin_registry_get_type(),
                          application_registry_plugin_registry_init))

static void application_registry_class_init(ApplicationRegistryClass*) {}

static void application_registry_init(ApplicationRegistry*) {}

static void PrintAnswer(const char* method, GBytes* answer) {
  const lumso_host::Envelope envelope = lumso_host::DecodeEnvelope(answer);
  g_autofree gchar* text = envelope.kind == lumso_host::Envelope::Kind::kSuccess
                               ? fl_value_to_string(envelope.value.get())
                               : g_strdup("no success");
  std::printf("%s: %s\n", method, text);
}

int main(int argc, char** argv) {
  g_autoptr(InProcessMessenger) messenger =
      in_process_messenger_new([](const std::string&, GBytes*) {});
  g_autoptr(ApplicationRegistry) registry = APPLICATION_REGISTRY(
      g_object_new(application_registry_get_type(), nullptr));
  registry->messenger = messenger;
  fl_register_plugins(FL_PLUGIN_REGISTRY(registry));

  for (int i = 1; i < argc; ++i) {
    const char* method = argv[i];
    const lumso_host::BytesPtr message =
        lumso_host::EncodeMethodCall(method, nullptr);
    in_process_messenger_deliver(
        messenger, "lumso_bluetooth/methods", message.get(),
        [method](GBytes* answer) { PrintAnswer(method, answer); });
  }
  in_process_messenger_close(messenger);
  return 0;
}
