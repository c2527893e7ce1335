#include "host/line_writer.h"

#include <cstdio>
#include <utility>

namespace lumso_host {

namespace {

constexpr char kReset[] = "\x1b[0m";
constexpr char kKey[] = "\x1b[36m";      // Cyan.
constexpr char kString[] = "\x1b[32m";   // Green.
constexpr char kLiteral[] = "\x1b[33m";  // Yellow.
constexpr char kTrouble[] = "\x1b[31m";  // Red.

constexpr std::string_view kPunctuation = "{}[],:";

// Returns the length of the string, number or name at the start of `json`.
size_t TokenLength(std::string_view json) {
  if (json.front() != '"') {
    const size_t end = json.find_first_of(kPunctuation);
    return end == std::string_view::npos ? json.size() : end;
  }
  size_t end = 1;
  while (end < json.size() && json[end] != '"')
    end += json[end] == '\\' ? 2 : 1;
  return end < json.size() ? end + 1 : json.size();
}

const char* TokenColour(std::string_view token, bool is_key, int depth) {
  if (!is_key) return token.front() == '"' ? kString : kLiteral;
  const bool trouble =
      depth == 1 && (token == "\"error\"" || token == "\"notImplemented\"" ||
                     token == "\"timeout\"");
  return trouble ? kTrouble : kKey;
}

}  // namespace

std::string ColourJson(std::string_view json) {
  std::string text;
  int depth = 0;
  while (!json.empty()) {
    const char c = json.front();
    if (kPunctuation.find(c) != std::string_view::npos) {
      if (c == '{' || c == '[') ++depth;
      if (c == '}' || c == ']') --depth;
      text.push_back(c);
      json.remove_prefix(1);
      continue;
    }
    const std::string_view token = json.substr(0, TokenLength(json));
    json.remove_prefix(token.size());
    const bool is_key = !json.empty() && json.front() == ':';
    text.append(TokenColour(token, is_key, depth)).append(token).append(kReset);
  }
  return text;
}

LineWriter::LineWriter(bool colours, std::function<void()> on_failure)
    : colours_(colours), on_failure_(std::move(on_failure)) {}

void LineWriter::WriteLine(const std::string& line) {
  if (failed_) return;
  const std::string text =
      (colours_ && line.front() == '{' ? ColourJson(line) : line) + "\n";
  const size_t count = std::fwrite(text.data(), 1, text.size(), stdout);
  if (count == text.size() && std::fflush(stdout) == 0) return;
  failed_ = true;
  std::perror("lumso_host: cannot write to standard output");
  on_failure_();
}

}  // namespace lumso_host
