// Drives lumso_host from outside, over its pipes, with a plug-in of the tests'
// own.

#include <dlfcn.h>
#include <fcntl.h>
#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using namespace std::string_literals;
using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;

constexpr char kHost[] = LUMSO_HOST;
constexpr char kPlugin[] = LUMSO_HOST_TEST_PLUGIN;

// What a finished host has left behind.
struct Outcome {
  int status = -1;  // -1 when it did not exit by itself.
  Lines lines;
  std::string errors;
};

std::string TakeText(GBytes* bytes) {
  gsize size = 0;
  gpointer data = g_bytes_unref_to_data(bytes, &size);
  std::string text(static_cast<char*>(data), size);
  g_free(data);
  return text;
}

Lines SplitLines(const std::string& text) {
  Lines lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

GSubprocess* Start(const std::vector<std::string>& arguments) {
  std::vector<const char*> argv = {kHost};
  for (const std::string& argument : arguments) {
    argv.push_back(argument.c_str());
  }
  argv.push_back(nullptr);
  GError* error = nullptr;
  GSubprocess* process = g_subprocess_newv(
      argv.data(),
      static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDIN_PIPE |
                                    G_SUBPROCESS_FLAGS_STDOUT_PIPE |
                                    G_SUBPROCESS_FLAGS_STDERR_PIPE),
      &error);
  EXPECT_NE(process, nullptr) << error->message;
  return process;
}

// Sends `input`, if not empty, closes the host's input and waits for its end.
Outcome Finish(GSubprocess* process, const std::string& input) {
  g_autoptr(GBytes) bytes = g_bytes_new(input.data(), input.size());
  GBytes* output = nullptr;
  GBytes* errors = nullptr;
  EXPECT_TRUE(g_subprocess_communicate(process, bytes, nullptr, &output,
                                       &errors, nullptr));
  Outcome outcome;
  outcome.lines = SplitLines(TakeText(output));
  outcome.errors = TakeText(errors);
  if (g_subprocess_get_if_exited(process)) {
    outcome.status = g_subprocess_get_exit_status(process);
  }
  return outcome;
}

Outcome RunWith(const std::vector<std::string>& arguments,
                const std::string& input = "") {
  g_autoptr(GSubprocess) process = Start(arguments);
  return Finish(process, input);
}

Outcome RunHost(const std::string& input) {
  return RunWith({"--plugin", kPlugin}, input);
}

// Runs one command and returns the one line that it prints.
std::string RunOne(const std::string& command) {
  const Outcome outcome = RunHost(command + "\n");
  EXPECT_EQ(outcome.lines.size(), 1U);
  return outcome.lines.empty() ? "" : outcome.lines[0];
}

// A host that is talked to piece by piece.
class LiveHost {
 public:
  LiveHost() : process_(Start({"--plugin", kPlugin})) {}
  ~LiveHost() {
    // The kill is another thread's work, which this process may not outlive.
    g_subprocess_force_exit(process_);
    g_subprocess_wait(process_, nullptr, nullptr);
    g_object_unref(process_);
  }
  LiveHost(const LiveHost&) = delete;
  LiveHost& operator=(const LiveHost&) = delete;

  void Send(const std::string& text) {
    GOutputStream* input = g_subprocess_get_stdin_pipe(process_);
    ASSERT_TRUE(g_output_stream_write_all(input, text.data(), text.size(),
                                          nullptr, nullptr, nullptr));
    ASSERT_TRUE(g_output_stream_flush(input, nullptr, nullptr));
  }

  // Returns the next line; the case's time limit is its deadline.
  std::string ReadLine() {
    return ReadLineOf(g_subprocess_get_stdout_pipe(process_));
  }
  std::string ReadErrorLine() {
    return ReadLineOf(g_subprocess_get_stderr_pipe(process_));
  }

  void Signal(int number) { g_subprocess_send_signal(process_, number); }

  // Waits for an end that nothing but a signal brings about.
  Outcome WaitWithOpenInput() {
    EXPECT_TRUE(g_subprocess_wait(process_, nullptr, nullptr));
    return Finish(process_, "");
  }

