#include "rfcomm_connection.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/fake_rfcomm.h"
#include "tests/support/faults.h"
#include "tests/support/without_standard_input.h"

namespace {

using lumso_bluetooth::RfcommConnection;
using lumso_test::After;
using lumso_test::AtMost;
using lumso_test::Call;
using lumso_test::CallRecord;
using lumso_test::CountDescriptors;
using lumso_test::CountThreads;
using lumso_test::CountThreadsNamed;
using lumso_test::Eventually;
using lumso_test::Fail;
using lumso_test::FakeRfcomm;
using lumso_test::Fault;
using lumso_test::FaultSignals;
using lumso_test::kFakeDeadline;
using lumso_test::kFaults;
using lumso_test::Pass;
using lumso_test::Peer;
using lumso_test::ReachesTheCrashHandler;
using lumso_test::Return;
using lumso_test::WithoutStandardInput;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

constexpr char kAddress[] = "AA:BB:CC:DD:EE:0F";

// What "returns at once" allows for on a loaded machine; the shortest wait that
// it is told apart from lasts 21 s.
constexpr std::chrono::seconds kAtOnce(5);

// Collects the calls of a data callback, from the reader thread.
class Received {
 public:
  RfcommConnection::DataCallback callback() {
    return [this](const uint8_t* data, size_t count, bool end) {
      const std::lock_guard<std::mutex> lock(mutex_);
      threads_.push_back(gettid());
      if (end) {
        if (data != nullptr || count != 0) odd_ends_++;
        ends_++;
      } else {
        if (ends_ > 0) after_end_++;
        chunks_.emplace_back(reinterpret_cast<const char*>(data), count);
      }
      changed_.notify_all();
    };
  }

  bool WaitForBytes(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kFakeDeadline,
                             [&] { return Joined().size() >= count; });
  }
  bool WaitForEnd() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kFakeDeadline, [&] { return ends_ > 0; });
  }
  std::vector<std::string> chunks() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return chunks_;
  }
  std::string bytes() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return Joined();
  }
  std::vector<pid_t> threads() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return threads_;
  }
  int ends() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return ends_;
  }
  // End calls with bytes, and calls after the end: none are allowed.
  int faults() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return odd_ends_ + after_end_;
  }

 private:
  std::string Joined() {
    std::string all;
    for (const std::string& chunk : chunks_) all += chunk;
    return all;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> chunks_;
  std::vector<pid_t> threads_;
  int ends_ = 0;
  int odd_ends_ = 0;
  int after_end_ = 0;
};

// Bytes of a pattern whose every shift shows.
std::string Pattern(size_t count) {
  std::string bytes(count, '\0');
  for (size_t i = 0; i < count; ++i) {
    bytes[i] = static_cast<char>((i * 7 + i / 251) & 0xff);
  }
  return bytes;
}

// Runs once, when a thread takes its signals back: a reader has been made then,
// and whatever else its maker does is still to come.
std::function<void()> on_signals_restored;

class RfcommConnectionTest : public testing::Test {
 protected:
  // Connects `connection_` to a device and returns the device's end.
  std::shared_ptr<Peer> Open() {
    fake_.AddDevice(kAddress);
    EXPECT_TRUE(connection_.Connect(kAddress));
    return fake_.NextPeer(kAddress);
  }

  bool Send(const std::string& bytes) {
    return connection_.Write(reinterpret_cast<const uint8_t*>(bytes.data()),
                             bytes.size());
  }

  // Starts the reader and returns once it is past its last look at anything but
  // the descriptors it waits on.
  void StartAndBlock() {
    std::atomic<bool> blocked{false};
    fake_.Script(kAddress, Call::kPoll, {After([&] { blocked = true; })});
    connection_.Start(received_.callback());
    EXPECT_TRUE(Eventually([&] { return blocked.load(); }));
  }

  // Runs `action` and returns what it wrote to standard error.
  template <typename Action>
  std::string StderrOf(Action action) {
    CaptureStderr();
    action();
    return GetCapturedStderr();
  }

  FakeRfcomm fake_;
  Received received_;
  RfcommConnection connection_;
};

}  // namespace

// The sources' calls come here, the test's own too.
extern "C" int pthread_sigmask(int how, const sigset_t* set,
                               sigset_t* old) noexcept {
  if (set != nullptr && old == nullptr && on_signals_restored) {
    std::exchange(on_signals_restored, nullptr)();
  }
  constexpr size_t kKernelSize = 8;
  return syscall(SYS_rt_sigprocmask, how, set, old, kKernelSize) == 0 ? 0
                                                                      : errno;
}

namespace {

using Connect = RfcommConnectionTest;
using Start = RfcommConnectionTest;
using ReadLoop = RfcommConnectionTest;
using Write = RfcommConnectionTest;
using Close = RfcommConnectionTest;

// ---------------------------------------------------------------------------

TEST_F(Connect, PassesTheKernelsAddressOfChannelOne) {
  const auto peer = Open();
  const auto connects = fake_.calls(Call::kConnect);
  ASSERT_EQ(connects.size(), 1u);
  EXPECT_EQ(connects[0].argument, 10);
  EXPECT_EQ(connects[0].bytes,
            std::string("\x1f\x00\x0f\xee\xdd\xcc\xbb\xaa\x01\x00", 10));
}

TEST(ParseRfcommAddress, LeavesNothingOfWhatWasThere) {
  sockaddr_rc remote;
  std::memset(&remote, 0xff, sizeof(remote));
  EXPECT_TRUE(lumso_bluetooth::ParseRfcommAddress(kAddress, &remote));
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&remote), sizeof(remote)),
            std::string("\x1f\x00\x0f\xee\xdd\xcc\xbb\xaa\x01\x00", 10));
}

TEST_F(Connect, MakesAPlainStreamSocketAndMarksItCloseOnExec) {
  const auto peer = Open();
  const auto calls = fake_.calls();
  ASSERT_GE(calls.size(), 2u);
  EXPECT_EQ(calls[0].call, Call::kSocket);
  EXPECT_EQ(calls[0].argument, SOCK_STREAM);
  const auto marks = fake_.calls(Call::kSetDescriptorFlags);
  ASSERT_EQ(marks.size(), 1u);
  EXPECT_EQ(marks[0].argument, FD_CLOEXEC);
  EXPECT_EQ(fcntl(calls[0].fd, F_GETFD), FD_CLOEXEC);
}

TEST_F(Connect, MarksTheWakeDescriptorCloseOnExec) {
  const auto peer = Open();
  const auto wakes = fake_.calls(Call::kEventfd);
  ASSERT_EQ(wakes.size(), 1u);
  EXPECT_EQ(fcntl(static_cast<int>(wakes[0].result), F_GETFD), FD_CLOEXEC);
}

