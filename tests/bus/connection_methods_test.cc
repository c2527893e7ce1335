// "connect", "write" and "disconnect".

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <utility>

#include "tests/bus/connection_test.h"

namespace lumso_test {
namespace {

using ::testing::IsEmpty;

constexpr char kRefused[] =
    "error(\"EINVAL\", \"BT not initialized or address missing\", null)";
constexpr char kFailed[] = "error(\"ECONN\", \"RFCOMM connect failed\", null)";

std::string WriteError(int error) {
  return std::string("lumso_bluetooth: RFCOMM write error: ") +
         strerror(error) + "\n";
}

std::string ConnectError(const std::string& address, int error) {
  return "lumso_bluetooth: RFCOMM connect to " + address +
         " failed: " + strerror(error) + "\n";
}

// Makers of one value of each type but the string.
using Maker = std::function<FlValue*()>;
const std::vector<Maker>& NotStrings() {
  static const std::vector<Maker> makers = {
      [] { return fl_value_new_null(); },
      [] { return fl_value_new_bool(true); },
      [] { return fl_value_new_int(1); },
      [] { return fl_value_new_float(1.0); },
      [] { return ByteList(kDeviceAddress); },
      [] { return fl_value_new_list(); },
      [] { return fl_value_new_map(); },
      [] {
        const int32_t numbers[] = {1};
        return fl_value_new_int32_list(numbers, 1);
      },
      [] {
        const int64_t numbers[] = {1};
        return fl_value_new_int64_list(numbers, 1);
      },
      [] {
        const double numbers[] = {1};
        return fl_value_new_float_list(numbers, 1);
      },
  };
  return makers;
}

// Makers of one value of each type but the integer.
std::vector<Maker> NotIntegers() {
  std::vector<Maker> makers;
  for (const Maker& maker : NotStrings()) {
    g_autoptr(FlValue) value = maker();
    if (fl_value_get_type(value) != FL_VALUE_TYPE_INT) makers.push_back(maker);
  }
  makers.emplace_back([] { return fl_value_new_string("1"); });
  return makers;
}

// Makers of one value of each type but the list of bytes.
std::vector<Maker> NotByteLists() {
  std::vector<Maker> makers;
  for (const Maker& maker : NotStrings()) {
    g_autoptr(FlValue) value = maker();
    if (fl_value_get_type(value) != FL_VALUE_TYPE_UINT8_LIST) {
      makers.push_back(maker);
    }
  }
  makers.emplace_back([] { return fl_value_new_string("bytes"); });
  makers.emplace_back([] {
    FlValue* list = fl_value_new_list();
    fl_value_append_take(list, fl_value_new_int(65));
    return list;
  });
  return makers;
}

// Makers of arguments that are no map.
std::vector<Maker> NotMaps() {
  std::vector<Maker> makers;
  for (const Maker& maker : NotStrings()) {
    g_autoptr(FlValue) value = maker();
    if (fl_value_get_type(value) != FL_VALUE_TYPE_MAP) makers.push_back(maker);
  }
  makers.emplace_back([] { return fl_value_new_string(kDeviceAddress); });
  return makers;
}

// ---------------------------------------------------------------------------

using Connect = ConnectionTest;

TEST_F(Connect, HandsOutIdsFromOneOn) {
  for (int id = 1; id <= 5; ++id) {
    const std::string address = "AA:BB:CC:DD:EE:1" + std::to_string(id);
    air.AddDevice(address);
    Open(id, address);
  }
}

TEST_F(Connect, ReachesChannelOneOfTheDevice) {
  Open(1);
  const auto connects = air.calls(Call::kConnect);
  ASSERT_EQ(connects.size(), 1U);
  EXPECT_EQ(connects[0].bytes,
            std::string("\x1f\x00\xff\xee\xdd\xcc\xbb\xaa\x01\x00", 10));
}

TEST_F(Connect, UsesUpNoIdWhenItFails) {
  Open(1);
  EXPECT_EQ(host->Call("connect", Address("AA:BB:CC:DD:EE:99")), kFailed);
  EXPECT_EQ(host->Call("connect", Address("nonsense")), kFailed);
  EXPECT_EQ(host->Call("connect"), kRefused);
  Open(2, kOtherAddress);
  EXPECT_EQ(TakeStandardError(),
            ConnectError("AA:BB:CC:DD:EE:99", EHOSTDOWN) +
                "lumso_bluetooth: bad BT address 'nonsense'\n");
}

TEST_F(Connect, NeverHandsAnIdOutTwice) {
  Open(1);
  EXPECT_EQ(Disconnect(1), "true");
  Open(2);
  Open(3, kOtherAddress);
  EXPECT_EQ(Disconnect(2), "true");
  EXPECT_EQ(Disconnect(3), "true");
  Open(4);
}

TEST_F(Connect, AnswersEconnWhateverTheReason) {
  std::string expected;
  for (const int error :
       {ECONNREFUSED, EHOSTDOWN, EHOSTUNREACH, EBUSY, EINPROGRESS, ETIMEDOUT}) {
    air.Script(kDeviceAddress, Call::kConnect, {Fail(error)});
    EXPECT_EQ(host->Call("connect", Address(kDeviceAddress)), kFailed);
    expected += ConnectError(kDeviceAddress, error);
  }
  air.Script(Call::kSocket, {Fail(EAFNOSUPPORT)});
  EXPECT_EQ(host->Call("connect", Address(kDeviceAddress)), kFailed);
  expected += std::string("lumso_bluetooth: socket() failed: ") +
              strerror(EAFNOSUPPORT) + "\n";
  EXPECT_EQ(TakeStandardError(), expected);
  EXPECT_EQ(CountThreadsNamed(kReader), 0U);
}

TEST_F(Connect, AnswersEconnForTextThatIsNoAddress) {
  std::string expected;
  for (const std::string address :
       {"", "AA:BB", "AA-BB-CC-DD-EE-FF", "AA:BB:CC:DD:EE:FG"}) {
    EXPECT_EQ(host->Call("connect", Address(address)), kFailed);
    expected += "lumso_bluetooth: bad BT address '" + address + "'\n";
  }
  EXPECT_EQ(TakeStandardError(), expected);
  EXPECT_EQ(air.sockets(), 0);
}

TEST_F(Connect, AnswersEinvalWithoutAnAddress) {
  EXPECT_EQ(host->Call("connect"), kRefused);
  EXPECT_EQ(host->Call("connect", Map()), kRefused);
  EXPECT_EQ(host->Call("connect",
                       Map({{"Address", fl_value_new_string(kDeviceAddress)}})),
            kRefused);
  for (const Maker& maker : NotStrings()) {
    g_autoptr(FlValue) value = maker();
    EXPECT_EQ(host->Call("connect", Map({{"address", fl_value_ref(value)}})),
              kRefused)
        << Describe(value);
  }
  for (const Maker& maker : NotMaps()) {
    EXPECT_EQ(host->Call("connect", maker()), kRefused);
  }
  EXPECT_EQ(air.sockets(), 0);
}

TEST_F(Connect, IgnoresOtherKeys) {
  EXPECT_EQ(host->Call("connect",
                       Map({{"channel", fl_value_new_int(7)},
                            {"address", fl_value_new_string(kDeviceAddress)}})),
            "1");
  const auto connects = air.calls(Call::kConnect);
  ASSERT_EQ(connects.size(), 1U);
  EXPECT_EQ(connects[0].bytes[8], 1);
}

// A device has one channel 1, and it is the kernel that says so.
TEST_F(Connect, LeavesARefusalOfASecondStreamToTheKernel) {
  const auto peer = Open(1);
  EXPECT_EQ(host->Call("connect", Address(kDeviceAddress)), kFailed);
  EXPECT_EQ(TakeStandardError(), ConnectError(kDeviceAddress, EBUSY));
  EXPECT_EQ(air.count(Call::kConnect), 2U);
  EXPECT_EQ(Write(1, "untouched"), "true");
  EXPECT_EQ(peer->Receive(9), "untouched");
}

TEST_F(Connect, FailsWhileTheChannelIsStillClosing) {
  air.SetClosingTime(std::chrono::milliseconds(50));
  Open(1);
  EXPECT_EQ(Disconnect(1), "true");
  EXPECT_EQ(host->Call("connect", Address(kDeviceAddress)), kFailed);
  EXPECT_EQ(TakeStandardError(), ConnectError(kDeviceAddress, EBUSY));
  EXPECT_TRUE(WaitUntil(
      [&] { return host->Call("connect", Address(kDeviceAddress)) == "2"; }));
  TakeStandardError();
}

TEST_F(Connect, OpensTwoStreamsToOneAddressWhereTheKernelLetsIt) {
  air.Script(kDeviceAddress, Call::kConnect, {Pass(), Return(0)});
  const auto first = Open(1);
  const auto second = Open(2);
  EXPECT_EQ(Write(1, "one"), "true");
  EXPECT_EQ(Write(2, "two"), "true");
  EXPECT_EQ(first->Receive(3), "one");
  EXPECT_EQ(second->Receive(3), "two");
  ASSERT_TRUE(second->Send("x"));
  EXPECT_TRUE(WaitUntil([&] { return host->Events(ReadChannel(2)).size(); }));
  EXPECT_THAT(host->Events(ReadChannel(1)), IsEmpty());
  EXPECT_EQ(Disconnect(1), "true");
  EXPECT_EQ(Write(2, "on"), "true");
  EXPECT_EQ(second->Receive(2), "on");
}

TEST_F(Connect, MakesTheReadChannelOfItsId) {
  EXPECT_FALSE(host->HasHandler(ReadChannel(1)));
  Open(1);
  EXPECT_TRUE(host->HasHandler(ReadChannel(1)));
  EXPECT_FALSE(host->HasHandler(ReadChannel(2)));
}

TEST_F(Connect, MakesNoReadChannelWhenItFails) {
  air.Script(kDeviceAddress, Call::kConnect, {Fail(EBUSY)});
  EXPECT_EQ(host->Call("connect", Address(kDeviceAddress)), kFailed);
  EXPECT_FALSE(host->HasHandler(ReadChannel(1)));
  EXPECT_EQ(TakeStandardError(), ConnectError(kDeviceAddress, EBUSY));
}

TEST_F(Connect, StartsOneReaderAndNoProber) {
  const size_t threads = CountThreads();
  Open(1);
  EXPECT_EQ(CountThreads(), threads + 1);
}

TEST_F(Connect, AsksTheDaemonNothing) {
  Open(1);
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
}

class ConnectWithoutAdapter : public BusTest {
 protected:
  FakeRfcomm air;
};

TEST_F(ConnectWithoutAdapter, AnswersEinval) {
  StartBus();
  StartDaemon();
  Register();
  TakeStandardError();
  air.AddDevice(kDeviceAddress);
  EXPECT_EQ(host->Call("connect", Address(kDeviceAddress)), kRefused);
  EXPECT_EQ(air.sockets(), 0);
}

TEST_F(ConnectWithoutAdapter, LeavesWriteAndDisconnectAtFalse) {
  UseNoSystemBus();
  Register();
  TakeStandardError();
  EXPECT_EQ(host->Call("write", Map({{"id", fl_value_new_int(1)},
                                     {"bytes", ByteList("x")}})),
            "false");
  EXPECT_EQ(host->Call("disconnect", Map({{"id", fl_value_new_int(1)}})),
            "false");
}

// ---------------------------------------------------------------------------

using WriteMethod = ConnectionTest;

TEST_F(WriteMethod, SendsTheBytesAsTheyAre) {
  const auto peer = Open(1);
  std::string bytes(256, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i);
  EXPECT_EQ(Write(1, bytes), "true");
  EXPECT_EQ(peer->Receive(256), bytes);
}

TEST_F(WriteMethod, SendsALongListWhole) {
  const auto peer = Open(1);
  const std::string bytes = Pattern(300000);
  std::string got;
  std::thread device([&] { got = peer->Receive(bytes.size()); });
  EXPECT_EQ(Write(1, bytes), "true");
  device.join();
  EXPECT_TRUE(got == bytes);
}

TEST_F(WriteMethod, AnswersFalseForWrongArguments) {
  Open(1);
  EXPECT_EQ(host->Call("write"), "false");
  EXPECT_EQ(host->Call("write", Map()), "false");
  EXPECT_EQ(host->Call("write", Map({{"bytes", ByteList("x")}})), "false");
  EXPECT_EQ(host->Call("write", Map({{"id", fl_value_new_int(1)}})), "false");
  for (const Maker& maker : NotMaps()) {
    EXPECT_EQ(host->Call("write", maker()), "false");
  }
  for (const Maker& maker : NotIntegers()) {
    EXPECT_EQ(
        host->Call("write", Map({{"id", maker()}, {"bytes", ByteList("x")}})),
        "false");
  }
  for (const Maker& maker : NotByteLists()) {
    EXPECT_EQ(host->Call("write", Map({{"id", fl_value_new_int(1)},
                                       {"bytes", maker()}})),
              "false");
  }
  EXPECT_EQ(air.count(Call::kWrite), 0U);
}

TEST_F(WriteMethod, AnswersFalseForNoBytes) {
  Open(1);
  EXPECT_EQ(Write(1, ""), "false");
  EXPECT_EQ(air.count(Call::kWrite), 0U);
}

TEST_F(WriteMethod, AnswersFalseForUnknownIds) {
  Open(1);
  for (const int64_t id :
       {int64_t{0}, int64_t{2}, int64_t{-1}, int64_t{INT32_MAX},
        int64_t{INT32_MIN}, INT64_MAX, INT64_MIN, int64_t{1} << 31}) {
    EXPECT_EQ(Write(id, "x"), "false") << id;
  }
  EXPECT_EQ(air.count(Call::kWrite), 0U);
}

TEST_F(WriteMethod, NarrowsIdsTo32Bits) {
  const auto peer = Open(1);
  EXPECT_EQ(Write((int64_t{1} << 32) + 1, "a"), "true");
  EXPECT_EQ(Write(-(int64_t{1} << 32) + 1, "b"), "true");
  EXPECT_EQ(peer->Receive(2), "ab");
}

TEST_F(WriteMethod, AnswersFalseAndPrintsEachTimeAfterTheEndOfTheStream) {
  const auto peer = Open(1);
  peer->Close();
  ASSERT_TRUE(
      WaitUntil([&] { return host->Events(ReadChannel(1)).size() == 1; }));
  TakeStandardError();
  EXPECT_EQ(Write(1, "a"), "false");
  EXPECT_EQ(TakeStandardError(), WriteError(ENOTCONN));
  EXPECT_EQ(Write(1, "b"), "false");
  EXPECT_EQ(TakeStandardError(), WriteError(ENOTCONN));
}

TEST_F(WriteMethod, AnswersFalseWhenOnlyAPartWentOut) {
  const auto peer = Open(1);
  air.Script(kDeviceAddress, Call::kWrite, {AtMost(2), Fail(ENOTCONN)});
  EXPECT_EQ(Write(1, "abcd"), "false");
  EXPECT_EQ(TakeStandardError(), WriteError(ENOTCONN));
  EXPECT_EQ(peer->Receive(2), "ab");
}

TEST_F(WriteMethod, AnswersFalseSilentlyAfterDisconnect) {
  Open(1);
  EXPECT_EQ(Disconnect(1), "true");
  EXPECT_EQ(Write(1, "x"), "false");
  EXPECT_EQ(air.count(Call::kWrite), 0U);
}

TEST_F(WriteMethod, LetsTheStreamsReaderGoOn) {
  const auto peer = Open(1);
  ASSERT_TRUE(peer->Send("in"));
  EXPECT_EQ(Write(1, "out"), "true");
  EXPECT_TRUE(
      WaitUntil([&] { return host->Events(ReadChannel(1)).size() == 1; }));
}

// ---------------------------------------------------------------------------

using DisconnectMethod = ConnectionTest;

TEST_F(DisconnectMethod, ClosesTheStreamOnce) {
  const auto peer = Open(1);
  EXPECT_EQ(Disconnect(1), "true");
  EXPECT_TRUE(peer->WaitForClose());
  EXPECT_TRUE(air.EachClosedOnce());
  EXPECT_TRUE(Eventually([] { return CountThreadsNamed(kReader) == 0; }));
  EXPECT_EQ(Disconnect(1), "false");
  EXPECT_EQ(air.count(Call::kClose), 1U);
}

TEST_F(DisconnectMethod, AnswersFalseForWrongArguments) {
  Open(1);
  EXPECT_EQ(host->Call("disconnect"), "false");
  EXPECT_EQ(host->Call("disconnect", Map()), "false");
  for (const Maker& maker : NotMaps()) {
    EXPECT_EQ(host->Call("disconnect", maker()), "false");
  }
  for (const Maker& maker : NotIntegers()) {
    EXPECT_EQ(host->Call("disconnect", Map({{"id", maker()}})), "false");
  }
  EXPECT_EQ(air.open_sockets(), 1U);
}

TEST_F(DisconnectMethod, AnswersFalseForUnknownIds) {
  Open(1);
  for (const int64_t id :
       {int64_t{0}, int64_t{2}, int64_t{-1}, int64_t{INT32_MAX},
        int64_t{INT32_MIN}, INT64_MAX, INT64_MIN, int64_t{1} << 31}) {
    EXPECT_EQ(Disconnect(id), "false") << id;
  }
  EXPECT_EQ(air.open_sockets(), 1U);
}

TEST_F(DisconnectMethod, NarrowsIdsTo32Bits) {
  Open(1);
  Open(2, kOtherAddress);
  EXPECT_EQ(Disconnect((int64_t{1} << 32) + 1), "true");
  EXPECT_EQ(Disconnect(-(int64_t{1} << 32) + 2), "true");
  EXPECT_TRUE(air.EachClosedOnce());
}

TEST_F(DisconnectMethod, LeavesOtherStreamsOpen) {
  Open(1);
  const auto peer = Open(2, kOtherAddress);
  EXPECT_EQ(Disconnect(1), "true");
  EXPECT_EQ(Write(2, "still"), "true");
  EXPECT_EQ(peer->Receive(5), "still");
  ASSERT_TRUE(peer->Send("here"));
  EXPECT_TRUE(
      WaitUntil([&] { return host->Events(ReadChannel(2)).size() == 1; }));
}

TEST_F(DisconnectMethod, SendsNothingMoreNotEvenWhatIsQueued) {
  const auto peer = Open(1);
  ASSERT_TRUE(peer->Send("queued"));
  ASSERT_TRUE(WaitForRead(1, 6));
  EXPECT_EQ(Disconnect(1), "true");
  DispatchQueued();
  EXPECT_THAT(host->Events(ReadChannel(1)), IsEmpty());
}

TEST_F(DisconnectMethod, SendsNoEndOfStream) {
  const auto peer = Open(1);
  ASSERT_TRUE(peer->Send("x"));
  ASSERT_TRUE(
      WaitUntil([&] { return host->Events(ReadChannel(1)).size() == 1; }));
  EXPECT_EQ(Disconnect(1), "true");
  DispatchQueued();
  EXPECT_EQ(host->Events(ReadChannel(1)).size(), 1U);
}

TEST_F(DisconnectMethod, DropsAnEndOfStreamThatIsQueued) {
  const auto peer = Open(1);
  peer->Close();
  ASSERT_TRUE(WaitForReadersEnd(1));
  EXPECT_EQ(Disconnect(1), "true");
  DispatchQueued();
  EXPECT_THAT(host->Events(ReadChannel(1)), IsEmpty());
  EXPECT_EQ(TakeStandardError(), kPeerClosed);
}

// A "write" that is told of the end leaves the reader without a word of it.
TEST_F(DisconnectMethod, ReturnsWhenAWriteWasToldOfTheEnd) {
  const auto peer = Open(1);
  ASSERT_TRUE(peer->Send("last words"));
  std::atomic<bool> told{false};
  ASSERT_TRUE(WaitForRead(1, 10));
  air.Script(
      kDeviceAddress, Call::kPoll,
      {After([&] { EXPECT_TRUE(Eventually([&] { return told.load(); })); })});
  ASSERT_TRUE(peer->Send("!"));
  ASSERT_TRUE(WaitForRead(1, 11));
  peer->Close();
  EXPECT_EQ(Write(1, "x"), "false");
  EXPECT_EQ(TakeStandardError(), WriteError(ECONNRESET));
  told = true;
  EXPECT_TRUE(WaitUntil([&] {
    const auto events = host->Events(ReadChannel(1));
    return !events.empty() && events.back() == "end of stream";
  }));
  EXPECT_EQ(Disconnect(1), "true");
}

TEST_F(DisconnectMethod, ReturnsWhileTheDeviceFloods) {
  const auto peer = Open(1);
  std::thread device([&] {
    const std::string chunk = Pattern(4096);
    while (peer->Send(chunk)) {
    }
  });
  ASSERT_TRUE(WaitForRead(1, 50000));
  EXPECT_EQ(Disconnect(1), "true");
  device.join();
  DispatchQueued();
  EXPECT_THAT(host->Events(ReadChannel(1)), IsEmpty());
}

TEST_F(DisconnectMethod, ReturnsAtOnceWhenTheDeviceVanished) {
  std::atomic<bool> blocked{false};
  air.Script(kDeviceAddress, Call::kPoll, {After([&] { blocked = true; })});
  // Of a peer out of range the kernel's shutdown wakes nobody.
  air.Script(kDeviceAddress, Call::kShutdown, {Return(0)});
  Open(1);
  ASSERT_TRUE(Eventually([&] { return blocked.load(); }));
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(Disconnect(1), "true");
  EXPECT_LT(std::chrono::steady_clock::now() - before,
            std::chrono::seconds(10));
}

TEST_F(DisconnectMethod, GivesBackThreadsAndDescriptors) {
  const auto round = [&](int id) {
    const auto peer = Open(id);
    EXPECT_EQ(Write(id, "ping"), "true");
    EXPECT_EQ(peer->Receive(4), "ping");
    ASSERT_TRUE(peer->Send("pong"));
    ASSERT_TRUE(
        WaitUntil([&] { return host->Events(ReadChannel(id)).size() == 1; }));
    EXPECT_EQ(Disconnect(id), "true");
    peer->Close();
  };
  const size_t threads = CountThreads();
  round(1);
  const size_t descriptors = CountDescriptors();
  for (int id = 2; id <= 51; ++id) round(id);
  EXPECT_TRUE(Eventually([&] { return CountDescriptors() <= descriptors; }));
  EXPECT_TRUE(Eventually([&] { return CountThreads() == threads; }));
}

// ---------------------------------------------------------------------------

using ConnectionDispose = ConnectionTest;

TEST_F(ConnectionDispose, ClosesEveryStream) {
  const auto first = Open(1);
  const auto second = Open(2, kOtherAddress);
  air.AddDevice(kThirdAddress);
  const auto ended = Open(3, kThirdAddress);
  ended->Close();
  ASSERT_TRUE(
      WaitUntil([&] { return host->Events(ReadChannel(3)).size() == 1; }));
  EXPECT_EQ(TakeStandardError(), kPeerClosed);
  host->Dispose();
  EXPECT_TRUE(first->WaitForClose());
  EXPECT_TRUE(second->WaitForClose());
  EXPECT_TRUE(air.EachClosedOnce());
  EXPECT_TRUE(Eventually([] { return CountThreadsNamed(kReader) == 0; }));
}

TEST_F(ConnectionDispose, ClosesInTheOrderOfIdsBeforeTheClientGoes) {
  Open(1);
  Open(2, kOtherAddress);
  air.AddDevice(kThirdAddress);
  Open(3, kThirdAddress);
  std::vector<std::string> before_close;
  for (int i = 0; i < 3; ++i) {
    air.Script(Call::kClose, {After([&] {
                 for (const std::string& call : daemon->TakeCalls()) {
                   before_close.push_back(call);
                 }
               })});
  }
  host->Dispose();
  EXPECT_THAT(before_close, IsEmpty());
  std::vector<int> closed;
  for (const CallRecord& record : air.calls(Call::kClose)) {
    closed.push_back(record.socket);
  }
  EXPECT_EQ(closed, (std::vector<int>{1, 2, 3}));
  EXPECT_THAT(daemon->TakeCalls(), ::testing::Not(IsEmpty()));
}

TEST_F(ConnectionDispose, LeavesQueuedBytesWithoutEffect) {
  const auto peer = Open(1);
  ASSERT_TRUE(peer->Send("queued"));
  ASSERT_TRUE(WaitForRead(1, 6));
  host->Dispose();
  DispatchQueued();
  EXPECT_THAT(host->Events(ReadChannel(1)), IsEmpty());
}

TEST_F(ConnectionDispose, LeavesAQueuedEndWithoutEffect) {
  const auto peer = Open(1);
  peer->Close();
  ASSERT_TRUE(WaitForReadersEnd(1));
  host->Dispose();
  DispatchQueued();
  EXPECT_THAT(host->Events(ReadChannel(1)), IsEmpty());
  EXPECT_EQ(TakeStandardError(), kPeerClosed);
}

TEST_F(ConnectionDispose, ReturnsWhileTheDeviceFloods) {
  const auto peer = Open(1);
  std::thread device([&] {
    const std::string chunk = Pattern(4096);
    while (peer->Send(chunk)) {
    }
  });
  ASSERT_TRUE(WaitForRead(1, 50000));
  host->Dispose();
  device.join();
  DispatchQueued();
  EXPECT_THAT(host->Events(ReadChannel(1)), IsEmpty());
}

}  // namespace
}  // namespace lumso_test