  Outcome Close() { return Finish(process_, ""); }

 private:
  static std::string ReadLineOf(GInputStream* output) {
    std::string line;
    char c = 0;
    while (g_input_stream_read(output, &c, 1, nullptr, nullptr) == 1) {
      if (c == '\n') return line;
      line.push_back(c);
    }
    ADD_FAILURE() << "the output ended";
    return line;
  }

  GSubprocess* process_;  // Owned.
};

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

TEST(HostCall, PrintsTheResult) {
  EXPECT_EQ(RunOne("call echo {\"b\":1,\"a\":[true,null,\"x\"]}"),
            R"({"call":"echo","result":{"b":1,"a":[true,null,"x"]}})");
}

TEST(HostCall, SendsNullWithoutJson) {
  EXPECT_EQ(RunOne("call echo"), R"({"call":"echo","result":null})");
}

TEST(HostCall, PrintsTheErrorWithItsDetails) {
  EXPECT_EQ(
      RunOne("call error [1]"),
      R"({"call":"error","error":{"code":"ECONN","message":"Not connected","details":[1]}})");
}

TEST(HostCall, PrintsNullForWhatAnErrorLacks) {
  EXPECT_EQ(
      RunOne("call bareError"),
      R"({"call":"bareError","error":{"code":"ECONN","message":null,"details":null}})");
}

TEST(HostCall, PrintsNotImplemented) {
  EXPECT_EQ(RunOne("call fly"), R"({"call":"fly","notImplemented":true})");
}

TEST(HostCall, HoldsBackTheNextCommandUntilALateAnswer) {
  const Outcome outcome = RunHost("call answerLater 1\ncall echo 2\n");
  EXPECT_EQ(outcome.lines, (Lines{R"({"call":"answerLater","result":1})",
                                  R"({"call":"echo","result":2})"}));
}

TEST(HostCall, ReportsADroppedRequestAndGoesOn) {
  const Outcome outcome = RunHost("call dropped\ncall echo 2\n");
  EXPECT_EQ(outcome.lines,
            (Lines{R"({"error":"call dropped was dropped unanswered"})",
                   R"({"call":"echo","result":2})"}));
  EXPECT_NE(outcome.errors.find("was not responded to"), std::string::npos);
}

TEST(HostCall, CarriesALineOf200KilobytesAtSpeed) {
  const std::string hex(200000, 'a');
  const auto start = Clock::now();
  const std::string line = RunOne("call echo {\"uint8\":\"" + hex + "\"}");
  EXPECT_EQ(line, R"({"call":"echo","result":{"uint8":")" + hex + "\"}}");
  EXPECT_LT(SecondsSince(start), 5.0);
}

TEST(HostCall, LeavesABrokenPipeToThePlugin) {
  EXPECT_EQ(RunOne("call brokenPipe"),
            R"({"call":"brokenPipe","result":"EPIPE"})");
}

TEST(HostJson, KeepsIntegersAndFloatsApart) {
  EXPECT_EQ(RunOne("call echo [1,1.0,-0.5,1e3,9223372036854775807,"
                   "-9223372036854775808]"),
            R"({"call":"echo","result":[1,1.0,-0.5,1000.0,9223372036854775807,)"
            R"(-9223372036854775808]})");
}

TEST(HostJson, CarriesByteLists) {
  EXPECT_EQ(
      RunOne(R"(call echo [{"uint8":"00FFab"},{"uint8":""},{"uint8":"0"},)"
             R"({"uint8":"zz"},{"uint8":1},{"uint8":"00","more":1}])"),
      R"({"call":"echo","result":[{"uint8":"00ffab"},{"uint8":""},{"uint8":"0"},)"
      R"({"uint8":"zz"},{"uint8":1},{"uint8":"00","more":1}]})");
}

TEST(HostJson, SendsByteListsAsUint8Lists) {
  // As a map it would have come back with its digits unchanged.
  EXPECT_EQ(RunOne(R"(call echo {"uint8":"AB"})"),
            R"({"call":"echo","result":{"uint8":"ab"}})");
}