TEST_F(Connect, TakesDescriptorZeroForTheSocket) {
  const WithoutStandardInput without;
  const auto peer = Open();
  ASSERT_EQ(fake_.calls(Call::kSocket).at(0).result, 0);
  EXPECT_EQ(fcntl(0, F_GETFD), FD_CLOEXEC);
  StartAndBlock();
  EXPECT_TRUE(Send("y"));
  EXPECT_EQ(peer->Receive(1), "y");
  connection_.Close();
  EXPECT_TRUE(fake_.EachClosedOnce());
  EXPECT_EQ(received_.ends(), 1);
}

TEST_F(Connect, ClosesASocketWithDescriptorZeroAfterAFailure) {
  fake_.Script(Call::kEventfd, {Fail(EMFILE)});
  StderrOf([&] {
    const WithoutStandardInput without;
    EXPECT_FALSE(connection_.Connect(kAddress));
  });
  ASSERT_EQ(fake_.calls(Call::kSocket).at(0).result, 0);
  EXPECT_TRUE(fake_.EachClosedOnce());
}

TEST_F(Connect, TakesDescriptorZeroForTheWakeUp) {
  std::unique_ptr<WithoutStandardInput> without;
  fake_.Script(
      Call::kEventfd,
      {After([&] { without = std::make_unique<WithoutStandardInput>(); })});
  const auto peer = Open();
  ASSERT_EQ(fake_.calls(Call::kEventfd).at(0).result, 0);
  StartAndBlock();
  connection_.Close();
  EXPECT_EQ(received_.ends(), 1);
}

TEST_F(Connect, StaysBlocking) {
  const auto peer = Open();
  connection_.Start(received_.callback());
  ASSERT_TRUE(peer->Send("x"));
  ASSERT_TRUE(received_.WaitForBytes(1));
  ASSERT_TRUE(Send("y"));
  EXPECT_EQ(fake_.count(Call::kSetFlags), 0u);
  for (const Call call : {Call::kConnect, Call::kRead, Call::kWrite}) {
    for (const CallRecord& record : fake_.calls(call)) {
      EXPECT_EQ(record.status_flags & O_NONBLOCK, 0);
    }
  }
}

TEST_F(Connect, PrintsNothingOnSuccess) {
  EXPECT_EQ(StderrOf([&] { Open(); }), "");
}

TEST_F(Connect, TakesLowerCaseHexadecimal) {
  fake_.AddDevice(kAddress);
  EXPECT_TRUE(connection_.Connect("aa:bb:cc:dd:ee:0f"));
  EXPECT_EQ(fake_.address(1), kAddress);
}

TEST_F(Connect, RefusesEveryTextThatIsNoAddressAndMakesNoSocket) {
  for (const std::string address :
       {"", "AA", "AA:BB:CC:DD:EE", "AA:BB:CC:DD:EE:", "AA:BB:CC:DD:EE:F",
        "AA:BB:CC:DD:EE:FFF", "AA:BB:CC:DD:EE:FF:00", "AA-BB-CC-DD-EE-FF",
        "AABBCCDDEEFF", "AA:BB:CC:DD:EE:FG", "GA:BB:CC:DD:EE:FF",
        " AA:BB:CC:DD:EE:F", "AA:BB:CC:DD:EE:FF ", ":AA:BB:CC:DD:EE:F",
        "A:BBB:CC:DD:EE:FF", "AA:BB:CC:DD:EE:+F", "hello, world 1234",
        "AA BB CC DD EE FF"}) {
    const size_t descriptors = CountDescriptors();
    RfcommConnection connection;
    bool connected = true;
    EXPECT_EQ(StderrOf([&] { connected = connection.Connect(address); }),
              "lumso_bluetooth: bad BT address '" + address + "'\n");
    EXPECT_FALSE(connected) << address;
    EXPECT_EQ(CountDescriptors(), descriptors) << address;
  }
  EXPECT_EQ(fake_.sockets(), 0);
  EXPECT_TRUE(fake_.calls().empty());
}

TEST_F(Connect, ReportsAFailedSocket) {
  for (const int error : {EAFNOSUPPORT, EPROTONOSUPPORT, EMFILE, EPERM}) {
    const size_t descriptors = CountDescriptors();
    fake_.Script(Call::kSocket, {Fail(error)});
    RfcommConnection connection;
    bool connected = true;
    EXPECT_EQ(StderrOf([&] { connected = connection.Connect(kAddress); }),
              std::string("lumso_bluetooth: socket() failed: ") +
                  strerror(error) + "\n");
    EXPECT_FALSE(connected);
    EXPECT_EQ(CountDescriptors(), descriptors);
  }
  EXPECT_EQ(fake_.sockets(), 0);
}

