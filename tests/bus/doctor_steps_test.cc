// The doctor's steps, one by one: every outcome, on a machine laid out in a
// folder, a bus with a daemon double, and RFCOMM sockets made here.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "doctor/steps.h"
#include "tests/support/bus_test.h"
#include "tests/support/fake_rfcomm.h"

namespace lumso_test {
namespace {

namespace doctor = lumso_doctor;

using lumso_doctor::Finding;
using lumso_doctor::Part;
using lumso_doctor::Patient;
using lumso_doctor::Trouble;
using lumso_doctor::Verdict;
using ::testing::_;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::Matcher;
using ::testing::Not;
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
               Field("trouble", &Finding::trouble, nullptr));
}
Matcher<const Finding&> IsProblemWithoutARow() {
  return AllOf(Field("verdict", &Finding::verdict, Verdict::kProblem),
               Field("trouble", &Finding::trouble, nullptr));
}
Matcher<const Finding&> IsProblem(const Trouble& trouble) {
  return AllOf(Field("verdict", &Finding::verdict, Verdict::kProblem),
               Field("trouble", &Finding::trouble, &trouble));
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

  // Looks at one step as the doctor does, which says all that it can find.
  Finding Look(const std::string& name) {
    for (const doctor::Step& step : doctor::Steps()) {
      if (step.name != name) continue;
      const Finding finding = Examine(step, &patient_);
      if (finding.trouble != nullptr) {
        EXPECT_THAT(step.troubles, Contains(finding.trouble));
      }
      EXPECT_FALSE(finding.saw.empty());
      return finding;
    }
    ADD_FAILURE() << "no step " << name;
    return {};
  }

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
    Look("bus");
    Look("daemon");
    return Look("adapter");
  }

  FakeRfcomm air_;
  Patient patient_;
};

class DoctorProcess : public DoctorTest {};

TEST_F(DoctorProcess, IsWellWhereASocketCanBeMade) {
  const Finding finding = Look("this process");
  EXPECT_THAT(finding, IsOk());
  EXPECT_THAT(finding, Saw("no Flatpak or Snap sandbox"));
  EXPECT_EQ(patient_.socket_error, 0);
  EXPECT_EQ(air_.open_sockets(), 0U);
}

TEST_F(DoctorProcess, SeesTheNamespaceEvenWithoutTheModule) {
  FailSocket(EPROTONOSUPPORT);
  EXPECT_THAT(Look("this process"), IsOk());
  EXPECT_EQ(patient_.socket_error, EPROTONOSUPPORT);
}

TEST_F(DoctorProcess, ComparesItsNamespaceWithThatOfProcessOne) {
  FailSocket(EAFNOSUPPORT);
  SetNamespaces("net:[2]", "net:[1]", "pid:[4026531836]");
  EXPECT_THAT(Look("this process"), IsProblem(doctor::kNoSockets));
  EXPECT_THAT(Look("kernel"), IsUnclear());
}

TEST_F(DoctorProcess, LeavesAKernelWithoutBluetoothToTheKernelStep) {
  FailSocket(EAFNOSUPPORT);
  SetNamespaces("net:[1]", "net:[1]", "pid:[4026531836]");
  EXPECT_THAT(Look("this process"), IsOk());
  EXPECT_THAT(Look("kernel"), IsProblem(doctor::kNoBluetooth));
}

// Linux 6.18 gave the first network namespace a number for good.
TEST_F(DoctorProcess, KnowsTheFirstNetworkNamespaceOfANewKernel) {
  FailSocket(EAFNOSUPPORT);
  SetNamespaces("net:[4026531833]", nullptr, "pid:[7]");
  Write("/sys/module/bluetooth/refcnt", "1");
  EXPECT_THAT(Look("this process"), IsOk());
  EXPECT_THAT(Look("kernel"), IsProblem(doctor::kNoBluetooth));
}

TEST_F(DoctorProcess, KnowsAnotherNamespaceOfANewKernel) {
  FailSocket(EAFNOSUPPORT);
  Write("/proc/sys/kernel/osrelease", "6.18.2-amd64\n");
  SetNamespaces("net:[4026532000]", nullptr, "pid:[7]");
  EXPECT_THAT(Look("this process"), IsProblem(doctor::kNoSockets));
}

TEST_F(DoctorProcess, DoesNotKnowThemOfAnOlderKernel) {
  FailSocket(EAFNOSUPPORT);
  Write("/proc/sys/kernel/osrelease", "6.17.13\n");
  SetNamespaces("net:[4026532000]", nullptr, "pid:[7]");
  EXPECT_THAT(Look("this process"), IsUnclear());
}

TEST_F(DoctorProcess, DoesNotTrustProcessOneOfAContainer) {
  FailSocket(EAFNOSUPPORT);
  SetNamespaces("net:[2]", "net:[2]", "pid:[7]");
  EXPECT_THAT(Look("this process"), IsUnclear());
  EXPECT_THAT(Look("kernel"), IsProblem(doctor::kNoSockets));
}

TEST_F(DoctorProcess, ConcludesFromAKernelThatHasBluetooth) {
  FailSocket(EAFNOSUPPORT);
  SetNamespaces("net:[2]", nullptr, "pid:[4026531836]");
  Write("/sys/module/bluetooth/refcnt", "1");
  EXPECT_THAT(Look("this process"), IsProblem(doctor::kNoSockets));
}

constexpr char kGranted[] =
    "[Context]\nshared=network;ipc;\nfeatures=bluetooth;\n"
    "[System Bus Policy]\norg.bluez=talk\n";

TEST_F(DoctorProcess, IsWellInAFlatpakThatIsGrantedEverything) {
  Write("/.flatpak-info", kGranted);
  EXPECT_THAT(Look("this process"), AllOf(IsOk(), Saw("Flatpak")));
}

TEST_F(DoctorProcess, IsWellInAFlatpakWithTheWholeBus) {
  Write("/.flatpak-info",
        "[Context]\nshared=network;\nfeatures=bluetooth;\n"
        "sockets=x11;system-bus;\n");
  EXPECT_THAT(Look("this process"), IsOk());
}

TEST_F(DoctorProcess, IsWellInAFlatpakWithAllNamesBelowTheDaemons) {
  Write("/.flatpak-info",
        "[Context]\nshared=network;\nfeatures=bluetooth;\n"
        "[System Bus Policy]\norg.bluez.*=talk\n");
  EXPECT_THAT(Look("this process"), IsOk());
}

TEST_F(DoctorProcess, MissesTheBusInAFlatpak) {
  Write("/.flatpak-info", "[Context]\nshared=network;\nfeatures=bluetooth;\n");
  EXPECT_THAT(Look("this process"),
              AllOf(IsProblem(doctor::kBusWithheld), Saw("without org.bluez")));
  EXPECT_THAT(Look("bus"), IsUnclear());
  EXPECT_THAT(Look("kernel"), Not(IsProblem(doctor::kNoSockets)));
}

