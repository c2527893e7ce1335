// What Linux 6.12 promises of RFCOMM sockets, as far as anything here relies on
// it, stated with libc's calls alone. The same cases run on the double and,
// with both ends on the two adapters of one machine, on the kernel.

#include "tests/contract/rfcomm_contract.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/rfcomm.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr seconds kDeadline(20);
constexpr int kDeadlineMs = 20000;
constexpr milliseconds kPause(2);
constexpr short kEnd = POLLERR | POLLHUP;

volatile sig_atomic_t signals_handled;

void Handle(int) { signals_handled = signals_handled + 1; }

void Install(int number, int flags) {
  struct sigaction action = {};
  action.sa_handler = Handle;
  action.sa_flags = flags;
  sigaction(number, &action, nullptr);
}

// A descriptor that is closed at the end.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Fd() { Close(); }
  void Close() {
    if (fd_ >= 0) close(std::exchange(fd_, -1));
  }
  operator int() const { return fd_; }

 private:
  int fd_ = -1;
};

Fd NewSocket(bool blocking = true) {
  Fd fd(socket(AF_BLUETOOTH, SOCK_STREAM, BTPROTO_RFCOMM));
  EXPECT_GE(fd, 0) << strerror(errno);
  if (!blocking) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  return fd;
}

sockaddr_rc ChannelOne(const std::string& address) {
  sockaddr_rc channel = {};
  channel.rc_family = AF_BLUETOOTH;
  channel.rc_channel = 1;
  EXPECT_EQ(str2ba(address.c_str(), &channel.rc_bdaddr), 0);
  return channel;
}

// Returns 0 or the error.
int Connect(int fd, const std::string& address) {
  const sockaddr_rc channel = ChannelOne(address);
  return connect(fd, reinterpret_cast<const sockaddr*>(&channel),
                 sizeof(channel)) == 0
             ? 0
             : errno;
}

// What poll() reports within the time, 0 when that passes.
short Poll(int fd, short wanted, int ms = 0) {
  pollfd wait = {fd, wanted, 0};
  EXPECT_GE(poll(&wait, 1, ms), 0) << strerror(errno);
  return wait.revents;
}

// Everything that it reports now.
short Events(int fd) { return Poll(fd, POLLIN | POLLOUT); }

int TakeError(int fd) {
  int error = -1;
  socklen_t size = sizeof(error);
  EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size), 0);
  return error;
}

// Whether a connect failed because a stream between the two is closing: the
// channel is busy until the device has confirmed that. Then the session ends,
// with whatever has begun on it.
bool IsClosing(int error) {
  return error == EBUSY || error == ECONNRESET || error == ECONNREFUSED;
}

timeval Timeout(int fd, int option) {
  timeval time = {-1, -1};
  socklen_t size = sizeof(time);
  EXPECT_EQ(getsockopt(fd, SOL_SOCKET, option, &time, &size), 0);
  return time;
}

void SetSendLimit(int fd, milliseconds limit) {
  const timeval time = {static_cast<time_t>(limit.count() / 1000),
                        static_cast<suseconds_t>(limit.count() % 1000 * 1000)};
  EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof(time)), 0);
}

// Reads without waiting: the bytes, or "error N", or "end".
std::string ReadNow(int fd) {
  char bytes[65536];
  const ssize_t got = recv(fd, bytes, sizeof(bytes), MSG_DONTWAIT);
  if (got > 0) return std::string(bytes, static_cast<size_t>(got));
  return got == 0 ? "end" : "error " + std::to_string(errno);
}

std::string ErrorText(int error) { return "error " + std::to_string(error); }

// Returns what write() wrote, or the negative error.
ssize_t Write(int fd, const std::string& bytes) {
  const ssize_t written = write(fd, bytes.data(), bytes.size());
  return written >= 0 ? written : -errno;
}

// Reads as many bytes as were sent.
std::string ReadAll(int fd, size_t count) {
  std::string all;
  while (all.size() < count && Poll(fd, POLLIN, kDeadlineMs) != 0) {
    char bytes[4096];
    const ssize_t got = read(fd, bytes, sizeof(bytes));
    if (got <= 0) break;
    all.append(bytes, static_cast<size_t>(got));
  }
  return all;
}

