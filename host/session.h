// The host's line protocol: runs commands against a plug-in and prints what
// comes back.

#ifndef LUMSO_BLUETOOTH_HOST_SESSION_H_
#define LUMSO_BLUETOOTH_HOST_SESSION_H_

#include <glib.h>

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/channel_codec.h"
#include "host/in_process_messenger.h"
#include "host/json_value.h"
#include "host/plugin_library.h"

namespace lumso_host {

// One plug-in instance on a messenger of its own, and the one command that is
// under way on it. For the platform thread.
class Session {
 public:
  // Who reads what is printed. People get help as text, maybe several lines.
  enum class Reader { kProgram, kPerson };

  struct Command {
    const char* name;
    const char* other_name;  // Empty for none.
    const char* words;       // That follow the name; empty for none.
    const char* description;
    void (Session::*run)(std::string_view words);
  };

  struct Callbacks {
    // Gets each line to print, without its line end.
    std::function<void(const std::string& line)> print;
    // Gets what the platform thread is going to wait for inside the plug-in,
    // and for how long at most; an empty text when it is back.
    std::function<void(const std::string& what)> waits;
    // Runs when a command has finished, maybe before Execute() returns.
    std::function<void()> finished;
    // Runs when the "quit" command asks for the end.
    std::function<void()> quit;
  };

  static const std::vector<Command>& Commands();

  // Finds a command by either name; null when there is none.
  static const Command* FindCommand(std::string_view name);

  // Registers the plug-in.
  Session(RegisterFunction register_plugin, Reader reader,
          lumso_doctor::Charset charset, Callbacks callbacks);
  // Disposes the plug-in.
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Starts the command in `line`. Not to be called again before it finished.
  void Execute(const std::string& line);

  // Returns the channels that can be listened to now.
  std::vector<std::string> EventChannels() const;

  // Returns the addresses of devices that came with answers and events, the
  // latest last.
  const std::vector<std::string>& addresses() const { return addresses_; }

  // Tells whether an "expect" has failed.
  bool expectation_failed() const { return expectation_failed_; }

 private:
  struct Request;

  // The commands, each with the words after its name.
  void Call(std::string_view words);
  void Listen(std::string_view words);
  void Cancel(std::string_view words);
  void Sleep(std::string_view words);
  void Expect(std::string_view words);
  void Dispose(std::string_view words);
  void Help(std::string_view words);
  void Quit(std::string_view words);

  void SendStreamRequest(const char* command, std::string_view channel);
  void SendRequest(const char* command, std::string_view name,
                   const std::string& channel, const std::string& method,
                   FlValue* args);
  void OnAnswer(const Request& request, GBytes* answer);
  void OnUnanswered();
  void OnMessage(const std::string& channel, GBytes* message);
  void OnTimer();

  void Print(const Json& json);
  void PrintError(const std::string& what);
  void Remember(const std::string& line);
  void RememberAddresses(const Json& json);
  void ForgetLines();
  void StartTimer(double seconds);
  // Ends the command under way.
  void Finish();
  void Fail(const std::string& what);

  const Reader reader_;
  const lumso_doctor::Charset charset_;  // Of the lines.
  const Callbacks callbacks_;
  InProcessMessenger* messenger_;  // Owned reference.
  // The request under way or the last one, as the command says it.
  std::string request_;
  // What the next "expect" looks through first, oldest line first.
  std::deque<std::string> lines_;
  size_t lines_size_ = 0;  // Of the text in lines_.
  std::vector<std::string> addresses_;
  // What the "expect" under way waits for; empty when there is none.
  std::string expected_;
  guint timer_ = 0;  // Of the "sleep" or "expect" under way; 0 for none.
  bool expectation_failed_ = false;
};

}  // namespace lumso_host

#endif  // LUMSO_BLUETOOTH_HOST_SESSION_H_
