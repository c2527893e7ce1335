// Drives lumso_host over a pseudo terminal and looks at the screen that a
// person would see.

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Rows = std::vector<std::string>;

constexpr char kHost[] = LUMSO_HOST;
constexpr char kPlugin[] = LUMSO_HOST_TEST_PLUGIN;
constexpr int kColumns = 60;
constexpr std::chrono::seconds kPatience(20);

constexpr char kGreeting[] =
    "help lists commands and methods; exit or Ctrl-D ends.";

constexpr char kInterrupt[] = "\x03";
constexpr char kEnd[] = "\x04";

// What a terminal makes of the few sequences that a line editor uses. It is
// endlessly high; one cell holds one character.
class Screen {
 public:
  void Write(char c) {
    if (!escape_.empty()) return WriteEscape(c);
    switch (c) {
      case '\x1b':
        escape_ = c;
        return;
      case '\r':
        column_ = 0;
        return;
      case '\n':
        ++row_;
        return;
      case '\b':
        column_ = std::max(std::min(column_, kColumns - 1) - 1, 0);
        return;
      case '\a':
      case '\0':
        return;
      default:
        return WriteCharacter(c);
    }
  }

  // The rows without trailing blanks, up to the last one with text.
  Rows rows() const {
    Rows rows;
    for (const auto& [number, cells] : cells_) {
      std::string text;
      for (const std::string& cell : cells) text += cell.empty() ? " " : cell;
      text.erase(text.find_last_not_of(' ') + 1);
      if (text.empty()) continue;
      rows.resize(static_cast<size_t>(number) + 1);
      rows.back() = text;
    }
    return rows;
  }

  // The row and the column of the cursor.
  std::pair<int, int> cursor() const { return {row_, column_}; }

 private:
  void WriteCharacter(char c) {
    const bool continues = (static_cast<unsigned char>(c) & 0xc0) == 0x80;
    if (continues) {
      Row()[static_cast<size_t>(column_) - 1] += c;
      return;
    }
    // The last column keeps the cursor until something follows.
    if (column_ == kColumns) {
      column_ = 0;
      ++row_;
    }
    Row()[static_cast<size_t>(column_)] = c;
    ++column_;
  }

  void WriteEscape(char c) {
    escape_ += c;
    if (escape_ == "\x1b[" || (c >= '0' && c <= '9') || c == ';' || c == '?') {
      return;
    }
    const std::string sequence = std::exchange(escape_, "");
    const int number = std::max(1, std::atoi(sequence.c_str() + 2));
    if (sequence[1] != '[') {
      ADD_FAILURE() << "unknown sequence ESC " << sequence.substr(1);
    } else if (c != 'm' && c != 'h' && c != 'l') {
      Control(c, number, sequence);
    }
  }

  void Control(char c, int number, const std::string& sequence) {
    Rows& row = Row();
    const auto cursor = row.begin() + std::min(column_, kColumns - 1);
    switch (c) {
      case 'A':
        row_ -= number;
        break;
      case 'B':
        row_ += number;
        break;
      case 'C':
        column_ = std::min(column_ + number, kColumns - 1);
        break;
      case 'D':
        column_ = std::max(std::min(column_, kColumns - 1) - number, 0);
        break;
      case 'G':
        column_ = std::min(number, kColumns) - 1;
        break;
      case 'J':
        cells_.erase(cells_.upper_bound(row_), cells_.end());
        [[fallthrough]];
      case 'K':
        std::fill(cursor, row.end(), "");
        break;
      case 'P':
        row.erase(cursor, cursor + number);
        row.resize(kColumns);
        break;
      case '@':
        row.insert(cursor, static_cast<size_t>(number), "");
        row.resize(kColumns);
        break;
      default:
        ADD_FAILURE() << "unknown sequence ESC " << sequence.substr(1);
    }
  }

  Rows& Row() {
    Rows& row = cells_[row_];
    row.resize(kColumns);
    return row;
  }

  std::map<int, Rows> cells_;
  int row_ = 0;
  int column_ = 0;
  std::string escape_;  // That has not ended yet.
};

// A host on a terminal of its own.
class HostTerminal : public testing::Test {
 protected:
  using Environment = std::map<std::string, std::string>;

