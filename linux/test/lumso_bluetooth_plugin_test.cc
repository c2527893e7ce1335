// The plug-in in an application's build: registered on a messenger of its own,
// on a machine without a system bus.

#include <gtest/gtest.h>
#include <lumso_bluetooth/lumso_bluetooth_plugin.h>
#include <sys/utsname.h>

#include <string>

#include "host/channel_codec.h"
#include "host/in_process_messenger.h"

namespace {

class LumsoBluetoothPluginTest : public testing::Test {
 protected:
  LumsoBluetoothPluginTest() {
    g_setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", TRUE);
    g_autoptr(InProcessRegistrar) registrar =
        in_process_registrar_new(messenger_);
    lumso_bluetooth_plugin_register_with_registrar(
        FL_PLUGIN_REGISTRAR(registrar));
  }
  ~LumsoBluetoothPluginTest() override {
    in_process_messenger_close(messenger_);
    g_object_unref(messenger_);
  }

  // Calls a method without arguments and decodes its answer.
  lumso_host::Envelope Call(const char* method) {
    lumso_host::Envelope envelope;
    envelope.kind = lumso_host::Envelope::Kind::kMalformed;
    const lumso_host::BytesPtr message =
        lumso_host::EncodeMethodCall(method, nullptr);
    in_process_messenger_deliver(messenger_, "lumso_bluetooth/methods",
                                 message.get(), [&envelope](GBytes* answer) {
                                   envelope =
                                       lumso_host::DecodeEnvelope(answer);
                                 });
    return envelope;
  }

 private:
  InProcessMessenger* const messenger_ = in_process_messenger_new(
      [](const std::string&, GBytes*) {});  // Owned reference.
};

TEST_F(LumsoBluetoothPluginTest, TellsTheKernelsBuildVersion) {
  utsname system{};
  ASSERT_EQ(uname(&system), 0);
  const lumso_host::Envelope answer = Call("getPlatformVersion");
  ASSERT_EQ(answer.kind, lumso_host::Envelope::Kind::kSuccess);
  ASSERT_EQ(fl_value_get_type(answer.value.get()), FL_VALUE_TYPE_STRING);
  EXPECT_EQ(fl_value_get_string(answer.value.get()),
            std::string("Linux ") + system.version);
}

TEST_F(LumsoBluetoothPluginTest, IsNotAvailableWithoutABus) {
  const lumso_host::Envelope answer = Call("isAvailable");
  ASSERT_EQ(answer.kind, lumso_host::Envelope::Kind::kSuccess);
  ASSERT_EQ(fl_value_get_type(answer.value.get()), FL_VALUE_TYPE_BOOL);
  EXPECT_FALSE(fl_value_get_bool(answer.value.get()));
}

TEST_F(LumsoBluetoothPluginTest, AnswersAnUnknownMethodAsNotImplemented) {
  EXPECT_EQ(Call("unheardOf").kind, lumso_host::Envelope::Kind::kEmpty);
}

}  // namespace