TEST_F(Connect, ReportsAFailedWakeDescriptorByItsOwnName) {
  const size_t descriptors = CountDescriptors();
  fake_.Script(Call::kEventfd, {Fail(EMFILE)});
  bool connected = true;
  EXPECT_EQ(StderrOf([&] { connected = connection_.Connect(kAddress); }),
            std::string("lumso_bluetooth: eventfd() failed: ") +
                strerror(EMFILE) + "\n");
  EXPECT_FALSE(connected);
  EXPECT_EQ(fake_.count(Call::kConnect), 0u);
  EXPECT_TRUE(fake_.EachClosedOnce());
  EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST_F(Connect, ReportsAFailedConnectionAndClosesTheSocket) {
  int failures = 0;
  for (const int error : {ECONNREFUSED, EHOSTDOWN, EHOSTUNREACH, EBUSY,
                          ETIMEDOUT, EINPROGRESS, ENETUNREACH}) {
    const size_t descriptors = CountDescriptors();
    fake_.Script(kAddress, Call::kConnect, {Fail(error)});
    RfcommConnection connection;
    bool connected = true;
    EXPECT_EQ(StderrOf([&] { connected = connection.Connect(kAddress); }),
              std::string("lumso_bluetooth: RFCOMM connect to ") + kAddress +
                  " failed: " + strerror(error) + "\n");
    EXPECT_FALSE(connected);
    EXPECT_EQ(CountDescriptors(), descriptors);
    EXPECT_EQ(fake_.sockets(), ++failures);
    EXPECT_TRUE(fake_.EachClosedOnce());
  }
}

// A handler that runs ends connect(), not the attempt.
TEST_F(Connect, WaitsForTheOutcomeOfAnInterruptedAttempt) {
  fake_.AddDevice(kAddress);
  fake_.Script(kAddress, Call::kConnect, {Fail(EINTR)});
  fake_.Script(kAddress, Call::kPoll, {Fail(EINTR), Fail(EINTR), Pass()});
  EXPECT_EQ(StderrOf([&] { EXPECT_TRUE(connection_.Connect(kAddress)); }), "");
  EXPECT_EQ(fake_.count(Call::kConnect), 1u);
  const auto polls = fake_.calls(Call::kPoll);
  ASSERT_EQ(polls.size(), 3u);
  for (const CallRecord& poll : polls) {
    EXPECT_EQ(poll.events, POLLOUT);
    EXPECT_EQ(poll.argument, -1) << "milliseconds";
    EXPECT_EQ(poll.entries, 1u);
  }
  EXPECT_EQ(fake_.count(Call::kPendingError), 1u);
  const auto peer = fake_.NextPeer(kAddress);
  EXPECT_TRUE(Send("connected"));
  EXPECT_EQ(peer->Receive(9), "connected");
}

TEST_F(Connect, ReportsTheOutcomeOfAnInterruptedAttemptThatFails) {
  for (const int error : {ECONNREFUSED, EHOSTDOWN, ETIMEDOUT, EINTR}) {
    const size_t descriptors = CountDescriptors();
    fake_.Script(kAddress, Call::kConnect, {Fail(EINTR)});
    fake_.Script(kAddress, Call::kPendingError, {Return(error)});
    RfcommConnection connection;
    bool connected = true;
    EXPECT_EQ(StderrOf([&] { connected = connection.Connect(kAddress); }),
              std::string("lumso_bluetooth: RFCOMM connect to ") + kAddress +
                  " failed: " + strerror(error) + "\n");
    EXPECT_FALSE(connected);
    EXPECT_EQ(CountDescriptors(), descriptors);
  }
  EXPECT_TRUE(fake_.EachClosedOnce());
}

TEST_F(Connect, ReportsAFailedWaitForTheOutcome) {
  fake_.AddDevice(kAddress);
  fake_.Script(kAddress, Call::kConnect, {Fail(EINTR)});
  fake_.Script(kAddress, Call::kPoll, {Fail(ENOMEM)});
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(connection_.Connect(kAddress)); }),
            std::string("lumso_bluetooth: RFCOMM connect to ") + kAddress +
                " failed: " + strerror(ENOMEM) + "\n");
  EXPECT_TRUE(fake_.EachClosedOnce());
}

// Fires SIGALRM every millisecond while it exists.
class AlarmStorm {
 public:
  explicit AlarmStorm(int flags) {
    handled = 0;
    struct sigaction action = {};
    action.sa_handler = [](int) { handled = handled + 1; };
    action.sa_flags = flags;
    sigaction(SIGALRM, &action, &before_);
    const itimerval often = {{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &often, nullptr);
  }
  ~AlarmStorm() {
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before_, nullptr);
  }
  AlarmStorm(const AlarmStorm&) = delete;
  AlarmStorm& operator=(const AlarmStorm&) = delete;

  static volatile sig_atomic_t handled;

 private:
  struct sigaction before_ = {};
};

volatile sig_atomic_t AlarmStorm::handled;

TEST_F(Connect, SucceedsInAStormOfSignals) {
  fake_.AddDevice(kAddress);
  fake_.SetConnectTime(milliseconds(100));
  for (const int flags : {0, SA_RESTART}) {
    const AlarmStorm storm(flags);
    RfcommConnection connection;
    EXPECT_EQ(StderrOf([&] { EXPECT_TRUE(connection.Connect(kAddress)); }), "");
    EXPECT_GT(AlarmStorm::handled, 2);
    EXPECT_EQ(fake_.calls(Call::kConnect).back().error, EINTR);
    EXPECT_NE(fake_.NextPeer(kAddress), nullptr);
  }
}

TEST_F(Connect, TriesOnceOnly) {
  StderrOf([&] { connection_.Connect(kAddress); });
  EXPECT_EQ(fake_.count(Call::kConnect), 1u);
  EXPECT_EQ(fake_.count(Call::kSocket), 1u);
}

TEST_F(Connect, BlocksItsCallerForAsLongAsTheKernelTries) {
  fake_.AddDevice(kAddress);
  std::atomic<bool> reached{false};
  std::atomic<bool> released{false};
  fake_.Script(kAddress, Call::kConnect, {After([&] {
                 reached = true;
                 Eventually([&] { return released.load(); });
               })});
  std::atomic<bool> returned{false};
  std::thread caller([&] {
    EXPECT_TRUE(connection_.Connect(kAddress));
    returned = true;
  });
  EXPECT_TRUE(Eventually([&] { return reached.load(); }));
  EXPECT_FALSE(returned);
  released = true;
  caller.join();
  EXPECT_EQ(fake_.count(Call::kPoll), 0u);
}

TEST_F(Connect, LeavesAFreshObjectAfterAFailure) {
  StderrOf([&] { EXPECT_FALSE(connection_.Connect(kAddress)); });
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(Send("x")); }), "");
  EXPECT_EQ(fake_.count(Call::kWrite), 0u);
  connection_.Close();
  EXPECT_TRUE(fake_.EachClosedOnce());
}

TEST_F(Connect, SendsAndReadsNothingByItself) {
  const auto peer = Open();
  EXPECT_EQ(fake_.count(Call::kRead), 0u);
  connection_.Close();
  EXPECT_EQ(peer->ReceiveAll(), "");
}

// ---------------------------------------------------------------------------

TEST_F(Start, DoesNothingAfterAFailedConnect) {
  StderrOf([&] { EXPECT_FALSE(connection_.Connect(kAddress)); });
  const size_t threads = CountThreads();
  connection_.Start(received_.callback());
  EXPECT_EQ(CountThreads(), threads);
  connection_.Close();
  EXPECT_EQ(received_.ends(), 0);
}

TEST_F(Start, DoesNothingOnAFreshObjectAndDropsTheCallback) {
  auto owned = std::make_shared<int>(0);
  connection_.Start([owned](const uint8_t*, size_t, bool) { FAIL(); });
  EXPECT_EQ(owned.use_count(), 1);
}

TEST_F(Start, RunsOneReaderThreadUntilClose) {
  const auto peer = Open();
  const size_t threads = CountThreads();
  connection_.Start(received_.callback());
  EXPECT_EQ(CountThreads(), threads + 1);
  EXPECT_TRUE(
      Eventually([] { return CountThreadsNamed("lumso-reader") == 1; }));
  connection_.Close();
  EXPECT_TRUE(Eventually([&] { return CountThreads() == threads; }));
}

