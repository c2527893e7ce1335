// An application and its engine, as far as the plug-in sees them.

#ifndef LUMSO_BLUETOOTH_TESTS_SUPPORT_PLUGIN_HOST_H_
#define LUMSO_BLUETOOTH_TESTS_SUPPORT_PLUGIN_HOST_H_

#include <flutter_linux/flutter_linux.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "host/in_process_messenger.h"

namespace lumso_test {

inline constexpr char kMethods[] = "lumso_bluetooth/methods";
inline constexpr char kDiscovery[] = "lumso_bluetooth/discovery";
inline constexpr char kState[] = "lumso_bluetooth/state";
inline constexpr char kDebug[] = "lumso_bluetooth/debug";

// A new map with string keys; takes the values.
FlValue* Map(
    std::initializer_list<std::pair<const char*, FlValue*>> entries = {});

// A new map with the single key "address".
FlValue* Address(const std::string& address);

// The value as text that keeps types and order apart: null, true, 12, 1.5,
// "text", bytes[1, 255], [1, "a"], {"key": 1}. Null stands for null.
std::string Describe(FlValue* value);

// Hosts one plug-in instance: registers it on construction and drops its
// handlers, as an engine does at shutdown, on destruction, which also checks
// that every channel has gone. Belongs to the platform thread.
class PluginHost {
 public:
  // One thing that the application saw.
  struct Record {
    std::string channel;
    // An event as Describe() gives it or "end of stream"; an answer as Call()
    // gives it.
    std::string text;
    bool is_answer = false;
  };

  // Receives one event; null for an end of stream.
  using Observer =
      std::function<void(const std::string& channel, FlValue* event)>;

  // What the application does about an event, which is on record already.
  using Reaction = std::function<void(const Record& event)>;

  PluginHost();
  ~PluginHost();
  PluginHost(const PluginHost&) = delete;
  PluginHost& operator=(const PluginHost&) = delete;

  // Calls a method of the plug-in and returns its answer: the result as
  // Describe() gives it, "error(code, message, details)" with the three parts
  // described likewise, or "not implemented". An answer that has not come when
  // the handler returns is "unanswered", one that comes a second time fails the
  // case. Takes `args`; null sends the null value.
  std::string Call(const std::string& method, FlValue* args = nullptr);

  // The same on any channel, for the event channels' "listen" and "cancel".
  std::string CallOn(const std::string& channel, const std::string& method,
                     FlValue* args = nullptr);
  std::string Listen(const std::string& channel);
  std::string Cancel(const std::string& channel);

  bool HasHandler(const std::string& channel) const;

  // The texts of all events on a channel so far.
  std::vector<std::string> Events(const std::string& channel) const;

  // All events and answers so far, in the order in which they were sent.
  const std::vector<Record>& records() const { return records_; }

  // From now on hands each event to `observer` as it comes, and records
  // nothing: for runs whose records would fill the memory.
  void Observe(Observer observer) { observer_ = std::move(observer); }

  // From now on runs `reaction` inside each send, in the middle of whatever the
  // plug-in does there. It may do all that a case can do with this host but
  // destroy it.
  void ReactInsideSends(Reaction reaction) { reaction_ = std::move(reaction); }

  // Drops every handler, which lets go of the plug-in object. Does nothing the
  // second time.
  void Dispose();

  // The same with an engine that goes on: what is still sent is recorded.
  void DropHandlers();
  // Drops the handler of one channel.
  void DropHandler(const std::string& channel);

 private:
  // Makes a record of an event or hands it to the observer.
  void TakeEvent(const std::string& channel, GBytes* message);

  std::vector<Record> records_;
  Observer observer_;              // Empty: events are recorded.
  Reaction reaction_;              // May be empty.
  InProcessMessenger* messenger_;  // Owned reference.
};

}  // namespace lumso_test

#endif  // LUMSO_BLUETOOTH_TESTS_SUPPORT_PLUGIN_HOST_H_
