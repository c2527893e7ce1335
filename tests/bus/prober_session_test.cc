// One exchange between the prober and a device, from the socket to the reading.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "tests/bus/prober_test.h"
#include "tests/support/faults.h"
#include "tests/support/without_standard_input.h"

namespace lumso_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kReply[] = "\"rssi\":-61!!END";

// A reply and what the probe makes of it.
struct Parsing {
  std::string reply;
  int value;
};
struct Misparsing {
  std::string reply;
  std::string error;
};

std::string ConnectText(int error) {
  return std::string("connect: ") + strerror(error);
}

class ProbeTest : public ProberTest {
 protected:
  // Runs one cycle over one device per reply and expects these readings.
  void ExpectReadings(const std::vector<Parsing>& rows) {
    std::vector<std::string> expected;
    for (const Parsing& row : rows) {
      expected.push_back(Update(AddTarget(Replying(row.reply)), row.value));
    }
    RunCycle();
    EXPECT_EQ(TakeEvents(), expected);
    EXPECT_THAT(TakeLog(), IsEmpty());
  }

  // The same for replies without a reading.
  void ExpectErrors(const std::vector<Misparsing>& rows) {
    std::vector<std::string> expected;
    for (const Misparsing& row : rows) {
      expected.push_back(Counted(AddTarget(Replying(row.reply)), 1, row.error));
    }
    RunCycle();
    EXPECT_EQ(TakeLog(), expected);
    EXPECT_THAT(TakeEvents(), IsEmpty());
  }

  // The calls on a socket from the half-close on, without it and the close.
  std::vector<CallRecord> DrainCalls(int socket) {
    std::vector<CallRecord> drain;
    bool draining = false;
    for (const CallRecord& record : air.calls()) {
      if (record.socket != socket) continue;
      if (draining && record.call != Call::kClose) drain.push_back(record);
      if (record.call == Call::kShutdown) draining = true;
    }
    return drain;
  }

  // Tells whether no wait of any probe so far ran into its timeout.
  bool NoPollTimedOut() {
    for (const CallRecord& record : air.calls(Call::kPoll)) {
      if (record.result == 0) return false;
    }
    return true;
  }
};

// ---------------------------------------------------------------------------

using ProbeSocket = ProbeTest;

TEST_F(ProbeSocket, ReachesChannelOneOfTheDevice) {
  AddTarget(Reading(-61));
  RunCycle();
  const auto connects = air.calls(Call::kConnect);
  ASSERT_EQ(connects.size(), 1U);
  EXPECT_EQ(connects[0].argument, 10);
  EXPECT_EQ(connects[0].bytes,
            std::string("\x1f\x00\x00\x00\x00\xcc\xbb\xaa\x01\x00", 10));
}

TEST_F(ProbeSocket, IsAPlainStreamSocketThatNoChildInherits) {
  AddTarget(Reading(-61));
  RunCycle();
  ASSERT_EQ(air.count(Call::kSocket), 1U);
  EXPECT_EQ(air.calls(Call::kSocket)[0].argument, SOCK_STREAM);
  const auto marks = air.calls(Call::kSetDescriptorFlags);
  ASSERT_EQ(marks.size(), 1U);
  EXPECT_EQ(marks[0].argument, FD_CLOEXEC);
}

TEST_F(ProbeSocket, IsNonBlockingDuringConnectOnly) {
  AddTarget(Reading(-61));
  const std::string slow = AddTarget(Reading(-62));
  air.Script(slow, Call::kConnect, {Fail(EINPROGRESS)});
  RunCycle();
  EXPECT_EQ(TakeEvents().size(), 2U);
  for (const int socket : {1, 2}) {
    const auto connects = air.calls(Call::kConnect, socket);
    ASSERT_EQ(connects.size(), 1U);
    EXPECT_NE(connects[0].status_flags & O_NONBLOCK, 0);
    const auto changes = air.calls(Call::kSetFlags, socket);
    ASSERT_EQ(changes.size(), 2U);
    EXPECT_EQ(changes[0].argument, changes[1].argument | O_NONBLOCK);
    EXPECT_EQ(changes[1].argument & O_NONBLOCK, 0);
    for (const Call call : {Call::kRead, Call::kWrite}) {
      EXPECT_GT(air.count(call, socket), 0U);
      for (const CallRecord& record : air.calls(call, socket)) {
        EXPECT_EQ(record.status_flags & O_NONBLOCK, 0);
      }
    }
  }
}

TEST_F(ProbeSocket, IsNotMadeForABadAddress) {
  std::vector<std::string> expected;
  for (const std::string address :
       {"AA:BB:CC:DD:EE", "not an address!!!", "AA-BB-CC-DD-EE-FF", ""}) {
    ListDevice(address, "VELKAN-1");
    expected.push_back(Counted(address, 1, "bad address"));
  }
  RunCycle();
  EXPECT_EQ(TakeLog(), expected);
  EXPECT_EQ(air.sockets(), 0);
}

TEST_F(ProbeSocket, FailsCounted) {
  const std::string first = AddTarget(Reading(-1));
  const std::string second = AddTarget(Reading(-2));
  air.Script(Call::kSocket, {Fail(EMFILE), Fail(EAFNOSUPPORT)});
  RunCycle();
  EXPECT_THAT(
      TakeLog(),
      ElementsAre(Counted(first, 1, std::string("socket: ") + strerror(EMFILE)),
                  Counted(second, 1,
                          std::string("socket: ") + strerror(EAFNOSUPPORT))));
  EXPECT_EQ(air.sockets(), 0);
}

