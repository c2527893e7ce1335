#include "tests/support/fake_rfcomm.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

// The interposed functions run before main(), inside sanitizer runtimes and on
// threads that GLib starts. Up to the point where a descriptor turns out to be
// ours they use nothing but plain memory, and no sanitizer looks at them.
#define LUMSO_EARLY \
  __attribute__((no_sanitize("address", "thread", "undefined")))

#ifdef __has_feature
#if __has_feature(thread_sanitizer)
#define LUMSO_THREAD_SANITIZER
#endif
#elif defined(__SANITIZE_THREAD__)
#define LUMSO_THREAD_SANITIZER
#endif

namespace {

constexpr int kBluetoothFamily = 31;
constexpr int kRfcommProtocol = 3;

// What a descriptor number stands for; written under the lock of FakeRfcomm,
// read without one.
enum Mark : unsigned char { kForeign, kOurs, kClosed, kWake, kWakeClosed };
constexpr int kMaxDescriptors = 65536;
unsigned char marks[kMaxDescriptors];

lumso_test::FakeRfcomm* current = nullptr;

// Set between making an RFCOMM socket and connecting it: the connection's
// eventfd is made there, GLib's are not.
thread_local bool connecting = false;

// Set on the devices' threads.
thread_local bool is_device = false;

LUMSO_EARLY int MarkOf(int fd) {
  if (fd < 0 || fd >= kMaxDescriptors) return kForeign;
  return __atomic_load_n(&marks[fd], __ATOMIC_ACQUIRE);
}

void SetMark(int fd, Mark mark) {
  if (fd < kMaxDescriptors) {
    __atomic_store_n(&marks[fd], mark, __ATOMIC_RELEASE);
  }
}

LUMSO_EARLY lumso_test::FakeRfcomm* Current() {
  return __atomic_load_n(&current, __ATOMIC_ACQUIRE);
}

// The definitions behind ours: libc's, or a sanitizer's interceptors of them.
//
// For the thread sanitizer they are libc's even so, but for joining. It leaves
// GLib's calls out by the library that makes them, and that would always be
// this program.
struct NextFunctions {
  int (*socket)(int, int, int);
  int (*connect)(int, const sockaddr*, socklen_t);
  int (*eventfd)(unsigned, int);
  int (*eventfd_write)(int, eventfd_t);
  int (*poll)(pollfd*, nfds_t, int);
  ssize_t (*read)(int, void*, size_t);
  ssize_t (*write)(int, const void*, size_t);
  ssize_t (*send)(int, const void*, size_t, int);
  int (*shutdown)(int, int);
  int (*close)(int);
  int (*fcntl)(int, int, ...);
  int (*getsockopt)(int, int, int, void*, socklen_t*);
  int (*nanosleep)(const timespec*, timespec*);
  int (*clock_nanosleep)(clockid_t, int, const timespec*, timespec*);
  int (*pthread_join)(pthread_t, void**);
};
NextFunctions next;

LUMSO_EARLY void* Find(const char* name) {
#ifdef LUMSO_THREAD_SANITIZER
  if (std::strcmp(name, "pthread_join") != 0) {
    return dlsym(dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD), name);
  }
#endif
  return dlsym(RTLD_NEXT, name);
}

template <typename Function>
LUMSO_EARLY Function Next(Function* slot, const char* name) {
  Function found = __atomic_load_n(slot, __ATOMIC_RELAXED);
  if (found == nullptr) {
    found = reinterpret_cast<Function>(Find(name));
    __atomic_store_n(slot, found, __ATOMIC_RELAXED);
  }
  return found;
}

// Holds the sleeps of the background threads; outlives every sleeper.
struct Sleeps {
  std::mutex mutex;
  std::condition_variable changed;
  bool held = false;
  bool open = false;
  int permits = 0;
  std::deque<std::chrono::nanoseconds> interruptions;
  std::vector<std::chrono::nanoseconds> begun;
  std::vector<pthread_t> sleepers;
};

Sleeps& TheSleeps() {
  static auto* const sleeps = new Sleeps;
  return *sleeps;
}

