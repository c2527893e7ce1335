#ifndef FLUTTER_LINUX_FL_PLUGIN_REGISTRY_H_
#define FLUTTER_LINUX_FL_PLUGIN_REGISTRY_H_

#ifndef FLUTTER_LINUX_INSIDE
#error "Include <flutter_linux/flutter_linux.h> only."
#endif

// Hands out registrars, one per plug-in.
G_DECLARE_INTERFACE(FlPluginRegistry, fl_plugin_registry, FL, PLUGIN_REGISTRY,
                    GObject)

struct _FlPluginRegistryInterface {
  GTypeInterface g_iface;

  FlPluginRegistrar* (*get_registrar_for_plugin)(FlPluginRegistry* registry,
                                                 const gchar* name);
};

// A new registrar, owned by the caller.
FlPluginRegistrar* fl_plugin_registry_get_registrar_for_plugin(
    FlPluginRegistry* registry, const gchar* name);

#endif  // FLUTTER_LINUX_FL_PLUGIN_REGISTRY_H_