TEST_F(DoctorProcess, MissesTheNetworkInAFlatpak) {
  Write("/.flatpak-info",
        "[Context]\nfeatures=bluetooth;\n[System Bus Policy]\norg.bluez=own\n");
  EXPECT_THAT(Look("this process"),
              AllOf(IsProblem(doctor::kNoSockets), Saw("without the network")));
}

TEST_F(DoctorProcess, MissesTheSocketsInAFlatpak) {
  Write("/.flatpak-info",
        "[Context]\nshared=network;\n[System Bus Policy]\norg.bluez=talk\n");
  EXPECT_THAT(Look("this process"), AllOf(IsProblem(doctor::kNoSockets),
                                          Saw("without Bluetooth sockets")));
}

TEST_F(DoctorProcess, NamesTheSnap) {
  BeInSnap("enforce");
  EXPECT_THAT(Look("this process"), AllOf(IsOk(), Saw("a Snap: ")));
}

TEST_F(DoctorProcess, IsNotConfinedByEverySnap) {
  BeInSnap("complain");
  EXPECT_THAT(Look("this process"), AllOf(IsOk(), Saw("no Flatpak")));
}

class DoctorKernel : public DoctorTest {
 protected:
  Finding Kernel() {
    Write("/sys/class/bluetooth/hci0/address", "");
    Look("this process");
    return Look("kernel");
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

TEST_F(DoctorKernel, SaysWhatKeepsBluetoothOut) {
  FailSocket(EAFNOSUPPORT);
  SetNamespaces("net:[4026531833]", nullptr, "pid:[7]");
  Write("/proc/sys/kernel/osrelease", "6.12.1\n");
  Write("/lib/modules/6.12.1/modules.dep",
        "kernel/net/bluetooth/bluetooth.ko.xz: kernel/crypto/ecc.ko.xz\n");
  Write("/etc/modprobe.d/no-radio.conf",
        "# install bluetooth\ninstall bluetooth /bin/false\n"
        "\tblacklist  bluetooth\nblacklist bluetooth_6lowpan\n"
        "alias net-pf-31 off\nblacklist pcspkr\n");
  Write("/etc/modprobe.d/no-radio.conf.old", "blacklist bluetooth\n");
  EXPECT_THAT(
      Kernel(),
      AllOf(IsProblem(doctor::kNoBluetooth),
            Field("saw", &Finding::saw,
                  ElementsAre(
                      HasSubstr("Address family not supported"), _, _,
                      "this kernel's modules include bluetooth",
                      "/etc/modprobe.d/no-radio.conf: install bluetooth "
                      "/bin/false",
                      "/etc/modprobe.d/no-radio.conf: \tblacklist  bluetooth",
                      "/etc/modprobe.d/no-radio.conf: alias net-pf-31 off"))));
}

TEST_F(DoctorKernel, SaysThatItHasNoSuchModule) {
  FailSocket(EAFNOSUPPORT);
  SetNamespaces("net:[4026531833]", nullptr, "pid:[7]");
  Write("/proc/sys/kernel/osrelease", "6.12.1-cloud\n");
  Write("/lib/modules/6.12.1-cloud/modules.dep",
        "kernel/net/bluetoothless.ko: kernel/net/bluetooth/bluetooth.ko\n");
  EXPECT_THAT(Kernel(), AllOf(IsProblem(doctor::kNoBluetooth),
                              Saw("this kernel's modules lack bluetooth")));
}

// A socket that was asked for would have loaded it, in any namespace.
TEST_F(DoctorKernel, HasNoBluetoothWhereTheSocketLoadedNone) {
  FailSocket(EAFNOSUPPORT);
  Write("/sys/module/kernel/uevent", "");
  SetNamespaces("net:[2]", nullptr, "pid:[7]");
  EXPECT_THAT(Look("this process"), IsUnclear());
  EXPECT_THAT(Look("kernel"), IsProblem(doctor::kNoBluetooth));
}

TEST_F(DoctorKernel, CannotTellThatWhereTheModulesAreHidden) {
  FailSocket(EAFNOSUPPORT);
  std::filesystem::create_directories(patient_.root + "/sys/module");
  Look("this process");
  EXPECT_THAT(Look("kernel"), IsProblem(doctor::kNoSockets));
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
  EXPECT_THAT(Kernel(), IsProblem(doctor::kNoRfcomm));
  EXPECT_THAT(Look("stream"), AllOf(IsUnclear(), Saw("see kernel")));
}

TEST_F(DoctorKernel, SeesThatSocketsAreForbidden) {
  FailSocket(EPERM);
  EXPECT_THAT(Kernel(), IsProblem(doctor::kSocketsForbidden));
}

TEST_F(DoctorKernel, SeesThatSocketsAreDenied) {
  FailSocket(EACCES);
  EXPECT_THAT(Kernel(), IsProblem(doctor::kSocketsForbidden));
}

TEST_F(DoctorKernel, CannotTellWhatAnotherErrorMeans) {
  FailSocket(EMFILE);
  EXPECT_THAT(Kernel(), AllOf(IsUnclear(), Saw("Too many open files")));
}

TEST_F(DoctorKernel, LeavesAMissingControllerToTheAdapterStep) {
  Look("this process");
  EXPECT_THAT(Look("kernel"), AllOf(IsUnclear(), Saw("no controller")));
}

class DoctorRadio : public DoctorTest {};

TEST_F(DoctorRadio, IsWellWithoutASwitch) {
  EXPECT_THAT(Look("radio switch"), AllOf(IsOk(), Saw("none")));
}

TEST_F(DoctorRadio, LooksAtBluetoothAlone) {
  AddSwitch("0", "hci0", "0", "0");
  AddSwitch("1", "phy0", "1", "1", "wlan");
  EXPECT_THAT(Look("radio switch"),
              AllOf(IsOk(), Field("saw", &Finding::saw,
                                  ElementsAre("hci0 not blocked"))));
}

TEST_F(DoctorRadio, FindsASoftBlock) {
  AddSwitch("0", "hci0", "1", "0");
  EXPECT_THAT(Look("radio switch"), AllOf(IsProblem(doctor::kBlocked),
                                          Saw("hci0 blocked by software")));
}

TEST_F(DoctorRadio, FindsAHardBlock) {
  AddSwitch("3", "hci0", "0", "1");
  EXPECT_THAT(Look("radio switch"), AllOf(IsProblem(doctor::kBlocked),
                                          Saw("hci0 blocked by hardware")));
}

TEST_F(DoctorRadio, FindsBoth) {
  AddSwitch("0", "hci0", "1", "1");
  EXPECT_THAT(Look("radio switch"),
              Saw("hci0 blocked by software and blocked by hardware"));
}

TEST_F(DoctorRadio, FindsTheBlockOfTheMachinesOwnSwitch) {
  AddSwitch("0", "tpacpi_bluetooth_sw", "1", "0");
  EXPECT_THAT(Look("radio switch"), IsProblem(doctor::kBlocked));
}

TEST_F(DoctorRadio, IsWellWithAControllerThatTheMachinesSwitchLeavesAlone) {
  AddSwitch("0", "hci0", "0", "0");
  AddSwitch("1", "tpacpi_bluetooth_sw", "1", "0");
  EXPECT_THAT(Look("radio switch"), IsOk());
  StartDaemonWith({kAdapterOn});
  EXPECT_THAT(Adapter(), IsOk());
}

TEST_F(DoctorRadio, MayKeepThatControllerOffAllTheSame) {
  AddSwitch("0", "hci0", "0", "0");
  AddSwitch("1", "tpacpi_bluetooth_sw", "1", "0");
  Look("radio switch");
  StartDaemonWith({kAdapterOff});
  EXPECT_THAT(Adapter(), IsProblem(doctor::kBlocked));
}

TEST_F(DoctorRadio, LeavesOneOfTwoControllersToTheAdapterStep) {
  AddSwitch("0", "hci0", "1", "0");
  AddSwitch("1", "hci1", "0", "0");
  EXPECT_THAT(Look("radio switch"), IsOk());
  StartDaemonWith({kAdapterOff, kAdapterOn});
  EXPECT_THAT(Adapter(), IsProblem(doctor::kBlocked));
}

class DoctorBus : public DoctorTest {};

TEST_F(DoctorBus, IsWellWithAnAnswer) {
  StartDaemonWith({kAdapterOn});
  EXPECT_THAT(Look("bus"), AllOf(IsOk(), Saw("lets this user call org.bluez")));
}

TEST_F(DoctorBus, IsMissed) {
  UseNoSystemBus();
  EXPECT_THAT(Look("bus"),
              AllOf(IsProblem(doctor::kNoBus), Saw("Could not connect")));
  EXPECT_THAT(Look("daemon"), AllOf(IsUnclear(), Saw("see bus")));
  EXPECT_THAT(Look("adapter"), IsUnclear());
  EXPECT_THAT(Look("agent"), IsUnclear());
  EXPECT_THAT(Look("device"), IsUnclear());
  EXPECT_THAT(Look("stream"), IsUnclear());
}

TEST_F(DoctorBus, IsNotFoundWhereItsAddressIsNone) {
  g_setenv("DBUS_SYSTEM_BUS_ADDRESS", "no address", TRUE);
  EXPECT_THAT(Look("bus"),
              AllOf(IsProblem(doctor::kBusRefuses), Saw("no address")));
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
  patient_.patience.bus = 300;
  const gint64 began = g_get_monotonic_time();
  EXPECT_THAT(Look("bus"), IsProblem(doctor::kBusSilent));
  EXPECT_LT(g_get_monotonic_time() - began, 4 * G_TIME_SPAN_SECOND);
  // What the earlier steps left of the time says nothing about it.
  patient_.lost.clear();
  SetTimeLimit(1);
  patient_.patience.bus = 5000;
  EXPECT_THAT(Look("bus"), AllOf(IsUnclear(), Saw("no time was left")));
  EXPECT_THAT(Look("daemon"), AllOf(IsUnclear(), Saw("see bus")));
  close(fd);
}

TEST_F(DoctorBus, IsNotLookedAtWithoutTime) {
  StartDaemonWith({kAdapterOn});
  SetTimeLimit(0);
  for (const doctor::Step& step : doctor::Steps()) {
    EXPECT_THAT(Look(step.name),
                AllOf(IsUnclear(), Saw("not looked at: no time left")))
        << step.name;
  }
}

TEST_F(DoctorBus, IsKeptFromASnap) {
  BeInSnap("enforce");
  UseNoSystemBus();
  EXPECT_THAT(Look("bus"), IsProblem(doctor::kBusWithheld));
}

TEST_F(DoctorBus, IsKeptFromAFlatpak) {
  Write("/.flatpak-info", "[Context]\n");
  UseNoSystemBus();
  EXPECT_THAT(Look("bus"), IsProblem(doctor::kBusWithheld));
}

TEST_F(DoctorBus, ForbidsTheDaemon) {
  StartDaemonWith({kAdapterOn});
  daemon->FailCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                   "org.freedesktop.DBus.Error.AccessDenied", "Rejected");
  EXPECT_THAT(Look("bus"), AllOf(IsProblem(doctor::kDenied), Saw("Rejected")));
  EXPECT_THAT(Look("daemon"), IsUnclear());
}

TEST_F(DoctorBus, ForbidsTheDaemonToASnap) {
  BeInSnap("enforce");
  StartDaemonWith({kAdapterOn});
  daemon->FailCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                   "org.freedesktop.DBus.Error.AccessDenied", "Rejected");
  EXPECT_THAT(Look("bus"), IsProblem(doctor::kBusWithheld));
}

