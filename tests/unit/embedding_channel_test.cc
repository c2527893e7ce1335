#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <thread>

#include "tests/unit/embedding_test_util.h"

namespace {

struct Handler {
  FlBinaryMessengerMessageHandler function;
  gpointer user_data;
  GDestroyNotify destroy_notify;
};

// What a messenger sees: its handlers, and what is sent through it.
struct Traffic {
  std::map<std::string, Handler> handlers;
  std::vector<std::string> log;  // "channel: bytes", and the control calls
  std::string reply_hex;         // what the application replies
  bool fail_reply = false;       // or the messenger fails
};

}  // namespace

// A messenger that records. One answer per handle: a second one is refused as
// the engine's messenger refuses it, without an error.
G_DECLARE_FINAL_TYPE(TestMessenger, test_messenger, TEST, MESSENGER, GObject)
G_DECLARE_FINAL_TYPE(TestHandle, test_handle, TEST, HANDLE,
                     FlBinaryMessengerResponseHandle)

struct _TestMessenger {
  GObject parent_instance;
  Traffic* traffic;
};

struct _TestHandle {
  FlBinaryMessengerResponseHandle parent_instance;
  int answers;
  GBytes* answer;  // null for the empty answer
};

static void test_messenger_iface_init(FlBinaryMessengerInterface* iface);

G_DEFINE_TYPE_WITH_CODE(TestMessenger, test_messenger, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(fl_binary_messenger_get_type(),
                                              test_messenger_iface_init))
G_DEFINE_TYPE(TestHandle, test_handle,
              fl_binary_messenger_response_handle_get_type())

static Traffic* TrafficOf(FlBinaryMessenger* messenger) {
  return TEST_MESSENGER(messenger)->traffic;
}

static void DropHandler(Traffic* traffic, const std::string& channel) {
  auto entry = traffic->handlers.find(channel);
  if (entry == traffic->handlers.end()) {
    return;
  }
  Handler handler = entry->second;
  traffic->handlers.erase(entry);
  if (handler.destroy_notify != nullptr) {
    handler.destroy_notify(handler.user_data);
  }
}

static void test_messenger_set_message_handler_on_channel(
    FlBinaryMessenger* messenger, const gchar* channel,
    FlBinaryMessengerMessageHandler handler, gpointer user_data,
    GDestroyNotify destroy_notify) {
  Traffic* traffic = TrafficOf(messenger);
  DropHandler(traffic, channel);
  if (handler != nullptr) {
    traffic->handlers[channel] = {handler, user_data, destroy_notify};
  }
}

static gboolean test_messenger_send_response(
    FlBinaryMessenger*, FlBinaryMessengerResponseHandle* response_handle,
    GBytes* response, GError**) {
  TestHandle* handle = TEST_HANDLE(response_handle);
  if (handle->answers++ > 0) {
    g_critical("answered twice");
    return FALSE;
  }
  handle->answer = response != nullptr ? g_bytes_ref(response) : nullptr;
  return TRUE;
}

static void test_messenger_send_on_channel(FlBinaryMessenger* messenger,
                                           const gchar* channel,
                                           GBytes* message, GCancellable*,
                                           GAsyncReadyCallback callback,
                                           gpointer user_data) {
  TrafficOf(messenger)->log.push_back(std::string(channel) + ": " +
                                      ToHex(message));
  if (callback != nullptr) {
    g_autoptr(GTask) task = g_task_new(messenger, nullptr, callback, user_data);
    g_task_return_boolean(task, TRUE);
  }
}

static GBytes* test_messenger_send_on_channel_finish(
    FlBinaryMessenger* messenger, GAsyncResult*, GError** error) {
  Traffic* traffic = TrafficOf(messenger);
  if (traffic->fail_reply) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "no reply");
    return nullptr;
  }
  return FromHex(traffic->reply_hex);
}

static std::string NameOrNull(const gchar* channel) {
  return channel != nullptr ? channel : "(null)";
}

static void test_messenger_resize_channel(FlBinaryMessenger* messenger,
                                          const gchar* channel,
                                          int64_t new_size) {
  TrafficOf(messenger)->log.push_back(NameOrNull(channel) + " size " +
                                      std::to_string(new_size));
}

static void test_messenger_set_warns_on_channel_overflow(
    FlBinaryMessenger* messenger, const gchar* channel, bool warns) {
  TrafficOf(messenger)->log.push_back(NameOrNull(channel) +
                                      (warns ? " warns" : " is quiet"));
}

static void test_messenger_iface_init(FlBinaryMessengerInterface* iface) {
  iface->set_message_handler_on_channel =
      test_messenger_set_message_handler_on_channel;
  iface->send_response = test_messenger_send_response;
  iface->send_on_channel = test_messenger_send_on_channel;
  iface->send_on_channel_finish = test_messenger_send_on_channel_finish;
  iface->resize_channel = test_messenger_resize_channel;
  iface->set_warns_on_channel_overflow =
      test_messenger_set_warns_on_channel_overflow;
}

static void test_messenger_finalize(GObject* object) {
  delete TEST_MESSENGER(object)->traffic;
  G_OBJECT_CLASS(test_messenger_parent_class)->finalize(object);
}

static void test_messenger_class_init(TestMessengerClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = test_messenger_finalize;
}

static void test_messenger_init(TestMessenger* self) {
  self->traffic = new Traffic;
}

