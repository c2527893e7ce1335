#include "host/line_reader.h"

#include <glib-unix.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

namespace lumso_host {

namespace {

constexpr size_t kReadSize = 65536;

}  // namespace

LineReader::LineReader(int fd, std::string prompt, LineHandler on_line,
                       EndHandler on_end)
    : fd_(fd),
      prompt_(std::move(prompt)),
      on_line_(std::move(on_line)),
      on_end_(std::move(on_end)) {}

LineReader::~LineReader() {
  if (source_ != 0) g_source_remove(source_);
}

void LineReader::Resume() {
  if (source_ != 0) return;
  prompt_shown_ = !prompt_.empty();
  ShowPrompt();
  source_ = g_idle_add(
      [](gpointer self) -> gboolean {
        return static_cast<LineReader*>(self)->HandOut();
      },
      this);
}

void LineReader::HidePrompt() {
  if (prompt_shown_) std::fputc('\n', stdout);
}

void LineReader::ShowPrompt() {
  if (!prompt_shown_) return;
  std::fputs(prompt_.c_str(), stdout);
  std::fflush(stdout);
}

bool LineReader::HandOut() {
  source_ = 0;
  std::string line;
  if (TakeLine(&line)) {
    prompt_shown_ = false;
    on_line_(line);
  } else if (ended_) {
    on_end_();
  } else {
    WatchInput();
  }
  return false;
}

void LineReader::WatchInput() {
  source_ = g_unix_fd_add_full(
      G_PRIORITY_DEFAULT_IDLE, fd_,
      static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR | G_IO_NVAL),
      [](gint, GIOCondition, gpointer self) -> gboolean {
        return static_cast<LineReader*>(self)->Read();
      },
      this, nullptr);
}

bool LineReader::Read() {
  buffer_.erase(0, start_);
  scanned_ -= start_;
  start_ = 0;

  const size_t size = buffer_.size();
  buffer_.resize(size + kReadSize);
  const ssize_t count = read(fd_, &buffer_[size], kReadSize);
  buffer_.resize(size + (count > 0 ? static_cast<size_t>(count) : 0));
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return true;
  if (count <= 0) ended_ = true;
  return HandOut();
}

bool LineReader::TakeLine(std::string* line) {
  const size_t end = buffer_.find('\n', scanned_);
  if (end != std::string::npos) {
    line->assign(buffer_, start_, end - start_);
    start_ = scanned_ = end + 1;
    return true;
  }
  scanned_ = buffer_.size();
  // The last line may lack its line end.
  if (!ended_ || start_ == buffer_.size()) return false;
  line->assign(buffer_, start_, std::string::npos);
  start_ = buffer_.size();
  return true;
}

}  // namespace lumso_host