bool sleeps_held = false;

LUMSO_EARLY bool IsHeldSleeper() {
  return __atomic_load_n(&sleeps_held, __ATOMIC_ACQUIRE) && !is_device &&
         getpid() != gettid();
}

// Waits for a permit; 0, or EINTR with the time left in `left`.
int HoldSleep(const timespec& duration, timespec* left) {
  Sleeps& sleeps = TheSleeps();
  std::unique_lock<std::mutex> lock(sleeps.mutex);
  sleeps.begun.push_back(std::chrono::seconds(duration.tv_sec) +
                         std::chrono::nanoseconds(duration.tv_nsec));
  sleeps.sleepers.push_back(pthread_self());
  sleeps.changed.notify_all();
  sleeps.changed.wait(lock,
                      [&sleeps] { return sleeps.open || sleeps.permits > 0; });
  if (!sleeps.open) --sleeps.permits;
  if (sleeps.interruptions.empty()) return 0;
  const auto rest = sleeps.interruptions.front();
  sleeps.interruptions.pop_front();
  if (left != nullptr) {
    left->tv_sec = rest / std::chrono::seconds(1);
    left->tv_nsec = (rest % std::chrono::seconds(1)).count();
  }
  return EINTR;
}

// Opens the gate when `thread` is one of those that slept behind it.
void OpenGateFor(pthread_t thread) {
  Sleeps& sleeps = TheSleeps();
  const std::lock_guard<std::mutex> lock(sleeps.mutex);
  if (std::any_of(sleeps.sleepers.begin(), sleeps.sleepers.end(),
                  [thread](pthread_t sleeper) {
                    return pthread_equal(thread, sleeper) != 0;
                  })) {
    sleeps.open = true;
    sleeps.changed.notify_all();
  }
}

}  // namespace

extern "C" {

LUMSO_EARLY int socket(int domain, int type, int protocol) __THROW {
  lumso_test::FakeRfcomm* const fake = Current();
  if (fake != nullptr && domain == kBluetoothFamily &&
      protocol == kRfcommProtocol) {
    return fake->OnSocket(type);
  }
  return Next(&next.socket, "socket")(domain, type, protocol);
}

LUMSO_EARLY int connect(int fd, const sockaddr* address, socklen_t length) {
  if (MarkOf(fd) == kOurs) return Current()->OnConnect(fd, address, length);
  return Next(&next.connect, "connect")(fd, address, length);
}

LUMSO_EARLY int eventfd(unsigned count, int flags) __THROW {
  if (connecting && Current() != nullptr) {
    return Current()->OnEventfd(count, flags);
  }
  return Next(&next.eventfd, "eventfd")(count, flags);
}

LUMSO_EARLY int eventfd_write(int fd, eventfd_t value) {
  if (MarkOf(fd) == kWake) return Current()->OnWakeWrite(fd, value);
  return Next(&next.eventfd_write, "eventfd_write")(fd, value);
}

LUMSO_EARLY int poll(pollfd* fds, nfds_t count, int timeout) {
  for (nfds_t i = 0; i < count; ++i) {
    if (MarkOf(fds[i].fd) == kOurs) {
      return Current()->OnPoll(fds[i].fd, fds, count, timeout);
    }
  }
  return Next(&next.poll, "poll")(fds, count, timeout);
}

LUMSO_EARLY ssize_t read(int fd, void* data, size_t size) {
  if (MarkOf(fd) == kOurs) return Current()->OnRead(fd, data, size);
  return Next(&next.read, "read")(fd, data, size);
}

LUMSO_EARLY ssize_t write(int fd, const void* data, size_t size) {
  if (MarkOf(fd) == kOurs) return Current()->OnWrite(fd, data, size);
  return Next(&next.write, "write")(fd, data, size);
}

LUMSO_EARLY int shutdown(int fd, int how) __THROW {
  if (MarkOf(fd) == kOurs) return Current()->OnShutdown(fd, how);
  return Next(&next.shutdown, "shutdown")(fd, how);
}

LUMSO_EARLY int close(int fd) {
  const int mark = MarkOf(fd);
  if (mark == kOurs) return Current()->OnClose(fd);
  if (mark == kWake) return Current()->OnWakeClose(fd);
  const int result = Next(&next.close, "close")(fd);
  // The number was one of ours, and nobody has taken it since.
  if (mark != kForeign && result < 0 && errno == EBADF &&
      Current() != nullptr) {
    Current()->OnStaleClose(fd);
    errno = EBADF;
  }
  return result;
}

LUMSO_EARLY int fcntl(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (MarkOf(fd) == kOurs) return Current()->OnFcntl(fd, command, argument);
  return Next(&next.fcntl, "fcntl")(fd, command, argument);
}

LUMSO_EARLY int getsockopt(int fd, int level, int option, void* value,
                           socklen_t* length) __THROW {
  if (MarkOf(fd) == kOurs && level == SOL_SOCKET && option == SO_ERROR &&
      *length == sizeof(int)) {
    return Current()->OnPendingError(fd, static_cast<int*>(value));
  }
  return Next(&next.getsockopt, "getsockopt")(fd, level, option, value, length);
}

LUMSO_EARLY int nanosleep(const timespec* duration, timespec* left) {
  if (!IsHeldSleeper()) {
    return Next(&next.nanosleep, "nanosleep")(duration, left);
  }
  const int error = HoldSleep(*duration, left);
  if (error == 0) return 0;
  errno = error;
  return -1;
}

LUMSO_EARLY int clock_nanosleep(clockid_t clock, int flags,
                                const timespec* duration, timespec* left) {
  // A sleep up to a point in time keeps its length to itself; libc's own
  // nanosleep() may come here too, on threads that are not held.
  if (flags != 0 || !IsHeldSleeper()) {
    return Next(&next.clock_nanosleep, "clock_nanosleep")(clock, flags,
                                                          duration, left);
  }
  return HoldSleep(*duration, left);
}

LUMSO_EARLY int pthread_join(pthread_t thread, void** value) {
  if (__atomic_load_n(&sleeps_held, __ATOMIC_ACQUIRE)) OpenGateFor(thread);
  return Next(&next.pthread_join, "pthread_join")(thread, value);
}

}  // extern "C"

