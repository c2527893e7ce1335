// The application's side of the standard method codec: encodes method calls,
// decodes answers and events. Only the embedding's public interface is used.
// For the platform thread.

#ifndef LUMSO_BLUETOOTH_HOST_CHANNEL_CODEC_H_
#define LUMSO_BLUETOOTH_HOST_CHANNEL_CODEC_H_

#include <flutter_linux/flutter_linux.h>

#include <memory>
#include <optional>
#include <string>

namespace lumso_host {

struct ValueUnref {
  void operator()(FlValue* value) const { fl_value_unref(value); }
};
using ValuePtr = std::unique_ptr<FlValue, ValueUnref>;

struct BytesUnref {
  void operator()(GBytes* bytes) const { g_bytes_unref(bytes); }
};
using BytesPtr = std::unique_ptr<GBytes, BytesUnref>;

// What an answer to a method call, or an event, says.
struct Envelope {
  enum class Kind {
    kSuccess,    // `value` is the result or the event.
    kError,      // `code`, `message` and `details`.
    kEmpty,      // An answer: not implemented. An event: end of stream.
    kMalformed,  // `code` is "malformed", `message` says what is wrong.
  };

  Kind kind = Kind::kEmpty;
  ValuePtr value;  // Never null for kSuccess.
  std::string code;
  std::optional<std::string> message;
  ValuePtr details;  // Null when there are none.
};

// Returns the message that calls `method`; null `args` are sent as the null
// value. Returns null after a warning when `args` cannot be encoded.
BytesPtr EncodeMethodCall(const std::string& method, FlValue* args);

// Decodes an answer or an event; `bytes` may be null, which is the same as
// empty.
Envelope DecodeEnvelope(GBytes* bytes);

}  // namespace lumso_host

#endif  // LUMSO_BLUETOOTH_HOST_CHANNEL_CODEC_H_
