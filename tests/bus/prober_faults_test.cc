// Every system call of a probe fails with every error that it may give, is
// interrupted a thousand times and comes back short at every length.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "tests/bus/prober_test.h"
#include "tests/support/call_errors.h"

namespace lumso_test {
namespace {

constexpr char kReply[] = "\"rssi\":-61!!END";
constexpr int kStorm = 1000;

// One call site of a probe, and what comes of its failure.
struct CallSite {
  const char* name;
  Call call;
  int passes;  // calls of the kind that come first
  const Errors& errors;
  const char* outcome;    // "*": the text of the error; null: a reading
  Errors harmless = {};   // errors that give a reading all the same
  Errors transient = {};  // errors that are not counted
};

const Errors kTransientErrors = {ECONNREFUSED, EHOSTUNREACH, ENETUNREACH};

constexpr char kNoGreeting[] = "greeting timeout";
constexpr char kNotReady[] = "ready timeout";
constexpr char kNoReply[] = "rssi timeout";

const CallSite kCallSites[] = {
    {"socket", Call::kSocket, 0, kSocketErrors, "socket: *"},
    {"F_SETFD", Call::kSetDescriptorFlags, 0, kFcntlErrors, nullptr},
    {"F_GETFL", Call::kGetFlags, 0, kFcntlErrors, nullptr},
    {"first F_SETFL", Call::kSetFlags, 0, kFcntlErrors, nullptr},
    {"last F_SETFL", Call::kSetFlags, 1, kFcntlErrors, nullptr},
    {"connect",
     Call::kConnect,
     0,
     kConnectErrors,
     "connect: *",
     {EINPROGRESS},
     kTransientErrors},
    {"poll for the connection", Call::kPoll, 0, kPollErrors, "connect timeout"},
    {"getsockopt", Call::kPendingError, 0, kGetsockoptErrors, nullptr},
    {"poll for greeting", Call::kPoll, 1, kPollErrors, kNoGreeting},
    {"read of greeting", Call::kRead, 0, kReadErrors, kNoGreeting, {EINTR}},
    {"write of secret", Call::kWrite, 0, kWriteErrors, "send auth", {EINTR}},
    {"poll for readiness", Call::kPoll, 2, kPollErrors, kNotReady},
    {"read of readiness", Call::kRead, 1, kReadErrors, kNotReady, {EINTR}},
    {"write of question", Call::kWrite, 1, kWriteErrors, "send rssi", {EINTR}},
    {"poll for reply", Call::kPoll, 3, kPollErrors, kNoReply},
    {"read of reply", Call::kRead, 2, kReadErrors, kNoReply, {EINTR}},
    {"shutdown", Call::kShutdown, 0, kShutdownErrors, nullptr},
    {"poll after reply", Call::kPoll, 4, kPollErrors, nullptr},
    {"read after reply", Call::kRead, 3, kReadErrors, nullptr},
    {"close", Call::kClose, 0, kCloseErrors, nullptr},
};

// A device that answers as far as it is asked and leaves after its reply.
void Answer(Peer& peer) {
  peer.Send("auth\r\n");
  peer.ReceiveUntil("\r\n");
  peer.Send("ready\r\n");
  peer.ReceiveUntil("\r\n");
  peer.Send(kReply);
}

class ProberFaults : public ProberTest {
 protected:
  // Puts `steps` before the next probe, which is that of `address`. What comes
  // before connect() belongs to no address yet.
  void Script(const std::string& address, Call call, std::vector<Step> steps) {
    const bool connected = call == Call::kConnect || call == Call::kPoll ||
                           call == Call::kPendingError || call == Call::kRead ||
                           call == Call::kWrite || call == Call::kShutdown ||
                           call == Call::kClose;
    air.Script(connected ? address : "", call, std::move(steps));
  }