namespace lumso_test {

namespace {

pid_t ThisThread() { return gettid(); }

int StatusFlags(int fd) {
  return Next(&next.fcntl, "fcntl")(fd, F_GETFL, nullptr);
}

// Six colon-separated fields, as BlueZ writes an address; `data` holds the
// kernel's order, last byte first.
std::string AddressText(const unsigned char* data) {
  char text[18];
  std::snprintf(text, sizeof(text), "%02X:%02X:%02X:%02X:%02X:%02X", data[5],
                data[4], data[3], data[2], data[1], data[0]);
  return text;
}

}  // namespace

// ---------------------------------------------------------------------------
// Peer

bool Peer::WaitFor(short events) {
  pollfd wait = {fd_, events, 0};
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(kFakeDeadline);
  return fd_ >= 0 && poll(&wait, 1, static_cast<int>(milliseconds.count())) > 0;
}

bool Peer::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    if (!WaitFor(POLLOUT)) return false;
    const ssize_t sent = Next(&next.send, "send")(
        fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno != EAGAIN && errno != EINTR) return false;
    if (sent > 0) bytes.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

std::string Peer::Receive(size_t count) {
  std::string received(count, '\0');
  size_t size = 0;
  while (size < count && WaitFor(POLLIN)) {
    const ssize_t got = read(fd_, &received[size], count - size);
    if (got <= 0) break;
    size += static_cast<size_t>(got);
  }
  received.resize(size);
  return received;
}

std::string Peer::ReceiveUntil(std::string_view terminator) {
  std::string received;
  while (received.size() < terminator.size() ||
         received.compare(received.size() - terminator.size(),
                          terminator.size(), terminator) != 0) {
    const std::string byte = Receive(1);
    if (byte.empty()) break;
    received += byte;
  }
  return received;
}

std::optional<std::string> Peer::ReceiveAll() {
  std::string received;
  char chunk[4096];
  while (WaitFor(POLLIN)) {
    const ssize_t got = read(fd_, chunk, sizeof(chunk));
    // A local stream whose other end left bytes unread ends with ECONNRESET.
    if (got <= 0) return received;
    received.append(chunk, static_cast<size_t>(got));
  }
  return std::nullopt;
}

bool Peer::WaitUntilRead() {
  return Eventually([this] {
    int unread = 0;
    return ioctl(fd_, SIOCOUTQ, &unread) == 0 && unread == 0;
  });
}

bool Peer::WaitForClose() { return WaitFor(0); }

void Peer::HalfClose() { shutdown(fd_, SHUT_WR); }

void Peer::Close() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

void Peer::Abort() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (fd_ >= 0) shutdown(fd_, SHUT_RDWR);
}