TEST_F(ProbeSocket, MayHaveDescriptorZero) {
  std::unique_ptr<WithoutStandardInput> without;
  air.Script(
      Call::kSocket,
      {After([&] { without = std::make_unique<WithoutStandardInput>(); })});
  const std::string address = AddTarget(Reading(-61));
  RunCycle();
  ASSERT_EQ(air.calls(Call::kSocket).at(0).result, 0);
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -61)));
}

TEST_F(ProbeSocket, LivesOnTheProbersThreadOnly) {
  AddTarget(Reading(-61));
  RunCycle();
  const auto calls = air.calls();
  ASSERT_THAT(calls, Not(IsEmpty()));
  for (const CallRecord& record : calls) {
    EXPECT_EQ(record.thread, calls[0].thread);
    EXPECT_NE(record.thread, gettid());
  }
}

// ---------------------------------------------------------------------------

using ProbeConnect = ProbeTest;

constexpr int kTransientErrors[] = {ECONNREFUSED, EHOSTUNREACH, ENETUNREACH};
constexpr int kCountedErrors[] = {EHOSTDOWN,    ETIMEDOUT, EBUSY, ECONNRESET,
                                  ECONNABORTED, EACCES,    EINTR, EAGAIN};

TEST_F(ProbeConnect, FailsAtOnceAsTransientForThreeErrors) {
  std::vector<std::string> expected;
  for (const int error : kTransientErrors) {
    const std::string address = AddTarget(Reading(-61));
    air.Script(address, Call::kConnect, {Fail(error)});
    expected.push_back(Transient(address, ConnectText(error)));
  }
  RunCycle();
  EXPECT_EQ(TakeLog(), expected);
  EXPECT_THAT(TakeEvents(), IsEmpty());
  EXPECT_EQ(air.count(Call::kPoll), 0U);
}

TEST_F(ProbeConnect, FailsAtOnceAsCountedForAllOthers) {
  std::vector<std::string> expected;
  for (const int error : kCountedErrors) {
    const std::string address = AddTarget(Reading(-61));
    air.Script(address, Call::kConnect, {Fail(error)});
    expected.push_back(Counted(address, 1, ConnectText(error)));
  }
  RunCycle();
  EXPECT_EQ(TakeLog(), expected);
  EXPECT_EQ(air.count(Call::kPoll), 0U);
}

TEST_F(ProbeConnect, FailsLaterAsTransientForThreeErrors) {
  std::vector<std::string> expected;
  for (const int error : kTransientErrors) {
    const std::string address = AddTarget(Reading(-61));
    air.Script(address, Call::kConnect, {Fail(EINPROGRESS)});
    air.Script(address, Call::kPendingError, {Return(error)});
    air.AddDevice(address, HangUp);
    expected.push_back(Transient(address, ConnectText(error)));
  }
  RunCycle();
  EXPECT_EQ(TakeLog(), expected);
  EXPECT_THAT(TakeEvents(), IsEmpty());
}

TEST_F(ProbeConnect, FailsLaterAsCountedForAllOthers) {
  std::vector<std::string> expected;
  for (const int error : kCountedErrors) {
    const std::string address = AddTarget(HangUp);
    air.Script(address, Call::kConnect, {Fail(EINPROGRESS)});
    air.Script(address, Call::kPendingError, {Return(error)});
    expected.push_back(Counted(address, 1, ConnectText(error)));
  }
  RunCycle();
  EXPECT_EQ(TakeLog(), expected);
}

TEST_F(ProbeConnect, WaitsForCompletionAndGoesOn) {
  const std::string address = AddTarget(Reading(-61));
  air.Script(address, Call::kConnect, {Fail(EINPROGRESS)});
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -61)));
  const auto polls = air.calls(Call::kPoll);
  ASSERT_THAT(polls, Not(IsEmpty()));
  EXPECT_EQ(polls[0].events, POLLOUT);
  EXPECT_EQ(polls[0].argument, 5000);
  EXPECT_EQ(air.count(Call::kPendingError), 1U);
  EXPECT_EQ(air.count(Call::kConnect), 1U);
}

TEST_F(ProbeConnect, TimesOutWhenNothingCompletes) {
  const std::string silent = AddTarget(HangUp);
  const std::string interrupted = AddTarget(HangUp);
  const std::string failed = AddTarget(HangUp);
  air.Script(Call::kConnect,
             {Fail(EINPROGRESS), Fail(EINPROGRESS), Fail(EINPROGRESS)});
  air.Script(silent, Call::kPoll, {Return(0)});
  air.Script(interrupted, Call::kPoll, {Fail(EINTR)});
  air.Script(failed, Call::kPoll, {Fail(ENOMEM)});
  RunCycle();
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(silent, 1, "connect timeout"),
                                     Counted(interrupted, 1, "connect timeout"),
                                     Counted(failed, 1, "connect timeout")));
  ASSERT_EQ(air.count(Call::kPoll), 3U);
  for (const CallRecord& poll : air.calls(Call::kPoll)) {
    EXPECT_EQ(poll.entries, 1U);
  }
  EXPECT_EQ(air.count(Call::kPendingError), 0U);
}

// ---------------------------------------------------------------------------

