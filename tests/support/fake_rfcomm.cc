#include "tests/support/fake_rfcomm.h"

#include <dirent.h>
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

#include "tests/support/real_calls.h"

// The interposed functions run before main(), inside sanitizer runtimes and on
// threads that GLib starts. Up to the point where a descriptor turns out to be
// ours they use nothing but plain memory.

namespace real = lumso_test::real;

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
  return real::socket(domain, type, protocol);
}

LUMSO_EARLY int bind(int fd, const sockaddr* address,
                     socklen_t length) __THROW {
  if (MarkOf(fd) == kOurs) return Current()->OnBind(fd, address, length);
  return real::bind(fd, address, length);
}

LUMSO_EARLY int listen(int fd, int backlog) __THROW {
  if (MarkOf(fd) == kOurs) return Current()->OnListen(fd);
  return real::listen(fd, backlog);
}

LUMSO_EARLY int accept(int fd, sockaddr* address, socklen_t* length) {
  if (MarkOf(fd) == kOurs) return Current()->OnAccept(fd);
  return real::accept(fd, address, length);
}

LUMSO_EARLY int connect(int fd, const sockaddr* address, socklen_t length) {
  if (MarkOf(fd) == kOurs) return Current()->OnConnect(fd, address, length);
  return real::connect(fd, address, length);
}

LUMSO_EARLY int eventfd(unsigned count, int flags) __THROW {
  if (connecting && Current() != nullptr) {
    return Current()->OnEventfd(count, flags);
  }
  return real::eventfd(count, flags);
}

LUMSO_EARLY int eventfd_write(int fd, eventfd_t value) {
  if (MarkOf(fd) == kWake) return Current()->OnWakeWrite(fd, value);
  return real::eventfd_write(fd, value);
}

LUMSO_EARLY int poll(pollfd* fds, nfds_t count, int timeout) {
  for (nfds_t i = 0; i < count; ++i) {
    if (MarkOf(fds[i].fd) == kOurs) {
      return Current()->OnPoll(fds[i].fd, fds, count, timeout);
    }
  }
  return real::poll(fds, count, timeout);
}

LUMSO_EARLY ssize_t read(int fd, void* data, size_t size) {
  if (MarkOf(fd) == kOurs) return Current()->OnRead(fd, data, size, true);
  return real::read(fd, data, size);
}

LUMSO_EARLY ssize_t recv(int fd, void* data, size_t size, int flags) {
  if (MarkOf(fd) == kOurs) {
    return Current()->OnRead(fd, data, size, (flags & MSG_DONTWAIT) == 0);
  }
  return real::recv(fd, data, size, flags);
}

LUMSO_EARLY ssize_t write(int fd, const void* data, size_t size) {
  if (MarkOf(fd) == kOurs) return Current()->OnWrite(fd, data, size);
  return real::write(fd, data, size);
}

LUMSO_EARLY int shutdown(int fd, int how) __THROW {
  if (MarkOf(fd) == kOurs) return Current()->OnShutdown(fd, how);
  return real::shutdown(fd, how);
}

LUMSO_EARLY int close(int fd) {
  const int mark = MarkOf(fd);
  if (mark == kOurs) return Current()->OnClose(fd);
  if (mark == kWake) return Current()->OnWakeClose(fd);
  const int result = real::close(fd);
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
  return real::fcntl(fd, command, argument);
}

LUMSO_EARLY int getsockopt(int fd, int level, int option, void* value,
                           socklen_t* length) __THROW {
  if (MarkOf(fd) == kOurs && level == SOL_SOCKET) {
    return Current()->OnGetOption(fd, option, value, length);
  }
  return real::getsockopt(fd, level, option, value, length);
}

LUMSO_EARLY int setsockopt(int fd, int level, int option, const void* value,
                           socklen_t length) __THROW {
  if (MarkOf(fd) == kOurs && level == SOL_SOCKET) {
    return Current()->OnSetOption(fd, option, value, length);
  }
  return real::setsockopt(fd, level, option, value, length);
}

LUMSO_EARLY int nanosleep(const timespec* duration, timespec* left) {
  if (!IsHeldSleeper()) {
    return real::nanosleep(duration, left);
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
    return real::clock_nanosleep(clock, flags, duration, left);
  }
  return HoldSleep(*duration, left);
}