class DoctorDaemon : public DoctorTest {
 protected:
  Finding Daemon() {
    Look("bus");
    return Look("daemon");
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
  patient_.patience.daemon = 300;
  EXPECT_THAT(Daemon(), IsProblem(doctor::kDaemonHangs));
  EXPECT_THAT(Look("stream"), AllOf(IsUnclear(), Saw("see daemon")));
}

TEST_F(DoctorDaemon, IsNotJudgedByTheTimeThatWasLeft) {
  StartDaemonWith({kAdapterOn});
  daemon->OnCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                 "a{oa{sa{sv}}}", "import time; time.sleep(5); ret = {}");
  SetTimeLimit(1);
  Look("bus");
  SetTimeLimit(1);
  EXPECT_THAT(Look("daemon"), AllOf(IsUnclear(), Saw("no time was left")));
}

TEST_F(DoctorDaemon, AnswersSlowly) {
  StartDaemonWith({kAdapterOn});
  daemon->OnCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                 "a{oa{sa{sv}}}", "import time; time.sleep(2.1); ret = {}");
  EXPECT_THAT(Daemon(), AllOf(IsProblem(doctor::kDaemonSlow),
                              Saw("it answers after 21")));
  // It works, for all that.
  EXPECT_THAT(Look("adapter"), IsProblem(doctor::kNoAdapter));
}

