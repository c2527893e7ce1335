// What the channels call on a method codec; not exported, as in the SDK.

#ifndef LUMSO_BLUETOOTH_EMBEDDING_FL_METHOD_CODEC_PRIVATE_H_
#define LUMSO_BLUETOOTH_EMBEDDING_FL_METHOD_CODEC_PRIVATE_H_

#include <flutter_linux/flutter_linux.h>

GBytes* fl_method_codec_encode_method_call(FlMethodCodec* codec,
                                           const gchar* name, FlValue* args,
                                           GError** error);

// The caller owns name and args, neither is null after success.
gboolean fl_method_codec_decode_method_call(FlMethodCodec* codec,
                                            GBytes* message, gchar** name,
                                            FlValue** args, GError** error);

GBytes* fl_method_codec_encode_success_envelope(FlMethodCodec* codec,
                                                FlValue* result,
                                                GError** error);

GBytes* fl_method_codec_encode_error_envelope(FlMethodCodec* codec,
                                              const gchar* code,
                                              const gchar* message,
                                              FlValue* details, GError** error);

// Decodes an answer of any kind; an empty one, which no codec gets to see,
// means not implemented.
FlMethodResponse* fl_method_codec_decode_response(FlMethodCodec* codec,
                                                  GBytes* message,
                                                  GError** error);

// Encodes a response of any type: `message`, owned by the caller, is null for
// not implemented, which is the empty answer.
gboolean fl_method_codec_encode_response(FlMethodCodec* codec,
                                         FlMethodResponse* response,
                                         GBytes** message, GError** error);

#endif  // LUMSO_BLUETOOTH_EMBEDDING_FL_METHOD_CODEC_PRIVATE_H_
