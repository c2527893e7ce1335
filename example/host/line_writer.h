// Writes the host's lines to standard output.

#ifndef LUMSO_BLUETOOTH_EXAMPLE_HOST_LINE_WRITER_H_
#define LUMSO_BLUETOOTH_EXAMPLE_HOST_LINE_WRITER_H_

#include <functional>
#include <string>

namespace lumso_host {

// Every line is flushed. Between a person and the program, that is when it is
// made interactive, a prompt waits below the last line. For the platform
// thread.
class LineWriter {
 public:
  // `on_failure` runs once, when the output cannot be written any more.
  LineWriter(bool interactive, std::function<void()> on_failure);

  void WriteLine(const std::string& line);

  // Shows that a command may be typed. Does nothing for programs.
  void ShowPrompt();

  // Notes that a command was typed after the prompt, line end included.
  void PromptAnswered() { prompt_shown_ = false; }

  // Ends the line of a prompt that no command will answer.
  void EndPrompt();

 private:
  void Write(const std::string& text);

  const bool interactive_;
  const std::function<void()> on_failure_;
  bool prompt_shown_ = false;
  bool failed_ = false;
};

}  // namespace lumso_host

#endif  // LUMSO_BLUETOOTH_EXAMPLE_HOST_LINE_WRITER_H_