uint64_t Bit(int signal) { return uint64_t{1} << (signal - 1); }

// The signals that the calling thread has blocked, as bits.
uint64_t BlockedSignals() {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  uint64_t bits = 0;
  for (int number = 1; number < NSIG; ++number) {
    if (sigismember(&mask, number) == 1) bits |= Bit(number);
  }
  return bits;
}

class ReaderSignals : public RfcommConnectionTest {
 protected:
  // Returns what a reader has blocked that is started now.
  uint64_t BlockedOnAReader() {
    fake_.AddDevice(kAddress);
    RfcommConnection connection;
    EXPECT_TRUE(connection.Connect(kAddress));
    uint64_t blocked = 0;
    connection.Start([&](const uint8_t*, size_t, bool end) {
      if (end) blocked = BlockedSignals();
    });
    connection.Close();
    return blocked;
  }
};

TEST_F(ReaderSignals, AreBlockedButForFaults) {
  const uint64_t before = BlockedSignals();
  EXPECT_EQ(before & (FaultSignals() | Bit(SIGTERM)), 0u);
  // Two cannot be blocked, and libc keeps those below SIGRTMIN to itself.
  uint64_t never = Bit(SIGKILL) | Bit(SIGSTOP);
  for (int number = SIGSYS + 1; number < SIGRTMIN; ++number) {
    never |= Bit(number);
  }
  EXPECT_EQ(BlockedOnAReader(), ~(never | FaultSignals()));
  EXPECT_EQ(BlockedSignals(), before);
}

// Such a host waits for the signal elsewhere, with sigwait() or a signalfd: on
// an open reader it would end the process.
TEST_F(ReaderSignals, OfAFaultAreBlockedWhereTheHostHasThemBlocked) {
  for (const Fault& fault : kFaults) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, fault.signal);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    EXPECT_EQ(BlockedOnAReader() & FaultSignals(), Bit(fault.signal))
        << fault.name;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
}

class ReaderFault : public RfcommConnectionTest,
                    public testing::WithParamInterface<Fault> {};

INSTANTIATE_TEST_SUITE_P(Of, ReaderFault, testing::ValuesIn(kFaults),
                         testing::PrintToStringParamName());

TEST_P(ReaderFault, ReachesTheHostsHandler) {
  const auto peer = Open();
  bool reached = false;
  connection_.Start([&](const uint8_t*, size_t, bool end) {
    if (end) reached = ReachesTheCrashHandler(GetParam());
  });
  connection_.Close();
  EXPECT_TRUE(reached);
}

TEST_F(Start, LetsAReaderReadThatIsQuickerThanItsMaker) {
  const auto peer = Open();
  ASSERT_TRUE(peer->Send("early"));
  bool came = false;
  on_signals_restored = [&] {
    came = Eventually(
        [&] { return !received_.bytes().empty() || received_.ends() > 0; });
  };
  connection_.Start(received_.callback());
  EXPECT_TRUE(came);
  EXPECT_EQ(received_.bytes(), "early");
  EXPECT_EQ(received_.ends(), 0);
}

TEST_F(Start, TakesAnEmptyCallback) {
  const auto peer = Open();
  connection_.Start(nullptr);
  ASSERT_TRUE(peer->Send("dropped"));
  EXPECT_TRUE(Eventually([&] {
    size_t bytes = 0;
    for (const CallRecord& record : fake_.calls(Call::kRead)) {
      bytes += record.bytes.size();
    }
    return bytes == 7;
  }));
  connection_.Close();
}

TEST_F(Start, KeepsTheCallbackUntilTheObjectIsDestroyed) {
  fake_.AddDevice(kAddress);
  auto owned = std::make_shared<int>(0);
  {
    RfcommConnection connection;
    ASSERT_TRUE(connection.Connect(kAddress));
    connection.Start([owned](const uint8_t*, size_t, bool) {});
    EXPECT_EQ(owned.use_count(), 2);
    connection.Close();
    EXPECT_EQ(owned.use_count(), 2);
  }
  EXPECT_EQ(owned.use_count(), 1);
}

// ---------------------------------------------------------------------------

TEST_F(ReadLoop, HandsOverEachReadAsItIs) {
  const auto peer = Open();
  connection_.Start(received_.callback());
  const std::vector<std::string> sent = {"a", std::string("\0\xff\0", 3),
                                         Pattern(2048), "last"};
  std::string all;
  for (const std::string& bytes : sent) {
    ASSERT_TRUE(peer->Send(bytes));
    all += bytes;
    ASSERT_TRUE(received_.WaitForBytes(all.size()));
  }
  EXPECT_EQ(received_.chunks(), sent);
  EXPECT_EQ(received_.ends(), 0);
}

TEST_F(ReadLoop, SplitsABurstIntoRunsOfAtMost2048InOrder) {
  const auto peer = Open();
  const std::string burst = Pattern(100000);
  std::thread device([&] { EXPECT_TRUE(peer->Send(burst)); });
  connection_.Start(received_.callback());
  ASSERT_TRUE(received_.WaitForBytes(burst.size()));
  device.join();
  EXPECT_EQ(received_.bytes(), burst);
  const auto chunks = received_.chunks();
  EXPECT_GE(chunks.size(), (burst.size() + 2047) / 2048);
  for (const std::string& chunk : chunks) {
    EXPECT_GE(chunk.size(), 1u);
    EXPECT_LE(chunk.size(), 2048u);
  }
  std::vector<std::string> reads;
  for (const CallRecord& record : fake_.calls(Call::kRead)) {
    EXPECT_EQ(record.argument, 2048);
    if (record.result > 0) reads.push_back(record.bytes);
  }
  EXPECT_EQ(chunks, reads);
}

TEST_F(ReadLoop, DoesNotJoinShortReads) {
  const auto peer = Open();
  fake_.Script(kAddress, Call::kRead, {AtMost(3), AtMost(1), AtMost(2)});
  ASSERT_TRUE(peer->Send("abcdefgh"));
  connection_.Start(received_.callback());
  ASSERT_TRUE(received_.WaitForBytes(8));
  EXPECT_EQ(received_.chunks(),
            (std::vector<std::string>{"abc", "d", "ef", "gh"}));
}

TEST_F(ReadLoop, EndsOnceAndSilentlyAtTheEndOfTheStream) {
  fake_.EndLikeALocalStream();
  const auto peer = Open();
  ASSERT_TRUE(peer->Send("bye"));
  peer->Close();
  EXPECT_EQ(StderrOf([&] {
              connection_.Start(received_.callback());
              EXPECT_TRUE(received_.WaitForEnd());
              connection_.Close();
            }),
            "");
  EXPECT_EQ(received_.bytes(), "bye");
  EXPECT_EQ(received_.ends(), 1);
  EXPECT_EQ(received_.faults(), 0);
}

