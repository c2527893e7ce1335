// The public header of the lumso_bluetooth plug-in: a GObject type and the
// function that the embedder calls once per engine.

#ifndef LUMSO_BLUETOOTH_LUMSO_BLUETOOTH_PLUGIN_H_
#define LUMSO_BLUETOOTH_LUMSO_BLUETOOTH_PLUGIN_H_

#include <flutter_linux/flutter_linux.h>

G_BEGIN_DECLS

#ifdef FLUTTER_PLUGIN_IMPL
#define FLUTTER_PLUGIN_EXPORT __attribute__((visibility("default")))
#else
#define FLUTTER_PLUGIN_EXPORT
#endif

/**
 * LumsoBluetoothPlugin:
 *
 * One instance of the plug-in: a type derived from #GObject, without properties
 * and signals. Applications talk to it through its platform
 * channels only.
 */
typedef struct _LumsoBluetoothPlugin LumsoBluetoothPlugin;

/**
 * LumsoBluetoothPluginClass:
 *
 * The class of #LumsoBluetoothPlugin, without members of its own.
 */
typedef struct {
  GObjectClass parent_class;
} LumsoBluetoothPluginClass;

/**
 * lumso_bluetooth_plugin_get_type:
 *
 * Gives the type of #LumsoBluetoothPlugin and registers it on first use. Safe
 * on any thread.
 *
 * Returns: the #GType, valid for the life of the process.
 */
FLUTTER_PLUGIN_EXPORT GType lumso_bluetooth_plugin_get_type(void);

/**
 * lumso_bluetooth_plugin_register_with_registrar:
 * @registrar: (transfer none): the registrar of the engine to serve; an
 *   #FlPluginRegistrar of the Flutter Linux embedding.
 *
 * Creates one plug-in instance and its platform channels on the registrar's
 * messenger. Call it once per engine, on the platform thread (the thread of the
 * default GLib main context), as generated registrants do. It makes up to four
 * synchronous D-Bus calls, a few milliseconds as a rule and at most 25 s each:
 * with a daemon that hangs it returns after 50 s, 25 for the list of adapters
 * and 25 for the end of the agent. Connecting to a bus that accepts and then
 * keeps silent has no bound. Without a system bus or BlueZ daemon it writes the
 * reason to standard error; with a daemon but no adapter it is silent. In each
 * case the channels still answer, with neutral values ("connect" with an
 * error).
 *
 * It changes two things outside the plug-in. The process's connection to the
 * system bus, which g_bus_get() shares, no longer ends the process when the bus
 * is lost (g_dbus_connection_set_exit_on_close()). And an agent is registered
 * with the daemon, which is asked to make it the default agent of the machine:
 * while the instance lives, pairings that devices begin are accepted and no
 * person is asked (BlueZ's org.bluez.AgentManager1).
 *
 * The instance lives as long as the messenger keeps the channels' handlers,
 * which is until the engine shuts down.
 */
FLUTTER_PLUGIN_EXPORT void lumso_bluetooth_plugin_register_with_registrar(
    FlPluginRegistrar* registrar);

G_END_DECLS

#endif  // LUMSO_BLUETOOTH_LUMSO_BLUETOOTH_PLUGIN_H_
