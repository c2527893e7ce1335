#include "benchmarks/socket_double.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace {

// Enough for some thousand chunks; asking for more than the system's limit is
// allowed to root alone, and others get what there is.
constexpr int kBufferSize = 64 << 20;

int next_socket = -1;

}  // namespace

extern "C" {

int socket(int domain, int type, int protocol) __THROW {
  if (domain == AF_BLUETOOTH && next_socket >= 0) {
    return std::exchange(next_socket, -1);
  }
  return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

int connect(int fd, const sockaddr* address, socklen_t length) {
  if (address->sa_family == AF_BLUETOOTH) return 0;
  return static_cast<int>(syscall(SYS_connect, fd, address, length));
}

}  // extern "C"

namespace lumso_bench {

DevicePair::DevicePair() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) < 0) {
    std::perror("socketpair");
    std::abort();
  }
  device_ = ends[0];
  local_ = ends[1];
  for (const int end : ends) {
    if (setsockopt(end, SOL_SOCKET, SO_SNDBUFFORCE, &kBufferSize,
                   sizeof(kBufferSize)) < 0) {
      setsockopt(end, SOL_SOCKET, SO_SNDBUF, &kBufferSize, sizeof(kBufferSize));
    }
  }
}

DevicePair::~DevicePair() {
  close(device_);
  if (local_ >= 0) close(local_);
}

void DevicePair::HandOver() { next_socket = std::exchange(local_, -1); }

std::vector<uint8_t> DevicePair::Chunk(size_t size, size_t number) {
  std::vector<uint8_t> chunk(size, 0x5a);
  std::memcpy(chunk.data(), &number, std::min(size, sizeof(number)));
  return chunk;
}

size_t DevicePair::Fill(size_t size, size_t count) const {
  size_t filled = 0;
  while (filled < count && send(device_, Chunk(size, filled).data(), size,
                                MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
    ++filled;
  }
  return filled;
}

std::vector<uint8_t> DevicePair::Drain() const {
  std::vector<uint8_t> drained;
  std::vector<uint8_t> scratch(1 << 16);
  for (;;) {
    const ssize_t count =
        recv(device_, scratch.data(), scratch.size(), MSG_DONTWAIT);
    if (count <= 0) return drained;
    drained.insert(drained.end(), scratch.begin(), scratch.begin() + count);
  }
}

}  // namespace lumso_bench
