#ifndef FLUTTER_LINUX_FL_TEXTURE_REGISTRAR_H_
#define FLUTTER_LINUX_FL_TEXTURE_REGISTRAR_H_

#ifndef FLUTTER_LINUX_INSIDE
#error "Include <flutter_linux/flutter_linux.h> only."
#endif

// Part of the registrar's interface; the stand-in has no textures, so nothing
// can implement it.
G_DECLARE_INTERFACE(FlTextureRegistrar, fl_texture_registrar, FL,
                    TEXTURE_REGISTRAR, GObject)

#endif  // FLUTTER_LINUX_FL_TEXTURE_REGISTRAR_H_
