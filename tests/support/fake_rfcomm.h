// RFCOMM without Bluetooth in the kernel. The test program that links this
// defines libc's socket calls itself, ahead of libc: a socket asked for with
// AF_BLUETOOTH becomes one end of an RfcommLink, and connecting it hands the
// other end to a scripted device of the test, or to a socket of this process
// that listens. Every other descriptor goes straight to libc, without a lock
// and without an allocation.

#ifndef LUMSO_BLUETOOTH_TESTS_SUPPORT_FAKE_RFCOMM_H_
#define LUMSO_BLUETOOTH_TESTS_SUPPORT_FAKE_RFCOMM_H_

#include <poll.h>
#include <sys/time.h>
#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/rfcomm_link.h"

namespace lumso_test {

// How long anything here waits before it reports a failure.
constexpr std::chrono::seconds kFakeDeadline(20);

enum class Call {
  kSocket,
  kEventfd,
  kSetDescriptorFlags,
  kGetFlags,
  kSetFlags,
  kConnect,
  kAccept,
  kPoll,
  kPendingError,
  kRead,  // read(), and recv() without waiting
  kWrite,
  kShutdown,
  kClose,
  kWakeWrite,  // eventfd_write(); this and the next are scripted, not recorded
  kWakeClose,
};

// One call on an RFCOMM socket, in the order in which the calls returned.
struct CallRecord {
  Call call;
  int socket;        // 1 for the first RFCOMM socket made, 2 for the next, ...
  int fd;            // its descriptor, which later sockets may reuse
  pid_t thread;      // the caller
  int64_t argument;  // socket: type; connect: address length; poll: timeout in
                     // ms; read, write: bytes offered; shutdown: how;
                     // set flags: the flags
  short events;      // poll: what was asked for
  int status_flags;  // connect, read, write: the socket's O_ flags
  int64_t result;
  int error;          // errno after a negative result
  std::string bytes;  // connect: the address as passed; read, write: the bytes
  unsigned long entries = 0;  // poll: how many descriptors
};

// What one call does instead of, or before, reaching the kernel.
struct Step {
  std::function<void()> before;   // runs first, on the calling thread
  std::optional<int64_t> result;  // the answer; the kernel is not asked
  int error = 0;                  // errno to go with it
  size_t limit = 0;               // at most so many bytes pass, when not 0
};

inline Step Pass() { return {}; }
inline Step Fail(int error) { return {nullptr, -1, error, 0}; }
// For kPendingError `value` is the error that the socket reports, and -1 fails
// the call that asks for it. Closing fails after the fact, as in the kernel.
inline Step Return(int64_t value, int error = 0) {
  return {nullptr, value, error, 0};
}
inline Step AtMost(size_t bytes) { return {nullptr, std::nullopt, 0, bytes}; }
inline Step After(std::function<void()> before) {
  return {std::move(before), std::nullopt, 0, 0};
}

// The device's end of one connection. Any thread; every wait has a deadline.
class Peer {
 public:
  explicit Peer(std::shared_ptr<RfcommLink> link) : link_(std::move(link)) {}
  ~Peer() { Close(); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  // Sends all of `bytes`; false once the other side has closed.
  bool Send(std::string_view bytes);
  // Waits for `count` bytes; fewer when the stream ends first.
  std::string Receive(size_t count);
  // Waits until what was received ends in `terminator`, and returns it.
  std::string ReceiveUntil(std::string_view terminator);
  // Returns all that still comes before the end of the stream; nothing when
  // the stream does not end in time.
  std::optional<std::string> ReceiveAll();
  // Waits until the other side has read all that was sent.
  bool WaitUntilRead();
  // Waits until the other side has closed its descriptor; reads nothing.
  bool WaitForClose();
  // Ends both directions and keeps the descriptor.
  void Shutdown();
  void Close();
  // The radio link is lost: the other side gets `error`.
  void Lose(int error);

 private:
  // Waits for `events`; false at the deadline.
  bool WaitFor(short events);

  const std::shared_ptr<RfcommLink> link_;
};

// The air: every RFCOMM socket of the process while it exists. One at a time.
class FakeRfcomm {
 public:
  // Runs on a thread of its own for each connection; the device closes when it
  // returns.
  using Behaviour = std::function<void(Peer& peer)>;