TEST(HostJson, PrintsWhatJsonHasNoFormFor) {
  EXPECT_EQ(
      RunOne("call oddValues"),
      R"({"call":"oddValues","result":{"int32":[1,-1],)"
      R"("int64":[-9223372036854775808,9223372036854775807],"float32":[0.5],)"
      R"("float":[1.0,"NaN","Infinity","-Infinity"],)"
      "\"broken\":\"a\xef\xbf\xbd\",\"5\":null,\"[]\":true}}");
}

// A device's name may hold them, and a terminal would obey.
TEST(HostJson, EscapesWhatATerminalWouldObey) {
  EXPECT_EQ(
      RunOne("call echo {\"\\u2028\":\"\u009b2J\u202e\x7f\u00ad\"}"),
      R"({"call":"echo","result":{"\u2028":"\u009b2J\u202e\u007f\u00ad"}})");
}

TEST(HostJson, CarriesTextBeyondAscii) {
  EXPECT_EQ(RunOne("call echo \"\xc3\xa9\\u00e9\\n\""),
            "{\"call\":\"echo\",\"result\":\"\xc3\xa9\xc3\xa9\\n\"}");
}

TEST(HostStream, AnswersListenAndCancel) {
  const Outcome outcome = RunHost(
      "listen test/events\ncancel test/events\nlisten nobody\n"
      "cancel nobody\nlisten test/raw\n");
  EXPECT_EQ(
      outcome.lines,
      (Lines{
          R"({"listen":"test/events","result":null})",
          R"({"cancel":"test/events","error":{"code":"busy","message":"Still needed","details":null}})",
          R"({"listen":"nobody","notImplemented":true})",
          R"({"cancel":"nobody","notImplemented":true})",
          R"({"listen":"test/raw","error":{"code":"malformed","message":"Unknown envelope type 02","details":null}})"}));
}

TEST(HostStream, PrintsEveryKindOfEvent) {
  const Outcome outcome = RunHost(
      "call sendEvents [1,{\"uint8\":\"0a\"}]\ncall sendErrorLater\n"
      "expect Connection lost 5\ncall sendEndLater\nexpect endOfStream 5\n");
  EXPECT_EQ(
      outcome.lines,
      (Lines{
          R"({"channel":"test/events","event":1})",
          R"({"channel":"test/events","event":{"uint8":"0a"}})",
          R"({"call":"sendEvents","result":null})",
          R"({"call":"sendErrorLater","result":null})",
          R"({"channel":"test/events","error":{"code":"lost","message":"Connection lost","details":null}})",
          R"({"call":"sendEndLater","result":null})",
          R"({"channel":"test/events","endOfStream":true})"}));
  EXPECT_EQ(outcome.status, 0);
}

TEST(HostStream, PrintsEventsWhileASleepHoldsTheCommands) {
  LiveHost host;
  host.Send("call sendEventsLater [7]\nsleep 1000\ncall echo 1\n");
  EXPECT_EQ(host.ReadLine(), R"({"call":"sendEventsLater","result":null})");
  EXPECT_EQ(host.ReadLine(), R"({"channel":"test/events","event":7})");
}

TEST(HostStream, PrintsEventsBetweenCommandsThatWait) {
  std::string input = "call sendEventsSoon [7]\n";
  for (int i = 0; i < 100; ++i) input += "call echo\n";
  const Lines lines = RunHost(input).lines;
  ASSERT_EQ(lines.size(), 102U);
  EXPECT_NE(lines.back(), R"({"channel":"test/events","event":7})");
}

TEST(HostSleep, HoldsBackTheNextCommand) {
  const auto start = Clock::now();
  EXPECT_EQ(RunOne("sleep 0.25\nsleep 0\ncall echo"),
            R"({"call":"echo","result":null})");
  EXPECT_GE(SecondsSince(start), 0.25);
}

TEST(HostExpect, FindsALineThatComesLater) {
  const Outcome outcome = RunHost(
      "call sendEventsLater [\"two words\"]\nexpect \"two words\" 5\n"
      "call echo\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.lines,
            (Lines{R"({"call":"sendEventsLater","result":null})",
                   R"({"channel":"test/events","event":"two words"})",
                   R"({"call":"echo","result":null})"}));
}

