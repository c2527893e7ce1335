// FlMethodCodec and FlStandardMethodCodec.

#include <utility>

#include "fl_method_codec_private.h"

// The first byte of an answer.
static constexpr uint8_t kSuccessEnvelope = 0;
static constexpr uint8_t kErrorEnvelope = 1;

struct _FlStandardMethodCodec {
  FlMethodCodec parent_instance;

  // Writes and reads the values. Never null once constructed.
  FlStandardMessageCodec* message_codec;
};

enum { kPropMessageCodec = 1 };

G_DEFINE_TYPE(FlMethodCodec, fl_method_codec, G_TYPE_OBJECT)

G_DEFINE_TYPE(FlStandardMethodCodec, fl_standard_method_codec,
              fl_method_codec_get_type())

static FlStandardMessageCodec* MessageCodec(FlMethodCodec* codec) {
  return FL_STANDARD_METHOD_CODEC(codec)->message_codec;
}

static gboolean WriteValue(FlMethodCodec* codec, GByteArray* buffer,
                           FlValue* value, GError** error) {
  return fl_standard_message_codec_write_value(MessageCodec(codec), buffer,
                                               value, error);
}

// Writes a text, or the null value for a null pointer.
static gboolean WriteText(FlMethodCodec* codec, GByteArray* buffer,
                          const gchar* text, GError** error) {
  g_autoptr(FlValue) value =
      text != nullptr ? fl_value_new_string(text) : fl_value_new_null();
  return WriteValue(codec, buffer, value, error);
}

static FlValue* ReadValue(FlMethodCodec* codec, GBytes* message, size_t* offset,
                          GError** error) {
  return fl_standard_message_codec_read_value(MessageCodec(codec), message,
                                              offset, error);
}

static void SetFailed(GError** error, const gchar* text) {
  g_set_error_literal(error, FL_MESSAGE_CODEC_ERROR,
                      FL_MESSAGE_CODEC_ERROR_FAILED, text);
}

static gboolean CheckEnd(GBytes* message, size_t offset, GError** error) {
  if (offset != g_bytes_get_size(message)) {
    SetFailed(error, "Unexpected extra data");
    return FALSE;
  }
  return TRUE;
}

static GBytes* fl_standard_method_codec_encode_method_call(FlMethodCodec* codec,
                                                           const gchar* name,
                                                           FlValue* args,
                                                           GError** error) {
  g_autoptr(GByteArray) buffer = g_byte_array_new();
  if (!WriteText(codec, buffer, name, error) ||
      !WriteValue(codec, buffer, args, error)) {
    return nullptr;
  }
  return g_byte_array_free_to_bytes(std::exchange(buffer, nullptr));
}

static gboolean fl_standard_method_codec_decode_method_call(
    FlMethodCodec* codec, GBytes* message, gchar** name, FlValue** args,
    GError** error) {
  size_t offset = 0;
  g_autoptr(FlValue) name_value = ReadValue(codec, message, &offset, error);
  if (name_value == nullptr) {
    return FALSE;
  }
  if (fl_value_get_type(name_value) != FL_VALUE_TYPE_STRING) {
    SetFailed(error, "Method call name wrong type");
    return FALSE;
  }
  g_autoptr(FlValue) args_value = ReadValue(codec, message, &offset, error);
  if (args_value == nullptr || !CheckEnd(message, offset, error)) {
    return FALSE;
  }
  *name = g_strdup(fl_value_get_string(name_value));
  *args = std::exchange(args_value, nullptr);
  return TRUE;
}

static GBytes* fl_standard_method_codec_encode_success_envelope(
    FlMethodCodec* codec, FlValue* result, GError** error) {
  g_autoptr(GByteArray) buffer = g_byte_array_new();
  g_byte_array_append(buffer, &kSuccessEnvelope, 1);
  if (!WriteValue(codec, buffer, result, error)) {
    return nullptr;
  }
  return g_byte_array_free_to_bytes(std::exchange(buffer, nullptr));
}

static GBytes* fl_standard_method_codec_encode_error_envelope(
    FlMethodCodec* codec, const gchar* code, const gchar* message,
    FlValue* details, GError** error) {
  g_autoptr(GByteArray) buffer = g_byte_array_new();
  g_byte_array_append(buffer, &kErrorEnvelope, 1);
  if (!WriteText(codec, buffer, code, error) ||
      !WriteText(codec, buffer, message, error) ||
      !WriteValue(codec, buffer, details, error)) {
    return nullptr;
  }
  return g_byte_array_free_to_bytes(std::exchange(buffer, nullptr));
}