// ---------------------------------------------------------------------------
// FakeRfcomm

FakeRfcomm::FakeRfcomm() {
  // The thread sanitizer adds a thread of its own when the program makes its
  // first; what counts threads has to find it there from the beginning.
  pid_t first = 0;
  std::thread([&first] { first = gettid(); }).join();
  const std::string folder = "/proc/self/task/" + std::to_string(first);
  Eventually([&] { return access(folder.c_str(), F_OK) != 0; });
  __atomic_store_n(&current, this, __ATOMIC_RELEASE);
}

FakeRfcomm::~FakeRfcomm() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& peer : peers_) peer->Abort();
  }
  JoinDevices();
  for (unsigned char& mark : marks) {
    __atomic_store_n(&mark, kForeign, __ATOMIC_RELEASE);
  }
  __atomic_store_n(&current, static_cast<FakeRfcomm*>(nullptr),
                   __ATOMIC_RELEASE);
}

void FakeRfcomm::AddDevice(const std::string& address, Behaviour behaviour) {
  const std::lock_guard<std::mutex> lock(mutex_);
  devices_[address].behaviour = std::move(behaviour);
}

std::shared_ptr<Peer> FakeRfcomm::NextPeer(const std::string& address) {
  std::unique_lock<std::mutex> lock(mutex_);
  auto& waiting = devices_[address].waiting;
  if (!arrived_.wait_for(lock, kFakeDeadline,
                         [&waiting] { return !waiting.empty(); })) {
    return nullptr;
  }
  std::shared_ptr<Peer> peer = waiting.front();
  waiting.pop_front();
  return peer;
}

void FakeRfcomm::JoinDevices() {
  std::vector<std::thread> threads;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    threads.swap(threads_);
  }
  for (std::thread& thread : threads) thread.join();
}

void FakeRfcomm::Script(const std::string& address, Call call,
                        std::vector<Step> steps) {
  const std::lock_guard<std::mutex> lock(mutex_);
  auto& queue = scripts_[{address, call}];
  for (Step& step : steps) queue.push_back(std::move(step));
}

std::vector<CallRecord> FakeRfcomm::calls() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return calls_;
}

std::vector<CallRecord> FakeRfcomm::calls(Call call, int socket) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<CallRecord> found;
  std::copy_if(calls_.begin(), calls_.end(), std::back_inserter(found),
               [=](const CallRecord& record) {
                 return record.call == call &&
                        (socket == 0 || record.socket == socket);
               });
  return found;
}

int FakeRfcomm::sockets() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return made_;
}

size_t FakeRfcomm::open_sockets() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return sockets_.size();
}

void FakeRfcomm::KeepNoRecords() {
  const std::lock_guard<std::mutex> lock(mutex_);
  keeps_records_ = false;
}

std::string FakeRfcomm::address(int socket) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = addresses_.find(socket);
  return found == addresses_.end() ? "" : found->second;
}

bool FakeRfcomm::EachClosedOnce() const {
  const int made = sockets();
  for (int socket = 1; socket <= made; ++socket) {
    if (count(Call::kClose, socket) != 1) return false;
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  return wakes_closed_ == wakes_made_;
}

CallRecord FakeRfcomm::Begin(Call call, int fd, int64_t argument) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = last_socket_.find(fd);
  return {call,     found == last_socket_.end() ? 0 : found->second,
          fd,       ThisThread(),
          argument, 0,
          0,        0,
          0,        "",
          0};
}

