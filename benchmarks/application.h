// The application, as far as the plug-in sees it, in bytes.

#ifndef LUMSO_BLUETOOTH_BENCHMARKS_APPLICATION_H_
#define LUMSO_BLUETOOTH_BENCHMARKS_APPLICATION_H_

#include <flutter_linux/flutter_linux.h>

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>

#include "host/channel_codec.h"
#include "host/in_process_messenger.h"

namespace lumso_bench {

inline constexpr char kMethods[] = "lumso_bluetooth/methods";
inline constexpr char kDiscovery[] = "lumso_bluetooth/discovery";

// The message that calls `method` with a map of `entries`; takes the values.
lumso_host::BytesPtr Message(
    const std::string& method,
    std::initializer_list<std::pair<const char*, FlValue*>> entries = {});

// A messenger of which the benchmarks count the events. It hosts the plug-in
// from Register() on. Belongs to the main thread.
class Application {
 public:
  Application();
  ~Application();
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  void Register();

  FlBinaryMessenger* messenger() const {
    return FL_BINARY_MESSENGER(messenger_);
  }

  // Delivers a message and returns the answer; null when it is empty.
  lumso_host::BytesPtr Call(const std::string& channel, GBytes* message);

  // Calls "connect", which takes the socket handed over last. Ends the program
  // when it fails.
  int Connect();
  void Disconnect(int id);

  // Runs the main loop until `count` more events have come.
  void AwaitEvents(size_t count);

  // Sees every event; may be empty.
  std::function<void(GBytes* event)> on_event;

 private:
  InProcessMessenger* messenger_;  // owned reference
  size_t events_ = 0;
};

}  // namespace lumso_bench

#endif  // LUMSO_BLUETOOTH_BENCHMARKS_APPLICATION_H_
