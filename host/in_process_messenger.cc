#include "host/in_process_messenger.h"

#include <atomic>
#include <map>
#include <memory>
#include <utility>

namespace {

struct Handler {
  FlBinaryMessengerMessageHandler function = nullptr;
  gpointer user_data = nullptr;
  GDestroyNotify destroy_notify = nullptr;

  void Destroy() const {
    if (destroy_notify != nullptr) destroy_notify(user_data);
  }
};

struct MessengerState {
  explicit MessengerState(InProcessSink channel_sink)
      : sink(std::move(channel_sink)) {}

  InProcessSink sink;
  std::map<std::string, Handler> handlers;
  // Answering threads read it; only the platform thread writes it.
  std::atomic<bool> closed{false};
  // The platform thread: the one that made the messenger.
  GThread* thread = g_thread_self();
};

struct ResponseState {
  ResponseState(std::string channel_name, InProcessAnswer channel_answer)
      : channel(std::move(channel_name)), answer(std::move(channel_answer)) {}

  std::string channel;
  InProcessAnswer answer;
  std::atomic<bool> answered{false};
};

// An answer given on another thread, on its way to the platform thread.
struct QueuedAnswer {
  QueuedAnswer(InProcessMessenger* to, InProcessAnswer function,
               GBytes* response)
      : messenger(IN_PROCESS_MESSENGER(g_object_ref(to))),
        answer(std::move(function)),
        bytes(response == nullptr ? nullptr : g_bytes_ref(response)) {}
  ~QueuedAnswer() {
    if (bytes != nullptr) g_bytes_unref(bytes);
    g_object_unref(messenger);
  }
  QueuedAnswer(const QueuedAnswer&) = delete;
  QueuedAnswer& operator=(const QueuedAnswer&) = delete;

  InProcessMessenger* messenger;
  InProcessAnswer answer;
  GBytes* bytes;  // Null for an empty answer.
};

}  // namespace

struct _InProcessMessenger {
  GObject parent_instance;
  MessengerState* state;  // Owned.
};

struct _InProcessRegistrar {
  GObject parent_instance;
  InProcessMessenger* messenger;  // Owned reference.
};

// The handle of one delivered message. Whoever drops the last reference, on
// any thread, without an answer having been given hears about it.
G_DECLARE_FINAL_TYPE(InProcessResponseHandle, in_process_response_handle,
                     IN_PROCESS, RESPONSE_HANDLE,
                     FlBinaryMessengerResponseHandle)

struct _InProcessResponseHandle {
  FlBinaryMessengerResponseHandle parent_instance;
  InProcessMessenger* messenger;  // Owned reference.
  ResponseState* state;           // Owned.
};

G_DEFINE_TYPE(InProcessResponseHandle, in_process_response_handle,
              fl_binary_messenger_response_handle_get_type())

static void in_process_response_handle_finalize(GObject* object) {
  InProcessResponseHandle* self = IN_PROCESS_RESPONSE_HANDLE(object);
  if (!self->state->answered && !self->messenger->state->closed) {
    g_critical(
        "FlBinaryMessengerResponseHandle was not responded to (channel %s)",
        self->state->channel.c_str());
  }
  delete self->state;
  g_object_unref(self->messenger);
  G_OBJECT_CLASS(in_process_response_handle_parent_class)->finalize(object);
}

static void in_process_response_handle_class_init(
    InProcessResponseHandleClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = in_process_response_handle_finalize;
}

static void in_process_response_handle_init(InProcessResponseHandle*) {}

static InProcessResponseHandle* in_process_response_handle_new(
    InProcessMessenger* messenger, const std::string& channel,
    InProcessAnswer answer) {
  auto* self = IN_PROCESS_RESPONSE_HANDLE(
      g_object_new(in_process_response_handle_get_type(), nullptr));
  self->messenger = IN_PROCESS_MESSENGER(g_object_ref(messenger));
  self->state = new ResponseState(channel, std::move(answer));
  return self;
}

// Removes the handler of `channel`, if any. The notify may come back here, so
// the entry is gone before it runs.
static void drop_handler(MessengerState* state, const std::string& channel) {
  auto node = state->handlers.extract(channel);
  if (!node.empty()) node.mapped().Destroy();
}

