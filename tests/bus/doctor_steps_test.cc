// The doctor's steps, one by one: every outcome, on a machine laid out in a
// folder, a bus with a daemon double, and RFCOMM sockets made here.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "doctor/steps.h"
#include "tests/support/bus_test.h"
#include "tests/support/fake_rfcomm.h"

namespace lumso_test {
namespace {

using lumso_doctor::Finding;
using lumso_doctor::Patient;
using lumso_doctor::Trouble;
using lumso_doctor::Verdict;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::Matcher;
using ::testing::Not;
using ::testing::Optional;
using ::testing::SizeIs;

constexpr char kAdapterOn[] =
    "{'Address': <'00:11:22:33:44:55'>, 'Powered': <true>, "
    "'Pairable': <true>, 'Modalias': <'usb:v1D6Bp0246d0542'>}";
constexpr char kAdapterOff[] =
    "{'Address': <'00:11:22:33:44:66'>, 'Powered': <false>}";

Matcher<const Finding&> IsOk() {
  return Field("verdict", &Finding::verdict, Verdict::kOk);
}
Matcher<const Finding&> IsUnclear() {
  return AllOf(Field("verdict", &Finding::verdict, Verdict::kCannotTell),
               Field("trouble", &Finding::trouble, std::nullopt));
}
Matcher<const Finding&> IsProblemWithoutARow() {
  return AllOf(Field("verdict", &Finding::verdict, Verdict::kProblem),
               Field("trouble", &Finding::trouble, std::nullopt));
}
Matcher<const Finding&> IsProblem(Trouble trouble) {
  return AllOf(Field("verdict", &Finding::verdict, Verdict::kProblem),
               Field("trouble", &Finding::trouble, Optional(trouble)));
}
Matcher<const Finding&> Saw(const std::string& text) {
  return Field("saw", &Finding::saw, Contains(HasSubstr(text)));
}

class DoctorTest : public BusTest {
 protected:
  DoctorTest() {
    g_autofree gchar* folder = g_dir_make_tmp("lumso-doctor-XXXXXX", nullptr);
    patient_.root = folder;
    patient_.address = kDeviceAddress;
    SetTimeLimit(40);
  }
  ~DoctorTest() override { std::filesystem::remove_all(patient_.root); }

  void SetTimeLimit(int seconds) {
    patient_.deadline = g_get_monotonic_time() + seconds * G_TIME_SPAN_SECOND;
  }

  // Lays out the machine.
  void Write(const std::string& path, const std::string& text) {
    const std::filesystem::path file = patient_.root + path;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << text;
  }
  void Link(const std::string& path, const std::string& target) {
    const std::filesystem::path link = patient_.root + path;
    std::filesystem::create_directories(link.parent_path());
    std::filesystem::create_symlink(target, link);
  }
  void AddSwitch(const std::string& number, const std::string& name,
                 const char* soft, const char* hard,
                 const char* type = "bluetooth") {
    const std::string folder = "/sys/class/rfkill/rfkill" + number;
    Write(folder + "/type", type + std::string("\n"));
    Write(folder + "/name", name + "\n");
    Write(folder + "/soft", soft + std::string("\n"));
    Write(folder + "/hard", hard + std::string("\n"));
  }
  void SetNamespaces(const char* own, const char* first, const char* pid) {
    Link("/proc/self/ns/net", own);
    if (first != nullptr) Link("/proc/1/ns/net", first);
    Link("/proc/self/ns/pid", pid);
  }
  void BeInSnap(const char* mode) {
    Write("/proc/self/attr/current",
          std::string("snap.terminal.app (") + mode + ")\n");
  }
  void FailSocket(int error) { air_.Script(Call::kSocket, {Fail(error)}); }

  // A bus with a daemon, whose objects have been asked for.
  void StartDaemonWith(const std::vector<std::string>& adapters) {
    StartBus();
    StartDaemon();
    int number = 0;
    for (const std::string& adapter : adapters) {
      daemon->AddAdapter("/org/bluez/hci" + std::to_string(number++), adapter);
    }
  }
  Finding Adapter() {
    ExamineBus(&patient_);
    ExamineDaemon(&patient_);
    return ExamineAdapter(&patient_);
  }

