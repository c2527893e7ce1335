#include "doctor/wrap.h"

#include <glib.h>

#include <sstream>
#include <utility>

namespace lumso_doctor {

namespace {

// Returns the pieces of `word`, each but the last with its comma; what has none
// is cut where it fills a line.
std::vector<std::string> Split(const std::string& word, size_t columns) {
  std::vector<std::string> pieces;
  std::string piece;
  const char* next = nullptr;
  for (const char* c = word.c_str(); *c != '\0'; c = next) {
    next = g_utf8_next_char(c);
    const std::string character(c, next);
    if (!piece.empty() && ColumnsOf(piece + character) > columns)
      pieces.push_back(std::exchange(piece, ""));
    piece += character;
    if (*c == ',') pieces.push_back(std::exchange(piece, ""));
  }
  if (!piece.empty()) pieces.push_back(piece);
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
    for (const std::string& piece : Split(word, columns)) {
      add(std::exchange(blank, ""), piece);
    }
  }
  if (!line.empty()) lines.push_back(line);
  return lines;
}

}  // namespace lumso_doctor
