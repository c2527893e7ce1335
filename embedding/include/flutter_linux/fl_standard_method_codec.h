#ifndef FLUTTER_LINUX_FL_STANDARD_METHOD_CODEC_H_
#define FLUTTER_LINUX_FL_STANDARD_METHOD_CODEC_H_

#ifndef FLUTTER_LINUX_INSIDE
#error "Include <flutter_linux/flutter_linux.h> only."
#endif

// The method codec on top of a standard message codec, its construct-only
// property "message-codec".
G_DECLARE_FINAL_TYPE(FlStandardMethodCodec, fl_standard_method_codec, FL,
                     STANDARD_METHOD_CODEC, FlMethodCodec)

FlStandardMethodCodec* fl_standard_method_codec_new(void);
FlStandardMethodCodec* fl_standard_method_codec_new_with_message_codec(
    FlStandardMessageCodec* message_codec);

#endif  // FLUTTER_LINUX_FL_STANDARD_METHOD_CODEC_H_
