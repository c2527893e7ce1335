#include "tests/support/rfcomm_link.h"

#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "tests/support/real_calls.h"

namespace lumso_test {
namespace {

using std::chrono::steady_clock;

// How long a read that nobody can end is left to a signal.
constexpr int kHopelessMilliseconds = 2000;

size_t Unread(int fd) {
  int count = 0;
  return fd >= 0 && ioctl(fd, FIONREAD, &count) == 0
             ? static_cast<size_t>(count)
             : 0;
}

int Fail(int error) {
  errno = error;
  return -1;
}

// Sleeps for a moment; false when a signal ended that.
bool Moment() { return real::poll(nullptr, 0, 1) == 0; }

RfcommLink::Side Other(RfcommLink::Side side) {
  return side == RfcommLink::kCaller ? RfcommLink::kDevice
                                     : RfcommLink::kCaller;
}

// The error was handed out before: neither shutdown() nor close() ends this.
ssize_t WaitForEver() {
  if (real::poll(nullptr, 0, kHopelessMilliseconds) < 0) return -1;
  // Standard error may be captured.
  std::printf(
      "RFCOMM double: this read() waits for ever, since the error of the "
      "stream was handed out before\n");
  std::fflush(stdout);
  std::abort();
}

}  // namespace

RfcommLink::RfcommLink(int caller_fd, int device_fd)
    : ends_{{caller_fd}, {device_fd}} {}

void RfcommLink::EndLikeALocalStream() {
  const std::lock_guard<std::mutex> lock(mutex_);
  local_ = true;
}

void RfcommLink::SetSendLimit(Side side, std::chrono::microseconds limit) {
  const std::lock_guard<std::mutex> lock(mutex_);
  ends_[side].send_limit = limit;
}

int RfcommLink::fd(Side side) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return ends_[side].fd;
}

size_t RfcommLink::Room(Side side) const {
  return kRfcommCapacity -
         std::min(kRfcommCapacity, Unread(ends_[Other(side)].fd));
}

short RfcommLink::Events(Side side, short wanted) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const End& end = ends_[side];
  short events = 0;
  if (Unread(end.fd) > 0 || end.shut || (end.over && local_)) events |= POLLIN;
  if (end.over || end.shut) events |= POLLHUP;
  if (end.error != 0) events |= POLLERR;
  if (Room(side) > kRfcommMostPerCall / 2) events |= POLLOUT;
  return static_cast<short>(events & (wanted | POLLERR | POLLHUP));
}

int RfcommLink::TakeError(Side side) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return std::exchange(ends_[side].error, 0);
}

ssize_t RfcommLink::Read(Side side, void* data, size_t size, bool waits) {
  for (;;) {
    pollfd wait = {-1, POLLIN, 0};
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      End& end = ends_[side];
      const ssize_t got = real::recv(end.fd, data, size, MSG_DONTWAIT);
      if (got > 0) return got;
      if (end.over || end.shut) {
        if (end.error != 0) return Fail(std::exchange(end.error, 0));
        if (end.shut || local_) return 0;
        if (!waits) return Fail(EAGAIN);
      } else if (!waits) {
        return got;
      } else {
        wait.fd = end.fd;
      }
    }
    if (wait.fd < 0) return WaitForEver();
    if (real::poll(&wait, 1, -1) < 0) return -1;
  }
}

ssize_t RfcommLink::Write(Side side, const void* data, size_t size,
                          bool waits) {
  const auto began = steady_clock::now();
  const auto* const bytes = static_cast<const char*>(data);
  // The whole of a call is built before any of it is sent, so what has no room
  // waits for something that never comes.
  bool stalls = size > kRfcommMostPerCall && waits;
  size = std::min(size, kRfcommMostPerCall);
  size_t sent = 0;
  const auto stopped = [&sent](int error) {
    return sent > 0 ? static_cast<ssize_t>(sent) : Fail(error);
  };
  for (;;) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      End& end = ends_[side];
      if (end.shut) return Fail(EPIPE);
      if (end.over && local_) {
        raise(SIGPIPE);
        return Fail(EPIPE);
      }
      if (end.over) {
        const int error = std::exchange(end.error, 0);
        return Fail(error != 0 ? error : ENOTCONN);
      }
      const bool late = steady_clock::now() - began >= end.send_limit;
      stalls = stalls && !late;
      const size_t some = stalls ? 0 : std::min(size - sent, Room(side));
      const ssize_t passed = some == 0
                                 ? 0
                                 : real::send(end.fd, bytes + sent, some,
                                              MSG_NOSIGNAL | MSG_DONTWAIT);
      if (passed > 0) sent += static_cast<size_t>(passed);
      if (sent == size) return static_cast<ssize_t>(sent);
      if (late || !waits) return stopped(EAGAIN);
    }
    if (!Moment()) return stopped(EINTR);
  }
}

void RfcommLink::EndOf(Side side, int error) {
  if (!ended_at_) ended_at_ = steady_clock::now();
  End& end = ends_[side];
  if (end.over) return;
  end.over = true;
  if (!end.shut) end.error = error;
}

void RfcommLink::Shutdown(Side side) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (std::exchange(ends_[side].shut, true)) return;
  EndOf(Other(side), local_ ? 0 : ECONNRESET);
  real::shutdown(ends_[side].fd, SHUT_RDWR);
}

int RfcommLink::Close(Side side) {
  const std::lock_guard<std::mutex> lock(mutex_);
  End& end = ends_[side];
  if (end.fd < 0) return Fail(EBADF);
  end.shut = true;
  EndOf(Other(side), local_ ? 0 : ECONNRESET);
  return real::close(std::exchange(end.fd, -1));
}

void RfcommLink::Lose(int error) {
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const Side side : {kCaller, kDevice}) {
    EndOf(side, error);
    real::shutdown(ends_[side].fd, SHUT_RDWR);
  }
}

std::optional<steady_clock::time_point> RfcommLink::ended_at() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return ended_at_;
}

}  // namespace lumso_test
