#include "doctor/safe_text.h"

#include <glib.h>

#include <cstdio>

namespace lumso_doctor {

namespace {

constexpr gunichar kReplacement = 0xfffd;
constexpr char kShortEscapes[] = "\bb\tt\nn\ff\rr";

struct Character {
  gunichar code;
  size_t length;  // In bytes.
};

// Decodes the first character of `text`, which is not empty. Lone surrogates,
// which are not UTF-8, come as what they are.
Character Decode(std::string_view text) {
  const auto byte = [&text](size_t i) -> gunichar {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
  };
  if (byte(0) < 0x80) return {byte(0), 1};
  if (byte(0) == 0xed && (byte(1) & 0xe0) == 0xa0 && (byte(2) & 0xc0) == 0x80)
    return {0xd000 | (byte(1) & 0x3f) << 6 | (byte(2) & 0x3f), 3};
  const gunichar code =
      g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
  if (code > 0x10ffff) return {kReplacement, 1};
  return {code, static_cast<size_t>(g_unichar_to_utf8(code, nullptr))};
}

// A code point that this GLib does not know may be a format character of a
// later Unicode.
bool IsSafe(gunichar code) {
  switch (g_unichar_type(code)) {
    case G_UNICODE_CONTROL:
    case G_UNICODE_FORMAT:
    case G_UNICODE_LINE_SEPARATOR:
    case G_UNICODE_PARAGRAPH_SEPARATOR:
    case G_UNICODE_SURROGATE:
    case G_UNICODE_UNASSIGNED:
      return false;
    default:
      return true;
  }
}

std::string HexEscape(gunichar unit) {
  char escape[sizeof("\\uffff")];
  std::snprintf(escape, sizeof(escape), "\\u%04x", unit & 0xffff);
  return escape;
}

std::string Escape(gunichar code) {
  for (const char* pair = kShortEscapes; *pair != '\0'; pair += 2) {
    if (code == static_cast<gunichar>(pair[0])) return {'\\', pair[1]};
  }
  if (code < 0x10000) return HexEscape(code);
  const gunichar rest = code - 0x10000;
  return HexEscape(0xd800 | rest >> 10) + HexEscape(0xdc00 | (rest & 0x3ff));
}

// Returns `text` with what is not safe escaped, and those of `others`, too.
std::string Escaped(std::string_view text, std::string_view others,
                    Charset charset) {
  std::string escaped;
  while (!text.empty()) {
    const Character character = Decode(text);
    if (!IsSafe(character.code) ||
        (charset == Charset::kAscii && character.code >= 0x80)) {
      escaped += Escape(character.code);
    } else if (character.code == kReplacement) {
      escaped += "\xef\xbf\xbd";
    } else {
      if (others.find(text.front()) != std::string_view::npos) escaped += '\\';
      escaped += text.substr(0, character.length);
    }
    text.remove_prefix(character.length);
  }
  return escaped;
}

}  // namespace

std::string Printable(std::string_view text, Charset charset) {
  return Escaped(text, "", charset);
}

std::string Quoted(std::string_view text, Charset charset) {
  return '"' + Escaped(text, "\"\\", charset) + '"';
}

std::string JsonLine(const Json& json, Charset charset) {
  if (json.is_string())
    return Quoted(json.get_ref<const std::string&>(), charset);
  if (!json.is_structured()) return json.dump();
  std::string line;
  for (const auto& [key, value] : json.items()) {
    if (!line.empty()) line += ',';
    if (json.is_object()) line += Quoted(key, charset) + ':';
    line += JsonLine(value, charset);
  }
  return json.is_object() ? '{' + line + '}' : '[' + line + ']';
}

}  // namespace lumso_doctor
