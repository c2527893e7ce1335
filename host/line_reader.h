// Cuts what arrives on a descriptor into lines, in the main loop.

#ifndef LUMSO_BLUETOOTH_HOST_LINE_READER_H_
#define LUMSO_BLUETOOTH_HOST_LINE_READER_H_

#include <glib.h>

#include <string>

#include "host/command_reader.h"

namespace lumso_host {

// Reads no further than it must: what cannot be run yet waits in the pipe. It
// shares the main loop fairly with the plug-in's idle callbacks, even when many
// lines wait. For the platform thread.
class LineReader : public CommandReader {
 public:
  // Borrows `fd` and leaves its flags alone: a terminal is shared with others.
  // Where a person types, `prompt` is written whenever a line may be typed; it
  // is empty for programs.
  LineReader(int fd, std::string prompt, LineHandler on_line,
             EndHandler on_end);
  ~LineReader() override;

  void Resume() override;
  // What is typed already stays on the screen, a line further up.
  void HidePrompt() override;
  void ShowPrompt() override;

 private:
  // Both run as main loop sources.
  bool HandOut();
  bool Read();

  bool TakeLine(std::string* line);
  void WatchInput();

  const int fd_;
  const std::string prompt_;
  const LineHandler on_line_;
  const EndHandler on_end_;
  std::string buffer_;
  size_t start_ = 0;    // Of the next line in buffer_.
  size_t scanned_ = 0;  // No line end before it.
  bool ended_ = false;
  bool prompt_shown_ = false;
  guint source_ = 0;  // The one source under way; 0 when paused.
};

}  // namespace lumso_host

#endif  // LUMSO_BLUETOOTH_HOST_LINE_READER_H_
