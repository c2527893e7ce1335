#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <thread>

#include "tests/unit/embedding_test_util.h"

// A codec of the cases' own: custom values of type 128 travel as that type byte
// and a value.
G_DECLARE_FINAL_TYPE(TestMessageCodec, test_message_codec, TEST, MESSAGE_CODEC,
                     FlStandardMessageCodec)

struct _TestMessageCodec {
  FlStandardMessageCodec parent_instance;
};

G_DEFINE_TYPE(TestMessageCodec, test_message_codec,
              fl_standard_message_codec_get_type())

static constexpr uint8_t kTestType = 128;

static gboolean test_message_codec_write_value(FlStandardMessageCodec* codec,
                                               GByteArray* buffer,
                                               FlValue* value, GError** error) {
  if (value != nullptr && fl_value_get_type(value) == FL_VALUE_TYPE_CUSTOM &&
      fl_value_get_custom_type(value) == kTestType) {
    g_byte_array_append(buffer, &kTestType, 1);
    gpointer content = const_cast<gpointer>(fl_value_get_custom_value(value));
    return fl_standard_message_codec_write_value(
        codec, buffer, static_cast<FlValue*>(content), error);
  }
  return FL_STANDARD_MESSAGE_CODEC_CLASS(test_message_codec_parent_class)
      ->write_value(codec, buffer, value, error);
}

static void UnrefContent(gpointer content) {
  fl_value_unref(static_cast<FlValue*>(content));
}

static FlValue* test_message_codec_read_value_of_type(
    FlStandardMessageCodec* codec, GBytes* buffer, size_t* offset, int type,
    GError** error) {
  if (type == kTestType) {
    FlValue* content =
        fl_standard_message_codec_read_value(codec, buffer, offset, error);
    return content != nullptr
               ? fl_value_new_custom(kTestType, content, UnrefContent)
               : nullptr;
  }
  return FL_STANDARD_MESSAGE_CODEC_CLASS(test_message_codec_parent_class)
      ->read_value_of_type(codec, buffer, offset, type, error);
}

static void test_message_codec_class_init(TestMessageCodecClass* klass) {
  FL_STANDARD_MESSAGE_CODEC_CLASS(klass)->write_value =
      test_message_codec_write_value;
  FL_STANDARD_MESSAGE_CODEC_CLASS(klass)->read_value_of_type =
      test_message_codec_read_value_of_type;
}

static void test_message_codec_init(TestMessageCodec*) {}