TEST(HostExpect, FindsALineThatCameBefore) {
  EXPECT_EQ(RunHost("call sendEventsSoon [7]\nsleep 0\nexpect \"event\":7 0\n")
                .status,
            0);
}

TEST(HostExpect, FailsWhenNothingComes) {
  const auto start = Clock::now();
  const Outcome outcome = RunHost("expect some thing 0.2\ncall echo\n");
  EXPECT_GE(SecondsSince(start), 0.2);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.lines, (Lines{R"({"expect":"some thing","timeout":true})",
                                  R"({"call":"echo","result":null})"}));
}

TEST(HostExpect, CountsNoLineUpToTheAnswerOfTheCall) {
  const Outcome outcome = RunHost(
      "call sendEvents [7]\nexpect \"event\":7 0\nexpect sendEvents 0\n"
      "listen test/events\nexpect listen 0\n");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.lines, (Lines{R"({"channel":"test/events","event":7})",
                                  R"({"call":"sendEvents","result":null})",
                                  R"({"expect":"\"event\":7","timeout":true})",
                                  R"({"expect":"sendEvents","timeout":true})",
                                  R"({"listen":"test/events","result":null})",
                                  R"({"expect":"listen","timeout":true})"}));
}

TEST(HostExpect, CountsTheLinesOfOtherCommands) {
  EXPECT_EQ(RunHost("cancel test/events\nexpect Still needed 0\n").status, 0);
  EXPECT_EQ(RunHost("nonsense\nexpect unknown command 0\n").status, 0);
}

TEST(HostExpect, LeavesTheLinesAfterItsOwnToTheNext) {
  EXPECT_EQ(RunHost("call sendEventsLater [1,2,3]\nexpect \"event\":1 5\n"
                    "expect \"event\":3 0\n")
                .status,
            0);
  EXPECT_EQ(RunHost("call sendEventsSoon [1,2,3]\nsleep 0\n"
                    "expect \"event\":2 0\nexpect \"event\":3 0\n")
                .status,
            0);
}

TEST(HostExpect, CountsNoLineTwice) {
  EXPECT_EQ(RunHost("call sendEventsLater [1]\nexpect \"event\":1 5\n"
                    "expect \"event\":1 0.1\n")
                .status,
            1);
  EXPECT_EQ(RunHost("call sendEventsSoon [1,2]\nsleep 0\n"
                    "expect \"event\":2 0\nexpect \"event\":1 0\n")
                .status,
            1);
}

TEST(HostExpect, ForgetsWhatItLookedThroughWhenItFails) {
  EXPECT_EQ(RunHost("call sendEventsLater [1]\nexpect \"event\":2 0.1\n"
                    "expect \"event\":1 0\n")
                .lines.back(),
            R"({"expect":"\"event\":1","timeout":true})");
}

TEST(HostDispose, DropsTheHandlers) {
  const Outcome outcome =
      RunHost("dispose\ncall echo\nlisten test/events\ndispose\n");
  EXPECT_EQ(outcome.lines, (Lines{R"({"dispose":true})",
                                  R"({"call":"echo","notImplemented":true})",
                                  R"({"listen":"test/events",)"
                                  R"("notImplemented":true})",
                                  R"({"dispose":true})"}));
  EXPECT_EQ(outcome.errors, "test plug-in: dropped\n");
}

TEST(HostEnd, QuitLeavesTheRestUnread) {
  const Outcome outcome = RunHost("quit\ncall echo\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.lines, Lines{});
  EXPECT_EQ(outcome.errors, "test plug-in: dropped\n");
}

TEST(HostEnd, ExitIsQuit) {
  const Outcome outcome = RunHost("exit\ncall echo\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.lines, Lines{});
  EXPECT_EQ(RunOne("exit now"), R"({"error":"exit takes no words"})");
}

TEST(HostEnd, TheEndOfTheInputDisposesThePlugin) {
  const Outcome outcome = RunHost("call echo 1");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.lines, Lines{R"({"call":"echo","result":1})"});
  EXPECT_EQ(outcome.errors, "test plug-in: dropped\n");
}

TEST(HostEnd, SignalsDisposeThePlugin) {
  for (const int number : {SIGTERM, SIGINT}) {
    LiveHost host;
    host.Send("call echo\nsleep 1000\n");
    host.ReadLine();
    host.Signal(number);
    const Outcome outcome = host.WaitWithOpenInput();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errors, "test plug-in: dropped\n");
  }
}

