// The messenger, the registrar and the codec helper that the host and the
// channel tests stand on.

#include <flutter_linux/flutter_linux.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/channel_codec.h"
#include "host/in_process_messenger.h"

namespace {

using lumso_host::BytesPtr;
using lumso_host::DecodeEnvelope;
using lumso_host::EncodeMethodCall;
using lumso_host::Envelope;
using lumso_host::ValuePtr;
using namespace std::string_literals;

std::string ToString(GBytes* bytes) {
  if (bytes == nullptr) return "(null)";
  gsize size = 0;
  const auto* data = static_cast<const char*>(g_bytes_get_data(bytes, &size));
  return std::string(data, size);
}

BytesPtr ToBytes(const std::string& text) {
  return BytesPtr(g_bytes_new(text.data(), text.size()));
}

// A handler that notes what reaches it, and answers "re:" + message unless it
// is told to keep the handle.
struct Recorder {
  explicit Recorder(std::vector<std::string>* shared_log, std::string own_name)
      : log(shared_log), name(std::move(own_name)) {}
  ~Recorder() { g_clear_object(&kept); }
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  static void Handle(FlBinaryMessenger* messenger, const gchar* channel,
                     GBytes* message, FlBinaryMessengerResponseHandle* handle,
                     gpointer data) {
    auto* self = static_cast<Recorder*>(data);
    self->log->push_back(self->name + " " + channel + " " + ToString(message));
    if (self->keep) {
      self->kept = FL_BINARY_MESSENGER_RESPONSE_HANDLE(g_object_ref(handle));
      return;
    }
    BytesPtr answer = ToBytes("re:" + ToString(message));
    EXPECT_TRUE(fl_binary_messenger_send_response(messenger, handle,
                                                  answer.get(), nullptr));
  }

  static void Destroy(gpointer data) {
    auto* self = static_cast<Recorder*>(data);
    self->log->push_back(self->name + " destroyed");
  }

  std::vector<std::string>* log;
  std::string name;
  bool keep = false;
  FlBinaryMessengerResponseHandle* kept = nullptr;  // Owned.
};

class HostMessenger : public testing::Test {
 public:
  HostMessenger()
      : messenger_(in_process_messenger_new(
            [this](const std::string& channel, GBytes* message) {
              log_.push_back("sent " + channel + " " + ToString(message));
              if (inside_send_) inside_send_();
            })) {}
  ~HostMessenger() override {
    if (messenger_ != nullptr) Release();
  }

  void Release() { g_object_unref(std::exchange(messenger_, nullptr)); }

  FlBinaryMessenger* messenger() { return FL_BINARY_MESSENGER(messenger_); }

  void Set(const char* channel, Recorder* recorder) {
    fl_binary_messenger_set_message_handler_on_channel(
        messenger(), channel, Recorder::Handle, recorder, Recorder::Destroy);
  }

  void Remove(const char* channel) {
    fl_binary_messenger_set_message_handler_on_channel(
        messenger(), channel, nullptr, nullptr, nullptr);
  }

  void Deliver(const char* channel, const char* message) {
    BytesPtr bytes = message == nullptr ? nullptr : ToBytes(message);
    in_process_messenger_deliver(messenger_, channel, bytes.get(),
                                 [this](GBytes* answer) {
                                   log_.push_back("answer " + ToString(answer));
                                   answer_thread_ = std::this_thread::get_id();
                                 });
  }

  void Send(const char* channel, const char* message) {
    BytesPtr bytes = message == nullptr ? nullptr : ToBytes(message);
    fl_binary_messenger_send_on_channel(messenger(), channel, bytes.get(),
                                        nullptr, nullptr, nullptr);
  }

  bool Respond(FlBinaryMessengerResponseHandle* handle, const char* answer) {
    BytesPtr bytes = answer == nullptr ? nullptr : ToBytes(answer);
    return fl_binary_messenger_send_response(messenger(), handle, bytes.get(),
                                             nullptr) != FALSE;
  }

