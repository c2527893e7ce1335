// Streams: very many after each other, many at once, and a lot through one.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <map>
#include <thread>
#include <vector>

#include "tests/bus/connection_test.h"
#include "tests/load/load_test.h"

namespace lumso_test {
namespace {

constexpr int kWaitSeconds = 30;
constexpr size_t kMegabyte = 1024 * 1024;

// The sizes around the reader's buffer.
constexpr size_t kChunkSizes[] = {1, 2047, 2048, 2049};

struct ChecksumFree {
  void operator()(GChecksum* checksum) const { g_checksum_free(checksum); }
};

// The sum over all bytes of a stream.
class Hash {
 public:
  void Add(std::string_view bytes) {
    g_checksum_update(checksum_.get(),
                      reinterpret_cast<const guchar*>(bytes.data()),
                      static_cast<gssize>(bytes.size()));
    count_ += bytes.size();
  }
  size_t count() const { return count_; }
  // Ends the sum.
  std::string Text() { return g_checksum_get_string(checksum_.get()); }

 private:
  std::unique_ptr<GChecksum, ChecksumFree> checksum_{
      g_checksum_new(G_CHECKSUM_SHA256)};
  size_t count_ = 0;
};

// What the application received on one read channel.
struct Received {
  size_t count = 0;
  int ends = 0;
  int after_end = 0;          // events that came too late
  std::vector<size_t> sizes;  // of the events, while `keep_sizes` is set
  bool keep_sizes = false;
  size_t largest = 0;
  std::string bytes;  // while `keep_bytes` is set
  bool keep_bytes = false;
  Hash hash;
};

class Connections : public LoadTest {
 protected:
  void SetUp() override {
    LoadTest::SetUp();
    RegisterReady();
    air.KeepNoRecords();
    air.AddDevice(kDeviceAddress);
    host->Observe([this](const std::string& channel, FlValue* event) {
      TakeEvent(channel, event);
    });
  }

  void TakeEvent(const std::string& channel, FlValue* event) {
    const auto found = streams.find(channel);
    ASSERT_NE(found, streams.end()) << channel;
    Received& stream = found->second;
    if (stream.ends > 0) ++stream.after_end;
    if (event == nullptr) {
      ++stream.ends;
      return;
    }
    ASSERT_EQ(fl_value_get_type(event), FL_VALUE_TYPE_UINT8_LIST);
    const std::string_view bytes(
        reinterpret_cast<const char*>(fl_value_get_uint8_list(event)),
        fl_value_get_length(event));
    stream.count += bytes.size();
    stream.largest = std::max(stream.largest, bytes.size());
    stream.hash.Add(bytes);
    if (stream.keep_sizes) stream.sizes.push_back(bytes.size());
    if (stream.keep_bytes) stream.bytes += bytes;
  }

  // What is awaited on the read channel of a connection from now on.
  Received& Stream(int id) { return streams[ReadChannel(id)]; }
  void ForgetStream(int id) { streams.erase(ReadChannel(id)); }

