// FlMessageCodec and FlStandardMessageCodec.

#include <flutter_linux/flutter_linux.h>
#include <pthread.h>
#include <string.h>

#include <limits>
#include <utility>
#include <vector>

// The type bytes of the standard message codec.
static constexpr uint8_t kNull = 0x00;
static constexpr uint8_t kTrue = 0x01;
static constexpr uint8_t kFalse = 0x02;
static constexpr uint8_t kInt32 = 0x03;
static constexpr uint8_t kInt64 = 0x04;
static constexpr uint8_t kFloat64 = 0x06;
static constexpr uint8_t kString = 0x07;
static constexpr uint8_t kUint8List = 0x08;
static constexpr uint8_t kInt32List = 0x09;
static constexpr uint8_t kInt64List = 0x0a;
static constexpr uint8_t kFloat64List = 0x0b;
static constexpr uint8_t kList = 0x0c;
static constexpr uint8_t kMap = 0x0d;
static constexpr uint8_t kFloat32List = 0x0e;

// A size below kSize16 is its own byte; these two announce a longer one.
static constexpr uint8_t kSize16 = 254;
static constexpr uint8_t kSize32 = 255;

G_DEFINE_QUARK(fl_message_codec_error_quark, fl_message_codec_error)

G_DEFINE_TYPE(FlMessageCodec, fl_message_codec, G_TYPE_OBJECT)

G_DEFINE_TYPE(FlStandardMessageCodec, fl_standard_message_codec,
              fl_message_codec_get_type())

static void AppendBytes(GByteArray* buffer, const void* data, size_t size) {
  if (size > 0) {
    g_byte_array_append(buffer, static_cast<const guint8*>(data),
                        static_cast<guint>(size));
  }
}

template <typename T>
static void AppendScalar(GByteArray* buffer, T value) {
  AppendBytes(buffer, &value, sizeof(value));
}

static void AppendPadding(GByteArray* buffer, size_t alignment) {
  while (buffer->len % alignment != 0) {
    AppendScalar(buffer, uint8_t{0});
  }
}

// Appends a list of numbers, from its type byte on.
template <typename T>
static void AppendNumbers(FlStandardMessageCodec* codec, GByteArray* buffer,
                          uint8_t type, const T* data, size_t length) {
  AppendScalar(buffer, type);
  fl_standard_message_codec_write_size(codec, buffer,
                                       static_cast<uint32_t>(length));
  AppendPadding(buffer, sizeof(T));
  AppendBytes(buffer, data, length * sizeof(T));
}

static void AppendInt(GByteArray* buffer, int64_t value) {
  if (value >= std::numeric_limits<int32_t>::min() &&
      value <= std::numeric_limits<int32_t>::max()) {
    AppendScalar(buffer, kInt32);
    AppendScalar(buffer, static_cast<int32_t>(value));
  } else {
    AppendScalar(buffer, kInt64);
    AppendScalar(buffer, value);
  }
}

static void AppendFloat(GByteArray* buffer, double value) {
  AppendScalar(buffer, kFloat64);
  AppendPadding(buffer, sizeof(value));
  AppendScalar(buffer, value);
}

// A string without a text crashes the SDK's codec; here too, in so many words.
static void AppendString(FlStandardMessageCodec* codec, GByteArray* buffer,
                         const gchar* text) {
  if (text == nullptr) {
    g_error("A string value without a text cannot be encoded");
  }
  AppendNumbers(codec, buffer, kString, reinterpret_cast<const uint8_t*>(text),
                strlen(text));
}

static gboolean AppendList(FlStandardMessageCodec* codec, GByteArray* buffer,
                           FlValue* list, GError** error) {
  size_t length = fl_value_get_length(list);
  AppendScalar(buffer, kList);
  fl_standard_message_codec_write_size(codec, buffer,
                                       static_cast<uint32_t>(length));
  for (size_t i = 0; i < length; i++) {
    if (!fl_standard_message_codec_write_value(
            codec, buffer, fl_value_get_list_value(list, i), error)) {
      return FALSE;
    }
  }
  return TRUE;
}

