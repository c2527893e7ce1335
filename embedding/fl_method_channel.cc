// FlMethodChannel and FlMethodCall.

#include <utility>

#include "fl_method_codec_private.h"

struct _FlMethodCall {
  GObject parent_instance;

  FlMethodChannel* channel;
  FlBinaryMessengerResponseHandle* response_handle;
  gchar* name;
  FlValue* args;
};

struct _FlMethodChannel {
  GObject parent_instance;

  FlBinaryMessenger* messenger;
  gchar* name;
  FlMethodCodec* codec;

  // Whether the messenger dropped the channel; a closed one has no handler.
  gboolean closed;

  FlMethodChannelMethodCallHandler handler;  // may be null
  gpointer handler_data;
  GDestroyNotify handler_destroy_notify;  // may be null
};

G_DEFINE_TYPE(FlMethodCall, fl_method_call, G_TYPE_OBJECT)
G_DEFINE_TYPE(FlMethodChannel, fl_method_channel, G_TYPE_OBJECT)

// Takes name and args over.
static FlMethodCall* NewMethodCall(
    FlMethodChannel* channel, FlBinaryMessengerResponseHandle* response_handle,
    gchar* name, FlValue* args) {
  FlMethodCall* self =
      FL_METHOD_CALL(g_object_new(fl_method_call_get_type(), nullptr));
  self->channel = FL_METHOD_CHANNEL(g_object_ref(channel));
  self->response_handle =
      FL_BINARY_MESSENGER_RESPONSE_HANDLE(g_object_ref(response_handle));
  self->name = name;
  self->args = args;
  return self;
}

// Runs on any thread. The messenger tells a second answer from the first.
static gboolean Respond(FlMethodCall* self, FlMethodResponse* response,
                        GError** error) {
  g_autoptr(GBytes) message = nullptr;
  return fl_method_codec_encode_response(self->channel->codec, response,
                                         &message, error) &&
         fl_binary_messenger_send_response(
             self->channel->messenger, self->response_handle, message, error);
}

// Forgets the handler before its notify runs, which may do anything, dropping
// references to the channel included: the caller holds one.
static void ClearHandler(FlMethodChannel* self) {
  GDestroyNotify destroy_notify = self->handler_destroy_notify;
  gpointer user_data = self->handler_data;
  self->handler = nullptr;
  self->handler_data = nullptr;
  self->handler_destroy_notify = nullptr;
  if (destroy_notify != nullptr) {
    destroy_notify(user_data);
  }
}

// Runs for every message on the channel. The messenger may drop the channel in
// the course of it; the call then keeps it.
static void MessageCb(FlBinaryMessenger*, const gchar*, GBytes* message,
                      FlBinaryMessengerResponseHandle* response_handle,
                      gpointer user_data) {
  FlMethodChannel* self = FL_METHOD_CHANNEL(user_data);
  if (self->handler == nullptr) {
    return;
  }
  gchar* name = nullptr;
  FlValue* args = nullptr;
  g_autoptr(GError) error = nullptr;
  if (!fl_method_codec_decode_method_call(self->codec, message, &name, &args,
                                          &error)) {
    g_warning("Failed to decode method call: %s", error->message);
    return;
  }
  g_autoptr(FlMethodCall) method_call =
      NewMethodCall(self, response_handle, name, args);
  self->handler(self, method_call, self->handler_data);
}

// Runs when the messenger drops the channel; takes the messenger's reference,
// and keeps it until the handler's notify has run.
static void ClosedCb(gpointer user_data) {
  g_autoptr(FlMethodChannel) self = FL_METHOD_CHANNEL(user_data);
  self->closed = TRUE;
  ClearHandler(self);
}

// Runs when the application has replied to an invoked method.
static void ReplyCb(GObject* object, GAsyncResult* result, gpointer user_data) {
  g_autoptr(GTask) task = G_TASK(user_data);
  g_autoptr(GError) error = nullptr;
  g_autoptr(GBytes) reply = fl_binary_messenger_send_on_channel_finish(
      FL_BINARY_MESSENGER(object), result, &error);
  if (error != nullptr) {
    g_task_return_error(task, std::exchange(error, nullptr));
    return;
  }
  FlMethodChannel* self = FL_METHOD_CHANNEL(g_task_get_source_object(task));
  FlMethodResponse* response =
      fl_method_codec_decode_response(self->codec, reply, &error);
  if (response == nullptr) {
    g_task_return_error(task, std::exchange(error, nullptr));
  } else {
    g_task_return_pointer(task, response, g_object_unref);
  }
}

static void fl_method_call_dispose(GObject* object) {
  FlMethodCall* self = FL_METHOD_CALL(object);
  g_clear_object(&self->response_handle);
  g_clear_object(&self->channel);
  g_clear_pointer(&self->name, g_free);
  g_clear_pointer(&self->args, fl_value_unref);
  G_OBJECT_CLASS(fl_method_call_parent_class)->dispose(object);
}

static void fl_method_channel_dispose(GObject* object) {
  FlMethodChannel* self = FL_METHOD_CHANNEL(object);
  ClearHandler(self);
  g_clear_object(&self->messenger);
  g_clear_object(&self->codec);
  g_clear_pointer(&self->name, g_free);
  G_OBJECT_CLASS(fl_method_channel_parent_class)->dispose(object);
}

static void fl_method_call_class_init(FlMethodCallClass* klass) {
  G_OBJECT_CLASS(klass)->dispose = fl_method_call_dispose;
}

static void fl_method_call_init(FlMethodCall*) {}

