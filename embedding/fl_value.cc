#include <flutter_linux/flutter_linux.h>
#include <string.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace {

struct ValueUnref {
  void operator()(FlValue* value) const { fl_value_unref(value); }
};
using ValuePtr = std::unique_ptr<FlValue, ValueUnref>;

using Text = std::optional<std::string>;
using List = std::vector<ValuePtr>;
using Map = std::vector<std::pair<ValuePtr, ValuePtr>>;

struct Custom {
  Custom(int custom_type, gconstpointer custom_value, GDestroyNotify notify)
      : type(custom_type), value(custom_value), destroy_notify(notify) {}
  Custom(const Custom&) = delete;
  Custom& operator=(const Custom&) = delete;
  ~Custom() {
    if (destroy_notify != nullptr) {
      destroy_notify(const_cast<gpointer>(value));
    }
  }

  const int type;
  const gconstpointer value;
  const GDestroyNotify destroy_notify;
};

// In the order of FlValueType: the index of the alternative is the type.
using Data = std::variant<std::monostate, bool, int64_t, double, Text,
                          std::vector<uint8_t>, std::vector<int32_t>,
                          std::vector<int64_t>, std::vector<double>, List, Map,
                          std::vector<float>, Custom>;
static_assert(std::variant_size_v<Data> == FL_VALUE_TYPE_CUSTOM + 1);

}  // namespace

struct _FlValue {
  template <size_t kType, typename... Args>
  explicit _FlValue(std::in_place_index_t<kType> type, Args&&... args)
      : data(type, std::forward<Args>(args)...) {}

  Data data;
  int ref_count = 1;
};

namespace {

template <FlValueType kType, typename... Args>
FlValue* New(Args&&... args) {
  return new FlValue(std::in_place_index<kType>, std::forward<Args>(args)...);
}

template <FlValueType kType, typename T>
FlValue* NewTypedList(const T* value, size_t value_length) {
  return New<kType>(value, value + value_length);
}

bool Is(FlValue* value, FlValueType type) {
  return value != nullptr && value->data.index() == type;
}

template <FlValueType kType>
auto& Get(FlValue* value) {
  return *std::get_if<kType>(&value->data);
}

template <FlValueType kType>
auto GetTypedList(FlValue* value) {
  const auto& list = Get<kType>(value);
  return list.empty() ? nullptr : list.data();
}

Map::value_type* FindEntry(FlValue* map, FlValue* key) {
  for (Map::value_type& entry : Get<FL_VALUE_TYPE_MAP>(map)) {
    if (fl_value_equal(entry.first.get(), key)) {
      return &entry;
    }
  }
  return nullptr;
}

void SetEntry(FlValue* map, ValuePtr key, ValuePtr child_value) {
  Map::value_type* entry = FindEntry(map, key.get());
  if (entry != nullptr) {
    *entry = {std::move(key), std::move(child_value)};
  } else {
    Get<FL_VALUE_TYPE_MAP>(map).emplace_back(std::move(key),
                                             std::move(child_value));
  }
}

bool EqualLists(const List& a, const List& b) {
  if (a.size() != b.size()) {
    return false;
  }
  for (size_t i = 0; i < a.size(); i++) {
    if (!fl_value_equal(a[i].get(), b[i].get())) {
      return false;
    }
  }
  return true;
}

bool EqualMaps(FlValue* a, FlValue* b) {
  const Map& entries = Get<FL_VALUE_TYPE_MAP>(a);
  if (entries.size() != Get<FL_VALUE_TYPE_MAP>(b).size()) {
    return false;
  }
  for (const auto& [key, child_value] : entries) {
    const Map::value_type* other = FindEntry(b, key.get());
    if (other == nullptr ||
        !fl_value_equal(child_value.get(), other->second.get())) {
      return false;
    }
  }
  return true;
}

// The number of elements, of those types that have any.
struct Length {
  template <typename T>
  std::optional<size_t> operator()(const std::vector<T>& list) const {
    return list.size();
  }
  template <typename T>
  std::optional<size_t> operator()(const T&) const {
    return std::nullopt;
  }
};

// Compares two values of the same type.
struct Equal {
  bool operator()(std::monostate) const { return true; }
  bool operator()(const List& list) const {
    return EqualLists(list, Get<FL_VALUE_TYPE_LIST>(other));
  }
  bool operator()(const Map&) const { return EqualMaps(self, other); }
  bool operator()(const Custom&) const { return false; }
  template <typename T>
  bool operator()(const T& value) const {
    return value == *std::get_if<T>(&other->data);
  }

