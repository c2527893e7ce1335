// The calls behind those that a test program defines ahead of libc: libc's, or
// a sanitizer's interceptors of them. They may run before main(), inside
// sanitizer runtimes and on any thread.

#ifndef LUMSO_BLUETOOTH_TESTS_SUPPORT_REAL_CALLS_H_
#define LUMSO_BLUETOOTH_TESTS_SUPPORT_REAL_CALLS_H_

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <time.h>

// For what runs so early that no sanitizer may look at it.
#define LUMSO_EARLY \
  __attribute__((no_sanitize("address", "thread", "undefined")))

namespace lumso_test::real {

int socket(int domain, int type, int protocol);
int bind(int fd, const sockaddr* address, socklen_t length);
int listen(int fd, int backlog);
int accept(int fd, sockaddr* address, socklen_t* length);
int connect(int fd, const sockaddr* address, socklen_t length);
int eventfd(unsigned count, int flags);
int eventfd_write(int fd, eventfd_t value);
int poll(pollfd* fds, nfds_t count, int timeout);
ssize_t read(int fd, void* data, size_t size);
ssize_t recv(int fd, void* data, size_t size, int flags);
ssize_t write(int fd, const void* data, size_t size);
ssize_t send(int fd, const void* data, size_t size, int flags);
int shutdown(int fd, int how);
int close(int fd);
int fcntl(int fd, int command, void* argument);
int getsockopt(int fd, int level, int option, void* value, socklen_t* length);
int setsockopt(int fd, int level, int option, const void* value,
               socklen_t length);
int nanosleep(const timespec* duration, timespec* left);
int clock_nanosleep(clockid_t clock, int flags, const timespec* duration,
                    timespec* left);
int pthread_join(pthread_t thread, void** value);

}  // namespace lumso_test::real

#endif  // LUMSO_BLUETOOTH_TESTS_SUPPORT_REAL_CALLS_H_