static void fl_method_channel_class_init(FlMethodChannelClass* klass) {
  G_OBJECT_CLASS(klass)->dispose = fl_method_channel_dispose;
}

static void fl_method_channel_init(FlMethodChannel*) {}

const gchar* fl_method_call_get_name(FlMethodCall* method_call) {
  g_return_val_if_fail(FL_IS_METHOD_CALL(method_call), nullptr);
  return method_call->name;
}

FlValue* fl_method_call_get_args(FlMethodCall* method_call) {
  g_return_val_if_fail(FL_IS_METHOD_CALL(method_call), nullptr);
  return method_call->args;
}

// The SDK has freed the error that it hands back here, so nobody gets one.
gboolean fl_method_call_respond(FlMethodCall* method_call,
                                FlMethodResponse* response, GError**) {
  g_return_val_if_fail(FL_IS_METHOD_CALL(method_call), FALSE);
  g_return_val_if_fail(FL_IS_METHOD_RESPONSE(response), FALSE);
  g_autoptr(GError) failure = nullptr;
  if (Respond(method_call, response, &failure)) {
    return TRUE;
  }
  // A messenger refuses a second answer without an error, and the SDK looks
  // into that error here.
  g_return_val_if_fail(failure != nullptr, FALSE);
  return FALSE;
}

gboolean fl_method_call_respond_success(FlMethodCall* method_call,
                                        FlValue* result, GError** error) {
  g_return_val_if_fail(FL_IS_METHOD_CALL(method_call), FALSE);
  g_autoptr(FlMethodResponse) response =
      FL_METHOD_RESPONSE(fl_method_success_response_new(result));
  return Respond(method_call, response, error);
}

gboolean fl_method_call_respond_error(FlMethodCall* method_call,
                                      const gchar* code, const gchar* message,
                                      FlValue* details, GError** error) {
  g_return_val_if_fail(FL_IS_METHOD_CALL(method_call), FALSE);
  g_return_val_if_fail(code != nullptr, FALSE);
  g_autoptr(FlMethodResponse) response =
      FL_METHOD_RESPONSE(fl_method_error_response_new(code, message, details));
  return Respond(method_call, response, error);
}

gboolean fl_method_call_respond_not_implemented(FlMethodCall* method_call,
                                                GError** error) {
  g_return_val_if_fail(FL_IS_METHOD_CALL(method_call), FALSE);
  g_autoptr(FlMethodResponse) response =
      FL_METHOD_RESPONSE(fl_method_not_implemented_response_new());
  return Respond(method_call, response, error);
}

FlMethodChannel* fl_method_channel_new(FlBinaryMessenger* messenger,
                                       const gchar* name,
                                       FlMethodCodec* codec) {
  g_return_val_if_fail(FL_IS_BINARY_MESSENGER(messenger), nullptr);
  g_return_val_if_fail(name != nullptr, nullptr);
  g_return_val_if_fail(FL_IS_METHOD_CODEC(codec), nullptr);
  FlMethodChannel* self =
      FL_METHOD_CHANNEL(g_object_new(fl_method_channel_get_type(), nullptr));
  self->messenger = FL_BINARY_MESSENGER(g_object_ref(messenger));
  self->name = g_strdup(name);
  self->codec = FL_METHOD_CODEC(g_object_ref(codec));
  fl_binary_messenger_set_message_handler_on_channel(
      messenger, name, MessageCb, g_object_ref(self), ClosedCb);
  return self;
}

void fl_method_channel_set_method_call_handler(
    FlMethodChannel* channel, FlMethodChannelMethodCallHandler handler,
    gpointer user_data, GDestroyNotify destroy_notify) {
  g_return_if_fail(FL_IS_METHOD_CHANNEL(channel));
  g_autoptr(FlMethodChannel) self = FL_METHOD_CHANNEL(g_object_ref(channel));
  ClearHandler(self);
  if (self->closed) {
    if (handler != nullptr) {
      g_warning(
          "Attempted to set method call handler on a closed FlMethodChannel");
    }
    if (destroy_notify != nullptr) {
      destroy_notify(user_data);
    }
    return;
  }
  self->handler = handler;
  self->handler_data = user_data;
  self->handler_destroy_notify = destroy_notify;
}

void fl_method_channel_invoke_method(FlMethodChannel* channel,
                                     const gchar* method, FlValue* args,
                                     GCancellable* cancellable,
                                     GAsyncReadyCallback callback,
                                     gpointer user_data) {
  g_return_if_fail(FL_IS_METHOD_CHANNEL(channel));
  g_return_if_fail(method != nullptr);
  g_autoptr(GBytes) message =
      fl_method_codec_encode_method_call(channel->codec, method, args, nullptr);
  // The SDK touches freed memory on its way to the callback.
  g_return_if_fail(message != nullptr);
  bool wants_reply = callback != nullptr;
  fl_binary_messenger_send_on_channel(
      channel->messenger, channel->name, message, cancellable,
      wants_reply ? ReplyCb : nullptr,
      wants_reply ? g_task_new(channel, cancellable, callback, user_data)
                  : nullptr);
}

FlMethodResponse* fl_method_channel_invoke_method_finish(
    FlMethodChannel* channel, GAsyncResult* result, GError** error) {
  g_return_val_if_fail(FL_IS_METHOD_CHANNEL(channel), nullptr);
  g_return_val_if_fail(g_task_is_valid(result, channel), nullptr);
  return static_cast<FlMethodResponse*>(
      g_task_propagate_pointer(G_TASK(result), error));
}