  std::vector<std::string> TakeLog() { return std::exchange(log_, {}); }

  using Log = std::vector<std::string>;

  std::vector<std::string> log_;
  std::function<void()> inside_send_;  // May be empty.
  std::thread::id answer_thread_;
  Recorder first_{&log_, "first"};
  Recorder second_{&log_, "second"};
  InProcessMessenger* messenger_;  // Owned.
};

TEST_F(HostMessenger, DeliversToTheHandlerAndReturnsItsAnswer) {
  Set("a", &first_);
  Set("b", &second_);
  Deliver("b", "hello");
  EXPECT_EQ(TakeLog(), (Log{"second b hello", "answer re:hello"}));
}

TEST_F(HostMessenger, HandsOutAnEmptyMessageForNone) {
  Set("a", &first_);
  Deliver("a", nullptr);
  EXPECT_EQ(TakeLog(), (Log{"first a ", "answer re:"}));
}

TEST_F(HostMessenger, AnswersEmptyOnUnknownChannels) {
  Deliver("a", "hello");
  EXPECT_EQ(TakeLog(), (Log{"answer (null)"}));
}

TEST_F(HostMessenger, KeepsOneHandlerPerChannel) {
  Set("a", &first_);
  Set("a", &second_);
  EXPECT_EQ(TakeLog(), (Log{"first destroyed"}));
  Deliver("a", "x");
  EXPECT_EQ(TakeLog(), (Log{"second a x", "answer re:x"}));
}

TEST_F(HostMessenger, RemovesAHandler) {
  Set("a", &first_);
  EXPECT_TRUE(in_process_messenger_has_handler(messenger_, "a"));
  // What comes with no handler is ignored.
  fl_binary_messenger_set_message_handler_on_channel(
      messenger(), "a", nullptr, &second_, Recorder::Destroy);
  EXPECT_EQ(TakeLog(), (Log{"first destroyed"}));
  EXPECT_FALSE(in_process_messenger_has_handler(messenger_, "a"));
  Remove("a");
  EXPECT_EQ(TakeLog(), Log{});
}

TEST_F(HostMessenger, DropsEveryHandlerWhenClosed) {
  Set("a", &first_);
  Set("b", &second_);
  in_process_messenger_close(messenger_);
  EXPECT_EQ(TakeLog(), (Log{"first destroyed", "second destroyed"}));
  EXPECT_FALSE(in_process_messenger_has_handler(messenger_, "a"));
  in_process_messenger_close(messenger_);
  EXPECT_EQ(TakeLog(), Log{});
}

TEST_F(HostMessenger, DropsEveryHandlerWhenReleased) {
  Set("a", &first_);
  Release();
  EXPECT_EQ(TakeLog(), (Log{"first destroyed"}));
}

TEST_F(HostMessenger, RefusesHandlersOnceClosed) {
  in_process_messenger_close(messenger_);
  testing::internal::CaptureStderr();
  Set("a", &first_);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("without an engine"),
            std::string::npos);
  EXPECT_EQ(TakeLog(), (Log{"first destroyed"}));
  Deliver("a", "x");
  EXPECT_EQ(TakeLog(), (Log{"answer (null)"}));
}

TEST_F(HostMessenger, IsOutOfReachInsideTheNotifiesOfAClose) {
  fl_binary_messenger_set_message_handler_on_channel(
      messenger(), "a", Recorder::Handle, this, [](gpointer data) {
        auto* self = static_cast<HostMessenger*>(data);
        self->Send("a", "late");
        self->Remove("a");
        self->log_.push_back("notified");
      });
  in_process_messenger_close(messenger_);
  EXPECT_EQ(TakeLog(), (Log{"notified"}));
}

TEST_F(HostMessenger, HandsWhatIsSentToTheSink) {
  Send("a", "event");
  Send("a", nullptr);
  EXPECT_EQ(TakeLog(), (Log{"sent a event", "sent a (null)"}));
}