using ProbeExchange = ProbeTest;

TEST_F(ProbeExchange, SendsTwoLinesAndNothingElse) {
  std::string received;
  const std::string address = AddTarget([&](Peer& peer) {
    peer.Send("auth\r\n");
    received = peer.ReceiveUntil("\r\n");
    peer.Send("ready\r\n");
    received += peer.ReceiveUntil("rssi\r\n");
    peer.Send(kReply);
    received += peer.ReceiveAll().value_or("(no end)");
  });
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -61)));
  EXPECT_EQ(received, "auth=s3cret\r\nrssi\r\n");
}

TEST_F(ProbeExchange, SendsNothingBeforeTheGreeting) {
  std::string early = "unset";
  AddTarget([&](Peer& peer) {
    peer.Send("aut");
    // The greeting times out with the probe's own end of the stream.
    early = peer.ReceiveAll().value_or("(no end)");
  });
  RunCycle();
  EXPECT_EQ(early, "");
  EXPECT_EQ(TakeLog().size(), 1U);
}

TEST_F(ProbeExchange, SendsTheSecretAsItIs) {
  const std::string secret = "p\xc3\xa4ss \r\nauth=\"x\" \x01\xff\t%s%n";
  std::string received;
  AddTarget([&](Peer& peer) {
    peer.Send("auth\r\n");
    received = peer.Receive(secret.size() + 7);
  });
  EXPECT_EQ(host->Call("setAuthSecret", Secret(secret)), "null");
  EXPECT_TRUE(gate.WaitForSleeps(1));
  air.JoinDevices();
  EXPECT_EQ(received, "auth=" + secret + "\r\n");
  EXPECT_EQ(TakeLog().size(), 1U);
}

TEST_F(ProbeExchange, SendsALongSecretWhole) {
  // More than the kernel takes at a time, which must cost nobody its limit.
  const std::string secret(100000, 'x');
  const auto before = steady_clock::now();
  std::string received;
  AddTarget([&](Peer& peer) {
    peer.Send("auth\r\n");
    received = peer.Receive(secret.size() + 7);
  });
  EXPECT_EQ(host->Call("setAuthSecret", Secret(secret)), "null");
  EXPECT_TRUE(gate.WaitForSleeps(1));
  air.JoinDevices();
  EXPECT_TRUE(received == "auth=" + secret + "\r\n");
  EXPECT_EQ(TakeLog().size(), 1U);
  EXPECT_LT(steady_clock::now() - before, kFakeDeadline);
}

TEST_F(ProbeExchange, TakesTextAroundTheExpectedWords) {
  const std::string address = AddTarget([](Peer& peer) {
    peer.Send("hello\r\nplease auth\r\nnow");
    peer.ReceiveUntil("\r\n");
    peer.Send("ok \"rssi\":1 ready\r\n\"rssi\":2!!END");
    peer.ReceiveUntil("\r\n");
    peer.Send("...{\"a\":1,\"rssi\":3}!!END more");
    peer.ReceiveAll();
  });
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, 3)));
}

TEST_F(ProbeExchange, FindsTerminatorsSplitOverTwoReadsAnywhere) {
  std::vector<std::string> expected;
  for (size_t split = 1; split < strlen("auth\r\n"); ++split) {
    const std::string address = AddTarget(Replying(kReply));
    air.Script(address, Call::kRead, {AtMost(split)});
    expected.push_back(Update(address, -61));
  }
  for (size_t split = 1; split < strlen("ready\r\n"); ++split) {
    const std::string address = AddTarget(Replying(kReply));
    air.Script(address, Call::kRead, {Pass(), AtMost(split)});
    expected.push_back(Update(address, -61));
  }
  for (size_t split = 1; split < strlen(kReply); ++split) {
    const std::string address = AddTarget(Replying(kReply));
    air.Script(address, Call::kRead, {Pass(), Pass(), AtMost(split)});
    expected.push_back(Update(address, -61));
  }
  RunCycle();
  EXPECT_EQ(TakeEvents(), expected);
  EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(ProbeExchange, TakesOneByteAtATime) {
  const std::string address = AddTarget(Replying(kReply));
  air.Script(address, Call::kRead, std::vector<Step>(60, AtMost(1)));
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -61)));
}

TEST_F(ProbeExchange, ReadsAtMost256BytesAtATime) {
  const std::string address =
      AddTarget(Replying(std::string(5000, ' ') + kReply));
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -61)));
  std::vector<CallRecord> reads = air.calls(Call::kRead);
  const size_t drained = DrainCalls(1).size() / 2;
  ASSERT_GT(reads.size(), drained + 20);
  for (size_t i = 0; i < reads.size() - drained; ++i) {
    EXPECT_EQ(reads[i].argument, 256);
  }
}

TEST_F(ProbeExchange, DropsAReadyLineThatComesWithTheGreeting) {
  const std::string address = AddTarget([](Peer& peer) {
    peer.Send("auth\r\nready\r\n");
    peer.ReceiveAll();
  });
  const auto before = steady_clock::now();
  RunCycle();
  EXPECT_GE(steady_clock::now() - before, milliseconds(2400));
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(address, 1, "ready timeout")));
}

TEST_F(ProbeExchange, TakesAWrongAnswerToTheSecretForNoAnswer) {
  const std::string address = AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send("denied\r\n");
  });
  RunCycle();
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(address, 1, "ready timeout")));
}

