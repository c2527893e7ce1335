// "lumso_bluetooth/read/%d": what a device sends, as the application sees it.

#include <cerrno>
#include <cstring>

#include "tests/bus/connection_test.h"

namespace lumso_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kEnd[] = "end of stream";

class ReadChannelTest : public ConnectionTest {
 protected:
  bool WaitForEvents(int id, size_t count) {
    return WaitUntil(
        [&] { return host->Events(ReadChannel(id)).size() >= count; }, 20);
  }

  // What the reads of a socket have to look like as events.
  std::vector<std::string> ReadsAsEvents(int socket) {
    std::vector<std::string> events;
    for (const CallRecord& record : air.calls(Call::kRead, socket)) {
      if (record.result > 0) events.push_back(DescribeBytes(record.bytes));
    }
    return events;
  }
};

using ReadEvents = ReadChannelTest;

TEST_F(ReadEvents, HoldExactlyTheBytesOfOneRead) {
  const auto peer = Open(1);
  std::vector<std::string> expected;
  for (const std::string& bytes :
       {std::string("a"), std::string("\0\x7f\x80\xff", 4), Pattern(2048)}) {
    ASSERT_TRUE(peer->Send(bytes));
    expected.push_back(DescribeBytes(bytes));
    ASSERT_TRUE(WaitForEvents(1, expected.size()));
  }
  EXPECT_EQ(host->Events(ReadChannel(1)), expected);
}

TEST_F(ReadEvents, AreNotJoinedWhenTheyQueueUp) {
  const auto peer = Open(1);
  std::vector<std::string> expected;
  size_t count = 0;
  for (const std::string bytes : {"one", "two", "three"}) {
    ASSERT_TRUE(peer->Send(bytes));
    count += bytes.size();
    ASSERT_TRUE(WaitForRead(1, count));
    expected.push_back(DescribeBytes(bytes));
  }
  // The last of them may not be queued yet.
  ASSERT_TRUE(WaitForEvents(1, expected.size()));
  EXPECT_EQ(host->Events(ReadChannel(1)), expected);
}

TEST_F(ReadEvents, SplitABurstInOrder) {
  const auto peer = Open(1);
  const std::string burst = Pattern(50000);
  std::thread device([&] {
    EXPECT_TRUE(peer->Send(burst));
    peer->Close();
  });
  ASSERT_TRUE(WaitUntil(
      [&] {
        const auto events = host->Events(ReadChannel(1));
        return !events.empty() && events.back() == kEnd;
      },
      20));
  device.join();
  EXPECT_EQ(TakeStandardError(), kPeerClosed);
  std::vector<std::string> expected = ReadsAsEvents(1);
  expected.push_back(kEnd);
  EXPECT_EQ(host->Events(ReadChannel(1)), expected);
  std::string read;
  for (const CallRecord& record : air.calls(Call::kRead, 1)) {
    EXPECT_LE(record.bytes.size(), 2048U);
    read += record.bytes;
  }
  EXPECT_TRUE(read == burst);
}

TEST_F(ReadEvents, LeaveAfterTheAnswerToConnect) {
  air.AddDevice(kDeviceAddress, [](Peer& peer) {
    peer.Send("at once");
    peer.WaitForClose();
  });
  for (int id = 1; id <= 20; ++id) {
    const size_t records = host->records().size();
    EXPECT_EQ(host->Call("connect", Address(kDeviceAddress)),
              std::to_string(id));
    ASSERT_EQ(host->records().size(), records + 1);
    ASSERT_TRUE(WaitForEvents(id, 1));
    EXPECT_EQ(host->records()[records + 1].channel, ReadChannel(id));
    EXPECT_EQ(Disconnect(id), "true");
  }
}

TEST_F(ReadEvents, ComeWithoutAListener) {
  const auto peer = Open(1);
  ASSERT_TRUE(peer->Send("heard by nobody"));
  EXPECT_TRUE(WaitForEvents(1, 1));
}

