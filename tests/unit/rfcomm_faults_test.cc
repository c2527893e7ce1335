// Every system call of a connection fails with every error that it may give,
// is interrupted a thousand times and comes back short at every length.

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "rfcomm_connection.h"
#include "tests/support/call_errors.h"
#include "tests/support/fake_rfcomm.h"

namespace lumso_test {
namespace {

using lumso_bluetooth::RfcommConnection;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

constexpr char kAddress[] = "AA:BB:CC:DD:EE:0F";
constexpr char kReader[] = "lumso-reader";
constexpr int kStorm = 1000;

// How far a connection comes in RunLife().
enum class Reach { kNowhere, kToWriting, kToReading, kToBoth };

// One call site of a connection's life, and what comes of its failure.
struct CallSite {
  const char* name;
  Call call;
  Reach reach;
  const Errors& errors;
  const char* message;  // "*": the text of the error; empty: nothing is printed
  Errors harmless = {};      // errors after which everything is as without them
  Errors silent = {};        // errors that print nothing all the same
  size_t passes = 0;         // calls of the kind that come first
  bool interrupted = false;  // whether a signal ends connect() before
};

constexpr char kNoSocket[] = "lumso_bluetooth: socket() failed: *\n";
constexpr char kNoWakeUp[] = "lumso_bluetooth: eventfd() failed: *\n";
constexpr char kNoConnection[] =
    "lumso_bluetooth: RFCOMM connect to AA:BB:CC:DD:EE:0F failed: *\n";
constexpr char kReadFailed[] = "lumso_bluetooth: RFCOMM read error: *\n";
constexpr char kWriteFailed[] = "lumso_bluetooth: RFCOMM write error: *\n";

const CallSite kCallSites[] = {
    {"socket", Call::kSocket, Reach::kNowhere, kSocketErrors, kNoSocket},
    {"fcntl", Call::kSetDescriptorFlags, Reach::kToBoth, kFcntlErrors, ""},
    {"eventfd", Call::kEventfd, Reach::kNowhere, kEventfdErrors, kNoWakeUp},
    {"connect",
     Call::kConnect,
     Reach::kNowhere,
     kConnectErrors,
     kNoConnection,
     {EINTR}},
    {"poll of an interrupted connect",
     Call::kPoll,
     Reach::kNowhere,
     kPollErrors,
     kNoConnection,
     {EINTR},
     {},
     0,
     true},
    {"getsockopt of an interrupted connect",
     Call::kPendingError,
     Reach::kToBoth,
     kGetsockoptErrors,
     "",
     {},
     {},
     0,
     true},
    {"poll", Call::kPoll, Reach::kToWriting, kPollErrors, kReadFailed, {EINTR}},
    {"read",
     Call::kRead,
     Reach::kToWriting,
     kReadErrors,
     kReadFailed,
     {EINTR},
     {EBADF}},
    {"write",
     Call::kWrite,
     Reach::kToReading,
     kWriteErrors,
     kWriteFailed,
     {EINTR}},
    {"second write",
     Call::kWrite,
     Reach::kToReading,
     kWriteErrors,
     kWriteFailed,
     {EINTR},
     {},
     1},
    {"eventfd_write", Call::kWakeWrite, Reach::kToBoth, kEventfdWriteErrors,
     ""},
    {"shutdown", Call::kShutdown, Reach::kToBoth, kShutdownErrors, ""},
    {"close", Call::kClose, Reach::kToBoth, kCloseErrors, ""},
    {"close of the eventfd", Call::kWakeClose, Reach::kToBoth, kCloseErrors,
     ""},
};

std::string Told(const CallSite& site, int error) {
  if (IsOneOf(error, site.silent) || IsOneOf(error, site.harmless)) return "";
  return WithError(site.message, error);
}

std::vector<Step> Steps(size_t passes, const Step& last) {
  std::vector<Step> steps(passes, Pass());
  steps.push_back(last);
  return steps;
}

// What the reader thread of one connection has handed over.
struct Received {
  std::mutex mutex;
  std::condition_variable changed;
  std::string bytes;
  int ends = 0;