// Keeps errno as the call left it.
void FakeRfcomm::End(CallRecord record, int64_t result) {
  const int error = errno;
  record.result = result;
  record.error = result < 0 ? error : 0;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (keeps_records_) calls_.push_back(std::move(record));
  }
  errno = error;
}

Step FakeRfcomm::NextStep(Call call, int fd) {
  Step step;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto socket = sockets_.find(fd);
    const std::string address =
        socket == sockets_.end() ? "" : socket->second.address;
    for (const std::string& key : {address, std::string()}) {
      auto& queue = scripts_[{key, call}];
      if (queue.empty()) continue;
      step = std::move(queue.front());
      queue.pop_front();
      break;
    }
  }
  if (step.before) step.before();
  errno = step.error;
  return step;
}

int FakeRfcomm::OnSocket(int type) {
  const Step step = NextStep(Call::kSocket, -1);
  CallRecord record = Begin(Call::kSocket, -1, type);
  if (step.result) {
    End(std::move(record), *step.result);
    return static_cast<int>(*step.result);
  }
  int ends[2];
  if (socketpair(AF_UNIX, type, 0, ends) < 0) return -1;
  Next(&next.fcntl, "fcntl")(ends[1], F_SETFD, FD_CLOEXEC);
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    record.socket = ++made_;
    record.fd = ends[0];
    sockets_[ends[0]] = {made_, ends[1], ""};
    last_socket_[ends[0]] = made_;
    SetMark(ends[0], kOurs);
  }
  connecting = true;
  End(std::move(record), ends[0]);
  return ends[0];
}

int FakeRfcomm::OnEventfd(unsigned count, int flags) {
  const Step step = NextStep(Call::kEventfd, -1);
  CallRecord record = Begin(Call::kEventfd, -1, flags);
  const int result = step.result ? static_cast<int>(*step.result)
                                 : Next(&next.eventfd, "eventfd")(count, flags);
  connecting = false;
  if (result >= 0) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++wakes_made_;
    SetMark(result, kWake);
  }
  End(std::move(record), result);
  return result;
}

int FakeRfcomm::OnConnect(int fd, const void* address, uint32_t length) {
  connecting = false;
  const auto* const bytes = static_cast<const unsigned char*>(address);
  CallRecord record = Begin(Call::kConnect, fd, length);
  record.bytes.assign(reinterpret_cast<const char*>(bytes), length);
  record.status_flags = StatusFlags(fd);
  const std::string device = length >= 8 ? AddressText(bytes + 2) : "";
  bool known = false;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    sockets_[fd].address = device;
    if (keeps_records_) addresses_[record.socket] = device;
    known = devices_.count(device) != 0;
  }
  const Step step = NextStep(Call::kConnect, fd);
  int result = 0;
  if (step.result) {
    result = static_cast<int>(*step.result);
  } else if (!known) {
    errno = EHOSTDOWN;
    result = -1;
  }
  const bool reached = result == 0 || errno == EINPROGRESS;
  End(std::move(record), result);
  if (reached && known) {
    const int error = errno;
    HandOver(fd);
    errno = error;
  }
  return result;
}

void FakeRfcomm::HandOver(int fd) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Socket& socket = sockets_[fd];
  auto peer = std::make_shared<Peer>(std::exchange(socket.peer_fd, -1));
  if (!keeps_records_) {
    const auto unused = [](const auto& other) {
      return other.use_count() == 1;
    };
    peers_.erase(std::remove_if(peers_.begin(), peers_.end(), unused),
                 peers_.end());
  }
  peers_.push_back(peer);
  Device& device = devices_[socket.address];
  if (!device.behaviour) {
    device.waiting.push_back(std::move(peer));
    arrived_.notify_all();
    return;
  }
  threads_.emplace_back([peer, behaviour = device.behaviour] {
    is_device = true;
    behaviour(*peer);
    peer->Close();
  });
}