TEST_F(ReadEvents, StayWithTheirStream) {
  const auto first = Open(1);
  const auto second = Open(2, kOtherAddress);
  ASSERT_TRUE(first->Send("1"));
  ASSERT_TRUE(second->Send("2"));
  ASSERT_TRUE(WaitForEvents(1, 1));
  ASSERT_TRUE(WaitForEvents(2, 1));
  EXPECT_THAT(host->Events(ReadChannel(1)), ElementsAre("bytes[49]"));
  EXPECT_THAT(host->Events(ReadChannel(2)), ElementsAre("bytes[50]"));
}

TEST_F(ReadEvents, GoOnAfterInterruptions) {
  air.Script(kDeviceAddress, Call::kPoll, {Fail(EINTR)});
  air.Script(kDeviceAddress, Call::kRead, {Fail(EINTR)});
  const auto peer = Open(1);
  ASSERT_TRUE(peer->Send("!"));
  ASSERT_TRUE(WaitForEvents(1, 1));
  EXPECT_THAT(host->Events(ReadChannel(1)), ElementsAre("bytes[33]"));
}

// ---------------------------------------------------------------------------

using ReadEndOfStream = ReadChannelTest;

TEST_F(ReadEndOfStream, ComesOnceAfterTheRemainingBytes) {
  const auto peer = Open(1);
  ASSERT_TRUE(peer->Send("bye"));
  peer->Close();
  ASSERT_TRUE(WaitForEvents(1, 2));
  Settle();
  EXPECT_EQ(TakeStandardError(), kPeerClosed);
  EXPECT_THAT(host->Events(ReadChannel(1)),
              ElementsAre(DescribeBytes("bye"), kEnd));
}

TEST_F(ReadEndOfStream, FollowsAReadError) {
  for (const int error : {ECONNRESET, ETIMEDOUT, ECONNABORTED}) {
    air.Script(kDeviceAddress, Call::kRead, {Pass(), Fail(error)});
    const int id = air.sockets() + 1;
    const auto peer = Open(id);
    ASSERT_TRUE(peer->Send("x"));
    ASSERT_TRUE(WaitForEvents(id, 1));
    peer->Close();
    ASSERT_TRUE(WaitForEvents(id, 2));
    EXPECT_THAT(host->Events(ReadChannel(id)),
                ElementsAre(DescribeBytes("x"), kEnd));
    EXPECT_EQ(TakeStandardError(),
              std::string("lumso_bluetooth: RFCOMM read error: ") +
                  strerror(error) + "\n");
  }
}

TEST_F(ReadEndOfStream, LeavesTheConnectionToBeDisconnected) {
  const auto peer = Open(1);
  peer->Close();
  ASSERT_TRUE(WaitForEvents(1, 1));
  EXPECT_EQ(air.open_sockets(), 1U);
  EXPECT_EQ(Disconnect(1), "true");
  EXPECT_EQ(air.open_sockets(), 0U);
  EXPECT_EQ(Disconnect(1), "false");
  Settle();
  EXPECT_EQ(TakeStandardError(), kPeerClosed);
  EXPECT_THAT(host->Events(ReadChannel(1)), ElementsAre(kEnd));
}

TEST_F(ReadEndOfStream, OfOneStreamLeavesTheOtherAlone) {
  const auto first = Open(1);
  const auto second = Open(2, kOtherAddress);
  first->Close();
  ASSERT_TRUE(WaitForEvents(1, 1));
  EXPECT_EQ(TakeStandardError(), kPeerClosed);
  ASSERT_TRUE(second->Send("x"));
  ASSERT_TRUE(WaitForEvents(2, 1));
  EXPECT_THAT(host->Events(ReadChannel(2)), ElementsAre(DescribeBytes("x")));
}