  RfcommConnection::DataCallback callback() {
    return [this](const uint8_t* data, size_t count, bool end) {
      const std::lock_guard<std::mutex> lock(mutex);
      EXPECT_EQ(ends, 0);
      bytes.append(reinterpret_cast<const char*>(data), count);
      if (end) ++ends;
      changed.notify_all();
    };
  }
  // Waits for so many bytes, or for the end.
  std::string WaitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mutex);
    EXPECT_TRUE(changed.wait_for(lock, kFakeDeadline, [&] {
      return ends > 0 || bytes.size() >= count;
    }));
    return bytes;
  }
};

std::string Pattern(size_t count) {
  std::string bytes(count, '\0');
  for (size_t i = 0; i < count; ++i) {
    bytes[i] = static_cast<char>((i * 7 + i / 251) & 0xff);
  }
  return bytes;
}

bool Send(RfcommConnection* connection, const std::string& bytes) {
  return connection->Write(reinterpret_cast<const uint8_t*>(bytes.data()),
                           bytes.size());
}

class RfcommFaults : public testing::Test {
 protected:
  void SetUp() override { air_.AddDevice(kAddress); }

  // Opens a connection, receives, sends two slices and closes; expects to come
  // as far as `reach` says.
  void RunLife(Reach reach) {
    const std::string sent = Pattern(5000);
    Received received;
    RfcommConnection connection;
    ASSERT_EQ(connection.Connect(kAddress), reach != Reach::kNowhere);
    if (reach == Reach::kNowhere) {
      EXPECT_FALSE(Send(&connection, "x"));
      return;
    }
    const auto peer = air_.NextPeer(kAddress);
    ASSERT_TRUE(peer->Send("hello"));
    connection.Start(received.callback());
    EXPECT_EQ(received.WaitFor(5), reach == Reach::kToWriting ? "" : "hello");
    const bool writes = reach != Reach::kToReading;
    EXPECT_EQ(Send(&connection, sent), writes);
    if (writes) {
      EXPECT_TRUE(peer->Receive(sent.size()) == sent);
    }
    connection.Close();
    peer->Close();
    EXPECT_EQ(received.ends, 1);
    EXPECT_FALSE(Send(&connection, "x"));
  }

  // Gives the device's end of a connection made for the case.
  std::shared_ptr<Peer> Open(RfcommConnection* connection) {
    EXPECT_TRUE(connection->Connect(kAddress));
    return air_.NextPeer(kAddress);
  }

  FakeRfcomm air_;
};

TEST_F(RfcommFaults, EndEveryCallWithEveryErrorAndLeaveNothing) {
  const size_t descriptors = CountDescriptors();
  const size_t threads = CountThreads();
  int rows = 0;
  for (const CallSite& site : kCallSites) {
    for (const int error : site.errors) {
      SCOPED_TRACE(std::string(site.name) + ": " + strerror(error));
      if (site.interrupted) air_.Script(Call::kConnect, {Fail(EINTR)});
      air_.Script(site.call, Steps(site.passes, Fail(error)));
      CaptureStderr();
      RunLife(IsOneOf(error, site.harmless) ? Reach::kToBoth : site.reach);
      // Nobody has taken the device's end of what was still in progress.
      if ((site.call == Call::kConnect && error == EINPROGRESS) ||
          (site.interrupted && site.reach == Reach::kNowhere &&
           !IsOneOf(error, site.harmless))) {
        air_.NextPeer(kAddress)->Close();
      }
      EXPECT_EQ(GetCapturedStderr(), Told(site, error));
      EXPECT_EQ(CountDescriptors(), descriptors);
      // The next connection knows nothing of it.
      CaptureStderr();
      RunLife(Reach::kToBoth);
      EXPECT_EQ(GetCapturedStderr(), "");
      EXPECT_EQ(CountDescriptors(), descriptors);
      ++rows;
    }
  }
  EXPECT_TRUE(air_.EachClosedOnce());
  EXPECT_EQ(CountThreadsNamed(kReader), 0U);
  EXPECT_TRUE(Eventually([&] { return CountThreads() == threads; }));
  RecordProperty("rows", rows);
}

