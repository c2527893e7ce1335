#ifndef FLUTTER_LINUX_FL_MESSAGE_CODEC_H_
#define FLUTTER_LINUX_FL_MESSAGE_CODEC_H_

#ifndef FLUTTER_LINUX_INSIDE
#error "Include <flutter_linux/flutter_linux.h> only."
#endif

#define FL_MESSAGE_CODEC_ERROR fl_message_codec_error_quark()

typedef enum {
  FL_MESSAGE_CODEC_ERROR_FAILED,
  FL_MESSAGE_CODEC_ERROR_OUT_OF_DATA,
  FL_MESSAGE_CODEC_ERROR_ADDITIONAL_DATA,
  FL_MESSAGE_CODEC_ERROR_UNSUPPORTED_TYPE,
} FlMessageCodecError;

GQuark fl_message_codec_error_quark(void) G_GNUC_CONST;

// Turns one value into a message and back.
G_DECLARE_DERIVABLE_TYPE(FlMessageCodec, fl_message_codec, FL, MESSAGE_CODEC,
                         GObject)

struct _FlMessageCodecClass {
  GObjectClass parent_class;

  GBytes* (*encode_message)(FlMessageCodec* codec, FlValue* message,
                            GError** error);
  FlValue* (*decode_message)(FlMessageCodec* codec, GBytes* message,
                             GError** error);
};

// The caller owns the results. A null value encodes as the null value.
GBytes* fl_message_codec_encode_message(FlMessageCodec* codec, FlValue* message,
                                        GError** error);
FlValue* fl_message_codec_decode_message(FlMessageCodec* codec, GBytes* message,
                                         GError** error);

#endif  // FLUTTER_LINUX_FL_MESSAGE_CODEC_H_
