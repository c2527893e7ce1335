// Where the host's commands come from.

#ifndef LUMSO_BLUETOOTH_HOST_COMMAND_READER_H_
#define LUMSO_BLUETOOTH_HOST_COMMAND_READER_H_

#include <functional>
#include <string>

namespace lumso_host {

inline constexpr char kPrompt[] = "lumso> ";

// Hands out one line per Resume(), in the main loop, so that commands run
// strictly one after another. For the platform thread.
class CommandReader {
 public:
  // Gets a line without its line end.
  using LineHandler = std::function<void(const std::string& line)>;
  // Runs once, at the end of the input.
  using EndHandler = std::function<void()>;

  CommandReader() = default;
  virtual ~CommandReader() = default;
  CommandReader(const CommandReader&) = delete;
  CommandReader& operator=(const CommandReader&) = delete;

  // Asks for the next line, or for the end.
  virtual void Resume() = 0;

  // To be called before and after something else is written to the terminal:
  // the prompt, and what is typed after it, give way and come back.
  virtual void HidePrompt() = 0;
  virtual void ShowPrompt() = 0;
};

}  // namespace lumso_host

#endif  // LUMSO_BLUETOOTH_HOST_COMMAND_READER_H_
