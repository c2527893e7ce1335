// Works on one connection.

#include <gio/gio.h>
#include <glib-unix.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "benchmarks/application.h"
#include "benchmarks/measure.h"
#include "benchmarks/plain.h"
#include "benchmarks/socket_double.h"
#include "benchmarks/works.h"

namespace lumso_bench {
namespace {

using lumso_host::BytesPtr;
using lumso_host::ValuePtr;

constexpr size_t kChunks = 4000;
constexpr size_t kReadSize = 2048;
constexpr int kRounds = 25;
// Subjects take turns; what comes first in a turn meets a thread that starts.
constexpr int kLatencyTurns = 8;
constexpr size_t kLatencyChunks = 60;
constexpr size_t kLatencyWarmUp = 10;
constexpr size_t kSlice = 4096;
// As long as the plug-in's, since the messenger copies names.
constexpr char kHandlerChannel[] = "bench_bluetooth/methods";
constexpr char kSourceChannel[] = "bench_bluetooth/read/1";

// Encodes one chunk as the event that it becomes.
BytesPtr EncodeChunk(FlMethodCodec* codec, const uint8_t* data, size_t count) {
  const ValuePtr event(fl_value_new_uint8_list(data, count));
  return BytesPtr(FL_METHOD_CODEC_GET_CLASS(codec)->encode_success_envelope(
      codec, event.get(), nullptr));
}

// A reader that has the socket watched by the main loop, and no thread.
class SourceReader {
 public:
  SourceReader(Application* application, int fd)
      : channel_(NewChannel(application)),
        source_(g_unix_fd_add(fd, G_IO_IN, OnReadable, this)) {}
  ~SourceReader() {
    g_source_remove(source_);
    g_object_unref(channel_);
  }
  SourceReader(const SourceReader&) = delete;
  SourceReader& operator=(const SourceReader&) = delete;

 private:
  static FlEventChannel* NewChannel(Application* application) {
    g_autoptr(FlStandardMethodCodec) codec = fl_standard_method_codec_new();
    return fl_event_channel_new(application->messenger(), kSourceChannel,
                                FL_METHOD_CODEC(codec));
  }

  static gboolean OnReadable(gint fd, GIOCondition, gpointer user_data) {
    auto* self = static_cast<SourceReader*>(user_data);
    uint8_t buffer[kReadSize];
    const ssize_t count = read(fd, buffer, sizeof(buffer));
    if (count <= 0) return G_SOURCE_CONTINUE;
    g_autoptr(FlValue) event =
        fl_value_new_uint8_list(buffer, static_cast<size_t>(count));
    fl_event_channel_send(self->channel_, event, nullptr, nullptr);
    return G_SOURCE_CONTINUE;
  }

