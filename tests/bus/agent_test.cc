// The pairing agent: its registration, its interface and its answers.

#include <vector>

#include "tests/support/bus_test.h"

namespace lumso_test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kAgentPath[] = "/brel/lumso/lumso_bluetooth/agent";
constexpr char kAgentInterface[] = "org.bluez.Agent1";
constexpr char kManagerPath[] = "/org/bluez";
constexpr char kRegisterCall[] =
    "org.bluez.AgentManager1.RegisterAgent /org/bluez (os) "
    "/brel/lumso/lumso_bluetooth/agent NoInputNoOutput";
constexpr char kDefaultCall[] =
    "org.bluez.AgentManager1.RequestDefaultAgent /org/bluez (o) "
    "/brel/lumso/lumso_bluetooth/agent";
constexpr char kUnregisterCall[] =
    "org.bluez.AgentManager1.UnregisterAgent /org/bluez (o) "
    "/brel/lumso/lumso_bluetooth/agent";
constexpr char kRejected[] =
    "org.bluez.Error.Rejected: lumso_bluetooth: device requested input we "
    "can't provide";

// A call's outcome on its way out of the main loop.
struct Outcome {
  bool done = false;
  std::string text;
};

void FinishCall(GObject* source, GAsyncResult* result, gpointer user_data) {
  auto* outcome = static_cast<Outcome*>(user_data);
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply =
      g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
  if (reply != nullptr) {
    g_autofree gchar* text = g_variant_print(reply, TRUE);
    outcome->text = text;
  } else {
    g_autofree gchar* name = g_dbus_error_get_remote_error(error);
    g_dbus_error_strip_remote_error(error);
    outcome->text =
        std::string(name == nullptr ? "local" : name) + ": " + error->message;
  }
  outcome->done = true;
}

// The arguments of a method as text, such as "o,u".
std::string Signatures(GDBusArgInfo** arguments) {
  std::string text;
  for (; *arguments != nullptr; arguments++) {
    text += (text.empty() ? "" : ",") + std::string((*arguments)->signature);
  }
  return text;
}

class Agent : public BusTest {
 protected:
  void StartReady() {
    StartBus();
    StartDaemon();
    daemon->AddAdapter(kAdapterPath, "{'Powered': <true>}");
  }

  // Calls an object of the plug-in's bus connection from another one and
  // returns the reply as text, or the error as "name: message".
  std::string CallPlugin(const std::string& path, const std::string& interface,
                         const std::string& method, const char* arguments) {
    Outcome outcome;
    g_dbus_connection_call(
        bus->connection(), plugin_.c_str(), path.c_str(), interface.c_str(),
        method.c_str(), g_variant_new_parsed(arguments), nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, FinishCall, &outcome);
    EXPECT_TRUE(WaitUntil([&] { return outcome.done; }));
    return outcome.text;
  }

  // Registers an agent of somebody else in the process, on the connection that
  // the plug-in will use, which is returned.
  BusPtr RegisterOther() {
    BusPtr shared = SharedBus();
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        shared.get(), "org.bluez", kManagerPath, kAgentManagerInterface,
        "RegisterAgent", g_variant_new("(os)", "/other", ""), nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    EXPECT_NE(reply, nullptr);
    daemon->TakeCalls();
    return shared;
  }

  void RegisterAgent() {
    StartReady();
    Register();
    plugin_ = PluginBusName();
  }

 private:
  // The plug-in's unique name on the bus.
  std::string plugin_;
};

class AgentAnswers : public Agent {
 protected:
  void SetUp() override { RegisterAgent(); }
};

TEST_F(Agent, IsRegisteredAndMadeTheDefaultAfterTheAdapterIsFound) {
  RegisterAgent();
  EXPECT_THAT(
      daemon->TakeCalls(),
      ElementsAre("org.freedesktop.DBus.ObjectManager.GetManagedObjects /",
                  "org.freedesktop.DBus.Properties.GetAll /org/bluez/hci0 (s) "
                  "org.bluez.Adapter1",
                  kRegisterCall, kDefaultCall));
}

TEST_F(Agent, IsExportedBeforeItIsRegistered) {
  StartReady();
  // Answered by the bus connection's own thread when there is no such object,
  // and not at all while the main thread waits for RegisterAgent.
  daemon->OnCall(
      kManagerPath, kAgentManagerInterface, "RegisterAgent", "os", "",
      "bus = self.bus_name.get_bus()\n"
      "for name in bus.list_names():\n"
      "  try:\n"
      "    if name[0] == ':' and name != bus.get_unique_name():\n"
      "      bus.call_blocking(name, args[0], 'org.bluez.Agent1', 'Cancel',"
      " '', (), timeout=0.5)\n"
      "  except dbus.exceptions.DBusException as e:\n"
      "    if e.get_dbus_name().endswith('NoReply'):\n"
      "      objects['/'].arrivals.append('exported')\n");
  Register();
  EXPECT_THAT(daemon->TakeCalls(), Contains("exported"));
}