  void TearDown() override {
    if (child_ > 0) {
      kill(child_, SIGKILL);
      waitpid(child_, nullptr, 0);
    }
    if (terminal_ >= 0) close(terminal_);
  }

  void Start(const std::string& command = std::string(kHost) + " --plugin " +
                                          kPlugin,
             const Environment& environment = {{"TERM", "xterm"}}) {
    const winsize size = {24, kColumns, 0, 0};
    settings_ = NewTerminalSettings();
    child_ = forkpty(&terminal_, nullptr, &settings_, &size);
    ASSERT_GE(child_, 0);
    if (child_ == 0) {
      unsetenv("NO_COLOR");
      unsetenv("TERM");
      setenv("LC_ALL", "C.UTF-8", 1);
      setenv("LSAN_OPTIONS",
             "suppressions='" LUMSO_SOURCE_DIR
             "/tests/support/lsan.supp':print_suppressions=0",
             1);
      for (const auto& [name, value] : environment) {
        setenv(name.c_str(), value.c_str(), 1);
      }
      execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
      _exit(127);
    }
  }

  void Type(const std::string& text) {
    ASSERT_EQ(write(terminal_, text.data(), text.size()),
              static_cast<ssize_t>(text.size()));
  }

  // Waits until the screen's last rows are these.
  void WaitForRows(const Rows& expected) {
    const auto shown = [&] {
      const Rows rows = screen_.rows();
      return rows.size() >= expected.size() &&
             std::equal(expected.rbegin(), expected.rend(), rows.rbegin());
    };
    const auto deadline = Clock::now() + kPatience;
    while (!shown()) {
      if (Clock::now() < deadline && ReadSome()) continue;
      FAIL() << "expected\n"
             << Join(expected) << "shown\n"
             << Join(screen_.rows());
    }
  }

  void WaitForRow(const std::string& expected) { WaitForRows({expected}); }

  // Waits until the cursor stands in this column, `above` rows above the last
  // one with text.
  void WaitForCursor(int above, int column) {
    const auto deadline = Clock::now() + kPatience;
    const auto there = [&] {
      const int last = static_cast<int>(screen_.rows().size()) - 1;
      return screen_.cursor() == std::make_pair(last - above, column);
    };
    while (!there()) {
      if (Clock::now() < deadline && ReadSome()) continue;
      FAIL() << "cursor in row " << screen_.cursor().first << ", column "
             << screen_.cursor().second << " of\n"
             << Join(screen_.rows());
    }
  }

  // Waits until the terminal is no longer the editor's.
  void WaitForCommand() {
    const auto deadline = Clock::now() + kPatience;
    termios settings = {};
    do {
      ASSERT_LT(Clock::now(), deadline);
      poll(nullptr, 0, 1);
      ASSERT_EQ(tcgetattr(terminal_, &settings), 0);
    } while ((settings.c_lflag & ICANON) == 0);
  }

