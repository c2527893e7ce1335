#include "fl_method_codec_private.h"

static constexpr char kListenMethod[] = "listen";
static constexpr char kCancelMethod[] = "cancel";
static constexpr char kUnknownRequestCode[] = "error";

struct _FlEventChannel {
  GObject parent_instance;

  FlBinaryMessenger* messenger;
  gchar* name;
  FlMethodCodec* codec;

  FlEventChannelHandler listen_handler;  // may be null
  FlEventChannelHandler cancel_handler;  // may be null
  gpointer handlers_data;
  GDestroyNotify handlers_destroy_notify;  // may be null
};

G_DEFINE_TYPE(FlEventChannel, fl_event_channel, G_TYPE_OBJECT)

// Forgets the handlers before their notify runs, which may do anything,
// dropping references to the channel included: the caller holds one.
static void ClearHandlers(FlEventChannel* self) {
  GDestroyNotify destroy_notify = self->handlers_destroy_notify;
  gpointer user_data = self->handlers_data;
  self->listen_handler = nullptr;
  self->cancel_handler = nullptr;
  self->handlers_data = nullptr;
  self->handlers_destroy_notify = nullptr;
  if (destroy_notify != nullptr) {
    destroy_notify(user_data);
  }
}

static FlMethodErrorResponse* RunHandler(FlEventChannel* self,
                                         const gchar* name, FlValue* args) {
  FlEventChannelHandler handler = nullptr;
  if (g_str_equal(name, kListenMethod)) {
    handler = self->listen_handler;
  } else if (g_str_equal(name, kCancelMethod)) {
    handler = self->cancel_handler;
  } else {
    g_autofree gchar* text =
        g_strdup_printf("Unknown event channel request '%s'", name);
    return fl_method_error_response_new(kUnknownRequestCode, text, nullptr);
  }
  return handler != nullptr ? handler(self, args, self->handlers_data)
                            : nullptr;
}

// Returns the answer to a request, which the caller owns; null, the empty one,
// to a request or for a response that the codec refuses.
static GBytes* HandleRequest(FlEventChannel* self, GBytes* message) {
  g_autofree gchar* name = nullptr;
  g_autoptr(FlValue) args = nullptr;
  g_autoptr(GError) error = nullptr;
  if (!fl_method_codec_decode_method_call(self->codec, message, &name, &args,
                                          &error)) {
    g_warning("Failed to decode event channel request: %s", error->message);
    return nullptr;
  }
  FlMethodErrorResponse* refusal = RunHandler(self, name, args);
  g_autoptr(FlMethodResponse) response =
      refusal != nullptr
          ? FL_METHOD_RESPONSE(refusal)
          : FL_METHOD_RESPONSE(fl_method_success_response_new(nullptr));
  GBytes* answer = nullptr;
  if (!fl_method_codec_encode_response(self->codec, response, &answer,
                                       &error)) {
    g_warning("Failed to encode event channel response: %s", error->message);
  }
  return answer;
}

// Runs for every message on the channel. The messenger may drop the channel in
// the course of it: kept until the end, as it is not in the SDK.
static void MessageCb(FlBinaryMessenger* messenger, const gchar*,
                      GBytes* message,
                      FlBinaryMessengerResponseHandle* response_handle,
                      gpointer user_data) {
  g_autoptr(FlEventChannel) self = FL_EVENT_CHANNEL(g_object_ref(user_data));
  g_autoptr(GBytes) answer = HandleRequest(self, message);
  g_autoptr(GError) error = nullptr;
  if (!fl_binary_messenger_send_response(messenger, response_handle, answer,
                                         &error)) {
    g_warning("Failed to answer event channel request: %s",
              error != nullptr ? error->message : "refused");
  }
}

// Runs when the messenger drops the channel; takes the messenger's reference,
// and keeps it until the handlers' notify has run.
static void ClosedCb(gpointer user_data) {
  g_autoptr(FlEventChannel) self = FL_EVENT_CHANNEL(user_data);
  ClearHandlers(self);
}