TEST_F(HostMessenger, MayBeUsedInsideASend) {
  Set("a", &first_);
  inside_send_ = [this] {
    Deliver("a", "x");
    Set("a", &second_);
    in_process_messenger_close(messenger_);
  };
  Send("a", "event");
  log_.emplace_back("sent");
  EXPECT_EQ(TakeLog(), (Log{"sent a event", "first a x", "answer re:x",
                            "first destroyed", "second destroyed", "sent"}));
}

TEST_F(HostMessenger, SendsNothingOnceClosed) {
  in_process_messenger_close(messenger_);
  Send("a", "event");
  EXPECT_EQ(TakeLog(), Log{});
}

TEST_F(HostMessenger, ReportsAndDropsWhatIsSentOnAnotherThread) {
  testing::internal::CaptureStderr();
  std::thread([this] { Send("a", "event"); }).join();
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "channel a outside the platform thread"),
            std::string::npos);
  EXPECT_EQ(TakeLog(), Log{});
}

TEST_F(HostMessenger, GivesAnEmptyReplyToRequests) {
  gsize size = 1;
  fl_binary_messenger_send_on_channel(
      messenger(), "a", nullptr, nullptr,
      [](GObject* object, GAsyncResult* result, gpointer data) {
        BytesPtr reply(fl_binary_messenger_send_on_channel_finish(
            FL_BINARY_MESSENGER(object), result, nullptr));
        ASSERT_NE(reply, nullptr);
        *static_cast<gsize*>(data) = g_bytes_get_size(reply.get());
      },
      &size);
  EXPECT_EQ(size, 1U);
  while (size == 1) g_main_context_iteration(nullptr, TRUE);
  EXPECT_EQ(size, 0U);
}

TEST_F(HostMessenger, TakesALateAnswer) {
  first_.keep = true;
  Set("a", &first_);
  Deliver("a", "x");
  EXPECT_EQ(TakeLog(), (Log{"first a x"}));
  EXPECT_TRUE(Respond(first_.kept, nullptr));
  EXPECT_EQ(TakeLog(), (Log{"answer (null)"}));
}

TEST_F(HostMessenger, BringsAnswersFromOtherThreadsToThePlatformThread) {
  first_.keep = true;
  Set("a", &first_);
  Deliver("a", "x");
  std::thread([this] { EXPECT_TRUE(Respond(first_.kept, "y")); }).join();
  EXPECT_EQ(TakeLog(), (Log{"first a x"}));
  while (log_.empty()) g_main_context_iteration(nullptr, TRUE);
  EXPECT_EQ(TakeLog(), (Log{"answer y"}));
  EXPECT_EQ(answer_thread_, std::this_thread::get_id());
}

TEST_F(HostMessenger, ReportsASecondAnswer) {
  first_.keep = true;
  Set("a", &first_);
  Deliver("a", "x");
  EXPECT_TRUE(Respond(first_.kept, "y"));
  testing::internal::CaptureStderr();
  EXPECT_FALSE(Respond(first_.kept, "z"));
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "already responded to (channel a)"),
            std::string::npos);
  EXPECT_EQ(TakeLog(), (Log{"first a x", "answer y"}));
}

TEST_F(HostMessenger, ReportsAMessageThatIsDroppedUnanswered) {
  first_.keep = true;
  Set("a", &first_);
  Deliver("a", "x");
  testing::internal::CaptureStderr();
  g_clear_object(&first_.kept);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "not responded to (channel a)"),
            std::string::npos);
  EXPECT_EQ(TakeLog(), (Log{"first a x"}));
}

