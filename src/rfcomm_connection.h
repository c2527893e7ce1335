#ifndef LUMSO_BLUETOOTH_SRC_RFCOMM_CONNECTION_H_
#define LUMSO_BLUETOOTH_SRC_RFCOMM_CONNECTION_H_

#include <bluetooth/bluetooth.h>
#include <bluetooth/rfcomm.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace lumso_bluetooth {

// -- Sockets, of connections and of the prober --------------------------------

// Fills in the kernel's socket address of RFCOMM channel 1 of `address` (six
// two-digit hexadecimal fields joined by colons, as str2ba() of libbluetooth
// takes them). Returns false when it is not an address. Any thread.
bool ParseRfcommAddress(const std::string& address, sockaddr_rc* remote);

// Returns a new RFCOMM stream socket, close-on-exec and owned by the caller, or
// -1 with errno set. Any thread.
int OpenRfcommSocket();

// Takes the pending error of a socket (SO_ERROR), which the kernel hands out
// once. Returns 0 when there is none or it cannot be asked. Any thread.
int TakeSocketError(int fd);

// Reads up to `size` bytes from an RFCOMM socket right after a poll() for
// POLLIN reported `revents` (not 0) on it. Never waits. Returns their count, 0
// at the end of the stream, or -1 with errno set. What is queued comes before
// the end. Any thread.
//
// The kernel hands the error of an ended stream out once. Where a write() took
// it, poll() goes on to report POLLHUP, and a read() that may wait would sleep
// for ever: neither shutdown() nor close() wakes it.
ssize_t ReadReady(int fd, short revents, void* data, size_t size);

// Writes `count` bytes to a blocking RFCOMM socket, in slices that the kernel
// can send, and goes on after signals. Returns whether it took them all; if
// not, errno is the failed write()'s, or unchanged when a write() took 0 bytes.
// Does not suppress SIGPIPE. Any thread.
//
// Waits for the peer, without a bound of its own. A peer that takes nothing
// fails it: after 30 s, or after 60 s where the kernel first returns the short
// count of what it had placed. One that takes a frame now and then does not.
bool WriteAll(int fd, const void* data, size_t count);

// -- Threads, of connections and of the prober --------------------------------

// Starts a thread called `name` (a literal of at most 15 characters) that takes
// none of the host's signals: all are blocked on it from the start but those of
// the thread's own faults (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS,
// SIGABRT), which stay as on the caller, so that a crash reaches the host's
// handler. The caller's mask is unchanged. Throws std::system_error when no
// thread can be made. Any thread.
std::thread StartThread(const char* name, std::function<void()> body);

// -- Connections --------------------------------------------------------------

// One outgoing RFCOMM stream to channel 1 of a remote device, made fresh for
// each attempt to connect.
//
// The object owns its socket and one reader thread, which hands every run of
// received bytes to a callback. All methods belong to the main thread; the
// callback runs on the reader thread. Calls of Write() alone may come from
// several threads, and take turns; none may run beside Connect() or Close().
// Failures are written to standard error, one line each, and returned as false.
class RfcommConnection {
 public:
  // Receives what the reader thread reads: 1 to 2048 bytes with `end` false,
  // valid for the duration of the call; then, as the reader's last act, null
  // and 0 with `end` true. It must take no lock that the caller of Close()
  // holds, and must neither close nor destroy its connection: Close() joins
  // the thread it runs on.
  using DataCallback =
      std::function<void(const uint8_t* data, size_t count, bool end)>;

  RfcommConnection() = default;
  RfcommConnection(const RfcommConnection&) = delete;
  RfcommConnection& operator=(const RfcommConnection&) = delete;

  // Does what Close() does.
  ~RfcommConnection();

  // Connects to channel 1 of `address` (as ParseRfcommAddress() takes it).
  // Blocks as long as the kernel tries: at once when the peer refuses, about
  // 30 s when it stays silent. Signal handlers that run meanwhile change
  // nothing. Returns whether the stream is open.
  bool Connect(const std::string& address);

  // Starts the reader thread. Without an open socket it does nothing, and
  // `on_data` never runs. Call it once. Throws std::system_error when no thread
  // can be made.
  void Start(DataCallback on_data);

  // Writes `count` bytes as WriteAll() does and returns whether the socket took
  // them all; what was sent before a failure stays sent. Silent and false when
  // closed. SIGPIPE is left to the host; kernel RFCOMM sockets raise none.
  bool Write(const uint8_t* data, size_t count);

  // Ends the stream, waits for the reader's end call and closes the socket.
  // Returns at once, also when the peer vanished without a word. May be called
  // at any point and again.
  void Close();

 private:
  // Body of the reader thread.
  void ReadLoop();

  int fd_ = -1;                       // the socket; -1 when none is held
  int wake_fd_ = -1;                  // eventfd that ends the reader's wait
  std::thread reader_;                // runs ReadLoop() from Start() on
  std::atomic<bool> running_{false};  // the reader goes on while it is set
  std::mutex write_mutex_;            // one Write() at a time, whoever calls
  DataCallback on_data_;              // set before the reader starts
};

}  // namespace lumso_bluetooth

#endif  // LUMSO_BLUETOOTH_SRC_RFCOMM_CONNECTION_H_