static FlMethodResponse* DecodeSuccess(FlMethodCodec* codec, GBytes* message,
                                       GError** error) {
  size_t offset = 1;
  g_autoptr(FlValue) result = ReadValue(codec, message, &offset, error);
  if (result == nullptr || !CheckEnd(message, offset, error)) {
    return nullptr;
  }
  return FL_METHOD_RESPONSE(fl_method_success_response_new(result));
}

static FlMethodResponse* DecodeError(FlMethodCodec* codec, GBytes* message,
                                     GError** error) {
  size_t offset = 1;
  g_autoptr(FlValue) code = ReadValue(codec, message, &offset, error);
  if (code == nullptr) {
    return nullptr;
  }
  if (fl_value_get_type(code) != FL_VALUE_TYPE_STRING) {
    SetFailed(error, "Error code wrong type");
    return nullptr;
  }
  g_autoptr(FlValue) text = ReadValue(codec, message, &offset, error);
  if (text == nullptr) {
    return nullptr;
  }
  bool has_text = fl_value_get_type(text) == FL_VALUE_TYPE_STRING;
  if (!has_text && fl_value_get_type(text) != FL_VALUE_TYPE_NULL) {
    SetFailed(error, "Error message wrong type");
    return nullptr;
  }
  g_autoptr(FlValue) details = ReadValue(codec, message, &offset, error);
  if (details == nullptr || !CheckEnd(message, offset, error)) {
    return nullptr;
  }
  bool has_details = fl_value_get_type(details) != FL_VALUE_TYPE_NULL;
  return FL_METHOD_RESPONSE(fl_method_error_response_new(
      fl_value_get_string(code), has_text ? fl_value_get_string(text) : nullptr,
      has_details ? details : nullptr));
}

static FlMethodResponse* fl_standard_method_codec_decode_response(
    FlMethodCodec* codec, GBytes* message, GError** error) {
  gsize size = 0;
  const auto* data =
      static_cast<const uint8_t*>(g_bytes_get_data(message, &size));
  if (size == 0) {
    g_set_error_literal(error, FL_MESSAGE_CODEC_ERROR,
                        FL_MESSAGE_CODEC_ERROR_OUT_OF_DATA, "Empty response");
    return nullptr;
  }
  switch (data[0]) {
    case kSuccessEnvelope:
      return DecodeSuccess(codec, message, error);
    case kErrorEnvelope:
      return DecodeError(codec, message, error);
    default:
      g_set_error(error, FL_MESSAGE_CODEC_ERROR, FL_MESSAGE_CODEC_ERROR_FAILED,
                  "Unknown envelope type %02x", static_cast<unsigned>(data[0]));
      return nullptr;
  }
}

static void fl_standard_method_codec_set_property(GObject* object, guint id,
                                                  const GValue* value,
                                                  GParamSpec* property) {
  if (id != kPropMessageCodec) {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property);
    return;
  }
  FlStandardMethodCodec* self = FL_STANDARD_METHOD_CODEC(object);
  gpointer message_codec = g_value_dup_object(value);
  self->message_codec = message_codec != nullptr
                            ? FL_STANDARD_MESSAGE_CODEC(message_codec)
                            : fl_standard_message_codec_new();
}

static void fl_standard_method_codec_get_property(GObject* object, guint id,
                                                  GValue* value,
                                                  GParamSpec* property) {
  if (id != kPropMessageCodec) {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property);
    return;
  }
  g_value_set_object(value, FL_STANDARD_METHOD_CODEC(object)->message_codec);
}

static void fl_standard_method_codec_dispose(GObject* object) {
  g_clear_object(&FL_STANDARD_METHOD_CODEC(object)->message_codec);
  G_OBJECT_CLASS(fl_standard_method_codec_parent_class)->dispose(object);
}

static void fl_method_codec_class_init(FlMethodCodecClass*) {}

static void fl_method_codec_init(FlMethodCodec*) {}

