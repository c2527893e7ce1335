#include "tests/support/plugin_host.h"

#include <gtest/gtest.h>
#include <lumso_bluetooth/lumso_bluetooth_plugin.h>

#include <memory>

#include "host/channel_codec.h"

namespace lumso_test {
namespace {

using lumso_host::BytesPtr;
using lumso_host::DecodeEnvelope;
using lumso_host::EncodeMethodCall;
using lumso_host::Envelope;
using lumso_host::ValuePtr;

std::string Quote(const std::string& text) { return '"' + text + '"'; }

std::string DescribeBytes(FlValue* value) {
  const uint8_t* bytes = fl_value_get_uint8_list(value);
  std::string text;
  for (size_t i = 0; i < fl_value_get_length(value); i++) {
    text += (i == 0 ? "" : ", ") + std::to_string(bytes[i]);
  }
  return "bytes[" + text + "]";
}

std::string DescribeList(FlValue* value) {
  std::string text;
  for (size_t i = 0; i < fl_value_get_length(value); i++) {
    text += (i == 0 ? "" : ", ") + Describe(fl_value_get_list_value(value, i));
  }
  return "[" + text + "]";
}

std::string DescribeMap(FlValue* value) {
  std::string text;
  for (size_t i = 0; i < fl_value_get_length(value); i++) {
    text += (i == 0 ? "" : ", ") + Describe(fl_value_get_map_key(value, i)) +
            ": " + Describe(fl_value_get_map_value(value, i));
  }
  return "{" + text + "}";
}

std::string DescribeEnvelope(const Envelope& envelope,
                             const std::string& empty) {
  switch (envelope.kind) {
    case Envelope::Kind::kSuccess:
      return Describe(envelope.value.get());
    case Envelope::Kind::kError:
      return "error(" + Quote(envelope.code) + ", " +
             (envelope.message ? Quote(*envelope.message) : "null") + ", " +
             Describe(envelope.details.get()) + ")";
    case Envelope::Kind::kEmpty:
      return empty;
    case Envelope::Kind::kMalformed:
      break;
  }
  return "malformed: " + envelope.message.value_or("");
}

}  // namespace

FlValue* Map(std::initializer_list<std::pair<const char*, FlValue*>> entries) {
  FlValue* map = fl_value_new_map();
  for (const auto& [key, value] : entries) {
    fl_value_set_string_take(map, key, value);
  }
  return map;
}

FlValue* Address(const std::string& address) {
  return Map({{"address", fl_value_new_string(address.c_str())}});
}

std::string Describe(FlValue* value) {
  if (value == nullptr) return "null";
  switch (fl_value_get_type(value)) {
    case FL_VALUE_TYPE_BOOL:
    case FL_VALUE_TYPE_INT:
    case FL_VALUE_TYPE_FLOAT:
    case FL_VALUE_TYPE_NULL: {
      g_autofree gchar* text = fl_value_to_string(value);
      return text;
    }
    case FL_VALUE_TYPE_STRING:
      return Quote(fl_value_get_string(value));
    case FL_VALUE_TYPE_UINT8_LIST:
      return DescribeBytes(value);
    case FL_VALUE_TYPE_LIST:
      return DescribeList(value);
    case FL_VALUE_TYPE_MAP:
      return DescribeMap(value);
    default:
      return "value of type " + std::to_string(fl_value_get_type(value));
  }
}

PluginHost::PluginHost()
    : messenger_(in_process_messenger_new(
          [this](const std::string& channel, GBytes* message) {
            TakeEvent(channel, message);
          })) {
  g_autoptr(InProcessRegistrar) registrar =
      in_process_registrar_new(messenger_);
  lumso_bluetooth_plugin_register_with_registrar(
      FL_PLUGIN_REGISTRAR(registrar));
}

// The plug-in's channels hold the messenger, so it goes only with all of them.
PluginHost::~PluginHost() {
  Dispose();
  gpointer left = messenger_;
  g_object_add_weak_pointer(G_OBJECT(messenger_), &left);
  g_object_unref(messenger_);
  EXPECT_EQ(left, nullptr) << "the plug-in has left a channel behind";
}

void PluginHost::TakeEvent(const std::string& channel, GBytes* message) {
  const Envelope event = DecodeEnvelope(message);
  if (!observer_) {
    const Record record = {channel, DescribeEnvelope(event, "end of stream")};
    records_.push_back(record);
    const Reaction reaction = reaction_;  // which may replace itself
    if (reaction) reaction(record);
    return;
  }
  EXPECT_TRUE(event.kind == Envelope::Kind::kSuccess ||
              event.kind == Envelope::Kind::kEmpty)
      << channel;
  observer_(channel, event.value.get());
}

std::string PluginHost::Call(const std::string& method, FlValue* args) {
  return CallOn(kMethods, method, args);
}

std::string PluginHost::CallOn(const std::string& channel,
                               const std::string& method, FlValue* args) {
  const ValuePtr owned_args(args);
  const BytesPtr message = EncodeMethodCall(method, args);
  // Shared with the answer callback, which outlives this call when the handler
  // defers its answer.
  const auto answers = std::make_shared<std::vector<std::string>>();
  in_process_messenger_deliver(
      messenger_, channel, message.get(), [answers](GBytes* answer) {
        answers->push_back(
            DescribeEnvelope(DecodeEnvelope(answer), "not implemented"));
      });
  EXPECT_LE(answers->size(), 1U) << method << " was answered twice";
  const std::string text = answers->empty() ? "unanswered" : answers->front();
  if (!observer_) records_.push_back({channel, text, true});
  return text;
}

std::string PluginHost::Listen(const std::string& channel) {
  return CallOn(channel, "listen");
}

std::string PluginHost::Cancel(const std::string& channel) {
  return CallOn(channel, "cancel");
}

bool PluginHost::HasHandler(const std::string& channel) const {
  return in_process_messenger_has_handler(messenger_, channel);
}

std::vector<std::string> PluginHost::Events(const std::string& channel) const {
  std::vector<std::string> texts;
  for (const Record& record : records_) {
    if (!record.is_answer && record.channel == channel) {
      texts.push_back(record.text);
    }
  }
  return texts;
}

void PluginHost::Dispose() { in_process_messenger_close(messenger_); }

void PluginHost::DropHandlers() {
  for (const std::string& channel :
       in_process_messenger_get_channels(messenger_)) {
    DropHandler(channel);
  }
}

void PluginHost::DropHandler(const std::string& channel) {
  fl_binary_messenger_set_message_handler_on_channel(
      FL_BINARY_MESSENGER(messenger_), channel.c_str(), nullptr, nullptr,
      nullptr);
}

}  // namespace lumso_test
