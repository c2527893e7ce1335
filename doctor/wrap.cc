#include "doctor/wrap.h"

#include <glib.h>

#include <sstream>
#include <utility>

namespace lumso_doctor {

namespace {

// Returns the pieces of `word`, each but the last with its comma.
std::vector<std::string> SplitAfterCommas(const std::string& word) {
  std::vector<std::string> pieces;
  size_t start = 0;
  while (start < word.size()) {
    const size_t comma = word.find(',', start);
    const size_t end = comma == std::string::npos ? word.size() : comma + 1;
    pieces.push_back(word.substr(start, end - start));
    start = end;
  }
  return pieces;
}

}  // namespace

size_t ColumnsOf(std::string_view text) {
  size_t columns = 0;
  const char* end = text.data() + text.size();
  for (const char* c = text.data(); c < end; c = g_utf8_next_char(c)) {
    const gunichar character = g_utf8_get_char(c);
    if (g_unichar_iszerowidth(character)) continue;
    columns += g_unichar_iswide(character) ? 2 : 1;
  }
  return columns;
}

std::vector<std::string> Wrap(std::string_view text, size_t columns) {
  std::vector<std::string> lines;
  std::string line;
  const auto add = [&](const std::string& blank, const std::string& piece) {
    if (!line.empty() && ColumnsOf(line + blank + piece) > columns) {
      lines.push_back(std::exchange(line, ""));
    }
    line += (line.empty() ? "" : blank) + piece;
  };
  std::istringstream words{std::string(text)};
  for (std::string word; words >> word;) {
    if (ColumnsOf(word) <= columns) {
      add(" ", word);
      continue;
    }
    std::string blank = " ";
    for (const std::string& piece : SplitAfterCommas(word)) {
      add(std::exchange(blank, ""), piece);
    }
  }
  if (!line.empty()) lines.push_back(line);
  return lines;
}

}  // namespace lumso_doctor