static void test_handle_finalize(GObject* object) {
  g_clear_pointer(&TEST_HANDLE(object)->answer, g_bytes_unref);
  G_OBJECT_CLASS(test_handle_parent_class)->finalize(object);
}

static void test_handle_class_init(TestHandleClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = test_handle_finalize;
}

static void test_handle_init(TestHandle*) {}

namespace {

constexpr char kName[] = "test/channel";
constexpr char kOkCall[] = "07 02 6f 6b 00";
constexpr char kListen[] = "07 06 6c 69 73 74 65 6e 00";
constexpr char kListenNow[] = "07 06 6c 69 73 74 65 6e 07 03 6e 6f 77";
constexpr char kCancel[] = "07 06 63 61 6e 63 65 6c 00";

void Count(gpointer counter) { ++*static_cast<int*>(counter); }

struct ObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using ObjectPtr = std::unique_ptr<T, ObjectUnref>;

// A messenger, and messages to whoever handles them.
class Channels : public testing::Test {
 public:
  Channels()
      : messenger_(FL_BINARY_MESSENGER(
            g_object_new(test_messenger_get_type(), nullptr))),
        codec_(FL_METHOD_CODEC(fl_standard_method_codec_new())) {}

  // Whatever a case does, nothing may be left that holds the messenger.
  ~Channels() override {
    Close();
    GObject* messenger = G_OBJECT(messenger_.release());
    g_object_add_weak_pointer(messenger,
                              reinterpret_cast<gpointer*>(&messenger));
    g_object_unref(messenger);
    EXPECT_EQ(messenger, nullptr) << "somebody keeps the messenger";
  }

  Traffic* traffic() { return TrafficOf(messenger_.get()); }

  // What an engine does when it shuts down.
  void Close() {
    while (!traffic()->handlers.empty()) {
      DropHandler(traffic(), traffic()->handlers.begin()->first);
    }
  }

  // Hands a message to the channel's handler; the caller keeps the handle.
  ObjectPtr<TestHandle> Deliver(const std::string& hex) {
    ObjectPtr<TestHandle> handle(
        TEST_HANDLE(g_object_new(test_handle_get_type(), nullptr)));
    g_autoptr(GBytes) message = FromHex(hex);
    const Handler handler = traffic()->handlers.at(kName);
    handler.function(messenger_.get(), kName, message,
                     FL_BINARY_MESSENGER_RESPONSE_HANDLE(handle.get()),
                     handler.user_data);
    return handle;
  }

  // The bytes of the answer to a message, or "unanswered".
  std::string Ask(const std::string& hex) {
    return AnswerOn(Deliver(hex).get());
  }

  static std::string AnswerOn(TestHandle* handle) {
    return handle->answers == 0 ? "unanswered" : ToHex(handle->answer);
  }

  ObjectPtr<FlBinaryMessenger> messenger_;
  ObjectPtr<FlMethodCodec> codec_;
};

// A method channel whose handler records the call and answers as told.
class MethodChannel : public Channels {
 public:
  MethodChannel()
      : channel_(fl_method_channel_new(messenger_.get(), kName, codec_.get())) {
  }

  void SetHandler() {
    fl_method_channel_set_method_call_handler(channel_.get(), Handle, this,
                                              nullptr);
  }

  static void Handle(FlMethodChannel* channel, FlMethodCall* call,
                     gpointer user_data) {
    auto* self = static_cast<MethodChannel*>(user_data);
    EXPECT_EQ(channel, self->channel_.get());
    self->call_text_ = std::string(fl_method_call_get_name(call)) + "(" +
                       ToText(fl_method_call_get_args(call)) + ")";
    self->call_.reset(FL_METHOD_CALL(g_object_ref(call)));
  }

  // Delivers a call and keeps it for later, unanswered.
  ObjectPtr<TestHandle> DeliverCall() {
    SetHandler();
    return Deliver(kOkCall);
  }

  ObjectPtr<FlMethodChannel> channel_;
  ObjectPtr<FlMethodCall> call_;
  std::string call_text_;
};

}  // namespace

TEST_F(MethodChannel, HandsNameAndArgumentsToTheHandler) {
  SetHandler();
  Deliver("07 02 6f 6b 0c 01 03 07 00 00 00");
  EXPECT_EQ(call_text_, "ok([7])");
}

TEST_F(MethodChannel, GivesCallsWithoutArgumentsTheNullValue) {
  SetHandler();
  Deliver(kOkCall);
  EXPECT_EQ(call_text_, "ok(null)");
}

TEST_F(MethodChannel, AnswersSuccess) {
  ObjectPtr<TestHandle> handle = DeliverCall();
  g_autoptr(FlValue) result = fl_value_new_int(42);
  EXPECT_TRUE(fl_method_call_respond_success(call_.get(), result, nullptr));
  EXPECT_EQ(AnswerOn(handle.get()), "00 03 2a 00 00 00");
}

TEST_F(MethodChannel, AnswersSuccessWithoutAResult) {
  ObjectPtr<TestHandle> handle = DeliverCall();
  EXPECT_TRUE(fl_method_call_respond_success(call_.get(), nullptr, nullptr));
  EXPECT_EQ(AnswerOn(handle.get()), "00 00");
}

TEST_F(MethodChannel, AnswersErrors) {
  ObjectPtr<TestHandle> handle = DeliverCall();
  EXPECT_TRUE(fl_method_call_respond_error(call_.get(), "busy", nullptr,
                                           nullptr, nullptr));
  EXPECT_EQ(AnswerOn(handle.get()), "01 07 04 62 75 73 79 00 00");
}