LUMSO_EARLY int pthread_join(pthread_t thread, void** value) {
  if (__atomic_load_n(&sleeps_held, __ATOMIC_ACQUIRE)) OpenGateFor(thread);
  return real::pthread_join(thread, value);
}

}  // extern "C"

namespace lumso_test {

namespace {

pid_t ThisThread() { return gettid(); }

int StatusFlags(int fd) { return real::fcntl(fd, F_GETFL, nullptr); }

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
  pollfd wait = {link_->fd(RfcommLink::kDevice), events, 0};
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(kFakeDeadline);
  return wait.fd >= 0 &&
         real::poll(&wait, 1, static_cast<int>(milliseconds.count())) > 0;
}

bool Peer::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    if (!WaitFor(POLLOUT)) return false;
    const ssize_t sent =
        real::send(link_->fd(RfcommLink::kDevice), bytes.data(), bytes.size(),
                   MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno != EAGAIN && errno != EINTR) return false;
    if (sent > 0) bytes.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

std::string Peer::Receive(size_t count) {
  std::string received(count, '\0');
  size_t size = 0;
  while (size < count && WaitFor(POLLIN)) {
    const ssize_t got = link_->Read(RfcommLink::kDevice, &received[size],
                                    count - size, /*waits=*/false);
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
    const ssize_t got = link_->Read(RfcommLink::kDevice, chunk, sizeof(chunk),
                                    /*waits=*/false);
    if (got <= 0) return received;
    received.append(chunk, static_cast<size_t>(got));
  }
  return std::nullopt;
}

bool Peer::WaitUntilRead() {
  return Eventually([this] {
    int unread = 0;
    return ioctl(link_->fd(RfcommLink::kDevice), SIOCOUTQ, &unread) == 0 &&
           unread == 0;
  });
}

bool Peer::WaitForClose() { return WaitFor(0); }

void Peer::Shutdown() { link_->Shutdown(RfcommLink::kDevice); }

void Peer::Close() { link_->Close(RfcommLink::kDevice); }

void Peer::Lose(int error) { link_->Lose(error); }

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
    for (const auto& peer : peers_) peer->Shutdown();
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
  Device& device = devices_[address];
  device.behaviour = std::move(behaviour);
  device.present = true;
}

void FakeRfcomm::EndLikeALocalStream() {
  const std::lock_guard<std::mutex> lock(mutex_);
  local_ends_ = true;
}

void FakeRfcomm::SetSendLimit(std::chrono::milliseconds limit) {
  const std::lock_guard<std::mutex> lock(mutex_);
  send_limit_ = limit;
}

void FakeRfcomm::SetConnectTime(std::chrono::milliseconds duration) {
  const std::lock_guard<std::mutex> lock(mutex_);
  connect_time_ = duration;
}

void FakeRfcomm::SetClosingTime(std::chrono::milliseconds duration) {
  const std::lock_guard<std::mutex> lock(mutex_);
  closing_time_ = duration;
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
  return wakes_.empty() && !wake_closed_twice_;
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
      const auto found = scripts_.find({key, call});
      if (found == scripts_.end()) continue;
      step = std::move(found->second.front());
      found->second.pop_front();
      if (found->second.empty()) scripts_.erase(found);
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
  for (const int end : ends) {
    // A local stream holds few messages, however short they are; RFCOMM does
    // not care.
    constexpr int kSize = 8 << 20;
    real::setsockopt(end, SOL_SOCKET, SO_SNDBUF, &kSize, sizeof(kSize));
  }
  real::fcntl(ends[1], F_SETFD, reinterpret_cast<void*>(FD_CLOEXEC));
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    Add(ends[0], std::make_shared<RfcommLink>(ends[0], ends[1]),
        RfcommLink::kCaller, State::kFresh);
    record.socket = made_;
    record.fd = ends[0];
  }
  connecting = true;
  End(std::move(record), ends[0]);
  return ends[0];
}

void FakeRfcomm::Add(int fd, std::shared_ptr<RfcommLink> link,
                     RfcommLink::Side side, State state) {
  if (local_ends_) link->EndLikeALocalStream();
  link->SetSendLimit(side, send_limit_);
  Socket& socket = sockets_[fd];
  socket.number = ++made_;
  socket.link = std::move(link);
  socket.side = side;
  socket.state = state;
  last_socket_[fd] = made_;
  SetMark(fd, kOurs);
}