TEST_F(DoctorDaemon, SaysWhatIsWaitedFor) {
  StartDaemonWith({kAdapterOn});
  daemon->OnCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                 "a{oa{sa{sv}}}", "import time; time.sleep(1); ret = {}");
  std::vector<std::string> said;
  patient_.wait = [&said](const std::string& text) { said.push_back(text); };
  EXPECT_THAT(Daemon(), IsOk());
  EXPECT_THAT(said, ElementsAre("waiting for an answer of the Bluetooth "
                                "daemon, 8 s at most"));
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
  EXPECT_THAT(Daemon(), IsProblem(doctor::kDaemonFails));
}

TEST_F(DoctorDaemon, IsMissedWithoutSystemd) {
  StartBus();
  EXPECT_THAT(Daemon(), AllOf(IsProblem(doctor::kNoDaemon),
                              Saw("cannot start it"), Saw("no systemd")));
}

// The sandbox's own bus shows no systemd.
TEST_F(DoctorDaemon, IsMissedInAFlatpak) {
  Write("/.flatpak-info", "[Context]\n");
  StartBus();
  EXPECT_THAT(Daemon(), IsProblem(doctor::kDaemonUnseen));
}

TEST_F(DoctorDaemon, IsMissedInASnap) {
  BeInSnap("enforce");
  StartBus();
  EXPECT_THAT(Daemon(), IsProblem(doctor::kDaemonUnseen));
}

// A bus that is one of the case's own, for what no other does when asked to. To
// a call that has no answer here it says nothing.
class DoctorOddBus : public DoctorDaemon {
 protected:
  struct Answer {
    const char* error;  // Null for a reply.
    const char* text;
  };

  void StartOddBus(const std::map<std::string, Answer>& answers) {
    answers_ = answers;
    const std::string address = "unix:path=" + patient_.root + "/bus";
    g_autofree gchar* guid = g_dbus_generate_guid();
    server_ = g_dbus_server_new_sync(address.c_str(), G_DBUS_SERVER_FLAGS_NONE,
                                     guid, nullptr, nullptr, nullptr);
    ASSERT_NE(server_, nullptr);
    g_signal_connect(server_, "new-connection", G_CALLBACK(OnConnection), this);
    g_dbus_server_start(server_);
    g_setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), TRUE);
  }
  void TearDown() override {
    patient_.bus.reset();
    if (connection_ != nullptr) {
      g_dbus_connection_close_sync(connection_, nullptr, nullptr);
      g_object_unref(connection_);
    }
    g_dbus_server_stop(server_);
    g_object_unref(server_);
    DoctorDaemon::TearDown();
  }

 private:
  static gboolean OnConnection(GDBusServer*, GDBusConnection* connection,
                               gpointer user_data) {
    auto* self = static_cast<DoctorOddBus*>(user_data);
    self->connection_ = G_DBUS_CONNECTION(g_object_ref(connection));
    g_dbus_connection_add_filter(connection, OnMessage, self, nullptr);
    return TRUE;
  }

  // Runs on GDBus's thread.
  static GDBusMessage* OnMessage(GDBusConnection* connection,
                                 GDBusMessage* message, gboolean incoming,
                                 gpointer user_data) {
    if (!incoming) return message;
    auto* self = static_cast<DoctorOddBus*>(user_data);
    const auto found = self->answers_.find(g_dbus_message_get_member(message));
    if (found != self->answers_.end()) {
      const Answer& answer = found->second;
      g_autoptr(GDBusMessage) reply =
          answer.error == nullptr ? g_dbus_message_new_method_reply(message)
                                  : g_dbus_message_new_method_error_literal(
                                        message, answer.error, answer.text);
      if (answer.error == nullptr)
        g_dbus_message_set_body(reply, g_variant_new("(s)", answer.text));
      g_dbus_connection_send_message(
          connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    }
    g_object_unref(message);
    return nullptr;
  }

  std::map<std::string, Answer> answers_;
  GDBusServer* server_ = nullptr;          // Owned reference.
  GDBusConnection* connection_ = nullptr;  // Owned reference.
};

TEST_F(DoctorOddBus, MayKeepItselfFromASnap) {
  BeInSnap("enforce");
  StartOddBus(
      {{"Hello", {"org.freedesktop.DBus.Error.AccessDenied", "Rejected"}}});
  EXPECT_THAT(Look("bus"),
              AllOf(IsProblem(doctor::kBusWithheld), Saw("Rejected")));
}

TEST_F(DoctorOddBus, MayNotSayWhatItCanStart) {
  StartOddBus({{"Hello", {nullptr, ":1.1"}},
               {"GetNameOwner",
                {"org.freedesktop.DBus.Error.NameHasNoOwner", "nobody"}}});
  patient_.patience.bus = 300;
  EXPECT_THAT(Daemon(), AllOf(IsUnclear(), Saw("ListActivatableNames: no")));
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
  EXPECT_THAT(Daemon(), AllOf(IsProblem(doctor::kNoSystemd),
                              Saw("the bus may start it"), Saw("no systemd")));
  EXPECT_FALSE(std::filesystem::exists(started));
}

// It lets the doctor in, and keeps back the answer to its greeting.
TEST_F(DoctorOwnBus, MayStaySilentOnceItIsConnected) {
  StartOwnBus("");
  patient_.patience.bus = 500;
  const gint64 began = g_get_monotonic_time();
  EXPECT_THAT(Look("bus"), IsProblem(doctor::kBusSilent));
  EXPECT_LT(g_get_monotonic_time() - began, 4 * G_TIME_SPAN_SECOND);
}

TEST_F(DoctorOwnBus, MayKeepTheDaemonFromASnap) {
  BeInSnap("enforce");
  StartOwnBus(
      "<allow receive_sender=\"*\"/><deny "
      "send_interface=\"org.freedesktop.DBus\" "
      "send_member=\"GetNameOwner\"/>");
  EXPECT_THAT(Look("bus"), IsProblem(doctor::kBusWithheld));
}

TEST_F(DoctorOwnBus, MayNotKnowTheUser) {
  StartOwnBus("</policy><policy context=\"mandatory\"><deny user=\"*\"/>");
  EXPECT_THAT(Look("bus"), IsProblem(doctor::kBusRefuses));
}

TEST_F(DoctorOwnBus, IsMissedOnceItHasEnded) {
  StartOwnBus("");
  EndOwnBus();
  EXPECT_THAT(Look("bus"),
              AllOf(IsProblem(doctor::kNoBus), Saw("Connection refused")));
}

TEST_F(DoctorOwnBus, MayRefuseToNameTheDaemon) {
  StartOwnBus(
      "<allow receive_sender=\"*\"/><deny "
      "send_interface=\"org.freedesktop.DBus\" "
      "send_member=\"GetNameOwner\"/>");
  EXPECT_THAT(Look("bus"),
              AllOf(IsProblemWithoutARow(), Saw("GetNameOwner: ")));
  EXPECT_THAT(Look("daemon"), AllOf(IsUnclear(), Saw("see bus")));
}