static gboolean AppendMap(FlStandardMessageCodec* codec, GByteArray* buffer,
                          FlValue* map, GError** error) {
  size_t length = fl_value_get_length(map);
  AppendScalar(buffer, kMap);
  fl_standard_message_codec_write_size(codec, buffer,
                                       static_cast<uint32_t>(length));
  for (size_t i = 0; i < length; i++) {
    if (!fl_standard_message_codec_write_value(
            codec, buffer, fl_value_get_map_key(map, i), error) ||
        !fl_standard_message_codec_write_value(
            codec, buffer, fl_value_get_map_value(map, i), error)) {
      return FALSE;
    }
  }
  return TRUE;
}

// Moves past `count` elements of `element_size` bytes and points `data` at
// them. The pointer is as aligned as the buffer happens to be.
static gboolean Take(GBytes* buffer, size_t* offset, size_t count,
                     size_t element_size, const uint8_t** data,
                     GError** error) {
  gsize size = 0;
  const auto* start =
      static_cast<const uint8_t*>(g_bytes_get_data(buffer, &size));
  if (*offset > size || count > (size - *offset) / element_size) {
    g_set_error_literal(error, FL_MESSAGE_CODEC_ERROR,
                        FL_MESSAGE_CODEC_ERROR_OUT_OF_DATA,
                        "Unexpected end of data");
    return FALSE;
  }
  *data = start + *offset;
  *offset += count * element_size;
  return TRUE;
}

template <typename T>
static gboolean ReadScalar(GBytes* buffer, size_t* offset, T* value,
                           GError** error) {
  const uint8_t* data = nullptr;
  if (!Take(buffer, offset, 1, sizeof(T), &data, error)) {
    return FALSE;
  }
  memcpy(value, data, sizeof(T));
  return TRUE;
}

// Returns the address down to which the calling thread's stack is for reading.
static const char* EndOfReadingStack() {
  pthread_attr_t attributes;
  void* lowest = nullptr;
  size_t size = 0;
  pthread_getattr_np(pthread_self(), &attributes);
  pthread_attr_getstack(&attributes, &lowest, &size);
  pthread_attr_destroy(&attributes);
  return static_cast<const char*>(lowest) + size - size / 8;
}

// The SDK reads nested values until the stack ends, and the process with it.
// Here most of the stack is kept back: freeing, comparing, printing and writing
// such a value nest as deep, and in some builds take more for each level.
static gboolean CheckNesting(GError** error) {
  static thread_local const char* const end = EndOfReadingStack();
  if (static_cast<const char*>(__builtin_frame_address(0)) > end) {
    return TRUE;
  }
  g_set_error_literal(error, FL_MESSAGE_CODEC_ERROR,
                      FL_MESSAGE_CODEC_ERROR_FAILED,
                      "Values nested too deeply");
  return FALSE;
}

static void SkipPadding(size_t* offset, size_t alignment) {
  *offset = (*offset + alignment - 1) / alignment * alignment;
}

template <typename T>
static FlValue* ReadInt(GBytes* buffer, size_t* offset, GError** error) {
  T value = 0;
  return ReadScalar(buffer, offset, &value, error) ? fl_value_new_int(value)
                                                   : nullptr;
}

static FlValue* ReadFloat(GBytes* buffer, size_t* offset, GError** error) {
  double value = 0;
  SkipPadding(offset, sizeof(value));
  return ReadScalar(buffer, offset, &value, error) ? fl_value_new_float(value)
                                                   : nullptr;
}

static FlValue* ReadString(FlStandardMessageCodec* codec, GBytes* buffer,
                           size_t* offset, GError** error) {
  uint32_t length = 0;
  const uint8_t* data = nullptr;
  if (!fl_standard_message_codec_read_size(codec, buffer, offset, &length,
                                           error) ||
      !Take(buffer, offset, length, 1, &data, error)) {
    return nullptr;
  }
  return fl_value_new_string_sized(reinterpret_cast<const gchar*>(data),
                                   length);
}

