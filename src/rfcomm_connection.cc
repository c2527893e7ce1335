#include "rfcomm_connection.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
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
  if (fd >= 0) fcntl(fd, F_SETFD, FD_CLOEXEC);
  return fd;
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
  const int wake_fd = fd < 0 ? -1 : eventfd(0, EFD_CLOEXEC);
  if (wake_fd < 0) {
    std::fprintf(stderr, "lumso_bluetooth: socket() failed: %s\n",
                 std::strerror(errno));
    if (fd >= 0) close(fd);
    return false;
  }
  if (connect(fd, reinterpret_cast<const sockaddr*>(&remote), sizeof(remote)) <
      0) {
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
  reader_ = std::thread(&RfcommConnection::ReadLoop, this);
}

// Waits in poll() rather than in read(): a read() from a peer that vanished is
// woken neither by shutdown() nor by close() of the descriptor.
void RfcommConnection::ReadLoop() {
  pthread_setname_np(pthread_self(), "lumso-reader");
  uint8_t buffer[kReadBufferSize];
  while (running_.load()) {
    pollfd waits[] = {{fd_, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
    ssize_t count = -1;
    if (poll(waits, std::size(waits), -1) >= 0) {
      if (waits[1].revents != 0) continue;  // Close() cleared running_
      count = read(fd_, buffer, sizeof(buffer));
    }
    if (count > 0) {
      if (on_data_) on_data_(buffer, static_cast<size_t>(count), false);
    } else if (count == 0) {
      break;
    } else if (errno != EINTR) {
      if (errno != EBADF) {
        std::fprintf(stderr, "lumso_bluetooth: RFCOMM read error: %s\n",
                     std::strerror(errno));
      }
      break;
    }
  }
  if (on_data_) on_data_(nullptr, 0, true);
}

bool RfcommConnection::Write(const uint8_t* data, size_t count) {
  if (fd_ < 0) return false;
  const std::lock_guard<std::mutex> lock(write_mutex_);
  size_t offset = 0;
  while (offset < count) {
    const ssize_t written =
        write(fd_, data + offset, std::min(count - offset, kMaxWriteSize));
    if (written > 0) {
      offset += static_cast<size_t>(written);
    } else if (written == 0 || errno != EINTR) {
      std::fprintf(stderr, "lumso_bluetooth: RFCOMM write error: %s\n",
                   std::strerror(errno));
      return false;
    }
  }
  return true;
}

void RfcommConnection::Close() {
  running_.store(false);
  if (fd_ >= 0) {
    eventfd_write(wake_fd_, 1);
    shutdown(fd_, SHUT_RDWR);
  }
  if (reader_.joinable()) reader_.join();
  if (fd_ >= 0) {
    // Only now: a reader must never meet a descriptor number that was reused.
    close(fd_);
    close(wake_fd_);
    fd_ = -1;
    wake_fd_ = -1;
  }
}

}  // namespace lumso_bluetooth