  FakeRfcomm();
  // Aborts the devices, joins their threads.
  ~FakeRfcomm();
  FakeRfcomm(const FakeRfcomm&) = delete;
  FakeRfcomm& operator=(const FakeRfcomm&) = delete;

  // Puts a device on the air, or gives the one there another behaviour.
  // Without a behaviour its connections wait for NextPeer(). To an address
  // without a device, connecting fails with EHOSTDOWN; to one whose channel is
  // open or still closing, with EBUSY. On a closing one the kernel may also
  // fail with ECONNRESET or ECONNREFUSED, which a test scripts.
  void AddDevice(const std::string& address, Behaviour behaviour = nullptr);
  // Waits for the next connection to `address`; null at the deadline.
  std::shared_ptr<Peer> NextPeer(const std::string& address);

  // Waits until the behaviours begun so far have returned.
  void JoinDevices();

  // From now on a stream that the device ended is read as 0, and writing to it
  // raises SIGPIPE: what a local stream does, and RFCOMM does not.
  void EndLikeALocalStream();
  // How long a write waits for room; 30 s as in the kernel unless set.
  void SetSendLimit(std::chrono::milliseconds limit);
  // How long a connection takes to come about; nothing unless set.
  void SetConnectTime(std::chrono::milliseconds duration);
  // How long a channel stays taken after its end; nothing unless set.
  void SetClosingTime(std::chrono::milliseconds duration);

  // The next calls of that kind take these steps, then the rest pass: on
  // sockets connected (or connecting) to `address`, or on any socket. What
  // comes before connect() belongs to no address yet, and an eventfd to none.
  void Script(const std::string& address, Call call, std::vector<Step> steps);
  void Script(Call call, std::vector<Step> steps) {
    Script("", call, std::move(steps));
  }

  std::vector<CallRecord> calls() const;
  // The calls of one kind, on one socket or (0) on all.
  std::vector<CallRecord> calls(Call call, int socket = 0) const;
  size_t count(Call call, int socket = 0) const {
    return calls(call, socket).size();
  }
  // Sockets made so far; sockets not closed yet.
  int sockets() const;
  size_t open_sockets() const;
  // From now on keeps no record of calls, of addresses, nor of a device's end
  // that nobody else holds, which closes it: for runs whose records would fill
  // the memory. Call it before the first connection.
  void KeepNoRecords();
  // The address that a socket was connected to.
  std::string address(int socket) const;
  // Tells whether every socket and eventfd made so far was closed exactly once.
  bool EachClosedOnce() const;

  // For the interposed calls; see the source.
  int OnSocket(int type);
  int OnBind(int fd, const void* address, uint32_t length);
  int OnListen(int fd);
  int OnAccept(int fd);
  int OnConnect(int fd, const void* address, uint32_t length);
  int OnEventfd(unsigned count, int flags);
  int OnPoll(int fd, pollfd* waits, unsigned long count, int timeout);
  ssize_t OnRead(int fd, void* data, size_t size, bool waits);
  ssize_t OnWrite(int fd, const void* data, size_t size);
  int OnShutdown(int fd, int how);
  int OnClose(int fd);
  void OnStaleClose(int fd);
  int OnWakeWrite(int fd, uint64_t value);
  int OnWakeClose(int fd);
  int OnFcntl(int fd, int command, void* argument);
  int OnGetOption(int fd, int option, void* value, uint32_t* length);
  int OnSetOption(int fd, int option, const void* value, uint32_t length);

 private:
  using Clock = std::chrono::steady_clock;

  enum class State { kFresh, kListening, kConnecting, kConnected, kRefused };