// systemd's double: one unit, whatever is asked for.
class DoctorService : public DoctorOwnBus {
 protected:
  // By default the bus may start the daemon, and there is a controller.
  void SetUp() override {
    Write("/sys/class/bluetooth/hci0/uevent", "");
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

  void RemoveController() {
    std::filesystem::remove_all(patient_.root + "/sys/class/bluetooth/hci0");
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
      AllOf(IsProblem(doctor::kDaemonFails), Saw("loaded, failed, enabled")));
}

TEST_F(DoctorService, IsMasked) {
  EXPECT_THAT(Service("{'LoadState': <'masked'>, 'ActiveState': "
                      "<'inactive'>}"),
              IsProblem(doctor::kDaemonFails));
}

TEST_F(DoctorService, IsNotInstalled) {
  EXPECT_THAT(Service("{'LoadState': <'not-found'>, 'ActiveState': "
                      "<'inactive'>}"),
              IsProblem(doctor::kNoDaemon));
}

TEST_F(DoctorService, IsDisabled) {
  EXPECT_THAT(Service("{'LoadState': <'loaded'>, 'ActiveState': <'inactive'>, "
                      "'UnitFileState': <'disabled'>}"),
              IsProblem(doctor::kDaemonDisabled));
}

TEST_F(DoctorService, IsBroken) {
  EXPECT_THAT(
      Service("{'LoadState': <'bad-setting'>, 'ActiveState': <'inactive'>, "
              "'UnitFileState': <'enabled'>}"),
      AllOf(IsProblem(doctor::kUnitBroken), Saw("bad-setting")));
}

TEST_F(DoctorService, CannotBeRead) {
  RemoveController();
  EXPECT_THAT(Service("{'LoadState': <'error'>, 'ActiveState': <'failed'>}"),
              IsProblem(doctor::kUnitBroken));
}

constexpr char kInactive[] =
    "{'LoadState': <'loaded'>, 'ActiveState': <'inactive'>, 'UnitFileState': "
    "<'enabled'>}";

TEST_F(DoctorService, IsNotAskedForWithoutAController) {
  RemoveController();
  EXPECT_THAT(Service(kInactive), IsProblem(doctor::kDaemonSkipped));
}

TEST_F(DoctorService, IsNotAskedForWhileTheRadioIsBlocked) {
  RemoveController();
  AddSwitch("0", "tpacpi_bluetooth_sw", "1", "0");
  Look("radio switch");
  EXPECT_THAT(Service(kInactive), AllOf(IsUnclear(), Saw("see radio switch")));
}

TEST_F(DoctorService, WaitsForTheFirstCall) {
  EXPECT_THAT(Service(kInactive), AllOf(IsUnclear(), Saw("first call")));
}

TEST_F(DoctorService, IsOnItsWay) {
  RemoveController();
  EXPECT_THAT(Service("{'LoadState': <'loaded'>, 'ActiveState': "
                      "<'activating'>, 'UnitFileState': <'enabled'>}"),
              AllOf(IsUnclear(), Saw("its service is activating")));
}

TEST_F(DoctorService, IsOnItsWayThoughDisabled) {
  EXPECT_THAT(Service("{'LoadState': <'loaded'>, 'ActiveState': "
                      "<'activating'>, 'UnitFileState': <'disabled'>}"),
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
              AllOf(IsProblem(doctor::kNoDaemon), Saw("systemd: odd")));
}

TEST_F(DoctorService, IsNotWhatTheBusMayStart) {
  std::filesystem::remove(patient_.root + kServiceFile);
  EXPECT_THAT(Service(kInactive), AllOf(IsProblem(doctor::kDaemonDisabled),
                                        Saw("cannot start it")));
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
              AllOf(IsProblem(doctor::kAdapterOff),
                    Saw("takes hci0, the first that the daemon lists"),
                    Not(Saw("whichever"))));
}

// The kernel may choose the other one.
TEST_F(DoctorAdapter, NeedNotBeTheFirstForAStream) {
  air_.AddDevice(kDeviceAddress);
  StartDaemonWith({kAdapterOff, kAdapterOn});
  EXPECT_THAT(Adapter(), IsProblem(doctor::kAdapterOff));
  EXPECT_THAT(Look("stream"), IsOk());
}

TEST_F(DoctorAdapter, IsNeededForAStream) {
  StartDaemonWith({kAdapterOff, kAdapterOff});
  EXPECT_THAT(Adapter(), IsProblem(doctor::kAdapterOff));
  EXPECT_THAT(Look("stream"), AllOf(IsUnclear(), Saw("see adapter")));
}

TEST_F(DoctorAdapter, IsOneOfSeveralThatAreOn) {
  StartDaemonWith({kAdapterOn, kAdapterOff, kAdapterOn});
  const Finding finding = Adapter();
  EXPECT_THAT(finding, IsOk());
  EXPECT_THAT(finding.saw,
              ElementsAre(HasSubstr("hci0 00:11"),
                          "hci0 and hci2 are on: a stream is opened by "
                          "whichever the kernel chooses",
                          HasSubstr("takes hci0"), HasSubstr("hci1 "),
                          HasSubstr("hci2 ")));
  EXPECT_EQ(finding.telling, 2U);
}

TEST_F(DoctorAdapter, IsTheKernelsAlone) {
  Write("/sys/class/bluetooth/hci0/uevent", "");
  Write("/sys/class/bluetooth/hci0:1/uevent", "");
  StartDaemonWith({});
  EXPECT_THAT(Adapter(), AllOf(IsProblem(doctor::kAdapterWithheld),
                               Field("saw", &Finding::saw,
                                     Contains("the kernel has hci0"))));
}

TEST_F(DoctorAdapter, IsOffForTheRadioSwitch) {
  AddSwitch("0", "hci0", "1", "0");
  Look("radio switch");
  StartDaemonWith({kAdapterOff});
  EXPECT_THAT(Adapter(), AllOf(IsUnclear(), Saw("see radio switch")));
  EXPECT_THAT(Look("stream"), IsUnclear());
}

TEST_F(DoctorAdapter, IsMissed) {
  StartDaemonWith({});
  EXPECT_THAT(Adapter(), IsProblem(doctor::kNoAdapter));
}

TEST_F(DoctorAdapter, SaysWhatItDoes) {
  StartDaemonWith(
      {"{'Powered': <true>, 'Discovering': <true>, 'Pairable': <false>}"});
  EXPECT_THAT(Adapter(), AllOf(IsOk(), Saw("on, discovering, not pairable")));
}

class DoctorAgent : public DoctorTest {
 protected:
  static constexpr char kUnregister[] = "UnregisterAgent";