namespace {

struct Vector {
  FlValue* value;
  const char* hex;
};

template <typename... Values>
FlValue* NewList(Values... values) {
  FlValue* list = fl_value_new_list();
  (fl_value_append_take(list, values), ...);
  return list;
}

FlValue* NewMap(
    std::initializer_list<std::pair<const char*, FlValue*>> entries) {
  FlValue* map = fl_value_new_map();
  for (const auto& [key, value] : entries) {
    fl_value_set_string_take(map, key, value);
  }
  return map;
}

// Every type with its bytes, for a little-endian machine.
std::vector<Vector> NewVectors() {
  const uint8_t uint8[] = {0xde, 0xad};
  const int32_t int32[] = {1, -1};
  const int64_t int64[] = {1};
  const float float32[] = {1.0F};
  const double float64[] = {1.0};
  return {
      {fl_value_new_null(), "00"},
      {fl_value_new_bool(true), "01"},
      {fl_value_new_bool(false), "02"},
      {fl_value_new_int(0), "03 00 00 00 00"},
      {fl_value_new_int(-1), "03 ff ff ff ff"},
      {fl_value_new_int(2147483647), "03 ff ff ff 7f"},
      {fl_value_new_int(2147483648), "04 00 00 00 80 00 00 00 00"},
      {fl_value_new_int(-2147483648LL), "03 00 00 00 80"},
      {fl_value_new_int(-2147483649LL), "04 ff ff ff 7f ff ff ff ff"},
      {fl_value_new_float(3.14),
       "06 00 00 00 00 00 00 00 1f 85 eb 51 b8 1e 09 40"},
      {fl_value_new_string(""), "07 00"},
      {fl_value_new_string("hi"), "07 02 68 69"},
      {fl_value_new_string("h\u00e9"), "07 03 68 c3 a9"},
      {fl_value_new_string("\xff"), "07 01 ff"},
      {fl_value_new_uint8_list(nullptr, 0), "08 00"},
      {fl_value_new_uint8_list(uint8, 2), "08 02 de ad"},
      {fl_value_new_int32_list(nullptr, 0), "09 00 00 00"},
      {fl_value_new_int32_list(int32, 2),
       "09 02 00 00 01 00 00 00 ff ff ff ff"},
      {fl_value_new_int64_list(int64, 1),
       "0a 01 00 00 00 00 00 00 01 00 00 00 00 00 00 00"},
      {fl_value_new_float32_list(float32, 1), "0e 01 00 00 00 00 80 3f"},
      {fl_value_new_float_list(float64, 1),
       "0b 01 00 00 00 00 00 00 00 00 00 00 00 00 f0 3f"},
      {fl_value_new_list(), "0c 00"},
      {NewList(fl_value_new_int(1), fl_value_new_string("a")),
       "0c 02 03 01 00 00 00 07 01 61"},
      {fl_value_new_map(), "0d 00"},
      {NewMap({{"b", fl_value_new_int(1)}, {"a", fl_value_new_null()}}),
       "0d 02 07 01 62 03 01 00 00 00 07 01 61 00"},
      {NewList(fl_value_new_bool(true), fl_value_new_float(1.0)),
       "0c 02 01 06 00 00 00 00 00 00 00 00 00 00 f0 3f"},
  };
}

FlValue* Decode(const std::string& hex, GError** error) {
  g_autoptr(FlStandardMessageCodec) codec = fl_standard_message_codec_new();
  g_autoptr(GBytes) message = FromHex(hex);
  return fl_message_codec_decode_message(FL_MESSAGE_CODEC(codec), message,
                                         error);
}

std::string Encode(FlValue* value) {
  g_autoptr(FlStandardMessageCodec) codec = fl_standard_message_codec_new();
  g_autoptr(GError) error = nullptr;
  g_autoptr(GBytes) message =
      fl_message_codec_encode_message(FL_MESSAGE_CODEC(codec), value, &error);
  return error == nullptr ? ToHex(message) : error->message;
}

void ExpectDecodeError(const std::string& hex, int code, const char* text) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(FlValue) value = Decode(hex, &error);
  EXPECT_EQ(value, nullptr) << hex;
  ASSERT_NE(error, nullptr) << hex;
  EXPECT_TRUE(g_error_matches(error, FL_MESSAGE_CODEC_ERROR, code)) << hex;
  EXPECT_STREQ(error->message, text) << hex;
}

}  // namespace

TEST(StandardMessageCodec, WritesEveryType) {
  for (const Vector& vector : NewVectors()) {
    EXPECT_EQ(Encode(vector.value), vector.hex);
    fl_value_unref(vector.value);
  }
}

TEST(StandardMessageCodec, ReadsEveryType) {
  for (const Vector& vector : NewVectors()) {
    g_autoptr(GError) error = nullptr;
    g_autoptr(FlValue) value = Decode(vector.hex, &error);
    ASSERT_NE(value, nullptr) << vector.hex << ": " << error->message;
    EXPECT_TRUE(fl_value_equal(value, vector.value)) << vector.hex;
    EXPECT_EQ(Encode(value), vector.hex);
    fl_value_unref(vector.value);
  }
}

TEST(StandardMessageCodec, WritesSizesInOneThreeOrFiveBytes) {
  const std::pair<size_t, const char*> sizes[] = {
      {253, "08 fd 00"},
      {254, "08 fe fe 00 00"},
      {65535, "08 fe ff ff 00"},
      {65536, "08 ff 00 00 01 00 00"}};
  g_autoptr(FlStandardMessageCodec) codec = fl_standard_message_codec_new();
  for (const auto& [size, start] : sizes) {
    std::vector<uint8_t> zeros(size);
    g_autoptr(FlValue) list = fl_value_new_uint8_list(zeros.data(), size);
    g_autoptr(GBytes) message =
        fl_message_codec_encode_message(FL_MESSAGE_CODEC(codec), list, nullptr);
    EXPECT_EQ(ToHex(message).substr(0, strlen(start)), start);
    g_autoptr(FlValue) decoded = fl_message_codec_decode_message(
        FL_MESSAGE_CODEC(codec), message, nullptr);
    EXPECT_TRUE(fl_value_equal(decoded, list)) << size;
  }
}