static void set_message_handler_on_channel(
    FlBinaryMessenger* messenger, const gchar* channel,
    FlBinaryMessengerMessageHandler function, gpointer user_data,
    GDestroyNotify destroy_notify) {
  MessengerState* state = IN_PROCESS_MESSENGER(messenger)->state;
  if (function == nullptr) {
    drop_handler(state, channel);
    return;
  }
  const Handler handler{function, user_data, destroy_notify};
  if (state->closed) {
    g_warning(
        "Attempted to set message handler on an FlBinaryMessenger without an "
        "engine");
    handler.Destroy();
    return;
  }
  drop_handler(state, channel);
  state->handlers[channel] = handler;
}

static gboolean run_queued_answer(gpointer data) {
  auto* queued = static_cast<QueuedAnswer*>(data);
  if (!queued->messenger->state->closed) queued->answer(queued->bytes);
  return G_SOURCE_REMOVE;
}

static void free_queued_answer(gpointer data) {
  delete static_cast<QueuedAnswer*>(data);
}

// Runs on any thread.
static gboolean send_response(FlBinaryMessenger* messenger,
                              FlBinaryMessengerResponseHandle* handle,
                              GBytes* response, GError**) {
  InProcessMessenger* self = IN_PROCESS_MESSENGER(messenger);
  g_return_val_if_fail(IN_PROCESS_IS_RESPONSE_HANDLE(handle), FALSE);
  InProcessResponseHandle* own_handle = IN_PROCESS_RESPONSE_HANDLE(handle);
  g_return_val_if_fail(own_handle->messenger == self, FALSE);

  if (self->state->closed) return TRUE;
  if (own_handle->state->answered.exchange(true)) {
    g_critical(
        "FlBinaryMessengerResponseHandle was already responded to "
        "(channel %s)",
        own_handle->state->channel.c_str());
    return FALSE;
  }
  InProcessAnswer answer = std::move(own_handle->state->answer);
  if (g_thread_self() == self->state->thread) {
    answer(response);
  } else {
    g_idle_add_full(G_PRIORITY_DEFAULT, run_queued_answer,
                    new QueuedAnswer(self, std::move(answer), response),
                    free_queued_answer);
  }
  return TRUE;
}

static void send_on_channel(FlBinaryMessenger* messenger, const gchar* channel,
                            GBytes* message, GCancellable* cancellable,
                            GAsyncReadyCallback callback, gpointer user_data) {
  MessengerState* state = IN_PROCESS_MESSENGER(messenger)->state;
  if (g_thread_self() != state->thread) {
    g_critical("Message sent on channel %s outside the platform thread",
               channel);
    return;
  }
  if (state->closed) return;
  // Nobody on the other side serves requests: the reply is empty.
  g_autoptr(GTask) task =
      callback == nullptr
          ? nullptr
          : g_task_new(messenger, cancellable, callback, user_data);
  state->sink(channel, message);
  if (task != nullptr) {
    g_task_return_pointer(task, g_bytes_new(nullptr, 0),
                          reinterpret_cast<GDestroyNotify>(g_bytes_unref));
  }
}

static GBytes* send_on_channel_finish(FlBinaryMessenger* messenger,
                                      GAsyncResult* result, GError** error) {
  g_return_val_if_fail(g_task_is_valid(result, messenger), nullptr);
  return static_cast<GBytes*>(g_task_propagate_pointer(G_TASK(result), error));
}

// The first four functions only, which every release of the embedding has: a
// plug-in that calls the later ones (resizing and the like) finds none here.
static void in_process_messenger_iface_init(FlBinaryMessengerInterface* iface) {
  iface->set_message_handler_on_channel = set_message_handler_on_channel;
  iface->send_response = send_response;
  iface->send_on_channel = send_on_channel;
  iface->send_on_channel_finish = send_on_channel_finish;
}

G_DEFINE_TYPE_WITH_CODE(InProcessMessenger, in_process_messenger, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(fl_binary_messenger_get_type(),
                                              in_process_messenger_iface_init))

