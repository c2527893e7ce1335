#ifndef FLUTTER_LINUX_FL_VALUE_H_
#define FLUTTER_LINUX_FL_VALUE_H_

#ifndef FLUTTER_LINUX_INSIDE
#error "Include <flutter_linux/flutter_linux.h> only."
#endif

// A value of the standard codecs. Reference-counted by a plain int: one thread
// at a time. Not a GObject.
typedef struct _FlValue FlValue;

typedef enum {
  FL_VALUE_TYPE_NULL,
  FL_VALUE_TYPE_BOOL,
  FL_VALUE_TYPE_INT,
  FL_VALUE_TYPE_FLOAT,
  FL_VALUE_TYPE_STRING,
  FL_VALUE_TYPE_UINT8_LIST,
  FL_VALUE_TYPE_INT32_LIST,
  FL_VALUE_TYPE_INT64_LIST,
  FL_VALUE_TYPE_FLOAT_LIST,
  FL_VALUE_TYPE_LIST,
  FL_VALUE_TYPE_MAP,
  FL_VALUE_TYPE_FLOAT32_LIST,
  FL_VALUE_TYPE_CUSTOM,
} FlValueType;

// Constructors copy what they are given; the caller owns the result. Text ends
// at its first NUL and is not checked to be UTF-8. A string made of a null
// pointer has no text; encoding it ends the process.
FlValue* fl_value_new_null(void);
FlValue* fl_value_new_bool(bool value);
FlValue* fl_value_new_int(int64_t value);
FlValue* fl_value_new_float(double value);
FlValue* fl_value_new_string(const gchar* value);
FlValue* fl_value_new_string_sized(const gchar* value, size_t value_length);
FlValue* fl_value_new_uint8_list(const uint8_t* value, size_t value_length);
FlValue* fl_value_new_uint8_list_from_bytes(GBytes* value);
FlValue* fl_value_new_int32_list(const int32_t* value, size_t value_length);
FlValue* fl_value_new_int64_list(const int64_t* value, size_t value_length);
FlValue* fl_value_new_float32_list(const float* value, size_t value_length);
FlValue* fl_value_new_float_list(const double* value, size_t value_length);
FlValue* fl_value_new_list(void);
FlValue* fl_value_new_list_from_strv(const gchar* const* value);
FlValue* fl_value_new_map(void);

// A value of the caller's own, which no standard codec can encode. The notify
// runs with the last reference; the object forms hold a reference, the second
// one the caller's.
FlValue* fl_value_new_custom(int type, gconstpointer value,
                             GDestroyNotify destroy_notify);
FlValue* fl_value_new_custom_object(int type, GObject* object);
FlValue* fl_value_new_custom_object_take(int type, GObject* object);

FlValue* fl_value_ref(FlValue* value);
void fl_value_unref(FlValue* value);

// Readers. Nothing is converted: another type than the reader's is a
// programming error. The length counts elements of a list or map, nothing else
// has one; the data of an empty list is null.
FlValueType fl_value_get_type(FlValue* value);
bool fl_value_get_bool(FlValue* value);
int64_t fl_value_get_int(FlValue* value);
double fl_value_get_float(FlValue* value);
const gchar* fl_value_get_string(FlValue* value);
size_t fl_value_get_length(FlValue* value);
const uint8_t* fl_value_get_uint8_list(FlValue* value);
const int32_t* fl_value_get_int32_list(FlValue* value);
const int64_t* fl_value_get_int64_list(FlValue* value);
const float* fl_value_get_float32_list(FlValue* value);
const double* fl_value_get_float_list(FlValue* value);
int fl_value_get_custom_type(FlValue* value);
gconstpointer fl_value_get_custom_value(FlValue* value);
GObject* fl_value_get_custom_value_object(FlValue* value);

// Elements. The caller keeps `index` below the length.
FlValue* fl_value_get_list_value(FlValue* value, size_t index);
FlValue* fl_value_get_map_key(FlValue* value, size_t index);
FlValue* fl_value_get_map_value(FlValue* value, size_t index);

// The value of a map's key, or null when the key is missing.
FlValue* fl_value_lookup(FlValue* value, FlValue* key);
FlValue* fl_value_lookup_string(FlValue* value, const gchar* key);

// Builders. The take forms consume the caller's references, unless they fail.
// Setting an existing key replaces its entry in place.
void fl_value_append(FlValue* value, FlValue* child);
void fl_value_append_take(FlValue* value, FlValue* child);
void fl_value_set(FlValue* value, FlValue* key, FlValue* child_value);
void fl_value_set_take(FlValue* value, FlValue* key, FlValue* child_value);
void fl_value_set_string(FlValue* value, const gchar* key,
                         FlValue* child_value);
void fl_value_set_string_take(FlValue* value, const gchar* key,
                              FlValue* child_value);

// Types must match, maps may differ in order, custom values are never equal.
bool fl_value_equal(FlValue* a, FlValue* b);

// A text for logs; the caller frees it.
gchar* fl_value_to_string(FlValue* value);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(FlValue, fl_value_unref)

#endif  // FLUTTER_LINUX_FL_VALUE_H_