FakeRfcomm::Socket FakeRfcomm::Find(int fd) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return sockets_.at(fd);
}

int FakeRfcomm::OnBind(int fd, const void* address, uint32_t length) {
  if (length < 8) {
    errno = EINVAL;
    return -1;
  }
  const std::string text =
      AddressText(static_cast<const unsigned char*>(address) + 2);
  const std::lock_guard<std::mutex> lock(mutex_);
  sockets_.at(fd).address = text;
  devices_[text];
  return 0;
}

int FakeRfcomm::OnListen(int fd) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Socket& socket = sockets_.at(fd);
  socket.state = State::kListening;
  devices_[socket.address].listener = fd;
  return 0;
}

// Each connection that waits is a byte to be read on the listening descriptor.
int FakeRfcomm::OnAccept(int fd) {
  CallRecord record = Begin(Call::kAccept, fd, 0);
  char byte;
  ssize_t result = real::recv(fd, &byte, 1, 0);
  if (result > 0) {
    const std::lock_guard<std::mutex> lock(mutex_);
    auto& waiting = sockets_.at(fd).waiting;
    const std::shared_ptr<RfcommLink> link = waiting.front();
    waiting.pop_front();
    result = link->fd(RfcommLink::kDevice);
    Add(static_cast<int>(result), link, RfcommLink::kDevice, State::kConnected);
  }
  End(std::move(record), result);
  return static_cast<int>(result);
}

int FakeRfcomm::OnEventfd(unsigned count, int flags) {
  const Step step = NextStep(Call::kEventfd, -1);
  CallRecord record = Begin(Call::kEventfd, -1, flags);
  const int result = step.result ? static_cast<int>(*step.result)
                                 : real::eventfd(count, flags);
  connecting = false;
  if (result >= 0) {
    const std::lock_guard<std::mutex> lock(mutex_);
    wakes_.insert(result);
    SetMark(result, kWake);
  }
  End(std::move(record), result);
  return result;
}

bool FakeRfcomm::IsTaken(const std::string& address) const {
  const auto found = channels_.find(address);
  if (found == channels_.end()) return false;
  const auto ended_at = found->second->ended_at();
  return !ended_at || Clock::now() - *ended_at < closing_time_;
}

// Begins to connect, if it may, and returns the error of the call.
int FakeRfcomm::BeginConnect(int fd, const std::string& device, bool waits,
                             const Step& step) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Socket& socket = sockets_.at(fd);
  int error = step.result && *step.result < 0 ? step.error : 0;
  if (step.result) {
    if (error != 0 && error != EINPROGRESS && !(error == EINTR && waits)) {
      return error;
    }
    socket.ready_at = Clock::now();
  } else {
    if (socket.state != State::kFresh) return EBADFD;
    if (IsTaken(device)) {
      socket.state = State::kRefused;
      return EBUSY;
    }
    error = EINPROGRESS;
    socket.ready_at = Clock::now() + connect_time_;
  }
  socket.state = State::kConnecting;
  const auto found = devices_.find(device);
  if (found == devices_.end()) {
    if (!step.result) socket.outcome = EHOSTDOWN;
  } else if (found->second.present || found->second.listener >= 0) {
    channels_[device] = socket.link;
    socket.handed_over = true;
  } else {
    socket.outcome = ECONNREFUSED;
  }
  return error;
}

int FakeRfcomm::OnConnect(int fd, const void* address, uint32_t length) {
  connecting = false;
  const auto* const bytes = static_cast<const unsigned char*>(address);
  CallRecord record = Begin(Call::kConnect, fd, length);
  record.bytes.assign(reinterpret_cast<const char*>(bytes), length);
  record.status_flags = StatusFlags(fd);
  const std::string device = length >= 8 ? AddressText(bytes + 2) : "";
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    sockets_.at(fd).address = device;
    if (keeps_records_) addresses_[record.socket] = device;
  }
  const Step step = NextStep(Call::kConnect, fd);
  const bool before = Find(fd).handed_over;
  const bool waits = (record.status_flags & O_NONBLOCK) == 0;
  int error = BeginConnect(fd, device, waits, step);
  if (!step.result && error == EINPROGRESS && waits) {
    error = WaitUntilConnected(fd);
  }
  errno = error;
  const int result = error == 0 ? 0 : -1;
  End(std::move(record), result);
  if (!before && Find(fd).handed_over) HandOver(fd);
  errno = error;
  return result;
}

