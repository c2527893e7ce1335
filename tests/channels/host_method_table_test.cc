// The table of methods against the library that serves them and the document
// that shows it.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <set>
#include <string>

#include "host/channel_codec.h"
#include "host/in_process_messenger.h"
#include "host/json_value.h"
#include "host/method_table.h"
#include "include/lumso_bluetooth/lumso_bluetooth_plugin.h"

namespace {

using lumso_host::Envelope;
using lumso_host::Json;
using lumso_host::MethodEntry;
using lumso_host::MethodTable;

std::string ReadFile(const std::string& name) {
  std::ifstream stream(LUMSO_SOURCE_DIR "/" + name);
  EXPECT_TRUE(stream.good()) << name;
  return std::string(std::istreambuf_iterator<char>(stream), {});
}

// The plug-in without a system bus.
class PluginWithoutBus : public testing::Test {
 protected:
  PluginWithoutBus() {
    g_setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere", TRUE);
    messenger_ = in_process_messenger_new([](const std::string&, GBytes*) {});
    g_autoptr(InProcessRegistrar) registrar =
        in_process_registrar_new(messenger_);
    lumso_bluetooth_plugin_register_with_registrar(
        FL_PLUGIN_REGISTRAR(registrar));
  }
  ~PluginWithoutBus() override {
    in_process_messenger_close(messenger_);
    g_object_unref(messenger_);
  }

  Envelope Call(const std::string& method, FlValue* args = nullptr) {
    const auto call = lumso_host::EncodeMethodCall(method, args);
    Envelope envelope;
    bool answered = false;
    in_process_messenger_deliver(
        messenger_, "lumso_bluetooth/methods", call.get(), [&](GBytes* answer) {
          envelope = lumso_host::DecodeEnvelope(answer);
          answered = true;
        });
    EXPECT_TRUE(answered) << method;
    return envelope;
  }

 private:
  InProcessMessenger* messenger_;  // Owned reference.
};

using MethodTableAnswers = PluginWithoutBus;

// What the table says about an answer, in the words of the table.
std::string NeutralText(const Envelope& answer) {
  switch (answer.kind) {
    case Envelope::Kind::kSuccess:
      return lumso_host::JsonLine(lumso_host::ValueToJson(answer.value.get()));
    case Envelope::Kind::kError:
      return "error " + answer.code;
    case Envelope::Kind::kEmpty:
      return "not implemented";
    case Envelope::Kind::kMalformed:
      break;
  }
  return "malformed";
}

TEST_F(MethodTableAnswers, AreImplementedAndNeutralAsItSays) {
  for (const MethodEntry& method : MethodTable()) {
    const Envelope answer = Call(method.name);
    ASSERT_NE(answer.kind, Envelope::Kind::kEmpty) << method.name;
    const std::string neutral = lumso_host::PlainText(method.neutral);
    if (neutral == "–") {
      EXPECT_EQ(answer.kind, Envelope::Kind::kSuccess) << method.name;
    } else {
      // The first word or words: connect has a second error.
      EXPECT_EQ(neutral.rfind(NeutralText(answer), 0), 0U)
          << method.name << ": " << NeutralText(answer);
    }
  }
}

TEST_F(MethodTableAnswers, AreMissingForOtherNames) {
  for (const char* name : {"fly", "", "isavailable", "isAvailable "}) {
    EXPECT_EQ(Call(name).kind, Envelope::Kind::kEmpty) << name;
    EXPECT_EQ(lumso_host::FindMethodEntry(name), nullptr) << name;
  }
}

TEST(MethodTable, HasEveryMethodOfTheLibraryOnce) {
  const std::string source = ReadFile("src/lumso_bluetooth_plugin.cc");
  const size_t start = source.find("constexpr Method kMethods[] = {");
  ASSERT_NE(start, std::string::npos);
  const std::string served =
      source.substr(start, source.find("};", start) - start);
  const std::string opening = "{\"";
  std::set<std::string> names;
  for (size_t at = served.find(opening); at != std::string::npos;
       at = served.find(opening, at)) {
    at += opening.size();
    names.insert(served.substr(at, served.find('"', at) - at));
  }
  std::set<std::string> table;
  for (const MethodEntry& method : MethodTable()) {
    EXPECT_TRUE(table.insert(method.name).second) << method.name;
  }
  EXPECT_EQ(table, names);
}

TEST(MethodTable, HasExamplesThatFitTheirArguments) {
  for (const MethodEntry& method : MethodTable()) {
    const std::string example = method.example_arguments;
    // Completion puts it in as one word.
    EXPECT_EQ(example.find(' '), std::string::npos) << method.name;
    EXPECT_TRUE(Json::accept(lumso_host::ExampleAnswer(method))) << method.name;
    const std::string arguments = lumso_host::PlainText(method.arguments);
    if (example.empty()) {
      EXPECT_TRUE(arguments == "–" || arguments == "ignored") << method.name;
      continue;
    }
    std::string keys;
    const Json map = Json::parse(example);
    for (const auto& [key, value] : map.items()) {
      const bool text = value.is_string();
      keys += (keys.empty() ? "" : ", ") + key + ": " +
              (text                ? "string"
               : value.is_object() ? "byte list"
                                   : "int");
    }
    EXPECT_EQ(arguments.substr(0, keys.size()), keys) << method.name;
  }
}

TEST(MethodTable, IsTheOneInTheDocument) {
  const std::string document = ReadFile("doc/channels.md");
  const std::string table = lumso_host::MethodTableMarkdown();
  const size_t start = document.find("| Method | Arguments |");
  ASSERT_NE(start, std::string::npos);
  EXPECT_EQ(document.substr(start, document.find("\n\n", start) + 1 - start),
            table)
      << "doc/channels.md must show this table:\n"
      << table;
}

}  // namespace