// Reads a list of numbers and hands it to one of the value constructors.
template <typename T>
static FlValue* ReadNumbers(FlStandardMessageCodec* codec, GBytes* buffer,
                            size_t* offset,
                            FlValue* (*create)(const T*, size_t),
                            GError** error) {
  uint32_t length = 0;
  if (!fl_standard_message_codec_read_size(codec, buffer, offset, &length,
                                           error)) {
    return nullptr;
  }
  SkipPadding(offset, sizeof(T));
  const uint8_t* data = nullptr;
  if (!Take(buffer, offset, length, sizeof(T), &data, error)) {
    return nullptr;
  }
  if constexpr (sizeof(T) == 1) {
    return create(data, length);
  } else {
    std::vector<T> aligned(length);
    if (length > 0) {
      memcpy(aligned.data(), data, length * sizeof(T));
    }
    return create(aligned.data(), length);
  }
}

static FlValue* ReadList(FlStandardMessageCodec* codec, GBytes* buffer,
                         size_t* offset, GError** error) {
  uint32_t length = 0;
  if (!fl_standard_message_codec_read_size(codec, buffer, offset, &length,
                                           error)) {
    return nullptr;
  }
  g_autoptr(FlValue) list = fl_value_new_list();
  for (uint32_t i = 0; i < length; i++) {
    FlValue* child =
        fl_standard_message_codec_read_value(codec, buffer, offset, error);
    if (child == nullptr) {
      return nullptr;
    }
    fl_value_append_take(list, child);
  }
  return std::exchange(list, nullptr);
}

static FlValue* ReadMap(FlStandardMessageCodec* codec, GBytes* buffer,
                        size_t* offset, GError** error) {
  uint32_t length = 0;
  if (!fl_standard_message_codec_read_size(codec, buffer, offset, &length,
                                           error)) {
    return nullptr;
  }
  g_autoptr(FlValue) map = fl_value_new_map();
  for (uint32_t i = 0; i < length; i++) {
    g_autoptr(FlValue) key =
        fl_standard_message_codec_read_value(codec, buffer, offset, error);
    if (key == nullptr) {
      return nullptr;
    }
    g_autoptr(FlValue) value =
        fl_standard_message_codec_read_value(codec, buffer, offset, error);
    if (value == nullptr) {
      return nullptr;
    }
    fl_value_set(map, key, value);
  }
  return std::exchange(map, nullptr);
}

static gboolean fl_standard_message_codec_real_write_value(
    FlStandardMessageCodec* codec, GByteArray* buffer, FlValue* value,
    GError** error) {
  if (value == nullptr) {
    AppendScalar(buffer, kNull);
    return TRUE;
  }
  size_t length = 0;
  switch (fl_value_get_type(value)) {
    case FL_VALUE_TYPE_NULL:
      AppendScalar(buffer, kNull);
      return TRUE;
    case FL_VALUE_TYPE_BOOL:
      AppendScalar(buffer, fl_value_get_bool(value) ? kTrue : kFalse);
      return TRUE;
    case FL_VALUE_TYPE_INT:
      AppendInt(buffer, fl_value_get_int(value));
      return TRUE;
    case FL_VALUE_TYPE_FLOAT:
      AppendFloat(buffer, fl_value_get_float(value));
      return TRUE;
    case FL_VALUE_TYPE_STRING:
      AppendString(codec, buffer, fl_value_get_string(value));
      return TRUE;
    case FL_VALUE_TYPE_UINT8_LIST:
      length = fl_value_get_length(value);
      AppendNumbers(codec, buffer, kUint8List, fl_value_get_uint8_list(value),
                    length);
      return TRUE;
    case FL_VALUE_TYPE_INT32_LIST:
      length = fl_value_get_length(value);
      AppendNumbers(codec, buffer, kInt32List, fl_value_get_int32_list(value),
                    length);
      return TRUE;
    case FL_VALUE_TYPE_INT64_LIST:
      length = fl_value_get_length(value);
      AppendNumbers(codec, buffer, kInt64List, fl_value_get_int64_list(value),
                    length);
      return TRUE;
    case FL_VALUE_TYPE_FLOAT32_LIST:
      length = fl_value_get_length(value);
      AppendNumbers(codec, buffer, kFloat32List,
                    fl_value_get_float32_list(value), length);
      return TRUE;
    case FL_VALUE_TYPE_FLOAT_LIST:
      length = fl_value_get_length(value);
      AppendNumbers(codec, buffer, kFloat64List, fl_value_get_float_list(value),
                    length);
      return TRUE;
    case FL_VALUE_TYPE_LIST:
      return AppendList(codec, buffer, value, error);
    case FL_VALUE_TYPE_MAP:
      return AppendMap(codec, buffer, value, error);
    case FL_VALUE_TYPE_CUSTOM:
      break;
  }
  g_set_error_literal(error, FL_MESSAGE_CODEC_ERROR,
                      FL_MESSAGE_CODEC_ERROR_UNSUPPORTED_TYPE,
                      "Custom value not implemented");
  return FALSE;
}