TEST_F(ReadLoop, DeliversWhatIsQueuedBeforeTheEnd) {
  constexpr size_t kQueued = 20000;
  int streams = 0;
  for (const auto end : {+[](Peer* peer) { peer->Close(); },
                         +[](Peer* peer) { peer->Shutdown(); },
                         +[](Peer* peer) { peer->Lose(ECONNRESET); }}) {
    fake_.AddDevice(kAddress);
    Received received;
    RfcommConnection connection;
    ASSERT_TRUE(connection.Connect(kAddress));
    const auto peer = fake_.NextPeer(kAddress);
    ASSERT_TRUE(peer->Send(Pattern(kQueued)));
    end(peer.get());
    EXPECT_EQ(StderrOf([&] {
                connection.Start(received.callback());
                EXPECT_TRUE(received.WaitForEnd());
                connection.Close();
              }),
              "lumso_bluetooth: RFCOMM read error: Connection reset by peer\n");
    EXPECT_EQ(received.bytes(), Pattern(kQueued));
    EXPECT_EQ(received.ends(), 1);
    EXPECT_EQ(received.faults(), 0);
    ++streams;
  }
  EXPECT_EQ(streams, 3);
}

// The kernel tells of the end once. A write() that was told leaves a stream of
// which a read() hears nothing more.
TEST_F(ReadLoop, EndsSilentlyWhenAWriteWasToldOfTheEnd) {
  const auto peer = Open();
  ASSERT_TRUE(peer->Send("last words"));
  std::atomic<bool> told{false};
  fake_.Script(
      kAddress, Call::kPoll,
      {After([&] { EXPECT_TRUE(Eventually([&] { return told.load(); })); })});
  EXPECT_EQ(StderrOf([&] {
              connection_.Start(received_.callback());
              peer->Close();
              EXPECT_FALSE(Send("x"));
              told = true;
              EXPECT_TRUE(received_.WaitForEnd());
              connection_.Close();
            }),
            "lumso_bluetooth: RFCOMM write error: Connection reset by peer\n");
  EXPECT_EQ(received_.bytes(), "last words");
  EXPECT_EQ(received_.ends(), 1);
  EXPECT_EQ(received_.faults(), 0);
}

// In every other round the reader looks only when the write was told.
TEST_F(ReadLoop, EndsWhenTheStreamEndsUnderABlockedWrite) {
  int streams = 0;
  for (int round = 0; round < 10; ++round) {
    for (const auto end : {+[](Peer* peer) { peer->Close(); },
                           +[](Peer* peer) { peer->Lose(ECONNRESET); }}) {
      fake_.AddDevice(kAddress);
      Received received;
      RfcommConnection connection;
      ASSERT_TRUE(connection.Connect(kAddress));
      const auto peer = fake_.NextPeer(kAddress);
      std::atomic<bool> told{round % 2 == 0};
      fake_.Script(kAddress, Call::kPoll, {After([&] {
                     EXPECT_TRUE(Eventually([&] { return told.load(); }));
                   })});
      connection.Start(received.callback());
      StderrOf([&] {
        const size_t before = fake_.count(Call::kWrite);
        std::thread device([&] {
          EXPECT_TRUE(Eventually([&] {
            return fake_.count(Call::kWrite) - before >=
                   lumso_test::kRfcommCapacity / 4096;
          }));
          end(peer.get());
        });
        const std::string sent = Pattern(2 * lumso_test::kRfcommCapacity);
        EXPECT_FALSE(connection.Write(
            reinterpret_cast<const uint8_t*>(sent.data()), sent.size()));
        told = true;
        device.join();
        EXPECT_TRUE(received.WaitForEnd());
        connection.Close();
      });
      EXPECT_EQ(received.ends(), 1);
      EXPECT_EQ(received.faults(), 0);
      ++streams;
    }
  }
  EXPECT_EQ(streams, 20);
  EXPECT_TRUE(fake_.EachClosedOnce());
}

// A host that closes descriptors it does not own must not get a thread that
// spins.
TEST_F(ReadLoop, EndsWhenItsWakeUpIsNoDescriptorAnyMore) {
  const auto peer = Open();
  StartAndBlock();
  // An int64_t would be two arguments on a 32-bit machine.
  const auto wake_up =
      static_cast<long>(fake_.calls(Call::kEventfd).at(0).result);
  ASSERT_EQ(syscall(SYS_close, wake_up), 0);
  ASSERT_TRUE(peer->Send("one more"));
  EXPECT_TRUE(received_.WaitForEnd());
  EXPECT_LE(fake_.count(Call::kPoll), 3u);
  connection_.Close();
  EXPECT_EQ(received_.ends(), 1);
}

TEST_F(ReadLoop, KeepsTheDescriptorAfterThePeerClosed) {
  const auto peer = Open();
  connection_.Start(received_.callback());
  peer->Close();
  ASSERT_TRUE(received_.WaitForEnd());
  EXPECT_EQ(fake_.open_sockets(), 1u);
  connection_.Close();
  EXPECT_EQ(fake_.open_sockets(), 0u);
}

TEST_F(ReadLoop, GoesOnAfterInterruptedReadsAndPolls) {
  const auto peer = Open();
  fake_.Script(kAddress, Call::kPoll, {Fail(EINTR), Fail(EINTR)});
  fake_.Script(kAddress, Call::kRead, {Fail(EINTR), Fail(EINTR), Fail(EINTR)});
  ASSERT_TRUE(peer->Send("through"));
  EXPECT_EQ(StderrOf([&] {
              connection_.Start(received_.callback());
              EXPECT_TRUE(received_.WaitForBytes(7));
              connection_.Close();
            }),
            "");
  EXPECT_EQ(received_.bytes(), "through");
  EXPECT_EQ(received_.ends(), 1);
}

TEST_F(ReadLoop, LeavesSilentlyOnABadDescriptor) {
  const auto peer = Open();
  fake_.Script(kAddress, Call::kRead, {Fail(EBADF)});
  ASSERT_TRUE(peer->Send("never read"));
  EXPECT_EQ(StderrOf([&] {
              connection_.Start(received_.callback());
              EXPECT_TRUE(received_.WaitForEnd());
              connection_.Close();
            }),
            "");
  EXPECT_TRUE(received_.chunks().empty());
  EXPECT_EQ(received_.ends(), 1);
}

