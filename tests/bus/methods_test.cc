// The method table: every row with right, wrong and missing arguments, with and
// without an adapter.

#include <sys/utsname.h>

#include <utility>
#include <vector>

#include "tests/support/bus_test.h"

namespace lumso_test {
namespace {

using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

using Answers = std::vector<std::pair<std::string, std::string>>;

constexpr char kNotImplemented[] = "not implemented";
constexpr char kConnectRefused[] =
    "error(\"EINVAL\", \"BT not initialized or address missing\", null)";
constexpr char kSecretMissing[] = "error(\"EINVAL\", \"secret missing\", null)";

const char* const kUnsupported[] = {
    "requestEnable",
    "requestDisable",
    "openSettings",
    "isDiscoverable",
    "requestDiscoverable",
    "setName",
    "pairingRequestHandlingEnable",
    "pairingRequestHandlingDisable",
};

// What the methods without arguments answer when there is no adapter.
const Answers& NeutralAnswers() {
  static const Answers answers = {
      {"isAvailable", "false"},
      {"isEnabled", "false"},
      {"isOn", "false"},
      {"getState", "10"},
      {"getAddress", "\"\""},
      {"getName", "\"\""},
      {"isDiscovering", "false"},
      {"startDiscovery", "false"},
      {"cancelDiscovery", "false"},
      {"getDiscoveredDevices", "[]"},
      {"getBondedDevices", "[]"},
  };
  return answers;
}

// What the methods with an argument answer when it is missing or wrong.
const Answers& AnswersToBadArguments() {
  static const Answers answers = {
      {"getDeviceBondState", "10"}, {"getBondState", "10"},
      {"bondDevice", "false"},      {"removeDeviceBond", "false"},
      {"connect", kConnectRefused}, {"setAuthSecret", kSecretMissing},
      {"disconnect", "false"},      {"write", "false"},
  };
  return answers;
}

// One value of each type that is neither a string nor a map; owned by the
// caller.
std::vector<FlValue*> ValuesOfWrongType() {
  const uint8_t bytes[] = {'A', 'A'};
  const int32_t ints[] = {1};
  const int64_t longs[] = {1};
  const double doubles[] = {1};
  return {
      fl_value_new_null(),
      fl_value_new_bool(true),
      fl_value_new_int(1),
      fl_value_new_float(1.5),
      fl_value_new_uint8_list(bytes, 2),
      fl_value_new_int32_list(ints, 1),
      fl_value_new_int64_list(longs, 1),
      fl_value_new_float_list(doubles, 1),
      fl_value_new_list(),
  };
}

// All argument values under which the methods with an argument count it as
// missing; owned by the caller.
std::vector<FlValue*> BadArguments() {
  std::vector<FlValue*> arguments = ValuesOfWrongType();
  arguments.push_back(nullptr);
  arguments.push_back(fl_value_new_string(kDeviceAddress));
  arguments.push_back(Map());
  arguments.push_back(Map({{"Address", fl_value_new_string(kDeviceAddress)},
                           {"Secret", fl_value_new_string("s")},
                           {"ID", fl_value_new_int(1)}}));
  // A key that is not a string.
  FlValue* numbered = fl_value_new_map();
  fl_value_set_take(numbered, fl_value_new_int(1),
                    fl_value_new_string(kDeviceAddress));
  arguments.push_back(numbered);
  std::vector<FlValue*> members = ValuesOfWrongType();
  members.push_back(Map({{"address", fl_value_new_string(kDeviceAddress)}}));
  for (FlValue* member : members) {
    arguments.push_back(Map({{"address", fl_value_ref(member)},
                             {"secret", fl_value_ref(member)},
                             {"bytes", fl_value_new_uint8_list(nullptr, 0)}}));
    fl_value_unref(member);
  }
  return arguments;
}

void ExpectAnswers(PluginHost* host, const Answers& answers) {
  for (const auto& [method, answer] : answers) {
    EXPECT_EQ(host->Call(method), answer) << method;
  }
}

void ExpectBadArgumentsRefused(PluginHost* host) {
  for (const auto& [method, answer] : AnswersToBadArguments()) {
    for (FlValue* arguments : BadArguments()) {
      const std::string text = Describe(arguments);
      EXPECT_EQ(host->Call(method, arguments), answer) << method << text;
    }
  }
}

class Methods : public ReadyTest {};

class MethodsWithoutAdapter : public BusTest {
 protected:
  void SetUp() override {
    StartBus();
    StartDaemon();
    // Known to the daemon, so that only the missing adapter can hide it.
    daemon->AddDevice(kDevicePath,
                      "{'Address': <'AA:BB:CC:DD:EE:FF'>, 'Paired': <true>}");
    Register();
    daemon->TakeCalls();
  }
};

class AdapterProperties : public BusTest {
 protected:
  // Registers with an adapter that has the properties given and no other.
  void RegisterWith(const std::string& properties) {
    StartBus();
    StartDaemon();
    daemon->AddObject(kAdapterPath, kAdapterInterface, properties);
    Register();
  }
};

TEST_F(Methods, AnswerFromTheAdapter) {
  EXPECT_EQ(host->Call("isAvailable"), "true");
  EXPECT_EQ(host->Call("isEnabled"), "true");
  EXPECT_EQ(host->Call("isOn"), "true");
  EXPECT_EQ(host->Call("getState"), "12");
  EXPECT_EQ(host->Call("getAddress"), "\"00:11:22:33:44:55\"");
  EXPECT_EQ(host->Call("getName"), "\"desk\"");
  EXPECT_EQ(host->Call("isDiscovering"), "false");
}

TEST_F(Methods, MakeNoBusCallForTheAdapter) {
  for (const auto& [method, answer] : NeutralAnswers()) {
    if (method == "startDiscovery") break;
    EXPECT_NE(host->Call(method), kNotImplemented);
  }
  for (const char* method : kUnsupported) host->Call(method);
  host->Call("getPlatformVersion");
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
}

TEST_F(Methods, IgnoreArgumentsThatTheyDoNotTake) {
  for (FlValue* arguments : BadArguments()) {
    EXPECT_EQ(host->Call("getState", arguments), "12");
  }
  for (FlValue* arguments : BadArguments()) {
    EXPECT_EQ(host->Call("getName", arguments), "\"desk\"");
  }
}

TEST_F(Methods, RefuseBadArgumentsWithoutABusCall) {
  ExpectBadArgumentsRefused(host.get());
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
}

TEST_F(Methods, IgnoreExtraKeys) {
  daemon->AddDevice(kDevicePath,
                    "{'Address': <'AA:BB:CC:DD:EE:FF'>, 'Paired': <true>}");
  const auto with_extras = [] {
    return Map({{"name", fl_value_new_int(1)},
                {"address", fl_value_new_string(kDeviceAddress)},
                {"timeout", fl_value_new_null()}});
  };
  EXPECT_EQ(host->Call("getBondState", with_extras()), "12");
  EXPECT_EQ(host->Call("getDeviceBondState", with_extras()), "12");
  EXPECT_EQ(host->Call("removeDeviceBond", with_extras()), "true");
  EXPECT_EQ(host->Call("getBondState", with_extras()), "10");
  daemon->AddDevice(kDevicePath, "{}");
  EXPECT_EQ(host->Call("bondDevice", with_extras()), "true");
  EXPECT_EQ(host->Call("getBondState", with_extras()), "12");
}

TEST_F(Methods, TakeTheLastOfTwoEqualKeys) {
  daemon->AddDevice(kDevicePath,
                    "{'Address': <'AA:BB:CC:DD:EE:FF'>, 'Paired': <true>}");
  FlValue* twice = Address("11:11:11:11:11:11");
  fl_value_set_string_take(twice, "address",
                           fl_value_new_string(kDeviceAddress));
  EXPECT_EQ(host->Call("getBondState", twice), "12");
}

TEST_F(Methods, AnswerFalseForIdsThatAreNotIntegers) {
  std::vector<FlValue*> ids = ValuesOfWrongType();
  ids.push_back(fl_value_new_string("1"));
  ids.push_back(Map());
  const uint8_t bytes[] = {1};
  // One of them is an integer; no connection has it.
  for (FlValue* id : ids) {
    const std::string text = Describe(id);
    EXPECT_EQ(host->Call("disconnect", Map({{"id", fl_value_ref(id)}})),
              "false")
        << text;
    EXPECT_EQ(host->Call("write",
                         Map({{"id", id},
                              {"bytes", fl_value_new_uint8_list(bytes, 1)}})),
              "false")
        << text;
  }
}

TEST_F(Methods, AnswerFalseForIdsOfNoConnection) {
  const uint8_t bytes[] = {1};
  for (const int64_t id :
       {int64_t{0}, int64_t{1}, int64_t{-1}, int64_t{0x7fffffff},
        int64_t{0x100000001}, int64_t{0x80000000}, INT64_MIN, INT64_MAX}) {
    EXPECT_EQ(host->Call("disconnect", Map({{"id", fl_value_new_int(id)}})),
              "false");
    EXPECT_EQ(host->Call("write",
                         Map({{"id", fl_value_new_int(id)},
                              {"bytes", fl_value_new_uint8_list(bytes, 1)}})),
              "false");
  }
}

TEST_F(Methods, OfThisPlatformAreUnsupportedWhateverTheArguments) {
  daemon->SetProperties(kAdapterPath, kAdapterInterface,
                        "{'Powered': <true>, 'Discoverable': <true>}");
  for (const char* method : kUnsupported) {
    for (FlValue* arguments : BadArguments()) {
      EXPECT_EQ(host->Call(method, arguments), "false") << method;
    }
    EXPECT_EQ(host->Call(method, Address(kDeviceAddress)), "false") << method;
  }
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
  EXPECT_EQ(host->Call("getState"), "12");
}

TEST_F(Methods, WithOtherNamesAreNotImplemented) {
  for (const char* name :
       {"IsAvailable", "ISAVAILABLE", "isavailable", "isAvailable ",
        " isAvailable", "isAvailabl", "isAvailableNow", "GetState", "",
        "listen", "cancel", "getPlatformVersio", "setauthsecret",
        "discoverable"}) {
    EXPECT_EQ(host->Call(name), kNotImplemented) << name;
  }
}

TEST_F(Methods, GivesTheKernelsBuildVersion) {
  utsname system = {};
  ASSERT_EQ(uname(&system), 0);
  const std::string version = std::string("Linux ") + system.version;
  EXPECT_EQ(host->Call("getPlatformVersion"), '"' + version + '"');
  EXPECT_NE(std::string(system.version), system.release);
}

TEST_F(MethodsWithoutAdapter, AnswerNeutrally) {
  ExpectAnswers(host.get(), NeutralAnswers());
  for (const char* method : {"getBondState", "getDeviceBondState"}) {
    EXPECT_EQ(host->Call(method, Address(kDeviceAddress)), "10");
  }
  EXPECT_EQ(host->Call("bondDevice", Address(kDeviceAddress)), "false");
  EXPECT_EQ(host->Call("removeDeviceBond", Address(kDeviceAddress)), "false");
  EXPECT_EQ(host->Call("connect", Address(kDeviceAddress)), kConnectRefused);
  EXPECT_EQ(host->Call("disconnect", Map({{"id", fl_value_new_int(1)}})),
            "false");
  for (const char* method : kUnsupported) {
    EXPECT_EQ(host->Call(method), "false") << method;
  }
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
}

TEST_F(MethodsWithoutAdapter, RefuseBadArguments) {
  ExpectBadArgumentsRefused(host.get());
}

TEST_F(MethodsWithoutAdapter, StillTellPlatformAndUnknownNames) {
  utsname system = {};
  ASSERT_EQ(uname(&system), 0);
  EXPECT_EQ(host->Call("getPlatformVersion"),
            std::string("\"Linux ") + system.version + '"');
  EXPECT_EQ(host->Call("IsAvailable"), kNotImplemented);
}

TEST_F(MethodsWithoutAdapter, DoNotFindOneThatComesLater) {
  daemon->AddAdapter(kAdapterPath, "{'Powered': <true>}");
  daemon->Announce(kAdapterPath);
  Settle();
  ExpectAnswers(host.get(), NeutralAnswers());
}

TEST_F(AdapterProperties, NameIsEmptyWithoutOneWhateverTheAlias) {
  RegisterWith("{'Address': <'00:11:22:33:44:55'>, 'Alias': <'other'>}");
  EXPECT_EQ(host->Call("getName"), "\"\"");
  EXPECT_EQ(host->Call("getAddress"), "\"00:11:22:33:44:55\"");
}

TEST_F(AdapterProperties, AllAbsentAreNeutral) {
  RegisterWith("{'Class': <uint32 7>}");
  EXPECT_EQ(host->Call("isAvailable"), "true");
  EXPECT_EQ(host->Call("getAddress"), "\"\"");
  EXPECT_EQ(host->Call("getName"), "\"\"");
  EXPECT_EQ(host->Call("getState"), "10");
  EXPECT_EQ(host->Call("isOn"), "false");
  EXPECT_EQ(host->Call("isDiscovering"), "false");
}

TEST_F(AdapterProperties, OfTheWrongTypeCountAsAbsent) {
  RegisterWith(
      "{'Address': <true>, 'Name': <['desk']>, 'Powered': <'yes'>, "
      "'Discovering': <1>}");
  EXPECT_EQ(host->Call("isAvailable"), "true");
  EXPECT_EQ(host->Call("getAddress"), "\"\"");
  EXPECT_EQ(host->Call("getName"), "\"\"");
  EXPECT_EQ(host->Call("getState"), "10");
  EXPECT_EQ(host->Call("isDiscovering"), "false");
}

TEST_F(AdapterProperties, PoweredAndDiscoveringAreReadWithGetAll) {
  StartBus();
  StartDaemon();
  daemon->AddAdapter(kAdapterPath,
                     "{'Powered': <true>, 'Discovering': <true>}");
  daemon->OnCall(kAdapterPath, kPropertiesInterface, "GetAll", "s", "a{sv}",
                 "ret = {'Powered': dbus.Boolean(False), 'Discovering': "
                 "dbus.Boolean(False)}");
  Register();
  EXPECT_EQ(host->Call("getState"), "10");
  EXPECT_EQ(host->Call("isDiscovering"), "false");
}

TEST_F(AdapterProperties, AreNeutralWhenGetAllFailsWithoutAWord) {
  StartBus();
  StartDaemon();
  daemon->AddAdapter(kAdapterPath,
                     "{'Name': <'desk'>, 'Powered': <true>, 'Discovering': "
                     "<true>}");
  daemon->FailCall(kAdapterPath, kPropertiesInterface, "GetAll", "s",
                   "org.bluez.Error.Failed", "no");
  Register();
  EXPECT_EQ(host->Call("isAvailable"), "true");
  EXPECT_EQ(host->Call("getName"), "\"desk\"");
  EXPECT_EQ(host->Call("getState"), "10");
  EXPECT_EQ(host->Call("isDiscovering"), "false");
}

TEST_F(AdapterProperties, AreNeutralWhenGetAllAnswersAnotherType) {
  StartBus();
  StartDaemon();
  daemon->AddAdapter(kAdapterPath, "{'Powered': <true>}");
  daemon->OnCall(kAdapterPath, kPropertiesInterface, "GetAll", "s", "s",
                 "ret = 'Powered'");
  Register();
  EXPECT_EQ(host->Call("isAvailable"), "true");
  EXPECT_EQ(host->Call("getState"), "10");
}

TEST_F(AdapterProperties, FollowPowerAndDiscoveryButNotNameAndAddress) {
  RegisterWith(
      "{'Address': <'00:11:22:33:44:55'>, 'Name': <'desk'>, 'Powered': "
      "<false>, 'Discovering': <false>}");
  EXPECT_EQ(host->Call("isOn"), "false");
  daemon->SetProperties(
      kAdapterPath, kAdapterInterface,
      "{'Address': <'66:11:22:33:44:55'>, 'Name': <'lap'>, 'Powered': <true>, "
      "'Discovering': <true>}");
  daemon->EmitPropertiesChanged(kAdapterPath, kAdapterInterface,
                                "{'Powered': <true>}");
  ASSERT_TRUE(WaitUntil([&] { return host->Call("isOn") == "true"; }));
  EXPECT_EQ(host->Call("isEnabled"), "true");
  EXPECT_EQ(host->Call("isDiscovering"), "true");
  EXPECT_EQ(host->Call("getAddress"), "\"00:11:22:33:44:55\"");
  EXPECT_EQ(host->Call("getName"), "\"desk\"");
}

TEST_F(AdapterProperties, OfAnAdapterThatGoesStay) {
  RegisterWith("{'Name': <'desk'>, 'Powered': <true>}");
  daemon->Withdraw(kAdapterPath);
  Settle();
  EXPECT_EQ(host->Call("isAvailable"), "true");
  EXPECT_EQ(host->Call("getName"), "\"desk\"");
  EXPECT_EQ(host->Call("getState"), "12");
}

}  // namespace
}  // namespace lumso_test
