// Converts between JSON text and the values of the platform channels.
//
// null, true, false, strings, arrays and objects are what they are called
// there; a number written without point and exponent is an integer, any other
// a float. A byte list (the uint8 list type) is an object with the one key
// "uint8" and the bytes in hexadecimal. Map order is kept.

#ifndef LUMSO_BLUETOOTH_HOST_JSON_VALUE_H_
#define LUMSO_BLUETOOTH_HOST_JSON_VALUE_H_

#include <flutter_linux/flutter_linux.h>

#include <string>
#include <string_view>

#include "doctor/safe_text.h"
#include "host/channel_codec.h"

namespace lumso_host {

using lumso_doctor::Json;
using lumso_doctor::JsonLine;

// Returns the value that `text` describes. Returns null and sets `error` when
// it is not JSON, or says something that a value cannot hold: an integer beyond
// 64 bits, a string with a NUL inside, very deep nesting.
ValuePtr ParseJsonValue(std::string_view text, std::string* error);

// Returns `value` as JSON. Floats that are not finite become the strings "NaN",
// "Infinity" and "-Infinity"; typed lists other than uint8 become arrays; a map
// key that is not a string becomes its JSON text.
Json ValueToJson(FlValue* value);

}  // namespace lumso_host

#endif  // LUMSO_BLUETOOTH_HOST_JSON_VALUE_H_