TEST(StandardMessageCodec, ReadsSizesOfAnyWidth) {
  g_autoptr(FlStandardMessageCodec) codec = fl_standard_message_codec_new();
  const std::pair<const char*, uint32_t> sizes[] = {
      {"fd", 253}, {"fe 01 00", 1}, {"ff ff ff ff ff", 0xffffffff}};
  for (const auto& [hex, expected] : sizes) {
    g_autoptr(GBytes) buffer = FromHex(hex);
    size_t offset = 0;
    uint32_t size = 0;
    EXPECT_TRUE(fl_standard_message_codec_read_size(codec, buffer, &offset,
                                                    &size, nullptr));
    EXPECT_EQ(size, expected);
    EXPECT_EQ(offset, g_bytes_get_size(buffer));
  }
  for (const char* hex : {"", "fe", "fe 00", "ff 00 00 00"}) {
    g_autoptr(GBytes) buffer = FromHex(hex);
    size_t offset = 0;
    uint32_t size = 0;
    g_autoptr(GError) error = nullptr;
    EXPECT_FALSE(fl_standard_message_codec_read_size(codec, buffer, &offset,
                                                     &size, &error));
    EXPECT_TRUE(g_error_matches(error, FL_MESSAGE_CODEC_ERROR,
                                FL_MESSAGE_CODEC_ERROR_OUT_OF_DATA));
  }
}

TEST(StandardMessageCodec, WritesAMissingValueAsNull) {
  EXPECT_EQ(Encode(nullptr), "00");
}

TEST(StandardMessageCodec, ReadsAnEmptyMessageAsNull) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(FlValue) value = Decode("", &error);
  ASSERT_NE(value, nullptr);
  EXPECT_EQ(fl_value_get_type(value), FL_VALUE_TYPE_NULL);
}

TEST(StandardMessageCodec, RefusesEveryTruncation) {
  for (const Vector& vector : NewVectors()) {
    const std::string hex = vector.hex;
    for (size_t length = 2; length < hex.size(); length += 3) {
      ExpectDecodeError(hex.substr(0, length),
                        FL_MESSAGE_CODEC_ERROR_OUT_OF_DATA,
                        "Unexpected end of data");
    }
    fl_value_unref(vector.value);
  }
}

TEST(StandardMessageCodec, RefusesLeftOverBytes) {
  ExpectDecodeError("00 00", FL_MESSAGE_CODEC_ERROR_ADDITIONAL_DATA,
                    "Unused 1 bytes after standard message");
  ExpectDecodeError("07 00 01 02 03", FL_MESSAGE_CODEC_ERROR_ADDITIONAL_DATA,
                    "Unused 3 bytes after standard message");
}

TEST(StandardMessageCodec, RefusesUnknownTypes) {
  ExpectDecodeError("05 02 66 66", FL_MESSAGE_CODEC_ERROR_UNSUPPORTED_TYPE,
                    "Unexpected standard codec type 05");
  for (int type = 0x0f; type <= 0xff; type++) {
    char hex[3];
    snprintf(hex, sizeof(hex), "%02x", static_cast<unsigned>(type));
    const std::string text =
        std::string("Unexpected standard codec type ") + hex;
    ExpectDecodeError(hex, FL_MESSAGE_CODEC_ERROR_UNSUPPORTED_TYPE,
                      text.c_str());
  }
}

TEST(StandardMessageCodec, BelievesNoSizeBeyondTheMessage) {
  for (const char* type : {"07", "08", "09", "0a", "0b", "0c", "0d", "0e"}) {
    for (const char* size : {"ff ff ff ff ff", "ff 00 00 00 80", "fe ff ff"}) {
      ExpectDecodeError(std::string(type) + " " + size + " 00 00 00",
                        FL_MESSAGE_CODEC_ERROR_OUT_OF_DATA,
                        "Unexpected end of data");
    }
  }
}

TEST(StandardMessageCodec, RefusesCustomValues) {
  g_autoptr(FlStandardMessageCodec) codec = fl_standard_message_codec_new();
  g_autoptr(FlValue) list =
      NewList(fl_value_new_int(1), fl_value_new_custom(128, nullptr, nullptr));
  g_autoptr(GError) error = nullptr;
  EXPECT_EQ(
      fl_message_codec_encode_message(FL_MESSAGE_CODEC(codec), list, &error),
      nullptr);
  EXPECT_TRUE(g_error_matches(error, FL_MESSAGE_CODEC_ERROR,
                              FL_MESSAGE_CODEC_ERROR_UNSUPPORTED_TYPE));
  EXPECT_STREQ(error->message, "Custom value not implemented");
}

