#include "host/channel_codec.h"

namespace lumso_host {

BytesPtr EncodeMethodCall(const std::string& method, FlValue* args) {
  g_autoptr(FlStandardMethodCodec) standard = fl_standard_method_codec_new();
  FlMethodCodec* codec = FL_METHOD_CODEC(standard);
  g_autoptr(GError) error = nullptr;
  BytesPtr bytes(FL_METHOD_CODEC_GET_CLASS(codec)->encode_method_call(
      codec, method.c_str(), args, &error));
  if (bytes == nullptr) {
    g_warning("Method call %s cannot be encoded: %s", method.c_str(),
              error->message);
  }
  return bytes;
}

Envelope DecodeEnvelope(GBytes* bytes) {
  Envelope envelope;
  if (bytes == nullptr || g_bytes_get_size(bytes) == 0) return envelope;

  g_autoptr(FlStandardMethodCodec) standard = fl_standard_method_codec_new();
  FlMethodCodec* codec = FL_METHOD_CODEC(standard);
  g_autoptr(GError) error = nullptr;
  g_autoptr(FlMethodResponse) response =
      FL_METHOD_CODEC_GET_CLASS(codec)->decode_response(codec, bytes, &error);
  if (response == nullptr) {
    envelope.kind = Envelope::Kind::kMalformed;
    envelope.code = "malformed";
    envelope.message = error->message;
  } else if (FL_IS_METHOD_SUCCESS_RESPONSE(response)) {
    FlValue* value = fl_method_success_response_get_result(
        FL_METHOD_SUCCESS_RESPONSE(response));
    envelope.kind = Envelope::Kind::kSuccess;
    envelope.value.reset(value == nullptr ? fl_value_new_null()
                                          : fl_value_ref(value));
  } else {
    FlMethodErrorResponse* failure = FL_METHOD_ERROR_RESPONSE(response);
    const gchar* message = fl_method_error_response_get_message(failure);
    FlValue* details = fl_method_error_response_get_details(failure);
    envelope.kind = Envelope::Kind::kError;
    envelope.code = fl_method_error_response_get_code(failure);
    if (message != nullptr) envelope.message = message;
    if (details != nullptr) envelope.details.reset(fl_value_ref(details));
  }
  return envelope;
}

}  // namespace lumso_host