TEST_F(ReadLoop, ReportsEveryOtherErrorOnceAndEnds) {
  for (const int error : {ECONNRESET, ETIMEDOUT, ECONNABORTED, EIO, EAGAIN}) {
    Received received;
    RfcommConnection connection;
    fake_.AddDevice(kAddress);
    ASSERT_TRUE(connection.Connect(kAddress));
    const auto peer = fake_.NextPeer(kAddress);
    fake_.Script(kAddress, Call::kRead, {Pass(), Fail(error)});
    EXPECT_EQ(StderrOf([&] {
                connection.Start(received.callback());
                EXPECT_TRUE(peer->Send("first"));
                EXPECT_TRUE(received.WaitForBytes(5));
                EXPECT_TRUE(peer->Send("lost"));
                EXPECT_TRUE(received.WaitForEnd());
                connection.Close();
              }),
              std::string("lumso_bluetooth: RFCOMM read error: ") +
                  strerror(error) + "\n");
    EXPECT_EQ(received.bytes(), "first");
    EXPECT_EQ(received.ends(), 1);
    EXPECT_EQ(received.faults(), 0);
  }
  EXPECT_TRUE(fake_.EachClosedOnce());
}

TEST_F(ReadLoop, ReportsAFailedWaitLikeAFailedRead) {
  const auto peer = Open();
  fake_.Script(kAddress, Call::kPoll, {Fail(ENOMEM)});
  EXPECT_EQ(StderrOf([&] {
              connection_.Start(received_.callback());
              EXPECT_TRUE(received_.WaitForEnd());
            }),
            std::string("lumso_bluetooth: RFCOMM read error: ") +
                strerror(ENOMEM) + "\n");
  EXPECT_EQ(received_.ends(), 1);
}

TEST_F(ReadLoop, CallsBackOnItsOwnThreadOnly) {
  const auto peer = Open();
  connection_.Start(received_.callback());
  ASSERT_TRUE(peer->Send("one"));
  ASSERT_TRUE(received_.WaitForBytes(3));
  connection_.Close();
  const auto threads = received_.threads();
  ASSERT_EQ(threads.size(), 2u);
  EXPECT_NE(threads[0], gettid());
  EXPECT_EQ(threads[0], threads[1]);
}

TEST_F(ReadLoop, ReadsWithoutWaitingForAWrite) {
  const auto peer = Open();
  connection_.Start(received_.callback());
  std::atomic<bool> writing{false};
  std::atomic<bool> released{false};
  fake_.Script(kAddress, Call::kWrite, {After([&] {
                 writing = true;
                 Eventually([&] { return released.load(); });
               })});
  std::thread writer([&] { EXPECT_TRUE(Send("slow")); });
  ASSERT_TRUE(Eventually([&] { return writing.load(); }));
  ASSERT_TRUE(peer->Send("meanwhile"));
  EXPECT_TRUE(received_.WaitForBytes(9));
  released = true;
  writer.join();
}

// ---------------------------------------------------------------------------

TEST_F(Write, SendsEveryByteAsItIs) {
  const auto peer = Open();
  std::string bytes(256, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i);
  EXPECT_EQ(StderrOf([&] { EXPECT_TRUE(Send(bytes)); }), "");
  EXPECT_EQ(peer->Receive(256), bytes);
  EXPECT_EQ(fake_.count(Call::kWrite), 1u);
}

TEST_F(Write, OffersTheKernelAtMost4096BytesAtATime) {
  const auto peer = Open();
  const std::string bytes = Pattern(3 * 4096 + 5);
  std::string got;
  std::thread device([&] { got = peer->Receive(bytes.size()); });
  EXPECT_TRUE(Send(bytes));
  device.join();
  EXPECT_EQ(got, bytes);
  std::vector<int64_t> offered;
  for (const CallRecord& record : fake_.calls(Call::kWrite)) {
    offered.push_back(record.argument);
  }
  EXPECT_EQ(offered, (std::vector<int64_t>{4096, 4096, 4096, 5}));
}

TEST_F(Write, SendsAMegabyteInOrder) {
  const auto peer = Open();
  const std::string bytes = Pattern(1 << 20);
  std::string got;
  std::thread device([&] { got = peer->Receive(bytes.size()); });
  EXPECT_TRUE(Send(bytes));
  device.join();
  EXPECT_TRUE(got == bytes);
}

TEST_F(Write, GoesOnAfterShortCountsAndInterruptions) {
  const auto peer = Open();
  fake_.Script(kAddress, Call::kWrite,
               {Fail(EINTR), AtMost(1), Fail(EINTR), Fail(EINTR), AtMost(3)});
  EXPECT_EQ(StderrOf([&] { EXPECT_TRUE(Send("abcdefgh")); }), "");
  EXPECT_EQ(peer->Receive(8), "abcdefgh");
  std::vector<int64_t> offered;
  for (const CallRecord& record : fake_.calls(Call::kWrite)) {
    offered.push_back(record.argument);
  }
  EXPECT_EQ(offered, (std::vector<int64_t>{8, 8, 7, 7, 7, 4}));
}

TEST_F(Write, TakesAZeroByteWriteForAFailure) {
  const auto peer = Open();
  fake_.Script(kAddress, Call::kWrite, {AtMost(2), Return(0, ENOSPC)});
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(Send("abcd")); }),
            std::string("lumso_bluetooth: RFCOMM write error: ") +
                strerror(ENOSPC) + "\n");
  EXPECT_EQ(fake_.count(Call::kWrite), 2u);
  EXPECT_EQ(peer->Receive(2), "ab");
}

TEST_F(Write, TakesAZeroByteWriteForAFailureAfterAnInterruption) {
  const auto peer = Open();
  fake_.Script(kAddress, Call::kWrite, {Fail(EINTR), Return(0, EINTR)});
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(Send("abcd")); }),
            std::string("lumso_bluetooth: RFCOMM write error: ") +
                strerror(EINTR) + "\n");
  EXPECT_EQ(fake_.count(Call::kWrite), 2u);
}

TEST_F(Write, ReportsAnErrorAndTriesNoFurther) {
  for (const int error : {ENOTCONN, EPIPE, EAGAIN, ECONNRESET, EBADF}) {
    RfcommConnection connection;
    fake_.AddDevice(kAddress);
    ASSERT_TRUE(connection.Connect(kAddress));
    const auto peer = fake_.NextPeer(kAddress);
    const size_t before = fake_.count(Call::kWrite);
    fake_.Script(kAddress, Call::kWrite, {AtMost(1), Fail(error)});
    const uint8_t bytes[] = {1, 2, 3};
    EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(connection.Write(bytes, 3)); }),
              std::string("lumso_bluetooth: RFCOMM write error: ") +
                  strerror(error) + "\n");
    EXPECT_EQ(fake_.count(Call::kWrite), before + 2);
    EXPECT_EQ(peer->Receive(1), "\x01");
  }
}