TEST_F(RfcommFaults, InStormsOfInterruptionsChangeNothing) {
  const std::string sent = Pattern(5000);
  CaptureStderr();
  RfcommConnection connection;
  const auto peer = Open(&connection);
  for (const Call call : {Call::kPoll, Call::kRead, Call::kWrite}) {
    air_.Script(call, std::vector<Step>(kStorm, Fail(EINTR)));
  }
  Received received;
  ASSERT_TRUE(peer->Send("through"));
  connection.Start(received.callback());
  EXPECT_EQ(received.WaitFor(7), "through");
  EXPECT_TRUE(Send(&connection, sent));
  EXPECT_TRUE(peer->Receive(sent.size()) == sent);
  connection.Close();
  EXPECT_EQ(received.ends, 1);
  EXPECT_EQ(GetCapturedStderr(), "");
  EXPECT_GE(air_.count(Call::kRead), kStorm + 1U);
  EXPECT_EQ(air_.count(Call::kWrite), kStorm + 2U);
}

// A reader that nothing but interruptions reach still sees its end.
TEST_F(RfcommFaults, InAStormDoNotKeepTheReaderFromItsEnd) {
  RfcommConnection connection;
  const auto peer = Open(&connection);
  std::atomic<bool> stormy{false};
  std::vector<Step> storm(kStorm, Fail(EINTR));
  storm.front().before = [&] { stormy = true; };
  storm.back().before = [&] {
    EXPECT_TRUE(Eventually([&] { return air_.count(Call::kShutdown) == 1; }));
  };
  air_.Script(Call::kPoll, std::move(storm));
  Received received;
  connection.Start(received.callback());
  EXPECT_TRUE(Eventually([&] { return stormy.load(); }));
  connection.Close();
  EXPECT_EQ(received.ends, 1);
  EXPECT_TRUE(air_.EachClosedOnce());
}

TEST_F(RfcommFaults, InTheFormOfShortReadsLoseNothing) {
  constexpr size_t kLongest = 2048;
  const std::string sent = Pattern(kLongest + 1);
  RfcommConnection connection;
  const auto peer = Open(&connection);
  Received received;
  connection.Start(received.callback());
  for (size_t size = 1; size <= kLongest; ++size) {
    air_.Script(Call::kRead, {AtMost(size)});
    ASSERT_TRUE(peer->Send(sent));
    ASSERT_TRUE(received.WaitFor(sent.size()) == sent) << size;
    const std::lock_guard<std::mutex> lock(received.mutex);
    received.bytes.clear();
  }
  connection.Close();
  EXPECT_EQ(received.ends, 1);
}

TEST_F(RfcommFaults, InTheFormOfShortWritesLoseNothing) {
  constexpr size_t kLongest = 4096;
  const std::string sent = Pattern(kLongest + 1);
  RfcommConnection connection;
  const auto peer = Open(&connection);
  for (size_t size = 1; size <= kLongest; ++size) {
    air_.Script(Call::kWrite, {AtMost(size)});
    ASSERT_TRUE(Send(&connection, sent)) << size;
    ASSERT_TRUE(peer->Receive(sent.size()) == sent) << size;
  }
}

TEST_F(RfcommFaults, InTheFormOfShortCountsAllTheWayLoseNothing) {
  // A local stream holds few messages, however short they are.
  const std::string sent = Pattern(150);
  for (size_t size = 1; size <= sent.size(); ++size) {
    SCOPED_TRACE(size);
    const std::vector<Step> shorts((sent.size() + size - 1) / size,
                                   AtMost(size));
    RfcommConnection connection;
    const auto peer = Open(&connection);
    air_.Script(kAddress, Call::kWrite, shorts);
    air_.Script(kAddress, Call::kRead, shorts);
    ASSERT_TRUE(Send(&connection, sent));
    ASSERT_EQ(peer->Receive(sent.size()), sent);
    ASSERT_TRUE(peer->Send(sent));
    Received received;
    connection.Start(received.callback());
    EXPECT_EQ(received.WaitFor(sent.size()), sent);
    connection.Close();
    EXPECT_EQ(received.ends, 1);
  }
}

}  // namespace
}  // namespace lumso_test
