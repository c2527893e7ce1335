#include "host/interrupts.h"

#include <glib-unix.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

namespace lumso_host {

Interrupts::Interrupts(GMainLoop* loop, lumso_doctor::Charset charset)
    : loop_(loop),
      charset_(charset),
      has_terminal_(tcgetattr(STDIN_FILENO, &terminal_) == 0),
      context_(g_main_context_new()) {
  Watch<SIGINT>();
  Watch<SIGTERM>();
  thread_ = g_thread_new(
      "lumso-signals",
      [](gpointer self) { return static_cast<Interrupts*>(self)->Run(); },
      this);
}

Interrupts::~Interrupts() {
  stopped_ = true;
  g_main_context_wakeup(context_);
  g_thread_join(thread_);
  g_main_context_unref(context_);
}

void Interrupts::SetLoopRuns(bool runs) {
  const std::lock_guard<std::mutex> lock(mutex_);
  loop_runs_ = runs;
}

void Interrupts::SetWait(const std::string& what) {
  const std::lock_guard<std::mutex> lock(mutex_);
  wait_ = what;
}

template <int kNumber>
void Interrupts::Watch() {
  GSource* source = g_unix_signal_source_new(kNumber);
  g_source_set_callback(
      source,
      [](gpointer self) -> gboolean {
        static_cast<Interrupts*>(self)->Take(kNumber);
        return G_SOURCE_CONTINUE;
      },
      this, nullptr);
  g_source_attach(source, context_);
  g_source_unref(source);
}

gpointer Interrupts::Run() {
  while (!stopped_) g_main_context_iteration(context_, TRUE);
  return nullptr;
}

// Runs on the thread.
void Interrupts::Take(int number) {
  std::string wait;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!std::exchange(loop_runs_, false)) EndProcess(number);
    wait = wait_;
  }
  // From within the loop, which may not have begun yet.
  g_idle_add_full(
      G_PRIORITY_DEFAULT,
      [](gpointer loop) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
        return G_SOURCE_REMOVE;
      },
      loop_, nullptr);
  // This thread must take the next signal also where nobody reads standard
  // error: a pipe that is ready takes PIPE_BUF bytes without blocking.
  constexpr int kMost = PIPE_BUF / 2;
  pollfd errors = {STDERR_FILENO, POLLOUT, 0};
  if (!wait.empty() && poll(&errors, 1, 0) > 0) {
    dprintf(STDERR_FILENO,
            "lumso_host: waits for %.*s, then ends; another signal ends it at "
            "once\n",
            kMost, lumso_doctor::Printable(wait, charset_).c_str());
  }
}

void Interrupts::EndProcess(int number) const {
  // In the background the terminal is another program's.
  if (has_terminal_ && tcgetpgrp(STDIN_FILENO) == getpgrp()) {
    tcsetattr(STDIN_FILENO, TCSANOW, &terminal_);
  }
  _exit(128 + number);
}

}  // namespace lumso_host
