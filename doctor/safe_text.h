// Text that is safe to print. What comes from afar, such as a device's name,
// must neither command a terminal, nor turn or hide what stands beside it.

#ifndef LUMSO_BLUETOOTH_DOCTOR_SAFE_TEXT_H_
#define LUMSO_BLUETOOTH_DOCTOR_SAFE_TEXT_H_

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace lumso_doctor {

using Json = nlohmann::ordered_json;

// What text may consist of. A terminal that does not take UTF-8 obeys bytes of
// harmless letters.
enum class Charset { kUtf8, kAscii };

// Returns UTF-8 `text` with every control and format character (Unicode's
// categories Cc and Cf), line and paragraph separator, lone surrogate and
// unassigned code point as \uXXXX; \n and the like are short. A byte that is
// not UTF-8 becomes U+FFFD. With kAscii all beyond ASCII is \uXXXX.
std::string Printable(std::string_view text, Charset charset = Charset::kUtf8);

// Returns the same as a JSON string: in quotation marks, and those inside it
// and backslashes escaped, so that it ends where it seems to.
std::string Quoted(std::string_view text, Charset charset = Charset::kUtf8);

// Returns `json` as one line of text, without the line end, and with strings
// and keys as Quoted has them.
std::string JsonLine(const Json& json, Charset charset = Charset::kUtf8);

}  // namespace lumso_doctor

#endif  // LUMSO_BLUETOOTH_DOCTOR_SAFE_TEXT_H_
