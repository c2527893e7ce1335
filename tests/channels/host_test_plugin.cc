// A plug-in that only the host's tests load. It serves the method channel with
// methods that show each kind of answer and event.

#include <errno.h>
#include <flutter_linux/flutter_linux.h>
#include <glib-unix.h>
#include <math.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

// Owned until the method channel is dropped.
FlEventChannel* event_channel = nullptr;

// What a method does from the main loop, after it has returned.
struct Deferred {
  FlMethodCall* call;
  void (*run)(FlMethodCall* call);
};

gboolean RunDeferred(gpointer data) {
  auto* deferred = static_cast<Deferred*>(data);
  deferred->run(deferred->call);
  g_object_unref(deferred->call);
  delete deferred;
  return G_SOURCE_REMOVE;
}

// Runs `run` before the next command, which the main loop gets to afterwards.
void RunSoon(FlMethodCall* call, void (*run)(FlMethodCall* call)) {
  g_idle_add(RunDeferred,
             new Deferred{FL_METHOD_CALL(g_object_ref(call)), run});
}

// Runs `run` when the next command has begun.
void RunLater(FlMethodCall* call, void (*run)(FlMethodCall* call)) {
  constexpr guint kMilliseconds = 50;
  g_timeout_add(kMilliseconds, RunDeferred,
                new Deferred{FL_METHOD_CALL(g_object_ref(call)), run});
}

void SendEvents(FlMethodCall* call) {
  FlValue* events = fl_method_call_get_args(call);
  for (size_t i = 0; i < fl_value_get_length(events); ++i) {
    fl_event_channel_send(event_channel, fl_value_get_list_value(events, i),
                          nullptr, nullptr);
  }
}

// Sends the events when the process gets SIGUSR1.
void SendEventsOnSignal(FlMethodCall* call) {
  g_unix_signal_add_full(
      G_PRIORITY_DEFAULT, SIGUSR1,
      [](gpointer data) -> gboolean {
        SendEvents(FL_METHOD_CALL(data));
        return G_SOURCE_REMOVE;
      },
      g_object_ref(call), g_object_unref);
}

volatile sig_atomic_t released = 0;

// Blocks the platform thread, as a silent device does, until the process gets
// SIGUSR2.
void Block() {
  released = 0;
  signal(SIGUSR2, [](int) { released = 1; });
  fputs("test plug-in: blocked\n", stderr);
  while (released == 0) poll(nullptr, 0, 1);
}

void BlockAndSucceed(FlMethodCall* call) {
  Block();
  fl_method_call_respond_success(call, nullptr, nullptr);
}

bool blocks_end = false;

void SendErrorEvent(FlMethodCall* call) {
  fl_event_channel_send_error(event_channel, "lost", "Connection lost",
                              fl_method_call_get_args(call), nullptr, nullptr);
}

void SendEndOfStream(FlMethodCall*) {
  fl_event_channel_send_end_of_stream(event_channel, nullptr, nullptr);
}

FlValue* OddValues() {
  const int32_t int32s[] = {1, -1};
  const int64_t int64s[] = {INT64_MIN, INT64_MAX};
  const float float32s[] = {0.5F};
  const double floats[] = {1.0, NAN, INFINITY, -INFINITY};
  FlValue* map = fl_value_new_map();
  fl_value_set_string_take(map, "int32", fl_value_new_int32_list(int32s, 2));
  fl_value_set_string_take(map, "int64", fl_value_new_int64_list(int64s, 2));
  fl_value_set_string_take(map, "float32",
                           fl_value_new_float32_list(float32s, 1));
  fl_value_set_string_take(map, "float", fl_value_new_float_list(floats, 4));
  fl_value_set_string_take(map, "broken", fl_value_new_string("a\xff"));
  fl_value_set_take(map, fl_value_new_int(5), fl_value_new_null());
  fl_value_set_take(map, fl_value_new_list(), fl_value_new_bool(true));
  return map;
}

// Writes into a pipe that nobody reads and returns the error's number.
FlValue* BrokenPipe() {
  int ends[2];
  if (pipe(ends) != 0) return fl_value_new_string("no pipe");
  close(ends[0]);
  const int error = write(ends[1], "x", 1) < 0 ? errno : 0;
  close(ends[1]);
  return fl_value_new_string(error == EPIPE ? "EPIPE" : "no error");
}

void Succeed(FlMethodCall* call, FlValue* result) {
  fl_method_call_respond_success(call, result, nullptr);
}

struct Method {
  const char* name;
  void (*run)(FlMethodCall* call);
};