  FlValue* const self;
  FlValue* const other;
};

// Appends a value's text, one overload per alternative of Data.
class Printer {
 public:
  explicit Printer(GString* text) : text_(text) {}

  void operator()(std::monostate) const { g_string_append(text_, "null"); }
  void operator()(bool value) const {
    g_string_append(text_, value ? "true" : "false");
  }
  void operator()(int64_t value) const {
    g_string_append_printf(text_, "%" G_GINT64_FORMAT, value);
  }
  // Up to 16 decimals, at least one.
  void operator()(double value) const {
    char digits[400];  // the largest double has 309 digits before its decimals
    g_ascii_formatd(digits, sizeof(digits), "%.16f", value);
    size_t length = strlen(digits);
    while (length > 2 && digits[length - 1] == '0' &&
           digits[length - 2] != '.') {
      length--;
    }
    g_string_append_len(text_, digits, static_cast<gssize>(length));
  }
  void operator()(const Text& value) const {
    g_string_append(text_, value ? value->c_str() : "");
  }
  void operator()(const Map& entries) const {
    const char* separator = "{";
    for (const auto& [key, child_value] : entries) {
      g_string_append(text_, separator);
      std::visit(*this, key->data);
      g_string_append(text_, ": ");
      std::visit(*this, child_value->data);
      separator = ", ";
    }
    g_string_append(text_, entries.empty() ? "{}" : "}");
  }
  void operator()(const Custom& value) const {
    g_string_append_printf(text_, "(custom %d)", value.type);
  }
  template <typename T>
  void operator()(const std::vector<T>& list) const {
    const char* separator = "[";
    for (const T& element : list) {
      g_string_append(text_, separator);
      Print(element);
      separator = ", ";
    }
    g_string_append(text_, list.empty() ? "[]" : "]");
  }

 private:
  void Print(const ValuePtr& value) const { std::visit(*this, value->data); }
  void Print(double value) const { (*this)(value); }
  template <typename Int>
  void Print(Int value) const {
    (*this)(static_cast<int64_t>(value));
  }
  void Print(float value) const { (*this)(static_cast<double>(value)); }

  GString* const text_;
};

}  // namespace

FlValue* fl_value_new_null() { return New<FL_VALUE_TYPE_NULL>(); }

FlValue* fl_value_new_bool(bool value) {
  return New<FL_VALUE_TYPE_BOOL>(value);
}

FlValue* fl_value_new_int(int64_t value) {
  return New<FL_VALUE_TYPE_INT>(value);
}

FlValue* fl_value_new_float(double value) {
  return New<FL_VALUE_TYPE_FLOAT>(value);
}

FlValue* fl_value_new_string(const gchar* value) {
  return value != nullptr ? New<FL_VALUE_TYPE_STRING>(value)
                          : New<FL_VALUE_TYPE_STRING>();
}

FlValue* fl_value_new_string_sized(const gchar* value, size_t value_length) {
  return New<FL_VALUE_TYPE_STRING>(
      value_length > 0 ? std::string(value, strnlen(value, value_length))
                       : std::string());
}

FlValue* fl_value_new_uint8_list(const uint8_t* value, size_t value_length) {
  return NewTypedList<FL_VALUE_TYPE_UINT8_LIST>(value, value_length);
}

FlValue* fl_value_new_uint8_list_from_bytes(GBytes* value) {
  gsize length = 0;
  gconstpointer data = g_bytes_get_data(value, &length);
  return fl_value_new_uint8_list(static_cast<const uint8_t*>(data), length);
}

FlValue* fl_value_new_int32_list(const int32_t* value, size_t value_length) {
  return NewTypedList<FL_VALUE_TYPE_INT32_LIST>(value, value_length);
}

FlValue* fl_value_new_int64_list(const int64_t* value, size_t value_length) {
  return NewTypedList<FL_VALUE_TYPE_INT64_LIST>(value, value_length);
}

FlValue* fl_value_new_float32_list(const float* value, size_t value_length) {
  return NewTypedList<FL_VALUE_TYPE_FLOAT32_LIST>(value, value_length);
}

FlValue* fl_value_new_float_list(const double* value, size_t value_length) {
  return NewTypedList<FL_VALUE_TYPE_FLOAT_LIST>(value, value_length);
}

FlValue* fl_value_new_list() { return New<FL_VALUE_TYPE_LIST>(); }