  FlEventChannel* channel_;
  guint source_;
};

// What the subjects of a stream share.
struct Stream {
  Application application;
  std::unique_ptr<DevicePair> pair;
  std::unique_ptr<PlainReceive> plain;
  size_t chunks = 0;
  int id = 0;
};

Subject ReceiveSubject(const std::string& name, Stream* stream, size_t bytes,
                       std::function<void()> receive,
                       std::function<void()> finish) {
  return {name,
          [stream, receive = std::move(receive)] {
            receive();
            return stream->chunks;
          },
          [stream, bytes] {
            stream->pair = std::make_unique<DevicePair>();
            stream->chunks = stream->pair->Fill(bytes, kChunks);
          },
          std::move(finish)};
}

Subject OurReceive(Stream* stream, size_t bytes) {
  return ReceiveSubject(
      "ours", stream, bytes,
      [stream] {
        stream->pair->HandOver();
        stream->id = stream->application.Connect();
        stream->application.AwaitEvents(stream->chunks);
      },
      [stream] { stream->application.Disconnect(stream->id); });
}

Subject PlainReceiveOf(Stream* stream, size_t bytes) {
  return ReceiveSubject(
      "plain", stream, bytes,
      [stream] {
        stream->plain = std::make_unique<PlainReceive>(
            stream->application.messenger(), stream->pair->local());
        stream->application.AwaitEvents(stream->chunks);
      },
      [stream] { stream->plain.reset(); });
}

Subject FloorReceive(Stream* stream, size_t bytes) {
  return ReceiveSubject(
      "floor", stream, bytes,
      [stream] {
        g_autoptr(FlStandardMethodCodec) codec = fl_standard_method_codec_new();
        uint8_t buffer[kReadSize];
        for (size_t i = 0; i < stream->chunks; ++i) {
          const ssize_t count =
              read(stream->pair->local(), buffer, sizeof(buffer));
          if (count <= 0) g_error("no chunk");
          EncodeChunk(FL_METHOD_CODEC(codec), buffer,
                      static_cast<size_t>(count));
        }
      },
      nullptr);
}

Subject SourceReceive(Stream* stream, size_t bytes) {
  return ReceiveSubject(
      "GSource", stream, bytes,
      [stream] {
        const SourceReader reader(&stream->application, stream->pair->local());
        stream->application.AwaitEvents(stream->chunks);
      },
      nullptr);
}

// Runs the subject once, and ends the program unless its events are what the
// device wrote.
void CheckEvents(const Subject& subject, Stream* stream, size_t bytes) {
  std::vector<BytesPtr> events;
  stream->application.on_event = [&events](GBytes* event) {
    events.emplace_back(g_bytes_ref(event));
  };
  subject.prepare();
  subject.body();
  stream->application.on_event = nullptr;
  if (subject.finish) subject.finish();
  g_autoptr(FlStandardMethodCodec) codec = fl_standard_method_codec_new();
  for (size_t i = 0; i < stream->chunks; ++i) {
    const std::vector<uint8_t> chunk = DevicePair::Chunk(bytes, i);
    const BytesPtr expected =
        EncodeChunk(FL_METHOD_CODEC(codec), chunk.data(), chunk.size());
    if (!g_bytes_equal(events.at(i).get(), expected.get())) {
      g_error("%s: chunk %zu is not what was sent", subject.name.c_str(), i);
    }
  }
}

// The device sends the time in each chunk, and then waits.
void SendTimes(int device, size_t bytes) {
  std::vector<uint8_t> chunk(bytes);
  for (size_t i = 0; i < kLatencyChunks; ++i) {
    timespec pause = {0, 400000};
    nanosleep(&pause, nullptr);
    const int64_t now = Now();
    std::memcpy(chunk.data(), &now, sizeof(now));
    if (write(device, chunk.data(), bytes) < 0) std::perror("device");
  }
}

// Collects how old the times in the events are. Sizes below 254 take one byte
// in an event, after the envelope's and the type's.
class Ages {
 public:
  void BeginTurn() { warm_up_ = kLatencyWarmUp; }
  void Take(GBytes* event) {
    constexpr size_t kDataOffset = 3;
    gsize size = 0;
    const auto* data =
        static_cast<const uint8_t*>(g_bytes_get_data(event, &size));
    if (size < kDataOffset + sizeof(int64_t)) return;
    int64_t sent = 0;
    std::memcpy(&sent, data + kDataOffset, sizeof(sent));
    const int64_t age = Now() - sent;
    if (warm_up_ > 0) {
      --warm_up_;
    } else {
      ages_.push_back(static_cast<double>(age));
    }
  }
  void ReportFor(const std::string& subject) const {
    Report(subject, "wall", Percentile(ages_, 0.5));
    Report(subject, "p99", Percentile(ages_, 0.99));
  }

