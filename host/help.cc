#include "host/help.h"

#include <algorithm>
#include <sstream>

#include "doctor/wrap.h"
#include "host/method_table.h"
#include "host/session.h"

namespace lumso_host {

namespace {

using lumso_doctor::Wrap;

constexpr size_t kCommandColumn = 24;
// Of --help.
constexpr size_t kColumns = 80;

constexpr char kAddress[] = "address";

constexpr char kCommandsTitle[] =
    "Commands, one per line; blank lines and lines beginning with # are "
    "skipped:\n";

constexpr char kLines[] =
    R"(
Every line printed is one JSON object:
  {"call":"METHOD","result":VALUE}
  {"call":"METHOD","error":{"code":"...","message":"...","details":null}}
  {"call":"METHOD","notImplemented":true}
  {"listen":"CHANNEL","result":null}    or "error", "notImplemented" as above;
                                        a channel that nobody serves gives the
                                        latter; "cancel" likewise
  {"channel":"CHANNEL","event":VALUE}   an event, whenever it comes
  {"channel":"CHANNEL","error":{"code":"...","message":"...","details":null}}
  {"channel":"CHANNEL","endOfStream":true}
  {"expect":"TEXT","timeout":true}      TEXT did not come; the exit status will
                                        be 1
  {"dispose":true}
  {"help":{...}}                        of a method: "method", "arguments",
                                        "result", "description", "neutral" (the
                                        answer when the method cannot do its
                                        work), "example", "exampleAnswer"; of a
                                        command: "command", "description"; of
                                        all: the lists "commands", "methods"
  {"error":"what is wrong"}             a line that is no command, or a request
                                        that the plug-in dropped unanswered

Values: null, true, false, strings, arrays and objects are themselves. A number
without point and exponent is an integer of 64 bits, any other a float; a float
that is not finite prints as "NaN", "Infinity" or "-Infinity". A list of bytes
is {"uint8":"68656c6c6f"} (pairs of hexadecimal digits; anything else there is
an ordinary object); other typed lists print as arrays. A map key that is not a
string prints as its JSON text. An answer that cannot be decoded prints as an
error with the code "malformed".

Commands run strictly one after another. A call, listen or cancel lasts until it
is answered; sleep and expect hold back the next command, never an event. expect
counts the lines printed since the last call, listen or expect finished: a call
and a listen finish with their own answer line, so that lines printed before it,
and the answer line itself, do not count (the first event of the state channel
is such a line). An expect finishes with the line that it found; the lines after
it count for the next one. The oldest lines are forgotten beyond 64 MiB of text.

On a terminal, that is when standard input and output both are one, a prompt
waits for the commands, help prints text, and the lines have colours unless
NO_COLOR is set; events appear above the line that is being typed. Tab completes
commands, methods and channels, and a method's arguments: with the addresses of
devices that events and answers brought, the last hundred of them, or else its
example. The arrow keys edit the line and bring back earlier ones, which are
kept until the end only. Ctrl-C empties the line; on an empty line, and while a
command runs, it ends the host. Ctrl-D on an empty line ends it as well. With
TERM=dumb there is the bare prompt. --json leaves all of this out.

A request holds the host while it runs inside the plug-in. SIGINT (Ctrl-C) and
SIGTERM then say what the host waits for, and for how long at most, before it
ends; a second one ends it at once, and the plug-in is not disposed.)";

// Puts `right`, in lines that fit `columns`, beside `left` from the column on,
// or below it where there is little room.
std::string Row(const std::string& left, std::string_view right, size_t column,
                size_t columns) {
  constexpr size_t kLeastRoom = 20;
  const bool beside = columns >= column + kLeastRoom;
  if (!beside) column = 4;
  std::string text = left.empty() ? "" : "  " + left;
  if (!beside && !left.empty()) text += "\n";
  size_t used = beside ? text.size() : 0;
  const size_t room = std::max(columns, column + kLeastRoom) - column;
  for (const std::string& line : Wrap(right, room)) {
    text += std::string(column > used ? column - used : 1, ' ') + line + "\n";
    used = 0;
  }
  return text;
}

std::string Usage(const Session::Command& command) {
  return *command.words == '\0'
             ? command.name
             : std::string(command.name) + " " + command.words;
}

Json CommandHelp(const Session::Command& command) {
  return {{"command", Usage(command)}, {"description", command.description}};
}

Json MethodHelp(const MethodEntry& method) {
  return {{"method", method.name},
          {"arguments", PlainText(method.arguments)},
          {"result", PlainText(method.result)},
          {"description", PlainText(method.description)},
          {"neutral", PlainText(method.neutral)},
          {"example", ExampleCall(method)},
          {"exampleAnswer", Json::parse(ExampleAnswer(method))}};
}

std::string Answer(const Json& method) {
  return method["result"].get<std::string>() + ": " +
         method["description"].get<std::string>();
}

std::string MethodText(const Json& method, size_t columns) {
  const auto row = [columns](const char* name, const std::string& text) {
    constexpr size_t kColumn = 18;
    return Row(name, text, kColumn, columns);
  };
  return method["method"].get<std::string>() + "\n" +
         row("arguments", method["arguments"]) + row("answer", Answer(method)) +
         row("neutral answer", method["neutral"]) +
         row("example", method["example"]) +
         row("", JsonLine(method["exampleAnswer"]));
}

std::string ListText(const Json& help, size_t columns) {
  constexpr size_t kMethodColumn = 32;
  std::string text = "Commands:\n";
  for (const Json& command : help["commands"]) {
    text += Row(command["command"], command["description"].get<std::string>(),
                kCommandColumn, columns);
  }
  text += "Methods (help METHOD says more):\n";
  for (const Json& method : help["methods"]) {
    text += Row(method["method"], Answer(method), kMethodColumn, columns);
  }
  return text;
}

std::vector<std::string> MethodNames() {
  std::vector<std::string> names;
  for (const MethodEntry& method : MethodTable()) names.push_back(method.name);
  return names;
}

// Returns the arguments that may follow the name of a method.
std::vector<std::string> Arguments(const std::string& name,
                                   const std::vector<std::string>& addresses) {
  const MethodEntry* method = FindMethodEntry(name);
  if (method == nullptr || *method->example_arguments == '\0') return {};
  Json arguments = Json::parse(method->example_arguments);
  if (addresses.empty() || !arguments.contains(kAddress)) {
    return {method->example_arguments};
  }
  std::vector<std::string> choices;
  for (const std::string& address : addresses) {
    arguments[kAddress] = address;
    choices.push_back(JsonLine(arguments));
  }
  return choices;
}

// Returns the words that may follow `words`.
std::vector<std::string> NextWords(const std::vector<std::string>& words,
                                   const std::vector<std::string>& channels,
                                   const std::vector<std::string>& addresses) {
  std::vector<std::string> next;
  if (words.size() == 1 && (words[0] == "call" || words[0] == "help")) {
    next = MethodNames();
  }
  if (words.empty() || (words.size() == 1 && words[0] == "help")) {
    for (const Session::Command& command : Session::Commands()) {
      next.push_back(command.name);
      if (*command.other_name != '\0') next.push_back(command.other_name);
    }
  }
  if (words.size() == 1 && (words[0] == "listen" || words[0] == "cancel")) {
    next = channels;
  }
  if (words.size() == 2 && words[0] == "call") {
    next = Arguments(words[1], addresses);
  }
  return next;
}

}  // namespace