  FakeRfcomm air_;
  Patient patient_;
};

class DoctorProcess : public DoctorTest {};

TEST_F(DoctorProcess, IsWellWhereASocketCanBeMade) {
  const Finding finding = ExamineProcess(&patient_);
  EXPECT_THAT(finding, IsOk());
  EXPECT_THAT(finding, Saw("no Flatpak or Snap sandbox"));
  EXPECT_EQ(patient_.socket_error, 0);
  EXPECT_EQ(air_.open_sockets(), 0U);
}

TEST_F(DoctorProcess, SeesTheNamespaceEvenWithoutTheModule) {
  FailSocket(EPROTONOSUPPORT);
  EXPECT_THAT(ExamineProcess(&patient_), IsOk());
  EXPECT_EQ(patient_.socket_error, EPROTONOSUPPORT);
}

TEST_F(DoctorProcess, ComparesItsNamespaceWithThatOfProcessOne) {
  FailSocket(EAFNOSUPPORT);
  SetNamespaces("net:[2]", "net:[1]", "pid:[4026531836]");
  EXPECT_THAT(ExamineProcess(&patient_), IsProblem(Trouble::kNoSockets));
  EXPECT_STREQ(patient_.sockets_spoilt, "this process");
  EXPECT_THAT(ExamineKernel(&patient_), IsUnclear());
}

TEST_F(DoctorProcess, LeavesAKernelWithoutBluetoothToTheKernelStep) {
  FailSocket(EAFNOSUPPORT);
  SetNamespaces("net:[1]", "net:[1]", "pid:[4026531836]");
  EXPECT_THAT(ExamineProcess(&patient_), IsOk());
  EXPECT_THAT(ExamineKernel(&patient_), IsProblem(Trouble::kNoSockets));
}

TEST_F(DoctorProcess, DoesNotTrustProcessOneOfAContainer) {
  FailSocket(EAFNOSUPPORT);
  SetNamespaces("net:[2]", "net:[2]", "pid:[7]");
  EXPECT_THAT(ExamineProcess(&patient_), IsUnclear());
  EXPECT_THAT(ExamineKernel(&patient_), IsProblem(Trouble::kNoSockets));
}

TEST_F(DoctorProcess, ConcludesFromAKernelThatHasBluetooth) {
  FailSocket(EAFNOSUPPORT);
  SetNamespaces("net:[2]", nullptr, "pid:[4026531836]");
  Write("/sys/module/bluetooth/refcnt", "1");
  EXPECT_THAT(ExamineProcess(&patient_), IsProblem(Trouble::kNoSockets));
}

constexpr char kGranted[] =
    "[Context]\nshared=network;ipc;\nfeatures=bluetooth;\n"
    "[System Bus Policy]\norg.bluez=talk\n";

TEST_F(DoctorProcess, IsWellInAFlatpakThatIsGrantedEverything) {
  Write("/.flatpak-info", kGranted);
  EXPECT_THAT(ExamineProcess(&patient_), AllOf(IsOk(), Saw("Flatpak")));
}

TEST_F(DoctorProcess, IsWellInAFlatpakWithTheWholeBus) {
  Write("/.flatpak-info",
        "[Context]\nshared=network;\nfeatures=bluetooth;\n"
        "sockets=x11;system-bus;\n");
  EXPECT_THAT(ExamineProcess(&patient_), IsOk());
}

TEST_F(DoctorProcess, IsWellInAFlatpakWithAllNamesBelowTheDaemons) {
  Write("/.flatpak-info",
        "[Context]\nshared=network;\nfeatures=bluetooth;\n"
        "[System Bus Policy]\norg.bluez.*=talk\n");
  EXPECT_THAT(ExamineProcess(&patient_), IsOk());
}

TEST_F(DoctorProcess, MissesTheBusInAFlatpak) {
  Write("/.flatpak-info", "[Context]\nshared=network;\nfeatures=bluetooth;\n");
  EXPECT_THAT(ExamineProcess(&patient_),
              AllOf(IsProblem(Trouble::kNoBus), Saw("without org.bluez")));
  EXPECT_THAT(ExamineBus(&patient_), IsUnclear());
  EXPECT_THAT(ExamineKernel(&patient_), Not(IsProblem(Trouble::kNoSockets)));
}

TEST_F(DoctorProcess, MissesTheNetworkInAFlatpak) {
  Write("/.flatpak-info",
        "[Context]\nfeatures=bluetooth;\n[System Bus Policy]\norg.bluez=own\n");
  EXPECT_THAT(ExamineProcess(&patient_), AllOf(IsProblem(Trouble::kNoSockets),
                                               Saw("without the network")));
}

TEST_F(DoctorProcess, MissesTheSocketsInAFlatpak) {
  Write("/.flatpak-info",
        "[Context]\nshared=network;\n[System Bus Policy]\norg.bluez=talk\n");
  EXPECT_THAT(
      ExamineProcess(&patient_),
      AllOf(IsProblem(Trouble::kNoSockets), Saw("without Bluetooth sockets")));
}

TEST_F(DoctorProcess, NamesTheSnap) {
  BeInSnap("enforce");
  EXPECT_THAT(ExamineProcess(&patient_), AllOf(IsOk(), Saw("a Snap: ")));
}

TEST_F(DoctorProcess, IsNotConfinedByEverySnap) {
  BeInSnap("complain");
  EXPECT_THAT(ExamineProcess(&patient_), AllOf(IsOk(), Saw("no Flatpak")));
}

class DoctorKernel : public DoctorTest {
 protected:
  Finding Kernel() {
    Write("/sys/class/bluetooth/hci0/address", "");
    ExamineProcess(&patient_);
    return ExamineKernel(&patient_);
  }
};

TEST_F(DoctorKernel, IsWellWithSocketsAndAController) {
  Write("/sys/module/bluetooth/refcnt", "1");
  Write("/sys/class/bluetooth/hci0:1/address", "");
  const Finding finding = Kernel();
  EXPECT_THAT(finding,
              AllOf(IsOk(), Saw("module bluetooth loaded"),
                    Saw("module rfcomm not loaded"), Saw("controller hci0")));
  EXPECT_THAT(finding, Not(Saw("hci0:1")));
}

// Whoever asks for a socket has the modules loaded.
TEST_F(DoctorKernel, SaysWhatItsOwnSocketLoaded) {
  Write("/sys/module/bluetooth/refcnt", "1");
  air_.Script(Call::kSocket,
              {After([this] { Write("/sys/module/rfcomm/refcnt", "0"); })});
  EXPECT_THAT(Kernel(), Field("saw", &Finding::saw,
                              AllOf(Contains("module bluetooth loaded"),
                                    Contains("module rfcomm loaded when it "
                                             "was asked for"))));
}

TEST_F(DoctorKernel, MissesTheRfcommModule) {
  FailSocket(EPROTONOSUPPORT);
  EXPECT_THAT(Kernel(), IsProblem(Trouble::kNoRfcomm));
  EXPECT_THAT(ExamineStream(&patient_), AllOf(IsUnclear(), Saw("see kernel")));
}

TEST_F(DoctorKernel, SeesThatSocketsAreForbidden) {
  FailSocket(EPERM);
  EXPECT_THAT(Kernel(), IsProblem(Trouble::kSocketsForbidden));
}

TEST_F(DoctorKernel, SeesThatSocketsAreDenied) {
  FailSocket(EACCES);
  EXPECT_THAT(Kernel(), IsProblem(Trouble::kSocketsForbidden));
}

TEST_F(DoctorKernel, CannotTellWhatAnotherErrorMeans) {
  FailSocket(EMFILE);
  EXPECT_THAT(Kernel(), AllOf(IsUnclear(), Saw("Too many open files")));
}

TEST_F(DoctorKernel, LeavesAMissingControllerToTheAdapterStep) {
  ExamineProcess(&patient_);
  EXPECT_THAT(ExamineKernel(&patient_),
              AllOf(IsUnclear(), Saw("no controller")));
}

class DoctorRadio : public DoctorTest {};

TEST_F(DoctorRadio, IsWellWithoutASwitch) {
  EXPECT_THAT(ExamineRadio(&patient_), AllOf(IsOk(), Saw("none")));
}

TEST_F(DoctorRadio, LooksAtBluetoothAlone) {
  AddSwitch("0", "hci0", "0", "0");
  AddSwitch("1", "phy0", "1", "1", "wlan");
  EXPECT_THAT(ExamineRadio(&patient_),
              AllOf(IsOk(), Field("saw", &Finding::saw,
                                  ElementsAre("hci0 not blocked"))));
}

TEST_F(DoctorRadio, FindsASoftBlock) {
  AddSwitch("0", "hci0", "1", "0");
  EXPECT_THAT(ExamineRadio(&patient_), AllOf(IsProblem(Trouble::kBlocked),
                                             Saw("hci0 blocked by software")));
}

TEST_F(DoctorRadio, FindsAHardBlock) {
  AddSwitch("3", "hci0", "0", "1");
  EXPECT_THAT(ExamineRadio(&patient_), AllOf(IsProblem(Trouble::kBlocked),
                                             Saw("hci0 blocked by hardware")));
}

TEST_F(DoctorRadio, FindsBoth) {
  AddSwitch("0", "hci0", "1", "1");
  EXPECT_THAT(ExamineRadio(&patient_),
              Saw("hci0 blocked by software and blocked by hardware"));
}

TEST_F(DoctorRadio, FindsTheBlockOfTheMachinesOwnSwitch) {
  AddSwitch("0", "tpacpi_bluetooth_sw", "1", "0");
  EXPECT_THAT(ExamineRadio(&patient_), IsProblem(Trouble::kBlocked));
}

TEST_F(DoctorRadio, IsWellWithAControllerThatTheMachinesSwitchLeavesAlone) {
  AddSwitch("0", "hci0", "0", "0");
  AddSwitch("1", "tpacpi_bluetooth_sw", "1", "0");
  EXPECT_THAT(ExamineRadio(&patient_), IsOk());
  StartDaemonWith({kAdapterOn});
  EXPECT_THAT(Adapter(), IsOk());
}

TEST_F(DoctorRadio, MayKeepThatControllerOffAllTheSame) {
  AddSwitch("0", "hci0", "0", "0");
  AddSwitch("1", "tpacpi_bluetooth_sw", "1", "0");
  ExamineRadio(&patient_);
  StartDaemonWith({kAdapterOff});
  EXPECT_THAT(Adapter(), IsProblem(Trouble::kBlocked));
}

TEST_F(DoctorRadio, LeavesOneOfTwoControllersToTheAdapterStep) {
  AddSwitch("0", "hci0", "1", "0");
  AddSwitch("1", "hci1", "0", "0");
  EXPECT_THAT(ExamineRadio(&patient_), IsOk());
  StartDaemonWith({kAdapterOff, kAdapterOn});
  EXPECT_THAT(Adapter(), IsProblem(Trouble::kBlocked));
}

class DoctorBus : public DoctorTest {};

TEST_F(DoctorBus, IsWellWithAnAnswer) {
  StartDaemonWith({kAdapterOn});
  EXPECT_THAT(ExamineBus(&patient_),
              AllOf(IsOk(), Saw("lets this user call org.bluez")));
}

TEST_F(DoctorBus, IsMissed) {
  UseNoSystemBus();
  EXPECT_THAT(ExamineBus(&patient_),
              AllOf(IsProblem(Trouble::kNoBus), Saw("Could not connect")));
  EXPECT_THAT(ExamineDaemon(&patient_), AllOf(IsUnclear(), Saw("see bus")));
  EXPECT_THAT(ExamineAdapter(&patient_), IsUnclear());
  EXPECT_THAT(ExamineAgent(&patient_), IsUnclear());
  EXPECT_THAT(ExamineDevice(&patient_), IsUnclear());
  EXPECT_THAT(ExamineStream(&patient_), IsUnclear());
}

TEST_F(DoctorBus, IsNotFoundWhereItsAddressIsNone) {
  g_setenv("DBUS_SYSTEM_BUS_ADDRESS", "no address", TRUE);
  EXPECT_THAT(ExamineBus(&patient_),
              AllOf(IsProblem(Trouble::kBusRefuses), Saw("no address")));
}

// The kernel accepts for a bus that hangs, which never says a word.
TEST_F(DoctorBus, IsNotWaitedForEndlessly) {
  const std::string path = patient_.root + "/bus";
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)),
            0);
  ASSERT_EQ(listen(fd, 1), 0);
  g_setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + path).c_str(), TRUE);
  SetTimeLimit(1);
  const gint64 began = g_get_monotonic_time();
  EXPECT_THAT(ExamineBus(&patient_), IsProblem(Trouble::kBusSilent));
  EXPECT_LT(g_get_monotonic_time() - began, 4 * G_TIME_SPAN_SECOND);
  close(fd);
}