  // A random text of `count` bytes.
  std::string RandomBytes(size_t count) {
    std::string bytes(count, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
  }

  // Sizes around the buffer's, and now and then any other up to `largest`.
  size_t RandomSize(size_t largest) {
    const int choice = Random(0, 5);
    return choice < 4
               ? kChunkSizes[choice]
               : static_cast<size_t>(Random(1, static_cast<int>(largest)));
  }

  void CloseEarly(int id, size_t total);

  std::map<std::string, Received> streams;
};

// ---------------------------------------------------------------------------

using ConnectionRounds = Connections;

TEST_F(ConnectionRounds, LeaveOnlyTheEmbeddingsRecordOfTheirChannels) {
  int id = 0;
  const auto round = [&](int number) {
    ++id;
    Received& stream = Stream(id);
    const auto peer = Open(id, kDeviceAddress);
    ASSERT_NE(peer, nullptr);
    ASSERT_TRUE(peer->Send("to the application"));
    EXPECT_EQ(Write(id, "to the device"), "true");
    EXPECT_EQ(peer->Receive(13), "to the device");
    ASSERT_TRUE(WaitUntil([&] { return stream.count == 18; }, kWaitSeconds));
    if (number % 3 == 0) {
      peer->Close();
      ASSERT_TRUE(WaitUntil([&] { return stream.ends == 1; }, kWaitSeconds));
      EXPECT_EQ(TakeStandardError(), kPeerClosed);
    }
    EXPECT_EQ(Disconnect(id), "true");
    peer->Close();
    DispatchQueued();
    EXPECT_EQ(stream.ends, number % 3 == 0 ? 1 : 0);
    ForgetStream(id);
  };
  Allowance allowance;
  allowance.known = [](int first, int end) {
    return ReadChannelRecords(first + 1, end + 1);
  };
  const int rounds = LongOrShort(10000, 300);
  ExpectFlat("connect, both ways, disconnect", rounds, round, allowance);
  const HeapUse records = ReadChannelRecords(1, rounds + 1);
  Note("the embedding's record of one channel name, on average: " +
       std::to_string(records.blocks / static_cast<size_t>(rounds)) +
       " blocks, " +
       std::to_string(records.bytes / static_cast<size_t>(rounds)) + " bytes");
}

TEST_F(ConnectionRounds, GiveEverythingBackWhenTheyFail) {
  air.AddDevice("AA:BB:CC:DD:EE:01");
  const auto round = [&](int number) {
    const int error = number % 2 == 0 ? ECONNREFUSED : EMFILE;
    const Call call = number % 2 == 0 ? Call::kConnect : Call::kEventfd;
    air.Script(call, {Fail(error)});
    EXPECT_EQ(host->Call("connect", Address("AA:BB:CC:DD:EE:01")),
              R"(error("ECONN", "RFCOMM connect failed", null))");
    EXPECT_NE(TakeStandardError(), "");
  };
  ExpectFlat("connect that fails", LongOrShort(10000, 300), round);
}

// ---------------------------------------------------------------------------

using ManyConnections = Connections;

TEST_F(ManyConnections, CarryTheirOwnBytesAndEndEachInItsWay) {
  constexpr int kOpen = 200;
  const auto address = [](int i) {
    char text[18];
    std::snprintf(text, sizeof(text), "AA:BB:CC:00:00:%02X", i);
    return std::string(text);
  };
  for (int i = 0; i < kOpen; ++i) air.AddDevice(address(i));
  shared = SharedBus();
  EndPlugin();
  const auto round = [&](int number) {
    // A plug-in of its own, so that the last third ends with it.
    Register();
    host->Observe([this](const std::string& channel, FlValue* event) {
      TakeEvent(channel, event);
    });
    const Footprint before = Measure();
    std::vector<std::shared_ptr<Peer>> peers;
    for (int i = 0; i < kOpen; ++i) {
      Stream(i + 1);
      peers.push_back(Open(i + 1, address(i)));
      ASSERT_NE(peers.back(), nullptr);
    }
    const Footprint open = Measure();
    const auto have_readers = [](size_t count) {
      return Eventually(
          [count] { return CountThreadsNamed(kReader) == count; });
    };
    EXPECT_TRUE(have_readers(kOpen));
    EXPECT_EQ(open.threads, before.threads + kOpen);
    // Two of the plug-in, one of the device. A synchronous call on the bus has
    // one more, which may outlive it for a moment.
    EXPECT_LE(open.descriptors, before.descriptors + 3 * size_t{kOpen} + 1);
    EXPECT_GE(open.descriptors + 1, before.descriptors + 3 * size_t{kOpen});
    for (int i = 0; i < kOpen; ++i) {
      const std::string own = RandomBytes(RandomSize(4096));
      Hash hash;
      hash.Add(own);
      ASSERT_TRUE(peers[i]->Send(own));
      EXPECT_EQ(Write(i + 1, own), "true");
      EXPECT_TRUE(peers[i]->Receive(own.size()) == own);
      ASSERT_TRUE(WaitUntil([&] { return Stream(i + 1).count >= own.size(); },
                            kWaitSeconds));
      EXPECT_EQ(Stream(i + 1).hash.Text(), hash.Text());
    }
    for (int i = 0; i < kOpen; ++i) {
      if (i % 3 == 0) {
        EXPECT_EQ(Disconnect(i + 1), "true");
      } else if (i % 3 == 1) {
        peers[i]->Close();
        ASSERT_TRUE(
            WaitUntil([&] { return Stream(i + 1).ends == 1; }, kWaitSeconds));
        EXPECT_EQ(TakeStandardError(), kPeerClosed);
      }
    }
    EXPECT_TRUE(have_readers(kOpen / 3));
    EndPlugin();
    for (const auto& peer : peers) peer->Close();
    for (int i = 0; i < kOpen; ++i) {
      EXPECT_EQ(Stream(i + 1).ends, i % 3 == 1 ? 1 : 0) << i;
    }
    streams.clear();
    if (number == 0) {
      Note("200 connections add " +
           std::to_string(open.heap.bytes - before.heap.bytes) +
           " bytes of heap; VmRSS " + std::to_string(before.resident / 1024) +
           " KiB before, " + std::to_string(open.resident / 1024) +
           " KiB with them");
    }
  };
  // Far less than a block for each connection of the counted rounds. So many
  // threads at once leave a few with libc, not the same number each time.
  Allowance allowance;
  allowance.blocks = kOpen;
  allowance.bytes = 8192;
  ExpectFlat("200 connections at once", LongOrShort(40, 4), round, allowance);
}

// ---------------------------------------------------------------------------

using Volume = Connections;

TEST_F(Volume, ArrivesInReadsOfAtMostTheBuffer) {
  const auto peer = Open(1, kDeviceAddress);
  Received& stream = Stream(1);
  stream.keep_sizes = true;
  std::vector<size_t> expected;
  size_t count = 0;
  for (int i = 0; i < 4 * 50; ++i) {
    const size_t size = kChunkSizes[i % 4];
    ASSERT_TRUE(peer->Send(Pattern(size)));
    count += size;
    ASSERT_TRUE(WaitUntil([&] { return stream.count == count; }, kWaitSeconds));
    expected.push_back(std::min<size_t>(size, 2048));
    if (size > 2048) expected.push_back(size - 2048);
  }
  EXPECT_EQ(stream.sizes, expected);
  EXPECT_EQ(Disconnect(1), "true");
}

TEST_F(Volume, FromTheDeviceArrivesInFullAndInOrder) {
  const size_t total = LongOrShort<size_t>(64, 4) * kMegabyte;
  const std::string block = RandomBytes(2 * kMegabyte);
  const auto peer = Open(1, kDeviceAddress);
  Received& stream = Stream(1);
  Hash sent;
  const auto begin = std::chrono::steady_clock::now();
  std::thread device([&] {
    while (sent.count() < total) {
      const size_t size = std::min(RandomSize(65536), total - sent.count());
      const size_t from = static_cast<size_t>(Random(0, kMegabyte));
      const std::string_view bytes(&block[from], size);
      sent.Add(bytes);
      if (!peer->Send(bytes)) return;
    }
    peer->Close();
  });
  EXPECT_TRUE(WaitUntil([&] { return stream.ends == 1; }, 300));
  EXPECT_EQ(TakeStandardError(), kPeerClosed);
  device.join();
  const std::chrono::duration<double> seconds =
      std::chrono::steady_clock::now() - begin;
  DispatchQueued();
  EXPECT_EQ(stream.count, total);
  EXPECT_EQ(stream.hash.Text(), sent.Text());
  EXPECT_EQ(stream.ends, 1);
  EXPECT_EQ(stream.after_end, 0);
  EXPECT_LE(stream.largest, 2048U);
  EXPECT_EQ(Disconnect(1), "true");
  Note("from the device: " + std::to_string(total / kMegabyte) + " MiB in " +
       std::to_string(seconds.count()) + " s");
}

TEST_F(Volume, ToTheDeviceArrivesInFullAndInOrder) {
  const size_t total = LongOrShort<size_t>(64, 4) * kMegabyte;
  const std::string block = RandomBytes(2 * kMegabyte);
  const auto peer = Open(1, kDeviceAddress);
  Stream(1);
  Hash received;
  std::thread device([&] {
    while (received.count() < total) {
      const std::string bytes =
          peer->Receive(std::min<size_t>(50000, total - received.count()));
      if (bytes.empty()) return;
      received.Add(bytes);
    }
  });
  Hash sent;
  const auto begin = std::chrono::steady_clock::now();
  while (sent.count() < total && !HasFailure()) {
    // Far more at once than the socket holds, every now and then.
    const size_t wanted = Random(0, 20) == 0 ? kMegabyte : RandomSize(65536);
    const size_t size = std::min(wanted, total - sent.count());
    const size_t from = static_cast<size_t>(Random(0, kMegabyte));
    const std::string_view bytes(&block[from], size);
    sent.Add(bytes);
    EXPECT_EQ(Write(1, bytes), "true");
  }
  device.join();
  const std::chrono::duration<double> seconds =
      std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(received.count(), total);
  EXPECT_EQ(received.Text(), sent.Text());
  EXPECT_EQ(Disconnect(1), "true");
  Note("to the device: " + std::to_string(total / kMegabyte) + " MiB in " +
       std::to_string(seconds.count()) + " s");
}

// One device that sends `total` bytes in pieces and closes in the middle of
// what the application sends.
void Connections::CloseEarly(int id, size_t total) {
  const std::string sent = RandomBytes(total);
  const std::string written = RandomBytes(kMegabyte);
  const size_t taken = static_cast<size_t>(Random(0, 300000));
  const auto peer = Open(id, kDeviceAddress);
  ASSERT_NE(peer, nullptr);
  Received& stream = Stream(id);
  stream.keep_bytes = true;
  std::string received;
  std::vector<size_t> pieces;
  for (size_t left = total; left > 0; left -= pieces.back()) {
    pieces.push_back(std::min(RandomSize(8192), left));
  }
  std::thread device([&] {
    size_t offset = 0;
    for (const size_t size : pieces) {
      if (!peer->Send(std::string_view(sent).substr(offset, size))) return;
      offset += size;
    }
    received = peer->Receive(taken);
    peer->Close();
  });
  EXPECT_EQ(Write(id, written), "false");
  EXPECT_EQ(Write(id, "more"), "false");
  device.join();
  EXPECT_TRUE(WaitUntil([&] { return stream.ends == 1; }, kWaitSeconds));
  DispatchQueued();
  EXPECT_EQ(stream.ends, 1);
  EXPECT_EQ(stream.after_end, 0);
  EXPECT_TRUE(stream.bytes == sent) << stream.bytes.size() << " of " << total;
  EXPECT_TRUE(received == written.substr(0, taken)) << received.size();
  EXPECT_EQ(Disconnect(id), "true");
  ForgetStream(id);
  // One of them is told of the reset, and the second write of nothing but that.
  EXPECT_THAT(TakeStandardError(),
              ::testing::MatchesRegex(
                  "(lumso_bluetooth: RFCOMM (write error: Transport endpoint "
                  "is not connected|write error: Connection reset by peer|read "
                  "error: Connection reset by peer)\n){2,3}"));
}

TEST_F(Volume, OfADeviceThatClosesEarlyIsDeliveredUpToTheEnd) {
  const int rounds = LongOrShort(200, 12);
  for (int id = 1; id <= rounds && !HasFailure(); ++id) {
    CloseEarly(id, static_cast<size_t>(Random(0, 200000)));
  }
  Note(std::to_string(rounds) + " devices closed early");
}

}  // namespace
}  // namespace lumso_test
