// Text in lines that fit a terminal.

#ifndef LUMSO_BLUETOOTH_DOCTOR_WRAP_H_
#define LUMSO_BLUETOOTH_DOCTOR_WRAP_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace lumso_doctor {

// Returns how many columns of a terminal `text` (UTF-8, one line) takes.
size_t ColumnsOf(std::string_view text);

// Breaks `text` (UTF-8) at its blanks and line ends into lines of at most
// `columns` columns. What has no blank to break at breaks after a comma, or
// else where the line is full.
std::vector<std::string> Wrap(std::string_view text, size_t columns);

}  // namespace lumso_doctor

#endif  // LUMSO_BLUETOOTH_DOCTOR_WRAP_H_