// Sends a signal while `command` blocks, and returns what the host says to it.
std::string Interrupt(LiveHost* host, const std::string& command, int number) {
  host->Send(command + "\n");
  EXPECT_EQ(host->ReadErrorLine(), "test plug-in: blocked");
  host->Signal(number);
  return host->ReadErrorLine();
}

TEST(HostEnd, TheFirstSignalSaysWhatItWaitsForAndHowLong) {
  const std::string daemon = "25 s at most for each call of the daemon";
  const std::vector<std::pair<std::string, std::string>> waits = {
      {"call connect {}", "call connect (about 30 s at most)"},
      {"call bondDevice {}", "call bondDevice (60 s at most for the pairing)"},
      {"call write {}",
       "call write (until the device takes the bytes or is lost)"},
      {"call block", "call block (" + daemon + ")"},
  };
  for (const auto& [command, wait] : waits) {
    LiveHost host;
    EXPECT_EQ(Interrupt(&host, command, SIGINT),
              "lumso_host: waits for " + wait +
                  ", then ends; another signal ends it at once");
  }
}

TEST(HostEnd, TheFirstSignalEndsItWhenTheRequestIsAnswered) {
  for (const int number : {SIGTERM, SIGINT}) {
    LiveHost host;
    Interrupt(&host, "call block\ncall echo", number);
    host.Signal(SIGUSR2);
    const Outcome outcome = host.WaitWithOpenInput();
    EXPECT_EQ(outcome.lines, Lines{R"({"call":"block","result":null})"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errors, "test plug-in: dropped\n");
  }
}

TEST(HostEnd, ASecondSignalEndsItAtOnce) {
  for (const auto& [first, second, status] :
       {std::tuple(SIGINT, SIGINT, 130), std::tuple(SIGTERM, SIGTERM, 143),
        std::tuple(SIGINT, SIGTERM, 143)}) {
    LiveHost host;
    Interrupt(&host, "call connect", first);
    host.Signal(second);
    const Outcome outcome = host.WaitWithOpenInput();
    EXPECT_EQ(outcome.status, status);
    EXPECT_EQ(outcome.lines, Lines{});
    EXPECT_EQ(outcome.errors, "");
  }
}

// Its own standard error is full, and nobody empties it.
TEST(HostEnd, ASecondSignalEndsItThoughNobodyReadsWhatTheFirstSays) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  g_autoptr(GSubprocessLauncher) launcher =
      g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDIN_PIPE);
  g_subprocess_launcher_take_stderr_fd(launcher, dup(ends[1]));
  g_autoptr(GSubprocess) host = g_subprocess_launcher_spawn(
      launcher, nullptr, kHost, "--plugin", kPlugin, nullptr);
  ASSERT_NE(host, nullptr);
  const std::string command = "call connect\n";
  GOutputStream* input = g_subprocess_get_stdin_pipe(host);
  ASSERT_TRUE(g_output_stream_write_all(input, command.data(), command.size(),
                                        nullptr, nullptr, nullptr));
  char blocked[64];
  ASSERT_GT(read(ends[0], blocked, sizeof(blocked)), 0);
  // The host has the same end, and does not write now.
  ASSERT_EQ(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
  const std::string page(4096, 'x');
  while (write(ends[1], page.data(), page.size()) > 0) continue;
  ASSERT_EQ(fcntl(ends[1], F_SETFL, 0), 0);
  // Two that come together are taken in either order.
  g_subprocess_send_signal(host, SIGINT);
  g_subprocess_send_signal(host, SIGTERM);
  EXPECT_TRUE(g_subprocess_wait(host, nullptr, nullptr));
  ASSERT_TRUE(g_subprocess_get_if_exited(host));
  EXPECT_THAT(g_subprocess_get_exit_status(host), testing::AnyOf(130, 143));
  close(ends[0]);
  close(ends[1]);
}