TEST_F(ProbeExchange, GoesOnAfterInterruptedReads) {
  const std::string address = AddTarget(Replying(kReply));
  air.Script(address, Call::kRead,
             {Fail(EINTR), Fail(EINTR), Pass(), Fail(EINTR), Pass(),
              Fail(EINTR), Pass()});
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -61)));
}

TEST_F(ProbeExchange, GoesOnAfterInterruptedAndShortWrites) {
  const std::string address = AddTarget(Replying(kReply));
  air.Script(address, Call::kWrite,
             {Fail(EINTR), AtMost(3), Fail(EINTR), AtMost(1), Pass(),
              Fail(EINTR), AtMost(2), Pass()});
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -61)));
}

TEST_F(ProbeExchange, FailsAtAnEndThatFollowsAnInterruption) {
  const std::string read = AddTarget(HangUp);
  air.Script(read, Call::kRead, {Fail(EINTR), Return(0, EINTR)});
  const std::string write = AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveAll();
  });
  air.Script(write, Call::kWrite, {Fail(EINTR), Return(0, EINTR)});
  RunCycle();
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(read, 1, "greeting timeout"),
                                     Counted(write, 1, "send auth")));
  EXPECT_EQ(air.count(Call::kRead, 1), 2U);
  EXPECT_EQ(air.count(Call::kWrite, 2), 2U);
}

TEST_F(ProbeExchange, EndsAWaitThatASignalInterrupts) {
  const std::string greeting = AddTarget(HangUp);
  air.Script(greeting, Call::kPoll, {Pass(), Fail(EINTR)});
  const auto ready = AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveAll();
  });
  air.Script(ready, Call::kPoll, {Pass(), Pass(), Fail(EINTR)});
  const auto reply = AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send("ready\r\n");
    peer.ReceiveAll();
  });
  air.Script(reply, Call::kPoll, {Pass(), Pass(), Pass(), Fail(EINTR)});
  RunCycle();
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(greeting, 1, "greeting timeout"),
                                     Counted(ready, 1, "ready timeout"),
                                     Counted(reply, 1, "rssi timeout")));
}

TEST_F(ProbeExchange, WaitsForEachLineAsLongAsItMay) {
  const std::string greeting = AddTarget([](Peer& peer) { peer.ReceiveAll(); });
  air.Script(greeting, Call::kPoll, {Pass(), Return(0)});
  const std::string ready = AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveAll();
  });
  air.Script(ready, Call::kPoll, {Pass(), Pass(), Return(0)});
  const std::string reply = AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send("ready\r\n");
    peer.ReceiveAll();
  });
  air.Script(reply, Call::kPoll, {Pass(), Pass(), Pass(), Return(0)});
  RunCycle();
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(greeting, 1, "greeting timeout"),
                                     Counted(ready, 1, "ready timeout"),
                                     Counted(reply, 1, "rssi timeout")));
  const std::vector<int64_t> longest = {5000, 2500, 2500, 5000};
  for (const int socket : {1, 2, 3}) {
    const auto polls = air.calls(Call::kPoll, socket);
    ASSERT_EQ(polls.size(), static_cast<size_t>(socket) + 1);
    for (size_t i = 0; i < polls.size(); ++i) {
      EXPECT_EQ(polls[i].events, i == 0 ? POLLOUT : POLLIN);
      EXPECT_LE(polls[i].argument, longest[i]);
      EXPECT_GT(polls[i].argument, longest[i] - 400);
    }
  }
}

TEST_F(ProbeExchange, FailsOnReadErrorsLikeOnTimeouts) {
  const std::string greeting = AddTarget(HangUp);
  air.Script(greeting, Call::kRead, {Fail(ECONNRESET)});
  const std::string ready = AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveUntil("\r\n");
  });
  air.Script(ready, Call::kRead, {Pass(), Fail(ETIMEDOUT)});
  const std::string reply = AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send("ready\r\n");
    peer.ReceiveUntil("\r\n");
  });
  air.Script(reply, Call::kRead, {Pass(), Pass(), Fail(ECONNABORTED)});
  RunCycle();
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(greeting, 1, "greeting timeout"),
                                     Counted(ready, 1, "ready timeout"),
                                     Counted(reply, 1, "rssi timeout")));
  EXPECT_TRUE(NoPollTimedOut());
}

TEST_F(ProbeExchange, DoesNotGoOnAfterAReadError) {
  const std::string address = AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    EXPECT_EQ(peer.ReceiveAll(), "");
  });
  air.Script(address, Call::kRead, {Fail(ECONNRESET)});
  RunCycle();
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(address, 1, "greeting timeout")));
  EXPECT_EQ(air.count(Call::kRead), 1U);
}

TEST_F(ProbeExchange, FailsAtOnceWhenTheDeviceCloses) {
  const std::string at_once = AddTarget(HangUp);
  const std::string in_greeting = AddTarget([](Peer& peer) {
    peer.Send("auth\r");
    peer.WaitUntilRead();
  });
  const std::string after_auth = AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveUntil("\r\n");
  });
  const std::string in_ready = AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send("ready");
  });
  const std::string after_rssi = AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send("ready\r\n");
    peer.ReceiveUntil("\r\n");
  });
  const std::string in_reply = AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send("ready\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send("\"rssi\":-61!!EN");
  });
  RunCycle();
  EXPECT_THAT(TakeLog(),
              ElementsAre(Counted(at_once, 1, "greeting timeout"),
                          Counted(in_greeting, 1, "greeting timeout"),
                          Counted(after_auth, 1, "ready timeout"),
                          Counted(in_ready, 1, "ready timeout"),
                          Counted(after_rssi, 1, "rssi timeout"),
                          Counted(in_reply, 1, "rssi timeout")));
  EXPECT_TRUE(NoPollTimedOut());
}

