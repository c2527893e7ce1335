#include "doctor/screen.h"

#include <unistd.h>

#include <cstdlib>
#include <string>

namespace lumso_doctor {

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
  return screen;
}

}  // namespace lumso_doctor