TEST(HostEnd, ASignalWhileADisposeBlocksSaysWhatItWaitsFor) {
  LiveHost host;
  EXPECT_EQ(Interrupt(&host, "call blockEnd\ndispose", SIGINT),
            "lumso_host: waits for dispose (about 17 s at most for the "
            "prober), then ends; another signal ends it at once");
  host.Signal(SIGINT);
  EXPECT_EQ(host.WaitWithOpenInput().status, 130);
}

TEST(HostEnd, ASignalDuringItsOwnEndEndsItAtOnce) {
  for (const auto& [number, status] :
       {std::pair(SIGINT, 130), std::pair(SIGTERM, 143)}) {
    LiveHost host;
    host.Send("call blockEnd\nquit\n");
    EXPECT_EQ(host.ReadErrorLine(), "test plug-in: blocked");
    host.Signal(number);
    EXPECT_EQ(host.WaitWithOpenInput().status, status);
  }
}

TEST(HostEnd, SaysNothingMoreOfARequestThatIsAnswered) {
  LiveHost host;
  host.Send("call block\n");
  EXPECT_EQ(host.ReadErrorLine(), "test plug-in: blocked");
  host.Signal(SIGUSR2);
  host.ReadLine();
  host.Send("call echo\nsleep 1000\n");
  host.ReadLine();
  host.Signal(SIGINT);
  const Outcome outcome = host.WaitWithOpenInput();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.errors, "test plug-in: dropped\n");
}

TEST(HostEnd, ASignalKeepsTheFailureOfAnExpect) {
  LiveHost host;
  host.Send("expect it 0\nsleep 1000\n");
  host.ReadLine();
  host.Signal(SIGTERM);
  EXPECT_EQ(host.WaitWithOpenInput().status, 1);
}

TEST(HostEnd, AClosedOutputEndsIt) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  close(ends[0]);
  g_autoptr(GSubprocessLauncher) launcher =
      g_subprocess_launcher_new(static_cast<GSubprocessFlags>(
          G_SUBPROCESS_FLAGS_STDIN_PIPE | G_SUBPROCESS_FLAGS_STDERR_PIPE));
  g_subprocess_launcher_take_stdout_fd(launcher, ends[1]);
  g_autoptr(GSubprocess) process = g_subprocess_launcher_spawn(
      launcher, nullptr, kHost, "--plugin", kPlugin, nullptr);
  ASSERT_NE(process, nullptr);
  ASSERT_TRUE(g_output_stream_write_all(g_subprocess_get_stdin_pipe(process),
                                        "call echo\n", 10, nullptr, nullptr,
                                        nullptr));
  ASSERT_TRUE(g_subprocess_wait(process, nullptr, nullptr));
  ASSERT_TRUE(g_subprocess_get_if_exited(process));
  EXPECT_EQ(g_subprocess_get_exit_status(process), 1);
}

TEST(HostInput, TakesALineInPieces) {
  LiveHost host;
  host.Send("call ec");
  host.Send("ho 1\ncall echo 2\ncall ");
  EXPECT_EQ(host.ReadLine(), R"({"call":"echo","result":1})");
  EXPECT_EQ(host.ReadLine(), R"({"call":"echo","result":2})");
  host.Send("echo 3\n");
  EXPECT_EQ(host.ReadLine(), R"({"call":"echo","result":3})");
  EXPECT_EQ(host.Close().status, 0);
}

TEST(HostInput, EndsAtOnceWhenItIsClosed) {
  const std::string command =
      std::string(kHost) + " --plugin " + kPlugin + " <&-";
  EXPECT_EQ(std::system(command.c_str()), 0);
}

TEST(HostInput, SkipsBlankLinesAndComments) {
  EXPECT_EQ(RunOne("\n  \t\n# call echo 1\n  # too\n  call   echo   2  \r"),
            R"({"call":"echo","result":2})");
}