std::string Pattern(size_t count) {
  std::string bytes(count, '\0');
  for (size_t i = 0; i < count; ++i) {
    bytes[i] = static_cast<char>((i * 7 + i / 251) & 0xff);
  }
  return bytes;
}

// Whether a thread sleeps, as a blocked one does for good.
bool Sleeps(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string number, name, state;
  return file >> number >> name >> state && state == "S";
}

// Sends a signal to a thread again and again while it exists.
class SignalStorm {
 public:
  explicit SignalStorm(pthread_t thread)
      : thread_([this, thread] {
          while (!stop_) {
            pthread_kill(thread, SIGUSR1);
            std::this_thread::sleep_for(milliseconds(1));
          }
        }) {}
  ~SignalStorm() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

class RfcommContract : public testing::Test {
 protected:
  void SetUp() override {
    signals_handled = 0;
    Install(SIGPIPE, 0);
    Install(SIGUSR1, SA_RESTART);
    listener_ = NewSocket();
    const sockaddr_rc channel = ChannelOne(lumso_contract::device_address);
    // The channel of the case before may still be in use.
    ASSERT_TRUE(Soon([&] {
      return bind(listener_, reinterpret_cast<const sockaddr*>(&channel),
                  sizeof(channel)) == 0;
    })) << strerror(errno);
  }

  void Listen() { ASSERT_EQ(listen(listener_, 4), 0); }

  // Opens a stream from one adapter to the other.
  void Open() {
    Listen();
    OpenAgain();
  }
  void OpenAgain() {
    ASSERT_TRUE(Soon([this] {
      caller_ = NewSocket();
      return Connect(caller_, lumso_contract::device_address) == 0;
    }));
    device_ = Fd(accept(listener_, nullptr, nullptr));
    ASSERT_GE(device_, 0) << strerror(errno);
  }

  // Returns 0 or the error of a connect under which signals are handled.
  int ConnectInStorm() {
    const SignalStorm storm(pthread_self());
    return Connect(caller_, lumso_contract::device_address);
  }

  template <typename Condition>
  static bool Soon(Condition condition) {
    const auto deadline = steady_clock::now() + kDeadline;
    while (!condition()) {
      if (steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(kPause);
    }
    return true;
  }

  // Waits until the caller is told that the device ended the stream.
  void WaitForEnd() { ASSERT_NE(Poll(caller_, 0, kDeadlineMs), 0); }

  // Fills the stream to a device that does not read.
  size_t Fill() {
    SetSendLimit(caller_, milliseconds(300));
    const std::string slice = Pattern(4096);
    size_t filled = 0;
    while (filled < 1000000) {
      const ssize_t written = Write(caller_, slice);
      if (written < 0) {
        EXPECT_EQ(written, -EAGAIN);
        return filled;
      }
      filled += static_cast<size_t>(written);
    }
    ADD_FAILURE() << "the stream takes everything";
    return filled;
  }

  Fd listener_;
  Fd caller_;
  Fd device_;
};

// ---------------------------------------------------------------------------

TEST_F(RfcommContract, ASocketHasASendLimitOf30SecondsAndSmallBuffers) {
  const Fd fd = NewSocket();
  EXPECT_EQ(Timeout(fd, SO_SNDTIMEO).tv_sec, 30);
  EXPECT_EQ(Timeout(fd, SO_SNDTIMEO).tv_usec, 0);
  EXPECT_EQ(Timeout(fd, SO_RCVTIMEO).tv_sec, 0);
  EXPECT_EQ(Timeout(fd, SO_RCVTIMEO).tv_usec, 0);
  for (const int option : {SO_SNDBUF, SO_RCVBUF}) {
    int size = 0;
    socklen_t length = sizeof(size);
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, option, &size, &length), 0);
    EXPECT_EQ(size, 50800);
  }
}

// Before any case that makes a link: one that is 2 s without use goes away, and
// a connect at that moment is aborted.
TEST_F(RfcommContract, AnAddressNobodyHasIsDown) {
  const Fd fd = NewSocket(/*blocking=*/false);
  EXPECT_EQ(Connect(fd, lumso_contract::absent_address), EINPROGRESS);
  EXPECT_EQ(Poll(fd, POLLOUT, kDeadlineMs), POLLOUT | kEnd);
  EXPECT_EQ(TakeError(fd), EHOSTDOWN);
  EXPECT_EQ(TakeError(fd), 0);
}