  struct Socket {
    int number;
    std::shared_ptr<RfcommLink> link;
    RfcommLink::Side side;
    std::string address;  // connected to, or bound to
    State state = State::kFresh;
    bool handed_over = false;  // somebody has the other end
    int outcome = 0;           // while it connects: the error to come
    Clock::time_point ready_at = {};
    timeval send_limit = {kRfcommSendLimit.count(), 0};  // as told
    std::deque<std::shared_ptr<RfcommLink>> waiting;     // while it listens
  };
  struct Device {
    Behaviour behaviour;
    std::deque<std::shared_ptr<Peer>> waiting;
    bool present = false;  // scripted by the test
    int listener = -1;     // or a socket of this process
  };

  CallRecord Begin(Call call, int fd, int64_t argument) const;
  void End(CallRecord record, int64_t result);
  Step NextStep(Call call, int fd);
  // These take the lock.
  Socket Find(int fd) const;
  void HandOver(int fd);
  bool IsConnected(int fd);
  short Events(int fd, short wanted);
  int PendingError(int fd);
  int BeginConnect(int fd, const std::string& device, bool waits,
                   const Step& step);
  int WaitUntilConnected(int fd);
  int Poll(pollfd* waits, unsigned long count, int timeout);
  // These want the lock.
  bool Settled(Socket* socket);
  bool IsTaken(const std::string& address) const;
  void Add(int fd, std::shared_ptr<RfcommLink> link, RfcommLink::Side side,
           State state);

  mutable std::mutex mutex_;  // guards everything below
  std::condition_variable arrived_;
  std::map<std::string, Device> devices_;
  std::map<std::pair<std::string, Call>, std::deque<Step>> scripts_;
  std::map<int, Socket> sockets_;         // by descriptor, the open ones
  std::map<int, std::string> addresses_;  // by socket number
  std::map<int, int> last_socket_;        // descriptor to socket number
  std::vector<CallRecord> calls_;
  std::vector<std::shared_ptr<Peer>> peers_;
  std::vector<std::thread> threads_;
  int made_ = 0;
  std::set<int> wakes_;  // eventfds that are open
  bool wake_closed_twice_ = false;
  bool keeps_records_ = true;
  // The last stream to each address.
  std::map<std::string, std::shared_ptr<RfcommLink>> channels_;
  bool local_ends_ = false;
  std::chrono::microseconds send_limit_ = kRfcommSendLimit;
  std::chrono::milliseconds connect_time_{0};
  std::chrono::milliseconds closing_time_{0};
};

// Holds the sleeps of background threads. While one exists, nanosleep on any
// thread but the main one and the devices' waits for a permit, and then returns
// at once. Who joins a thread that slept here opens the gate: whatever was to
// stop the thread is set by then. One at a time.
class SleepGate {
 public:
  SleepGate();
  // Lets every sleeper go.
  ~SleepGate();
  SleepGate(const SleepGate&) = delete;
  SleepGate& operator=(const SleepGate&) = delete;

  // Permits `count` more sleeps.
  void Allow(int count);
  // Permits every sleep from now on.
  void Open();
  // The next permitted sleep fails with EINTR and that time left.
  void InterruptNext(std::chrono::nanoseconds left);
  // Waits until `count` sleeps have begun, the waiting one included.
  bool WaitForSleeps(size_t count);
  // How long each sleep was to last, in the order of their beginnings.
  std::vector<std::chrono::nanoseconds> sleeps() const;
};

// What the process holds right now.
size_t CountDescriptors();
size_t CountThreads();
// Threads whose name (at most 15 characters) is `name`.
size_t CountThreadsNamed(const std::string& name);

// Waits for a condition without a main loop; false at the deadline.
bool Eventually(const std::function<bool()>& condition);

}  // namespace lumso_test

#endif  // LUMSO_BLUETOOTH_TESTS_SUPPORT_FAKE_RFCOMM_H_