  Finding Agent() {
    Adapter();
    daemon->TakeCalls();
    return Look("agent");
  }
};

// To take back what is not there is refused, and changes nothing.
TEST_F(DoctorAgent, IsNotRegistered) {
  StartDaemonWith({kAdapterOn});
  EXPECT_THAT(Agent(), AllOf(IsOk(), Saw("lets this user ask")));
  EXPECT_THAT(daemon->TakeCalls(),
              ElementsAre("org.bluez.AgentManager1.UnregisterAgent /org/bluez "
                          "(o) /brel/lumso/lumso_bluetooth/doctor"));
}

TEST_F(DoctorAgent, HasNoManager) {
  StartDaemonWith({kAdapterOn});
  daemon->RemoveObject("/org/bluez");
  EXPECT_THAT(Agent(),
              AllOf(IsProblem(doctor::kAgentRefused), Saw("no agent manager")));
}

TEST_F(DoctorAgent, IsRefused) {
  StartDaemonWith({kAdapterOn});
  daemon->FailCall("/org/bluez", kAgentManagerInterface, kUnregister, "o",
                   "org.bluez.Error.Failed", "no such thing");
  EXPECT_THAT(Agent(),
              AllOf(IsProblem(doctor::kAgentRefused), Saw("no such thing")));
}

TEST_F(DoctorAgent, IsForbidden) {
  StartDaemonWith({kAdapterOn});
  daemon->FailCall("/org/bluez", kAgentManagerInterface, kUnregister, "o",
                   "org.freedesktop.DBus.Error.AccessDenied", "Rejected");
  EXPECT_THAT(Agent(), IsProblem(doctor::kDenied));
}

TEST_F(DoctorAgent, IsNotWaitedForEndlessly) {
  StartDaemonWith({kAdapterOn});
  daemon->OnCall("/org/bluez", kAgentManagerInterface, kUnregister, "o", "",
                 "import time; time.sleep(3)");
  patient_.patience.bus = 1000;
  EXPECT_THAT(Agent(),
              AllOf(IsProblem(doctor::kDaemonHangs), Saw("no answer")));
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
  Look("bus");
  EXPECT_THAT(Look("GLib"),
              AllOf(Not(IsProblemWithoutARow()), Not(Saw("forged sender for")),
                    Saw("version " + std::to_string(glib_major_version) + "." +
                        std::to_string(glib_minor_version))));
}

// Needs a GLib with the fix, as every distribution in support has it.
TEST_F(DoctorForgery, IsDropped) {
  StartDaemonWith({kAdapterOn});
  Look("bus");
  EXPECT_THAT(Look("GLib"), AllOf(IsOk(), Saw("it drops")));
}

TEST_F(DoctorForgery, IsDroppedWithoutADaemon) {
  StartBus();
  Look("bus");
  EXPECT_THAT(Look("GLib"), AllOf(IsOk(), Saw("it drops")));
}

// To a GLib without the fix any sender is the daemon; here the sender is it.
TEST_F(DoctorForgery, IsSeenWhenItArrives) {
  StartBus();
  Look("bus");
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      patient_.bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
      "org.freedesktop.DBus", "RequestName",
      g_variant_new("(su)", "org.bluez", 0), nullptr, G_DBUS_CALL_FLAGS_NONE,
      10000, nullptr, nullptr);
  ASSERT_NE(reply, nullptr);
  EXPECT_THAT(Look("GLib"),
              AllOf(IsProblemWithoutARow(), Saw("forged sender for")));
}

class DoctorDevice : public DoctorTest {
 protected:
  Finding Device() {
    Adapter();
    return Look("device");
  }
};

TEST_F(DoctorDevice, HasAnAddressOfTheRightForm) {
  patient_.address = "AA-BB-CC-DD-EE-FF";
  EXPECT_THAT(Look("address"), AllOf(IsProblem(doctor::kBadAddress),
                                     Saw("\"AA-BB-CC-DD-EE-FF\"")));
  EXPECT_THAT(Look("device"), AllOf(IsUnclear(), Saw("see address")));
  EXPECT_THAT(Look("stream"), AllOf(IsUnclear(), Saw("see address")));
}

TEST_F(DoctorDevice, MayBeUnknown) {
  StartDaemonWith({kAdapterOn});
  const Finding finding = Device();
  EXPECT_EQ(finding.verdict, Verdict::kCannotTell);
  EXPECT_EQ(finding.trouble, &doctor::kNotKnown);
}

TEST_F(DoctorDevice, IsDescribed) {
  patient_.address = "aa:bb:cc:dd:ee:ff";
  StartDaemonWith({kAdapterOn});
  daemon->AddDevice(kDevicePath,
                    "{'Address': <'AA:BB:CC:DD:EE:FF'>, 'Alias': "
                    "<'DRU-KX 7'>, 'Name': <'other'>, 'Paired': <true>, "
                    "'Connected': <true>, 'RSSI': <int16 -61>}");
  EXPECT_THAT(
      Device(),
      AllOf(IsOk(), Saw("known to hci0 as \"DRU-KX 7\""),
            Saw("one that the prober asks"), Not(Saw("not one")),
            Field("saw", &Finding::saw,
                  AllOf(Contains("paired with hci0"), Contains("connected"))),
            Saw("-61 dBm")));
}

TEST_F(DoctorDevice, NeedHaveNothing) {
  StartDaemonWith({kAdapterOn});
  daemon->AddDevice(kDevicePath,
                    "{'Address': <'AA:BB:CC:DD:EE:FF'>, 'Name': <'Scale'>}");
  EXPECT_THAT(Device(), AllOf(IsOk(), Saw("as \"Scale\""),
                              Saw("not one that the prober"), Saw("not paired"),
                              Saw("not connected"), Saw("no signal strength")));
}