TEST_F(DoctorBus, ForbidsTheDaemon) {
  StartDaemonWith({kAdapterOn});
  daemon->FailCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                   "org.freedesktop.DBus.Error.AccessDenied", "Rejected");
  EXPECT_THAT(ExamineBus(&patient_),
              AllOf(IsProblem(Trouble::kDenied), Saw("Rejected")));
  EXPECT_THAT(ExamineDaemon(&patient_), IsUnclear());
}

TEST_F(DoctorBus, ForbidsTheDaemonToASnap) {
  BeInSnap("enforce");
  StartDaemonWith({kAdapterOn});
  daemon->FailCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                   "org.freedesktop.DBus.Error.AccessDenied", "Rejected");
  EXPECT_THAT(ExamineBus(&patient_), IsProblem(Trouble::kNoBus));
}

class DoctorDaemon : public DoctorTest {
 protected:
  Finding Daemon() {
    ExamineBus(&patient_);
    return ExamineDaemon(&patient_);
  }
};

TEST_F(DoctorDaemon, TellsItsVersion) {
  StartDaemonWith({kAdapterOn});
  EXPECT_THAT(Daemon(), AllOf(IsOk(), Saw("version 5.66")));
}

TEST_F(DoctorDaemon, MayKeepItsVersion) {
  StartDaemonWith({});
  daemon->AddObject(kAdapterPath, kAdapterInterface, kAdapterOff);
  EXPECT_THAT(Daemon(), AllOf(IsOk(), Saw("version not told")));
}