TEST_F(Agent, ThatIsRefusedIsReportedAndNotMadeTheDefault) {
  StartReady();
  const BusPtr shared = RegisterOther();
  Register();
  EXPECT_EQ(TakeStandardError(),
            "lumso_bluetooth: RegisterAgent failed: "
            "GDBus.Error:org.bluez.Error.AlreadyExists: Already Exists\n");
  const std::vector<std::string> calls = daemon->TakeCalls();
  EXPECT_THAT(calls, Contains(kRegisterCall));
  EXPECT_THAT(calls, Not(Contains(kDefaultCall)));
  EXPECT_EQ(host->Call("isAvailable"), "true");
  EXPECT_EQ(host->Call("getState"), "12");
}

TEST_F(Agent, ThatIsRefusedStaysExportedUntilDispose) {
  StartReady();
  const BusPtr shared = RegisterOther();
  Register();
  TakeStandardError();
  Outcome outcome;
  g_dbus_connection_call(bus->connection(), PluginBusName().c_str(), kAgentPath,
                         kAgentInterface, "Cancel", nullptr, nullptr,
                         G_DBUS_CALL_FLAGS_NONE, -1, nullptr, FinishCall,
                         &outcome);
  ASSERT_TRUE(WaitUntil([&] { return outcome.done; }));
  EXPECT_EQ(outcome.text, "()");
  daemon->TakeCalls();
  host->Dispose();
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(kUnregisterCall));
  outcome = {};
  g_dbus_connection_call(bus->connection(), PluginBusName().c_str(), kAgentPath,
                         kAgentInterface, "Cancel", nullptr, nullptr,
                         G_DBUS_CALL_FLAGS_NONE, -1, nullptr, FinishCall,
                         &outcome);
  ASSERT_TRUE(WaitUntil([&] { return outcome.done; }));
  EXPECT_EQ(outcome.text.rfind("org.freedesktop.DBus.Error.Unknown", 0), 0U)
      << outcome.text;
}

TEST_F(Agent, ThatIsNotMadeTheDefaultWorksWithoutAWord) {
  StartReady();
  daemon->FailCall(kManagerPath, kAgentManagerInterface, "RequestDefaultAgent",
                   "o", "org.bluez.Error.DoesNotExist", "Does Not Exist");
  Register();
  EXPECT_EQ(daemon->TakeCalls().back(), kDefaultCall);
  EXPECT_EQ(host->Call("isAvailable"), "true");
}

TEST_F(Agent, OnABusWithoutAManagerIsReported) {
  StartReady();
  daemon->RemoveObject(kManagerPath);
  Register();
  // The text of the D-Bus library has a line end of its own.
  EXPECT_EQ(TakeStandardError(),
            "lumso_bluetooth: RegisterAgent failed: "
            "GDBus.Error:org.freedesktop.DBus.Error.UnknownMethod: Method "
            "\"RegisterAgent\" with signature \"os\" on interface "
            "\"org.bluez.AgentManager1\" doesn't exist\n\n");
  EXPECT_EQ(host->Call("isAvailable"), "true");
}

TEST_F(Agent, IsWithdrawnAtDispose) {
  RegisterAgent();
  daemon->TakeCalls();
  host->Dispose();
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(kUnregisterCall));
}

TEST_F(Agent, IsWithdrawnAtDisposeEvenWhenTheDaemonRefuses) {
  RegisterAgent();
  daemon->FailCall(kManagerPath, kAgentManagerInterface, "UnregisterAgent", "o",
                   "org.bluez.Error.DoesNotExist", "Does Not Exist");
  daemon->TakeCalls();
  host->Dispose();
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(kUnregisterCall));
}

TEST_F(Agent, IsWithdrawnThoughItWasNeverRegistered) {
  StartBus();
  StartDaemon();
  Register();
  EXPECT_THAT(
      daemon->TakeCalls(),
      ElementsAre("org.freedesktop.DBus.ObjectManager.GetManagedObjects /",
                  kUnregisterCall));
  host->Dispose();
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
}