TEST_F(ReadEndOfStream, ComesWhenTheDeviceShutsItsEndDown) {
  const auto peer = Open(1);
  peer->Shutdown();
  ASSERT_TRUE(WaitForEvents(1, 1));
  EXPECT_THAT(host->Events(ReadChannel(1)), ElementsAre(kEnd));
  EXPECT_EQ(TakeStandardError(), kPeerClosed);
  EXPECT_EQ(Write(1, "too late"), "false");
  TakeStandardError();
}

TEST_F(ReadEndOfStream, ComesWithoutALineWhereItIsNoError) {
  air.EndLikeALocalStream();
  const auto peer = Open(1);
  peer->Close();
  ASSERT_TRUE(WaitForEvents(1, 1));
  EXPECT_THAT(host->Events(ReadChannel(1)), ElementsAre(kEnd));
}

// ---------------------------------------------------------------------------

using ReadListen = ReadChannelTest;

TEST_F(ReadListen, AndCancelAnswerNullAndSendNothing) {
  Open(1);
  EXPECT_EQ(host->Listen(ReadChannel(1)), "null");
  EXPECT_EQ(host->Listen(ReadChannel(1)), "null");
  EXPECT_EQ(host->Cancel(ReadChannel(1)), "null");
  EXPECT_EQ(host->Cancel(ReadChannel(1)), "null");
  EXPECT_EQ(host->CallOn(ReadChannel(1), "listen", fl_value_new_int(5)),
            "null");
  Settle();
  EXPECT_THAT(host->Events(ReadChannel(1)), IsEmpty());
}

TEST_F(ReadListen, AndCancelChangeNothingAboutTheStream) {
  const auto peer = Open(1);
  ASSERT_TRUE(peer->Send("a"));
  ASSERT_TRUE(WaitForEvents(1, 1));
  EXPECT_EQ(host->Listen(ReadChannel(1)), "null");
  ASSERT_TRUE(peer->Send("b"));
  ASSERT_TRUE(WaitForEvents(1, 2));
  EXPECT_EQ(host->Cancel(ReadChannel(1)), "null");
  ASSERT_TRUE(peer->Send("c"));
  ASSERT_TRUE(WaitForEvents(1, 3));
  EXPECT_EQ(Write(1, "d"), "true");
  EXPECT_EQ(peer->Receive(1), "d");
  peer->Close();
  ASSERT_TRUE(WaitForEvents(1, 4));
  EXPECT_EQ(TakeStandardError(), kPeerClosed);
  EXPECT_THAT(host->Events(ReadChannel(1)),
              ElementsAre("bytes[97]", "bytes[98]", "bytes[99]", kEnd));
}

// The engine keeps the channel of a connection longer than the plug-in lives.
TEST_F(ReadListen, AndCancelAnswerNullWhenThePluginHasGone) {
  const BusPtr shared = SharedBus();
  const auto peer = Open(1);
  for (const char* channel : {kMethods, kDiscovery, kState, kDebug}) {
    host->DropHandler(channel);
  }
  EXPECT_TRUE(peer->WaitForClose());
  // The reader's end, on its way to the main loop, keeps the memory of the
  // plug-in's state.
  DispatchQueued();
  EXPECT_EQ(host->Listen(ReadChannel(1)), "null");
  EXPECT_EQ(host->Cancel(ReadChannel(1)), "null");
}

TEST_F(ReadListen, AfterTheEndOfStreamBringsNoSecondOne) {
  const auto peer = Open(1);
  peer->Close();
  ASSERT_TRUE(WaitForEvents(1, 1));
  EXPECT_EQ(host->Listen(ReadChannel(1)), "null");
  EXPECT_EQ(host->Cancel(ReadChannel(1)), "null");
  Settle();
  EXPECT_EQ(TakeStandardError(), kPeerClosed);
  EXPECT_THAT(host->Events(ReadChannel(1)), ElementsAre(kEnd));
}

}  // namespace
}  // namespace lumso_test