FlValue* fl_value_new_list_from_strv(const gchar* const* value) {
  g_return_val_if_fail(value != nullptr, nullptr);
  FlValue* list = fl_value_new_list();
  for (; *value != nullptr; value++) {
    fl_value_append_take(list, fl_value_new_string(*value));
  }
  return list;
}

FlValue* fl_value_new_map() { return New<FL_VALUE_TYPE_MAP>(); }

FlValue* fl_value_new_custom(int type, gconstpointer value,
                             GDestroyNotify destroy_notify) {
  return New<FL_VALUE_TYPE_CUSTOM>(type, value, destroy_notify);
}

FlValue* fl_value_new_custom_object(int type, GObject* object) {
  return fl_value_new_custom_object_take(type, G_OBJECT(g_object_ref(object)));
}

FlValue* fl_value_new_custom_object_take(int type, GObject* object) {
  return fl_value_new_custom(type, object, g_object_unref);
}

FlValue* fl_value_ref(FlValue* value) {
  g_return_val_if_fail(value != nullptr, nullptr);
  value->ref_count++;
  return value;
}

void fl_value_unref(FlValue* value) {
  g_return_if_fail(value != nullptr);
  g_return_if_fail(value->ref_count > 0);
  if (--value->ref_count == 0) {
    delete value;
  }
}

FlValueType fl_value_get_type(FlValue* value) {
  g_return_val_if_fail(value != nullptr, FL_VALUE_TYPE_NULL);
  return static_cast<FlValueType>(value->data.index());
}

bool fl_value_get_bool(FlValue* value) {
  g_return_val_if_fail(Is(value, FL_VALUE_TYPE_BOOL), false);
  return Get<FL_VALUE_TYPE_BOOL>(value);
}

int64_t fl_value_get_int(FlValue* value) {
  g_return_val_if_fail(Is(value, FL_VALUE_TYPE_INT), 0);
  return Get<FL_VALUE_TYPE_INT>(value);
}

double fl_value_get_float(FlValue* value) {
  g_return_val_if_fail(Is(value, FL_VALUE_TYPE_FLOAT), 0.0);
  return Get<FL_VALUE_TYPE_FLOAT>(value);
}

const gchar* fl_value_get_string(FlValue* value) {
  g_return_val_if_fail(Is(value, FL_VALUE_TYPE_STRING), nullptr);
  const Text& text = Get<FL_VALUE_TYPE_STRING>(value);
  return text ? text->c_str() : nullptr;
}

size_t fl_value_get_length(FlValue* value) {
  g_return_val_if_fail(value != nullptr, 0);
  const std::optional<size_t> length = std::visit(Length(), value->data);
  g_return_val_if_fail(length.has_value(), 0);
  return *length;
}

const uint8_t* fl_value_get_uint8_list(FlValue* value) {
  g_return_val_if_fail(Is(value, FL_VALUE_TYPE_UINT8_LIST), nullptr);
  return GetTypedList<FL_VALUE_TYPE_UINT8_LIST>(value);
}

const int32_t* fl_value_get_int32_list(FlValue* value) {
  g_return_val_if_fail(Is(value, FL_VALUE_TYPE_INT32_LIST), nullptr);
  return GetTypedList<FL_VALUE_TYPE_INT32_LIST>(value);
}

const int64_t* fl_value_get_int64_list(FlValue* value) {
  g_return_val_if_fail(Is(value, FL_VALUE_TYPE_INT64_LIST), nullptr);
  return GetTypedList<FL_VALUE_TYPE_INT64_LIST>(value);
}

const float* fl_value_get_float32_list(FlValue* value) {
  g_return_val_if_fail(Is(value, FL_VALUE_TYPE_FLOAT32_LIST), nullptr);
  return GetTypedList<FL_VALUE_TYPE_FLOAT32_LIST>(value);
}

const double* fl_value_get_float_list(FlValue* value) {
  g_return_val_if_fail(Is(value, FL_VALUE_TYPE_FLOAT_LIST), nullptr);
  return GetTypedList<FL_VALUE_TYPE_FLOAT_LIST>(value);
}

int fl_value_get_custom_type(FlValue* value) {
  g_return_val_if_fail(Is(value, FL_VALUE_TYPE_CUSTOM), -1);
  return Get<FL_VALUE_TYPE_CUSTOM>(value).type;
}

gconstpointer fl_value_get_custom_value(FlValue* value) {
  g_return_val_if_fail(Is(value, FL_VALUE_TYPE_CUSTOM), nullptr);
  return Get<FL_VALUE_TYPE_CUSTOM>(value).value;
}