// Returns EINTR when a signal ends the wait, EINPROGRESS when its limit does,
// or what became of it.
int FakeRfcomm::WaitUntilConnected(int fd) {
  const timeval limit = Find(fd).send_limit;
  const auto deadline = Clock::now() + std::chrono::seconds(limit.tv_sec) +
                        std::chrono::microseconds(limit.tv_usec);
  for (;;) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (Settled(&sockets_.at(fd))) break;
    }
    if (Clock::now() >= deadline) return EINPROGRESS;
    if (real::poll(nullptr, 0, 1) < 0) return errno;
  }
  return PendingError(fd);
}

bool FakeRfcomm::Settled(Socket* socket) {
  if (socket->state != State::kConnecting) return true;
  if (Clock::now() < socket->ready_at) return false;
  socket->state = State::kConnected;
  if (socket->outcome != 0) socket->link->Lose(socket->outcome);
  return true;
}

int FakeRfcomm::PendingError(int fd) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Socket& socket = sockets_.at(fd);
  return Settled(&socket) ? socket.link->TakeError(socket.side) : 0;
}

bool FakeRfcomm::IsConnected(int fd) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Socket& socket = sockets_.at(fd);
  return Settled(&socket) && socket.state == State::kConnected;
}

void FakeRfcomm::HandOver(int fd) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const Socket& socket = sockets_.at(fd);
  Device& device = devices_[socket.address];
  if (device.listener >= 0) {
    Socket& listener = sockets_.at(device.listener);
    listener.waiting.push_back(socket.link);
    real::send(listener.link->fd(RfcommLink::kDevice), "", 1, MSG_NOSIGNAL);
    return;
  }
  auto peer = std::make_shared<Peer>(socket.link);
  if (!keeps_records_) {
    const auto unused = [](const auto& other) {
      return other.use_count() == 1;
    };
    peers_.erase(std::remove_if(peers_.begin(), peers_.end(), unused),
                 peers_.end());
  }
  peers_.push_back(peer);
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

short FakeRfcomm::Events(int fd, short wanted) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Socket& socket = sockets_.at(fd);
  return Settled(&socket) ? socket.link->Events(socket.side, wanted) : 0;
}

// What the local streams report only says when to look.
int FakeRfcomm::Poll(pollfd* waits, unsigned long count, int timeout) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout);
  for (int left = timeout;;) {
    int result = real::poll(waits, count, left);
    if (result < 0) return result;
    result = 0;
    for (unsigned long i = 0; i < count; ++i) {
      const int fd = waits[i].fd;
      if (MarkOf(fd) == kOurs && Find(fd).state != State::kListening) {
        waits[i].revents = Events(fd, waits[i].events);
      }
      if (waits[i].revents != 0) ++result;
    }
    if (result > 0) return result;
    if (timeout >= 0) {
      const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - Clock::now());
      if (rest.count() <= 0) return 0;
      left = static_cast<int>(rest.count());
    }
    if (real::poll(nullptr, 0, 1) < 0) return -1;
  }
}

int FakeRfcomm::OnPoll(int fd, pollfd* waits, unsigned long count,
                       int timeout) {
  CallRecord record = Begin(Call::kPoll, fd, timeout);
  record.entries = count;
  for (unsigned long i = 0; i < count; ++i) {
    if (waits[i].fd == fd) record.events = waits[i].events;
  }
  const Step step = NextStep(Call::kPoll, fd);
  int result;
  if (step.result) {
    result = static_cast<int>(*step.result);
    for (unsigned long i = 0; i < count; ++i) waits[i].revents = 0;
  } else {
    result = Poll(waits, count, timeout);
  }
  End(std::move(record), result);
  return result;
}