static void in_process_messenger_dispose(GObject* object) {
  in_process_messenger_close(IN_PROCESS_MESSENGER(object));
  G_OBJECT_CLASS(in_process_messenger_parent_class)->dispose(object);
}

static void in_process_messenger_finalize(GObject* object) {
  delete IN_PROCESS_MESSENGER(object)->state;
  G_OBJECT_CLASS(in_process_messenger_parent_class)->finalize(object);
}

static void in_process_messenger_class_init(InProcessMessengerClass* klass) {
  G_OBJECT_CLASS(klass)->dispose = in_process_messenger_dispose;
  G_OBJECT_CLASS(klass)->finalize = in_process_messenger_finalize;
}

static void in_process_messenger_init(InProcessMessenger*) {}

InProcessMessenger* in_process_messenger_new(InProcessSink sink) {
  auto* self = IN_PROCESS_MESSENGER(
      g_object_new(in_process_messenger_get_type(), nullptr));
  self->state = new MessengerState(std::move(sink));
  return self;
}

void in_process_messenger_deliver(InProcessMessenger* messenger,
                                  const std::string& channel, GBytes* message,
                                  InProcessAnswer answer) {
  const auto& handlers = messenger->state->handlers;
  const auto found = handlers.find(channel);
  if (found == handlers.end()) {
    answer(nullptr);
    return;
  }
  const Handler& handler = found->second;
  g_autoptr(GBytes) bytes =
      message == nullptr ? g_bytes_new(nullptr, 0) : g_bytes_ref(message);
  g_autoptr(FlBinaryMessengerResponseHandle) handle =
      FL_BINARY_MESSENGER_RESPONSE_HANDLE(in_process_response_handle_new(
          messenger, channel, std::move(answer)));
  handler.function(FL_BINARY_MESSENGER(messenger), channel.c_str(), bytes,
                   handle, handler.user_data);
}

bool in_process_messenger_has_handler(InProcessMessenger* messenger,
                                      const std::string& channel) {
  return messenger->state->handlers.count(channel) != 0;
}

std::vector<std::string> in_process_messenger_get_channels(
    InProcessMessenger* messenger) {
  std::vector<std::string> channels;
  channels.reserve(messenger->state->handlers.size());
  for (const auto& [channel, handler] : messenger->state->handlers) {
    channels.push_back(channel);
  }
  return channels;
}

void in_process_messenger_close(InProcessMessenger* messenger) {
  // Closed first: inside the notifies the engine is already out of reach.
  MessengerState* state = messenger->state;
  state->closed = true;
  while (!state->handlers.empty()) {
    drop_handler(state, std::string(state->handlers.begin()->first));
  }
}

static FlBinaryMessenger* get_messenger(FlPluginRegistrar* registrar) {
  return FL_BINARY_MESSENGER(IN_PROCESS_REGISTRAR(registrar)->messenger);
}

static FlTextureRegistrar* get_texture_registrar(FlPluginRegistrar*) {
  return nullptr;
}

static FlView* get_view(FlPluginRegistrar*) { return nullptr; }

static void in_process_registrar_iface_init(FlPluginRegistrarInterface* iface) {
  iface->get_messenger = get_messenger;
  iface->get_texture_registrar = get_texture_registrar;
  iface->get_view = get_view;
}

G_DEFINE_TYPE_WITH_CODE(InProcessRegistrar, in_process_registrar, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(fl_plugin_registrar_get_type(),
                                              in_process_registrar_iface_init))

static void in_process_registrar_dispose(GObject* object) {
  g_clear_object(&IN_PROCESS_REGISTRAR(object)->messenger);
  G_OBJECT_CLASS(in_process_registrar_parent_class)->dispose(object);
}

static void in_process_registrar_class_init(InProcessRegistrarClass* klass) {
  G_OBJECT_CLASS(klass)->dispose = in_process_registrar_dispose;
}

static void in_process_registrar_init(InProcessRegistrar*) {}

InProcessRegistrar* in_process_registrar_new(InProcessMessenger* messenger) {
  auto* self = IN_PROCESS_REGISTRAR(
      g_object_new(in_process_registrar_get_type(), nullptr));
  self->messenger = IN_PROCESS_MESSENGER(g_object_ref(messenger));
  return self;
}