int FakeRfcomm::OnPoll(int fd, void* fds, unsigned long count, int timeout) {
  CallRecord record = Begin(Call::kPoll, fd, timeout);
  record.entries = count;
  auto* const waits = static_cast<pollfd*>(fds);
  for (unsigned long i = 0; i < count; ++i) {
    if (waits[i].fd == fd) record.events = waits[i].events;
  }
  const Step step = NextStep(Call::kPoll, fd);
  int result;
  if (step.result) {
    result = static_cast<int>(*step.result);
    for (unsigned long i = 0; i < count; ++i) waits[i].revents = 0;
  } else {
    result = Next(&next.poll, "poll")(waits, count, timeout);
  }
  End(std::move(record), result);
  return result;
}

ssize_t FakeRfcomm::OnRead(int fd, void* data, size_t size) {
  CallRecord record = Begin(Call::kRead, fd, static_cast<int64_t>(size));
  record.status_flags = StatusFlags(fd);
  const Step step = NextStep(Call::kRead, fd);
  ssize_t result;
  if (step.result) {
    result = *step.result;
  } else {
    result = Next(&next.read, "read")(
        fd, data, step.limit == 0 ? size : std::min(size, step.limit));
    if (result > 0) {
      record.bytes.assign(static_cast<const char*>(data),
                          static_cast<size_t>(result));
    }
  }
  End(std::move(record), result);
  return result;
}

ssize_t FakeRfcomm::OnWrite(int fd, const void* data, size_t size) {
  CallRecord record = Begin(Call::kWrite, fd, static_cast<int64_t>(size));
  record.status_flags = StatusFlags(fd);
  const Step step = NextStep(Call::kWrite, fd);
  ssize_t result;
  if (step.result) {
    result = *step.result;
  } else {
    result = Next(&next.write, "write")(
        fd, data, step.limit == 0 ? size : std::min(size, step.limit));
    if (result > 0) {
      record.bytes.assign(static_cast<const char*>(data),
                          static_cast<size_t>(result));
    }
  }
  End(std::move(record), result);
  return result;
}

int FakeRfcomm::OnShutdown(int fd, int how) {
  CallRecord record = Begin(Call::kShutdown, fd, how);
  const Step step = NextStep(Call::kShutdown, fd);
  const int result = step.result ? static_cast<int>(*step.result)
                                 : Next(&next.shutdown, "shutdown")(fd, how);
  End(std::move(record), result);
  return result;
}

int FakeRfcomm::OnClose(int fd) {
  CallRecord record = Begin(Call::kClose, fd, 0);
  const Step step = NextStep(Call::kClose, fd);
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const int peer_fd = sockets_[fd].peer_fd;
    if (peer_fd >= 0) Next(&next.close, "close")(peer_fd);
    sockets_.erase(fd);
    SetMark(fd, kClosed);
  }
  connecting = false;
  int result = Next(&next.close, "close")(fd);
  if (step.result) {
    result = static_cast<int>(*step.result);
    errno = step.error;
  }
  End(std::move(record), result);
  return result;
}

void FakeRfcomm::OnStaleClose(int fd) {
  if (MarkOf(fd) == kWakeClosed) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++wakes_closed_;
    return;
  }
  CallRecord record = Begin(Call::kClose, fd, 0);
  errno = EBADF;
  End(std::move(record), -1);
}

int FakeRfcomm::OnWakeWrite(int fd, uint64_t value) {
  const Step step = NextStep(Call::kWakeWrite, fd);
  return step.result ? static_cast<int>(*step.result)
                     : Next(&next.eventfd_write, "eventfd_write")(fd, value);
}

int FakeRfcomm::OnWakeClose(int fd) {
  const Step step = NextStep(Call::kWakeClose, fd);
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++wakes_closed_;
    SetMark(fd, kWakeClosed);
  }
  const int result = Next(&next.close, "close")(fd);
  if (!step.result) return result;
  errno = step.error;
  return static_cast<int>(*step.result);
}