TEST(HostInput, RunsManyWaitingCommandsInOrder) {
  std::string input;
  Lines expected;
  for (int i = 0; i < 5000; ++i) {
    input += "call echo " + std::to_string(i) + "\n";
    expected.push_back(R"({"call":"echo","result":)" + std::to_string(i) + "}");
  }
  EXPECT_EQ(RunHost(input).lines, expected);
}

TEST(HostInput, SaysWhatIsWrongWithALineAndGoesOn) {
  const std::string deep(201, '[');
  const std::vector<std::pair<std::string, std::string>> bad_lines = {
      {"fly", "unknown command: fly"},
      {"CALL echo", "unknown command: CALL"},
      {"call", "call: METHOD is missing"},
      {"listen", "listen takes one word, CHANNEL"},
      {"listen a b", "listen takes one word, CHANNEL"},
      {"cancel", "cancel takes one word, CHANNEL"},
      {"sleep", "sleep: SECONDS must be a number from 0 to 1000000"},
      {"sleep x", "sleep: SECONDS must be a number from 0 to 1000000, not x"},
      {"sleep -1", "sleep: SECONDS must be a number from 0 to 1000000, not -1"},
      {"sleep 1 2",
       "sleep: SECONDS must be a number from 0 to 1000000, not 1 2"},
      {"sleep nan",
       "sleep: SECONDS must be a number from 0 to 1000000, not nan"},
      {"sleep 1e9",
       "sleep: SECONDS must be a number from 0 to 1000000, not 1e9"},
      {"expect", "expect takes TEXT and SECONDS"},
      {"expect 1", "expect takes TEXT and SECONDS"},
      {"expect text", "expect takes TEXT and SECONDS"},
      {"expect more text",
       "expect: SECONDS must be a number from 0 to 1000000, not text"},
      {"dispose now", "dispose takes no words"},
      {"quit now", "quit takes no words"},
      {"call echo 9223372036854775808",
       "call echo: integer out of range: 9223372036854775808"},
      {"call echo -9223372036854775809",
       "call echo: integer out of range: -9223372036854775809"},
      {"call echo 99999999999999999999999",
       "call echo: integer out of range: 99999999999999999999999"},
      {"call echo \"a\\u0000b\"",
       "call echo: a string cannot hold a NUL character"},
      {"call echo {\"a\\u0000b\":1}",
       "call echo: a string cannot hold a NUL character"},
      {"call echo " + deep, "call echo: nested too deeply"},
      {"call \xff", "the line is not UTF-8 text"},
      {"call a\0b"s, "the line is not UTF-8 text"},
  };
  std::string input;
  Lines expected;
  for (const auto& [line, error] : bad_lines) {
    input += line + "\n";
    expected.push_back(R"({"error":")" + error + "\"}");
  }
  const Outcome outcome = RunHost(input);
  EXPECT_EQ(outcome.lines, expected);
  EXPECT_EQ(outcome.status, 0);
}

TEST(HostInput, SaysHowAMethodIsCalled) {
  const std::vector<std::pair<std::string, std::string>> hints = {
      {"getState", "getState; it is a method: call getState (help getState)"},
      {"write {\"id\":1}",
       "write; it is a method: call write JSON (help write)"},
      {"ISAVAILABLE",
       "ISAVAILABLE; it is a method: call isAvailable (help isAvailable)"},
      {"getStat", "getStat"},
  };
  for (const auto& [line, hint] : hints) {
    EXPECT_EQ(RunOne(line), R"({"error":"unknown command: )" + hint + "\"}");
  }
}