ssize_t FakeRfcomm::OnRead(int fd, void* data, size_t size, bool waits) {
  CallRecord record = Begin(Call::kRead, fd, static_cast<int64_t>(size));
  record.status_flags = StatusFlags(fd);
  const Step step = NextStep(Call::kRead, fd);
  ssize_t result;
  if (step.result) {
    result = *step.result;
  } else {
    const Socket socket = Find(fd);
    result = socket.link->Read(
        socket.side, data, step.limit == 0 ? size : std::min(size, step.limit),
        waits && (record.status_flags & O_NONBLOCK) == 0);
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
    const Socket socket = Find(fd);
    if (IsConnected(fd)) {
      result = socket.link->Write(
          socket.side, data,
          step.limit == 0 ? size : std::min(size, step.limit),
          (record.status_flags & O_NONBLOCK) == 0);
    } else {
      errno = ENOTCONN;
      result = -1;
    }
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
  int result = 0;
  if (step.result) {
    result = static_cast<int>(*step.result);
  } else {
    const Socket socket = Find(fd);
    socket.link->Shutdown(socket.side);
  }
  End(std::move(record), result);
  return result;
}

int FakeRfcomm::OnClose(int fd) {
  CallRecord record = Begin(Call::kClose, fd, 0);
  const Step step = NextStep(Call::kClose, fd);
  const Socket socket = Find(fd);
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (socket.state == State::kListening) {
      devices_[socket.address].listener = -1;
    }
    sockets_.erase(fd);
    SetMark(fd, kClosed);
  }
  for (const auto& link : socket.waiting) link->Close(RfcommLink::kDevice);
  if (socket.side == RfcommLink::kCaller && !socket.handed_over) {
    socket.link->Close(RfcommLink::kDevice);
  }
  connecting = false;
  int result = socket.link->Close(socket.side);
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
    wake_closed_twice_ = true;
    return;
  }
  CallRecord record = Begin(Call::kClose, fd, 0);
  errno = EBADF;
  End(std::move(record), -1);
}

int FakeRfcomm::OnWakeWrite(int fd, uint64_t value) {
  const Step step = NextStep(Call::kWakeWrite, fd);
  return step.result ? static_cast<int>(*step.result)
                     : real::eventfd_write(fd, value);
}

int FakeRfcomm::OnWakeClose(int fd) {
  const Step step = NextStep(Call::kWakeClose, fd);
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    wakes_.erase(fd);
    SetMark(fd, kWakeClosed);
  }
  const int result = real::close(fd);
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
      return real::fcntl(fd, command, argument);
  }
  CallRecord record =
      Begin(call, fd,
            command == F_GETFL
                ? 0
                : static_cast<int>(reinterpret_cast<intptr_t>(argument)));
  const Step step = NextStep(call, fd);
  const int result = step.result ? static_cast<int>(*step.result)
                                 : real::fcntl(fd, command, argument);
  End(std::move(record), result);
  return result;
}

int FakeRfcomm::OnGetOption(int fd, int option, void* value, uint32_t* length) {
  const auto give = [value, length](const auto& found) {
    *length = std::min<uint32_t>(*length, sizeof(found));
    std::memcpy(value, &found, *length);
    return 0;
  };
  switch (option) {
    case SO_ERROR:
      break;
    case SO_SNDBUF:
    case SO_RCVBUF:
      return give(kRfcommBufferSize);
    case SO_SNDTIMEO:
      return give(Find(fd).send_limit);
    case SO_RCVTIMEO:
      return give(timeval{});
    default:
      return real::getsockopt(fd, SOL_SOCKET, option, value, length);
  }
  CallRecord record = Begin(Call::kPendingError, fd, 0);
  const Step step = NextStep(Call::kPendingError, fd);
  const int result = step.result && *step.result < 0 ? -1 : 0;
  if (result == 0) {
    record.argument = step.result ? *step.result : PendingError(fd);
    give(static_cast<int>(record.argument));
  } else {
    errno = step.error;
  }
  End(std::move(record), result);
  return result;
}

int FakeRfcomm::OnSetOption(int fd, int option, const void* value,
                            uint32_t length) {
  if (option != SO_SNDTIMEO || length != sizeof(timeval)) {
    return real::setsockopt(fd, SOL_SOCKET, option, value, length);
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  Socket& socket = sockets_.at(fd);
  std::memcpy(&socket.send_limit, value, length);
  socket.link->SetSendLimit(
      socket.side, std::chrono::seconds(socket.send_limit.tv_sec) +
                       std::chrono::microseconds(socket.send_limit.tv_usec));
  return 0;
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
  // How many there were differs from case to case, and what measures memory
  // must not see it.
  Sleeps& sleeps = TheSleeps();
  const std::lock_guard<std::mutex> lock(sleeps.mutex);
  std::vector<std::chrono::nanoseconds>().swap(sleeps.begun);
  std::vector<pthread_t>().swap(sleeps.sleepers);
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