// What it says beside its name is not to be had by a name.
TEST_F(DoctorDevice, CannotForgeWhatIsSaidOfIt) {
  StartDaemonWith({kAdapterOn});
  daemon->AddDevice(kDevicePath,
                    "{'Alias': <'\"; paired; \\u009bok\\u202e\\\\'>}");
  EXPECT_THAT(Device(), Saw(R"(as "\"; paired; \u009bok\u202e\\")"));
}

TEST_F(DoctorDevice, MayBeKnownToAnotherAdapterAlone) {
  StartDaemonWith({kAdapterOn, kAdapterOn});
  daemon->AddDevice("/org/bluez/hci1/dev_AA_BB_CC_DD_EE_FF",
                    "{'Name': <'Scale'>, 'Paired': <true>}");
  const Finding finding = Device();
  EXPECT_EQ(finding.verdict, Verdict::kCannotTell);
  EXPECT_EQ(finding.trouble, &doctor::kNotKnown);
  EXPECT_THAT(finding.saw, Contains("known to hci1 as \"Scale\", and not to "
                                    "hci0, which an application takes"));
  EXPECT_THAT(finding, AllOf(Not(Saw("not known to the daemon")),
                             Saw("paired with hci1")));
  EXPECT_THAT(patient_.bonded, ElementsAre("hci1"));
}

TEST_F(DoctorDevice, MayBeBondedByAnotherAdapter) {
  StartDaemonWith({kAdapterOn, kAdapterOn, kAdapterOn});
  for (const char* adapter : {"hci0", "hci1", "hci2"}) {
    daemon->AddDevice(
        std::string("/org/bluez/") + adapter + "/dev_AA_BB_CC_DD_EE_FF",
        adapter == std::string("hci0") ? "@a{sv} {}" : "{'Paired': <true>}");
  }
  EXPECT_THAT(Device(), AllOf(IsOk(), Saw("known to hci0, hci1 and hci2"),
                              Saw("paired with hci1 and hci2")));
  EXPECT_THAT(patient_.bonded, ElementsAre("hci1", "hci2"));
}

TEST_F(DoctorDevice, IsTheOnlyAdapterItself) {
  patient_.address = "00:11:22:33:44:55";
  StartDaemonWith({kAdapterOn, kAdapterOff});
  EXPECT_THAT(Device(), AllOf(IsProblem(doctor::kOwnAddress),
                              Saw("this is hci0, an adapter of this")));
  EXPECT_THAT(Look("stream"), AllOf(IsUnclear(), Saw("see device")));
}

// Then the other can reach it.
TEST_F(DoctorDevice, IsOneAdapterOfTwo) {
  patient_.address = "00:11:22:33:44:66";
  StartDaemonWith(
      {kAdapterOn, "{'Address': <'00:11:22:33:44:66'>, 'Powered': <true>}"});
  EXPECT_THAT(Device(), AllOf(Not(IsProblem(doctor::kOwnAddress)),
                              Saw("this is hci1, an adapter of this")));
  air_.Script(patient_.address, Call::kConnect, {Fail(EHOSTDOWN)});
  EXPECT_THAT(Look("stream"), IsProblem(doctor::kOwnAddress));
}

TEST_F(DoctorDevice, HasNoRfcommBehindARandomAddress) {
  StartDaemonWith({kAdapterOn});
  daemon->AddDevice(kDevicePath, "{'AddressType': <'random'>}");
  EXPECT_THAT(Device(), IsProblem(doctor::kLowEnergyOnly));
  EXPECT_THAT(Look("stream"), AllOf(IsUnclear(), Saw("see device")));
}

TEST_F(DoctorDevice, HasNoRfcommWhenItAdvertisesSo) {
  StartDaemonWith({kAdapterOn});
  daemon->AddDevice(kDevicePath, "{'AdvertisingFlags': <[byte 0x06]>}");
  EXPECT_THAT(Device(), IsProblem(doctor::kLowEnergyOnly));
}

// A class comes from inquiry.
TEST_F(DoctorDevice, HasRfcommWhenItWasSeenByInquiry) {
  StartDaemonWith({kAdapterOn});
  daemon->AddDevice(kDevicePath,
                    "{'AdvertisingFlags': <[byte 0x06]>, 'Class': <uint32 "
                    "0x10c>}");
  EXPECT_THAT(Device(), IsOk());
}

TEST_F(DoctorDevice, MayHaveRfcommBesideLowEnergy) {
  StartDaemonWith({kAdapterOn});
  daemon->AddDevice(kDevicePath, "{'AdvertisingFlags': <[byte 0x1a]>}");
  EXPECT_THAT(Device(), IsOk());
}

class DoctorStream : public DoctorTest {
 protected:
  Finding ConnectFails(int error) {
    air_.Script(kDeviceAddress, Call::kConnect, {Fail(error)});
    return Look("stream");
  }
};

TEST_F(DoctorStream, IsOpenedOnceAndClosed) {
  air_.AddDevice(kDeviceAddress);
  std::vector<std::string> said;
  patient_.announce = [&](const std::string& text) {
    EXPECT_EQ(air_.count(Call::kConnect), 0U);
    said.push_back(text);
  };
  EXPECT_THAT(Look("stream"), AllOf(IsOk(), Saw("channel 1 opened")));
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
  EXPECT_THAT(Look("device"), IsOk());
  std::string said;
  patient_.announce = [&said](const std::string& text) { said = text; };
  EXPECT_THAT(Look("stream"), IsOk());
  EXPECT_THAT(said, Not(HasSubstr("pairing")));
  EXPECT_THAT(ConnectFails(ECONNREFUSED),
              AllOf(IsProblem(doctor::kRefused), Saw("holds a bond")));
}

TEST_F(DoctorStream, IsRefused) {
  EXPECT_THAT(ConnectFails(ECONNREFUSED),
              AllOf(IsProblem(doctor::kRefused), Saw("Connection refused"),
                    Not(Saw("bond"))));
}

TEST_F(DoctorStream, IsRefusedByADeviceWithServices) {
  StartDaemonWith({kAdapterOn});
  daemon->AddDevice(kDevicePath,
                    "{'UUIDs': <['00001101-0000-1000-8000-00805f9b34fb', "
                    "'0000110b-0000-1000-8000-00805f9b34fb', "
                    "'8b3f2c1e-5d0a-4f57-9c55-6f3d0e1b7a42', '\\u009b']>}");
  Adapter();
  Look("device");
  EXPECT_THAT(ConnectFails(ECONNREFUSED),
              AllOf(IsProblem(doctor::kRefused),
                    Field("saw", &Finding::saw,
                          ElementsAre(HasSubstr("Connection refused"),
                                      HasSubstr("service 0x1101 (serial port)"),
                                      HasSubstr("service 0x110b"),
                                      HasSubstr("service 8b3f2c1e-5d0a-4f57-9c"
                                                "55-6f3d0e1b7a42")))));
}

TEST_F(DoctorStream, SaysThatItLeftABond) {
  air_.AddDevice(kDeviceAddress);
  StartDaemonWith({kAdapterOn});
  daemon->AddDevice(kDevicePath, "{'Paired': <false>}");
  Adapter();
  Look("device");
  // As the daemon does when the kernel tells it of the new key.
  patient_.announce = [this](const std::string&) {
    daemon->ChangeProperties(kDevicePath, kDeviceInterface,
                             "{'Paired': <true>}");
  };
  EXPECT_THAT(Look("stream"), AllOf(IsOk(), Saw("left a bond")));
  EXPECT_EQ(patient_.left,
            "This left a bond with AA:BB:CC:DD:EE:FF that was not there; "
            "bluetoothctl remove AA:BB:CC:DD:EE:FF removes it");
}

TEST_F(DoctorStream, SaysWhichAdapterGotABond) {
  StartDaemonWith(
      {kAdapterOn, "{'Address': <'00:11:22:33:44:66'>, 'Powered': <true>}"});
  Adapter();
  Look("device");
  patient_.announce = [this](const std::string&) {
    daemon->AddDevice("/org/bluez/hci1/dev_AA_BB_CC_DD_EE_FF",
                      "{'Paired': <true>}");
  };
  EXPECT_THAT(ConnectFails(ECONNREFUSED), Saw("left a bond"));
  EXPECT_THAT(patient_.left, HasSubstr("in bluetoothctl, select "
                                       "00:11:22:33:44:66 and then remove "
                                       "AA:BB:CC:DD:EE:FF"));
}

// The kernel may have chosen another adapter than the one that holds a bond.
TEST_F(DoctorStream, SaysThatItLeftASecondBond) {
  air_.AddDevice(kDeviceAddress);
  StartDaemonWith(
      {kAdapterOn, "{'Address': <'00:11:22:33:44:66'>, 'Powered': <true>}"});
  daemon->AddDevice(kDevicePath, "{'Paired': <true>}");
  Adapter();
  Look("device");
  std::string said;
  patient_.announce = [&](const std::string& text) {
    said = text;
    daemon->AddDevice("/org/bluez/hci1/dev_AA_BB_CC_DD_EE_FF",
                      "{'Paired': <true>}");
  };
  EXPECT_THAT(Look("stream"), AllOf(IsOk(), Saw("left a bond")));
  EXPECT_THAT(patient_.left, HasSubstr("select 00:11:22:33:44:66"));
  EXPECT_THAT(said, HasSubstr("may begin a pairing"));
}

TEST_F(DoctorStream, SaysThatItCannotTellOfABond) {
  air_.AddDevice(kDeviceAddress);
  StartDaemonWith({kAdapterOn});
  Adapter();
  Look("device");
  daemon->FailCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                   "org.example.Odd", "odd");
  EXPECT_THAT(Look("stream"), AllOf(IsOk(), Saw("could not be asked")));
  EXPECT_THAT(patient_.left, HasSubstr("Whether this left a bond with"));
}