int FakeRfcomm::OnFcntl(int fd, int command, void* argument) {
  Call call;
  switch (command) {
    case F_SETFD:
      call = Call::kSetDescriptorFlags;
      break;
    case F_GETFL:
      call = Call::kGetFlags;
      break;
    case F_SETFL:
      call = Call::kSetFlags;
      break;
    default:
      return Next(&next.fcntl, "fcntl")(fd, command, argument);
  }
  CallRecord record =
      Begin(call, fd,
            command == F_GETFL
                ? 0
                : static_cast<int>(reinterpret_cast<intptr_t>(argument)));
  const Step step = NextStep(call, fd);
  const int result = step.result
                         ? static_cast<int>(*step.result)
                         : Next(&next.fcntl, "fcntl")(fd, command, argument);
  End(std::move(record), result);
  return result;
}

int FakeRfcomm::OnPendingError(int fd, int* value) {
  CallRecord record = Begin(Call::kPendingError, fd, 0);
  const Step step = NextStep(Call::kPendingError, fd);
  const int result = step.result && *step.result < 0 ? -1 : 0;
  if (result == 0) *value = static_cast<int>(step.result.value_or(0));
  record.argument = *value;
  End(std::move(record), result);
  return result;
}

// ---------------------------------------------------------------------------
// SleepGate

SleepGate::SleepGate() {
  Sleeps& sleeps = TheSleeps();
  const std::lock_guard<std::mutex> lock(sleeps.mutex);
  sleeps.open = false;
  sleeps.permits = 0;
  sleeps.interruptions.clear();
  sleeps.begun.clear();
  sleeps.sleepers.clear();
  __atomic_store_n(&sleeps_held, true, __ATOMIC_RELEASE);
}

SleepGate::~SleepGate() {
  Open();
  __atomic_store_n(&sleeps_held, false, __ATOMIC_RELEASE);
}

void SleepGate::Allow(int count) {
  Sleeps& sleeps = TheSleeps();
  const std::lock_guard<std::mutex> lock(sleeps.mutex);
  sleeps.permits += count;
  sleeps.changed.notify_all();
}

void SleepGate::Open() {
  Sleeps& sleeps = TheSleeps();
  const std::lock_guard<std::mutex> lock(sleeps.mutex);
  sleeps.open = true;
  sleeps.changed.notify_all();
}

void SleepGate::InterruptNext(std::chrono::nanoseconds left) {
  Sleeps& sleeps = TheSleeps();
  const std::lock_guard<std::mutex> lock(sleeps.mutex);
  sleeps.interruptions.push_back(left);
}

bool SleepGate::WaitForSleeps(size_t count) {
  Sleeps& sleeps = TheSleeps();
  std::unique_lock<std::mutex> lock(sleeps.mutex);
  return sleeps.changed.wait_for(lock, kFakeDeadline, [&sleeps, count] {
    return sleeps.begun.size() >= count;
  });
}

std::vector<std::chrono::nanoseconds> SleepGate::sleeps() const {
  Sleeps& sleeps = TheSleeps();
  const std::lock_guard<std::mutex> lock(sleeps.mutex);
  return sleeps.begun;
}

// ---------------------------------------------------------------------------
// The process

namespace {

std::vector<std::string> ListFolder(const char* path) {
  std::vector<std::string> names;
  DIR* const folder = opendir(path);
  while (const dirent* const entry = readdir(folder)) {
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  closedir(folder);
  return names;
}

}  // namespace

size_t CountDescriptors() { return ListFolder("/proc/self/fd").size(); }

size_t CountThreads() { return ListFolder("/proc/self/task").size(); }

size_t CountThreadsNamed(const std::string& name) {
  size_t count = 0;
  for (const std::string& thread : ListFolder("/proc/self/task")) {
    std::ifstream file("/proc/self/task/" + thread + "/comm");
    std::string found;
    if (std::getline(file, found) && found == name) ++count;
  }
  return count;
}

bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kFakeDeadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    usleep(1000);
  }
  return true;
}

}  // namespace lumso_test
