// For the thread sanitizer only. A record queued with g_idle_add() passes from
// one thread to the main loop under a lock of GLib's that the sanitizer cannot
// see. This stands in front of GLib's function and tells it.

#ifdef __has_feature
#if __has_feature(thread_sanitizer)
#define LUMSO_THREAD_SANITIZER
#endif
#elif defined(__SANITIZE_THREAD__)
#define LUMSO_THREAD_SANITIZER
#endif

#ifdef LUMSO_THREAD_SANITIZER

#include <glib.h>
#include <sanitizer/tsan_interface.h>

namespace {

struct HandOver {
  GSourceFunc function;
  gpointer data;
};

gboolean Run(gpointer user_data) {
  __tsan_acquire(user_data);
  const auto* hand_over = static_cast<HandOver*>(user_data);
  return hand_over->function(hand_over->data);
}

void Free(gpointer user_data) { delete static_cast<HandOver*>(user_data); }

}  // namespace

extern "C" {
__attribute__((visibility("default"))) guint g_idle_add(GSourceFunc function,
                                                        gpointer data) {
  auto* hand_over = new HandOver{function, data};
  __tsan_release(hand_over);
  return g_idle_add_full(G_PRIORITY_DEFAULT_IDLE, Run, hand_over, Free);
}
}  // extern "C"

#endif  // LUMSO_THREAD_SANITIZER