TEST_F(HostMessenger, LosesAnswersOnceClosedWithoutAWord) {
  first_.keep = true;
  second_.keep = true;
  Set("a", &first_);
  Set("b", &second_);
  Deliver("a", "x");
  Deliver("b", "x");
  in_process_messenger_close(messenger_);
  TakeLog();
  testing::internal::CaptureStderr();
  EXPECT_TRUE(Respond(first_.kept, "y"));
  EXPECT_TRUE(Respond(first_.kept, "y"));
  g_clear_object(&second_.kept);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(TakeLog(), Log{});
}

TEST_F(HostMessenger, AHandlerMayReplaceItself) {
  fl_binary_messenger_set_message_handler_on_channel(
      messenger(), "a",
      [](FlBinaryMessenger*, const gchar*, GBytes*,
         FlBinaryMessengerResponseHandle* handle, gpointer data) {
        auto* self = static_cast<HostMessenger*>(data);
        self->Set("a", &self->second_);
        EXPECT_TRUE(self->Respond(handle, "once"));
      },
      this, nullptr);
  Deliver("a", "x");
  Deliver("a", "y");
  EXPECT_EQ(TakeLog(), (Log{"answer once", "second a y", "answer re:y"}));
}

TEST_F(HostMessenger, IsHandedOutByItsRegistrar) {
  g_autoptr(InProcessRegistrar) owned = in_process_registrar_new(messenger_);
  FlPluginRegistrar* registrar = FL_PLUGIN_REGISTRAR(owned);
  EXPECT_EQ(fl_plugin_registrar_get_messenger(registrar), messenger());
  EXPECT_EQ(fl_plugin_registrar_get_texture_registrar(registrar), nullptr);
  EXPECT_EQ(fl_plugin_registrar_get_view(registrar), nullptr);
  // The registrar keeps the messenger.
  Set("a", &first_);
  Release();
  EXPECT_EQ(TakeLog(), Log{});
  g_clear_object(&owned);
  EXPECT_EQ(TakeLog(), (Log{"first destroyed"}));
}

TEST(HostCodec, EncodesMethodCalls) {
  EXPECT_EQ(ToString(EncodeMethodCall("ok", nullptr).get()), "\x07\x02ok\0"s);
  ValuePtr half(fl_value_new_float(0.5));
  // Aligned from the start of the whole message.
  EXPECT_EQ(ToString(EncodeMethodCall("okNull", half.get()).get()),
            "\x07\x06okNull\x06\0\0\0\0\0\0\0\0\0\0\0\0\0\xe0\x3f"s);
}

TEST(HostCodec, DecodesSuccess) {
  Envelope envelope = DecodeEnvelope(ToBytes("\0\x03\x2a\0\0\0"s).get());
  ASSERT_EQ(envelope.kind, Envelope::Kind::kSuccess);
  EXPECT_EQ(fl_value_get_int(envelope.value.get()), 42);
}

TEST(HostCodec, DecodesErrors) {
  Envelope envelope =
      DecodeEnvelope(ToBytes("\x01\x07\x04"s + "busy\x07\x01m\x02").get());
  ASSERT_EQ(envelope.kind, Envelope::Kind::kError);
  EXPECT_EQ(envelope.code, "busy");
  EXPECT_EQ(envelope.message, "m");
  EXPECT_FALSE(fl_value_get_bool(envelope.details.get()));

  Envelope bare = DecodeEnvelope(ToBytes("\x01\x07\x04"s + "busy\0\0"s).get());
  ASSERT_EQ(bare.kind, Envelope::Kind::kError);
  EXPECT_EQ(bare.message, std::nullopt);
}

TEST(HostCodec, TellsEmptyFromMalformed) {
  EXPECT_EQ(DecodeEnvelope(nullptr).kind, Envelope::Kind::kEmpty);
  EXPECT_EQ(DecodeEnvelope(ToBytes("").get()).kind, Envelope::Kind::kEmpty);
  Envelope envelope = DecodeEnvelope(ToBytes("\x02").get());
  EXPECT_EQ(envelope.kind, Envelope::Kind::kMalformed);
  EXPECT_EQ(envelope.message, "Unknown envelope type 02");
}

}  // namespace