TEST_F(Write, WorksAgainAfterAPassingFailure) {
  const auto peer = Open();
  fake_.Script(kAddress, Call::kWrite, {Fail(EAGAIN)});
  StderrOf([&] { EXPECT_FALSE(Send("lost")); });
  EXPECT_TRUE(Send("kept"));
  EXPECT_EQ(peer->Receive(4), "kept");
}

TEST_F(Write, FailsWithAMessageEachTimeOnceThePeerIsGone) {
  const auto peer = Open();
  connection_.Start(received_.callback());
  peer->Close();
  ASSERT_TRUE(received_.WaitForEnd());
  const std::string message =
      std::string("lumso_bluetooth: RFCOMM write error: ") +
      strerror(ENOTCONN) + "\n";
  EXPECT_EQ(StderrOf([&] {
              EXPECT_FALSE(Send("a"));
              EXPECT_FALSE(Send("b"));
            }),
            message + message);
  EXPECT_EQ(fake_.count(Call::kWrite), 2u);
}

TEST_F(Write, LeavesSigpipeToTheHost) {
  static volatile sig_atomic_t raised;
  raised = 0;
  signal(SIGPIPE, [](int) { raised = raised + 1; });
  fake_.EndLikeALocalStream();
  const auto peer = Open();
  peer->Close();
  StderrOf([&] { EXPECT_FALSE(Send("a")); });
  EXPECT_EQ(raised, 1);
}

TEST_F(Write, TakesNoBytesAsSuccessAndSendsNothing) {
  const auto peer = Open();
  EXPECT_EQ(StderrOf([&] {
              EXPECT_TRUE(connection_.Write(nullptr, 0));
              EXPECT_TRUE(Send(""));
            }),
            "");
  EXPECT_EQ(fake_.count(Call::kWrite), 0u);
}

TEST_F(Write, IsSilentlyFalseBeforeConnectAndAfterClose) {
  EXPECT_EQ(StderrOf([&] { EXPECT_FALSE(Send("x")); }), "");
  const auto peer = Open();
  connection_.Start(received_.callback());
  connection_.Close();
  EXPECT_EQ(StderrOf([&] {
              EXPECT_FALSE(Send("x"));
              EXPECT_FALSE(Send(""));
            }),
            "");
  EXPECT_EQ(fake_.count(Call::kWrite), 0u);
}

TEST_F(Write, WorksWithoutAReader) {
  const auto peer = Open();
  EXPECT_TRUE(Send("no reader"));
  EXPECT_EQ(peer->Receive(9), "no reader");
}

TEST_F(Write, RunsOneAfterTheOtherOnTwoThreads) {
  const auto peer = Open();
  constexpr size_t kSize = 3 * 4096;
  std::atomic<bool> begun{false};
  bool overtaken = false;
  const auto count_after = [&] {
    begun = true;
    // Gives the other write the time to come between the first two slices.
    for (int i = 0; i < 100 && !overtaken; ++i) {
      std::this_thread::sleep_for(milliseconds(1));
      overtaken = fake_.count(Call::kWrite) != 0;
    }
  };
  fake_.Script(kAddress, Call::kWrite, {After(count_after)});
  std::thread first([&] { EXPECT_TRUE(Send(std::string(kSize, 'a'))); });
  ASSERT_TRUE(Eventually([&] { return begun.load(); }));
  std::string got;
  std::thread device([&] { got = peer->Receive(2 * kSize); });
  EXPECT_TRUE(Send(std::string(kSize, 'b')));
  first.join();
  device.join();
  EXPECT_FALSE(overtaken);
  EXPECT_TRUE(got == std::string(kSize, 'a') + std::string(kSize, 'b'));
}

// ---------------------------------------------------------------------------

TEST_F(Close, WakesABlockedReaderAfterItsEndCallAndPrintsNothing) {
  const auto peer = Open();
  StartAndBlock();
  EXPECT_EQ(StderrOf([&] { connection_.Close(); }), "");
  EXPECT_EQ(received_.ends(), 1);
  EXPECT_EQ(received_.faults(), 0);
}

TEST_F(Close, ShutsBothDirectionsDownBeforeItCloses) {
  const auto peer = Open();
  connection_.Start(received_.callback());
  connection_.Close();
  const auto shutdowns = fake_.calls(Call::kShutdown);
  ASSERT_EQ(shutdowns.size(), 1u);
  EXPECT_EQ(shutdowns[0].argument, SHUT_RDWR);
  EXPECT_EQ(fake_.calls().back().call, Call::kClose);
  EXPECT_TRUE(fake_.EachClosedOnce());
  EXPECT_TRUE(peer->WaitForClose());
}

TEST_F(Close, ReturnsAtOnceWhenShutdownWakesNobody) {
  const auto peer = Open();
  fake_.Script(kAddress, Call::kShutdown, {Return(0)});
  StartAndBlock();
  const auto before = steady_clock::now();
  EXPECT_EQ(StderrOf([&] { connection_.Close(); }), "");
  EXPECT_LT(steady_clock::now() - before, kAtOnce);
  EXPECT_EQ(received_.ends(), 1);
  EXPECT_TRUE(fake_.EachClosedOnce());
}

// Such as when the host closed its descriptor: then the socket still has bytes.
TEST_F(Close, LetsTheReaderReadNoMoreWhenItsWakeUpFails) {
  const auto peer = Open();
  fake_.Script(Call::kWakeWrite, {Fail(EBADF)});
  std::atomic<bool> reading{false};
  std::string bytes;
  connection_.Start([&](const uint8_t* data, size_t count, bool end) {
    if (end) return;
    bytes.append(reinterpret_cast<const char*>(data), count);
    reading = true;
    Eventually([&] { return fake_.count(Call::kShutdown) == 1; });
  });
  ASSERT_TRUE(peer->Send("first"));
  ASSERT_TRUE(Eventually([&] { return reading.load(); }));
  ASSERT_TRUE(peer->Send("second"));
  connection_.Close();
  EXPECT_EQ(bytes, "first");
}