TEST_F(DoctorDaemon, Hangs) {
  StartDaemonWith({kAdapterOn});
  daemon->OnCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                 "a{oa{sa{sv}}}", "import time; time.sleep(5); ret = {}");
  SetTimeLimit(1);
  EXPECT_THAT(Daemon(), IsProblem(Trouble::kDaemonHangs));
  EXPECT_THAT(ExamineStream(&patient_), AllOf(IsUnclear(), Saw("see daemon")));
}

TEST_F(DoctorDaemon, FailsInAWayOfItsOwn) {
  StartDaemonWith({kAdapterOn});
  daemon->FailCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                   "org.example.Odd", "odd");
  EXPECT_THAT(Daemon(), AllOf(IsProblemWithoutARow(), Saw("odd")));
}

// The bus says so at once.
TEST_F(DoctorDaemon, MayDieOfTheQuestion) {
  StartDaemonWith({kAdapterOn});
  daemon->OnCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                 "a{oa{sa{sv}}}", "import os; os._exit(1)");
  EXPECT_THAT(Daemon(), IsProblem(Trouble::kDaemonFails));
}

TEST_F(DoctorDaemon, IsMissedWithoutSystemd) {
  StartBus();
  EXPECT_THAT(Daemon(), AllOf(IsProblem(Trouble::kNoDaemon),
                              Saw("cannot start it"), Saw("no systemd")));
}

// A bus with a configuration of the case's own.
class DoctorOwnBus : public DoctorDaemon {
 protected:
  void StartOwnBus(const std::string& rules) {
    Write("/bus.conf", "<busconfig><listen>unix:path=" + patient_.root +
                           "/bus</listen><servicedir>" + patient_.root +
                           "/services</servicedir><policy context=\"default\">"
                           "<allow send_destination=\"*\"/>" +
                           rules + "</policy></busconfig>");
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{
            "/usr/bin/dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
            "--print-address=1",
            "--config-file=" + patient_.root + "/bus.conf"},
        true);
    g_setenv("DBUS_SYSTEM_BUS_ADDRESS", process_->ReadLine().c_str(), TRUE);
  }
  void EndOwnBus() { process_->Kill(); }

 private:
  std::unique_ptr<ChildProcess> process_;
};

// Both could be started, and would leave a file.
TEST_F(DoctorOwnBus, StartsNobody) {
  const std::string started = patient_.root + "/started";
  for (const char* name : {"org.bluez", "org.freedesktop.systemd1"}) {
    Write(std::string("/services/") + name + ".service",
          std::string("[D-BUS Service]\nName=") + name +
              "\nExec=/usr/bin/touch " + started + "\n");
  }
  StartOwnBus("<allow receive_sender=\"*\"/>");
  EXPECT_THAT(Daemon(), AllOf(IsProblem(Trouble::kNoDaemon),
                              Saw("the bus may start it"), Saw("no systemd")));
  EXPECT_FALSE(std::filesystem::exists(started));
}

// It lets the doctor in, and keeps back the answer to its greeting.
TEST_F(DoctorOwnBus, MayStaySilentOnceItIsConnected) {
  StartOwnBus("");
  SetTimeLimit(1);
  const gint64 began = g_get_monotonic_time();
  EXPECT_THAT(ExamineBus(&patient_), IsProblem(Trouble::kBusSilent));
  EXPECT_LT(g_get_monotonic_time() - began, 4 * G_TIME_SPAN_SECOND);
}

TEST_F(DoctorOwnBus, MayNotKnowTheUser) {
  StartOwnBus("</policy><policy context=\"mandatory\"><deny user=\"*\"/>");
  EXPECT_THAT(ExamineBus(&patient_), IsProblem(Trouble::kBusRefuses));
}

TEST_F(DoctorOwnBus, IsMissedOnceItHasEnded) {
  StartOwnBus("");
  EndOwnBus();
  EXPECT_THAT(ExamineBus(&patient_),
              AllOf(IsProblem(Trouble::kNoBus), Saw("Connection refused")));
}