std::string ProtocolHelp() {
  std::string text = kCommandsTitle;
  for (const Session::Command& command : Session::Commands()) {
    text += Row(Usage(command), command.description, kCommandColumn, kColumns);
  }
  return text + kLines;
}

Json HelpOn(std::string_view name) {
  const MethodEntry* method = FindMethodEntry(name);
  if (method != nullptr) return MethodHelp(*method);
  if (!name.empty()) {
    const Session::Command* command = Session::FindCommand(name);
    return command == nullptr ? Json() : CommandHelp(*command);
  }
  Json commands = Json::array();
  for (const Session::Command& command : Session::Commands()) {
    commands.push_back(CommandHelp(command));
  }
  Json methods = Json::array();
  for (const MethodEntry& entry : MethodTable()) {
    methods.push_back(MethodHelp(entry));
  }
  return {{"commands", std::move(commands)}, {"methods", std::move(methods)}};
}

std::string HelpText(const Json& help, size_t columns) {
  std::string text;
  if (help.contains("method")) {
    text = MethodText(help, columns);
  } else if (help.contains("command")) {
    text = help["command"].get<std::string>() + "\n" +
           Row("", help["description"].get<std::string>(), 2, columns);
  } else {
    text = ListText(help, columns);
  }
  text.pop_back();
  return text;
}

Completion Complete(std::string_view text,
                    const std::vector<std::string>& channels,
                    const std::vector<std::string>& addresses) {
  std::vector<std::string> words;
  std::istringstream stream{std::string(text)};
  for (std::string word; stream >> word;) words.push_back(word);
  const bool ended = words.empty() || text.back() == ' ' || text.back() == '\t';
  std::string begun;
  if (!ended) {
    begun = words.back();
    words.pop_back();
  }
  if (words.size() > 2 && words[0] == "call") {
    for (; words.size() > 2; words.pop_back()) begun.insert(0, words.back());
  }

  Completion completion;
  std::vector<std::string>& choices = completion.choices;
  for (const std::string& word : NextWords(words, channels, addresses)) {
    const bool fits = word.compare(0, begun.size(), begun) == 0;
    if (fits && !(ended && word == begun)) choices.push_back(word);
  }
  if (choices.empty()) return completion;
  std::string common = choices.front();
  for (const std::string& word : choices) {
    const auto end =
        std::mismatch(common.begin(), common.end(), word.begin(), word.end());
    common.erase(end.first, common.end());
  }
  completion.insertion = common.substr(begun.size());
  if (choices.size() == 1) completion.insertion += " ";
  if (!completion.insertion.empty()) choices.clear();
  return completion;
}

}  // namespace lumso_host
