#ifndef FLUTTER_LINUX_FL_EVENT_CHANNEL_H_
#define FLUTTER_LINUX_FL_EVENT_CHANNEL_H_

#ifndef FLUTTER_LINUX_INSIDE
#error "Include <flutter_linux/flutter_linux.h> only."
#endif

// A channel for a stream of events. It keeps no listening state: what is sent
// goes out at once, and the handlers run whenever the application asks. Its
// lifetime is that of FlMethodChannel.
G_DECLARE_FINAL_TYPE(FlEventChannel, fl_event_channel, FL, EVENT_CHANNEL,
                     GObject)

// Returns null to accept, or the error to answer, which the channel then owns.
// It must not close its own channel: the SDK's does not survive that.
typedef FlMethodErrorResponse* (*FlEventChannelHandler)(FlEventChannel* channel,
                                                        FlValue* args,
                                                        gpointer user_data);

FlEventChannel* fl_event_channel_new(FlBinaryMessenger* messenger,
                                     const gchar* name, FlMethodCodec* codec);

// A request without a handler is answered with success.
void fl_event_channel_set_stream_handlers(FlEventChannel* channel,
                                          FlEventChannelHandler listen_handler,
                                          FlEventChannelHandler cancel_handler,
                                          gpointer user_data,
                                          GDestroyNotify destroy_notify);

// FALSE only for what cannot be encoded. Event, code and message are required.
gboolean fl_event_channel_send(FlEventChannel* channel, FlValue* event,
                               GCancellable* cancellable, GError** error);
gboolean fl_event_channel_send_error(FlEventChannel* channel, const gchar* code,
                                     const gchar* message, FlValue* details,
                                     GCancellable* cancellable, GError** error);
gboolean fl_event_channel_send_end_of_stream(FlEventChannel* channel,
                                             GCancellable* cancellable,
                                             GError** error);

#endif  // FLUTTER_LINUX_FL_EVENT_CHANNEL_H_
