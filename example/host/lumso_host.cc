// lumso_host: a small embedder. It registers the plug-in once on a messenger of
// its own, runs the GLib main loop, takes commands on standard input and prints
// one JSON object per line on standard output.

#include <fcntl.h>
#include <glib-unix.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "example/host/line_reader.h"
#include "example/host/line_writer.h"
#include "example/host/plugin_library.h"
#include "example/host/session.h"

namespace {

constexpr int kStatusExpectFailed = 1;
constexpr int kStatusCannotStart = 2;

constexpr char kUsage[] =
    R"(Usage: lumso_host [--plugin FILE] [--help]

Loads the plug-in library FILE, registers it and runs the commands that it reads
on standard input. Without --plugin it takes liblumso_bluetooth_plugin.so beside
the executable, or else wherever the loader finds it. Diagnostics go to standard
error, and standard output carries the lines described below only.

Exit status: 0 at the end of the input, after quit, SIGINT or SIGTERM; 1 after
an expect that failed, or when standard output cannot be written; 2 for wrong
arguments or a plug-in that cannot be loaded.

)";

struct Options {
  bool help = false;
  std::string plugin;
};

bool ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--help") {
      options->help = true;
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

gboolean QuitLoop(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_CONTINUE;
}

// Opens the null device in place of closed standard streams, before anything
// else opens a descriptor and becomes one of them.
void OpenStandardStreams() {
  int fd = open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO) fd = dup(fd);
  if (fd >= 0) close(fd);
}

int RunHost(lumso_host::RegisterFunction register_plugin) {
  g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
  bool output_failed = false;
  const bool interactive =
      isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0;
  lumso_host::LineWriter writer(interactive, [&] {
    output_failed = true;
    g_main_loop_quit(loop);
  });
  const auto quit = [&] { g_main_loop_quit(loop); };
  const auto print = [&](const std::string& line) { writer.WriteLine(line); };

  lumso_host::LineReader* next_commands = nullptr;
  const auto finished = [&] {
    writer.ShowPrompt();
    next_commands->Resume();
  };
  lumso_host::Session session(register_plugin, {print, finished, quit});
  lumso_host::LineReader reader(
      STDIN_FILENO,
      [&](const std::string& line) {
        writer.PromptAnswered();
        session.Execute(line);
      },
      quit);
  next_commands = &reader;
  finished();

  const guint sigint = g_unix_signal_add(SIGINT, QuitLoop, loop);
  const guint sigterm = g_unix_signal_add(SIGTERM, QuitLoop, loop);
  g_main_loop_run(loop);
  writer.EndPrompt();
  g_source_remove(sigint);
  g_source_remove(sigterm);
  return output_failed || session.expectation_failed() ? kStatusExpectFailed
                                                       : 0;
}

}  // namespace

int main(int argc, char** argv) {
  OpenStandardStreams();
  Options options;
  if (!ParseOptions(argc, argv, &options)) return kStatusCannotStart;
  if (options.help) {
    std::printf("%s%s", kUsage, lumso_host::kProtocolHelp);
    return 0;
  }
  // Writing to a device that has vanished must be an error, not the end. That
  // is for the process to decide, not for a library, and desktop applications
  // usually decide so too.
  std::signal(SIGPIPE, SIG_IGN);

  std::string error;
  const auto register_plugin = lumso_host::LoadPlugin(options.plugin, &error);
  if (register_plugin == nullptr) {
    std::fprintf(stderr, "lumso_host: cannot load the plug-in: %s\n",
                 error.c_str());
    return kStatusCannotStart;
  }
  return RunHost(register_plugin);
}