  // Reads what is left and returns the exit status, -1 for any other end.
  int WaitForEnd() {
    const auto deadline = Clock::now() + kPatience;
    while (Clock::now() < deadline && ReadSome()) {
    }
    int status = -1;
    if (waitpid(child_, &status, WNOHANG) == 0) {
      // A terminal's end shows a moment before the exit does.
      while (waitpid(child_, &status, WNOHANG) == 0) {
        if (Clock::now() >= deadline) return -1;
        poll(nullptr, 0, 1);
      }
    }
    child_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  void InterruptConnect() {
    WaitForRow("lumso>");
    Type("call connect\n");
    WaitForRow("test plug-in: blocked");
    Type(kInterrupt);
  }

  void ExpectStatusAndTerminalBack(int status) {
    EXPECT_EQ(WaitForEnd(), status);
    termios settings = {};
    ASSERT_EQ(tcgetattr(terminal_, &settings), 0);
    EXPECT_EQ(settings.c_lflag, settings_.c_lflag);
    EXPECT_EQ(settings.c_iflag, settings_.c_iflag);
    EXPECT_EQ(settings.c_oflag, settings_.c_oflag);
  }

  // Asks the host to send an event now.
  void SendEvent() { ASSERT_EQ(kill(child_, SIGUSR1), 0); }

  bool has_escapes() const { return raw_.find('\x1b') != std::string::npos; }
  const std::string& raw() const { return raw_; }
  Rows rows() const { return screen_.rows(); }
  int terminal() const { return terminal_; }
  const termios& first_settings() const { return settings_; }

 private:
  // Waits for output for up to a second; false when there will be none.
  bool ReadSome() {
    pollfd input = {terminal_, POLLIN, 0};
    if (poll(&input, 1, 1000) == 0) return true;
    char buffer[1024];
    // A terminal whose other side is gone reads as an error.
    const ssize_t count = read(terminal_, buffer, sizeof(buffer));
    if (count <= 0) return false;
    for (ssize_t i = 0; i < count; ++i) screen_.Write(buffer[i]);
    raw_.append(buffer, static_cast<size_t>(count));
    return true;
  }

  static termios NewTerminalSettings() {
    int ends[2];
    termios settings = {};
    EXPECT_EQ(openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(tcgetattr(ends[0], &settings), 0);
    for (const int end : ends) close(end);
    return settings;
  }

  static std::string Join(const Rows& rows) {
    std::string text;
    for (const std::string& row : rows) text += row + "|\n";
    return text;
  }

  int terminal_ = -1;
  pid_t child_ = -1;
  termios settings_ = {};  // Before the host changed them.
  Screen screen_;
  std::string raw_;
};

std::string WithOptions(const std::string& options) {
  return std::string(kHost) + " --plugin " + kPlugin + " " + options;
}

// Whatever can edit no line must do these as well.
class HostPrompt : public HostTerminal {};

TEST_F(HostPrompt, WaitsBelowTheAnswers) {
  Start(WithOptions(""), {{"TERM", "dumb"}});
  WaitForRow("lumso>");
  Type("call echo\n");
  WaitForRows(
      {"lumso> call echo", R"({"call":"echo","result":null})", "lumso>"});
  Type(kEnd);
  EXPECT_EQ(WaitForEnd(), 0);
  EXPECT_FALSE(has_escapes());
  EXPECT_EQ(rows().back(), "test plug-in: dropped");
}

TEST_F(HostPrompt, ComesBackBelowAnEvent) {
  Start(WithOptions(""), {{"TERM", "dumb"}});
  WaitForRow("lumso>");
  Type("call sendEventsOnSignal [7]\n");
  WaitForRows({R"({"call":"sendEventsOnSignal","result":null})", "lumso>"});
  SendEvent();
  WaitForRows({"lumso>", R"({"channel":"test/events","event":7})", "lumso>"});
}

TEST_F(HostPrompt, FollowsALineForNewcomers) {
  Start(WithOptions(""), {{"TERM", "dumb"}});
  WaitForRows({kGreeting, "lumso>"});
  EXPECT_EQ(rows().size(), 2U);
}

TEST_F(HostPrompt, IsForTerminalsThatHaveAName) {
  Start(WithOptions(""), {});
  Type(std::string("call echo\n") + kEnd);
  EXPECT_EQ(WaitForEnd(), 0);
  EXPECT_NE(raw().find("lumso> "), std::string::npos);
  EXPECT_FALSE(has_escapes());
}

TEST_F(HostPrompt, IsLeftOutWithJson) {
  Start(WithOptions("--json"));
  Type("call echo\nhelp quit\n");
  Type(kEnd);
  EXPECT_EQ(WaitForEnd(), 0);
  EXPECT_EQ(raw().find("lumso>"), std::string::npos);
  EXPECT_EQ(raw().find(kGreeting), std::string::npos);
  EXPECT_FALSE(has_escapes());
  EXPECT_NE(raw().find("\n{\"call\":\"echo\",\"result\":null}\r\n"),
            std::string::npos);
  EXPECT_NE(raw().find("\n{\"help\":{\"command\":\"quit\","),
            std::string::npos);
}

TEST_F(HostTerminal, KeepsTheStatusOfAFailedExpect) {
  Start();
  WaitForRow("lumso>");
  Type("expect it 0\n");
  WaitForRows({R"({"expect":"it","timeout":true})", "lumso>"});
  Type("quit\n");
  EXPECT_EQ(WaitForEnd(), 1);
}

TEST_F(HostTerminal, ExplainsAMethodInText) {
  Start();
  WaitForRow("lumso>");
  Type("help getState\n");
  WaitForRows({"lumso> help getState", "getState", "  arguments       –",
               "  answer          int: adapter state", "  neutral answer  10",
               "  example         call getState",
               R"(                  {"call":"getState","result":12})",
               "lumso>"});
}

TEST_F(HostTerminal, ListsMethodsAndCommandsWithinItsWidth) {
  Start();
  WaitForRow("lumso>");
  Type("help\n");
  WaitForRows({"  pairingRequestHandlingDisable bool: always false", "lumso>"});
  for (const char* text :
       {"\r\n  sleep SECONDS         holds back the next command; prints"
        "\r\n                        nothing\r\n",
        "\r\n  isAvailable                   bool: ready\r\n",
        "\r\n  bondDevice                    bool: paired now, false when"
        "\r\n                                it was before; blocks for up"
        "\r\n                                to 60 s\r\n"}) {
    EXPECT_NE(raw().find(text), std::string::npos) << text << raw();
  }
  std::istringstream lines(raw());
  for (std::string line; std::getline(lines, line);) {
    EXPECT_LE(line.size(), static_cast<size_t>(kColumns) + 1) << line;
  }
}

TEST_F(HostTerminal, ListsBelowTheNamesWhereThereIsLittleRoom) {
  Start("sh -c 'stty cols 40; " + WithOptions("'"), {{"TERM", "dumb"}});
  WaitForRow("lumso>");
  Type("help\nhelp sleep\n");
  WaitForRows({"lumso> sleep SECONDS", "  holds back the next command; prints",
               "  nothing", "lumso>"});
  EXPECT_NE(raw().find("\r\n  isAvailable\r\n    bool: ready\r\n"),
            std::string::npos);
}

TEST_F(HostTerminal, Fills80ColumnsOfATerminalThatDoesNotSay) {
  Start("sh -c 'stty cols 0; " + WithOptions("'"), {{"TERM", "dumb"}});
  WaitForRow("lumso>");
  Type("help\n");
  WaitForRows({"  pairingRequestHandlingDisable bool: always false", "lumso>"});
  EXPECT_NE(
      raw().find("  expect TEXT SECONDS   waits until a line that contains "
                 "TEXT is printed; TEXT\r\n"),
      std::string::npos)
      << raw();
}

TEST_F(HostTerminal, BreaksALongExampleAtItsCommas) {
  Start();
  WaitForRow("lumso>");
  Type("help getBondedDevices\n");
  WaitForRows({"  example         call getBondedDevices",
               R"(                  {"call":"getBondedDevices",)",
               R"(                  "result":[{"address":"AA:BB:CC:DD:EE:FF",)",
               R"(                  "name":"Scale","type":0,"isConnected":0,)",
               R"(                  "bondState":12,"rssi":-60}]})", "lumso>"});
}

TEST_F(HostTerminal, HasColours) {
  Start();
  WaitForRow("lumso>");
  Type("call echo {\"a\":\"b\",\"error\":[1]}\n");
  WaitForRows({R"({"call":"echo","result":{"a":"b","error":[1]}})", "lumso>"});
  Type("call fly\n");
  WaitForRows({R"({"call":"fly","notImplemented":true})", "lumso>"});
  EXPECT_NE(raw().find("{\x1b[36m\"call\"\x1b[0m:\x1b[32m\"echo\"\x1b[0m,"
                       "\x1b[36m\"result\"\x1b[0m:{\x1b[36m\"a\"\x1b[0m:"
                       "\x1b[32m\"b\"\x1b[0m,\x1b[36m\"error\"\x1b[0m:"
                       "[\x1b[33m1\x1b[0m]}}\r\n"),
            std::string::npos)
      << raw();
  EXPECT_NE(raw().find("\x1b[31m\"notImplemented\"\x1b[0m:\x1b[33mtrue"),
            std::string::npos);
}

TEST_F(HostTerminal, HasNoColoursWithNoColor) {
  Start(WithOptions(""), {{"TERM", "xterm"}, {"NO_COLOR", "1"}});
  WaitForRow("lumso>");
  Type("call echo\n");
  WaitForRows(
      {"lumso> call echo", R"({"call":"echo","result":null})", "lumso>"});
  EXPECT_NE(raw().find("{\"call\":\"echo\",\"result\":null}\r\n"),
            std::string::npos);
}

// Without a bus, wherever this runs.
constexpr char kDoctor[] =
    "env DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nowhere " LUMSO_DOCTOR;
const std::map<std::string, std::string> kWithoutUtf8 = {{"TERM", "xterm"},
                                                         {"LC_ALL", "C"}};

TEST_F(HostTerminal, MarksWhatTheDoctorFindsInColour) {
  Start(kDoctor);
  EXPECT_EQ(WaitForEnd(), 1);
  EXPECT_NE(raw().find("\x1b[31m✘ problem      \x1b[0mbus: "),
            std::string::npos)
      << raw();
}

TEST_F(HostTerminal, MarksWhatTheDoctorFindsWithNoColor) {
  Start(kDoctor, {{"TERM", "xterm"}, {"NO_COLOR", "1"}});
  EXPECT_EQ(WaitForEnd(), 1);
  EXPECT_NE(raw().find("\n✘ problem      bus: "), std::string::npos) << raw();
}

TEST_F(HostTerminal, MarksNothingThatTheTerminalCannotShow) {
  Start(kDoctor, kWithoutUtf8);
  EXPECT_EQ(WaitForEnd(), 1);
  EXPECT_NE(raw().find("\n\x1b[31mproblem      \x1b[0mbus: "),
            std::string::npos)
      << raw();
}

TEST_F(HostTerminal, LeavesTheDoctorsJsonPlain) {
  Start(std::string(kDoctor) + " --json");
  EXPECT_EQ(WaitForEnd(), 1);
  EXPECT_EQ(raw().find('\x1b'), std::string::npos) << raw();
  EXPECT_EQ(raw().front(), '{');
}

// A part of such a letter begins a control sequence there.
TEST_F(HostTerminal, GetsTheDoctorsLettersInAscii) {
  Start(std::string(kDoctor) + " Û2J", kWithoutUtf8);
  EXPECT_EQ(WaitForEnd(), 1);
  EXPECT_NE(raw().find(R"("\u00db2J")"), std::string::npos) << raw();
  EXPECT_EQ(raw().find('\x9b'), std::string::npos) << raw();
}

TEST_F(HostTerminal, GetsTheDoctorsJsonInAscii) {
  Start(std::string(kDoctor) + " Û2J --json", kWithoutUtf8);
  EXPECT_EQ(WaitForEnd(), 1);
  EXPECT_NE(raw().find(R"(\u00db2J)"), std::string::npos) << raw();
  EXPECT_EQ(raw().find('\x9b'), std::string::npos) << raw();
}

TEST_F(HostTerminal, LeavesTheLettersInAPipeAsTheyAre) {
  Start(std::string(kDoctor) + " Û2J --json | cat", kWithoutUtf8);
  EXPECT_EQ(WaitForEnd(), 0);
  EXPECT_NE(raw().find("Û2J"), std::string::npos) << raw();
}

TEST_F(HostTerminal, GetsTheDoctorsComplaintInAscii) {
  Start(std::string(kDoctor) + " --Û2J", kWithoutUtf8);
  EXPECT_EQ(WaitForEnd(), 2);
  EXPECT_NE(raw().find(R"("--\u00db2J")"), std::string::npos) << raw();
}

TEST_F(HostPrompt, StandsBelowAnAnswerInAscii) {
  Start(WithOptions(""), kWithoutUtf8);
  WaitForRow("lumso>");
  Type("call echo \"\\u00db2J\"\n");
  WaitForRows({R"({"call":"echo","result":"\u00db2J"})", "lumso>"});
}

TEST_F(HostPrompt, IsLeftOutWithJsonInAscii) {
  Start(WithOptions("--json"), kWithoutUtf8);
  Type(std::string("call echo \"\\u00db2J\"\n") + kEnd);
  EXPECT_EQ(WaitForEnd(), 0);
  EXPECT_NE(raw().find(R"("result":"\u00db2J")"), std::string::npos) << raw();
}

TEST_F(HostTerminal, EndsWithTheInput) {
  Start();
  WaitForRow("lumso>");
  Type("call echo\n");
  WaitForRows({R"({"call":"echo","result":null})", "lumso>"});
  Type(kEnd);
  EXPECT_EQ(WaitForEnd(), 0);
  EXPECT_EQ(rows().back(), "test plug-in: dropped");
}

TEST_F(HostTerminal, TakesAnEndThatWasTypedAheadOfIt) {
  Start();
  Type(std::string("call echo\n") + kEnd);
  EXPECT_EQ(WaitForEnd(), 0);
  EXPECT_EQ(rows().back(), "test plug-in: dropped");
}

TEST_F(HostTerminal, EndsOnAnInterruptWhileACommandRuns) {
  Start();
  WaitForRow("lumso>");
  Type("call sendEventsOnSignal [7]\n");
  WaitForRows({R"({"call":"sendEventsOnSignal","result":null})", "lumso>"});
  Type("sleep 1000\n");
  // An event that comes below the line comes when the command has begun.
  WaitForCursor(-1, 0);
  SendEvent();
  WaitForRows({"lumso> sleep 1000", R"({"channel":"test/events","event":7})"});
  Type(kInterrupt);
  EXPECT_EQ(WaitForEnd(), 0);
  EXPECT_NE(raw().find("test plug-in: dropped"), std::string::npos);
}

TEST_F(HostPrompt, SaysOnAnInterruptWhatARequestWaitsFor) {
  Start(WithOptions(""), {{"TERM", "dumb"}});
  InterruptConnect();
  // The terminal shows the key.
  WaitForRows({"^Clumso_host: waits for call connect (about 30 s at most), t",
               "hen ends; another signal ends it at once"});
  Type(kInterrupt);
  ExpectStatusAndTerminalBack(130);
}

TEST_F(HostTerminal, EndsAtOnceOnAnInterruptWhileThePluginStarts) {
  Start(WithOptions(""), {{"TERM", "xterm"}, {"HOST_TEST_BLOCKS_START", "1"}});
  WaitForRow("test plug-in: blocked");
  Type(kInterrupt);
  ExpectStatusAndTerminalBack(130);
}

TEST_F(HostTerminal, EndsAtOnceOnAnInterruptWhileThePluginEnds) {
  Start();
  WaitForRow("lumso>");
  Type("call blockEnd\n");
  WaitForRows({R"({"call":"blockEnd","result":null})", "lumso>"});
  Type("quit\n");
  WaitForRow("test plug-in: blocked");
  Type(kInterrupt);
  ExpectStatusAndTerminalBack(130);
}

#ifdef LUMSO_HAVE_LIBEDIT

constexpr char kTab[] = "\t";
constexpr char kUp[] = "\x1b[A";
constexpr char kLeft[] = "\x1b[D";
constexpr char kSuspend[] = "\x1a";

class HostEditing : public HostTerminal {};

TEST_F(HostEditing, CompletesACommandAMethodAndItsArguments) {
  Start();
  WaitForRow("lumso>");
  Type(std::string("cal") + kTab);
  WaitForRow("lumso> call");
  Type(std::string("disc") + kTab);
  WaitForRow("lumso> call disconnect");
  Type(kTab);
  WaitForRow(R"(lumso> call disconnect {"id":1})");
  Type("\n");
  WaitForRows({R"({"call":"disconnect","notImplemented":true})", "lumso>"});
}

// A vertical tab: a blank that ends no word.
TEST_F(HostEditing, CompletesNothingBehindAnOddBlank) {
  Start();
  WaitForRow("lumso>");
  Type(std::string("\x16\x0b") + kTab);
  Type(kInterrupt);
  WaitForRow("lumso>");
  Type("exit\n");
  ExpectStatusAndTerminalBack(0);
}

TEST_F(HostEditing, CompletesTheChannelsThatHaveAHandler) {
  Start();
  WaitForRow("lumso>");
  Type(std::string("listen t") + kTab);
  WaitForRow("lumso> listen test/");
  Type(std::string("e") + kTab);
  WaitForRow("lumso> listen test/events");
}

TEST_F(HostEditing, CompletesAnAddressThatItHasSeen) {
  Start();
  WaitForRow("lumso>");
  Type(
      "call sendEvents "
      R"([{"device":{"address":"11:22:33:44:55:66"}},{"address":5}])"
      "\n");
  WaitForRows({R"({"call":"sendEvents","result":null})", "lumso>"});
  Type(std::string("call getBondState ") + kTab);
  WaitForRow(R"(lumso> call getBondState {"address":"11:22:33:44:55:66"})");
  Type("\n");
  WaitForRows({R"({"call":"getBondState","notImplemented":true})", "lumso>"});
}

TEST_F(HostEditing, ListsTheAddressesThatItHasSeen) {
  Start();
  WaitForRow("lumso>");
  Type(
      "call echo "
      R"([{"address":"11:22:33:44:55:77"},{"address":"1F:22:33:44:55:66"}])"
      "\n");
  WaitForRow("lumso>");
  Type(
      "call echo "
      R"({"address":"11:22:33:44:55:77"})"
      "\n");
  WaitForRows({R"({"call":"echo","result":{"address":"11:22:33:44:55:77"}})",
               "lumso>"});
  Type(std::string("call connect { ") + kTab + kTab);
  WaitForRows({R"({"call":"echo","result":{"address":"11:22:33:44:55:77"}})",
               R"({"address":"1F:22:33:44:55:66"})",
               R"({"address":"11:22:33:44:55:77"})",
               R"(lumso> call connect { "address":"1)"});
  Type(std::string("F") + kTab);
  WaitForRow(R"(lumso> call connect { "address":"1F:22:33:44:55:66"})");
}

TEST_F(HostEditing, ForgetsTheAddressesThatItSawLongAgo) {
  Start();
  WaitForRow("lumso>");
  std::string devices;
  for (int i = 100; i <= 200; ++i) {
    devices += R"(,{"address":"N)" + std::to_string(i) + "\"}";
  }
  Type("call sendEvents [" + devices.substr(1) + "]\n");
  WaitForRows({R"({"call":"sendEvents","result":null})", "lumso>"});
  Type(std::string(R"(call connect {"address":"N10)") + kTab);
  WaitForRows(
      {R"({"address":"N109"})", R"(lumso> call connect {"address":"N10)"});
  Type(std::string("0") + kTab + "1" + kTab);
  WaitForRow(R"(lumso> call connect {"address":"N1001)");
}

TEST_F(HostEditing, ListsWhatFitsAboveTheLine) {
  Start();
  WaitForRow("lumso>");
  Type(std::string("call getBond") + kTab);
  WaitForRows({"getBondedDevices", "getBondState", "lumso> call getBond"});
}

TEST_F(HostEditing, BringsBackEarlierLines) {
  Start();
  WaitForRow("lumso>");
  Type("call echo 1\ncall echo 2\n");
  WaitForRows({R"({"call":"echo","result":2})", "lumso>"});
  Type(kUp);
  WaitForRow("lumso> call echo 2");
  Type(kUp);
  WaitForRow("lumso> call echo 1");
  Type("0\n");
  WaitForRows({R"({"call":"echo","result":10})", "lumso>"});
}

TEST_F(HostEditing, ShowsAnEventAboveTheLine) {
  Start();
  WaitForRow("lumso>");
  Type("call sendEventsOnSignal [7,8]\n");
  WaitForRows({R"({"call":"sendEventsOnSignal","result":null})", "lumso>"});
  Type(std::string("call ech 5") + kLeft + kLeft);
  WaitForRow("lumso> call ech 5");
  WaitForCursor(0, 15);
  SendEvent();
  WaitForRows({R"({"call":"sendEventsOnSignal","result":null})",
               R"({"channel":"test/events","event":7})",
               R"({"channel":"test/events","event":8})", "lumso> call ech 5"});
  WaitForCursor(0, 15);
  Type("o\n");
  WaitForRows(
      {"lumso> call echo 5", R"({"call":"echo","result":5})", "lumso>"});
}

TEST_F(HostEditing, ShowsAnEventAboveALineOfSeveralRows) {
  Start();
  WaitForRow("lumso>");
  Type("call sendEventsOnSignal [7]\n");
  WaitForRows({R"({"call":"sendEventsOnSignal","result":null})", "lumso>"});
  // Exactly two rows, the cursor below them; then a little back.
  const std::string letters(static_cast<size_t>(2 * kColumns) - 19, 'x');
  Type("call echo \"" + letters + "\"");
  const Rows line = {"lumso> call echo \"" + letters.substr(0, kColumns - 18),
                     letters.substr(kColumns - 18) + "\""};
  WaitForRows(line);
  WaitForCursor(-1, 0);
  SendEvent();
  WaitForRows({R"({"call":"sendEventsOnSignal","result":null})",
               R"({"channel":"test/events","event":7})", line[0], line[1]});
  WaitForCursor(-1, 0);
}

TEST_F(HostEditing, TakesCharactersOfSeveralBytes) {
  Start();
  WaitForRow("lumso>");
  Type("call echo \"a\xc3\xa9\xe2\x82\xac\xc3\xb6\x7f\"");
  WaitForRow("lumso> call echo \"a\xc3\xa9\xe2\x82\xac\"");
  Type("\n");
  WaitForRows(
      {"{\"call\":\"echo\",\"result\":\"a\xc3\xa9\xe2\x82\xac\"}", "lumso>"});
}

TEST_F(HostEditing, TakesTheEndOfTheLineAfterACutOffCharacter) {
  Start();
  WaitForRow("lumso>");
  Type("# \xe2\x82\n");
  WaitForRows({"lumso> # \xef\xbf\xbd", "lumso>"});
  Type("# \xe2\x82\xc3\xa9\n");
  WaitForRows({"lumso> # \xef\xbf\xbd\xc3\xa9", "lumso>"});
}

TEST_F(HostEditing, GoesOnAfterCtrlSpaceOnAnEmptyLine) {
  Start();
  WaitForRow("lumso>");
  Type(std::string(1, '\0'));
  Type("call echo 1\n");
  WaitForRows({R"({"call":"echo","result":1})", "lumso>"});
}

TEST_F(HostEditing, TakesAnEndThatWasTypedWhileACommandRan) {
  Start();
  WaitForRow("lumso>");
  Type("call sendEventsOnSignal [7]\n");
  WaitForRows({R"({"call":"sendEventsOnSignal","result":null})", "lumso>"});
  Type("expect event 1000\n");
  WaitForCommand();
  Type(std::string("call echo 1\n") + kEnd);
  SendEvent();
  EXPECT_EQ(WaitForEnd(), 0);
  EXPECT_NE(raw().find("lumso> call echo 1"), std::string::npos);
}

TEST_F(HostEditing, KeepsBackWhatIsTypedWhileACommandRuns) {
  Start();
  WaitForRow("lumso>");
  Type("call sendEventsOnSignal [7]\n");
  WaitForRows({R"({"call":"sendEventsOnSignal","result":null})", "lumso>"});
  Type("expect event 1000\n");
  WaitForCommand();
  Type("call echo 1");
  SendEvent();
  WaitForRows({"lumso> expect event 1000",
               R"({"channel":"test/events","event":7})", "lumso> call echo 1"});
}

TEST_F(HostEditing, EmptiesTheLineOnAnInterruptAndEndsOnTheNext) {
  Start();
  WaitForRow("lumso>");
  Type(std::string("call echo 5") + kLeft);
  WaitForRow("lumso> call echo 5");
  Type(kInterrupt);
  WaitForRow("lumso>");
  Type("call echo 6\n");
  WaitForRows(
      {"lumso> call echo 6", R"({"call":"echo","result":6})", "lumso>"});
  Type(kInterrupt);
  EXPECT_EQ(WaitForEnd(), 0);
  EXPECT_EQ(rows().back(), "test plug-in: dropped");
}

TEST_F(HostEditing, SaysOnAnInterruptWhatARequestWaitsFor) {
  Start();
  InterruptConnect();
  WaitForRows({"lumso_host: waits for call connect (about 30 s at most), the",
               "n ends; another signal ends it at once"});
  Type(kInterrupt);
  ExpectStatusAndTerminalBack(130);
}

TEST_F(HostEditing, GivesTheTerminalBackAsItWas) {
  Start();
  WaitForRow("lumso>");
  termios settings = {};
  ASSERT_EQ(tcgetattr(terminal(), &settings), 0);
  EXPECT_NE(settings.c_lflag, first_settings().c_lflag);
  Type("quit\n");
  ExpectStatusAndTerminalBack(0);
}

TEST_F(HostEditing, StopsAndGoesOn) {
  Start("bash --noprofile --norc --noediting -i",
        {{"TERM", "xterm"}, {"PS1", "$ "}, {"HISTFILE", ""}});
  WaitForRow("$");
  Type(WithOptions("") + "\n");
  WaitForRow("lumso>");
  Type(std::string("call ec") + kSuspend);
  WaitForRow("$");
  Type("fg >/dev/null\n");
  WaitForRow("lumso> call ec");
  Type("ho 5\n");
  WaitForRows({R"({"call":"echo","result":5})", "lumso>"});
}

#endif  // LUMSO_HAVE_LIBEDIT

}  // namespace