// Not inlined: what these types need on the stack would be there once for each
// level of nesting.
[[gnu::noinline]] static FlValue* ReadFlatValue(FlStandardMessageCodec* codec,
                                                GBytes* buffer, size_t* offset,
                                                int type, GError** error) {
  switch (type) {
    case kNull:
      return fl_value_new_null();
    case kTrue:
      return fl_value_new_bool(true);
    case kFalse:
      return fl_value_new_bool(false);
    case kInt32:
      return ReadInt<int32_t>(buffer, offset, error);
    case kInt64:
      return ReadInt<int64_t>(buffer, offset, error);
    case kFloat64:
      return ReadFloat(buffer, offset, error);
    case kString:
      return ReadString(codec, buffer, offset, error);
    case kUint8List:
      return ReadNumbers(codec, buffer, offset, fl_value_new_uint8_list, error);
    case kInt32List:
      return ReadNumbers(codec, buffer, offset, fl_value_new_int32_list, error);
    case kInt64List:
      return ReadNumbers(codec, buffer, offset, fl_value_new_int64_list, error);
    case kFloat64List:
      return ReadNumbers(codec, buffer, offset, fl_value_new_float_list, error);
    case kFloat32List:
      return ReadNumbers(codec, buffer, offset, fl_value_new_float32_list,
                         error);
    default:
      g_set_error(error, FL_MESSAGE_CODEC_ERROR,
                  FL_MESSAGE_CODEC_ERROR_UNSUPPORTED_TYPE,
                  "Unexpected standard codec type %02x",
                  static_cast<unsigned>(type));
      return nullptr;
  }
}

static FlValue* fl_standard_message_codec_real_read_value_of_type(
    FlStandardMessageCodec* codec, GBytes* buffer, size_t* offset, int type,
    GError** error) {
  switch (type) {
    case kList:
      return ReadList(codec, buffer, offset, error);
    case kMap:
      return ReadMap(codec, buffer, offset, error);
    default:
      return ReadFlatValue(codec, buffer, offset, type, error);
  }
}

static GBytes* fl_standard_message_codec_encode_message(FlMessageCodec* codec,
                                                        FlValue* message,
                                                        GError** error) {
  g_autoptr(GByteArray) buffer = g_byte_array_new();
  if (!fl_standard_message_codec_write_value(FL_STANDARD_MESSAGE_CODEC(codec),
                                             buffer, message, error)) {
    return nullptr;
  }
  return g_byte_array_free_to_bytes(std::exchange(buffer, nullptr));
}

static FlValue* fl_standard_message_codec_decode_message(FlMessageCodec* codec,
                                                         GBytes* message,
                                                         GError** error) {
  size_t size = message != nullptr ? g_bytes_get_size(message) : 0;
  if (size == 0) {
    return fl_value_new_null();
  }
  size_t offset = 0;
  g_autoptr(FlValue) value = fl_standard_message_codec_read_value(
      FL_STANDARD_MESSAGE_CODEC(codec), message, &offset, error);
  if (value == nullptr) {
    return nullptr;
  }
  if (offset != size) {
    g_set_error(error, FL_MESSAGE_CODEC_ERROR,
                FL_MESSAGE_CODEC_ERROR_ADDITIONAL_DATA,
                "Unused %" G_GSIZE_FORMAT " bytes after standard message",
                size - offset);
    return nullptr;
  }
  return std::exchange(value, nullptr);
}

static void fl_message_codec_class_init(FlMessageCodecClass*) {}