TEST_F(RfcommContract, AChannelNobodyListensOnRefuses) {
  const Fd fd = NewSocket(/*blocking=*/false);
  EXPECT_EQ(Connect(fd, lumso_contract::device_address), EINPROGRESS);
  EXPECT_EQ(Poll(fd, POLLOUT, kDeadlineMs), POLLOUT | kEnd);
  EXPECT_EQ(TakeError(fd), ECONNREFUSED);
  EXPECT_EQ(TakeError(fd), 0);
  EXPECT_EQ(Events(fd), POLLOUT | POLLHUP);
}

TEST_F(RfcommContract, ConnectWithoutWaitingIsTakenUpByPoll) {
  Listen();
  ASSERT_TRUE(Soon([this] {
    caller_ = NewSocket(/*blocking=*/false);
    const int error = Connect(caller_, lumso_contract::device_address);
    if (error == EBUSY) return false;
    // Where the session is there already, the stream can be open at once.
    EXPECT_TRUE(error == EINPROGRESS || error == 0) << error;
    if (Poll(caller_, POLLOUT, kDeadlineMs) == POLLOUT) return true;
    EXPECT_PRED1(IsClosing, TakeError(caller_));
    return false;
  }));
  EXPECT_EQ(TakeError(caller_), 0);
  device_ = Fd(accept(listener_, nullptr, nullptr));
  EXPECT_EQ(Write(caller_, "connected"), 9);
  EXPECT_EQ(ReadAll(device_, 9), "connected");
}

TEST_F(RfcommContract, NothingIsWrittenBeforeTheStreamIsOpen) {
  Listen();
  EXPECT_EQ(Write(NewSocket(), "x"), -ENOTCONN);
  ASSERT_TRUE(Soon([this] {
    caller_ = NewSocket(/*blocking=*/false);
    if (Connect(caller_, lumso_contract::device_address) != EINPROGRESS) {
      return false;
    }
    const bool refused = Write(caller_, "x") == -ENOTCONN;
    // Another answer is that of a stream that has opened, or of a session that
    // has ended, meanwhile.
    return Poll(caller_, POLLOUT, kDeadlineMs) == POLLOUT && refused;
  }));
  EXPECT_EQ(Write(caller_, "y"), 1);
  device_ = Fd(accept(listener_, nullptr, nullptr));
  EXPECT_EQ(ReadAll(device_, 1), "y");
}

TEST_F(RfcommContract, TheChannelOfAnOpenStreamIsBusy) {
  Open();
  for (const bool blocking : {true, false}) {
    const Fd second = NewSocket(blocking);
    EXPECT_EQ(Connect(second, lumso_contract::device_address), EBUSY);
    EXPECT_EQ(Connect(second, lumso_contract::device_address), EBADFD);
  }
  EXPECT_EQ(Write(caller_, "untouched"), 9);
  EXPECT_EQ(ReadAll(device_, 9), "untouched");
}

TEST_F(RfcommContract, TheChannelOfAClosingStreamFailsForAWhile) {
  Open();
  int failed = 0;
  for (int round = 0; round < 5; ++round) {
    caller_.Close();
    EXPECT_TRUE(Soon([&] {
      caller_ = NewSocket();
      const int error = Connect(caller_, lumso_contract::device_address);
      if (error == 0) return true;
      EXPECT_TRUE(IsClosing(error)) << strerror(error);
      ++failed;
      return false;
    }));
    device_ = Fd(accept(listener_, nullptr, nullptr));
  }
  EXPECT_GT(failed, 0);
}

TEST_F(RfcommContract, ASocketConnectsOnce) {
  Open();
  EXPECT_EQ(Connect(caller_, lumso_contract::device_address), EBADFD);
}

