// Cuts what arrives on a descriptor into lines, in the main loop.

#ifndef LUMSO_BLUETOOTH_EXAMPLE_HOST_LINE_READER_H_
#define LUMSO_BLUETOOTH_EXAMPLE_HOST_LINE_READER_H_

#include <glib.h>

#include <functional>
#include <string>

namespace lumso_host {

// Hands out one line per Resume(), so that commands run strictly one after
// another, and reads no further than it must: what cannot be run yet waits in
// the pipe. It shares the main loop fairly with the plug-in's idle callbacks,
// even when many lines wait. For the platform thread.
class LineReader {
 public:
  // Gets a line without its line end.
  using LineHandler = std::function<void(const std::string& line)>;
  // Runs once, at the end of the input.
  using EndHandler = std::function<void()>;

  // Borrows `fd` and leaves its flags alone: a terminal is shared with others.
  LineReader(int fd, LineHandler on_line, EndHandler on_end);
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // Asks for the next line, or for the end.
  void Resume();

 private:
  // Both run as main loop sources.
  bool HandOut();
  bool Read();

  bool TakeLine(std::string* line);
  void WatchInput();

  const int fd_;
  const LineHandler on_line_;
  const EndHandler on_end_;
  std::string buffer_;
  size_t start_ = 0;    // Of the next line in buffer_.
  size_t scanned_ = 0;  // No line end before it.
  bool ended_ = false;
  guint source_ = 0;  // The one source under way; 0 when paused.
};

}  // namespace lumso_host

#endif  // LUMSO_BLUETOOTH_EXAMPLE_HOST_LINE_READER_H_