// Whatever the application does inside the send, the caller keeps the channel
// until it is done.
static void Send(FlEventChannel* self, GBytes* message,
                 GCancellable* cancellable) {
  fl_binary_messenger_send_on_channel(self->messenger, self->name, message,
                                      cancellable, nullptr, nullptr);
  g_assert(FL_IS_EVENT_CHANNEL(self));
}

static void fl_event_channel_dispose(GObject* object) {
  FlEventChannel* self = FL_EVENT_CHANNEL(object);
  ClearHandlers(self);
  g_clear_object(&self->messenger);
  g_clear_object(&self->codec);
  g_clear_pointer(&self->name, g_free);
  G_OBJECT_CLASS(fl_event_channel_parent_class)->dispose(object);
}

static void fl_event_channel_class_init(FlEventChannelClass* klass) {
  G_OBJECT_CLASS(klass)->dispose = fl_event_channel_dispose;
}

static void fl_event_channel_init(FlEventChannel*) {}

FlEventChannel* fl_event_channel_new(FlBinaryMessenger* messenger,
                                     const gchar* name, FlMethodCodec* codec) {
  g_return_val_if_fail(FL_IS_BINARY_MESSENGER(messenger), nullptr);
  g_return_val_if_fail(name != nullptr, nullptr);
  g_return_val_if_fail(FL_IS_METHOD_CODEC(codec), nullptr);
  FlEventChannel* self =
      FL_EVENT_CHANNEL(g_object_new(fl_event_channel_get_type(), nullptr));
  self->messenger = FL_BINARY_MESSENGER(g_object_ref(messenger));
  self->name = g_strdup(name);
  self->codec = FL_METHOD_CODEC(g_object_ref(codec));
  fl_binary_messenger_set_message_handler_on_channel(
      messenger, name, MessageCb, g_object_ref(self), ClosedCb);
  return self;
}

void fl_event_channel_set_stream_handlers(FlEventChannel* channel,
                                          FlEventChannelHandler listen_handler,
                                          FlEventChannelHandler cancel_handler,
                                          gpointer user_data,
                                          GDestroyNotify destroy_notify) {
  g_return_if_fail(FL_IS_EVENT_CHANNEL(channel));
  g_autoptr(FlEventChannel) self = FL_EVENT_CHANNEL(g_object_ref(channel));
  ClearHandlers(self);
  self->listen_handler = listen_handler;
  self->cancel_handler = cancel_handler;
  self->handlers_data = user_data;
  self->handlers_destroy_notify = destroy_notify;
}

gboolean fl_event_channel_send(FlEventChannel* channel, FlValue* event,
                               GCancellable* cancellable, GError** error) {
  g_return_val_if_fail(FL_IS_EVENT_CHANNEL(channel), FALSE);
  g_return_val_if_fail(event != nullptr, FALSE);
  g_autoptr(GBytes) message =
      fl_method_codec_encode_success_envelope(channel->codec, event, error);
  if (message == nullptr) {
    return FALSE;
  }
  Send(channel, message, cancellable);
  return TRUE;
}

gboolean fl_event_channel_send_error(FlEventChannel* channel, const gchar* code,
                                     const gchar* message, FlValue* details,
                                     GCancellable* cancellable,
                                     GError** error) {
  g_return_val_if_fail(FL_IS_EVENT_CHANNEL(channel), FALSE);
  g_return_val_if_fail(code != nullptr, FALSE);
  g_return_val_if_fail(message != nullptr, FALSE);
  g_autoptr(GBytes) envelope = fl_method_codec_encode_error_envelope(
      channel->codec, code, message, details, error);
  if (envelope == nullptr) {
    return FALSE;
  }
  Send(channel, envelope, cancellable);
  return TRUE;
}

gboolean fl_event_channel_send_end_of_stream(FlEventChannel* channel,
                                             GCancellable* cancellable,
                                             GError**) {
  g_return_val_if_fail(FL_IS_EVENT_CHANNEL(channel), FALSE);
  Send(channel, nullptr, cancellable);
  return TRUE;
}
