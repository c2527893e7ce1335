// The one public header of the embedding. This is a stand-in for development
// without an SDK; it declares what this project uses, as the SDK declares it,
// except that FlView stays opaque so that no GTK is needed.
//
// Everything runs on the platform thread (the thread of the default GLib main
// context); only answering a message is allowed on any thread. A programming
// error writes one CRITICAL without a log domain and returns a neutral value.
// Results are borrowed unless a comment says that the caller owns them.

#ifndef FLUTTER_LINUX_FLUTTER_LINUX_H_
#define FLUTTER_LINUX_FLUTTER_LINUX_H_

#ifndef FLUTTER_LINUX_STAND_IN
#error "This is a stand-in: link the CMake target `flutter`, or use an SDK."
#endif

#include <gio/gio.h>
#include <glib-object.h>
#include <gmodule.h>
#include <stdbool.h>
#include <stdint.h>

#define FLUTTER_LINUX_INSIDE
#pragma GCC visibility push(default)
G_BEGIN_DECLS

// Each header builds on the ones before it.
// clang-format off
#include <flutter_linux/fl_value.h>
#include <flutter_linux/fl_binary_messenger.h>
#include <flutter_linux/fl_message_codec.h>
#include <flutter_linux/fl_standard_message_codec.h>
#include <flutter_linux/fl_method_response.h>
#include <flutter_linux/fl_method_codec.h>
#include <flutter_linux/fl_standard_method_codec.h>
#include <flutter_linux/fl_method_call.h>
#include <flutter_linux/fl_method_channel.h>
#include <flutter_linux/fl_event_channel.h>
#include <flutter_linux/fl_texture_registrar.h>
#include <flutter_linux/fl_view.h>
#include <flutter_linux/fl_plugin_registrar.h>
#include <flutter_linux/fl_plugin_registry.h>
// clang-format on

G_END_DECLS
#pragma GCC visibility pop
#undef FLUTTER_LINUX_INSIDE

#endif  // FLUTTER_LINUX_FLUTTER_LINUX_H_
