// A binary messenger and a plug-in registrar that live inside one process, for
// hosts and tests: they implement the embedding's public interfaces, so the
// same source runs on the real embedding and on the stand-in.
//
// Everything here belongs to the platform thread (the thread of the default
// GLib main context, which is also the one that makes the messenger), except
// answering, which the embedding allows anywhere: an answer given on another
// thread travels through the main loop. A message sent on another thread is
// reported on standard error and dropped.

#ifndef LUMSO_BLUETOOTH_HOST_IN_PROCESS_MESSENGER_H_
#define LUMSO_BLUETOOTH_HOST_IN_PROCESS_MESSENGER_H_

#include <flutter_linux/flutter_linux.h>

#include <functional>
#include <string>
#include <vector>

G_DECLARE_FINAL_TYPE(InProcessMessenger, in_process_messenger, IN_PROCESS,
                     MESSENGER, GObject)
G_DECLARE_FINAL_TYPE(InProcessRegistrar, in_process_registrar, IN_PROCESS,
                     REGISTRAR, GObject)

// Receives what the plug-in sends on a channel; `message` is borrowed and null
// for an end of stream. Runs inside the send, as Dart's message handler does
// where Dart shares the platform thread, and may call everything below, though
// not release the messenger. That is more than Dart can do, whose own messages
// wait for the main loop; an embedder's code in the same process can.
using InProcessSink =
    std::function<void(const std::string& channel, GBytes* message)>;

// Receives the answer to one delivered message; `answer` is borrowed and null
// when the answer is empty (not implemented, or nobody handles the channel).
using InProcessAnswer = std::function<void(GBytes* answer)>;

// Returns a new messenger, owned by the caller, that hands what is sent on its
// channels to `sink`. A plug-in that asks for a reply gets an empty one.
InProcessMessenger* in_process_messenger_new(InProcessSink sink);

// Hands `message` to the handler of `channel`, as the engine does with a
// message from the application; null stands for an empty message. `answer` runs
// exactly once, on the platform thread, when the handler answers (normally
// before this returns) or at once when there is no handler. A message that is
// dropped unanswered writes a line to standard error and never runs `answer`;
// one that is answered twice writes a line too, and the second answer fails. An
// answer given after the messenger was closed is lost, without a word.
void in_process_messenger_deliver(InProcessMessenger* messenger,
                                  const std::string& channel, GBytes* message,
                                  InProcessAnswer answer);

// Tells whether `channel` has a handler.
bool in_process_messenger_has_handler(InProcessMessenger* messenger,
                                      const std::string& channel);

// Returns the channels that have a handler, in the order of their names.
std::vector<std::string> in_process_messenger_get_channels(
    InProcessMessenger* messenger);

// Drops every handler, as an engine does at shutdown: each destroy notify runs.
// Messages sent from then on go nowhere, answers to them are empty.
void in_process_messenger_close(InProcessMessenger* messenger);

// Returns a new registrar, owned by the caller, that hands out `messenger`
// (which it references) and neither a view nor textures.
InProcessRegistrar* in_process_registrar_new(InProcessMessenger* messenger);

#endif  // LUMSO_BLUETOOTH_HOST_IN_PROCESS_MESSENGER_H_