TEST_F(MethodChannel, AnswersNotImplementedWithNoBytes) {
  ObjectPtr<TestHandle> handle = DeliverCall();
  EXPECT_TRUE(fl_method_call_respond_not_implemented(call_.get(), nullptr));
  EXPECT_EQ(AnswerOn(handle.get()), "empty");
}

TEST_F(MethodChannel, AnswersWithResponsesOfEachType) {
  g_autoptr(FlValue) seven = fl_value_new_int(7);
  const std::pair<FlMethodResponse*, const char*> responses[] = {
      {FL_METHOD_RESPONSE(fl_method_success_response_new(seven)),
       "00 03 07 00 00 00"},
      {FL_METHOD_RESPONSE(
           fl_method_error_response_new("busy", "Device busy", seven)),
       "01 07 04 62 75 73 79 07 0b 44 65 76 69 63 65 20 62 75 73 79 03 07 00 "
       "00 00"},
      {FL_METHOD_RESPONSE(fl_method_not_implemented_response_new()), "empty"}};
  for (const auto& [response, hex] : responses) {
    ObjectPtr<TestHandle> handle = DeliverCall();
    EXPECT_TRUE(fl_method_call_respond(call_.get(), response, nullptr));
    EXPECT_EQ(AnswerOn(handle.get()), hex);
    g_object_unref(response);
  }
}

TEST_F(MethodChannel, AnswersOnAnotherThreadAfterTheHandlerReturned) {
  ObjectPtr<TestHandle> handle = DeliverCall();
  EXPECT_EQ(AnswerOn(handle.get()), "unanswered");
  std::thread([this] {
    EXPECT_TRUE(fl_method_call_respond_success(call_.get(), nullptr, nullptr));
    call_.reset();
  }).join();
  EXPECT_EQ(AnswerOn(handle.get()), "00 00");
}

TEST_F(MethodChannel, SendsNothingForADroppedCall) {
  ObjectPtr<TestHandle> handle = DeliverCall();
  call_.reset();
  EXPECT_EQ(AnswerOn(handle.get()), "unanswered");
  EXPECT_EQ(G_OBJECT(handle.get())->ref_count, 1u);
}

TEST_F(MethodChannel, RefusesASecondAnswerWithoutAnError) {
  ObjectPtr<TestHandle> handle = DeliverCall();
  EXPECT_TRUE(fl_method_call_respond_success(call_.get(), nullptr, nullptr));
  LogCapture log;
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(fl_method_call_respond_success(call_.get(), nullptr, &error));
  EXPECT_FALSE(fl_method_call_respond_error(call_.get(), "busy", nullptr,
                                            nullptr, &error));
  EXPECT_FALSE(fl_method_call_respond_not_implemented(call_.get(), &error));
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(log.Count(G_LOG_LEVEL_CRITICAL), 3u);
  EXPECT_EQ(AnswerOn(handle.get()), "00 00");
}

TEST_F(MethodChannel, RefusesASecondResponseWithTwoCriticals) {
  ObjectPtr<TestHandle> handle = DeliverCall();
  g_autoptr(FlMethodResponse) response =
      FL_METHOD_RESPONSE(fl_method_not_implemented_response_new());
  EXPECT_TRUE(fl_method_call_respond(call_.get(), response, nullptr));
  LogCapture log;
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(fl_method_call_respond(call_.get(), response, &error));
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(log.Count(G_LOG_LEVEL_CRITICAL), 2u);
}

TEST_F(MethodChannel, KeepsTheCallOpenAfterAResultThatCannotBeEncoded) {
  ObjectPtr<TestHandle> handle = DeliverCall();
  g_autoptr(FlValue) custom = fl_value_new_custom(128, nullptr, nullptr);
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(fl_method_call_respond_success(call_.get(), custom, &error));
  EXPECT_TRUE(g_error_matches(error, FL_MESSAGE_CODEC_ERROR,
                              FL_MESSAGE_CODEC_ERROR_UNSUPPORTED_TYPE));
  EXPECT_EQ(AnswerOn(handle.get()), "unanswered");
  EXPECT_TRUE(fl_method_call_respond_success(call_.get(), nullptr, nullptr));
  EXPECT_EQ(AnswerOn(handle.get()), "00 00");
}

#ifdef FLUTTER_LINUX_STAND_IN
// The SDK hands back an error that it has freed.
TEST_F(MethodChannel, GivesNoErrorForAResponseThatCannotBeEncoded) {
  ObjectPtr<TestHandle> handle = DeliverCall();
  g_autoptr(FlValue) custom = fl_value_new_custom(128, nullptr, nullptr);
  g_autoptr(FlMethodResponse) response =
      FL_METHOD_RESPONSE(fl_method_success_response_new(custom));
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(fl_method_call_respond(call_.get(), response, &error));
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(AnswerOn(handle.get()), "unanswered");
  EXPECT_TRUE(fl_method_call_respond_success(call_.get(), nullptr, nullptr));
}
#endif

TEST_F(MethodChannel, RequiresTheCodeOfAnError) {
  ObjectPtr<TestHandle> handle = DeliverCall();
  EXPECT_TRUE(IsProgrammingError("fl_method_call_respond_error", [&] {
    EXPECT_FALSE(fl_method_call_respond_error(call_.get(), nullptr, "text",
                                              nullptr, nullptr));
  }));
  EXPECT_EQ(AnswerOn(handle.get()), "unanswered");
}

