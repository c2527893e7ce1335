// The fixture of all cases that open streams through the plug-in.

#ifndef LUMSO_BLUETOOTH_TESTS_BUS_CONNECTION_TEST_H_
#define LUMSO_BLUETOOTH_TESTS_BUS_CONNECTION_TEST_H_

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/bus_test.h"
#include "tests/support/fake_rfcomm.h"

namespace lumso_test {

// The list of bytes that `bytes` holds. Transfer full.
inline FlValue* ByteList(std::string_view bytes) {
  return fl_value_new_uint8_list(reinterpret_cast<const uint8_t*>(bytes.data()),
                                 bytes.size());
}

// What Describe() gives for the list of bytes that `bytes` holds.
inline std::string DescribeBytes(std::string_view bytes) {
  g_autoptr(FlValue) list = ByteList(bytes);
  return Describe(list);
}

// Bytes of a pattern whose every shift shows.
inline std::string Pattern(size_t count) {
  std::string bytes(count, '\0');
  for (size_t i = 0; i < count; ++i) {
    bytes[i] = static_cast<char>((i * 7 + i / 251) & 0xff);
  }
  return bytes;
}

// What the reader of a stream that its device closed writes.
inline constexpr char kPeerClosed[] =
    "lumso_bluetooth: RFCOMM read error: Connection reset by peer\n";

inline std::string ReadChannel(int id) {
  return "lumso_bluetooth/read/" + std::to_string(id);
}

class ConnectionTest : public ReadyTest {
 protected:
  static constexpr char kOtherAddress[] = "AA:BB:CC:DD:EE:01";
  static constexpr char kThirdAddress[] = "AA:BB:CC:DD:EE:02";
  static constexpr char kReader[] = "lumso-reader";

  void SetUp() override {
    ReadyTest::SetUp();
    air.AddDevice(kDeviceAddress);
    air.AddDevice(kOtherAddress);
  }

  void TearDown() override {
    ReadyTest::TearDown();
    EXPECT_TRUE(air.EachClosedOnce());
    EXPECT_TRUE(Eventually([] { return CountThreadsNamed(kReader) == 0; }));
  }

  // Calls "connect" and returns the device's end; the id has to be `id`.
  std::shared_ptr<Peer> Open(int id,
                             const std::string& address = kDeviceAddress) {
    EXPECT_EQ(host->Call("connect", Address(address)), std::to_string(id));
    return air.NextPeer(address);
  }

  std::string Write(int64_t id, std::string_view bytes) {
    return host->Call("write", Map({{"id", fl_value_new_int(id)},
                                    {"bytes", ByteList(bytes)}}));
  }

  std::string Disconnect(int64_t id) {
    return host->Call("disconnect", Map({{"id", fl_value_new_int(id)}}));
  }

  // Waits, without the main loop, until the reader of a socket has read so many
  // bytes.
  bool WaitForRead(int socket, size_t bytes) {
    return Eventually([&] { return ReadSoFar(socket) >= bytes; });
  }

  // Waits, without the main loop, until the reader of a socket was told of its
  // end and is gone.
  bool WaitForReadersEnd(int socket) {
    return Eventually([&] {
             const auto reads = air.calls(Call::kRead, socket);
             return !reads.empty() && reads.back().result < 0;
           }) &&
           Eventually([] { return CountThreadsNamed(kReader) == 0; });
  }

  size_t ReadSoFar(int socket) {
    size_t count = 0;
    for (const CallRecord& record : air.calls(Call::kRead, socket)) {
      count += record.bytes.size();
    }
    return count;
  }

  // Dispatches what is queued to the main loop.
  void DispatchQueued() {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
  }

  FakeRfcomm air;
};

}  // namespace lumso_test

#endif  // LUMSO_BLUETOOTH_TESTS_BUS_CONNECTION_TEST_H_
