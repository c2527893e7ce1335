// One RFCOMM stream as Linux 6.12 keeps it, with a local stream pair to carry
// its bytes. What it promises is stated by tests/contract, where the same cases
// run on the kernel; but for the loss of the radio link, which tests/vm makes.

#ifndef LUMSO_BLUETOOTH_TESTS_SUPPORT_RFCOMM_LINK_H_
#define LUMSO_BLUETOOTH_TESTS_SUPPORT_RFCOMM_LINK_H_

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>

namespace lumso_test {

// What a fresh RFCOMM socket tells of itself.
constexpr int kRfcommBufferSize = 50800;
constexpr std::chrono::seconds kRfcommSendLimit(30);
// What one call may build inside the send buffer: 23 frames of the size that
// two Linux machines agree on.
constexpr size_t kRfcommMostPerCall = 23 * 1016;
// What a device that does not read takes before a writer waits.
constexpr size_t kRfcommCapacity = kRfcommBufferSize + 2 * kRfcommMostPerCall;

// Both ends of one stream. Any thread; only what says so waits.
class RfcommLink {
 public:
  enum Side { kCaller, kDevice };

  // Takes both ends of a local stream pair, which it closes when it is told to.
  RfcommLink(int caller_fd, int device_fd);
  RfcommLink(const RfcommLink&) = delete;
  RfcommLink& operator=(const RfcommLink&) = delete;

  // From now on a stream that the other side ended is read as 0, and writing to
  // it raises SIGPIPE: what a local stream does, and RFCOMM does not.
  void EndLikeALocalStream();
  // How long a write of that side waits for room.
  void SetSendLimit(Side side, std::chrono::microseconds limit);

  // The descriptor of a side, -1 once it is closed.
  int fd(Side side) const;
  // What poll() reports of `wanted`.
  short Events(Side side, short wanted) const;
  // Hands the error of an ended stream out, once; 0 when there is none.
  int TakeError(Side side);
  // As read() and write(); with `waits` they block as the kernel does. A read
  // that nothing would ever end ends the process after a while, with a text.
  ssize_t Read(Side side, void* data, size_t size, bool waits);
  ssize_t Write(Side side, const void* data, size_t size, bool waits);
  // Ends both directions, whichever was asked for.
  void Shutdown(Side side);
  // The same, and closes the descriptor; its result.
  int Close(Side side);
  // The radio link is lost: both ends get `error`.
  void Lose(int error);
  // When a side ended the stream; nothing while it lives.
  std::optional<std::chrono::steady_clock::time_point> ended_at() const;

 private:
  struct End {
    int fd;
    bool over = false;  // ended by the other side, or lost
    bool shut = false;  // ended by this side
    int error = 0;      // not yet handed out
    std::chrono::microseconds send_limit = kRfcommSendLimit;
  };

  // These want the lock.
  void EndOf(Side side, int error);
  size_t Room(Side side) const;

  mutable std::mutex mutex_;  // guards everything below
  End ends_[2];
  bool local_ = false;
  std::optional<std::chrono::steady_clock::time_point> ended_at_;
};

}  // namespace lumso_test

#endif  // LUMSO_BLUETOOTH_TESTS_SUPPORT_RFCOMM_LINK_H_