TEST_F(DoctorOwnBus, MayRefuseToNameTheDaemon) {
  StartOwnBus(
      "<allow receive_sender=\"*\"/><deny "
      "send_interface=\"org.freedesktop.DBus\" "
      "send_member=\"GetNameOwner\"/>");
  EXPECT_THAT(ExamineBus(&patient_),
              AllOf(IsProblemWithoutARow(), Saw("GetNameOwner: ")));
  EXPECT_THAT(ExamineDaemon(&patient_), AllOf(IsUnclear(), Saw("see bus")));
}

// systemd's double: one unit, whatever is asked for.
class DoctorService : public DoctorOwnBus {
 protected:
  // By default the bus may start the daemon, and there is a controller.
  void SetUp() override {
    patient_.controllers = {"hci0"};
    Write(kServiceFile,
          "[D-BUS Service]\nName=org.bluez\nExec=/usr/bin/false\n");
  }

  Finding Service(const std::string& properties) {
    StartOwnBus("<allow receive_sender=\"*\"/><allow own=\"*\"/>");
    shared_ = SharedBus();
    systemd_ = std::make_unique<ChildProcess>(std::vector<std::string>{
        "/usr/bin/python3", "-m", "dbusmock", "--system", kName, kPath,
        std::string(kName) + ".Manager"});
    EXPECT_TRUE(WaitUntil([this, &properties] {
      return Script(
          "AddObject",
          g_variant_new_parsed("('/unit', 'org.freedesktop.systemd1.Unit', "
                               "%@a{sv}, @a(ssss) [])",
                               g_variant_new_parsed(properties.c_str())));
    }));
    EXPECT_TRUE(
        Script("AddMethod", g_variant_new("(sssss)", "", "LoadUnit", "s", "o",
                                          load_unit_.c_str())));
    return Daemon();
  }

  static constexpr char kServiceFile[] = "/services/org.bluez.service";

  std::string load_unit_ = "ret = dbus.ObjectPath('/unit')";

 private:
  static constexpr char kName[] = "org.freedesktop.systemd1";
  static constexpr char kPath[] = "/org/freedesktop/systemd1";

  bool Script(const char* method, GVariant* arguments) {
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        shared_.get(), kName, kPath, "org.freedesktop.DBus.Mock", method,
        arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, nullptr);
    return reply != nullptr;
  }

  BusPtr shared_;
  std::unique_ptr<ChildProcess> systemd_;
};

TEST_F(DoctorService, Fails) {
  EXPECT_THAT(
      Service("{'LoadState': <'loaded'>, 'ActiveState': <'failed'>, "
              "'UnitFileState': <'enabled'>}"),
      AllOf(IsProblem(Trouble::kDaemonFails), Saw("loaded, failed, enabled")));
}

TEST_F(DoctorService, IsMasked) {
  EXPECT_THAT(Service("{'LoadState': <'masked'>, 'ActiveState': "
                      "<'inactive'>}"),
              IsProblem(Trouble::kDaemonFails));
}

TEST_F(DoctorService, IsNotInstalled) {
  EXPECT_THAT(Service("{'LoadState': <'not-found'>, 'ActiveState': "
                      "<'inactive'>}"),
              IsProblem(Trouble::kNoDaemon));
}

TEST_F(DoctorService, IsDisabled) {
  EXPECT_THAT(Service("{'LoadState': <'loaded'>, 'ActiveState': <'inactive'>, "
                      "'UnitFileState': <'disabled'>}"),
              IsProblem(Trouble::kNoDaemon));
}

constexpr char kInactive[] =
    "{'LoadState': <'loaded'>, 'ActiveState': <'inactive'>, 'UnitFileState': "
    "<'enabled'>}";

TEST_F(DoctorService, IsNotAskedForWithoutAController) {
  patient_.controllers.clear();
  EXPECT_THAT(Service(kInactive), IsProblem(Trouble::kDaemonSkipped));
}

TEST_F(DoctorService, IsNotAskedForWhileTheRadioIsBlocked) {
  patient_.controllers.clear();
  AddSwitch("0", "tpacpi_bluetooth_sw", "1", "0");
  ExamineRadio(&patient_);
  EXPECT_THAT(Service(kInactive), AllOf(IsUnclear(), Saw("see radio switch")));
}

TEST_F(DoctorService, WaitsForTheFirstCall) {
  EXPECT_THAT(Service(kInactive), AllOf(IsUnclear(), Saw("first call")));
}

TEST_F(DoctorService, IsOnItsWay) {
  patient_.controllers.clear();
  EXPECT_THAT(Service("{'LoadState': <'loaded'>, 'ActiveState': "
                      "<'activating'>, 'UnitFileState': <'enabled'>}"),
              AllOf(IsUnclear(), Saw("its service is activating")));
}

TEST_F(DoctorService, CannotBeAskedAbout) {
  load_unit_ = "raise dbus.exceptions.DBusException('odd', name='a.Odd')";
  EXPECT_THAT(Service(kInactive), AllOf(IsUnclear(), Saw("systemd: odd")));
}

TEST_F(DoctorService, CannotBeAskedAboutNorStarted) {
  std::filesystem::remove(patient_.root + kServiceFile);
  load_unit_ = "raise dbus.exceptions.DBusException('odd', name='a.Odd')";
  EXPECT_THAT(Service(kInactive),
              AllOf(IsProblem(Trouble::kNoDaemon), Saw("systemd: odd")));
}

TEST_F(DoctorService, IsNotWhatTheBusMayStart) {
  std::filesystem::remove(patient_.root + kServiceFile);
  EXPECT_THAT(Service(kInactive),
              AllOf(IsProblem(Trouble::kNoDaemon), Saw("cannot start it")));
}

class DoctorAdapter : public DoctorTest {};

TEST_F(DoctorAdapter, IsOn) {
  StartDaemonWith({kAdapterOn});
  EXPECT_THAT(Adapter(),
              AllOf(IsOk(), Saw("hci0 00:11:22:33:44:55, on, pairable")));
}