 private:
  std::vector<double> ages_;
  size_t warm_up_ = 0;
};

// Takes the device's times from the events that they become.
void TakeEvents(Application* application, const DevicePair& pair, size_t bytes,
                Ages* ages) {
  application->on_event = [ages](GBytes* event) { ages->Take(event); };
  std::thread device(SendTimes, pair.device(), bytes);
  application->AwaitEvents(kLatencyChunks);
  device.join();
  application->on_event = nullptr;
}

// Takes them without a main loop: a read, and the event's bytes.
void TakeReads(const DevicePair& pair, size_t bytes, Ages* ages) {
  g_autoptr(FlStandardMethodCodec) codec = fl_standard_method_codec_new();
  std::thread device(SendTimes, pair.device(), bytes);
  uint8_t buffer[kReadSize];
  for (size_t i = 0; i < kLatencyChunks; ++i) {
    const ssize_t count = read(pair.local(), buffer, sizeof(buffer));
    ages->Take(EncodeChunk(FL_METHOD_CODEC(codec), buffer,
                           static_cast<size_t>(std::max<ssize_t>(count, 0)))
                   .get());
  }
  device.join();
}

void WriteAll(int fd, const std::vector<uint8_t>& data, size_t slice) {
  for (size_t offset = 0; offset < data.size();) {
    const ssize_t written =
        write(fd, data.data() + offset, std::min(slice, data.size() - offset));
    if (written <= 0) g_error("write");
    offset += static_cast<size_t>(written);
  }
}

void WriteBytes(FlMethodChannel*, FlMethodCall* call, gpointer user_data) {
  FlValue* bytes =
      fl_value_lookup_string(fl_method_call_get_args(call), "bytes");
  const ssize_t written =
      write(static_cast<DevicePair*>(user_data)->local(),
            fl_value_get_uint8_list(bytes), fl_value_get_length(bytes));
  g_autoptr(FlValue) result = fl_value_new_bool(written > 0);
  g_autoptr(FlMethodResponse) response =
      FL_METHOD_RESPONSE(fl_method_success_response_new(result));
  fl_method_call_respond(call, response, nullptr);
}

// Runs `write_once` so often that the socket's buffer still takes all of it.
Subject WriteSubject(const std::string& name, const DevicePair* pair,
                     size_t bytes, std::function<void()> write_once) {
  const size_t times =
      std::max<size_t>(1, (64 << 10) / std::max<size_t>(bytes, 1024));
  return {name,
          [times, write_once = std::move(write_once)] {
            for (size_t i = 0; i < times; ++i) write_once();
            return times;
          },
          nullptr, [pair] { pair->Drain(); }};
}

// Calls `channel` once, and ends the program unless the device gets `data` and
// the application true.
void CheckWrite(Application* application, const char* channel, GBytes* message,
                const DevicePair& pair, const std::vector<uint8_t>& data) {
  const BytesPtr answer = application->Call(channel, message);
  const lumso_host::Envelope envelope =
      lumso_host::DecodeEnvelope(answer.get());
  if (!fl_value_get_bool(envelope.value.get()) || pair.Drain() != data) {
    g_error("%s: write failed", channel);
  }
}

}  // namespace

void MeasureReceive(const Names& names, size_t bytes) {
  Stream stream;
  if (names.count("ours") != 0) stream.application.Register();
  std::vector<Subject> subjects;
  for (const Subject& subject :
       {OurReceive(&stream, bytes), PlainReceiveOf(&stream, bytes),
        FloorReceive(&stream, bytes), SourceReceive(&stream, bytes)}) {
    if (names.count(subject.name) == 0) continue;
    if (subject.name != "floor") CheckEvents(subject, &stream, bytes);
    subjects.push_back(subject);
  }
  Compare(subjects, kRounds);
  for (const Subject& subject : subjects) {
    LoopWatch watch;
    subject.prepare();
    subject.body();
    g_main_context_iteration(nullptr, FALSE);
    if (subject.finish) subject.finish();
    if (subject.name != "floor") {
      Report(subject.name, "gap", static_cast<double>(watch.longest()));
    }
  }
}

void MeasureLatency(const Names& names, size_t bytes) {
  Application application;
  if (names.count("ours") != 0) application.Register();
  const auto ours = [&](DevicePair* pair, Ages* ages) {
    pair->HandOver();
    const int id = application.Connect();
    TakeEvents(&application, *pair, bytes, ages);
    application.Disconnect(id);
  };
  const auto plain = [&](DevicePair* pair, Ages* ages) {
    const PlainReceive reader(application.messenger(), pair->local());
    TakeEvents(&application, *pair, bytes, ages);
  };
  const auto source = [&](DevicePair* pair, Ages* ages) {
    const SourceReader reader(&application, pair->local());
    TakeEvents(&application, *pair, bytes, ages);
  };
  const auto floor = [&](DevicePair* pair, Ages* ages) {
    TakeReads(*pair, bytes, ages);
  };
  struct Timed {
    std::string name;
    std::function<void(DevicePair*, Ages*)> take_turn;
    Ages ages;
  };
  std::vector<Timed> subjects;
  for (const Timed& subject :
       {Timed{"ours", ours, {}}, Timed{"plain", plain, {}},
        Timed{"GSource", source, {}}, Timed{"floor", floor, {}}}) {
    if (names.count(subject.name) != 0) subjects.push_back(subject);
  }
  std::minstd_rand shuffler;
  for (int turn = 0; turn < kLatencyTurns; ++turn) {
    std::shuffle(subjects.begin(), subjects.end(), shuffler);
    for (Timed& subject : subjects) {
      subject.ages.BeginTurn();
      DevicePair pair;
      subject.take_turn(&pair, &subject.ages);
    }
  }
  for (const Timed& subject : subjects) subject.ages.ReportFor(subject.name);
}

// Beside the floor: "slices" makes the plug-in's calls, of a size that the
// kernel's RFCOMM can send at once, and "handler" is the plainest method
// handler that writes the bytes it is given, in one call and wherever they are
// meant for.
void MeasureWrite(const Names& names, size_t bytes) {
  Application application;
  application.Register();
  DevicePair ours;
  DevicePair bare;
  ours.HandOver();
  const int id = application.Connect();
  const PlainWrite plain(application.messenger(), id, bare.local());
  std::vector<uint8_t> data(bytes);
  for (size_t i = 0; i < bytes; ++i) data[i] = static_cast<uint8_t>(i % 251);
  const BytesPtr message = Message(
      "write", {{"id", fl_value_new_int(id)},
                {"bytes", fl_value_new_uint8_list(data.data(), bytes)}});
  g_autoptr(FlStandardMethodCodec) codec = fl_standard_method_codec_new();
  g_autoptr(FlMethodChannel) channel = fl_method_channel_new(
      application.messenger(), kHandlerChannel, FL_METHOD_CODEC(codec));
  fl_method_channel_set_method_call_handler(channel, WriteBytes, &bare,
                                            nullptr);
  CheckWrite(&application, kMethods, message.get(), ours, data);
  CheckWrite(&application, kPlainMethods, message.get(), bare, data);
  CheckWrite(&application, kHandlerChannel, message.get(), bare, data);
  const auto calling = [&](const char* target) {
    return [&application, &message, to = std::string(target)] {
      application.Call(to, message.get());
    };
  };
  std::vector<Subject> subjects;
  for (Subject& subject : std::vector<Subject>{
           WriteSubject("ours", &ours, bytes, calling(kMethods)),
           WriteSubject("plain", &bare, bytes, calling(kPlainMethods)),
           WriteSubject("floor", &bare, bytes,
                        [&] { WriteAll(bare.local(), data, bytes); }),
           WriteSubject("slices", &bare, bytes,
                        [&] { WriteAll(bare.local(), data, kSlice); }),
           WriteSubject("handler", &bare, bytes, calling(kHandlerChannel))}) {
    if (names.count(subject.name) != 0) subjects.push_back(std::move(subject));
  }
  Compare(subjects, 400);
  application.Disconnect(id);
}

}  // namespace lumso_bench
