// What the plug-in's methods take and give: the one table that the host's help,
// its completion and doc/channels.md come from.

#ifndef LUMSO_BLUETOOTH_HOST_METHOD_TABLE_H_
#define LUMSO_BLUETOOTH_HOST_METHOD_TABLE_H_

#include <string>
#include <string_view>
#include <vector>

namespace lumso_host {

// The texts may hold the Markdown marks ` and **.
struct MethodEntry {
  const char* name;
  // The keys of the argument map and their types; a dash for none.
  const char* arguments;
  // The type of the answer.
  const char* result;
  // What the answer says.
  const char* description;
  // The answer when the method cannot do its work; a dash when it always can.
  const char* neutral;
  // JSON; empty for none.
  const char* example_arguments;
  // JSON.
  const char* example_result;
  // How long the method blocks; empty for those that only ask the daemon.
  const char* longest_wait = "";
};

// Every method. Methods that differ in name and example alone follow one
// another.
const std::vector<MethodEntry>& MethodTable();

// Returns null for a name that is no method's.
const MethodEntry* FindMethodEntry(std::string_view name);

// Returns for how long at most a call blocks, also for names that are no
// method's.
std::string LongestWait(std::string_view name);

// Returns a line of the host's input that calls the method.
std::string ExampleCall(const MethodEntry& method);

// Returns the line that the host prints in answer to it.
std::string ExampleAnswer(const MethodEntry& method);

// Returns `text` without its Markdown marks.
std::string PlainText(std::string_view text);

// Returns the table in Markdown, line ends included. Methods that differ in
// name and example alone share a row.
std::string MethodTableMarkdown();

}  // namespace lumso_host

#endif  // LUMSO_BLUETOOTH_HOST_METHOD_TABLE_H_