GObject* fl_value_get_custom_value_object(FlValue* value) {
  g_return_val_if_fail(Is(value, FL_VALUE_TYPE_CUSTOM), nullptr);
  return G_OBJECT(const_cast<gpointer>(Get<FL_VALUE_TYPE_CUSTOM>(value).value));
}

// An index out of range is undefined in the SDK; here it ends the process, so
// that development finds it.
FlValue* fl_value_get_list_value(FlValue* value, size_t index) {
  g_return_val_if_fail(Is(value, FL_VALUE_TYPE_LIST), nullptr);
  const List& list = Get<FL_VALUE_TYPE_LIST>(value);
  g_assert(index < list.size());
  return list[index].get();
}

FlValue* fl_value_get_map_key(FlValue* value, size_t index) {
  g_return_val_if_fail(Is(value, FL_VALUE_TYPE_MAP), nullptr);
  const Map& map = Get<FL_VALUE_TYPE_MAP>(value);
  g_assert(index < map.size());
  return map[index].first.get();
}

FlValue* fl_value_get_map_value(FlValue* value, size_t index) {
  g_return_val_if_fail(Is(value, FL_VALUE_TYPE_MAP), nullptr);
  const Map& map = Get<FL_VALUE_TYPE_MAP>(value);
  g_assert(index < map.size());
  return map[index].second.get();
}

FlValue* fl_value_lookup(FlValue* value, FlValue* key) {
  g_return_val_if_fail(Is(value, FL_VALUE_TYPE_MAP), nullptr);
  g_return_val_if_fail(key != nullptr, nullptr);
  const Map::value_type* entry = FindEntry(value, key);
  return entry != nullptr ? entry->second.get() : nullptr;
}

FlValue* fl_value_lookup_string(FlValue* value, const gchar* key) {
  g_return_val_if_fail(value != nullptr, nullptr);
  g_autoptr(FlValue) string_key = fl_value_new_string(key);
  return fl_value_lookup(value, string_key);
}

void fl_value_append(FlValue* value, FlValue* child) {
  g_return_if_fail(Is(value, FL_VALUE_TYPE_LIST));
  g_return_if_fail(child != nullptr);
  fl_value_append_take(value, fl_value_ref(child));
}

void fl_value_append_take(FlValue* value, FlValue* child) {
  g_return_if_fail(Is(value, FL_VALUE_TYPE_LIST));
  g_return_if_fail(child != nullptr);
  Get<FL_VALUE_TYPE_LIST>(value).emplace_back(child);
}

void fl_value_set(FlValue* value, FlValue* key, FlValue* child_value) {
  g_return_if_fail(Is(value, FL_VALUE_TYPE_MAP));
  g_return_if_fail(key != nullptr);
  g_return_if_fail(child_value != nullptr);
  fl_value_set_take(value, fl_value_ref(key), fl_value_ref(child_value));
}

void fl_value_set_take(FlValue* value, FlValue* key, FlValue* child_value) {
  g_return_if_fail(Is(value, FL_VALUE_TYPE_MAP));
  g_return_if_fail(key != nullptr);
  g_return_if_fail(child_value != nullptr);
  SetEntry(value, ValuePtr(key), ValuePtr(child_value));
}

void fl_value_set_string(FlValue* value, const gchar* key,
                         FlValue* child_value) {
  g_return_if_fail(Is(value, FL_VALUE_TYPE_MAP));
  g_return_if_fail(key != nullptr);
  g_return_if_fail(child_value != nullptr);
  fl_value_set_string_take(value, key, fl_value_ref(child_value));
}

void fl_value_set_string_take(FlValue* value, const gchar* key,
                              FlValue* child_value) {
  g_return_if_fail(Is(value, FL_VALUE_TYPE_MAP));
  g_return_if_fail(key != nullptr);
  g_return_if_fail(child_value != nullptr);
  fl_value_set_take(value, fl_value_new_string(key), child_value);
}

bool fl_value_equal(FlValue* a, FlValue* b) {
  g_return_val_if_fail(a != nullptr, false);
  g_return_val_if_fail(b != nullptr, false);
  if (a->data.index() != b->data.index()) {
    return false;
  }
  return std::visit(Equal{a, b}, a->data);
}

gchar* fl_value_to_string(FlValue* value) {
  GString* text = g_string_new(nullptr);
  std::visit(Printer(text), value->data);
  return g_string_free(text, FALSE);
}