const Method kMethods[] = {
    {"echo",
     [](FlMethodCall* call) { Succeed(call, fl_method_call_get_args(call)); }},
    {"oddValues",
     [](FlMethodCall* call) {
       g_autoptr(FlValue) values = OddValues();
       Succeed(call, values);
     }},
    {"brokenPipe",
     [](FlMethodCall* call) {
       g_autoptr(FlValue) error = BrokenPipe();
       Succeed(call, error);
     }},
    {"error",
     [](FlMethodCall* call) {
       fl_method_call_respond_error(call, "ECONN", "Not connected",
                                    fl_method_call_get_args(call), nullptr);
     }},
    {"bareError",
     [](FlMethodCall* call) {
       fl_method_call_respond_error(call, "ECONN", nullptr, nullptr, nullptr);
     }},
    {"answerLater",
     [](FlMethodCall* call) {
       RunLater(call, [](FlMethodCall* later) {
         Succeed(later, fl_method_call_get_args(later));
       });
     }},
    {"dropped", [](FlMethodCall*) {}},
    {"block", BlockAndSucceed},
    {"connect", BlockAndSucceed},
    {"bondDevice", BlockAndSucceed},
    {"write", BlockAndSucceed},
    {"blockEnd",
     [](FlMethodCall* call) {
       blocks_end = true;
       Succeed(call, nullptr);
     }},
    {"sendEvents",
     [](FlMethodCall* call) {
       SendEvents(call);
       Succeed(call, nullptr);
     }},
    {"sendEventsSoon",
     [](FlMethodCall* call) {
       RunSoon(call, SendEvents);
       Succeed(call, nullptr);
     }},
    {"sendEventsLater",
     [](FlMethodCall* call) {
       RunLater(call, SendEvents);
       Succeed(call, nullptr);
     }},
    {"sendEventsOnSignal",
     [](FlMethodCall* call) {
       SendEventsOnSignal(call);
       Succeed(call, nullptr);
     }},
    {"sendErrorLater",
     [](FlMethodCall* call) {
       RunLater(call, SendErrorEvent);
       Succeed(call, nullptr);
     }},
    {"sendEndLater",
     [](FlMethodCall* call) {
       RunLater(call, SendEndOfStream);
       Succeed(call, nullptr);
     }},
};

void OnMethodCall(FlMethodChannel*, FlMethodCall* call, gpointer) {
  for (const Method& method : kMethods) {
    if (strcmp(method.name, fl_method_call_get_name(call)) == 0) {
      method.run(call);
      return;
    }
  }
  fl_method_call_respond_not_implemented(call, nullptr);
}

FlMethodErrorResponse* OnListen(FlEventChannel*, FlValue*, gpointer) {
  return nullptr;
}

FlMethodErrorResponse* OnCancel(FlEventChannel*, FlValue*, gpointer) {
  return fl_method_error_response_new("busy", "Still needed", nullptr);
}

// Answers with bytes that are no envelope.
void OnRawMessage(FlBinaryMessenger* messenger, const gchar*, GBytes*,
                  FlBinaryMessengerResponseHandle* handle, gpointer) {
  g_autoptr(GBytes) answer = g_bytes_new("\x02", 1);
  fl_binary_messenger_send_response(messenger, handle, answer, nullptr);
}

void OnChannelDropped(gpointer) {
  if (blocks_end) Block();
  g_clear_object(&event_channel);
  fputs("test plug-in: dropped\n", stderr);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void
lumso_bluetooth_plugin_register_with_registrar(FlPluginRegistrar* registrar) {
  if (getenv("HOST_TEST_BLOCKS_START") != nullptr) Block();
  FlBinaryMessenger* messenger = fl_plugin_registrar_get_messenger(registrar);
  g_autoptr(FlStandardMethodCodec) codec = fl_standard_method_codec_new();
  g_autoptr(FlMethodChannel) methods = fl_method_channel_new(
      messenger, "lumso_bluetooth/methods", FL_METHOD_CODEC(codec));
  fl_method_channel_set_method_call_handler(methods, OnMethodCall, nullptr,
                                            OnChannelDropped);
  event_channel =
      fl_event_channel_new(messenger, "test/events", FL_METHOD_CODEC(codec));
  fl_event_channel_set_stream_handlers(event_channel, OnListen, OnCancel,
                                       nullptr, nullptr);
  fl_binary_messenger_set_message_handler_on_channel(
      messenger, "test/raw", OnRawMessage, nullptr, nullptr);
}
