#include "benchmarks/application.h"

#include <lumso_bluetooth/lumso_bluetooth_plugin.h>

namespace lumso_bench {

using lumso_host::BytesPtr;
using lumso_host::DecodeEnvelope;
using lumso_host::Envelope;

BytesPtr Message(
    const std::string& method,
    std::initializer_list<std::pair<const char*, FlValue*>> entries) {
  g_autoptr(FlValue) map = fl_value_new_map();
  for (const auto& [key, value] : entries) {
    fl_value_set_string_take(map, key, value);
  }
  return lumso_host::EncodeMethodCall(method,
                                      entries.size() == 0 ? nullptr : map);
}

Application::Application()
    : messenger_(
          in_process_messenger_new([this](const std::string&, GBytes* event) {
            ++events_;
            if (on_event) on_event(event);
          })) {}

Application::~Application() {
  in_process_messenger_close(messenger_);
  g_object_unref(messenger_);
}

void Application::Register() {
  g_autoptr(InProcessRegistrar) registrar =
      in_process_registrar_new(messenger_);
  lumso_bluetooth_plugin_register_with_registrar(
      FL_PLUGIN_REGISTRAR(registrar));
}

BytesPtr Application::Call(const std::string& channel, GBytes* message) {
  BytesPtr answer;
  in_process_messenger_deliver(messenger_, channel, message,
                               [&answer](GBytes* bytes) {
                                 if (bytes != nullptr) {
                                   answer.reset(g_bytes_ref(bytes));
                                 }
                               });
  return answer;
}

int Application::Connect() {
  const BytesPtr message = Message(
      "connect", {{"address", fl_value_new_string("C0:FF:EE:00:00:01")}});
  const BytesPtr answer = Call(kMethods, message.get());
  const Envelope envelope = DecodeEnvelope(answer.get());
  if (envelope.kind != Envelope::Kind::kSuccess) g_error("connect failed");
  return static_cast<int>(fl_value_get_int(envelope.value.get()));
}

void Application::Disconnect(int id) {
  const BytesPtr message =
      Message("disconnect", {{"id", fl_value_new_int(id)}});
  Call(kMethods, message.get());
}

void Application::AwaitEvents(size_t count) {
  const size_t wanted = events_ + count;
  while (events_ < wanted) g_main_context_iteration(nullptr, TRUE);
}

}  // namespace lumso_bench