TEST_F(ProbeExchange, TakesAReplyAfterWhichTheDeviceCloses) {
  const std::string address = AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send("ready\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send(kReply);
  });
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -61)));
}

TEST_F(ProbeExchange, FailsWhenALineCannotBeSent) {
  std::vector<std::string> expected;
  const auto greeting_only = [](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveAll();
  };
  for (const Step& step :
       {Fail(EPIPE), Fail(ENOTCONN), Fail(EAGAIN), Return(0)}) {
    const std::string address = AddTarget(greeting_only);
    air.Script(address, Call::kWrite, {step});
    expected.push_back(Counted(address, 1, "send auth"));
  }
  const std::string partly = AddTarget(greeting_only);
  air.Script(partly, Call::kWrite, {AtMost(4), Fail(ENOTCONN)});
  expected.push_back(Counted(partly, 1, "send auth"));
  for (const Step& step : {Fail(EPIPE), Fail(ENOTCONN), Return(0)}) {
    const std::string address = AddTarget([](Peer& peer) {
      peer.Send("auth\r\n");
      peer.ReceiveUntil("\r\n");
      peer.Send("ready\r\n");
      peer.ReceiveAll();
    });
    air.Script(address, Call::kWrite, {Pass(), step});
    expected.push_back(Counted(address, 1, "send rssi"));
  }
  RunCycle();
  EXPECT_EQ(TakeLog(), expected);
}

// The signals that a thread of this process blocks, as bits.
uint64_t BlockedSignals(pid_t thread) {
  std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
  std::string word;
  while (status >> word && word != "SigBlk:") {
  }
  status >> word;
  return std::stoull(word, nullptr, 16);
}

// Leaves a stack without a zero byte for the next thread, which gets this
// one's.
void DirtyAStack() {
  std::thread([] {
    volatile char bytes[32768];
    for (volatile char& byte : bytes) byte = '\xff';
  }).join();
}

TEST_F(ProbeExchange, RunsWithEverySignalBlockedButThoseOfFaults) {
  AddTarget(Reading(-61));
  DirtyAStack();
  const uint64_t blocked = BlockedSignals(gettid());
  ASSERT_EQ(blocked & 1U << (SIGPIPE - 1), 0U);
  RunCycle();
  // Two cannot be blocked, and the two after the last named one are libc's.
  const uint64_t never = uint64_t{1} << (SIGKILL - 1) |
                         uint64_t{1} << (SIGSTOP - 1) | uint64_t{1} << SIGSYS |
                         uint64_t{1} << (SIGSYS + 1);
  EXPECT_EQ(BlockedSignals(air.calls(Call::kSocket).at(0).thread),
            ~(never | FaultSignals()));
  EXPECT_EQ(BlockedSignals(gettid()), blocked);
}

class ProbeFault : public ProberTest,
                   public ::testing::WithParamInterface<Fault> {};

INSTANTIATE_TEST_SUITE_P(Of, ProbeFault, ::testing::ValuesIn(kFaults),
                         ::testing::PrintToStringParamName());

TEST_P(ProbeFault, ReachesTheHostsHandler) {
  const std::string address = AddTarget(Reading(-61));
  bool reached = false;
  air.Script(address, Call::kWrite, {After([&] {
               EXPECT_NE(gettid(), getpid());
               reached = ReachesTheCrashHandler(GetParam());
             })});
  RunCycle();
  EXPECT_TRUE(reached);
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -61)));
}

// A write to a local stream whose other end is gone raises SIGPIPE, and a host
// may leave that signal at its deadly default.
TEST_F(ProbeExchange, SurvivesADeviceThatClosedBeforeAWrite) {
  signal(SIGPIPE, SIG_DFL);
  air.EndLikeALocalStream();
  std::vector<std::string> expected;
  for (int i = 0; i < 2; ++i) {
    const auto closed = std::make_shared<std::atomic<bool>>(false);
    const bool ready_too = i == 1;
    const std::string address = AddTarget([closed, ready_too](Peer& peer) {
      peer.Send("auth\r\n");
      // Before, connecting may be told of the end.
      peer.WaitUntilRead();
      if (ready_too) {
        peer.ReceiveUntil("\r\n");
        peer.Send("ready\r\n");
      }
      peer.Close();
      *closed = true;
    });
    const Step wait = After(
        [closed] { EXPECT_TRUE(Eventually([&] { return closed->load(); })); });
    air.Script(
        address, Call::kWrite,
        ready_too ? std::vector<Step>{Pass(), wait} : std::vector<Step>{wait});
    expected.push_back(
        Counted(address, 1, ready_too ? "send rssi" : "send auth"));
  }
  RunCycle();
  EXPECT_EQ(TakeLog(), expected);
}

// ---------------------------------------------------------------------------

using ProbeTiming = ProbeTest;