TEST(StandardMessageCodecDeathTest, EndsTheProcessForAStringWithoutAText) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  g_autoptr(FlValue) value = fl_value_new_string(nullptr);
  EXPECT_DEATH(Encode(value), "");
}

TEST(StandardMessageCodec, LetsTheLastOfEqualKeysWin) {
  g_autoptr(FlValue) map = Decode("0d 02 07 01 61 01 07 01 61 02", nullptr);
  ASSERT_NE(map, nullptr);
  EXPECT_EQ(ToText(map), "{a: false}");
}

TEST(StandardMessageCodec, CutsTextAtANul) {
  g_autoptr(FlValue) text = Decode("07 03 61 00 62", nullptr);
  ASSERT_NE(text, nullptr);
  EXPECT_STREQ(fl_value_get_string(text), "a");
}

TEST(StandardMessageCodec, AlignsFromTheStartOfTheBuffer) {
  g_autoptr(FlStandardMessageCodec) codec = fl_standard_message_codec_new();
  g_autoptr(GByteArray) buffer = g_byte_array_new();
  const uint8_t before[] = {1, 2, 3, 4, 5, 6, 7};
  g_byte_array_append(buffer, before, sizeof(before));
  g_autoptr(FlValue) value = fl_value_new_float(1.0);
  ASSERT_TRUE(
      fl_standard_message_codec_write_value(codec, buffer, value, nullptr));
  g_autoptr(GBytes) message =
      g_byte_array_free_to_bytes(g_steal_pointer(&buffer));
  EXPECT_EQ(ToHex(message), "01 02 03 04 05 06 07 06 00 00 00 00 00 00 f0 3f");
  size_t offset = sizeof(before);
  g_autoptr(FlValue) decoded =
      fl_standard_message_codec_read_value(codec, message, &offset, nullptr);
  EXPECT_TRUE(fl_value_equal(decoded, value));
  EXPECT_EQ(offset, g_bytes_get_size(message));
}

TEST(StandardMessageCodec, ReadsFromMemoryOfAnyAlignment) {
  g_autoptr(FlStandardMessageCodec) codec = fl_standard_message_codec_new();
  for (const Vector& vector : NewVectors()) {
    g_autoptr(GBytes) padded = FromHex(std::string("00 ") + vector.hex);
    g_autoptr(GBytes) message =
        g_bytes_new_from_bytes(padded, 1, g_bytes_get_size(padded) - 1);
    g_autoptr(FlValue) value = fl_message_codec_decode_message(
        FL_MESSAGE_CODEC(codec), message, nullptr);
    ASSERT_NE(value, nullptr) << vector.hex;
    EXPECT_TRUE(fl_value_equal(value, vector.value)) << vector.hex;
    fl_value_unref(vector.value);
  }
}

TEST(StandardMessageCodec, NeverCrashesOnRandomBytes) {
  g_autoptr(FlStandardMessageCodec) codec = fl_standard_message_codec_new();
  std::mt19937 random(1);
  int decoded = 0;
  for (int round = 0; round < 20000; round++) {
    std::vector<uint8_t> bytes(1 + random() % 32);
    for (uint8_t& byte : bytes) {
      byte = static_cast<uint8_t>(random() % 16);
    }
    g_autoptr(GBytes) message = g_bytes_new(bytes.data(), bytes.size());
    g_autoptr(GError) error = nullptr;
    g_autoptr(FlValue) value = fl_message_codec_decode_message(
        FL_MESSAGE_CODEC(codec), message, &error);
    ASSERT_NE(value == nullptr, error == nullptr) << ToHex(message);
    decoded += value != nullptr ? 1 : 0;
  }
  EXPECT_GT(decoded, 0);
}

TEST(StandardMessageCodec, ReadsAndWritesNestedValues) {
  std::string hex;
  for (int depth = 0; depth < 600; depth++) {
    hex += "0c 01 0d 01 00 ";
  }
  hex += "00";
  g_autoptr(FlValue) value = Decode(hex, nullptr);
  ASSERT_NE(value, nullptr);
  EXPECT_EQ(Encode(value), hex);
}