TEST_F(MethodChannel, LeavesCallsUnansweredWithoutAHandler) {
  LogCapture log;
  EXPECT_EQ(Ask(kOkCall), "unanswered");
  SetHandler();
  fl_method_channel_set_method_call_handler(channel_.get(), nullptr, nullptr,
                                            nullptr);
  EXPECT_EQ(Ask(kOkCall), "unanswered");
  EXPECT_EQ(call_text_, "");
  EXPECT_EQ(log.Count(G_LOG_LEVEL_MASK), 0u);
}

TEST_F(MethodChannel, LeavesWhatItCannotDecodeUnansweredWithAWarning) {
  SetHandler();
  for (const char* hex : {"", "05", "07 02 6f 6b", "03 00 00 00 00 00"}) {
    LogCapture log;
    EXPECT_EQ(Ask(hex), "unanswered");
    EXPECT_EQ(log.CountWithoutDomain(G_LOG_LEVEL_WARNING), 1u);
    EXPECT_TRUE(log.Contains("Failed to decode method call: "));
  }
  EXPECT_EQ(call_text_, "");
}

TEST_F(MethodChannel, RequiresMessengerNameAndCodec) {
  EXPECT_TRUE(IsProgrammingError("fl_method_channel_new", [&] {
    EXPECT_EQ(fl_method_channel_new(nullptr, kName, codec_.get()), nullptr);
  }));
  EXPECT_TRUE(IsProgrammingError("fl_method_channel_new", [&] {
    EXPECT_EQ(fl_method_channel_new(messenger_.get(), nullptr, codec_.get()),
              nullptr);
  }));
  EXPECT_TRUE(IsProgrammingError("fl_method_channel_new", [&] {
    EXPECT_EQ(fl_method_channel_new(messenger_.get(), kName, nullptr), nullptr);
  }));
}

TEST_F(MethodChannel, StaysWhenItsCreatorDropsIt) {
  int destroyed = 0;
  fl_method_channel_set_method_call_handler(
      channel_.get(),
      [](FlMethodChannel*, FlMethodCall* call, gpointer) {
        fl_method_call_respond_success(call, nullptr, nullptr);
      },
      &destroyed, Count);
  channel_.reset();
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(Ask(kOkCall), "00 00");
  Close();
  EXPECT_EQ(destroyed, 1);
}

TEST_F(MethodChannel, RunsTheNotifyBeforeItStoresTheNextHandler) {
  int first = 0;
  int second = 0;
  fl_method_channel_set_method_call_handler(channel_.get(), Handle, &first,
                                            Count);
  fl_method_channel_set_method_call_handler(channel_.get(), Handle, &second,
                                            Count);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 0);
  fl_method_channel_set_method_call_handler(channel_.get(), nullptr, nullptr,
                                            nullptr);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 1);
}

TEST_F(MethodChannel, RunsTheNotifyWhenTheMessengerDropsIt) {
  int destroyed = 0;
  fl_method_channel_set_method_call_handler(channel_.get(), Handle, &destroyed,
                                            Count);
  fl_binary_messenger_set_message_handler_on_channel(messenger_.get(), kName,
                                                     nullptr, nullptr, nullptr);
  EXPECT_EQ(destroyed, 1);
  channel_.reset();
  EXPECT_EQ(destroyed, 1);
}

TEST_F(MethodChannel, TakesNoHandlerOnceClosed) {
  Close();
  LogCapture log;
  int destroyed = 0;
  fl_method_channel_set_method_call_handler(channel_.get(), Handle, &destroyed,
                                            Count);
  EXPECT_EQ(destroyed, 1);
  EXPECT_TRUE(log.Contains(
      "Attempted to set method call handler on a closed FlMethodChannel"));
  channel_.reset();
  EXPECT_EQ(destroyed, 1);
}

TEST_F(MethodChannel, HandsItsNameToALaterChannel) {
  int destroyed = 0;
  fl_method_channel_set_method_call_handler(channel_.get(), Handle, &destroyed,
                                            Count);
  ObjectPtr<FlMethodChannel> later(
      fl_method_channel_new(messenger_.get(), kName, codec_.get()));
  EXPECT_EQ(destroyed, 1);
  fl_method_channel_set_method_call_handler(
      later.get(),
      [](FlMethodChannel*, FlMethodCall* call, gpointer) {
        fl_method_call_respond_not_implemented(call, nullptr);
      },
      nullptr, nullptr);
  channel_.reset();
  EXPECT_EQ(Ask(kOkCall), "empty");
}

TEST_F(MethodChannel, SurvivesThatItsHandlerClosesIt) {
  fl_method_channel_set_method_call_handler(
      channel_.get(),
      [](FlMethodChannel*, FlMethodCall* call, gpointer user_data) {
        auto* self = static_cast<MethodChannel*>(user_data);
        self->channel_.reset();
        self->Close();
        EXPECT_TRUE(fl_method_call_respond_success(call, nullptr, nullptr));
      },
      this, nullptr);
  EXPECT_EQ(Ask(kOkCall), "00 00");
}