TEST(HostInput, RefusesWhatIsNotJson) {
  for (const char* text : {"{", "[1,]", "nul", "1 2", "'a'", "{\"a\":}",
                           "1e999", "01", "{1:2}", "\"a"}) {
    const std::string line = RunOne(std::string("call echo ") + text);
    EXPECT_EQ(line.rfind(R"({"error":"call echo: )", 0), 0U) << line;
  }
}

TEST(HostStart, HelpExplainsEveryCommand) {
  const Outcome outcome = RunWith({"--help"});
  EXPECT_EQ(outcome.status, 0);
  for (const char* command :
       {"--plugin", "--json", "call", "listen", "cancel", "sleep", "expect",
        "dispose", "help", "quit", "uint8", "NaN"}) {
    bool found = false;
    for (const std::string& line : outcome.lines) {
      found = found || line.find(command) != std::string::npos;
    }
    EXPECT_TRUE(found) << command;
  }
}

TEST(HostStart, HelpHasAShortOption) {
  const Outcome outcome = RunWith({"-h"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.lines, RunWith({"--help"}).lines);
}

TEST(HostStart, HelpFitsATerminalOf80Columns) {
  for (const std::string& line : RunWith({"--help"}).lines) {
    EXPECT_LE(line.size(), 80U) << line;
  }
}

TEST(HostStart, HelpThatCannotBeWrittenIsAFailure) {
  const std::string command =
      std::string(kHost) + " --help >/dev/full 2>/dev/null";
  const int status = std::system(command.c_str());
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
}

TEST(HostStart, SaysNothingToPrograms) {
  const Outcome outcome = RunHost("");
  EXPECT_EQ(outcome.lines, Lines{});
  EXPECT_EQ(outcome.errors, "test plug-in: dropped\n");
}

TEST(HostStart, RefusesWrongArguments) {
  for (const std::vector<std::string>& arguments :
       {Lines{"--plugin"}, Lines{"--plugin", ""}, Lines{"--fly"},
        Lines{"file"}}) {
    const Outcome outcome = RunWith(arguments);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.lines, Lines{});
    EXPECT_NE(outcome.errors.find("wrong argument"), std::string::npos);
  }
}

TEST(HostStart, RefusesAPluginThatCannotBeLoaded) {
  Dl_info glib = {};
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&g_strdup), &glib), 0);
  // A file that is missing, two that are no library, and a library without the
  // registration function.
  for (const char* file :
       {"missing.so", kHost, "/proc/self/maps", glib.dli_fname}) {
    const Outcome outcome = RunWith({"--plugin", file});
    EXPECT_EQ(outcome.status, 2) << file;
    EXPECT_EQ(outcome.lines, Lines{});
    EXPECT_NE(outcome.errors.find("cannot load the plug-in"),
              std::string::npos);
  }
}

TEST(HostHelp, ExplainsAMethodOnOneLine) {
  EXPECT_EQ(
      RunOne("help disconnect"),
      R"({"help":{"method":"disconnect","arguments":"id: int","result":"bool",)"
      R"("description":"there was such a connection, and it is closed",)"
      R"("neutral":"false","example":"call disconnect {\"id\":1}",)"
      R"("exampleAnswer":{"call":"disconnect","result":true}}})");
}

TEST(HostHelp, ExplainsACommandOnOneLine) {
  EXPECT_EQ(RunOne("help sleep"),
            R"({"help":{"command":"sleep SECONDS","description":)"
            R"("holds back the next command; prints nothing"}})");
}

TEST(HostHelp, ExplainsACommandByItsOtherName) {
  EXPECT_EQ(RunOne("help exit"), RunOne("help quit"));
  EXPECT_EQ(RunOne("help ?"), RunOne("help help"));
}

TEST(HostHelp, HasAShortName) {
  EXPECT_EQ(RunOne("? getState"), RunOne("help getState"));
  EXPECT_EQ(RunOne("?"), RunOne("help"));
}

TEST(HostHelp, KeepsItsWordsApart) {
  EXPECT_EQ(RunOne("help").find("  "), std::string::npos);
}

TEST(HostHelp, ListsEverythingOnOneLine) {
  const std::string line = RunOne("help");
  EXPECT_EQ(line.rfind(R"({"help":{"commands":[{"command":"call )", 0), 0U);
  EXPECT_NE(line.find(R"("methods":[{"method":"isAvailable",)"),
            std::string::npos);
}

TEST(HostHelp, RefusesAnUnknownName) {
  EXPECT_EQ(RunOne("help fly"),
            R"({"error":"help: no such method or command: fly"})");
}

}  // namespace
