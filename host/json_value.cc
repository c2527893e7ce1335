#include "host/json_value.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

namespace lumso_host {

namespace {

constexpr char kBytesKey[] = "uint8";
// The codec walks nested values by recursion; this keeps it off the stack's
// end.
constexpr size_t kMaxDepth = 200;

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool DecodeHex(std::string_view hex, std::vector<uint8_t>* bytes) {
  if (hex.size() % 2 != 0) return false;
  bytes->reserve(hex.size() / 2);
  for (size_t i = 0; i < hex.size(); i += 2) {
    const int high = HexDigit(hex[i]);
    const int low = HexDigit(hex[i + 1]);
    if (high < 0 || low < 0) return false;
    bytes->push_back(static_cast<uint8_t>(high * 16 + low));
  }
  return true;
}

std::string EncodeHex(const uint8_t* bytes, size_t count) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(count * 2);
  for (size_t i = 0; i < count; ++i) {
    hex.push_back(kDigits[bytes[i] >> 4]);
    hex.push_back(kDigits[bytes[i] & 15]);
  }
  return hex;
}

// Returns the byte list that `map` stands for, or null when it is just a map.
ValuePtr BytesFromMap(FlValue* map) {
  if (fl_value_get_length(map) != 1) return nullptr;
  FlValue* text = fl_value_lookup_string(map, kBytesKey);
  if (text == nullptr || fl_value_get_type(text) != FL_VALUE_TYPE_STRING) {
    return nullptr;
  }
  std::vector<uint8_t> bytes;
  if (!DecodeHex(fl_value_get_string(text), &bytes)) return nullptr;
  return ValuePtr(fl_value_new_uint8_list(bytes.data(), bytes.size()));
}

// Builds a value straight from the parser's events, since a parsed document
// would have turned integers that are too big into floats.
class ValueBuilder : public nlohmann::json_sax<Json> {
 public:
  ValuePtr TakeResult() { return std::move(result_); }
  const std::string& error() const { return error_; }

  bool null() override { return Add(ValuePtr(fl_value_new_null())); }
  bool boolean(bool value) override {
    return Add(ValuePtr(fl_value_new_bool(value)));
  }
  bool number_integer(number_integer_t value) override {
    return Add(ValuePtr(fl_value_new_int(value)));
  }
  bool number_unsigned(number_unsigned_t value) override {
    if (value > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      return Fail("integer out of range: " + std::to_string(value));
    }
    return Add(ValuePtr(fl_value_new_int(static_cast<int64_t>(value))));
  }
  bool number_float(number_float_t value, const string_t& text) override {
    if (text.find_first_of(".eE") == string_t::npos) {
      return Fail("integer out of range: " + text);
    }
    return Add(ValuePtr(fl_value_new_float(value)));
  }
  bool string(string_t& text) override {
    return CheckText(text) &&
           Add(ValuePtr(fl_value_new_string_sized(text.data(), text.size())));
  }
  bool binary(binary_t&) override { return Fail("binary data"); }
  bool start_object(size_t) override {
    return Open(ValuePtr(fl_value_new_map()));
  }
  bool key(string_t& text) override {
    levels_.back().key = text;
    return CheckText(text);
  }
  bool end_object() override {
    ValuePtr map = Close();
    ValuePtr bytes = BytesFromMap(map.get());
    return Add(std::move(bytes == nullptr ? map : bytes));
  }
  bool start_array(size_t) override {
    return Open(ValuePtr(fl_value_new_list()));
  }
  bool end_array() override { return Add(Close()); }
  bool parse_error(size_t, const std::string&,
                   const nlohmann::detail::exception& error) override {
    const std::string text = error.what();
    const size_t id_end = text.find("] ");
    return Fail(id_end == std::string::npos ? text : text.substr(id_end + 2));
  }

 private:
  struct Level {
    ValuePtr container;
    std::string key;  // Of the member that comes next, in a map.
  };

  bool Fail(std::string what) {
    error_ = std::move(what);
    return false;
  }

