// The doctor's table against the document that shows it, its copies against
// their originals, and the command from outside.

#include <fcntl.h>
#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "doctor/steps.h"
#include "doctor/troubles.h"

namespace {

using lumso_doctor::Trouble;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using Json = nlohmann::json;
using Lines = std::vector<std::string>;

Lines SplitLines(const std::string& text) {
  Lines lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::string ReadFile(const std::string& name) {
  std::ifstream stream(LUMSO_SOURCE_DIR "/" + name);
  EXPECT_TRUE(stream.good()) << name;
  return std::string(std::istreambuf_iterator<char>(stream), {});
}

std::string MarkdownRow(const Trouble& row) {
  return std::string("| ") + row.see + " | " + row.means + " | " + row.remedy +
         " |";
}

// Everything that the steps can find.
std::set<const Trouble*> Troubles() {
  std::set<const Trouble*> troubles;
  for (const lumso_doctor::Step& step : lumso_doctor::Steps())
    troubles.insert(step.troubles.begin(), step.troubles.end());
  return troubles;
}

Lines RowsOfThePage() {
  Lines rows;
  for (const std::string& line :
       SplitLines(ReadFile("doc/troubleshooting.md"))) {
    if (line.rfind("| ", 0) == 0 && line.rfind("| You see", 0) != 0)
      rows.push_back(line);
  }
  return rows;
}

TEST(DoctorTroubles, HaveNamesOfTheirOwn) {
  std::set<std::string> names;
  for (const Trouble* trouble : Troubles()) {
    EXPECT_THAT(trouble->name, testing::MatchesRegex("[a-z][-a-z]*"));
    EXPECT_TRUE(names.insert(trouble->name).second) << trouble->name;
  }
}

TEST(DoctorTroubles, AreWhatThePageSays) {
  const Lines rows = RowsOfThePage();
  for (const Trouble* trouble : Troubles()) {
    EXPECT_EQ(std::count(rows.begin(), rows.end(), MarkdownRow(*trouble)), 1)
        << MarkdownRow(*trouble);
  }
}

// A remedy that changes the system is root's.
TEST(DoctorTroubles, SayWhatNeedsRoot) {
  for (const Trouble* trouble : Troubles()) {
    const std::string remedy = trouble->remedy;
    for (const char* command :
         {"systemctl restart", "systemctl start", "systemctl enable",
          "systemctl unmask", "modprobe ", "rfkill ", "install `bluez`"}) {
      if (remedy.find(command) == std::string::npos) continue;
      EXPECT_THAT(remedy, HasSubstr("as root")) << trouble->name;
    }
  }
}

// What a machine shows before an application runs. A row that is neither here
// nor in the table waits for somebody to decide.
TEST(DoctorTroubles, AreAllThatAMachineShows) {
  const Lines others = {
      "| still false although",  // An application is running.
      "| still true although",
      "| it is available, but `getAddress` is another adapter's",  // Always
                                                                   // told.
      "| the right reason, but 30 s late",  // The doctor does not wait so.
      // It tries again by itself.
      "| the same, `… failed: Connection reset by peer` or",
      "| ° the same, now and then, and only once `setAuthSecret`",
      "| ° the same after a hot restart",
      // These need a request of an application.
      "| ° `StartDiscovery failed: … InProgress`",
      "| `startDiscovery` answers true, and",
      "| a device that went away gives no event",
      "| `Pair() failed: … AlreadyExists`",
      "| ° `Pair() failed: … AuthenticationFailed`",
      "| ° `Pair() failed: … ConnectionAttemptFailed`",
      "| ° `Pair() failed: Timeout was reached`",
      "| ° a device that forgot its bond cannot pair again",
      "| `RegisterAgent failed: … AlreadyExists`",
      "| ° a dialogue of the desktop appears",
      "| ° devices can no longer pair by themselves",
  };
  std::set<std::string> known;
  for (const Trouble* trouble : Troubles()) known.insert(MarkdownRow(*trouble));
  size_t passed_over = 0;
  std::string section;
  for (const std::string& line :
       SplitLines(ReadFile("doc/troubleshooting.md"))) {
    if (line.rfind("## ", 0) == 0) section = line;
    if (section != "## Nothing is available" && section != "## Discovery" &&
        section != "## Pairing" && section != "## Connecting") {
      continue;
    }
    if (line.rfind("| ", 0) != 0 || line.rfind("| You see", 0) == 0) continue;
    if (known.count(line) != 0) continue;
    ++passed_over;
    EXPECT_TRUE(std::any_of(others.begin(), others.end(),
                            [&line](const std::string& start) {
                              return line.rfind(start, 0) == 0;
                            }))
        << line;
  }
  EXPECT_EQ(passed_over, others.size());
}

TEST(DoctorNames, AreThoseThatTheProberAsks) {
  const std::string source = ReadFile("src/lumso_bluetooth_plugin.cc");
  const size_t begin = source.find("kProbedNamePrefixes[] = {");
  ASSERT_NE(begin, std::string::npos);
  const std::string list =
      source.substr(begin, source.find('}', begin) - begin);
  Lines prefixes;
  for (size_t open = list.find('"'); open != std::string::npos;) {
    const size_t end = list.find('"', open + 1);
    prefixes.push_back(list.substr(open + 1, end - open - 1));
    open = list.find('"', end + 1);
  }
  EXPECT_EQ(prefixes.size(), lumso_doctor::kProbedNamePrefixes.size());
  for (const std::string& prefix : prefixes) {
    EXPECT_TRUE(lumso_doctor::IsProbedName(prefix)) << prefix;
    EXPECT_TRUE(lumso_doctor::IsProbedName(prefix + "7")) << prefix;
    EXPECT_FALSE(lumso_doctor::IsProbedName("x" + prefix)) << prefix;
    EXPECT_FALSE(
        lumso_doctor::IsProbedName(prefix.substr(0, prefix.size() - 1)))
        << prefix;
  }
}

struct Outcome {
  int status = -1;
  std::string output;
  std::string errors;
};

constexpr char kNoBus[] = "unix:path=/nowhere";

// `output` takes what it would print; taken.
Outcome Ask(const Lines& arguments, const std::string& bus = kNoBus,
            int output_fd = -1) {
  std::vector<const char*> argv = {LUMSO_DOCTOR};
  for (const std::string& argument : arguments) {
    argv.push_back(argument.c_str());
  }
  argv.push_back(nullptr);
  g_autoptr(GSubprocessLauncher) launcher =
      g_subprocess_launcher_new(static_cast<GSubprocessFlags>(
          (output_fd < 0 ? G_SUBPROCESS_FLAGS_STDOUT_PIPE : 0) |
          G_SUBPROCESS_FLAGS_STDERR_PIPE));
  g_subprocess_launcher_setenv(launcher, "DBUS_SYSTEM_BUS_ADDRESS", bus.c_str(),
                               TRUE);
  if (output_fd >= 0) g_subprocess_launcher_take_stdout_fd(launcher, output_fd);
  g_autoptr(GSubprocess) process =
      g_subprocess_launcher_spawnv(launcher, argv.data(), nullptr);
  Outcome outcome;
  g_autofree gchar* output = nullptr;
  g_autofree gchar* errors = nullptr;
  EXPECT_TRUE(g_subprocess_communicate_utf8(process, nullptr, nullptr, &output,
                                            &errors, nullptr));
  if (output != nullptr) outcome.output = output;
  outcome.errors = errors;
  if (g_subprocess_get_if_exited(process))
    outcome.status = g_subprocess_get_exit_status(process);
  return outcome;
}

TEST(DoctorCommand, PrintsOneJsonObjectPerStep) {
  const Outcome outcome = Ask({"--json"});
  Lines steps;
  for (const std::string& line : SplitLines(outcome.output)) {
    const Json item = Json::parse(line);
    steps.push_back(item["step"]);
    EXPECT_THAT((Lines{"ok", "problem", "cannot tell"}),
                Contains(item["verdict"].get<std::string>()));
    EXPECT_FALSE(item["saw"].empty()) << line;
    if (item["step"] != "bus") continue;
    EXPECT_EQ(item["verdict"], "problem");
    EXPECT_EQ(item["trouble"], "no-bus");
    EXPECT_EQ(item["means"], "no system bus here");
    EXPECT_THAT(item["do"].get<std::string>(), HasSubstr("/run/dbus"));
    EXPECT_THAT(item["do"].get<std::string>(), Not(HasSubstr("`")));
  }
  EXPECT_THAT(steps, ElementsAre("this process", "kernel", "radio switch",
                                 "bus", "daemon", "adapter", "agent", "GLib"));
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.errors, "");
}

TEST(DoctorCommand, LooksAtADeviceToo) {
  const Outcome outcome = Ask({"nonsense", "--json"});
  const Lines lines = SplitLines(outcome.output);
  ASSERT_EQ(lines.size(), 11U);
  const Json address = Json::parse(lines[8]);
  EXPECT_EQ(address["step"], "address");
  EXPECT_EQ(address["saw"], Json({"\"nonsense\""}));
  EXPECT_EQ(address["verdict"], "problem");
  EXPECT_EQ(Json::parse(lines[9])["saw"], Json({"not looked at: see address"}));
  EXPECT_EQ(Json::parse(lines[10])["saw"],
            Json({"not looked at: see address"}));
  EXPECT_EQ(outcome.errors, "");
}

TEST(DoctorCommand, PrintsTextWithoutMarksIntoAPipe) {
  const Outcome outcome = Ask({});
  const Lines lines = SplitLines(outcome.output);
  EXPECT_THAT(lines,
              Contains("problem      bus: Could not connect: No such file or "
                       "directory"));
  EXPECT_THAT(outcome.output,
              HasSubstr("\n    It means: no system bus here\n    Do: as root "
                        "start dbus; "));
  // What the other steps say depends on the machine.
  const auto count = [&lines](const char* verdict) {
    return std::to_string(std::count_if(
        lines.begin(), lines.end(),
        [&](const auto& line) { return line.rfind(verdict, 0) == 0; }));
  };
  EXPECT_THAT(lines.back(),
              testing::MatchesRegex(count("problem ") + " problems?; " +
                                    count("cannot tell ") +
                                    " steps could not tell\\."));
  EXPECT_THAT(outcome.output, Not(HasSubstr("\x1b")));
  EXPECT_THAT(outcome.output, Not(HasSubstr("✘")));
  EXPECT_EQ(outcome.status, 1);
}

TEST(DoctorCommand, SaysOneThingOfWhatIsFineUnlessAskedForAll) {
  const std::string first = "ok           this process: user ";
  const std::string second = "    no Flatpak or Snap sandbox";
  const Lines few = SplitLines(Ask({}).output);
  const Lines all = SplitLines(Ask({"--verbose"}).output);
  // Where it may be a container the step cannot tell, and says all.
  const bool is_fine = few[0].rfind(first, 0) == 0;
  EXPECT_NE(is_fine, few[1] == second);
  EXPECT_THAT(all, Contains(second));
  EXPECT_GT(all.size(), few.size() - 1);
}

// What is seen may be a stranger's words, such as a device's name.
TEST(DoctorCommand, LetsNobodyWriteOnTheTerminal) {
  const Outcome outcome = Ask({"Grüße\n\x1b[32m✔ \"ok\xe2\x80\xae\xff"});
  EXPECT_THAT(
      SplitLines(outcome.output),
      Contains(R"(problem      address: "Grüße\n\u001b[32m✔ \"ok\u202e�")"));
}

// A bus that would be noticed.
TEST(DoctorCommand, StopsWhenNobodyCanReadOn) {
  g_autofree gchar* folder = g_dir_make_tmp("lumso-doctor-XXXXXX", nullptr);
  const std::string path = std::string(folder) + "/bus";
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int bus = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
  ASSERT_EQ(bind(bus, reinterpret_cast<sockaddr*>(&address), sizeof(address)),
            0);
  ASSERT_EQ(listen(bus, 1), 0);
  const Outcome outcome =
      Ask({}, "unix:path=" + path, open("/dev/full", O_WRONLY));
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(SplitLines(outcome.errors),
              ElementsAre(HasSubstr("cannot write to standard output")));
  EXPECT_LT(accept(bus, nullptr, nullptr), 0);
  close(bus);
  std::filesystem::remove_all(folder);
}

TEST(DoctorCommand, EndsWhateverHangs) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  fcntl(ends[1], F_SETFL, O_NONBLOCK);
  while (write(ends[1], "", 1) == 1) continue;
  fcntl(ends[1], F_SETFL, 0);
  const gint64 began = g_get_monotonic_time();
  const Outcome outcome = Ask({}, kNoBus, ends[1]);
  EXPECT_LT(g_get_monotonic_time() - began, 45 * G_TIME_SPAN_SECOND);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.errors, "lumso_doctor: gave up in this process\n");
  close(ends[0]);
}

TEST(DoctorCommand, ExplainsItself) {
  const Outcome outcome = Ask({"--help"});
  EXPECT_THAT(outcome.output, StartsWith("Usage: lumso_doctor"));
  EXPECT_THAT(outcome.output, HasSubstr("systemd\nreads its service's file"));
  for (const std::string& line : SplitLines(outcome.output))
    EXPECT_LE(line.size(), 80U) << line;
  EXPECT_NE(SplitLines(outcome.output).back(), "");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(Ask({"--help"}, kNoBus, open("/dev/full", O_WRONLY)).status, 1);
}

TEST(DoctorCommand, RefusesWrongArguments) {
  for (const Lines& arguments :
       {Lines{"--plug\x1bin"}, Lines{"--json", "A", "B"}, Lines{""}}) {
    const Outcome outcome = Ask(arguments);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.output, "");
    EXPECT_THAT(outcome.errors, StartsWith("lumso_doctor: wrong argument: "));
    EXPECT_THAT(outcome.errors, Not(HasSubstr("\x1b")));
  }
}

}  // namespace