TEST_F(ProbeTiming, GivesUpOnADeviceThatSendsOneByteAndHangs) {
  const std::string address = AddTarget([](Peer& peer) {
    peer.Send("a");
    peer.ReceiveAll();
  });
  const auto before = steady_clock::now();
  RunCycle();
  const auto took = steady_clock::now() - before;
  EXPECT_GE(took, milliseconds(2450));
  EXPECT_LT(took, milliseconds(8000));
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(address, 1, "greeting timeout")));
}

TEST_F(ProbeTiming, GivesUpOnADeviceThatTricklesWithoutEnd) {
  const std::string address = AddTarget([](Peer& peer) {
    while (peer.Send(".")) std::this_thread::sleep_for(milliseconds(100));
  });
  const auto before = steady_clock::now();
  RunCycle();
  const auto took = steady_clock::now() - before;
  EXPECT_GE(took, milliseconds(2450));
  EXPECT_LT(took, milliseconds(8000));
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(address, 1, "greeting timeout")));
}

class ProbeLateGreeting : public ProbeTest {
 protected:
  // Probes a device that greets so long after the probe has begun to wait.
  std::string ProbeGreetedAfter(milliseconds delay) {
    const auto begun = std::make_shared<std::atomic<steady_clock::rep>>(0);
    const std::string address = AddTarget([begun, delay](Peer& peer) {
      Eventually([&] { return *begun != 0; });
      std::this_thread::sleep_until(
          steady_clock::time_point(steady_clock::duration(begun->load())) +
          delay);
      peer.Send("auth\r\n");
      peer.ReceiveUntil("\r\n");
      peer.Send("ready\r\n");
      peer.ReceiveUntil("\r\n");
      peer.Send(kReply);
      peer.ReceiveAll();
    });
    air.Script(address, Call::kPoll, {After([begun] {
                 *begun = steady_clock::now().time_since_epoch().count();
               })});
    RunCycle();
    return address;
  }
};

TEST_F(ProbeLateGreeting, IsTakenJustInTime) {
  const std::string address = ProbeGreetedAfter(milliseconds(2400));
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -61)));
}

TEST_F(ProbeLateGreeting, IsMissedJustAfter) {
  const std::string address = ProbeGreetedAfter(milliseconds(2600));
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(address, 1, "greeting timeout")));
}

TEST_F(ProbeTiming, WaitsOnlyForWhatIsLeftOfTheTime) {
  const std::string address = AddTarget([](Peer& peer) {
    for (int i = 0; i < 3; ++i) {
      peer.Send(".");
      std::this_thread::sleep_for(milliseconds(200));
    }
    peer.Send("auth\r\n");
  });
  RunCycle();
  EXPECT_EQ(TakeLog().size(), 1U);
  const auto polls = air.calls(Call::kPoll, 1);
  ASSERT_GE(polls.size(), 5U);
  // Begun after the third byte, which left at least 400 ms after the first.
  EXPECT_LE(polls[4].argument, 2500 - 400 + 100);
}

TEST_F(ProbeTiming, FindsTheGreetingAfterAMegabyteOfGarbage) {
  const std::string address = AddTarget([](Peer& peer) {
    peer.Send(std::string(1 << 20, 'x') + "auth\r\n");
    peer.ReceiveUntil("\r\n");
  });
  RunCycle();
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(address, 1, "ready timeout")));
}

TEST_F(ProbeTiming, DoesNotWaitAgainWhenAReadEndsPastTheTime) {
  const std::string address = AddTarget([](Peer& peer) {
    peer.Send("x");
    EXPECT_EQ(peer.ReceiveAll(), "");
  });
  // Not a sleep: those are held.
  air.Script(address, Call::kRead, {After([] { poll(nullptr, 0, 2600); })});
  RunCycle();
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(address, 1, "greeting timeout")));
  EXPECT_EQ(air.count(Call::kPoll), 2U) << "to connect, and for the greeting";
}

TEST_F(ProbeTiming, GivesUpOnEndlessGarbage) {
  const std::string address = AddTarget([](Peer& peer) {
    const std::string garbage(4096, 'x');
    while (peer.Send(garbage)) std::this_thread::sleep_for(milliseconds(2));
  });
  const auto before = steady_clock::now();
  RunCycle();
  EXPECT_LT(steady_clock::now() - before, milliseconds(8000));
  EXPECT_THAT(TakeLog(), ElementsAre(Counted(address, 1, "greeting timeout")));
}

// ---------------------------------------------------------------------------

using ProbeEnd = ProbeTest;

// RFCOMM knows no half of a stream: the device is told as of a close.
TEST_F(ProbeEnd, HalfClosesAfterTheReply) {
  bool sent = true;
  const std::string address = AddTarget([&](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send("ready\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send(kReply);
    EXPECT_EQ(peer.ReceiveAll(), "");
    sent = peer.Send("bye");
  });
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -61)));
  EXPECT_FALSE(sent);
  const auto shutdowns = air.calls(Call::kShutdown);
  ASSERT_EQ(shutdowns.size(), 1U);
  EXPECT_EQ(shutdowns[0].argument, SHUT_WR);
}

// A device that goes on after its reply.
void TalkOn(Peer& peer) {
  peer.Send("auth\r\n");
  peer.ReceiveUntil("\r\n");
  peer.Send("ready\r\n");
  peer.ReceiveUntil("\r\n");
  peer.Send(kReply + std::string(5000, '.'));
  peer.WaitForClose();
}

