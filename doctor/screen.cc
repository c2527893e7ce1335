#include "doctor/screen.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace lumso_doctor {

void OpenStandardStreams() {
  int fd = open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO) fd = dup(fd);
  if (fd >= 0) close(fd);
}

Screen FindScreen() {
  Screen screen;
  screen.terminal = isatty(STDOUT_FILENO) != 0;
  screen.person = screen.terminal && isatty(STDIN_FILENO) != 0;
  const char* term = std::getenv("TERM");
  const std::string terminal = term == nullptr ? "" : term;
  const bool able = !terminal.empty() && terminal != "dumb";
  screen.editing = screen.person && able;
  const char* no_color = std::getenv("NO_COLOR");
  screen.colours =
      screen.terminal && able && (no_color == nullptr || *no_color == '\0');
  winsize size = {};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    screen.columns = size.ws_col;
  }
  return screen;
}

Charset CharsetOf(int fd) {
  return isatty(fd) == 0 || g_get_charset(nullptr) ? Charset::kUtf8
                                                   : Charset::kAscii;
}

}  // namespace lumso_doctor
