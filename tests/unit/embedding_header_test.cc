// The public header: what a caller's compiler and linker take from it.

#include <dlfcn.h>
#include <flutter_linux/flutter_linux.h>
#include <gtest/gtest.h>

extern "C" char* describe_map_from_c(void);

TEST(Header, WorksFromC) {
  g_autofree gchar* text = describe_map_from_c();
  EXPECT_STREQ(text, "{answer: 42}");
}

TEST(Header, NumbersTheEnumerations) {
  EXPECT_EQ(FL_VALUE_TYPE_NULL, 0);
  EXPECT_EQ(FL_VALUE_TYPE_BOOL, 1);
  EXPECT_EQ(FL_VALUE_TYPE_INT, 2);
  EXPECT_EQ(FL_VALUE_TYPE_FLOAT, 3);
  EXPECT_EQ(FL_VALUE_TYPE_STRING, 4);
  EXPECT_EQ(FL_VALUE_TYPE_UINT8_LIST, 5);
  EXPECT_EQ(FL_VALUE_TYPE_INT32_LIST, 6);
  EXPECT_EQ(FL_VALUE_TYPE_INT64_LIST, 7);
  EXPECT_EQ(FL_VALUE_TYPE_FLOAT_LIST, 8);
  EXPECT_EQ(FL_VALUE_TYPE_LIST, 9);
  EXPECT_EQ(FL_VALUE_TYPE_MAP, 10);
  EXPECT_EQ(FL_VALUE_TYPE_FLOAT32_LIST, 11);
  EXPECT_EQ(FL_VALUE_TYPE_CUSTOM, 12);
  EXPECT_EQ(FL_MESSAGE_CODEC_ERROR_FAILED, 0);
  EXPECT_EQ(FL_MESSAGE_CODEC_ERROR_OUT_OF_DATA, 1);
  EXPECT_EQ(FL_MESSAGE_CODEC_ERROR_ADDITIONAL_DATA, 2);
  EXPECT_EQ(FL_MESSAGE_CODEC_ERROR_UNSUPPORTED_TYPE, 3);
  EXPECT_EQ(FL_METHOD_RESPONSE_ERROR_FAILED, 0);
  EXPECT_EQ(FL_METHOD_RESPONSE_ERROR_REMOTE_ERROR, 1);
  EXPECT_EQ(FL_METHOD_RESPONSE_ERROR_NOT_IMPLEMENTED, 2);
}

TEST(Header, LaysOutTheInterfacesThatHostsImplement) {
  constexpr size_t kFunction = sizeof(void (*)());
  constexpr size_t kParent = sizeof(GTypeInterface);
  EXPECT_EQ(sizeof(FlBinaryMessengerInterface), kParent + 7 * kFunction);
  EXPECT_EQ(
      offsetof(FlBinaryMessengerInterface, set_message_handler_on_channel),
      kParent);
  EXPECT_EQ(offsetof(FlBinaryMessengerInterface, send_response),
            kParent + 1 * kFunction);
  EXPECT_EQ(offsetof(FlBinaryMessengerInterface, send_on_channel),
            kParent + 2 * kFunction);
  EXPECT_EQ(offsetof(FlBinaryMessengerInterface, send_on_channel_finish),
            kParent + 3 * kFunction);
  EXPECT_EQ(offsetof(FlBinaryMessengerInterface, resize_channel),
            kParent + 4 * kFunction);
  EXPECT_EQ(offsetof(FlBinaryMessengerInterface, set_warns_on_channel_overflow),
            kParent + 5 * kFunction);
  EXPECT_EQ(offsetof(FlBinaryMessengerInterface, shutdown),
            kParent + 6 * kFunction);
  EXPECT_EQ(sizeof(FlPluginRegistrarInterface), kParent + 3 * kFunction);
  EXPECT_EQ(sizeof(FlPluginRegistryInterface), kParent + 1 * kFunction);
}

TEST(Header, DerivesTheTypes) {
  EXPECT_EQ(g_type_parent(fl_standard_message_codec_get_type()),
            fl_message_codec_get_type());
  EXPECT_EQ(g_type_parent(fl_standard_method_codec_get_type()),
            fl_method_codec_get_type());
  EXPECT_EQ(g_type_parent(fl_method_success_response_get_type()),
            fl_method_response_get_type());
  EXPECT_EQ(g_type_parent(fl_method_error_response_get_type()),
            fl_method_response_get_type());
  EXPECT_EQ(g_type_parent(fl_method_not_implemented_response_get_type()),
            fl_method_response_get_type());
  for (GType type : {fl_method_channel_get_type(), fl_event_channel_get_type(),
                     fl_method_call_get_type(), fl_method_response_get_type(),
                     fl_method_codec_get_type(), fl_message_codec_get_type(),
                     fl_binary_messenger_response_handle_get_type()}) {
    EXPECT_EQ(g_type_parent(type), G_TYPE_OBJECT) << g_type_name(type);
  }
  for (GType type :
       {fl_binary_messenger_get_type(), fl_plugin_registrar_get_type(),
        fl_plugin_registry_get_type(), fl_texture_registrar_get_type()}) {
    EXPECT_TRUE(G_TYPE_IS_INTERFACE(type)) << g_type_name(type);
  }
}

TEST(Library, ExportsNothingBeyondTheHeader) {
  EXPECT_NE(dlsym(RTLD_DEFAULT, "fl_method_codec_get_type"), nullptr);
  for (const char* name :
       {"fl_method_codec_encode_method_call",
        "fl_method_codec_decode_method_call",
        "fl_method_codec_encode_success_envelope",
        "fl_method_codec_encode_error_envelope",
        "fl_method_codec_decode_response", "fl_method_codec_encode_response",
        "fl_method_call_new"}) {
    EXPECT_EQ(dlsym(RTLD_DEFAULT, name), nullptr) << name;
  }
}