TEST_F(MethodChannel, InvokesMethodsWithoutWantingAReply) {
  g_autoptr(FlValue) args = fl_value_new_bool(true);
  fl_method_channel_invoke_method(channel_.get(), "ok", args, nullptr, nullptr,
                                  nullptr);
  fl_method_channel_invoke_method(channel_.get(), "ok", nullptr, nullptr,
                                  nullptr, nullptr);
  EXPECT_EQ(traffic()->log,
            (std::vector<std::string>{"test/channel: 07 02 6f 6b 01",
                                      "test/channel: 07 02 6f 6b 00"}));
}

namespace {

// The outcome of one invoked method, waited for on the default main context.
struct Reply {
  void Await() {
    while (!done) {
      g_main_context_iteration(nullptr, TRUE);
    }
  }
  ~Reply() {
    g_clear_object(&response);
    g_clear_error(&error);
  }
  static void Finish(GObject* object, GAsyncResult* result,
                     gpointer user_data) {
    auto* self = static_cast<Reply*>(user_data);
    self->response = fl_method_channel_invoke_method_finish(
        FL_METHOD_CHANNEL(object), result, &self->error);
    self->done = true;
  }

  bool done = false;
  FlMethodResponse* response = nullptr;
  GError* error = nullptr;
};

}  // namespace

TEST_F(MethodChannel, FinishesInvokedMethodsWithTheReply) {
  const std::pair<const char*, GType> replies[] = {
      {"00 00", fl_method_success_response_get_type()},
      {"01 07 04 62 75 73 79 00 00", fl_method_error_response_get_type()},
      {"", fl_method_not_implemented_response_get_type()}};
  for (const auto& [hex, type] : replies) {
    traffic()->reply_hex = hex;
    Reply reply;
    fl_method_channel_invoke_method(channel_.get(), "ok", nullptr, nullptr,
                                    Reply::Finish, &reply);
    reply.Await();
    ASSERT_NE(reply.response, nullptr) << hex;
    EXPECT_EQ(G_OBJECT_TYPE(reply.response), type);
    EXPECT_EQ(reply.error, nullptr);
  }
}

TEST_F(MethodChannel, FinishesInvokedMethodsWithAnError) {
  traffic()->reply_hex = "02";
  Reply garbage;
  fl_method_channel_invoke_method(channel_.get(), "ok", nullptr, nullptr,
                                  Reply::Finish, &garbage);
  garbage.Await();
  EXPECT_EQ(garbage.response, nullptr);
  EXPECT_TRUE(g_error_matches(garbage.error, FL_MESSAGE_CODEC_ERROR,
                              FL_MESSAGE_CODEC_ERROR_FAILED));

  traffic()->fail_reply = true;
  Reply failed;
  fl_method_channel_invoke_method(channel_.get(), "ok", nullptr, nullptr,
                                  Reply::Finish, &failed);
  failed.Await();
  EXPECT_TRUE(g_error_matches(failed.error, G_IO_ERROR, G_IO_ERROR_FAILED));
}

#ifdef FLUTTER_LINUX_STAND_IN
// The SDK touches freed memory.
TEST_F(MethodChannel, InvokesNothingWithArgumentsThatCannotBeEncoded) {
  g_autoptr(FlValue) custom = fl_value_new_custom(128, nullptr, nullptr);
  EXPECT_TRUE(IsProgrammingError("fl_method_channel_invoke_method", [&] {
    fl_method_channel_invoke_method(channel_.get(), "ok", custom, nullptr,
                                    Reply::Finish, nullptr);
  }));
  EXPECT_TRUE(traffic()->log.empty());
}
#endif

namespace {

// An event channel whose handlers record what they are asked.
class EventChannel : public Channels {
 public:
  EventChannel()
      : channel_(fl_event_channel_new(messenger_.get(), kName, codec_.get())) {}

  void SetHandlers() {
    fl_event_channel_set_stream_handlers(channel_.get(), Listen, Cancel, this,
                                         nullptr);
  }

  static FlMethodErrorResponse* Listen(FlEventChannel* channel, FlValue* args,
                                       gpointer user_data) {
    auto* self = static_cast<EventChannel*>(user_data);
    EXPECT_EQ(channel, self->channel_.get());
    self->requests_ += "listen(" + ToText(args) + ")";
    return self->refuse_ ? fl_method_error_response_new("unavailable",
                                                        "no adapter", nullptr)
                         : nullptr;
  }

  static FlMethodErrorResponse* Cancel(FlEventChannel*, FlValue* args,
                                       gpointer user_data) {
    static_cast<EventChannel*>(user_data)->requests_ +=
        "cancel(" + ToText(args) + ")";
    return nullptr;
  }

  // Sends one event and returns what went out; consumes the event.
  std::string SentFor(FlValue* event) {
    traffic()->log.clear();
    EXPECT_TRUE(fl_event_channel_send(channel_.get(), event, nullptr, nullptr));
    fl_value_unref(event);
    return traffic()->log.size() == 1 ? traffic()->log[0] : "not one message";
  }

  ObjectPtr<FlEventChannel> channel_;
  std::string requests_;
  bool refuse_ = false;
};

}  // namespace

TEST_F(EventChannel, HandsRequestsToTheHandlers) {
  SetHandlers();
  EXPECT_EQ(Ask(kListen), "00 00");
  EXPECT_EQ(Ask(kListenNow), "00 00");
  EXPECT_EQ(Ask(kCancel), "00 00");
  EXPECT_EQ(Ask(kCancel), "00 00");
  EXPECT_EQ(requests_, "listen(null)listen(now)cancel(null)cancel(null)");
}

