// What SIGINT and SIGTERM do to the host.

#ifndef LUMSO_BLUETOOTH_HOST_INTERRUPTS_H_
#define LUMSO_BLUETOOTH_HOST_INTERRUPTS_H_

#include <glib.h>
#include <termios.h>

#include <atomic>
#include <mutex>
#include <string>

#include "doctor/safe_text.h"

namespace lumso_host {

// Takes the two signals on a thread of its own, since the platform thread may
// be inside the plug-in, in a request that blocks for a minute. It blocks them
// nowhere: GLib's handler runs where the kernel likes, and wakes this thread.
//
// The first one while the main loop runs quits it, and says what that waits
// for. The next one, and any before or after the loop, ends the process at
// once: with status 128 + the signal's number, and the terminal as it was.
class Interrupts {
 public:
  // Borrows `loop`, which is the default main context's. `charset` is that of
  // standard error. To be made before anything changes the terminal.
  Interrupts(GMainLoop* loop, lumso_doctor::Charset charset);
  ~Interrupts();
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;

  // For the platform thread, when the loop is about to run and when it has
  // ended.
  void SetLoopRuns(bool runs);

  // For the platform thread: what it is going to wait for, and for how long at
  // most; empty when it waits no more.
  void SetWait(const std::string& what);

 private:
  template <int kNumber>
  void Watch();
  gpointer Run();
  void Take(int number);
  [[noreturn]] void EndProcess(int number) const;

  GMainLoop* const loop_;
  const lumso_doctor::Charset charset_;
  termios terminal_ = {};  // Standard input's, at the start.
  const bool has_terminal_;

  std::mutex mutex_;
  bool loop_runs_ = false;  // And no signal has come. Guarded by mutex_.
  std::string wait_;        // Guarded by mutex_.

  GMainContext* const context_;  // Owned; the thread's.
  std::atomic<bool> stopped_{false};
  GThread* thread_;  // Owned; joined at the end.
};

}  // namespace lumso_host

#endif  // LUMSO_BLUETOOTH_HOST_INTERRUPTS_H_