TEST_F(ProbeEnd, DrainsAtMostTenTimes64Bytes) {
  const std::string address = AddTarget(TalkOn);
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -61)));
  const auto drain = DrainCalls(1);
  ASSERT_EQ(drain.size(), 20U);
  for (size_t i = 0; i < drain.size(); i += 2) {
    EXPECT_EQ(drain[i].call, Call::kPoll);
    EXPECT_EQ(drain[i].events, POLLIN);
    EXPECT_EQ(drain[i].argument, 200);
    EXPECT_EQ(drain[i + 1].call, Call::kRead);
    EXPECT_EQ(drain[i + 1].argument, 64);
    EXPECT_EQ(drain[i + 1].result, 64);
  }
}

TEST_F(ProbeEnd, GoesOnDrainingAfterASingleByte) {
  const std::string address = AddTarget(TalkOn);
  air.Script(address, Call::kRead, {Pass(), Pass(), Pass(), AtMost(1)});
  RunCycle();
  const auto drain = DrainCalls(1);
  ASSERT_EQ(drain.size(), 20U);
  EXPECT_EQ(drain[1].result, 1);
}

TEST_F(ProbeEnd, StopsDrainingWhenTheDeviceIsSilent) {
  const std::string address = AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send("ready\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send(kReply);
    peer.WaitForClose();
  });
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -61)));
  const auto drain = DrainCalls(1);
  ASSERT_EQ(drain.size(), 2U);
  EXPECT_EQ(drain[1].call, Call::kRead);
  EXPECT_EQ(drain[1].result, 0);
}

TEST_F(ProbeEnd, StopsDrainingWhenAPollReportsNothing) {
  const std::string address = AddTarget(TalkOn);
  air.Script(address, Call::kPoll,
             {Pass(), Pass(), Pass(), Pass(), Pass(), Return(0)});
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -61)));
  const auto drain = DrainCalls(1);
  ASSERT_EQ(drain.size(), 3U);
  EXPECT_EQ(drain[1].result, 64);
  EXPECT_EQ(drain[2].result, 0);
}

TEST_F(ProbeEnd, StopsDrainingAtTheFirstFailure) {
  const std::string poll = AddTarget(TalkOn);
  air.Script(poll, Call::kPoll, {Pass(), Pass(), Pass(), Pass(), Fail(EINTR)});
  const std::string read = AddTarget(TalkOn);
  air.Script(read, Call::kRead, {Pass(), Pass(), Pass(), Pass(), Fail(EINTR)});
  const std::string end = AddTarget(Replying(kReply));
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(poll, -61), Update(read, -61),
                                        Update(end, -61)));
  EXPECT_EQ(DrainCalls(1).size(), 1U);
  EXPECT_EQ(DrainCalls(2).size(), 4U);
  EXPECT_EQ(DrainCalls(3).size(), 2U);
}

TEST_F(ProbeEnd, DoesNotParseWhatItDrains) {
  const std::string address = AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send("ready\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send("!!END\"rssi\":-61!!END");
    EXPECT_EQ(peer.ReceiveAll(), "");
  });
  air.Script(address, Call::kRead, {Pass(), Pass(), AtMost(5)});
  RunCycle();
  EXPECT_THAT(TakeLog(),
              ElementsAre(Counted(address, 1, "no rssi in response")));
}

TEST_F(ProbeEnd, HalfClosesOnlyAfterAReply) {
  AddTarget(HangUp);
  AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveUntil("\r\n");
  });
  RunCycle();
  EXPECT_EQ(TakeLog().size(), 2U);
  EXPECT_EQ(air.count(Call::kShutdown), 0U);
}

// ---------------------------------------------------------------------------

using ProbeReply = ProbeTest;

TEST_F(ProbeReply, HoldsTheReadingAfterKeyAndColon) {
  ExpectReadings({
      {"\"rssi\":-61!!END", -61},
      {"\"rssi\" : +7!!END", 7},
      {"\"rssi\":\t-61!!END", -61},
      {"\"rssi\": \t \t-1!!END", -1},
      {"\"rssi\":-61.5!!END", -61},
      {"\"rssi\":-61dBm!!END", -61},
      {"\"rssi\":0!!END", 0},
      {"\"rssi\":-0!!END", 0},
      {"\"rssi\":007!!END", 7},
      {"\"rssi\":0x10!!END", 0},
      {"\"rssi\":127!!END", 127},
      {"\"rssi\":2147483647!!END", 2147483647},
      {"\"rssi\":-2147483648!!END", -2147483647 - 1},
      {"\"rssi\":+00000000000000000000002147483647!!END", 2147483647},
      {"{\"name\":\"x\",\"rssi\":-42,\"y\":1}\r\n!!END", -42},
      {"\"rssi\":5!!END trailing", 5},
  });
}

TEST_F(ProbeReply, IsSearchedFromItsStart) {
  ExpectReadings({
      {"\"rssi\":1,\"rssi\":2!!END", 1},
      {"\"rssi\",\"x\":3,\"rssi\":4!!END", 3},
      {"{\"key\":\"rssi\",\"rssi\":-5}!!END", -5},
      {"\"RSSI\":1,\"rssi\":2!!END", 2},
      {"\"rssi \":1,'rssi':2,\"rssi\":3!!END", 3},
      {std::string("\0\0\"rssi\":6\0!!END", 16), 6},
      {"!!END\"rssi\":-9", -9},
      {"\"rssi\" junk \r\n : 8!!END", 8},
  });
}

