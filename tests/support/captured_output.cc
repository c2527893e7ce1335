#include "tests/support/captured_output.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <mutex>

// Present in sanitizer builds only.
extern "C" __attribute__((weak)) void __sanitizer_set_report_fd(void* fd);

namespace lumso_test {
namespace {

const int original_standard_error = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);

// Messages come from every thread.
std::mutex log_mutex;
std::vector<std::string>& Log() {
  static auto* log = new std::vector<std::string>();
  return *log;
}

const char* LevelName(GLogLevelFlags level) {
  switch (level & G_LOG_LEVEL_MASK) {
    case G_LOG_LEVEL_ERROR:
      return "error";
    case G_LOG_LEVEL_CRITICAL:
      return "critical";
    case G_LOG_LEVEL_WARNING:
      return "warning";
    case G_LOG_LEVEL_MESSAGE:
      return "message";
    case G_LOG_LEVEL_INFO:
      return "info";
    default:
      return "debug";
  }
}

GLogWriterOutput RecordMessage(GLogLevelFlags level, const GLogField* fields,
                               gsize count, gpointer) {
  std::string domain;
  std::string message;
  for (gsize i = 0; i < count; i++) {
    const auto* value = static_cast<const char*>(fields[i].value);
    if (g_str_equal(fields[i].key, "MESSAGE")) message = value;
    if (g_str_equal(fields[i].key, "GLIB_DOMAIN")) domain = value;
  }
  // The library's own chatter at these levels depends on its version.
  if (!domain.empty() && (level & (G_LOG_LEVEL_INFO | G_LOG_LEVEL_DEBUG))) {
    return G_LOG_WRITER_HANDLED;
  }
  const std::string text =
      (domain.empty() ? "" : domain + "-") + LevelName(level) + ": " + message;
  if (level & (G_LOG_FLAG_FATAL | G_LOG_LEVEL_CRITICAL)) {
    dprintf(original_standard_error, "%s\n", text.c_str());
  }
  const std::lock_guard<std::mutex> lock(log_mutex);
  Log().push_back(text);
  return G_LOG_WRITER_HANDLED;
}

}  // namespace

int OriginalStandardError() { return original_standard_error; }

CapturedStandardError::CapturedStandardError()
    : file_(memfd_create("standard-error", MFD_CLOEXEC)) {
  std::fflush(stderr);
  dup2(file_, STDERR_FILENO);
  if (__sanitizer_set_report_fd != nullptr) {
    __sanitizer_set_report_fd(
        reinterpret_cast<void*>(intptr_t{original_standard_error}));
  }
}

CapturedStandardError::~CapturedStandardError() {
  std::fflush(stderr);
  dup2(original_standard_error, STDERR_FILENO);
  close(file_);
}

std::string CapturedStandardError::Take() {
  std::fflush(stderr);
  std::string text(static_cast<size_t>(lseek(file_, 0, SEEK_END)), '\0');
  const ssize_t count = pread(file_, text.data(), text.size(), 0);
  text.resize(count < 0 ? 0 : static_cast<size_t>(count));
  // The descriptors share one offset, so writing goes on at the start.
  lseek(file_, 0, SEEK_SET);
  if (ftruncate(file_, 0) != 0) text += "(cannot truncate)";
  return text;
}

void RecordLog() {
  static const bool installed = [] {
    g_log_set_writer_func(RecordMessage, nullptr, nullptr);
    g_log_set_always_fatal(
        static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
    return true;
  }();
  static_cast<void>(installed);
  TakeLog();
}

std::vector<std::string> TakeLog() {
  const std::lock_guard<std::mutex> lock(log_mutex);
  std::vector<std::string> log;
  log.swap(Log());
  return log;
}

}  // namespace lumso_test
