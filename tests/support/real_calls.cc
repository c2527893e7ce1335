#include "tests/support/real_calls.h"

#include <dlfcn.h>
#include <fcntl.h>

#include <cstring>

#ifdef __has_feature
#if __has_feature(thread_sanitizer)
#define LUMSO_THREAD_SANITIZER
#endif
#elif defined(__SANITIZE_THREAD__)
#define LUMSO_THREAD_SANITIZER
#endif

namespace lumso_test::real {
namespace {

// For the thread sanitizer they are libc's even so, but for joining. It leaves
// GLib's calls out by the library that makes them, and that would always be
// this program.
LUMSO_EARLY void* Find(const char* name) {
#ifdef LUMSO_THREAD_SANITIZER
  if (std::strcmp(name, "pthread_join") != 0) {
    return dlsym(dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD), name);
  }
#endif
  return dlsym(RTLD_NEXT, name);
}

// Looks `name` up once; `slot` is plain memory, there before any constructor.
template <typename Function>
LUMSO_EARLY Function* Behind(Function** slot, const char* name) {
  Function* found = __atomic_load_n(slot, __ATOMIC_RELAXED);
  if (found == nullptr) {
    found = reinterpret_cast<Function*>(Find(name));
    __atomic_store_n(slot, found, __ATOMIC_RELAXED);
  }
  return found;
}

}  // namespace

LUMSO_EARLY int socket(int domain, int type, int protocol) {
  static int (*slot)(int, int, int);
  return Behind(&slot, "socket")(domain, type, protocol);
}

LUMSO_EARLY int bind(int fd, const sockaddr* address, socklen_t length) {
  static int (*slot)(int, const sockaddr*, socklen_t);
  return Behind(&slot, "bind")(fd, address, length);
}

LUMSO_EARLY int listen(int fd, int backlog) {
  static int (*slot)(int, int);
  return Behind(&slot, "listen")(fd, backlog);
}

LUMSO_EARLY int accept(int fd, sockaddr* address, socklen_t* length) {
  static int (*slot)(int, sockaddr*, socklen_t*);
  return Behind(&slot, "accept")(fd, address, length);
}

LUMSO_EARLY int connect(int fd, const sockaddr* address, socklen_t length) {
  static int (*slot)(int, const sockaddr*, socklen_t);
  return Behind(&slot, "connect")(fd, address, length);
}

LUMSO_EARLY int eventfd(unsigned count, int flags) {
  static int (*slot)(unsigned, int);
  return Behind(&slot, "eventfd")(count, flags);
}

LUMSO_EARLY int eventfd_write(int fd, eventfd_t value) {
  static int (*slot)(int, eventfd_t);
  return Behind(&slot, "eventfd_write")(fd, value);
}

LUMSO_EARLY int poll(pollfd* fds, nfds_t count, int timeout) {
  static int (*slot)(pollfd*, nfds_t, int);
  return Behind(&slot, "poll")(fds, count, timeout);
}

LUMSO_EARLY ssize_t read(int fd, void* data, size_t size) {
  static ssize_t (*slot)(int, void*, size_t);
  return Behind(&slot, "read")(fd, data, size);
}

LUMSO_EARLY ssize_t recv(int fd, void* data, size_t size, int flags) {
  static ssize_t (*slot)(int, void*, size_t, int);
  return Behind(&slot, "recv")(fd, data, size, flags);
}

LUMSO_EARLY ssize_t write(int fd, const void* data, size_t size) {
  static ssize_t (*slot)(int, const void*, size_t);
  return Behind(&slot, "write")(fd, data, size);
}

LUMSO_EARLY ssize_t send(int fd, const void* data, size_t size, int flags) {
  static ssize_t (*slot)(int, const void*, size_t, int);
  return Behind(&slot, "send")(fd, data, size, flags);
}

LUMSO_EARLY int shutdown(int fd, int how) {
  static int (*slot)(int, int);
  return Behind(&slot, "shutdown")(fd, how);
}

LUMSO_EARLY int close(int fd) {
  static int (*slot)(int);
  return Behind(&slot, "close")(fd);
}

LUMSO_EARLY int fcntl(int fd, int command, void* argument) {
  static int (*slot)(int, int, ...);
  return Behind(&slot, "fcntl")(fd, command, argument);
}

LUMSO_EARLY int getsockopt(int fd, int level, int option, void* value,
                           socklen_t* length) {
  static int (*slot)(int, int, int, void*, socklen_t*);
  return Behind(&slot, "getsockopt")(fd, level, option, value, length);
}

LUMSO_EARLY int setsockopt(int fd, int level, int option, const void* value,
                           socklen_t length) {
  static int (*slot)(int, int, int, const void*, socklen_t);
  return Behind(&slot, "setsockopt")(fd, level, option, value, length);
}

LUMSO_EARLY int nanosleep(const timespec* duration, timespec* left) {
  static int (*slot)(const timespec*, timespec*);
  return Behind(&slot, "nanosleep")(duration, left);
}

LUMSO_EARLY int clock_nanosleep(clockid_t clock, int flags,
                                const timespec* duration, timespec* left) {
  static int (*slot)(clockid_t, int, const timespec*, timespec*);
  return Behind(&slot, "clock_nanosleep")(clock, flags, duration, left);
}

LUMSO_EARLY int pthread_join(pthread_t thread, void** value) {
  static int (*slot)(pthread_t, void**);
  return Behind(&slot, "pthread_join")(thread, value);
}

}  // namespace lumso_test::real