static void fl_standard_method_codec_class_init(
    FlStandardMethodCodecClass* klass) {
  GObjectClass* object_class = G_OBJECT_CLASS(klass);
  object_class->set_property = fl_standard_method_codec_set_property;
  object_class->get_property = fl_standard_method_codec_get_property;
  object_class->dispose = fl_standard_method_codec_dispose;
  g_object_class_install_property(
      object_class, kPropMessageCodec,
      g_param_spec_object(
          "message-codec", "message-codec", "Message codec to use",
          fl_standard_message_codec_get_type(),
          static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_CONSTRUCT_ONLY |
                                   G_PARAM_STATIC_STRINGS)));

  FlMethodCodecClass* codec_class = FL_METHOD_CODEC_CLASS(klass);
  codec_class->encode_method_call = fl_standard_method_codec_encode_method_call;
  codec_class->decode_method_call = fl_standard_method_codec_decode_method_call;
  codec_class->encode_success_envelope =
      fl_standard_method_codec_encode_success_envelope;
  codec_class->encode_error_envelope =
      fl_standard_method_codec_encode_error_envelope;
  codec_class->decode_response = fl_standard_method_codec_decode_response;
}

static void fl_standard_method_codec_init(FlStandardMethodCodec*) {}

FlStandardMethodCodec* fl_standard_method_codec_new() {
  g_autoptr(FlStandardMessageCodec) message_codec =
      fl_standard_message_codec_new();
  return fl_standard_method_codec_new_with_message_codec(message_codec);
}

FlStandardMethodCodec* fl_standard_method_codec_new_with_message_codec(
    FlStandardMessageCodec* message_codec) {
  g_return_val_if_fail(FL_IS_STANDARD_MESSAGE_CODEC(message_codec), nullptr);
  return FL_STANDARD_METHOD_CODEC(
      g_object_new(fl_standard_method_codec_get_type(), "message-codec",
                   message_codec, nullptr));
}

GBytes* fl_method_codec_encode_method_call(FlMethodCodec* codec,
                                           const gchar* name, FlValue* args,
                                           GError** error) {
  return FL_METHOD_CODEC_GET_CLASS(codec)->encode_method_call(codec, name, args,
                                                              error);
}

gboolean fl_method_codec_decode_method_call(FlMethodCodec* codec,
                                            GBytes* message, gchar** name,
                                            FlValue** args, GError** error) {
  return FL_METHOD_CODEC_GET_CLASS(codec)->decode_method_call(
      codec, message, name, args, error);
}

GBytes* fl_method_codec_encode_success_envelope(FlMethodCodec* codec,
                                                FlValue* result,
                                                GError** error) {
  return FL_METHOD_CODEC_GET_CLASS(codec)->encode_success_envelope(
      codec, result, error);
}

GBytes* fl_method_codec_encode_error_envelope(FlMethodCodec* codec,
                                              const gchar* code,
                                              const gchar* message,
                                              FlValue* details,
                                              GError** error) {
  return FL_METHOD_CODEC_GET_CLASS(codec)->encode_error_envelope(
      codec, code, message, details, error);
}

FlMethodResponse* fl_method_codec_decode_response(FlMethodCodec* codec,
                                                  GBytes* message,
                                                  GError** error) {
  if (g_bytes_get_size(message) == 0) {
    return FL_METHOD_RESPONSE(fl_method_not_implemented_response_new());
  }
  return FL_METHOD_CODEC_GET_CLASS(codec)->decode_response(codec, message,
                                                           error);
}

gboolean fl_method_codec_encode_response(FlMethodCodec* codec,
                                         FlMethodResponse* response,
                                         GBytes** message, GError** error) {
  if (FL_IS_METHOD_SUCCESS_RESPONSE(response)) {
    *message = fl_method_codec_encode_success_envelope(
        codec,
        fl_method_success_response_get_result(
            FL_METHOD_SUCCESS_RESPONSE(response)),
        error);
    return *message != nullptr;
  }
  if (FL_IS_METHOD_ERROR_RESPONSE(response)) {
    FlMethodErrorResponse* failure = FL_METHOD_ERROR_RESPONSE(response);
    *message = fl_method_codec_encode_error_envelope(
        codec, fl_method_error_response_get_code(failure),
        fl_method_error_response_get_message(failure),
        fl_method_error_response_get_details(failure), error);
    return *message != nullptr;
  }
  *message = nullptr;
  g_return_val_if_fail(FL_IS_METHOD_NOT_IMPLEMENTED_RESPONSE(response), FALSE);
  return TRUE;
}
