#ifndef FLUTTER_LINUX_FL_METHOD_CHANNEL_H_
#define FLUTTER_LINUX_FL_METHOD_CHANNEL_H_

#ifndef FLUTTER_LINUX_INSIDE
#error "Include <flutter_linux/flutter_linux.h> only."
#endif

// A channel for method calls, in both directions. The messenger keeps it alive
// until it drops the channel's handler; from then on the channel is closed.
G_DECLARE_FINAL_TYPE(FlMethodChannel, fl_method_channel, FL, METHOD_CHANNEL,
                     GObject)

typedef void (*FlMethodChannelMethodCallHandler)(FlMethodChannel* channel,
                                                 FlMethodCall* method_call,
                                                 gpointer user_data);

// Takes the name over from any channel that had it.
FlMethodChannel* fl_method_channel_new(FlBinaryMessenger* messenger,
                                       const gchar* name, FlMethodCodec* codec);

// The notify runs when the handler is replaced or the channel closes. Without a
// handler calls stay unanswered.
void fl_method_channel_set_method_call_handler(
    FlMethodChannel* channel, FlMethodChannelMethodCallHandler handler,
    gpointer user_data, GDestroyNotify destroy_notify);

// Calls the application; the caller owns the response that finish returns.
// Arguments that cannot be encoded are a programming error.
void fl_method_channel_invoke_method(FlMethodChannel* channel,
                                     const gchar* method, FlValue* args,
                                     GCancellable* cancellable,
                                     GAsyncReadyCallback callback,
                                     gpointer user_data);
FlMethodResponse* fl_method_channel_invoke_method_finish(
    FlMethodChannel* channel, GAsyncResult* result, GError** error);

#endif  // FLUTTER_LINUX_FL_METHOD_CHANNEL_H_
