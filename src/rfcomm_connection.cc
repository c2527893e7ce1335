#include "rfcomm_connection.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <utility>

namespace lumso_bluetooth {
namespace {

constexpr uint8_t kRfcommChannel = 1;
constexpr size_t kReadBufferSize = 2048;

// The kernel builds a whole write() inside the socket's send buffer before it
// sends any of it, so one large call stalls for 30 s and comes back short.
constexpr size_t kMaxWriteSize = 4096;

// A thread's own faults. The kernel ends the process when the thread at fault
// has them blocked, and the host's crash handler never runs; of SIGABRT, the
// abort() of glibc from 2.41 on does the same.
constexpr int kFaultSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL,
                                 SIGTRAP, SIGSYS, SIGABRT};

// Blocks the host's signals on the calling thread while it exists: all but
// those of faults, which stay as the host has them.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t signals;
    sigfillset(&signals);
    for (const int fault : kFaultSignals) sigdelset(&signals, fault);
    pthread_sigmask(SIG_BLOCK, &signals, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_;
};

// Connects a blocking socket. Returns false with errno set on failure. A signal
// handler that runs meanwhile ends connect(), SA_RESTART or not, but not the
// kernel's attempt: its outcome is waited for.
bool ConnectSocket(int fd, const sockaddr_rc& remote) {
  if (connect(fd, reinterpret_cast<const sockaddr*>(&remote), sizeof(remote)) ==
      0) {
    return true;
  }
  if (errno != EINTR) return false;
  pollfd wait = {fd, POLLOUT, 0};
  while (poll(&wait, 1, -1) < 0) {
    if (errno != EINTR) return false;
  }
  errno = TakeSocketError(fd);
  return errno == 0;
}

void PrintReadError() {
  std::fprintf(stderr, "lumso_bluetooth: RFCOMM read error: %s\n",
               std::strerror(errno));
}

}  // namespace

bool ParseRfcommAddress(const std::string& address, sockaddr_rc* remote) {
  static_assert(sizeof(*remote) == 10, "the kernel's struct sockaddr_rc");
  std::memset(remote, 0, sizeof(*remote));
  remote->rc_family = AF_BLUETOOTH;
  remote->rc_channel = kRfcommChannel;
  return str2ba(address.c_str(), &remote->rc_bdaddr) == 0;
}

int OpenRfcommSocket() {
  const int fd = socket(AF_BLUETOOTH, SOCK_STREAM, BTPROTO_RFCOMM);
  // A child that another thread starts before this line inherits the socket.
  if (fd >= 0) fcntl(fd, F_SETFD, FD_CLOEXEC);
  return fd;
}

int TakeSocketError(int fd) {
  int error = 0;
  socklen_t size = sizeof(error);
  getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
  return error;
}

ssize_t ReadReady(int fd, short revents, void* data, size_t size) {
  if ((revents & (POLLERR | POLLHUP)) == 0) return read(fd, data, size);
  const ssize_t count = recv(fd, data, size, MSG_DONTWAIT);
  return count < 0 && errno == EAGAIN ? 0 : count;
}

bool WriteAll(int fd, const void* data, size_t count) {
  const auto* const bytes = static_cast<const uint8_t*>(data);
  for (size_t offset = 0; offset < count;) {
    const ssize_t written =
        write(fd, bytes + offset, std::min(count - offset, kMaxWriteSize));
    if (written > 0) {
      offset += static_cast<size_t>(written);
    } else if (written == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

std::thread StartThread(const char* name, std::function<void()> body) {
  const SignalsBlocked blocked;  // a thread begins with its maker's mask
  return std::thread([name, body = std::move(body)] {
    pthread_setname_np(pthread_self(), name);
    body();
  });
}

RfcommConnection::~RfcommConnection() { Close(); }

bool RfcommConnection::Connect(const std::string& address) {
  sockaddr_rc remote;
  if (!ParseRfcommAddress(address, &remote)) {
    std::fprintf(stderr, "lumso_bluetooth: bad BT address '%s'\n",
                 address.c_str());
    return false;
  }
  const int fd = OpenRfcommSocket();
  if (fd < 0) {
    std::fprintf(stderr, "lumso_bluetooth: socket() failed: %s\n",
                 std::strerror(errno));
    return false;
  }
  const int wake_fd = eventfd(0, EFD_CLOEXEC);
  if (wake_fd < 0) {
    std::fprintf(stderr, "lumso_bluetooth: eventfd() failed: %s\n",
                 std::strerror(errno));
    close(fd);
    return false;
  }
  if (!ConnectSocket(fd, remote)) {
    std::fprintf(stderr, "lumso_bluetooth: RFCOMM connect to %s failed: %s\n",
                 address.c_str(), std::strerror(errno));
    close(wake_fd);
    close(fd);
    return false;
  }
  fd_ = fd;
  wake_fd_ = wake_fd;
  return true;
}

void RfcommConnection::Start(DataCallback on_data) {
  if (fd_ < 0) return;
  on_data_ = std::move(on_data);
  running_.store(true);
  reader_ = StartThread("lumso-reader", [this] { ReadLoop(); });
}

// Waits only in poll(): nothing wakes a read() whose peer vanished, or whose
// end a write() was told of.
void RfcommConnection::ReadLoop() {
  uint8_t buffer[kReadBufferSize];
  while (running_.load()) {
    pollfd waits[] = {{fd_, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
    if (poll(waits, std::size(waits), -1) < 0) {
      if (errno == EINTR) continue;
      PrintReadError();
      break;
    }
    // Close() signalled it, or the host closed its number.
    if (waits[1].revents != 0) break;
    const ssize_t count =
        ReadReady(fd_, waits[0].revents, buffer, sizeof(buffer));
    if (count > 0) {
      if (on_data_) on_data_(buffer, static_cast<size_t>(count), false);
    } else if (count == 0) {
      break;
    } else if (errno != EINTR) {
      // EBADF: the host closed the socket's number, which is no read's failure.
      if (errno != EBADF) PrintReadError();
      break;
    }
  }
  if (on_data_) on_data_(nullptr, 0, true);
}

bool RfcommConnection::Write(const uint8_t* data, size_t count) {
  if (fd_ < 0) return false;
  const std::lock_guard<std::mutex> lock(write_mutex_);
  if (WriteAll(fd_, data, count)) return true;
  std::fprintf(stderr, "lumso_bluetooth: RFCOMM write error: %s\n",
               std::strerror(errno));
  return false;
}

void RfcommConnection::Close() {
  running_.store(false);
  if (fd_ >= 0) {
    eventfd_write(wake_fd_, 1);
    shutdown(fd_, SHUT_RDWR);
  }
  if (reader_.joinable()) reader_.join();
  if (fd_ >= 0) {
    // Only now: the reader reads fd_ without a lock, and must never meet a
    // descriptor number that was reused.
    close(fd_);
    close(wake_fd_);
    fd_ = -1;
    wake_fd_ = -1;
  }
}

}  // namespace lumso_bluetooth
