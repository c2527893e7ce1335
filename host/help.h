// What the host says about itself.

#ifndef LUMSO_BLUETOOTH_HOST_HELP_H_
#define LUMSO_BLUETOOTH_HOST_HELP_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "host/json_value.h"

namespace lumso_host {

// Explains the commands and the lines that they print, for --help; without the
// last line end.
std::string ProtocolHelp();

// Returns what there is to say about a method or a command, or about all of
// them when `name` is empty; null when there is no such name.
Json HelpOn(std::string_view name);

// Returns the same as text for people, in lines that fit `columns`, without the
// last line end.
std::string HelpText(const Json& help, size_t columns);

// How a line may go on.
struct Completion {
  // To be put in at the cursor; empty when that is undecided.
  std::string insertion;
  // The words that fit when nothing can be put in.
  std::vector<std::string> choices;
};

// Completes the word at the end of `text`, which is the line up to the cursor:
// commands, methods, `channels`, and a method's arguments: with one of
// `addresses`, or else its example. Blanks within arguments do not count.
Completion Complete(std::string_view text,
                    const std::vector<std::string>& channels,
                    const std::vector<std::string>& addresses);

}  // namespace lumso_host

#endif  // LUMSO_BLUETOOTH_HOST_HELP_H_
