#ifndef FLUTTER_LINUX_FL_METHOD_CODEC_H_
#define FLUTTER_LINUX_FL_METHOD_CODEC_H_

#ifndef FLUTTER_LINUX_INSIDE
#error "Include <flutter_linux/flutter_linux.h> only."
#endif

// Turns method calls and their answers into messages and back.
G_DECLARE_DERIVABLE_TYPE(FlMethodCodec, fl_method_codec, FL, METHOD_CODEC,
                         GObject)

struct _FlMethodCodecClass {
  GObjectClass parent_class;

  GBytes* (*encode_method_call)(FlMethodCodec* codec, const gchar* name,
                                FlValue* args, GError** error);
  gboolean (*decode_method_call)(FlMethodCodec* codec, GBytes* message,
                                 gchar** name, FlValue** args, GError** error);
  GBytes* (*encode_success_envelope)(FlMethodCodec* codec, FlValue* result,
                                     GError** error);
  GBytes* (*encode_error_envelope)(FlMethodCodec* codec, const gchar* code,
                                   const gchar* message, FlValue* details,
                                   GError** error);
  FlMethodResponse* (*decode_response)(FlMethodCodec* codec, GBytes* message,
                                       GError** error);
};

#endif  // FLUTTER_LINUX_FL_METHOD_CODEC_H_