TEST_F(DoctorAdapter, IsTheFirstOfThem) {
  StartDaemonWith({kAdapterOff, kAdapterOn});
  EXPECT_THAT(Adapter(),
              AllOf(IsProblem(Trouble::kAdapterOff),
                    Saw("takes hci0, the first that the daemon lists")));
  EXPECT_THAT(ExamineStream(&patient_), AllOf(IsUnclear(), Saw("see adapter")));
}

TEST_F(DoctorAdapter, IsOffForTheRadioSwitch) {
  AddSwitch("0", "hci0", "1", "0");
  ExamineRadio(&patient_);
  StartDaemonWith({kAdapterOff});
  EXPECT_THAT(Adapter(), AllOf(IsUnclear(), Saw("see radio switch")));
  EXPECT_THAT(ExamineStream(&patient_), IsUnclear());
}

TEST_F(DoctorAdapter, IsMissed) {
  StartDaemonWith({});
  EXPECT_THAT(Adapter(), IsProblem(Trouble::kNoAdapter));
}

TEST_F(DoctorAdapter, SaysWhatItDoes) {
  StartDaemonWith(
      {"{'Powered': <true>, 'Discovering': <true>, 'Pairable': <false>}"});
  EXPECT_THAT(Adapter(), AllOf(IsOk(), Saw("on, discovering, not pairable")));
}

class DoctorAgent : public DoctorTest {
 protected:
  static constexpr char kRegister[] = "RegisterAgent";

  Finding Agent() {
    Adapter();
    daemon->TakeCalls();
    return ExamineAgent(&patient_);
  }
  // The calls that may change something.
  std::vector<std::string> Changes() {
    std::vector<std::string> changes;
    for (const std::string& call : daemon->TakeCalls()) {
      if (call.find("GetManagedObjects") == std::string::npos)
        changes.push_back(call);
    }
    return changes;
  }
};

TEST_F(DoctorAgent, CanBeRegisteredAndIsTakenBack) {
  StartDaemonWith({kAdapterOn});
  EXPECT_THAT(Agent(), AllOf(IsOk(), Saw("one can be registered")));
  EXPECT_THAT(Changes(),
              ElementsAre("org.bluez.AgentManager1.RegisterAgent /org/bluez "
                          "(os) /brel/lumso/lumso_bluetooth/doctor "
                          "NoInputNoOutput",
                          "org.bluez.AgentManager1.UnregisterAgent /org/bluez "
                          "(o) /brel/lumso/lumso_bluetooth/doctor"));
}

// As the daemon does when the last agent goes.
TEST_F(DoctorAgent, LeavesTheAdapterPairable) {
  StartDaemonWith({kAdapterOn});
  daemon->OnCall("/org/bluez", kAgentManagerInterface, "UnregisterAgent", "o",
                 "",
                 "objects['/org/bluez/hci0'].props['org.bluez.Adapter1']"
                 "['Pairable'] = dbus.Boolean(False)");
  EXPECT_THAT(Agent(), IsOk());
  EXPECT_THAT(Changes(),
              Contains("org.freedesktop.DBus.Properties.Set /org/bluez/hci0 "
                       "(ssv) org.bluez.Adapter1 Pairable true"));
}

// An application's agent came with the doctor's, and lets devices pair now.
TEST_F(DoctorAgent, LeavesPairableWhatAnApplicationMakesSo) {
  StartDaemonWith({"{'Powered': <true>, 'Pairable': <false>}"});
  daemon->OnCall("/org/bluez", kAgentManagerInterface, kRegister, "os", "",
                 "objects['/org/bluez/hci0'].props['org.bluez.Adapter1']"
                 "['Pairable'] = dbus.Boolean(True)");
  EXPECT_THAT(Agent(), IsOk());
  EXPECT_THAT(Changes(), SizeIs(2));
}

// What counts is how it was right before the doctor's agent.
TEST_F(DoctorAgent, LeavesUnpairableWhatWasMadeSoMeanwhile) {
  StartDaemonWith({kAdapterOn});
  Adapter();
  daemon->ChangeProperties(kAdapterPath, kAdapterInterface,
                           "{'Pairable': <false>}");
  daemon->TakeCalls();
  EXPECT_THAT(ExamineAgent(&patient_), IsOk());
  EXPECT_THAT(Changes(), SizeIs(2));
}

TEST_F(DoctorAgent, IsRefused) {
  StartDaemonWith({kAdapterOn});
  daemon->FailCall("/org/bluez", kAgentManagerInterface, kRegister, "os",
                   "org.bluez.Error.InvalidArguments", "no such thing");
  EXPECT_THAT(Agent(),
              AllOf(IsProblem(Trouble::kAgentRefused), Saw("no such thing")));
}

TEST_F(DoctorAgent, IsForbidden) {
  StartDaemonWith({kAdapterOn});
  daemon->FailCall("/org/bluez", kAgentManagerInterface, kRegister, "os",
                   "org.freedesktop.DBus.Error.AccessDenied", "Rejected");
  EXPECT_THAT(Agent(), IsProblem(Trouble::kDenied));
}

TEST_F(DoctorAgent, IsNotWaitedForEndlessly) {
  StartDaemonWith({kAdapterOn});
  daemon->OnCall("/org/bluez", kAgentManagerInterface, kRegister, "os", "",
                 "import time; time.sleep(5)");
  SetTimeLimit(2);
  EXPECT_THAT(Agent(),
              AllOf(IsProblem(Trouble::kAgentRefused), Saw("no answer")));
  // The daemon comes to it later, and to what takes it back.
  EXPECT_TRUE(WaitUntil([this] {
    const std::vector<std::string> changes = Changes();
    return std::any_of(changes.begin(), changes.end(),
                       [](const std::string& call) {
                         return call.find("UnregisterAgent") != call.npos;
                       });
  }));
}