TEST_F(EventChannel, AnswersTheErrorOfAHandler) {
  SetHandlers();
  refuse_ = true;
  EXPECT_EQ(Ask(kListen),
            "01 07 0b 75 6e 61 76 61 69 6c 61 62 6c 65 07 0a 6e 6f 20 61 64 61 "
            "70 74 65 72 00");
}

TEST_F(EventChannel, AnswersSuccessWithoutHandlers) {
  EXPECT_EQ(Ask(kListen), "00 00");
  EXPECT_EQ(Ask(kCancel), "00 00");
  SetHandlers();
  fl_event_channel_set_stream_handlers(channel_.get(), nullptr, nullptr,
                                       nullptr, nullptr);
  EXPECT_EQ(Ask(kListen), "00 00");
  EXPECT_EQ(requests_, "");
}

TEST_F(EventChannel, AnswersUnknownRequestsWithAnError) {
  SetHandlers();
  g_autoptr(GBytes) answer = FromHex(Ask(kOkCall));
  g_autoptr(FlMethodResponse) response =
      FL_METHOD_CODEC_GET_CLASS(codec_.get())
          ->decode_response(codec_.get(), answer, nullptr);
  ASSERT_TRUE(FL_IS_METHOD_ERROR_RESPONSE(response));
  FlMethodErrorResponse* error = FL_METHOD_ERROR_RESPONSE(response);
  EXPECT_STREQ(fl_method_error_response_get_code(error), "error");
  EXPECT_STREQ(fl_method_error_response_get_message(error),
               "Unknown event channel request 'ok'");
  EXPECT_EQ(requests_, "");
}

TEST_F(EventChannel, AnswersWhatItCannotDecodeWithNothingAndAWarning) {
  SetHandlers();
  for (const char* hex : {"", "05", "07 06 6c 69 73 74 65 6e"}) {
    LogCapture log;
    EXPECT_EQ(Ask(hex), "empty");
    EXPECT_EQ(log.CountWithoutDomain(G_LOG_LEVEL_WARNING), 1u);
  }
  EXPECT_EQ(requests_, "");
}

TEST_F(EventChannel, SendsEventsInSuccessEnvelopes) {
  EXPECT_EQ(SentFor(fl_value_new_int(1)), "test/channel: 00 03 01 00 00 00");
  EXPECT_EQ(SentFor(fl_value_new_null()), "test/channel: 00 00");
  EXPECT_EQ(SentFor(fl_value_new_float(1.0)),
            "test/channel: 00 06 00 00 00 00 00 00 00 00 00 00 00 00 f0 3f");
  FlValue* map = fl_value_new_map();
  fl_value_set_string_take(map, "id", fl_value_new_int(1));
  fl_value_set_string_take(
      map, "data",
      fl_value_new_uint8_list(reinterpret_cast<const uint8_t*>("Hello"), 5));
  EXPECT_EQ(SentFor(map),
            "test/channel: 00 0d 02 07 02 69 64 03 01 00 00 00 07 04 64 61 74 "
            "61 08 05 48 65 6c 6c 6f");
}

TEST_F(EventChannel, SendsErrorsAndTheEndOfStream) {
  EXPECT_TRUE(fl_event_channel_send_error(
      channel_.get(), "lost", "Connection lost", nullptr, nullptr, nullptr));
  EXPECT_TRUE(
      fl_event_channel_send_end_of_stream(channel_.get(), nullptr, nullptr));
  EXPECT_EQ(traffic()->log,
            (std::vector<std::string>{
                "test/channel: 01 07 04 6c 6f 73 74 07 0f 43 6f 6e 6e 65 63 74 "
                "69 6f 6e 20 6c 6f 73 74 00",
                "test/channel: empty"}));
}

TEST_F(EventChannel, SendsAtAnyTime) {
  EXPECT_EQ(SentFor(fl_value_new_null()), "test/channel: 00 00");
  Ask(kListen);
  Ask(kCancel);
  EXPECT_EQ(SentFor(fl_value_new_null()), "test/channel: 00 00");
  fl_event_channel_send_end_of_stream(channel_.get(), nullptr, nullptr);
  EXPECT_EQ(SentFor(fl_value_new_null()), "test/channel: 00 00");
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  g_cancellable_cancel(cancellable);
  EXPECT_TRUE(fl_event_channel_send_end_of_stream(channel_.get(), cancellable,
                                                  nullptr));
  EXPECT_EQ(traffic()->log.size(), 2u);
  Close();
  EXPECT_EQ(SentFor(fl_value_new_null()), "test/channel: 00 00");
}

TEST_F(EventChannel, SendsEventsOfTheListenHandlerBeforeItsAnswer) {
  fl_event_channel_set_stream_handlers(
      channel_.get(),
      [](FlEventChannel* channel, FlValue* args, gpointer) {
        EXPECT_TRUE(fl_event_channel_send(channel, args, nullptr, nullptr));
        return static_cast<FlMethodErrorResponse*>(nullptr);
      },
      nullptr, nullptr, nullptr);
  ObjectPtr<TestHandle> handle = Deliver(kListen);
  EXPECT_EQ(traffic()->log, (std::vector<std::string>{"test/channel: 00 00"}));
  EXPECT_EQ(AnswerOn(handle.get()), "00 00");
}

