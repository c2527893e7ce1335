#include "host/method_table.h"

#include <cstring>

namespace lumso_host {

namespace {

constexpr char kNone[] = "–";
constexpr char kAddress[] = "`address`: string";
constexpr char kAddressExample[] = R"({"address":"AA:BB:CC:DD:EE:FF"})";
constexpr char kDevicesExample[] =
    R"([{"address":"AA:BB:CC:DD:EE:FF","name":"Scale","type":0,)"
    R"("isConnected":0,"bondState":12,"rssi":-60}])";

MethodEntry BondState(const char* name) {
  return {name, kAddress, "int", "bond state", "`10`", kAddressExample, "12"};
}

MethodEntry Powered(const char* name) {
  return {name, kNone, "bool", "the adapter is powered", "`false`", "", "true"};
}

MethodEntry Unsupported(const char* name) {
  return {name, "ignored", "bool", "always `false`", kNone, "", "false"};
}

bool ShareARow(const MethodEntry& a, const MethodEntry& b) {
  return std::strcmp(a.arguments, b.arguments) == 0 &&
         std::strcmp(a.result, b.result) == 0 &&
         std::strcmp(a.description, b.description) == 0 &&
         std::strcmp(a.neutral, b.neutral) == 0;
}

}  // namespace

const std::vector<MethodEntry>& MethodTable() {
  static const std::vector<MethodEntry> table = {
      {"isAvailable", kNone, "bool", "ready", "`false`", "", "true"},
      Powered("isEnabled"),
      Powered("isOn"),
      {"getState", kNone, "int", "adapter state", "`10`", "", "12"},
      {"getAddress", kNone, "string", "the adapter's address", "`\"\"`", "",
       "\"00:AA:01:00:00:01\""},
      {"getName", kNone, "string",
       "the adapter's name at start-up (not its alias)", "`\"\"`", "",
       "\"desktop\""},
      {"isDiscovering", kNone, "bool", "discovery runs, whoever started it",
       "`false`", "", "false"},
      {"startDiscovery", kNone, "bool", "discovery runs or was asked for",
       "`false`", "", "true"},
      {"cancelDiscovery", kNone, "bool",
       "`true` when stopped, and also when this plug-in had not started it "
       "(nothing is stopped then)",
       "`false`", "", "true"},
      {"getDiscoveredDevices", kNone, "list of device maps",
       "every device the daemon knows", "`[]`", "", kDevicesExample},
      {"getBondedDevices", kNone, "list of device maps",
       "those that are bonded", "`[]`", "", kDevicesExample},
      BondState("getBondState"),
      BondState("getDeviceBondState"),
      {"bondDevice", kAddress, "bool",
       "paired now, `false` when it was before; **blocks for up to 60 s**",
       "`false`", kAddressExample, "true", "60 s at most for the pairing"},
      {"removeDeviceBond", kAddress, "bool",
       "`true` also for a device the daemon does not know, and when the daemon "
       "does not answer",
       "`false`", kAddressExample, "true"},
      {"connect", kAddress, "int",
       "connection id, from 1, never reused; **blocks while it connects**",
       "error `EINVAL` or `ECONN`", kAddressExample, "1", "about 30 s at most"},
      {"write", "`id`: int, `bytes`: byte list (`Uint8List`)", "bool",
       "all bytes were taken; **blocks while the device does not take them**",
       "`false`", R"({"id":1,"bytes":{"uint8":"68656c6c6f"}})", "true",
       "until the device takes the bytes or is lost"},
      {"disconnect", "`id`: int", "bool",
       "there was such a connection, and it is closed", "`false`",
       R"({"id":1})", "true"},
      {"setAuthSecret", "`secret`: string", "null",
       "stores the secret and starts the prober", "error `EINVAL`",
       R"({"secret":"0123456789"})", "null"},
      {"getPlatformVersion", kNone, "string",
       "`Linux`, a space and the kernel's build version", kNone, "",
       "\"Linux #1 SMP PREEMPT_DYNAMIC Debian 6.1.0-1\""},
      Unsupported("requestEnable"),
      Unsupported("requestDisable"),
      Unsupported("openSettings"),
      Unsupported("isDiscoverable"),
      Unsupported("requestDiscoverable"),
      Unsupported("setName"),
      Unsupported("pairingRequestHandlingEnable"),
      Unsupported("pairingRequestHandlingDisable"),
  };
  return table;
}

const MethodEntry* FindMethodEntry(std::string_view name) {
  for (const MethodEntry& method : MethodTable()) {
    if (name == method.name) return &method;
  }
  return nullptr;
}

std::string LongestWait(std::string_view name) {
  const MethodEntry* method = FindMethodEntry(name);
  return method == nullptr || *method->longest_wait == '\0'
             ? "25 s at most for each call of the daemon"
             : method->longest_wait;
}

std::string ExampleCall(const MethodEntry& method) {
  const std::string call = std::string("call ") + method.name;
  return *method.example_arguments == '\0'
             ? call
             : call + " " + method.example_arguments;
}

std::string ExampleAnswer(const MethodEntry& method) {
  return std::string("{\"call\":\"") + method.name +
         "\",\"result\":" + method.example_result + "}";
}

std::string PlainText(std::string_view text) {
  std::string plain;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '`') continue;
    if (text.substr(i, 2) == "**") {
      ++i;
      continue;
    }
    plain.push_back(text[i]);
  }
  return plain;
}

std::string MethodTableMarkdown() {
  std::string text =
      "| Method | Arguments | Answer | Neutral answer |\n|---|---|---|---|\n";
  const MethodEntry* previous = nullptr;
  const auto end_row = [&] {
    if (previous == nullptr) return;
    text += std::string(" | ") + previous->arguments + " | " +
            previous->result + ": " + previous->description + " | " +
            previous->neutral + " |\n";
  };
  for (const MethodEntry& method : MethodTable()) {
    const bool same_row = previous != nullptr && ShareARow(*previous, method);
    if (!same_row) end_row();
    text += std::string(same_row ? ", `" : "| `") + method.name + "`";
    previous = &method;
  }
  end_row();
  return text;
}

}  // namespace lumso_host