  // Adds a device whose probe fails at `site` with `error`, and tells the log
  // line that comes of it, or the event.
  std::string AddRow(const CallSite& site, int error) {
    const std::string address = AddTarget(Answer);
    std::vector<Step> steps(static_cast<size_t>(site.passes), Pass());
    steps.push_back(Fail(error));
    // Of the two changes of the flags each probe makes both.
    if (site.call == Call::kSetFlags) steps.resize(2, Pass());
    Script(address, site.call, std::move(steps));
    if (site.outcome == nullptr || IsOneOf(error, site.harmless)) {
      return Update(address, -61);
    }
    const std::string text = WithError(site.outcome, error);
    return IsOneOf(error, site.transient) ? Transient(address, text)
                                          : Counted(address, 1, text);
  }

  // Runs a cycle over the devices added since the last one and expects exactly
  // `outcomes` of it, and that nothing is left.
  void ExpectOutcomes(std::vector<std::string> outcomes) {
    RunCycle();
    std::vector<std::string> seen = TakeLog();
    for (std::string& event : TakeEvents()) seen.push_back(std::move(event));
    std::sort(seen.begin(), seen.end());
    std::sort(outcomes.begin(), outcomes.end());
    EXPECT_EQ(seen, outcomes);
    EXPECT_EQ(air.open_sockets(), 0U);
    RemoveTargets();
  }
};

TEST_F(ProberFaults, EndEveryCallWithEveryErrorAndLeaveNothing) {
  ExpectOutcomes({});
  const size_t descriptors = CountDescriptors();
  const size_t threads = CountThreads();
  int rows = 0;
  for (const CallSite& site : kCallSites) {
    SCOPED_TRACE(site.name);
    std::vector<std::string> outcomes;
    for (const int error : site.errors) outcomes.push_back(AddRow(site, error));
    // The next probe knows nothing of it.
    outcomes.push_back(Update(AddTarget(Answer), -61));
    rows += static_cast<int>(site.errors.size());
    ExpectOutcomes(std::move(outcomes));
    EXPECT_TRUE(Eventually([&] { return CountDescriptors() <= descriptors; }));
    EXPECT_TRUE(Eventually([&] { return CountThreads() <= threads; }));
  }
  EXPECT_EQ(TakeStandardError(), "");
  RecordProperty("rows", rows);
}

// The error that a connection ends with comes by another way than the others:
// as what getsockopt() tells.
TEST_F(ProberFaults, EndAConnectionInProgressWithEveryError) {
  std::vector<std::string> outcomes;
  for (const int error : kConnectErrors) {
    const std::string address = AddTarget(HangUp);
    air.Script(address, Call::kPendingError, {Return(error)});
    const std::string text = std::string("connect: ") + strerror(error);
    outcomes.push_back(IsOneOf(error, kTransientErrors)
                           ? Transient(address, text)
                           : Counted(address, 1, text));
  }
  ExpectOutcomes(std::move(outcomes));
}

TEST_F(ProberFaults, InStormsOfInterruptionsChangeNothing) {
  const std::string address = AddTarget(Replying(kReply));
  const std::vector<Step> storm(kStorm, Fail(EINTR));
  for (const Call call : {Call::kRead, Call::kWrite}) {
    for (int i = 0; i < 2; ++i) {
      air.Script(address, call, storm);
      air.Script(address, call, {Pass()});
    }
  }
  ExpectOutcomes({Update(address, -61)});
  EXPECT_EQ(air.count(Call::kWrite), 2U * kStorm + 2);
}

TEST_F(ProberFaults, InTheFormOfShortCountsLoseNothing) {
  const size_t longest = std::string("auth=\r\n").size() + strlen(kSecret);
  std::vector<std::string> outcomes;
  for (size_t size = 1; size <= std::max(longest, strlen(kReply)); ++size) {
    for (const Call call : {Call::kRead, Call::kWrite}) {
      const std::string address = AddTarget(Replying(kReply));
      air.Script(address, call, std::vector<Step>(60, AtMost(size)));
      outcomes.push_back(Update(address, -61));
    }
  }
  ExpectOutcomes(std::move(outcomes));
}

}  // namespace
}  // namespace lumso_test
