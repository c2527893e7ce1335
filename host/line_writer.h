// Writes the host's lines to standard output.

#ifndef LUMSO_BLUETOOTH_HOST_LINE_WRITER_H_
#define LUMSO_BLUETOOTH_HOST_LINE_WRITER_H_

#include <functional>
#include <string>
#include <string_view>

namespace lumso_host {

// Every line is flushed. For the platform thread.
class LineWriter {
 public:
  // `on_failure` runs once, when the output cannot be written any more.
  LineWriter(bool colours, std::function<void()> on_failure);

  // Lines that begin with a brace must be JSON.
  void WriteLine(const std::string& line);

 private:
  const bool colours_;
  const std::function<void()> on_failure_;
  bool failed_ = false;
};

// Returns the JSON text with a terminal's colour sequences: keys, strings and
// other values apart, and the keys of the object itself that say that something
// went wrong in a colour of their own.
std::string ColourJson(std::string_view json);

}  // namespace lumso_host

#endif  // LUMSO_BLUETOOTH_HOST_LINE_WRITER_H_
