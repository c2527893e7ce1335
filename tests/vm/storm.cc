// Preloaded into lumso_host by signals.py: the host then gets a signal every
// millisecond and has a handler for it, as a host with a timer or a profiler.

#include <signal.h>
#include <sys/time.h>

namespace {

void OnAlarm(int) {}

[[gnu::constructor]] void BeginStorm() {
  struct sigaction action = {};
  action.sa_handler = OnAlarm;
  action.sa_flags = SA_RESTART;
  sigaction(SIGALRM, &action, nullptr);
  const itimerval every_millisecond = {{0, 1000}, {0, 1000}};
  setitimer(ITIMER_REAL, &every_millisecond, nullptr);
}

}  // namespace