TEST(DoctorGlib, KnowsTheVersionsWithTheFix) {
  EXPECT_THAT(lumso_doctor::JudgeGlib({}, 2, 78, 5), IsOk());
  EXPECT_THAT(lumso_doctor::JudgeGlib({}, 2, 80, 1), IsOk());
  EXPECT_THAT(lumso_doctor::JudgeGlib({}, 2, 81, 0), IsOk());
  EXPECT_THAT(lumso_doctor::JudgeGlib({}, 3, 0, 0), IsOk());
}

TEST(DoctorGlib, CannotTellOfOlderOnes) {
  for (const auto& [minor, micro] : std::vector<std::pair<unsigned, unsigned>>{
           {74, 6}, {78, 4}, {79, 9}, {80, 0}}) {
    EXPECT_THAT(lumso_doctor::JudgeGlib({}, 2, minor, micro),
                AllOf(IsUnclear(), Saw("2.74.6-2+deb12u2")))
        << minor << "." << micro;
  }
}

class DoctorForgery : public DoctorTest {};

TEST_F(DoctorForgery, IsNotTriedWithoutABus) {
  UseNoSystemBus();
  ExamineBus(&patient_);
  EXPECT_THAT(ExamineGlib(&patient_),
              AllOf(Not(IsProblemWithoutARow()), Not(Saw("forged sender for")),
                    Saw("version " + std::to_string(glib_major_version) + "." +
                        std::to_string(glib_minor_version))));
}

// Needs a GLib with the fix, as every distribution in support has it.
TEST_F(DoctorForgery, IsDropped) {
  StartDaemonWith({kAdapterOn});
  ExamineBus(&patient_);
  EXPECT_THAT(ExamineGlib(&patient_), AllOf(IsOk(), Saw("it drops")));
}

TEST_F(DoctorForgery, IsDroppedWithoutADaemon) {
  StartBus();
  ExamineBus(&patient_);
  EXPECT_THAT(ExamineGlib(&patient_), AllOf(IsOk(), Saw("it drops")));
}

// To a GLib without the fix any sender is the daemon; here the sender is it.
TEST_F(DoctorForgery, IsSeenWhenItArrives) {
  StartBus();
  ExamineBus(&patient_);
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      patient_.bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
      "org.freedesktop.DBus", "RequestName",
      g_variant_new("(su)", "org.bluez", 0), nullptr, G_DBUS_CALL_FLAGS_NONE,
      10000, nullptr, nullptr);
  ASSERT_NE(reply, nullptr);
  EXPECT_THAT(ExamineGlib(&patient_),
              AllOf(IsProblemWithoutARow(), Saw("forged sender for")));
}

class DoctorDevice : public DoctorTest {
 protected:
  Finding Device() {
    Adapter();
    return ExamineDevice(&patient_);
  }
};

TEST_F(DoctorDevice, HasAnAddressOfTheRightForm) {
  patient_.address = "AA-BB-CC-DD-EE-FF";
  EXPECT_THAT(ExamineDevice(&patient_), IsProblem(Trouble::kBadAddress));
  EXPECT_THAT(ExamineStream(&patient_), AllOf(IsUnclear(), Saw("see device")));
}

TEST_F(DoctorDevice, MayBeUnknown) {
  StartDaemonWith({kAdapterOn});
  const Finding finding = Device();
  EXPECT_EQ(finding.verdict, Verdict::kCannotTell);
  EXPECT_EQ(finding.trouble, Trouble::kNotKnown);
}

TEST_F(DoctorDevice, IsDescribed) {
  patient_.address = "aa:bb:cc:dd:ee:ff";
  StartDaemonWith({kAdapterOn});
  daemon->AddDevice(kDevicePath,
                    "{'Address': <'AA:BB:CC:DD:EE:FF'>, 'Alias': "
                    "<'DRU-KX 7'>, 'Name': <'other'>, 'Paired': <true>, "
                    "'Connected': <true>, 'RSSI': <int16 -61>}");
  EXPECT_THAT(Device(),
              AllOf(IsOk(), Saw("\"DRU-KX 7\", which the prober asks"),
                    Field("saw", &Finding::saw,
                          AllOf(Contains("paired"), Contains("connected"))),
                    Saw("-61 dBm")));
}

TEST_F(DoctorDevice, NeedHaveNothing) {
  StartDaemonWith({kAdapterOn});
  daemon->AddDevice(kDevicePath,
                    "{'Address': <'AA:BB:CC:DD:EE:FF'>, 'Name': <'Scale'>}");
  EXPECT_THAT(Device(),
              AllOf(IsOk(), Saw("\"Scale\", which the prober does not ask"),
                    Saw("not paired"), Saw("not connected"),
                    Saw("no signal strength")));
}

TEST_F(DoctorDevice, OfAnotherAdapterIsUnknownToThisOne) {
  StartDaemonWith({kAdapterOn, kAdapterOn});
  daemon->AddDevice("/org/bluez/hci1/dev_AA_BB_CC_DD_EE_FF",
                    "{'Address': <'AA:BB:CC:DD:EE:FF'>}");
  const Finding finding = Device();
  EXPECT_EQ(finding.trouble, Trouble::kNotKnown);
  EXPECT_THAT(finding, Saw("known to hci1, which is not"));
}

TEST_F(DoctorDevice, MayHaveNoChannels) {
  StartDaemonWith({kAdapterOn});
  daemon->AddDevice(kDevicePath, "{'AddressType': <'random'>}");
  EXPECT_THAT(Device(), AllOf(IsOk(), Saw("a Low Energy address")));
}

