#ifndef FLUTTER_LINUX_FL_PLUGIN_REGISTRAR_H_
#define FLUTTER_LINUX_FL_PLUGIN_REGISTRAR_H_

#ifndef FLUTTER_LINUX_INSIDE
#error "Include <flutter_linux/flutter_linux.h> only."
#endif

// What an engine offers to one plug-in.
G_DECLARE_INTERFACE(FlPluginRegistrar, fl_plugin_registrar, FL,
                    PLUGIN_REGISTRAR, GObject)

struct _FlPluginRegistrarInterface {
  GTypeInterface parent_iface;

  FlBinaryMessenger* (*get_messenger)(FlPluginRegistrar* registrar);
  FlTextureRegistrar* (*get_texture_registrar)(FlPluginRegistrar* registrar);
  FlView* (*get_view)(FlPluginRegistrar* registrar);
};

// The view is null when there is none.
FlBinaryMessenger* fl_plugin_registrar_get_messenger(
    FlPluginRegistrar* registrar);
FlTextureRegistrar* fl_plugin_registrar_get_texture_registrar(
    FlPluginRegistrar* registrar);
FlView* fl_plugin_registrar_get_view(FlPluginRegistrar* registrar);

#endif  // FLUTTER_LINUX_FL_PLUGIN_REGISTRAR_H_
