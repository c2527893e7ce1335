// Any bytes through the standard codec's three readers. What can be read can be
// written, and comes back as the same value and the same bytes.

#include <flutter_linux/flutter_linux.h>

#include "host/channel_codec.h"
#include "tests/fuzz/fuzz.h"

using lumso_fuzz::Check;
using lumso_host::BytesPtr;
using lumso_host::ValuePtr;

namespace {

// Compares like fl_value_equal(), except that a value which holds a NaN, and so
// does not even equal itself, is left to the comparison of the bytes.
bool Same(FlValue* a, FlValue* b) {
  return fl_value_equal(a, b) || !fl_value_equal(a, a);
}

void FuzzMessage(GBytes* bytes) {
  g_autoptr(FlStandardMessageCodec) standard = fl_standard_message_codec_new();
  FlMessageCodec* codec = FL_MESSAGE_CODEC(standard);
  g_autoptr(GError) error = nullptr;
  const ValuePtr value(fl_message_codec_decode_message(codec, bytes, &error));
  Check((value == nullptr) == (error != nullptr), "a value or an error");
  if (value == nullptr) return;
  g_autofree gchar* text = fl_value_to_string(value.get());
  Check(text != nullptr, "every value has a text");

  const BytesPtr written(
      fl_message_codec_encode_message(codec, value.get(), &error));
  Check(written != nullptr, "what was read can be written");
  const ValuePtr again(
      fl_message_codec_decode_message(codec, written.get(), &error));
  Check(again != nullptr && Same(value.get(), again.get()),
        "a message comes back as the same value");
  const BytesPtr rewritten(
      fl_message_codec_encode_message(codec, again.get(), &error));
  Check(g_bytes_equal(written.get(), rewritten.get()),
        "a value comes back as the same bytes");
}

void FuzzMethodCall(FlMethodCodec* codec, GBytes* bytes) {
  FlMethodCodecClass* codec_class = FL_METHOD_CODEC_GET_CLASS(codec);
  g_autofree gchar* name = nullptr;
  g_autoptr(FlValue) args = nullptr;
  g_autoptr(GError) error = nullptr;
  const bool read =
      codec_class->decode_method_call(codec, bytes, &name, &args, &error);
  Check(read == (error == nullptr), "a call or an error");
  Check(read == (name != nullptr) && read == (args != nullptr),
        "a call has a name and arguments");
  if (!read) return;

  const BytesPtr written(
      codec_class->encode_method_call(codec, name, args, &error));
  Check(written != nullptr, "a call that was read can be written");
  g_autofree gchar* name_again = nullptr;
  g_autoptr(FlValue) args_again = nullptr;
  Check(codec_class->decode_method_call(codec, written.get(), &name_again,
                                        &args_again, &error) &&
            g_str_equal(name, name_again) && Same(args, args_again),
        "a call comes back as it was");
}

// Returns the bytes of an answer of one of the two kinds that have any.
BytesPtr EncodeResponse(FlMethodCodec* codec, FlMethodResponse* response) {
  FlMethodCodecClass* codec_class = FL_METHOD_CODEC_GET_CLASS(codec);
  if (FL_IS_METHOD_SUCCESS_RESPONSE(response)) {
    return BytesPtr(codec_class->encode_success_envelope(
        codec,
        fl_method_success_response_get_result(
            FL_METHOD_SUCCESS_RESPONSE(response)),
        nullptr));
  }
  FlMethodErrorResponse* failure = FL_METHOD_ERROR_RESPONSE(response);
  return BytesPtr(codec_class->encode_error_envelope(
      codec, fl_method_error_response_get_code(failure),
      fl_method_error_response_get_message(failure),
      fl_method_error_response_get_details(failure), nullptr));
}

void FuzzResponse(FlMethodCodec* codec, GBytes* bytes) {
  FlMethodCodecClass* codec_class = FL_METHOD_CODEC_GET_CLASS(codec);
  g_autoptr(GError) error = nullptr;
  g_autoptr(FlMethodResponse) response =
      codec_class->decode_response(codec, bytes, &error);
  Check((response == nullptr) == (error != nullptr), "an answer or an error");
  if (response == nullptr) return;

  const BytesPtr written = EncodeResponse(codec, response);
  g_autoptr(FlMethodResponse) again =
      codec_class->decode_response(codec, written.get(), &error);
  Check(again != nullptr && G_OBJECT_TYPE(response) == G_OBJECT_TYPE(again) &&
            g_bytes_equal(written.get(), EncodeResponse(codec, again).get()),
        "an answer comes back as it was");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  g_log_set_default_handler(lumso_fuzz::EndOnCritical, nullptr);
  const BytesPtr bytes(g_bytes_new(data, size));
  g_autoptr(FlStandardMethodCodec) codec = fl_standard_method_codec_new();
  FuzzMessage(bytes.get());
  FuzzMethodCall(FL_METHOD_CODEC(codec), bytes.get());
  FuzzResponse(FL_METHOD_CODEC(codec), bytes.get());
  return 0;
}