  bool CheckText(const std::string& text) {
    return text.find('\0') == std::string::npos ||
           Fail("a string cannot hold a NUL character");
  }

  bool Open(ValuePtr container) {
    if (levels_.size() == kMaxDepth) return Fail("nested too deeply");
    levels_.push_back({std::move(container), std::string()});
    return true;
  }

  ValuePtr Close() {
    ValuePtr container = std::move(levels_.back().container);
    levels_.pop_back();
    return container;
  }

  bool Add(ValuePtr value) {
    if (levels_.empty()) {
      result_ = std::move(value);
      return true;
    }
    const Level& level = levels_.back();
    if (fl_value_get_type(level.container.get()) == FL_VALUE_TYPE_MAP) {
      fl_value_set_string_take(level.container.get(), level.key.c_str(),
                               value.release());
    } else {
      fl_value_append_take(level.container.get(), value.release());
    }
    return true;
  }

  std::vector<Level> levels_;
  ValuePtr result_;
  std::string error_;
};

Json FloatToJson(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "Infinity" : "-Infinity";
  return value;
}

template <typename T, typename Convert>
Json ArrayToJson(const T* elements, size_t count, Convert convert) {
  Json array = Json::array();
  for (size_t i = 0; i < count; ++i) array.push_back(convert(elements[i]));
  return array;
}

Json MapToJson(FlValue* map) {
  Json object = Json::object();
  for (size_t i = 0; i < fl_value_get_length(map); ++i) {
    FlValue* key = fl_value_get_map_key(map, i);
    const bool is_text = fl_value_get_type(key) == FL_VALUE_TYPE_STRING;
    const std::string text =
        is_text ? fl_value_get_string(key) : JsonLine(ValueToJson(key));
    object[text] = ValueToJson(fl_value_get_map_value(map, i));
  }
  return object;
}

Json ListToJson(FlValue* list) {
  Json array = Json::array();
  for (size_t i = 0; i < fl_value_get_length(list); ++i) {
    array.push_back(ValueToJson(fl_value_get_list_value(list, i)));
  }
  return array;
}

}  // namespace

ValuePtr ParseJsonValue(std::string_view text, std::string* error) {
  ValueBuilder builder;
  if (!Json::sax_parse(text.begin(), text.end(), &builder)) {
    *error = builder.error();
    return nullptr;
  }
  return builder.TakeResult();
}

Json ValueToJson(FlValue* value) {
  const auto integer = [](int64_t element) { return Json(element); };
  switch (fl_value_get_type(value)) {
    case FL_VALUE_TYPE_BOOL:
      return fl_value_get_bool(value);
    case FL_VALUE_TYPE_INT:
      return fl_value_get_int(value);
    case FL_VALUE_TYPE_FLOAT:
      return FloatToJson(fl_value_get_float(value));
    case FL_VALUE_TYPE_STRING:
      return fl_value_get_string(value);
    case FL_VALUE_TYPE_UINT8_LIST:
      return Json{{kBytesKey, EncodeHex(fl_value_get_uint8_list(value),
                                        fl_value_get_length(value))}};
    case FL_VALUE_TYPE_INT32_LIST:
      return ArrayToJson(fl_value_get_int32_list(value),
                         fl_value_get_length(value), integer);
    case FL_VALUE_TYPE_INT64_LIST:
      return ArrayToJson(fl_value_get_int64_list(value),
                         fl_value_get_length(value), integer);
    case FL_VALUE_TYPE_FLOAT32_LIST:
      return ArrayToJson(fl_value_get_float32_list(value),
                         fl_value_get_length(value), FloatToJson);
    case FL_VALUE_TYPE_FLOAT_LIST:
      return ArrayToJson(fl_value_get_float_list(value),
                         fl_value_get_length(value), FloatToJson);
    case FL_VALUE_TYPE_LIST:
      return ListToJson(value);
    case FL_VALUE_TYPE_MAP:
      return MapToJson(value);
    default:
      return nullptr;
  }
}

}  // namespace lumso_host