TEST_F(AgentAnswers, HaveTheInterfaceThatTheDaemonExpects) {
  const std::string reply = CallPlugin(
      kAgentPath, "org.freedesktop.DBus.Introspectable", "Introspect", "()");
  g_autoptr(GVariant) tuple = g_variant_parse(
      G_VARIANT_TYPE("(s)"), reply.c_str(), nullptr, nullptr, nullptr);
  ASSERT_NE(tuple, nullptr) << reply;
  const gchar* xml = nullptr;
  g_variant_get(tuple, "(&s)", &xml);
  g_autoptr(GDBusNodeInfo) node = g_dbus_node_info_new_for_xml(xml, nullptr);
  ASSERT_NE(node, nullptr);

  std::vector<std::string> interfaces;
  for (GDBusInterfaceInfo** info = node->interfaces; *info != nullptr; info++) {
    interfaces.emplace_back((*info)->name);
  }
  // The first three are every exported object's.
  EXPECT_THAT(interfaces,
              ElementsAre("org.freedesktop.DBus.Properties",
                          "org.freedesktop.DBus.Introspectable",
                          "org.freedesktop.DBus.Peer", kAgentInterface));

  const GDBusInterfaceInfo* agent =
      g_dbus_node_info_lookup_interface(node, kAgentInterface);
  ASSERT_NE(agent, nullptr);
  std::vector<std::string> methods;
  for (GDBusMethodInfo** info = agent->methods; *info != nullptr; info++) {
    methods.push_back(std::string((*info)->name) + "(" +
                      Signatures((*info)->in_args) + ")" +
                      Signatures((*info)->out_args));
  }
  EXPECT_THAT(
      methods,
      ElementsAre("Release()", "RequestPinCode(o)s", "DisplayPinCode(o,s)",
                  "RequestPasskey(o)u", "DisplayPasskey(o,u,q)",
                  "RequestConfirmation(o,u)", "RequestAuthorization(o)",
                  "AuthorizeService(o,s)", "Cancel()"));
  EXPECT_TRUE(agent->signals == nullptr || agent->signals[0] == nullptr);
  EXPECT_TRUE(agent->properties == nullptr || agent->properties[0] == nullptr);
}

TEST_F(AgentAnswers, GrantWhatNeedsNoInput) {
  EXPECT_EQ(daemon->AskAgent("RequestConfirmation", "(ou)", "('/d', 0)"), "()");
  EXPECT_EQ(daemon->AskAgent("RequestConfirmation", "(ou)", "('/d', 999999)"),
            "()");
  EXPECT_EQ(daemon->AskAgent("AuthorizeService", "(os)",
                             "('/d', "
                             "'00001101-0000-1000-8000-00805f9b34fb')"),
            "()");
  EXPECT_EQ(daemon->AskAgent("AuthorizeService", "(os)", "('/d', '')"), "()");
  EXPECT_EQ(daemon->AskAgent("RequestAuthorization", "(o)", "('/d',)"), "()");
  EXPECT_EQ(daemon->AskAgent("Release", "()", "()"), "()");
  EXPECT_EQ(daemon->AskAgent("Cancel", "()", "()"), "()");
  EXPECT_EQ(daemon->AskAgent("DisplayPasskey", "(ouq)", "('/d', 123456, 3)"),
            "()");
  EXPECT_EQ(daemon->AskAgent("DisplayPinCode", "(os)", "('/d', '0000')"), "()");
}

TEST_F(AgentAnswers, RejectWhatNeedsInput) {
  EXPECT_EQ(daemon->AskAgent("RequestPinCode", "(o)", "('/d',)"), kRejected);
  EXPECT_EQ(daemon->AskAgent("RequestPasskey", "(o)", "('/d',)"), kRejected);
}

TEST_F(AgentAnswers, StayTheSameAfterRelease) {
  EXPECT_EQ(daemon->AskAgent("Release", "()", "()"), "()");
  EXPECT_EQ(daemon->AskAgent("RequestAuthorization", "(o)", "('/d',)"), "()");
  EXPECT_EQ(daemon->AskAgent("RequestPinCode", "(o)", "('/d',)"), kRejected);
}

// The bus library answers these itself, from the interface description.
TEST_F(AgentAnswers, KnowNoOtherMethod) {
  EXPECT_EQ(daemon->AskAgent("RequestPin", "(o)", "('/d',)"),
            "org.freedesktop.DBus.Error.UnknownMethod: No such method "
            "“RequestPin”");
  EXPECT_EQ(CallPlugin(kAgentPath, "org.bluez.Agent2", "Cancel", "()"),
            "org.freedesktop.DBus.Error.UnknownMethod: No such interface "
            "“org.bluez.Agent2” on object at path "
            "/brel/lumso/lumso_bluetooth/agent");
}

TEST_F(AgentAnswers, ComeFromOneObjectOnly) {
  for (const char* path : {"/brel/lumso/lumso_bluetooth",
                           "/brel/lumso/lumso_bluetooth/agent/agent", "/"}) {
    const std::string text = CallPlugin(path, kAgentInterface, "Cancel", "()");
    EXPECT_EQ(text.rfind("org.freedesktop.DBus.Error.Unknown", 0), 0U) << text;
  }
}

TEST_F(AgentAnswers, AreGivenToAnybody) {
  daemon->Kill();
  EXPECT_EQ(CallPlugin(kAgentPath, kAgentInterface, "RequestAuthorization",
                       "(objectpath '/d',)"),
            "()");
}

}  // namespace
}  // namespace lumso_test
