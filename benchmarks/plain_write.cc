#include <unistd.h>

#include <algorithm>

#include "benchmarks/plain.h"

namespace lumso_bench {

PlainWrite::PlainWrite(FlBinaryMessenger* messenger, int id, int fd) {
  sockets_[id] = fd;
  g_autoptr(FlStandardMethodCodec) codec = fl_standard_method_codec_new();
  channel_ =
      fl_method_channel_new(messenger, kPlainMethods, FL_METHOD_CODEC(codec));
  fl_method_channel_set_method_call_handler(channel_, OnCall, this, nullptr);
}

PlainWrite::~PlainWrite() {
  fl_method_channel_set_method_call_handler(channel_, nullptr, nullptr,
                                            nullptr);
  g_object_unref(channel_);
}

void PlainWrite::OnCall(FlMethodChannel*, FlMethodCall* call,
                        gpointer user_data) {
  auto* self = static_cast<PlainWrite*>(user_data);
  FlValue* args = fl_method_call_get_args(call);
  const auto id = static_cast<int32_t>(
      fl_value_get_int(fl_value_lookup_string(args, "id")));
  FlValue* bytes = fl_value_lookup_string(args, "bytes");
  const uint8_t* data = fl_value_get_uint8_list(bytes);
  const size_t count = fl_value_get_length(bytes);
  size_t written = 0;
  {
    const std::lock_guard<std::mutex> lock(self->mutex_);
    const int fd = self->sockets_.find(id)->second;
    while (written < count) {
      const ssize_t slice =
          write(fd, data + written, std::min<size_t>(count - written, 4096));
      if (slice <= 0) break;
      written += static_cast<size_t>(slice);
    }
  }
  g_autoptr(FlValue) result = fl_value_new_bool(written == count);
  g_autoptr(FlMethodResponse) response =
      FL_METHOD_RESPONSE(fl_method_success_response_new(result));
  fl_method_call_respond(call, response, nullptr);
}

}  // namespace lumso_bench
