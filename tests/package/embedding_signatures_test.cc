// What the plug-in and its hosts rely on in the Linux embedding, as the
// embedding of mid-2024 and later declares it. The tables are the reference for
// the stand-in in embedding/, and the same file compiles against an SDK: a
// difference in either fails the build or a case here.

#include <dlfcn.h>
#include <flutter_linux/flutter_linux.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <type_traits>

namespace {

// Passes the name on when the declaration is the expected one, to the letter.
template <typename Declared, typename Expected>
constexpr const char* Checked(const char* name) {
  static_assert(std::is_same_v<Declared, Expected>);
  return name;
}

// One row of the table: a function and its type.
#define FUNCTION(name, ...) Checked<decltype(name), __VA_ARGS__>(#name)

// Every function of the embedding that somebody here may call.
constexpr const char* kFunctions[] = {
    // Values: constructors.
    FUNCTION(fl_value_new_null, FlValue*()),
    FUNCTION(fl_value_new_bool, FlValue*(bool)),
    FUNCTION(fl_value_new_int, FlValue*(int64_t)),
    FUNCTION(fl_value_new_float, FlValue*(double)),
    FUNCTION(fl_value_new_string, FlValue*(const gchar*)),
    FUNCTION(fl_value_new_string_sized, FlValue*(const gchar*, size_t)),
    FUNCTION(fl_value_new_uint8_list, FlValue*(const uint8_t*, size_t)),
    FUNCTION(fl_value_new_uint8_list_from_bytes, FlValue*(GBytes*)),
    FUNCTION(fl_value_new_int32_list, FlValue*(const int32_t*, size_t)),
    FUNCTION(fl_value_new_int64_list, FlValue*(const int64_t*, size_t)),
    FUNCTION(fl_value_new_float32_list, FlValue*(const float*, size_t)),
    FUNCTION(fl_value_new_float_list, FlValue*(const double*, size_t)),
    FUNCTION(fl_value_new_list, FlValue*()),
    FUNCTION(fl_value_new_list_from_strv, FlValue*(const gchar* const*)),
    FUNCTION(fl_value_new_map, FlValue*()),
    FUNCTION(fl_value_new_custom, FlValue*(int, gconstpointer, GDestroyNotify)),
    FUNCTION(fl_value_new_custom_object, FlValue*(int, GObject*)),
    FUNCTION(fl_value_new_custom_object_take, FlValue*(int, GObject*)),
    // Values: references and readers.
    FUNCTION(fl_value_ref, FlValue*(FlValue*)),
    FUNCTION(fl_value_unref, void(FlValue*)),
    FUNCTION(fl_value_get_type, FlValueType(FlValue*)),
    FUNCTION(fl_value_get_bool, bool(FlValue*)),
    FUNCTION(fl_value_get_int, int64_t(FlValue*)),
    FUNCTION(fl_value_get_float, double(FlValue*)),
    FUNCTION(fl_value_get_string, const gchar*(FlValue*)),
    FUNCTION(fl_value_get_length, size_t(FlValue*)),
    FUNCTION(fl_value_get_uint8_list, const uint8_t*(FlValue*)),
    FUNCTION(fl_value_get_int32_list, const int32_t*(FlValue*)),
    FUNCTION(fl_value_get_int64_list, const int64_t*(FlValue*)),
    FUNCTION(fl_value_get_float32_list, const float*(FlValue*)),
    FUNCTION(fl_value_get_float_list, const double*(FlValue*)),
    FUNCTION(fl_value_get_list_value, FlValue*(FlValue*, size_t)),
    FUNCTION(fl_value_get_map_key, FlValue*(FlValue*, size_t)),
    FUNCTION(fl_value_get_map_value, FlValue*(FlValue*, size_t)),
    FUNCTION(fl_value_lookup, FlValue*(FlValue*, FlValue*)),
    FUNCTION(fl_value_lookup_string, FlValue*(FlValue*, const gchar*)),
    FUNCTION(fl_value_get_custom_type, int(FlValue*)),
    FUNCTION(fl_value_get_custom_value, gconstpointer(FlValue*)),
    FUNCTION(fl_value_get_custom_value_object, GObject*(FlValue*)),
    // Values: builders, comparison, text.
    FUNCTION(fl_value_append, void(FlValue*, FlValue*)),
    FUNCTION(fl_value_append_take, void(FlValue*, FlValue*)),
    FUNCTION(fl_value_set, void(FlValue*, FlValue*, FlValue*)),
    FUNCTION(fl_value_set_take, void(FlValue*, FlValue*, FlValue*)),
    FUNCTION(fl_value_set_string, void(FlValue*, const gchar*, FlValue*)),
    FUNCTION(fl_value_set_string_take, void(FlValue*, const gchar*, FlValue*)),
    FUNCTION(fl_value_equal, bool(FlValue*, FlValue*)),
    FUNCTION(fl_value_to_string, gchar*(FlValue*)),
    // Method calls.
    FUNCTION(fl_method_call_get_type, GType()),
    FUNCTION(fl_method_call_get_name, const gchar*(FlMethodCall*)),
    FUNCTION(fl_method_call_get_args, FlValue*(FlMethodCall*)),
    FUNCTION(fl_method_call_respond,
             gboolean(FlMethodCall*, FlMethodResponse*, GError**)),
    FUNCTION(fl_method_call_respond_success,
             gboolean(FlMethodCall*, FlValue*, GError**)),
    FUNCTION(fl_method_call_respond_error,
             gboolean(FlMethodCall*, const gchar*, const gchar*, FlValue*,
                      GError**)),
    FUNCTION(fl_method_call_respond_not_implemented,
             gboolean(FlMethodCall*, GError**)),
    // Method responses.
    FUNCTION(fl_method_response_get_type, GType()),
    FUNCTION(fl_method_response_error_quark, GQuark()),
    FUNCTION(fl_method_response_get_result,
             FlValue*(FlMethodResponse*, GError**)),
    FUNCTION(fl_method_success_response_get_type, GType()),
    FUNCTION(fl_method_success_response_new,
             FlMethodSuccessResponse*(FlValue*)),
    FUNCTION(fl_method_success_response_get_result,
             FlValue*(FlMethodSuccessResponse*)),
    FUNCTION(fl_method_error_response_get_type, GType()),
    FUNCTION(fl_method_error_response_new,
             FlMethodErrorResponse*(const gchar*, const gchar*, FlValue*)),
    FUNCTION(fl_method_error_response_get_code,
             const gchar*(FlMethodErrorResponse*)),
    FUNCTION(fl_method_error_response_get_message,
             const gchar*(FlMethodErrorResponse*)),
    FUNCTION(fl_method_error_response_get_details,
             FlValue*(FlMethodErrorResponse*)),
    FUNCTION(fl_method_not_implemented_response_get_type, GType()),
    FUNCTION(fl_method_not_implemented_response_new,
             FlMethodNotImplementedResponse*()),
    // Channels.
    FUNCTION(fl_method_channel_get_type, GType()),
    FUNCTION(
        fl_method_channel_new,
        FlMethodChannel*(FlBinaryMessenger*, const gchar*, FlMethodCodec*)),
    FUNCTION(fl_method_channel_set_method_call_handler,
             void(FlMethodChannel*, FlMethodChannelMethodCallHandler, gpointer,
                  GDestroyNotify)),
    FUNCTION(fl_method_channel_invoke_method,
             void(FlMethodChannel*, const gchar*, FlValue*, GCancellable*,
                  GAsyncReadyCallback, gpointer)),
    FUNCTION(fl_method_channel_invoke_method_finish,
             FlMethodResponse*(FlMethodChannel*, GAsyncResult*, GError**)),
    FUNCTION(fl_event_channel_get_type, GType()),
    FUNCTION(fl_event_channel_new,
             FlEventChannel*(FlBinaryMessenger*, const gchar*, FlMethodCodec*)),
    FUNCTION(fl_event_channel_set_stream_handlers,
             void(FlEventChannel*, FlEventChannelHandler, FlEventChannelHandler,
                  gpointer, GDestroyNotify)),
    FUNCTION(fl_event_channel_send,
             gboolean(FlEventChannel*, FlValue*, GCancellable*, GError**)),
    FUNCTION(fl_event_channel_send_error,
             gboolean(FlEventChannel*, const gchar*, const gchar*, FlValue*,
                      GCancellable*, GError**)),
    FUNCTION(fl_event_channel_send_end_of_stream,
             gboolean(FlEventChannel*, GCancellable*, GError**)),
    // Codecs.
    FUNCTION(fl_message_codec_get_type, GType()),
    FUNCTION(fl_message_codec_error_quark, GQuark()),
    FUNCTION(fl_message_codec_encode_message,
             GBytes*(FlMessageCodec*, FlValue*, GError**)),
    FUNCTION(fl_message_codec_decode_message,
             FlValue*(FlMessageCodec*, GBytes*, GError**)),
    FUNCTION(fl_standard_message_codec_get_type, GType()),
    FUNCTION(fl_standard_message_codec_new, FlStandardMessageCodec*()),
    FUNCTION(fl_standard_message_codec_write_size,
             void(FlStandardMessageCodec*, GByteArray*, uint32_t)),
    FUNCTION(fl_standard_message_codec_read_size,
             gboolean(FlStandardMessageCodec*, GBytes*, size_t*, uint32_t*,
                      GError**)),
    FUNCTION(
        fl_standard_message_codec_write_value,
        gboolean(FlStandardMessageCodec*, GByteArray*, FlValue*, GError**)),
    FUNCTION(fl_standard_message_codec_read_value,
             FlValue*(FlStandardMessageCodec*, GBytes*, size_t*, GError**)),
    FUNCTION(fl_method_codec_get_type, GType()),
    FUNCTION(fl_standard_method_codec_get_type, GType()),
    FUNCTION(fl_standard_method_codec_new, FlStandardMethodCodec*()),
    FUNCTION(fl_standard_method_codec_new_with_message_codec,
             FlStandardMethodCodec*(FlStandardMessageCodec*)),
    // Messenger.
    FUNCTION(fl_binary_messenger_get_type, GType()),
    FUNCTION(fl_binary_messenger_codec_error_quark, GQuark()),
    FUNCTION(fl_binary_messenger_response_handle_get_type, GType()),
    FUNCTION(fl_binary_messenger_set_message_handler_on_channel,
             void(FlBinaryMessenger*, const gchar*,
                  FlBinaryMessengerMessageHandler, gpointer, GDestroyNotify)),
    FUNCTION(fl_binary_messenger_send_response,
             gboolean(FlBinaryMessenger*, FlBinaryMessengerResponseHandle*,
                      GBytes*, GError**)),
    FUNCTION(fl_binary_messenger_send_on_channel,
             void(FlBinaryMessenger*, const gchar*, GBytes*, GCancellable*,
                  GAsyncReadyCallback, gpointer)),
    FUNCTION(fl_binary_messenger_send_on_channel_finish,
             GBytes*(FlBinaryMessenger*, GAsyncResult*, GError**)),
    FUNCTION(fl_binary_messenger_resize_channel,
             void(FlBinaryMessenger*, const gchar*, int64_t)),
    FUNCTION(fl_binary_messenger_set_warns_on_channel_overflow,
             void(FlBinaryMessenger*, const gchar*, bool)),
    // Registrar and registry.
    FUNCTION(fl_plugin_registrar_get_type, GType()),
    FUNCTION(fl_plugin_registrar_get_messenger,
             FlBinaryMessenger*(FlPluginRegistrar*)),
    FUNCTION(fl_plugin_registrar_get_texture_registrar,
             FlTextureRegistrar*(FlPluginRegistrar*)),
    FUNCTION(fl_plugin_registrar_get_view, FlView*(FlPluginRegistrar*)),
    FUNCTION(fl_texture_registrar_get_type, GType()),
    FUNCTION(fl_plugin_registry_get_type, GType()),
    FUNCTION(fl_plugin_registry_get_registrar_for_plugin,
             FlPluginRegistrar*(FlPluginRegistry*, const gchar*)),
};

// Handlers that the embedding calls.
static_assert(
    std::is_same_v<FlMethodChannelMethodCallHandler,
                   void (*)(FlMethodChannel*, FlMethodCall*, gpointer)>);
static_assert(std::is_same_v<FlEventChannelHandler,
                             FlMethodErrorResponse* (*)(FlEventChannel*,
                                                        FlValue*, gpointer)>);
static_assert(
    std::is_same_v<FlBinaryMessengerMessageHandler,
                   void (*)(FlBinaryMessenger*, const gchar*, GBytes*,
                            FlBinaryMessengerResponseHandle*, gpointer)>);

// Enumerations.
static_assert(FL_VALUE_TYPE_NULL == 0);
static_assert(FL_VALUE_TYPE_BOOL == 1);
static_assert(FL_VALUE_TYPE_INT == 2);
static_assert(FL_VALUE_TYPE_FLOAT == 3);
static_assert(FL_VALUE_TYPE_STRING == 4);
static_assert(FL_VALUE_TYPE_UINT8_LIST == 5);
static_assert(FL_VALUE_TYPE_INT32_LIST == 6);
static_assert(FL_VALUE_TYPE_INT64_LIST == 7);
static_assert(FL_VALUE_TYPE_FLOAT_LIST == 8);
static_assert(FL_VALUE_TYPE_LIST == 9);
static_assert(FL_VALUE_TYPE_MAP == 10);
static_assert(FL_VALUE_TYPE_FLOAT32_LIST == 11);
static_assert(FL_VALUE_TYPE_CUSTOM == 12);
static_assert(FL_MESSAGE_CODEC_ERROR_FAILED == 0);
static_assert(FL_MESSAGE_CODEC_ERROR_OUT_OF_DATA == 1);
static_assert(FL_MESSAGE_CODEC_ERROR_ADDITIONAL_DATA == 2);
static_assert(FL_MESSAGE_CODEC_ERROR_UNSUPPORTED_TYPE == 3);
static_assert(FL_METHOD_RESPONSE_ERROR_FAILED == 0);
static_assert(FL_METHOD_RESPONSE_ERROR_REMOTE_ERROR == 1);
static_assert(FL_METHOD_RESPONSE_ERROR_NOT_IMPLEMENTED == 2);

// A function pointer in a class or interface structure: `base` is what precedes
// the first one, `index` counts from 0.
#define SLOT(structure, base, index, field, ...)                          \
  static_assert(std::is_same_v<decltype(structure::field), __VA_ARGS__>); \
  static_assert(offsetof(structure, field) ==                             \
                sizeof(base) + (index) * sizeof(void (*)()))

#define END(structure, base, count)  \
  static_assert(sizeof(structure) == \
                sizeof(base) + (count) * sizeof(void (*)()))

SLOT(FlBinaryMessengerInterface, GTypeInterface, 0,
     set_message_handler_on_channel,
     void (*)(FlBinaryMessenger*, const gchar*, FlBinaryMessengerMessageHandler,
              gpointer, GDestroyNotify));
SLOT(FlBinaryMessengerInterface, GTypeInterface, 1, send_response,
     gboolean (*)(FlBinaryMessenger*, FlBinaryMessengerResponseHandle*, GBytes*,
                  GError**));
SLOT(FlBinaryMessengerInterface, GTypeInterface, 2, send_on_channel,
     void (*)(FlBinaryMessenger*, const gchar*, GBytes*, GCancellable*,
              GAsyncReadyCallback, gpointer));
SLOT(FlBinaryMessengerInterface, GTypeInterface, 3, send_on_channel_finish,
     GBytes* (*)(FlBinaryMessenger*, GAsyncResult*, GError**));
SLOT(FlBinaryMessengerInterface, GTypeInterface, 4, resize_channel,
     void (*)(FlBinaryMessenger*, const gchar*, int64_t));
SLOT(FlBinaryMessengerInterface, GTypeInterface, 5,
     set_warns_on_channel_overflow,
     void (*)(FlBinaryMessenger*, const gchar*, bool));
SLOT(FlBinaryMessengerInterface, GTypeInterface, 6, shutdown,
     void (*)(FlBinaryMessenger*));
END(FlBinaryMessengerInterface, GTypeInterface, 7);

SLOT(FlPluginRegistrarInterface, GTypeInterface, 0, get_messenger,
     FlBinaryMessenger* (*)(FlPluginRegistrar*));
SLOT(FlPluginRegistrarInterface, GTypeInterface, 1, get_texture_registrar,
     FlTextureRegistrar* (*)(FlPluginRegistrar*));
SLOT(FlPluginRegistrarInterface, GTypeInterface, 2, get_view,
     FlView* (*)(FlPluginRegistrar*));
END(FlPluginRegistrarInterface, GTypeInterface, 3);

SLOT(FlPluginRegistryInterface, GTypeInterface, 0, get_registrar_for_plugin,
     FlPluginRegistrar* (*)(FlPluginRegistry*, const gchar*));
END(FlPluginRegistryInterface, GTypeInterface, 1);

SLOT(FlMethodCodecClass, GObjectClass, 0, encode_method_call,
     GBytes* (*)(FlMethodCodec*, const gchar*, FlValue*, GError**));
SLOT(FlMethodCodecClass, GObjectClass, 1, decode_method_call,
     gboolean (*)(FlMethodCodec*, GBytes*, gchar**, FlValue**, GError**));
SLOT(FlMethodCodecClass, GObjectClass, 2, encode_success_envelope,
     GBytes* (*)(FlMethodCodec*, FlValue*, GError**));
SLOT(FlMethodCodecClass, GObjectClass, 3, encode_error_envelope,
     GBytes* (*)(FlMethodCodec*, const gchar*, const gchar*, FlValue*,
                 GError**));
SLOT(FlMethodCodecClass, GObjectClass, 4, decode_response,
     FlMethodResponse* (*)(FlMethodCodec*, GBytes*, GError**));
END(FlMethodCodecClass, GObjectClass, 5);

SLOT(FlMessageCodecClass, GObjectClass, 0, encode_message,
     GBytes* (*)(FlMessageCodec*, FlValue*, GError**));
SLOT(FlMessageCodecClass, GObjectClass, 1, decode_message,
     FlValue* (*)(FlMessageCodec*, GBytes*, GError**));
END(FlMessageCodecClass, GObjectClass, 2);

// The first only: what the second one takes is left to those who derive.
static_assert(std::is_same_v<decltype(FlStandardMessageCodecClass::write_value),
                             gboolean (*)(FlStandardMessageCodec*, GByteArray*,
                                          FlValue*, GError**)>);
static_assert(offsetof(FlStandardMessageCodecClass, write_value) ==
              sizeof(FlMessageCodecClass));
static_assert(offsetof(FlStandardMessageCodecClass, read_value_of_type) ==
              sizeof(FlMessageCodecClass) + sizeof(void (*)()));

// Types that others derive from add nothing to their parent.
END(FlBinaryMessengerResponseHandleClass, GObjectClass, 0);
END(FlMethodResponseClass, GObjectClass, 0);
static_assert(sizeof(FlBinaryMessengerResponseHandle) == sizeof(GObject));

// g_autoptr works with every type.
static_assert(std::is_same_v<FlValue_autoptr, FlValue*>);
static_assert(std::is_same_v<FlMethodCall_autoptr, FlMethodCall*>);
static_assert(std::is_same_v<FlMethodChannel_autoptr, FlMethodChannel*>);
static_assert(std::is_same_v<FlEventChannel_autoptr, FlEventChannel*>);
static_assert(std::is_same_v<FlMethodResponse_autoptr, FlMethodResponse*>);
static_assert(
    std::is_same_v<FlMethodSuccessResponse_autoptr, FlMethodSuccessResponse*>);
static_assert(
    std::is_same_v<FlMethodErrorResponse_autoptr, FlMethodErrorResponse*>);
static_assert(std::is_same_v<FlMethodNotImplementedResponse_autoptr,
                             FlMethodNotImplementedResponse*>);
static_assert(std::is_same_v<FlMessageCodec_autoptr, FlMessageCodec*>);
static_assert(
    std::is_same_v<FlStandardMessageCodec_autoptr, FlStandardMessageCodec*>);
static_assert(std::is_same_v<FlMethodCodec_autoptr, FlMethodCodec*>);
static_assert(
    std::is_same_v<FlStandardMethodCodec_autoptr, FlStandardMethodCodec*>);
static_assert(std::is_same_v<FlBinaryMessenger_autoptr, FlBinaryMessenger*>);
static_assert(std::is_same_v<FlBinaryMessengerResponseHandle_autoptr,
                             FlBinaryMessengerResponseHandle*>);
static_assert(std::is_same_v<FlPluginRegistrar_autoptr, FlPluginRegistrar*>);
static_assert(std::is_same_v<FlPluginRegistry_autoptr, FlPluginRegistry*>);
static_assert(std::is_same_v<FlTextureRegistrar_autoptr, FlTextureRegistrar*>);

struct TypeRow {
  GType type;
  const char* name;
  GType parent;
};

TEST(EmbeddingSignatures, EveryFunctionIsExported) {
  for (const char* name : kFunctions) {
    EXPECT_NE(dlsym(RTLD_DEFAULT, name), nullptr) << name;
  }
}

TEST(EmbeddingSignatures, EveryTypeHasItsNameAndParent) {
  const GType response = fl_method_response_get_type();
  const TypeRow rows[] = {
      {fl_method_call_get_type(), "FlMethodCall", G_TYPE_OBJECT},
      {fl_method_channel_get_type(), "FlMethodChannel", G_TYPE_OBJECT},
      {fl_event_channel_get_type(), "FlEventChannel", G_TYPE_OBJECT},
      {response, "FlMethodResponse", G_TYPE_OBJECT},
      {fl_method_success_response_get_type(), "FlMethodSuccessResponse",
       response},
      {fl_method_error_response_get_type(), "FlMethodErrorResponse", response},
      {fl_method_not_implemented_response_get_type(),
       "FlMethodNotImplementedResponse", response},
      {fl_message_codec_get_type(), "FlMessageCodec", G_TYPE_OBJECT},
      {fl_standard_message_codec_get_type(), "FlStandardMessageCodec",
       fl_message_codec_get_type()},
      {fl_method_codec_get_type(), "FlMethodCodec", G_TYPE_OBJECT},
      {fl_standard_method_codec_get_type(), "FlStandardMethodCodec",
       fl_method_codec_get_type()},
      {fl_binary_messenger_response_handle_get_type(),
       "FlBinaryMessengerResponseHandle", G_TYPE_OBJECT},
      {fl_binary_messenger_get_type(), "FlBinaryMessenger", G_TYPE_INTERFACE},
      {fl_plugin_registrar_get_type(), "FlPluginRegistrar", G_TYPE_INTERFACE},
      {fl_plugin_registry_get_type(), "FlPluginRegistry", G_TYPE_INTERFACE},
      {fl_texture_registrar_get_type(), "FlTextureRegistrar", G_TYPE_INTERFACE},
  };
  for (const TypeRow& row : rows) {
    EXPECT_STREQ(g_type_name(row.type), row.name);
    EXPECT_EQ(g_type_parent(row.type), row.parent) << row.name;
  }
}

TEST(EmbeddingSignatures, TheMethodCodecTakesItsMessageCodecAtConstruction) {
  g_autoptr(GTypeClass) klass = static_cast<GTypeClass*>(
      g_type_class_ref(fl_standard_method_codec_get_type()));
  const GParamSpec* property =
      g_object_class_find_property(G_OBJECT_CLASS(klass), "message-codec");
  ASSERT_NE(property, nullptr);
  EXPECT_NE(property->flags & G_PARAM_CONSTRUCT_ONLY, 0);
}

#ifdef LUMSO_STAND_IN_LIBRARY
// What the stand-in offers beyond the tables would be invented, and code that
// used it would not build on an SDK.
TEST(EmbeddingSignatures, TheStandInExportsNothingElse) {
  const std::set<std::string> expected(std::begin(kFunctions),
                                       std::end(kFunctions));
  const std::unique_ptr<FILE, int (*)(FILE*)> nm(
      popen("nm -D --defined-only -P '" LUMSO_STAND_IN_LIBRARY "'", "re"),
      pclose);
  ASSERT_NE(nm, nullptr);
  std::set<std::string> exported;
  char symbol[256];
  char type;
  while (fscanf(nm.get(), "%255s %c%*[^\n]", symbol, &type) == 2) {
    if (type == 'T') exported.insert(symbol);
  }
  EXPECT_EQ(exported, expected);
}
#endif

}  // namespace