TEST_F(EventChannel, SendsNothingThatCannotBeEncoded) {
  g_autoptr(FlValue) custom = fl_value_new_custom(128, nullptr, nullptr);
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(fl_event_channel_send(channel_.get(), custom, nullptr, &error));
  EXPECT_TRUE(g_error_matches(error, FL_MESSAGE_CODEC_ERROR,
                              FL_MESSAGE_CODEC_ERROR_UNSUPPORTED_TYPE));
  EXPECT_FALSE(fl_event_channel_send_error(channel_.get(), "lost", "text",
                                           custom, nullptr, nullptr));
  EXPECT_TRUE(traffic()->log.empty());
}

TEST_F(EventChannel, RequiresEventCodeAndMessage) {
  EXPECT_TRUE(IsProgrammingError("fl_event_channel_send", [&] {
    EXPECT_FALSE(
        fl_event_channel_send(channel_.get(), nullptr, nullptr, nullptr));
  }));
  EXPECT_TRUE(IsProgrammingError("fl_event_channel_send_error", [&] {
    EXPECT_FALSE(fl_event_channel_send_error(channel_.get(), nullptr, "text",
                                             nullptr, nullptr, nullptr));
  }));
  EXPECT_TRUE(IsProgrammingError("fl_event_channel_send_error", [&] {
    EXPECT_FALSE(fl_event_channel_send_error(channel_.get(), "lost", nullptr,
                                             nullptr, nullptr, nullptr));
  }));
  EXPECT_TRUE(IsProgrammingError("fl_event_channel_new", [&] {
    EXPECT_EQ(fl_event_channel_new(messenger_.get(), nullptr, codec_.get()),
              nullptr);
  }));
  EXPECT_TRUE(traffic()->log.empty());
}

TEST_F(EventChannel, StaysWhenItsCreatorDropsIt) {
  int destroyed = 0;
  fl_event_channel_set_stream_handlers(channel_.get(), nullptr, nullptr,
                                       &destroyed, Count);
  channel_.reset();
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(Ask(kListen), "00 00");
  Close();
  EXPECT_EQ(destroyed, 1);
}

TEST_F(EventChannel, RunsTheNotifyWhenHandlersAreReplaced) {
  int first = 0;
  int second = 0;
  fl_event_channel_set_stream_handlers(channel_.get(), Listen, nullptr, &first,
                                       Count);
  fl_event_channel_set_stream_handlers(channel_.get(), Listen, nullptr, &second,
                                       Count);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 0);
  Close();
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 1);
}

TEST_F(EventChannel, KeepsHandlersSetOnceClosedUntilItsEnd) {
  Close();
  LogCapture log;
  int destroyed = 0;
  fl_event_channel_set_stream_handlers(channel_.get(), Listen, Cancel,
                                       &destroyed, Count);
  EXPECT_EQ(destroyed, 0);
  channel_.reset();
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(log.Count(G_LOG_LEVEL_MASK), 0u);
}

TEST_F(EventChannel, HandsItsNameToALaterChannel) {
  int destroyed = 0;
  fl_event_channel_set_stream_handlers(channel_.get(), Listen, nullptr,
                                       &destroyed, Count);
  ObjectPtr<FlEventChannel> later(
      fl_event_channel_new(messenger_.get(), kName, codec_.get()));
  EXPECT_EQ(destroyed, 1);
  channel_.reset();
  EXPECT_EQ(Ask(kListen), "00 00");
}

#ifdef FLUTTER_LINUX_STAND_IN
// The SDK touches the channel that is gone.
TEST_F(EventChannel, SurvivesThatItsHandlerClosesIt) {
  fl_event_channel_set_stream_handlers(
      channel_.get(),
      [](FlEventChannel*, FlValue*, gpointer user_data) {
        auto* self = static_cast<EventChannel*>(user_data);
        self->channel_.reset();
        self->Close();
        return static_cast<FlMethodErrorResponse*>(nullptr);
      },
      nullptr, this, nullptr);
  EXPECT_EQ(Ask(kListen), "00 00");
}
#endif

// An object that plug-ins are modelled on: it keeps two channels, each of which
// keeps it, and drops them when the last of the two lets go.
G_DECLARE_FINAL_TYPE(TestPlugin, test_plugin, TEST, PLUGIN, GObject)

struct _TestPlugin {
  GObject parent_instance;
  FlMethodChannel* methods;
  FlEventChannel* events;
  int* disposed;
};

G_DEFINE_TYPE(TestPlugin, test_plugin, G_TYPE_OBJECT)

static void test_plugin_dispose(GObject* object) {
  TestPlugin* self = TEST_PLUGIN(object);
  ++*self->disposed;
  g_clear_object(&self->methods);
  g_clear_object(&self->events);
  G_OBJECT_CLASS(test_plugin_parent_class)->dispose(object);
}

static void test_plugin_class_init(TestPluginClass* klass) {
  G_OBJECT_CLASS(klass)->dispose = test_plugin_dispose;
}

static void test_plugin_init(TestPlugin*) {}

