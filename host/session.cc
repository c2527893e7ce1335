#include "host/session.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <system_error>
#include <utility>

#include "doctor/screen.h"
#include "host/help.h"
#include "host/method_table.h"

namespace lumso_host {

namespace {

constexpr char kMethodChannel[] = "lumso_bluetooth/methods";
constexpr char kBlanks[] = " \t\r";
constexpr size_t kMaxRemembered = size_t{64} << 20;
constexpr size_t kMaxAddresses = 100;
// The main loop's timers count milliseconds in 32 bits.
constexpr double kMaxSeconds = 1000000;

std::string_view Trim(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Cuts the first word off `text`, and the blanks after it.
std::string_view TakeWord(std::string_view* text) {
  const size_t end = std::min(text->find_first_of(kBlanks), text->size());
  const std::string_view word = text->substr(0, end);
  *text = Trim(text->substr(end));
  return word;
}

bool ParseSeconds(std::string_view text, double* seconds) {
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, *seconds);
  return error == std::errc() && rest == end && *seconds >= 0 &&
         *seconds <= kMaxSeconds;
}

std::string BadSeconds(const char* command, std::string_view text) {
  return std::string(command) + ": SECONDS must be a number from 0 to 1000000" +
         (text.empty() ? "" : ", not " + std::string(text));
}

// Returns how a method is called whose name was taken for a command; empty for
// other names.
std::string CallHint(std::string_view name) {
  for (const MethodEntry& method : MethodTable()) {
    const std::string_view known = method.name;
    if (known.size() != name.size() ||
        g_ascii_strncasecmp(known.data(), name.data(), name.size()) != 0) {
      continue;
    }
    return std::string("; it is a method: call ") + method.name +
           (*method.example_arguments == '\0' ? "" : " JSON") + " (help " +
           method.name + ")";
  }
  return "";
}

// Adds what `envelope` says to `line`.
void AddEnvelope(const Envelope& envelope, const char* value_key,
                 const char* empty_key, Json* line) {
  switch (envelope.kind) {
    case Envelope::Kind::kSuccess:
      (*line)[value_key] = ValueToJson(envelope.value.get());
      return;
    case Envelope::Kind::kEmpty:
      (*line)[empty_key] = true;
      return;
    case Envelope::Kind::kError:
    case Envelope::Kind::kMalformed: {
      Json& error = (*line)["error"];
      error["code"] = envelope.code;
      error["message"] = envelope.message ? Json(*envelope.message) : Json();
      error["details"] = envelope.details == nullptr
                             ? Json()
                             : ValueToJson(envelope.details.get());
      return;
    }
  }
}

}  // namespace

const std::vector<Session::Command>& Session::Commands() {
  static const std::vector<Command> commands = {
      {"call", "", "METHOD [JSON]",
       "calls METHOD on lumso_bluetooth/methods; without JSON the arguments "
       "are null",
       &Session::Call},
      {"listen", "", "CHANNEL", "starts the stream of an event channel",
       &Session::Listen},
      {"cancel", "", "CHANNEL", "stops it", &Session::Cancel},
      {"sleep", "", "SECONDS", "holds back the next command; prints nothing",
       &Session::Sleep},
      {"expect", "", "TEXT SECONDS",
       "waits until a line that contains TEXT is printed; TEXT may contain "
       "spaces, the last word is SECONDS",
       &Session::Expect},
      {"dispose", "", "",
       "drops every handler, as an engine does when it shuts down",
       &Session::Dispose},
      {"help", "?", "[NAME]",
       "explains the method or command NAME, or lists them all; ? does the "
       "same",
       &Session::Help},
      {"quit", "exit", "",
       "ends, as the end of the input does; exit does the same",
       &Session::Quit},
  };
  return commands;
}

const Session::Command* Session::FindCommand(std::string_view name) {
  for (const Command& command : Commands()) {
    if (name == command.name || name == command.other_name) return &command;
  }
  return nullptr;
}

// A request on its way. The messenger keeps it until it is answered; when it is
// let go unanswered, maybe on another thread, the session hears of it through
// the main loop.
struct Session::Request {
  Request(Session* owner, const char* command_name, std::string_view subject)
      : session(owner), command(command_name), name(subject) {}
  ~Request() {
    if (answered) return;
    g_idle_add(
        [](gpointer data) -> gboolean {
          static_cast<Session*>(data)->OnUnanswered();
          return G_SOURCE_REMOVE;
        },
        session);
  }
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  Session* const session;
  const char* const command;
  const std::string name;
  bool answered = false;
};

Session::Session(RegisterFunction register_plugin, Reader reader,
                 lumso_doctor::Charset charset, Callbacks callbacks)
    : reader_(reader),
      charset_(charset),
      callbacks_(std::move(callbacks)),
      messenger_(in_process_messenger_new(
          [this](const std::string& channel, GBytes* message) {
            OnMessage(channel, message);
          })) {
  g_autoptr(InProcessRegistrar) registrar =
      in_process_registrar_new(messenger_);
  register_plugin(FL_PLUGIN_REGISTRAR(registrar));
}

Session::~Session() {
  in_process_messenger_close(messenger_);
  g_object_unref(messenger_);
  if (timer_ != 0) g_source_remove(timer_);
  while (g_idle_remove_by_data(this)) {
  }
}

void Session::Execute(const std::string& line) {
  std::string_view words = Trim(line);
  if (words.empty() || words.front() == '#') return Finish();
  if (!g_utf8_validate(line.data(), static_cast<gssize>(line.size()),
                       nullptr)) {
    return Fail("the line is not UTF-8 text");
  }
  const std::string_view name = TakeWord(&words);
  const Command* command = FindCommand(name);
  if (command == nullptr) {
    return Fail("unknown command: " + std::string(name) + CallHint(name));
  }
  if (*command->words == '\0' && !words.empty()) {
    return Fail(std::string(name) + " takes no words");
  }
  (this->*command->run)(words);
}

void Session::Call(std::string_view words) {
  const std::string method(TakeWord(&words));
  if (method.empty()) return Fail("call: METHOD is missing");
  std::string error;
  ValuePtr args = ParseJsonValue(words.empty() ? "null" : words, &error);
  if (args == nullptr) return Fail("call " + method + ": " + error);
  SendRequest("call", method, kMethodChannel, method, args.get());
}

void Session::Listen(std::string_view words) {
  SendStreamRequest("listen", words);
}

void Session::Cancel(std::string_view words) {
  SendStreamRequest("cancel", words);
}

void Session::SendStreamRequest(const char* command, std::string_view words) {
  const std::string channel(TakeWord(&words));
  if (channel.empty() || !words.empty()) {
    return Fail(std::string(command) + " takes one word, CHANNEL");
  }
  SendRequest(command, channel, channel, command, nullptr);
}

void Session::Sleep(std::string_view words) {
  double seconds = 0;
  if (!ParseSeconds(words, &seconds)) return Fail(BadSeconds("sleep", words));
  StartTimer(seconds);
}

void Session::Expect(std::string_view words) {
  const size_t last_blank = words.find_last_of(kBlanks);
  if (last_blank == std::string_view::npos) {
    return Fail("expect takes TEXT and SECONDS");
  }
  const std::string_view last_word = words.substr(last_blank + 1);
  double seconds = 0;
  if (!ParseSeconds(last_word, &seconds)) {
    return Fail(BadSeconds("expect", last_word));
  }
  const std::string text(Trim(words.substr(0, last_blank)));
  while (!lines_.empty()) {
    const bool found = lines_.front().find(text) != std::string::npos;
    lines_size_ -= lines_.front().size();
    lines_.pop_front();
    if (found) return Finish();
  }
  expected_ = text;
  StartTimer(seconds);
}

void Session::Dispose(std::string_view) {
  callbacks_.waits("dispose (about 17 s at most for the prober)");
  in_process_messenger_close(messenger_);
  callbacks_.waits("");
  Print({{"dispose", true}});
  Finish();
}

void Session::Help(std::string_view words) {
  const Json help = HelpOn(words);
  if (help.is_null()) {
    return Fail("help: no such method or command: " + std::string(words));
  }
  if (reader_ == Reader::kProgram) {
    Print({{"help", help}});
  } else {
    const int columns = lumso_doctor::FindScreen().columns;
    callbacks_.print(HelpText(help, static_cast<size_t>(columns)));
  }
  Finish();
}

std::vector<std::string> Session::EventChannels() const {
  std::vector<std::string> channels =
      in_process_messenger_get_channels(messenger_);
  channels.erase(std::remove(channels.begin(), channels.end(), kMethodChannel),
                 channels.end());
  return channels;
}

void Session::Quit(std::string_view) { callbacks_.quit(); }

void Session::SendRequest(const char* command, std::string_view name,
                          const std::string& channel, const std::string& method,
                          FlValue* args) {
  BytesPtr message = EncodeMethodCall(method, args);
  if (message == nullptr) return Fail("the arguments cannot be encoded");
  request_ = std::string(command) + " " + std::string(name);
  auto request = std::make_shared<Request>(this, command, name);
  callbacks_.waits(request_ + " (" + LongestWait(method) + ")");
  in_process_messenger_deliver(messenger_, channel, message.get(),
                               [request](GBytes* answer) {
                                 request->answered = true;
                                 request->session->OnAnswer(*request, answer);
                               });
  callbacks_.waits("");  // An answer may come later, and blocks nothing then.
}

void Session::OnAnswer(const Request& request, GBytes* answer) {
  callbacks_.waits("");  // Whoever sees the answer printed waits no more.
  Json line = {{request.command, request.name}};
  AddEnvelope(DecodeEnvelope(answer), "result", "notImplemented", &line);
  if (reader_ == Reader::kPerson) RememberAddresses(line);
  Print(line);
  if (std::string_view(request.command) != "cancel") ForgetLines();
  Finish();
}

void Session::OnUnanswered() {
  PrintError(request_ + " was dropped unanswered");
  ForgetLines();
  Finish();
}

void Session::OnMessage(const std::string& channel, GBytes* message) {
  Json line = {{"channel", channel}};
  AddEnvelope(DecodeEnvelope(message), "event", "endOfStream", &line);
  if (reader_ == Reader::kPerson) RememberAddresses(line);
  Print(line);
}

void Session::OnTimer() {
  timer_ = 0;
  if (!expected_.empty()) {
    expectation_failed_ = true;
    const Json line = {{"expect", std::exchange(expected_, {})},
                       {"timeout", true}};
    Print(line);
    ForgetLines();
  }
  Finish();
}

void Session::Print(const Json& json) {
  const std::string line = JsonLine(json, charset_);
  callbacks_.print(line);
  if (expected_.empty()) {
    Remember(line);
  } else if (line.find(expected_) != std::string::npos) {
    expected_.clear();
    g_source_remove(std::exchange(timer_, 0));
    Finish();
  }
}

void Session::Remember(const std::string& line) {
  lines_.push_back(line);
  lines_size_ += line.size();
  while (lines_size_ > kMaxRemembered) {
    lines_size_ -= lines_.front().size();
    lines_.pop_front();
  }
}

void Session::RememberAddresses(const Json& json) {
  for (const auto& [key, value] : json.items()) {
    if (value.is_structured()) {
      RememberAddresses(value);
    } else if (key == "address" && value.is_string()) {
      const auto& address = value.get_ref<const std::string&>();
      const auto known =
          std::find(addresses_.begin(), addresses_.end(), address);
      if (known != addresses_.end()) addresses_.erase(known);
      addresses_.push_back(address);
      if (addresses_.size() > kMaxAddresses) {
        addresses_.erase(addresses_.begin());
      }
    }
  }
}

void Session::ForgetLines() {
  lines_.clear();
  lines_size_ = 0;
}

void Session::StartTimer(double seconds) {
  timer_ = g_timeout_add(
      static_cast<guint>(std::ceil(seconds * 1000)),
      [](gpointer self) -> gboolean {
        static_cast<Session*>(self)->OnTimer();
        return G_SOURCE_REMOVE;
      },
      this);
}

void Session::Finish() { callbacks_.finished(); }

void Session::PrintError(const std::string& what) { Print({{"error", what}}); }

void Session::Fail(const std::string& what) {
  PrintError(what);
  Finish();
}

}  // namespace lumso_host
