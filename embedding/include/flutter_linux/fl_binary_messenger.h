#ifndef FLUTTER_LINUX_FL_BINARY_MESSENGER_H_
#define FLUTTER_LINUX_FL_BINARY_MESSENGER_H_

#ifndef FLUTTER_LINUX_INSIDE
#error "Include <flutter_linux/flutter_linux.h> only."
#endif

#define FL_BINARY_MESSENGER_ERROR fl_binary_messenger_codec_error_quark()

typedef enum {
  FL_BINARY_MESSENGER_ERROR_ALREADY_RESPONDED,
} FlBinaryMessengerError;

GQuark fl_binary_messenger_codec_error_quark(void) G_GNUC_CONST;

// Carries bytes between the application and the handlers of named channels.
G_DECLARE_INTERFACE(FlBinaryMessenger, fl_binary_messenger, FL,
                    BINARY_MESSENGER, GObject)

// One message that waits for its answer. Messengers derive from it.
G_DECLARE_DERIVABLE_TYPE(FlBinaryMessengerResponseHandle,
                         fl_binary_messenger_response_handle, FL,
                         BINARY_MESSENGER_RESPONSE_HANDLE, GObject)

struct _FlBinaryMessengerResponseHandleClass {
  GObjectClass parent_class;
};

// Receives a message, never null. To answer later, keep the handle referenced.
typedef void (*FlBinaryMessengerMessageHandler)(
    FlBinaryMessenger* messenger, const gchar* channel, GBytes* message,
    FlBinaryMessengerResponseHandle* response_handle, gpointer user_data);

struct _FlBinaryMessengerInterface {
  GTypeInterface parent_iface;

  void (*set_message_handler_on_channel)(
      FlBinaryMessenger* messenger, const gchar* channel,
      FlBinaryMessengerMessageHandler handler, gpointer user_data,
      GDestroyNotify destroy_notify);
  gboolean (*send_response)(FlBinaryMessenger* messenger,
                            FlBinaryMessengerResponseHandle* response_handle,
                            GBytes* response, GError** error);
  void (*send_on_channel)(FlBinaryMessenger* messenger, const gchar* channel,
                          GBytes* message, GCancellable* cancellable,
                          GAsyncReadyCallback callback, gpointer user_data);
  GBytes* (*send_on_channel_finish)(FlBinaryMessenger* messenger,
                                    GAsyncResult* result, GError** error);
  void (*resize_channel)(FlBinaryMessenger* messenger, const gchar* channel,
                         int64_t new_size);
  void (*set_warns_on_channel_overflow)(FlBinaryMessenger* messenger,
                                        const gchar* channel, bool warns);
  void (*shutdown)(FlBinaryMessenger* messenger);
};

// One handler per channel: the notify of the one before runs first. A null
// handler removes.
void fl_binary_messenger_set_message_handler_on_channel(
    FlBinaryMessenger* messenger, const gchar* channel,
    FlBinaryMessengerMessageHandler handler, gpointer user_data,
    GDestroyNotify destroy_notify);

// Answers a message, on any thread; a null response is the empty one.
gboolean fl_binary_messenger_send_response(
    FlBinaryMessenger* messenger,
    FlBinaryMessengerResponseHandle* response_handle, GBytes* response,
    GError** error);

// Sends to the application; a null message is the empty one, without a callback
// no reply is wanted. The caller owns the bytes that finish returns.
void fl_binary_messenger_send_on_channel(FlBinaryMessenger* messenger,
                                         const gchar* channel, GBytes* message,
                                         GCancellable* cancellable,
                                         GAsyncReadyCallback callback,
                                         gpointer user_data);
GBytes* fl_binary_messenger_send_on_channel_finish(FlBinaryMessenger* messenger,
                                                   GAsyncResult* result,
                                                   GError** error);

// How many messages the application keeps while nobody listens, and whether it
// warns about those it drops. The messenger gets the name as it is, null too.
void fl_binary_messenger_resize_channel(FlBinaryMessenger* messenger,
                                        const gchar* channel, int64_t new_size);
void fl_binary_messenger_set_warns_on_channel_overflow(
    FlBinaryMessenger* messenger, const gchar* channel, bool warns);

#endif  // FLUTTER_LINUX_FL_BINARY_MESSENGER_H_