TEST_F(Channels, AreDroppedByAPluginInTheNotifyOfTheLastOne) {
  int disposed = 0;
  TestPlugin* plugin =
      TEST_PLUGIN(g_object_new(test_plugin_get_type(), nullptr));
  plugin->disposed = &disposed;
  plugin->methods =
      fl_method_channel_new(messenger_.get(), "methods", codec_.get());
  fl_method_channel_set_method_call_handler(
      plugin->methods, [](FlMethodChannel*, FlMethodCall*, gpointer) {},
      g_object_ref(plugin), g_object_unref);
  plugin->events =
      fl_event_channel_new(messenger_.get(), "events", codec_.get());
  fl_event_channel_set_stream_handlers(plugin->events, nullptr, nullptr,
                                       g_object_ref(plugin), g_object_unref);
  GObject* methods = G_OBJECT(plugin->methods);
  GObject* events = G_OBJECT(plugin->events);
  g_object_add_weak_pointer(methods, reinterpret_cast<gpointer*>(&methods));
  g_object_add_weak_pointer(events, reinterpret_cast<gpointer*>(&events));
  g_object_unref(plugin);
  DropHandler(traffic(), "events");
  EXPECT_EQ(disposed, 0);
  DropHandler(traffic(), "methods");
  EXPECT_EQ(disposed, 1);
  EXPECT_EQ(methods, nullptr);
  EXPECT_EQ(events, nullptr);
}

TEST_F(Channels, AreControlledThroughTheMessenger) {
  fl_binary_messenger_resize_channel(messenger_.get(), kName, 64);
  fl_binary_messenger_set_warns_on_channel_overflow(messenger_.get(), kName,
                                                    false);
  EXPECT_EQ(traffic()->log,
            (std::vector<std::string>{"test/channel size 64",
                                      "test/channel is quiet"}));
}

TEST_F(Channels, AreControlledWithoutALookAtTheirName) {
  FlBinaryMessenger* messenger = messenger_.get();
  fl_binary_messenger_resize_channel(messenger, nullptr, 1);
  fl_binary_messenger_set_warns_on_channel_overflow(messenger, nullptr, true);
  EXPECT_EQ(traffic()->log,
            (std::vector<std::string>{"(null) size 1", "(null) warns"}));
}

TEST_F(Channels, NeedAMessengerAndAName) {
  FlBinaryMessenger* messenger = messenger_.get();
  EXPECT_TRUE(IsProgrammingError("fl_binary_messenger_send_on_channel", [&] {
    fl_binary_messenger_send_on_channel(messenger, nullptr, nullptr, nullptr,
                                        nullptr, nullptr);
  }));
  EXPECT_TRUE(IsProgrammingError(
      "fl_binary_messenger_set_message_handler_on_channel", [&] {
        fl_binary_messenger_set_message_handler_on_channel(
            messenger, nullptr, nullptr, nullptr, nullptr);
      }));
  EXPECT_TRUE(IsProgrammingError("fl_binary_messenger_send_response", [&] {
    EXPECT_FALSE(
        fl_binary_messenger_send_response(nullptr, nullptr, nullptr, nullptr));
  }));
  EXPECT_TRUE(IsProgrammingError("fl_binary_messenger_resize_channel", [] {
    fl_binary_messenger_resize_channel(nullptr, kName, 1);
  }));
  EXPECT_TRUE(IsProgrammingError(
      "fl_binary_messenger_set_warns_on_channel_overflow", [] {
        fl_binary_messenger_set_warns_on_channel_overflow(nullptr, kName, true);
      }));
  EXPECT_TRUE(traffic()->log.empty());
}

// Hands out a messenger, and itself as registrar.
G_DECLARE_FINAL_TYPE(TestRegistrar, test_registrar, TEST, REGISTRAR, GObject)

struct _TestRegistrar {
  GObject parent_instance;
  FlBinaryMessenger* messenger;  // borrowed
};

static void test_registrar_iface_init(FlPluginRegistrarInterface* iface) {
  iface->get_messenger = [](FlPluginRegistrar* self) {
    return TEST_REGISTRAR(self)->messenger;
  };
  iface->get_texture_registrar = [](FlPluginRegistrar*) {
    return static_cast<FlTextureRegistrar*>(nullptr);
  };
  iface->get_view = [](FlPluginRegistrar*) {
    return static_cast<FlView*>(nullptr);
  };
}

static void test_registry_iface_init(FlPluginRegistryInterface* iface) {
  iface->get_registrar_for_plugin = [](FlPluginRegistry* self, const gchar*) {
    return FL_PLUGIN_REGISTRAR(g_object_ref(self));
  };
}

G_DEFINE_TYPE_WITH_CODE(TestRegistrar, test_registrar, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(fl_plugin_registrar_get_type(),
                                              test_registrar_iface_init)
                            G_IMPLEMENT_INTERFACE(fl_plugin_registry_get_type(),
                                                  test_registry_iface_init))

static void test_registrar_class_init(TestRegistrarClass*) {}

static void test_registrar_init(TestRegistrar*) {}

TEST_F(Channels, AreReachedThroughRegistryAndRegistrar) {
  ObjectPtr<TestRegistrar> host(
      TEST_REGISTRAR(g_object_new(test_registrar_get_type(), nullptr)));
  host->messenger = messenger_.get();
  g_autoptr(FlPluginRegistrar) registrar =
      fl_plugin_registry_get_registrar_for_plugin(
          FL_PLUGIN_REGISTRY(host.get()), "TestPlugin");
  EXPECT_EQ(fl_plugin_registrar_get_messenger(registrar), messenger_.get());
  EXPECT_EQ(fl_plugin_registrar_get_texture_registrar(registrar), nullptr);
  EXPECT_EQ(fl_plugin_registrar_get_view(registrar), nullptr);
  EXPECT_TRUE(IsProgrammingError("fl_plugin_registrar_get_messenger", [] {
    EXPECT_EQ(fl_plugin_registrar_get_messenger(nullptr), nullptr);
  }));
}