#ifdef FLUTTER_LINUX_STAND_IN
// On a thread of its own: the stack of the first one may be unlimited.
TEST(StandardMessageCodec, RefusesToNestUntilTheStackEnds) {
  std::thread([] {
    for (const char* nest : {"0c 01 ", "0d 01 ", "0d 01 00 "}) {
      std::string hex;
      for (int depth = 0; depth < 200000; depth++) {
        hex += nest;
      }
      ExpectDecodeError(hex, FL_MESSAGE_CODEC_ERROR_FAILED,
                        "Values nested too deeply");
    }
    g_autoptr(FlValue) value = Decode("0c 00", nullptr);
    EXPECT_NE(value, nullptr);
  }).join();
}

// Reads `nest` as often inside itself as the codec takes it. Transfer full.
static FlValue* ReadDeepest(FlMessageCodec* codec,
                            const std::vector<uint8_t>& nest, size_t* depth) {
  FlValue* deepest = nullptr;
  *depth = 0;
  for (size_t step = size_t{1} << 20; step > 0; step /= 2) {
    std::vector<uint8_t> bytes;
    for (size_t level = 0; level < *depth + step; level++) {
      bytes.insert(bytes.end(), nest.begin(), nest.end());
    }
    bytes.push_back(0);
    g_autoptr(GBytes) message = g_bytes_new(bytes.data(), bytes.size());
    FlValue* deeper = fl_message_codec_decode_message(codec, message, nullptr);
    if (deeper == nullptr) continue;
    g_clear_pointer(&deepest, fl_value_unref);
    deepest = deeper;
    *depth += step;
  }
  return deepest;
}

TEST(StandardMessageCodec, LeavesStackEnoughForTheDeepestValueItReads) {
  std::thread([] {
    g_autoptr(FlStandardMessageCodec) standard =
        fl_standard_message_codec_new();
    FlMessageCodec* codec = FL_MESSAGE_CODEC(standard);
    const std::vector<uint8_t> nests[] = {{0x0c, 1}, {0x0d, 1, 0}};
    for (const std::vector<uint8_t>& nest : nests) {
      size_t depth = 0;
      g_autoptr(FlValue) value = ReadDeepest(codec, nest, &depth);
      ASSERT_GT(depth, 500u);
      g_autoptr(GBytes) written =
          fl_message_codec_encode_message(codec, value, nullptr);
      EXPECT_EQ(g_bytes_get_size(written), depth * nest.size() + 1);
      EXPECT_GT(ToText(value).size(), depth);
      EXPECT_TRUE(fl_value_equal(value, value));
    }
  }).join();
}
#endif

TEST(StandardMessageCodec, LetsSubclassesReadAndWriteCustomValues) {
  g_autoptr(FlMessageCodec) codec =
      FL_MESSAGE_CODEC(g_object_new(test_message_codec_get_type(), nullptr));
  g_autoptr(FlValue) list = NewList(
      fl_value_new_custom(kTestType, fl_value_new_bool(true), UnrefContent));
  g_autoptr(GBytes) message =
      fl_message_codec_encode_message(codec, list, nullptr);
  EXPECT_EQ(ToHex(message), "0c 01 80 01");
  g_autoptr(FlValue) decoded =
      fl_message_codec_decode_message(codec, message, nullptr);
  ASSERT_NE(decoded, nullptr);
  EXPECT_EQ(ToText(decoded), "[(custom 128)]");
}

namespace {

class StandardMethodCodec : public testing::Test {
 protected:
  StandardMethodCodec()
      : codec_(FL_METHOD_CODEC(fl_standard_method_codec_new())) {}
  ~StandardMethodCodec() override { g_object_unref(codec_); }

  FlMethodCodecClass* operations() const {
    return FL_METHOD_CODEC_GET_CLASS(codec_);
  }

  // The message of a call; consumes the arguments.
  std::string EncodeCall(const char* name, FlValue* args) {
    g_autoptr(FlValue) owned_args = args;
    g_autoptr(GBytes) message =
        operations()->encode_method_call(codec_, name, owned_args, nullptr);
    return ToHex(message);
  }

  // The call in a message as "name(args)", or the text of the error.
  std::string DecodeCall(const std::string& hex, int* code = nullptr) {
    g_autoptr(GBytes) message = FromHex(hex);
    g_autofree gchar* name = nullptr;
    g_autoptr(FlValue) args = nullptr;
    g_autoptr(GError) error = nullptr;
    if (!operations()->decode_method_call(codec_, message, &name, &args,
                                          &error)) {
      EXPECT_EQ(error->domain, FL_MESSAGE_CODEC_ERROR);
      EXPECT_EQ(name, nullptr);
      EXPECT_EQ(args, nullptr);
      if (code != nullptr) {
        *code = error->code;
      }
      return error->message;
    }
    return std::string(name) + "(" + ToText(args) + ")";
  }