TEST_F(DoctorStream, LeavesNoBondThatWasThere) {
  air_.AddDevice(kDeviceAddress);
  StartDaemonWith({kAdapterOn});
  daemon->AddDevice(kDevicePath, "{'Paired': <true>}");
  Adapter();
  Look("device");
  EXPECT_THAT(Look("stream"), AllOf(IsOk(), Not(Saw("left a bond"))));
  EXPECT_EQ(patient_.left, "");
}

TEST_F(DoctorStream, FindsNoDevice) {
  air_.SetConnectTime(std::chrono::milliseconds(20));
  EXPECT_THAT(Look("stream"), IsProblem(doctor::kHostDown));
}

TEST_F(DoctorStream, FindsNoRoute) {
  EXPECT_THAT(ConnectFails(EHOSTUNREACH), IsProblem(doctor::kNoRoute));
}

TEST_F(DoctorStream, IsNotAuthenticated) {
  EXPECT_THAT(ConnectFails(EACCES),
              AllOf(IsProblem(doctor::kNotAuthenticated), Saw("pair it")));
  patient_.bonded = {"hci0"};
  EXPECT_THAT(ConnectFails(EACCES),
              AllOf(IsProblem(doctor::kNotAuthenticated), Not(Saw("pair it"))));
}

TEST_F(DoctorStream, IsNotAuthenticatedWithoutTheDevicesKey) {
  EXPECT_THAT(ConnectFails(EBADE), IsProblem(doctor::kNotAuthenticated));
}

TEST_F(DoctorStream, TimesOut) {
  EXPECT_THAT(ConnectFails(ETIMEDOUT),
              AllOf(IsProblem(doctor::kNoAnswer), Saw("asked to agree")));
  patient_.bonded = {"hci0"};
  EXPECT_THAT(ConnectFails(ETIMEDOUT),
              AllOf(IsProblem(doctor::kNoAnswer), Not(Saw("asked to agree"))));
}

TEST_F(DoctorStream, IsNotWaitedForEndlessly) {
  air_.AddDevice(kDeviceAddress);
  air_.SetConnectTime(std::chrono::seconds(15));
  SetTimeLimit(1);
  EXPECT_THAT(Look("stream"),
              AllOf(IsUnclear(), Saw("no answer after"), Saw("no time")));
  SetTimeLimit(40);
  patient_.patience.connect = 300;
  EXPECT_THAT(Look("stream"), IsProblem(doctor::kNoAnswer));
}

TEST_F(DoctorStream, FailsInAWayOfItsOwn) {
  EXPECT_THAT(ConnectFails(EPROTO),
              AllOf(IsProblemWithoutARow(), Saw("Protocol error")));
}

TEST_F(DoctorStream, IsReset) {
  EXPECT_THAT(ConnectFails(ECONNRESET),
              AllOf(IsProblem(doctor::kReset), Saw("reset by peer")));
}

TEST_F(DoctorStream, IsAborted) {
  EXPECT_THAT(ConnectFails(ECONNABORTED),
              AllOf(IsProblem(doctor::kAborted), Saw("connection abort")));
}

TEST_F(DoctorStream, IsNotOpenWhileItsErrorCannotBeAsked) {
  air_.AddDevice(kDeviceAddress);
  air_.SetConnectTime(std::chrono::milliseconds(20));
  air_.Script(kDeviceAddress, Call::kPendingError, {Return(-1, ENOBUFS)});
  EXPECT_THAT(Look("stream"), IsProblemWithoutARow());
}

TEST_F(DoctorStream, CannotTellWithoutASocket) {
  FailSocket(EMFILE);
  EXPECT_THAT(Look("stream"), AllOf(IsUnclear(), Saw("Too many")));
}

TEST_F(DoctorStream, IsTaken) {
  air_.AddDevice(kDeviceAddress);
  air_.Script(kDeviceAddress, Call::kConnect,
              std::vector<Step>(1000, Fail(EBUSY)));
  EXPECT_THAT(Look("stream"), IsProblem(doctor::kBusy));
  EXPECT_EQ(air_.open_sockets(), 0U);
}

TEST_F(DoctorStream, MayHaveBeenClosedJustNow) {
  air_.AddDevice(kDeviceAddress);
  air_.Script(kDeviceAddress, Call::kConnect, {Fail(EBUSY), Fail(EBUSY)});
  EXPECT_THAT(Look("stream"), IsOk());
  EXPECT_EQ(air_.count(Call::kConnect), 3U);
}

}  // namespace
}  // namespace lumso_test