class DoctorStream : public DoctorTest {
 protected:
  Finding ConnectFails(int error) {
    air_.Script(kDeviceAddress, Call::kConnect, {Fail(error)});
    return ExamineStream(&patient_);
  }
};

TEST_F(DoctorStream, IsOpenedOnceAndClosed) {
  air_.AddDevice(kDeviceAddress);
  std::vector<std::string> said;
  patient_.announce = [&](const std::string& text) {
    EXPECT_EQ(air_.count(Call::kConnect), 0U);
    said.push_back(text);
  };
  EXPECT_THAT(ExamineStream(&patient_), AllOf(IsOk(), Saw("channel 1 opened")));
  EXPECT_EQ(air_.count(Call::kConnect), 1U);
  EXPECT_EQ(air_.open_sockets(), 0U);
  EXPECT_THAT(said, ElementsAre(AllOf(HasSubstr(kDeviceAddress),
                                      HasSubstr("may begin a pairing"))));
  const std::string target = air_.calls(Call::kConnect)[0].bytes;
  EXPECT_EQ(target.substr(2, 7), "\xff\xee\xdd\xcc\xbb\xaa\x01");
}

TEST_F(DoctorStream, BeginsNoPairingWithADeviceThatIsPaired) {
  air_.AddDevice(kDeviceAddress);
  StartDaemonWith({kAdapterOn});
  daemon->AddDevice(kDevicePath, "{'Paired': <true>}");
  Adapter();
  EXPECT_THAT(ExamineDevice(&patient_), IsOk());
  std::string said;
  patient_.announce = [&said](const std::string& text) { said = text; };
  EXPECT_THAT(ExamineStream(&patient_), IsOk());
  EXPECT_THAT(said, Not(HasSubstr("pairing")));
  EXPECT_THAT(ConnectFails(ECONNREFUSED),
              AllOf(IsProblem(Trouble::kRefused), Saw("holds a bond")));
}

TEST_F(DoctorStream, IsRefused) {
  EXPECT_THAT(ConnectFails(ECONNREFUSED),
              AllOf(IsProblem(Trouble::kRefused), Saw("Connection refused"),
                    Not(Saw("bond"))));
}

TEST_F(DoctorStream, FindsNoDevice) {
  air_.SetConnectTime(std::chrono::milliseconds(20));
  EXPECT_THAT(ExamineStream(&patient_), IsProblem(Trouble::kHostDown));
}

TEST_F(DoctorStream, FindsNoRoute) {
  EXPECT_THAT(ConnectFails(EHOSTUNREACH), IsProblem(Trouble::kNoRoute));
}

TEST_F(DoctorStream, IsNotAuthenticated) {
  EXPECT_THAT(ConnectFails(EACCES),
              AllOf(IsProblem(Trouble::kNotAuthenticated), Saw("pair it")));
  patient_.paired = true;
  EXPECT_THAT(ConnectFails(EACCES), AllOf(IsProblem(Trouble::kNotAuthenticated),
                                          Not(Saw("pair it"))));
}

TEST_F(DoctorStream, IsNotAuthenticatedWithoutTheDevicesKey) {
  EXPECT_THAT(ConnectFails(EBADE), IsProblem(Trouble::kNotAuthenticated));
}

TEST_F(DoctorStream, TimesOut) {
  EXPECT_THAT(ConnectFails(ETIMEDOUT),
              AllOf(IsProblem(Trouble::kNoAnswer), Saw("asked to agree")));
  patient_.paired = true;
  EXPECT_THAT(ConnectFails(ETIMEDOUT),
              AllOf(IsProblem(Trouble::kNoAnswer), Not(Saw("asked to agree"))));
}

TEST_F(DoctorStream, IsNotWaitedForEndlessly) {
  air_.AddDevice(kDeviceAddress);
  air_.SetConnectTime(std::chrono::seconds(15));
  SetTimeLimit(1);
  EXPECT_THAT(ExamineStream(&patient_),
              AllOf(IsUnclear(), Saw("no answer after"), Saw("no time")));
}

TEST_F(DoctorStream, FailsInAWayOfItsOwn) {
  EXPECT_THAT(ConnectFails(ECONNRESET),
              AllOf(IsProblemWithoutARow(), Saw("reset by peer")));
}

TEST_F(DoctorStream, IsNotOpenWhileItsErrorCannotBeAsked) {
  air_.AddDevice(kDeviceAddress);
  air_.SetConnectTime(std::chrono::milliseconds(20));
  air_.Script(kDeviceAddress, Call::kPendingError, {Return(-1, ENOBUFS)});
  EXPECT_THAT(ExamineStream(&patient_), IsProblemWithoutARow());
}

TEST_F(DoctorStream, CannotTellWithoutASocket) {
  FailSocket(EMFILE);
  EXPECT_THAT(ExamineStream(&patient_), AllOf(IsUnclear(), Saw("Too many")));
}

TEST_F(DoctorStream, IsTaken) {
  air_.AddDevice(kDeviceAddress);
  air_.Script(kDeviceAddress, Call::kConnect,
              std::vector<Step>(1000, Fail(EBUSY)));
  EXPECT_THAT(ExamineStream(&patient_), IsProblem(Trouble::kBusy));
  EXPECT_EQ(air_.open_sockets(), 0U);
}

TEST_F(DoctorStream, MayHaveBeenClosedJustNow) {
  air_.AddDevice(kDeviceAddress);
  air_.Script(kDeviceAddress, Call::kConnect, {Fail(EBUSY), Fail(EBUSY)});
  EXPECT_THAT(ExamineStream(&patient_), IsOk());
  EXPECT_EQ(air_.count(Call::kConnect), 3U);
}

}  // namespace
}  // namespace lumso_test