  FlMethodResponse* DecodeResponse(const std::string& hex,
                                   GError** error = nullptr) {
    g_autoptr(GBytes) message = FromHex(hex);
    return operations()->decode_response(codec_, message, error);
  }

  void ExpectResponseError(const std::string& hex, int code,
                           const char* text = nullptr) {
    g_autoptr(GError) error = nullptr;
    g_autoptr(FlMethodResponse) response = DecodeResponse(hex, &error);
    EXPECT_EQ(response, nullptr) << hex;
    ASSERT_NE(error, nullptr) << hex;
    EXPECT_TRUE(g_error_matches(error, FL_MESSAGE_CODEC_ERROR, code)) << hex;
    if (text != nullptr) {
      EXPECT_STREQ(error->message, text) << hex;
    }
  }

  FlMethodCodec* const codec_;
};

constexpr char kCallHex[] =
    "07 02 6f 6b 0d 02 07 07 61 64 64 72 65 73 73 07 11 30 30 3a 31 31 3a 32 "
    "32 3a 33 33 3a 34 34 3a 35 35 07 04 70 6f 72 74 03 01 00 00 00";
constexpr char kErrorHex[] =
    "01 07 04 62 75 73 79 07 0b 44 65 76 69 63 65 20 62 75 73 79 03 07 00 00 "
    "00";

}  // namespace

TEST_F(StandardMethodCodec, WritesCalls) {
  EXPECT_EQ(EncodeCall("ok", nullptr), "07 02 6f 6b 00");
  EXPECT_EQ(EncodeCall("ok", fl_value_new_null()), "07 02 6f 6b 00");
  EXPECT_EQ(
      EncodeCall("ok",
                 NewMap({{"address", fl_value_new_string("00:11:22:33:44:55")},
                         {"port", fl_value_new_int(1)}})),
      kCallHex);
  EXPECT_EQ(EncodeCall("okNull", fl_value_new_float(0.5)),
            "07 06 6f 6b 4e 75 6c 6c 06 00 00 00 00 00 00 00 00 00 00 00 00 00 "
            "e0 3f");
}

TEST_F(StandardMethodCodec, ReadsCalls) {
  EXPECT_EQ(DecodeCall("07 02 6f 6b 00"), "ok(null)");
  EXPECT_EQ(DecodeCall(kCallHex), "ok({address: 00:11:22:33:44:55, port: 1})");
  EXPECT_EQ(DecodeCall("07 06 6f 6b 4e 75 6c 6c 06 00 00 00 00 00 00 00 00 00 "
                       "00 00 00 00 e0 3f"),
            "okNull(0.5)");
}

TEST_F(StandardMethodCodec, RefusesMessagesThatAreNoCalls) {
  int code = -1;
  EXPECT_EQ(DecodeCall("03 01 00 00 00 00", &code),
            "Method call name wrong type");
  EXPECT_EQ(code, FL_MESSAGE_CODEC_ERROR_FAILED);
  EXPECT_EQ(DecodeCall("07 02 6f 6b 00 00", &code), "Unexpected extra data");
  EXPECT_EQ(code, FL_MESSAGE_CODEC_ERROR_FAILED);
  EXPECT_EQ(DecodeCall("07 02 6f 6b", &code), "Unexpected end of data");
  EXPECT_EQ(code, FL_MESSAGE_CODEC_ERROR_OUT_OF_DATA);
  EXPECT_EQ(DecodeCall("", &code), "Unexpected end of data");
  EXPECT_EQ(code, FL_MESSAGE_CODEC_ERROR_OUT_OF_DATA);
  EXPECT_EQ(DecodeCall("07 02 6f 6b 05", &code),
            "Unexpected standard codec type 05");
  EXPECT_EQ(code, FL_MESSAGE_CODEC_ERROR_UNSUPPORTED_TYPE);
}

TEST_F(StandardMethodCodec, WritesSuccess) {
  g_autoptr(GBytes) nothing =
      operations()->encode_success_envelope(codec_, nullptr, nullptr);
  EXPECT_EQ(ToHex(nothing), "00 00");
  g_autoptr(FlValue) result = NewMap({{"sum", fl_value_new_int(42)}});
  g_autoptr(GBytes) message =
      operations()->encode_success_envelope(codec_, result, nullptr);
  EXPECT_EQ(ToHex(message), "00 0d 01 07 03 73 75 6d 03 2a 00 00 00");
}