TEST_F(RfcommContract, ASignalHandlerEndsConnectAndNotTheAttempt) {
  Listen();
  int interrupted = 0;
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(Soon([&] {
      caller_ = NewSocket();
      int error = ConnectInStorm();
      if (error == EINTR) {
        ++interrupted;
        EXPECT_EQ(Connect(caller_, lumso_contract::device_address), EBADFD);
        EXPECT_NE(Poll(caller_, POLLOUT, kDeadlineMs), 0);
        error = TakeError(caller_);
      }
      EXPECT_TRUE(error == 0 || IsClosing(error)) << strerror(error);
      return error == 0;
    }));
    EXPECT_EQ(Events(caller_), POLLOUT);
    device_ = Fd(accept(listener_, nullptr, nullptr));
    EXPECT_EQ(Write(caller_, "works"), 5);
    EXPECT_EQ(ReadAll(device_, 5), "works");
    caller_.Close();
  }
  EXPECT_GT(interrupted, 0);
}

TEST_F(RfcommContract, AnInterruptedAttemptMayFailLater) {
  const bool interrupted = Soon([this] {
    caller_ = NewSocket();
    return ConnectInStorm() == EINTR;
  });
  ASSERT_TRUE(interrupted);
  EXPECT_EQ(Poll(caller_, POLLOUT, kDeadlineMs), POLLOUT | kEnd);
  EXPECT_EQ(TakeError(caller_), ECONNREFUSED);
  EXPECT_EQ(TakeError(caller_), 0);
}

// ---------------------------------------------------------------------------

TEST_F(RfcommContract, BytesArriveInOrderBothWays) {
  Open();
  const std::string bytes = Pattern(20000);
  EXPECT_EQ(Write(caller_, bytes), 20000);
  EXPECT_EQ(ReadAll(device_, bytes.size()), bytes);
  EXPECT_EQ(Write(device_, bytes), 20000);
  EXPECT_EQ(ReadAll(caller_, bytes.size()), bytes);
  EXPECT_EQ(Events(caller_), POLLOUT);
  EXPECT_EQ(ReadNow(caller_), ErrorText(EAGAIN));
}

TEST_F(RfcommContract, OneWriteHasRoomFor23368Bytes) {
  Open();
  SetSendLimit(caller_, milliseconds(500));
  std::atomic<bool> done{false};
  size_t read = 0;
  std::thread reader([&] {
    while (!done) {
      if (Poll(device_, POLLIN, 10) == 0) continue;
      read += ReadNow(device_).size();
    }
    while (Poll(device_, POLLIN, 300) != 0) read += ReadNow(device_).size();
  });
  auto began = steady_clock::now();
  EXPECT_EQ(Write(caller_, Pattern(22000)), 22000);
  EXPECT_LT(steady_clock::now() - began, milliseconds(400));
  // More is waited for until the limit, although the device reads.
  began = steady_clock::now();
  EXPECT_EQ(Write(caller_, Pattern(60000)), 23368);
  EXPECT_GE(steady_clock::now() - began, milliseconds(500));
  // In slices nothing waits.
  const std::string slice = Pattern(4096);
  began = steady_clock::now();
  for (int i = 0; i < 75; ++i) EXPECT_EQ(Write(caller_, slice), 4096);
  EXPECT_LT(steady_clock::now() - began, seconds(10));
  done = true;
  reader.join();
  EXPECT_EQ(read, 22000U + 23368 + 75 * 4096);
}

TEST_F(RfcommContract, AWriteToADeviceThatDoesNotReadEndsAtTheLimit) {
  Open();
  const auto began = steady_clock::now();
  const size_t filled = Fill();
  EXPECT_GE(steady_clock::now() - began, milliseconds(300));
  EXPECT_GE(filled, 50800U);
  EXPECT_LE(filled, 200000U);
  EXPECT_EQ(Events(caller_), 0);
  // Then it reads.
  EXPECT_EQ(ReadAll(device_, filled).size(), filled);
  ASSERT_EQ(Poll(caller_, POLLOUT, kDeadlineMs), POLLOUT);
  EXPECT_EQ(Write(caller_, "on"), 2);
  EXPECT_EQ(ReadAll(device_, 2), "on");
}

TEST_F(RfcommContract, ASignalHandlerEndsABlockedWrite) {
  Open();
  Fill();
  SetSendLimit(caller_, seconds(30));
  const SignalStorm storm(pthread_self());
  const auto began = steady_clock::now();
  EXPECT_EQ(Write(caller_, "x"), -EINTR);
  EXPECT_LT(steady_clock::now() - began, seconds(10));
}