TEST_F(ProbeReply, WithoutTheKeyFails) {
  ExpectErrors({
      {"!!END", "no rssi in response"},
      {"rssi:-61!!END", "no rssi in response"},
      {"'rssi':-61!!END", "no rssi in response"},
      {"\"RSSI\":-61!!END", "no rssi in response"},
      {"\"rssi:-61!!END", "no rssi in response"},
      {"\" rssi\":-61!!END", "no rssi in response"},
  });
}

TEST_F(ProbeReply, WithoutAColonAfterTheKeyFails) {
  ExpectErrors({
      {"\"rssi\"!!END", "no rssi value"},
      {"\"rssi\" -61!!END", "no rssi value"},
      {"x:1,\"rssi\"=-61!!END", "no rssi value"},
  });
}

TEST_F(ProbeReply, WithoutANumberFails) {
  ExpectErrors({
      {"\"rssi\":!!END", "rssi value not integer"},
      {"\"rssi\":\"-61\"!!END", "rssi value not integer"},
      {"\"rssi\":\r\n-61!!END", "rssi value not integer"},
      {"\"rssi\":\n-61!!END", "rssi value not integer"},
      {"\"rssi\":\v5!!END", "rssi value not integer"},
      {"\"rssi\":~61!!END", "rssi value not integer"},
      {"\"rssi\":null!!END", "rssi value not integer"},
      {"\"rssi\": .5!!END", "rssi value not integer"},
      {"\"rssi\":\xe2\x88\x92"
       "61!!END",
       "rssi value not integer"},
      {"!!END\"rssi\":", "rssi value not integer"},
      {"!!END\"rssi\": \t ", "rssi value not integer"},
      {std::string("\"rssi\":\0"
                   "5!!END",
                   14),
       "rssi value not integer"},
  });
}

TEST_F(ProbeReply, IsReadWhateverErrorCameBefore) {
  air.Script(Call::kClose, {Return(0, ERANGE)});
  ExpectReadings({{"\"rssi\":-61!!END", -61}});
}

TEST_F(ProbeReply, WithANumberOutOfRangeFails) {
  ExpectErrors({
      {"\"rssi\":-!!END", "rssi parse"},
      {"\"rssi\":+!!END", "rssi parse"},
      {"\"rssi\":-a!!END", "rssi parse"},
      {"\"rssi\":--5!!END", "rssi parse"},
      {"\"rssi\":+-5!!END", "rssi parse"},
      {"\"rssi\":- 5!!END", "rssi parse"},
      {"!!END\"rssi\":-", "rssi parse"},
      {"\"rssi\":2147483648!!END", "rssi parse"},
      {"\"rssi\":-2147483649!!END", "rssi parse"},
      {"\"rssi\":4294967295!!END", "rssi parse"},
      {"\"rssi\":9223372036854775808!!END", "rssi parse"},
      {"\"rssi\":-99999999999999999999999!!END", "rssi parse"},
  });
}

// ---------------------------------------------------------------------------

using ProbeSecret = ProbeTest;

TEST_F(ProbeSecret, StandsInNoLogLine) {
  const std::string secret = "hunter2";
  AddTarget(HangUp);
  AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send("bad hunter2\r\n");
  });
  AddTarget([](Peer& peer) {
    peer.Send("auth\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send("ready\r\n");
    peer.ReceiveUntil("\r\n");
    peer.Send("\"rssi\":hunter2!!END");
    peer.ReceiveAll();
  });
  const std::string refused = AddTarget(HangUp);
  air.Script(refused, Call::kConnect, {Fail(ECONNREFUSED)});
  EXPECT_EQ(host->Call("setAuthSecret", Secret(secret)), "null");
  EXPECT_TRUE(gate.WaitForSleeps(1));
  const auto log = TakeLog();
  EXPECT_EQ(log.size(), 4U);
  for (const std::string& line : log) {
    EXPECT_EQ(line.find(secret), std::string::npos) << line;
  }
  EXPECT_EQ(TakeStandardError(), "");
}

// ---------------------------------------------------------------------------

using ProbeResources = ProbeTest;

TEST_F(ProbeResources, AreBackAtTheStartAfterManyProbes) {
  for (int i = 0; i < 5; ++i) AddTarget(Reading(-i));
  AddTarget(HangUp);
  const std::string refused = AddTarget(HangUp);
  const std::string slow = AddTarget(Reading(1));
  AddTarget(Replying("!!END"));
  ListDevice("nonsense", "VELKAN-1");
  const size_t threads = CountThreads() + 1;  // the prober
  RunCycle();
  const size_t descriptors = CountDescriptors();
  for (int cycle = 0; cycle < 12; ++cycle) {
    air.Script(refused, Call::kConnect, {Fail(ECONNREFUSED)});
    air.Script(slow, Call::kConnect, {Fail(EINPROGRESS)});
    RunCycle();
  }
  EXPECT_GE(air.sockets(), 100);
  EXPECT_TRUE(Eventually([&] { return CountDescriptors() <= descriptors; }));
  EXPECT_TRUE(Eventually([&] { return CountThreads() <= threads; }));
  std::printf("%d probes: descriptors %zu -> %zu, threads %zu -> %zu\n",
              air.sockets(), descriptors, CountDescriptors(), threads,
              CountThreads());
  TakeLog();
}

}  // namespace
}  // namespace lumso_test