TEST_F(StandardMethodCodec, WritesErrors) {
  g_autoptr(FlValue) details = fl_value_new_int(7);
  g_autoptr(GBytes) full = operations()->encode_error_envelope(
      codec_, "busy", "Device busy", details, nullptr);
  EXPECT_EQ(ToHex(full), kErrorHex);
  g_autoptr(GBytes) code_only = operations()->encode_error_envelope(
      codec_, "busy", nullptr, nullptr, nullptr);
  EXPECT_EQ(ToHex(code_only), "01 07 04 62 75 73 79 00 00");
}

TEST_F(StandardMethodCodec, RefusesToWriteCustomValues) {
  g_autoptr(FlValue) custom = fl_value_new_custom(128, nullptr, nullptr);
  g_autoptr(GError) error = nullptr;
  EXPECT_EQ(operations()->encode_success_envelope(codec_, custom, &error),
            nullptr);
  EXPECT_TRUE(g_error_matches(error, FL_MESSAGE_CODEC_ERROR,
                              FL_MESSAGE_CODEC_ERROR_UNSUPPORTED_TYPE));
  EXPECT_EQ(operations()->encode_error_envelope(codec_, "busy", nullptr, custom,
                                                nullptr),
            nullptr);
  EXPECT_EQ(operations()->encode_method_call(codec_, "ok", custom, nullptr),
            nullptr);
}

TEST_F(StandardMethodCodec, ReadsSuccess) {
  g_autoptr(FlMethodResponse) response =
      DecodeResponse("00 0d 01 07 03 73 75 6d 03 2a 00 00 00");
  ASSERT_TRUE(FL_IS_METHOD_SUCCESS_RESPONSE(response));
  EXPECT_EQ(ToText(fl_method_response_get_result(response, nullptr)),
            "{sum: 42}");
  g_autoptr(FlMethodResponse) nothing = DecodeResponse("00 00");
  EXPECT_EQ(fl_value_get_type(fl_method_response_get_result(nothing, nullptr)),
            FL_VALUE_TYPE_NULL);
}

TEST_F(StandardMethodCodec, ReadsErrors) {
  g_autoptr(FlMethodResponse) full = DecodeResponse(kErrorHex);
  ASSERT_TRUE(FL_IS_METHOD_ERROR_RESPONSE(full));
  FlMethodErrorResponse* error = FL_METHOD_ERROR_RESPONSE(full);
  EXPECT_STREQ(fl_method_error_response_get_code(error), "busy");
  EXPECT_STREQ(fl_method_error_response_get_message(error), "Device busy");
  EXPECT_EQ(ToText(fl_method_error_response_get_details(error)), "7");
  g_autoptr(FlMethodResponse) code_only =
      DecodeResponse("01 07 04 62 75 73 79 00 00");
  ASSERT_TRUE(FL_IS_METHOD_ERROR_RESPONSE(code_only));
  EXPECT_EQ(
      fl_method_error_response_get_message(FL_METHOD_ERROR_RESPONSE(code_only)),
      nullptr);
}

TEST_F(StandardMethodCodec, RefusesMessagesThatAreNoAnswers) {
  ExpectResponseError("", FL_MESSAGE_CODEC_ERROR_OUT_OF_DATA, "Empty response");
  ExpectResponseError("02", FL_MESSAGE_CODEC_ERROR_FAILED,
                      "Unknown envelope type 02");
  ExpectResponseError("ff 00", FL_MESSAGE_CODEC_ERROR_FAILED,
                      "Unknown envelope type ff");
  ExpectResponseError("00", FL_MESSAGE_CODEC_ERROR_OUT_OF_DATA,
                      "Unexpected end of data");
  ExpectResponseError("00 00 00", FL_MESSAGE_CODEC_ERROR_FAILED);
  ExpectResponseError("01 03 00 00 00 00 00 00", FL_MESSAGE_CODEC_ERROR_FAILED);
  ExpectResponseError("01 07 01 61 01 00", FL_MESSAGE_CODEC_ERROR_FAILED);
  ExpectResponseError("01 07 01 61 00 00 00", FL_MESSAGE_CODEC_ERROR_FAILED);
  for (const char* hex : {"01", "01 07 01 61", "01 07 01 61 00"}) {
    ExpectResponseError(hex, FL_MESSAGE_CODEC_ERROR_OUT_OF_DATA,
                        "Unexpected end of data");
  }
}