// ---------------------------------------------------------------------------

TEST_F(RfcommContract, TheEndOfTheDeviceIsAnErrorAfterTheBytes) {
  Open();
  ASSERT_EQ(Write(device_, "last words"), 10);
  device_.Close();
  WaitForEnd();
  EXPECT_EQ(Events(caller_), POLLIN | POLLOUT | kEnd);
  EXPECT_EQ(ReadNow(caller_), "last words");
  EXPECT_EQ(Events(caller_), POLLOUT | kEnd);
  char byte;
  EXPECT_EQ(read(caller_, &byte, 1), -1);
  EXPECT_EQ(errno, ECONNRESET);
}

TEST_F(RfcommContract, TheErrorIsHandedOutOnceToARead) {
  Open();
  device_.Close();
  WaitForEnd();
  EXPECT_EQ(ReadNow(caller_), ErrorText(ECONNRESET));
  EXPECT_EQ(Events(caller_), POLLOUT | POLLHUP);
  EXPECT_EQ(ReadNow(caller_), ErrorText(EAGAIN));
  EXPECT_EQ(TakeError(caller_), 0);
  EXPECT_EQ(Write(caller_, "x"), -ENOTCONN);
  EXPECT_EQ(Events(caller_), POLLOUT | POLLHUP);
  EXPECT_EQ(signals_handled, 0) << "SIGPIPE";
}

TEST_F(RfcommContract, TheErrorIsHandedOutOnceToAWriteBeforeTheBytes) {
  Open();
  ASSERT_EQ(Write(device_, "unread"), 6);
  device_.Close();
  WaitForEnd();
  EXPECT_EQ(Write(caller_, "x"), -ECONNRESET);
  EXPECT_EQ(Events(caller_), POLLIN | POLLOUT | POLLHUP);
  EXPECT_EQ(Write(caller_, "x"), -ENOTCONN);
  EXPECT_EQ(ReadNow(caller_), "unread");
  EXPECT_EQ(ReadNow(caller_), ErrorText(EAGAIN));
  EXPECT_EQ(signals_handled, 0) << "SIGPIPE";
}

TEST_F(RfcommContract, TheErrorIsHandedOutOnceToGetsockopt) {
  Open();
  device_.Close();
  WaitForEnd();
  EXPECT_EQ(TakeError(caller_), ECONNRESET);
  EXPECT_EQ(TakeError(caller_), 0);
  EXPECT_EQ(ReadNow(caller_), ErrorText(EAGAIN));
  EXPECT_EQ(Write(caller_, "x"), -ENOTCONN);
}

TEST_F(RfcommContract, ABlockedWriteTakesTheErrorToo) {
  Open();
  Fill();
  SetSendLimit(caller_, seconds(30));
  std::thread end([this] {
    std::this_thread::sleep_for(milliseconds(100));
    device_.Close();
  });
  const auto began = steady_clock::now();
  const ssize_t error = Write(caller_, Pattern(4096));
  EXPECT_GE(steady_clock::now() - began, milliseconds(50)) << "not blocked";
  end.join();
  EXPECT_TRUE(error == -ECONNRESET || error == -ENOTCONN) << error;
  EXPECT_EQ(TakeError(caller_), 0);
  EXPECT_EQ(Events(caller_), POLLOUT | POLLHUP);
  EXPECT_EQ(ReadNow(caller_), ErrorText(EAGAIN));
}

// Only a signal ends it: a library that comes here is stuck.
TEST_F(RfcommContract, AfterTheErrorAReadWaitsForEver) {
  Install(SIGUSR1, 0);
  Open();
  device_.Close();
  WaitForEnd();
  EXPECT_EQ(TakeError(caller_), ECONNRESET);
  std::atomic<pid_t> thread{0};
  std::atomic<bool> returned{false};
  int error = 0;
  std::thread reader([&] {
    thread = gettid();
    char byte;
    error = read(caller_, &byte, 1) < 0 ? errno : 0;
    returned = true;
  });
  EXPECT_TRUE(Soon([&] { return Sleeps(thread); }));
  EXPECT_FALSE(returned);
  EXPECT_EQ(shutdown(caller_, SHUT_RDWR), 0);
  std::this_thread::sleep_for(milliseconds(300));
  EXPECT_FALSE(returned);
  EXPECT_TRUE(Soon([&] {
    if (!returned) pthread_kill(reader.native_handle(), SIGUSR1);
    return returned.load();
  }));
  reader.join();
  EXPECT_EQ(error, EINTR);
  // One that begins only now is told of our own end.
  EXPECT_EQ(ReadNow(caller_), "end");
}

