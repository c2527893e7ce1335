// lumso_host: a small embedder. It registers the plug-in once on a messenger of
// its own, runs the GLib main loop, takes commands on standard input and prints
// one JSON object per line on standard output. A person at a terminal gets a
// line to edit, help to read, and colours.

#include <glib.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "doctor/screen.h"
#include "host/command_reader.h"
#include "host/help.h"
#include "host/interrupts.h"
#include "host/line_reader.h"
#include "host/line_writer.h"
#include "host/plugin_library.h"
#include "host/session.h"
#ifdef LUMSO_HAVE_LIBEDIT
#include "host/line_editor.h"
#endif

namespace {

using lumso_doctor::Screen;

constexpr int kStatusFailed = 1;
constexpr int kStatusCannotStart = 2;

constexpr char kUsage[] =
    R"(Usage: lumso_host [--plugin FILE] [--json] [-h | --help]

Loads the plug-in library FILE, registers it and runs the commands that it reads
on standard input. Without --plugin it takes liblumso_bluetooth_plugin.so beside
the executable, or else wherever the loader finds it. Diagnostics go to standard
error, and standard output carries the lines described below only. --json keeps
it so on a terminal too, where there is more for people.

Exit status: 0 at the end of the input, after quit, SIGINT or SIGTERM; 1 after
an expect that failed, or when standard output cannot be written; 2 for wrong
arguments or a plug-in that cannot be loaded; 130 or 143 when SIGINT or SIGTERM
ended it at once: before the commands, after them, or as a second signal.

)";

constexpr char kGreeting[] =
    "help lists commands and methods; exit or Ctrl-D ends.";

struct Options {
  bool help = false;
  bool json = false;
  std::string plugin;
};

bool ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "-h" || argument == "--help") {
      options->help = true;
    } else if (argument == "--json") {
      options->json = true;
    } else if (argument == "--plugin" && i + 1 < argc && *argv[i + 1] != '\0') {
      options->plugin = argv[++i];
    } else {
      std::fprintf(stderr, "lumso_host: wrong argument: %s (see --help)\n",
                   argument.c_str());
      return false;
    }
  }
  return true;
}

// Runs one plug-in until the input ends or something else asks for the end.
class Host {
 public:
  Host(lumso_host::RegisterFunction register_plugin, const Screen& screen)
      : loop_(g_main_loop_new(nullptr, FALSE)),
        greets_(screen.person),
        charset_(lumso_doctor::CharsetOf(STDOUT_FILENO)),
        interrupts_(loop_, lumso_doctor::CharsetOf(STDERR_FILENO)),
        writer_(screen.person && screen.colours, [this] { Fail(); }),
        reader_(MakeReader(screen)),
        session_(
            register_plugin,
            screen.person ? lumso_host::Session::Reader::kPerson
                          : lumso_host::Session::Reader::kProgram,
            charset_,
            {[this](const std::string& line) { Print(line); },
             [this](const std::string& what) { interrupts_.SetWait(what); },
             [this] { reader_->Resume(); }, [this] { Quit(); }}) {}
  ~Host() { g_main_loop_unref(loop_); }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // Returns the exit status.
  int Run() {
    if (greets_) writer_.WriteLine(kGreeting);
    interrupts_.SetLoopRuns(true);
    reader_->Resume();
    g_main_loop_run(loop_);
    interrupts_.SetLoopRuns(false);
    reader_->HidePrompt();
    std::fflush(stdout);
    return output_failed_ || session_.expectation_failed() ? kStatusFailed : 0;
  }

 private:
  std::unique_ptr<lumso_host::CommandReader> MakeReader(const Screen& screen) {
    const auto execute = [this](const std::string& line) {
      session_.Execute(line);
    };
    const auto quit = [this] { Quit(); };
#ifdef LUMSO_HAVE_LIBEDIT
    if (screen.editing) {
      return std::make_unique<lumso_host::LineEditor>(
          loop_,
          [this](std::string_view text) {
            return lumso_host::Complete(text, session_.EventChannels(),
                                        session_.addresses());
          },
          execute, quit);
    }
#endif
    return std::make_unique<lumso_host::LineReader>(
        STDIN_FILENO, screen.person ? lumso_host::kPrompt : "", execute, quit);
  }

  void Print(const std::string& line) {
    reader_->HidePrompt();
    writer_.WriteLine(line);
    reader_->ShowPrompt();
  }

  void Quit() { g_main_loop_quit(loop_); }

  void Fail() {
    output_failed_ = true;
    Quit();
  }

  GMainLoop* const loop_;  // Owned reference.
  const bool greets_;
  // Asked before the reader, which may set a locale of its own.
  const lumso_doctor::Charset charset_;
  lumso_host::Interrupts interrupts_;
  bool output_failed_ = false;
  lumso_host::LineWriter writer_;
  // Uses session_ from the main loop only.
  const std::unique_ptr<lumso_host::CommandReader> reader_;
  lumso_host::Session session_;
};

}  // namespace

int main(int argc, char** argv) {
  lumso_doctor::OpenStandardStreams();
  // Writing to a device that has vanished must be an error, not the end. That
  // is for the process to decide, not for a library, and desktop applications
  // usually decide so too.
  std::signal(SIGPIPE, SIG_IGN);
  std::setlocale(LC_CTYPE, "");  // Tells of a terminal that takes no UTF-8.
  Options options;
  if (!ParseOptions(argc, argv, &options)) return kStatusCannotStart;
  if (options.help) {
    int status = 0;
    lumso_host::LineWriter(false, [&status] {
      status = kStatusFailed;
    }).WriteLine(kUsage + lumso_host::ProtocolHelp());
    return status;
  }
  std::string error;
  const auto register_plugin = lumso_host::LoadPlugin(options.plugin, &error);
  if (register_plugin == nullptr) {
    std::fprintf(stderr, "lumso_host: cannot load the plug-in: %s\n",
                 error.c_str());
    return kStatusCannotStart;
  }
  const Screen screen = options.json ? Screen() : lumso_doctor::FindScreen();
  return Host(register_plugin, screen).Run();
}