// Once it is closed, the number may be another thread's at once.
TEST_F(Close, KeepsTheDescriptorUntilTheReaderIsDone) {
  const auto peer = Open();
  size_t closes = 0;
  connection_.Start([&](const uint8_t*, size_t, bool end) {
    if (!end) return;
    // Gives a hasty Close() the time to go on.
    for (int i = 0; i < 100 && closes == 0; ++i) {
      std::this_thread::sleep_for(milliseconds(1));
      closes = fake_.count(Call::kClose);
    }
  });
  connection_.Close();
  EXPECT_EQ(closes, 0u);
  EXPECT_EQ(fake_.calls().back().call, Call::kClose);
  EXPECT_EQ(fake_.calls().back().thread, gettid());
  EXPECT_TRUE(fake_.EachClosedOnce());
}

TEST_F(Close, IsHarmlessTwice) {
  const auto peer = Open();
  connection_.Start(received_.callback());
  connection_.Close();
  const size_t calls = fake_.calls().size();
  connection_.Close();
  EXPECT_EQ(fake_.calls().size(), calls);
  EXPECT_EQ(received_.ends(), 1);
  EXPECT_TRUE(fake_.EachClosedOnce());
}

TEST_F(Close, IsHarmlessOnAFreshObject) {
  connection_.Close();
  connection_.Close();
  EXPECT_TRUE(fake_.calls().empty());
}

TEST_F(Close, IsHarmlessBeforeStart) {
  const size_t descriptors = CountDescriptors();
  const auto peer = Open();
  connection_.Close();
  EXPECT_TRUE(fake_.EachClosedOnce());
  EXPECT_EQ(fake_.count(Call::kShutdown), 1u);
  connection_.Start(received_.callback());
  peer->Close();
  EXPECT_EQ(CountDescriptors(), descriptors);
  EXPECT_EQ(received_.ends(), 0);
}

TEST_F(Close, MakesNoSecondEndCallAfterThePeerClosed) {
  const auto peer = Open();
  connection_.Start(received_.callback());
  peer->Close();
  ASSERT_TRUE(received_.WaitForEnd());
  EXPECT_EQ(StderrOf([&] { connection_.Close(); }), "");
  EXPECT_EQ(received_.ends(), 1);
  EXPECT_TRUE(fake_.EachClosedOnce());
}

TEST_F(Close, ReturnsWhileTheDeviceFloods) {
  const auto peer = Open();
  std::atomic<bool> refused{false};
  std::thread device([&] {
    const std::string chunk = Pattern(4096);
    while (peer->Send(chunk)) {
    }
    refused = true;
  });
  connection_.Start(received_.callback());
  ASSERT_TRUE(received_.WaitForBytes(20000));
  EXPECT_EQ(StderrOf([&] { connection_.Close(); }), "");
  device.join();
  EXPECT_TRUE(refused);
  EXPECT_EQ(received_.ends(), 1);
  EXPECT_EQ(received_.faults(), 0);
}

TEST_F(Close, DoesNotWaitForARunningWrite) {
  const auto peer = Open();
  std::atomic<bool> writing{false};
  std::atomic<bool> shut{false};
  fake_.Script(kAddress, Call::kWrite, {After([&] {
                 writing = true;
                 EXPECT_TRUE(Eventually([&] { return shut.load(); }));
               })});
  fake_.Script(kAddress, Call::kShutdown, {After([&] {
                 shut = true;
                 Eventually([&] { return fake_.count(Call::kWrite) == 1; });
               })});
  std::thread writer([&] { StderrOf([&] { EXPECT_FALSE(Send("late")); }); });
  ASSERT_TRUE(Eventually([&] { return writing.load(); }));
  peer->Close();
  connection_.Close();
  writer.join();
  EXPECT_TRUE(fake_.EachClosedOnce());
}

// ---------------------------------------------------------------------------

TEST(RfcommConnectionDestructor, DoesTheWorkOfClose) {
  FakeRfcomm fake;
  fake.AddDevice(kAddress);
  const size_t descriptors = CountDescriptors();
  const size_t threads = CountThreads();
  Received received;
  auto connection = std::make_unique<RfcommConnection>();
  ASSERT_TRUE(connection->Connect(kAddress));
  const auto peer = fake.NextPeer(kAddress);
  connection->Start(received.callback());
  CaptureStderr();
  connection.reset();
  EXPECT_EQ(GetCapturedStderr(), "");
  EXPECT_EQ(received.ends(), 1);
  EXPECT_TRUE(fake.EachClosedOnce());
  EXPECT_TRUE(peer->WaitForClose());
  peer->Close();
  EXPECT_EQ(CountDescriptors(), descriptors);
  EXPECT_TRUE(Eventually([&] { return CountThreads() == threads; }));
}

TEST(RfcommConnectionDestructor, DoesNothingOnAFreshObject) {
  FakeRfcomm fake;
  std::make_unique<RfcommConnection>().reset();
  EXPECT_TRUE(fake.calls().empty());
}

TEST(RfcommConnectionDestructor, ClosesAConnectionThatWasNeverStarted) {
  FakeRfcomm fake;
  fake.AddDevice(kAddress);
  {
    RfcommConnection connection;
    ASSERT_TRUE(connection.Connect(kAddress));
  }
  EXPECT_TRUE(fake.EachClosedOnce());
}

TEST(RfcommConnectionDestructor, EndsTheReaderBeforeItDropsTheCallback) {
  FakeRfcomm fake;
  fake.AddDevice(kAddress);
  // Says at its destruction how many end calls it had seen.
  struct Witness {
    ~Witness() { *seen = ends; }
    int* seen;
    int ends = 0;
  };
  int seen = -1;
  {
    RfcommConnection connection;
    ASSERT_TRUE(connection.Connect(kAddress));
    auto witness = std::make_shared<Witness>();
    witness->seen = &seen;
    connection.Start([witness](const uint8_t*, size_t, bool end) {
      if (end) witness->ends++;
    });
  }
  EXPECT_EQ(seen, 1);
}

TEST(RfcommConnectionResources, AreBackAtTheStartAfterManyConnections) {
  FakeRfcomm fake;
  fake.AddDevice(kAddress);
  const size_t descriptors = CountDescriptors();
  const size_t threads = CountThreads();
  for (int round = 0; round < 100; ++round) {
    Received received;
    RfcommConnection connection;
    ASSERT_TRUE(connection.Connect(kAddress));
    const auto peer = fake.NextPeer(kAddress);
    connection.Start(received.callback());
    if (round % 3 == 0) peer->Close();
    connection.Close();
    peer->Close();
    EXPECT_EQ(received.ends(), 1);
  }
  EXPECT_EQ(CountDescriptors(), descriptors);
  EXPECT_TRUE(Eventually([&] { return CountThreads() == threads; }));
  EXPECT_TRUE(fake.EachClosedOnce());
}

}  // namespace
