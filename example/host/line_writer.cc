#include "example/host/line_writer.h"

#include <cstdio>
#include <utility>

namespace lumso_host {

namespace {

constexpr char kPrompt[] = "lumso> ";
constexpr char kClearTerminalLine[] = "\r\x1b[K";

}  // namespace

LineWriter::LineWriter(bool interactive, std::function<void()> on_failure)
    : interactive_(interactive), on_failure_(std::move(on_failure)) {}

void LineWriter::WriteLine(const std::string& line) {
  // A prompt that still waits for its command gives way and comes back.
  Write((prompt_shown_ ? kClearTerminalLine : "") + line + "\n" +
        (prompt_shown_ ? kPrompt : ""));
}

void LineWriter::ShowPrompt() {
  if (!interactive_) return;
  prompt_shown_ = true;
  Write(kPrompt);
}

void LineWriter::EndPrompt() {
  if (prompt_shown_) Write("\n");
  prompt_shown_ = false;
}

void LineWriter::Write(const std::string& text) {
  if (failed_) return;
  const size_t count = std::fwrite(text.data(), 1, text.size(), stdout);
  if (count == text.size() && std::fflush(stdout) == 0) return;
  failed_ = true;
  std::perror("lumso_host: cannot write to standard output");
  on_failure_();
}

}  // namespace lumso_host