// ---------------------------------------------------------------------------

TEST_F(RfcommContract, AnyShutdownEndsBothDirections) {
  Listen();
  for (const int how : {SHUT_RD, SHUT_WR, SHUT_RDWR}) {
    SCOPED_TRACE(how);
    OpenAgain();
    ASSERT_EQ(Write(caller_, "ours"), 4);
    ASSERT_EQ(ReadAll(device_, 4), "ours");
    ASSERT_EQ(Write(device_, "queued"), 6);
    ASSERT_EQ(Poll(caller_, POLLIN, kDeadlineMs), POLLIN);
    EXPECT_EQ(shutdown(caller_, how), 0);
    EXPECT_EQ(Events(caller_) & ~POLLOUT, POLLIN | POLLHUP);
    EXPECT_EQ(Write(caller_, "x"), -EPIPE);
    EXPECT_EQ(ReadNow(caller_), "queued");
    EXPECT_EQ(ReadNow(caller_), "end");
    EXPECT_EQ(ReadNow(caller_), "end");
    EXPECT_EQ(TakeError(caller_), 0);
    // The other end is told as of a close.
    ASSERT_NE(Poll(device_, 0, kDeadlineMs), 0);
    EXPECT_EQ(Events(device_), POLLOUT | kEnd);
    EXPECT_EQ(ReadNow(device_), ErrorText(ECONNRESET));
    EXPECT_EQ(ReadNow(device_), ErrorText(EAGAIN));
    EXPECT_EQ(signals_handled, 0) << "SIGPIPE";
    device_.Close();
  }
}

// Something that waits on a thread of its own until the stream ends.
class Waiter {
 public:
  template <typename Wait>
  explicit Waiter(Wait wait)
      : thread_([this, wait] {
          id_ = gettid();
          result_ = wait();
        }) {}
  ~Waiter() { thread_.join(); }
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  bool sleeps() const { return Sleeps(id_); }
  long result() const { return result_; }

 private:
  std::atomic<pid_t> id_{0};
  std::atomic<long> result_{-1};
  std::thread thread_;
};

TEST_F(RfcommContract, EitherEndWakesAWaitingPoll) {
  Listen();
  for (const bool own : {false, true}) {
    SCOPED_TRACE(own ? "shut down" : "closed by the device");
    OpenAgain();
    const Waiter waiter([this] { return Poll(caller_, POLLIN, kDeadlineMs); });
    EXPECT_TRUE(Soon([&] { return waiter.sleeps(); }));
    if (own) {
      EXPECT_EQ(shutdown(caller_, SHUT_RDWR), 0);
    } else {
      device_.Close();
    }
    EXPECT_TRUE(Soon([&] {
      return waiter.result() == (own ? POLLIN | POLLHUP : kEnd);
    })) << waiter.result();
  }
}

TEST_F(RfcommContract, AShutdownWakesABlockedRead) {
  Open();
  const Waiter waiter([this] {
    char byte;
    return read(caller_, &byte, 1);
  });
  EXPECT_TRUE(Soon([&] { return waiter.sleeps(); }));
  EXPECT_EQ(shutdown(caller_, SHUT_RDWR), 0);
  EXPECT_TRUE(Soon([&] { return waiter.result() == 0; }));
}

TEST_F(RfcommContract, AShutdownAfterTheEndLeavesTheErrorFirst) {
  Open();
  device_.Close();
  WaitForEnd();
  EXPECT_EQ(shutdown(caller_, SHUT_RDWR), 0);
  EXPECT_EQ(ReadNow(caller_), ErrorText(ECONNRESET));
  EXPECT_EQ(ReadNow(caller_), "end");
}

}  // namespace
