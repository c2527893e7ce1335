#ifndef FLUTTER_LINUX_FL_STANDARD_MESSAGE_CODEC_H_
#define FLUTTER_LINUX_FL_STANDARD_MESSAGE_CODEC_H_

#ifndef FLUTTER_LINUX_INSIDE
#error "Include <flutter_linux/flutter_linux.h> only."
#endif

// The standard bytes of a value, in host byte order. Derive from it to encode
// custom values.
G_DECLARE_DERIVABLE_TYPE(FlStandardMessageCodec, fl_standard_message_codec, FL,
                         STANDARD_MESSAGE_CODEC, FlMessageCodec)

struct _FlStandardMessageCodecClass {
  FlMessageCodecClass parent_class;

  gboolean (*write_value)(FlStandardMessageCodec* codec, GByteArray* buffer,
                          FlValue* value, GError** error);
  // Reads what follows the type byte.
  FlValue* (*read_value_of_type)(FlStandardMessageCodec* codec, GBytes* buffer,
                                 size_t* offset, int type, GError** error);
};

FlStandardMessageCodec* fl_standard_message_codec_new(void);

// Writers append. Alignment counts from the start of the buffer, readers' from
// offset 0, so a buffer holds a whole message. Readers advance the offset; the
// caller owns the value read. How deep values may nest is up to the stack: an
// eighth of it is for reading them.
void fl_standard_message_codec_write_size(FlStandardMessageCodec* codec,
                                          GByteArray* buffer, uint32_t size);
gboolean fl_standard_message_codec_read_size(FlStandardMessageCodec* codec,
                                             GBytes* buffer, size_t* offset,
                                             uint32_t* value, GError** error);
gboolean fl_standard_message_codec_write_value(FlStandardMessageCodec* codec,
                                               GByteArray* buffer,
                                               FlValue* value, GError** error);
FlValue* fl_standard_message_codec_read_value(FlStandardMessageCodec* codec,
                                              GBytes* buffer, size_t* offset,
                                              GError** error);

#endif  // FLUTTER_LINUX_FL_STANDARD_MESSAGE_CODEC_H_