static void fl_message_codec_init(FlMessageCodec*) {}

static void fl_standard_message_codec_class_init(
    FlStandardMessageCodecClass* klass) {
  klass->write_value = fl_standard_message_codec_real_write_value;
  klass->read_value_of_type = fl_standard_message_codec_real_read_value_of_type;
  FlMessageCodecClass* codec_class = FL_MESSAGE_CODEC_CLASS(klass);
  codec_class->encode_message = fl_standard_message_codec_encode_message;
  codec_class->decode_message = fl_standard_message_codec_decode_message;
}

static void fl_standard_message_codec_init(FlStandardMessageCodec*) {}

GBytes* fl_message_codec_encode_message(FlMessageCodec* codec, FlValue* message,
                                        GError** error) {
  g_return_val_if_fail(FL_IS_MESSAGE_CODEC(codec), nullptr);
  return FL_MESSAGE_CODEC_GET_CLASS(codec)->encode_message(codec, message,
                                                           error);
}

FlValue* fl_message_codec_decode_message(FlMessageCodec* codec, GBytes* message,
                                         GError** error) {
  g_return_val_if_fail(FL_IS_MESSAGE_CODEC(codec), nullptr);
  return FL_MESSAGE_CODEC_GET_CLASS(codec)->decode_message(codec, message,
                                                           error);
}

FlStandardMessageCodec* fl_standard_message_codec_new() {
  return FL_STANDARD_MESSAGE_CODEC(
      g_object_new(fl_standard_message_codec_get_type(), nullptr));
}

void fl_standard_message_codec_write_size(FlStandardMessageCodec* codec,
                                          GByteArray* buffer, uint32_t size) {
  g_return_if_fail(FL_IS_STANDARD_MESSAGE_CODEC(codec));
  g_return_if_fail(buffer != nullptr);
  if (size < kSize16) {
    AppendScalar(buffer, static_cast<uint8_t>(size));
  } else if (size <= std::numeric_limits<uint16_t>::max()) {
    AppendScalar(buffer, kSize16);
    AppendScalar(buffer, static_cast<uint16_t>(size));
  } else {
    AppendScalar(buffer, kSize32);
    AppendScalar(buffer, size);
  }
}

gboolean fl_standard_message_codec_read_size(FlStandardMessageCodec* codec,
                                             GBytes* buffer, size_t* offset,
                                             uint32_t* value, GError** error) {
  g_return_val_if_fail(FL_IS_STANDARD_MESSAGE_CODEC(codec), FALSE);
  g_return_val_if_fail(buffer != nullptr, FALSE);
  uint8_t size8 = 0;
  if (!ReadScalar(buffer, offset, &size8, error)) {
    return FALSE;
  }
  if (size8 == kSize32) {
    return ReadScalar(buffer, offset, value, error);
  }
  uint16_t size16 = size8;
  if (size8 == kSize16 && !ReadScalar(buffer, offset, &size16, error)) {
    return FALSE;
  }
  *value = size16;
  return TRUE;
}

gboolean fl_standard_message_codec_write_value(FlStandardMessageCodec* codec,
                                               GByteArray* buffer,
                                               FlValue* value, GError** error) {
  g_return_val_if_fail(FL_IS_STANDARD_MESSAGE_CODEC(codec), FALSE);
  g_return_val_if_fail(buffer != nullptr, FALSE);
  return FL_STANDARD_MESSAGE_CODEC_GET_CLASS(codec)->write_value(codec, buffer,
                                                                 value, error);
}

FlValue* fl_standard_message_codec_read_value(FlStandardMessageCodec* codec,
                                              GBytes* buffer, size_t* offset,
                                              GError** error) {
  g_return_val_if_fail(FL_IS_STANDARD_MESSAGE_CODEC(codec), nullptr);
  g_return_val_if_fail(buffer != nullptr, nullptr);
  uint8_t type = 0;
  if (!ReadScalar(buffer, offset, &type, error) || !CheckNesting(error)) {
    return nullptr;
  }
  return FL_STANDARD_MESSAGE_CODEC_GET_CLASS(codec)->read_value_of_type(
      codec, buffer, offset, type, error);
}