TEST(StandardMethodCodecProperty, HoldsTheMessageCodec) {
  g_autoptr(FlStandardMessageCodec) message_codec = FL_STANDARD_MESSAGE_CODEC(
      g_object_new(test_message_codec_get_type(), nullptr));
  g_autoptr(FlStandardMethodCodec) codec =
      fl_standard_method_codec_new_with_message_codec(message_codec);
  g_autoptr(FlValue) custom =
      fl_value_new_custom(kTestType, fl_value_new_bool(true), UnrefContent);
  g_autoptr(GBytes) message =
      FL_METHOD_CODEC_GET_CLASS(codec)->encode_success_envelope(
          FL_METHOD_CODEC(codec), custom, nullptr);
  EXPECT_EQ(ToHex(message), "00 80 01");
  GParamSpec* property =
      g_object_class_find_property(G_OBJECT_GET_CLASS(codec), "message-codec");
  ASSERT_NE(property, nullptr);
  EXPECT_TRUE(property->flags & G_PARAM_CONSTRUCT_ONLY);
}

TEST(ErrorDomains, HaveTheirNames) {
  EXPECT_STREQ(g_quark_to_string(FL_MESSAGE_CODEC_ERROR),
               "fl_message_codec_error_quark");
  EXPECT_STREQ(g_quark_to_string(FL_METHOD_RESPONSE_ERROR),
               "fl_method_response_error_quark");
  EXPECT_STREQ(g_quark_to_string(FL_BINARY_MESSENGER_ERROR),
               "fl_binary_messenger_codec_error_quark");
}

TEST(MethodResponse, KeepsWhatItIsMadeOf) {
  g_autoptr(FlValue) value = fl_value_new_int(7);
  g_autoptr(FlMethodSuccessResponse) success =
      fl_method_success_response_new(value);
  EXPECT_EQ(fl_method_success_response_get_result(success), value);
  g_autoptr(FlMethodErrorResponse) error =
      fl_method_error_response_new("busy", nullptr, value);
  EXPECT_EQ(fl_method_error_response_get_details(error), value);
  EXPECT_EQ(fl_method_error_response_get_message(error), nullptr);
  EXPECT_TRUE(IsProgrammingError("fl_method_error_response_new", [] {
    EXPECT_EQ(fl_method_error_response_new(nullptr, "text", nullptr), nullptr);
  }));
}

TEST(MethodResponse, GivesItsResultOrAnError) {
  struct Case {
    FlMethodResponse* response;
    int code;  // -1: none
    const char* text;
  };
  g_autoptr(FlValue) seven = fl_value_new_int(7);
  const Case cases[] = {
      {FL_METHOD_RESPONSE(fl_method_success_response_new(nullptr)), -1, ""},
      {FL_METHOD_RESPONSE(
           fl_method_error_response_new("busy", "Device busy", seven)),
       FL_METHOD_RESPONSE_ERROR_REMOTE_ERROR,
       "Remote code returned error busy: Device busy 7"},
      {FL_METHOD_RESPONSE(
           fl_method_error_response_new("busy", "Device busy", nullptr)),
       FL_METHOD_RESPONSE_ERROR_REMOTE_ERROR,
       "Remote code returned error busy: Device busy"},
      {FL_METHOD_RESPONSE(
           fl_method_error_response_new("busy", nullptr, nullptr)),
       FL_METHOD_RESPONSE_ERROR_REMOTE_ERROR,
       "Remote code returned error busy"},
      {FL_METHOD_RESPONSE(fl_method_not_implemented_response_new()),
       FL_METHOD_RESPONSE_ERROR_NOT_IMPLEMENTED,
       "Requested method is not implemented"},
  };
  for (const Case& test : cases) {
    g_autoptr(GError) error = nullptr;
    EXPECT_EQ(fl_method_response_get_result(test.response, &error), nullptr);
    if (test.code < 0) {
      EXPECT_EQ(error, nullptr);
    } else {
      EXPECT_TRUE(g_error_matches(error, FL_METHOD_RESPONSE_ERROR, test.code));
      EXPECT_STREQ(error->message, test.text);
    }
    g_object_unref(test.response);
  }
}
