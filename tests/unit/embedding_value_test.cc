#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tests/unit/embedding_test_util.h"

namespace {

FlValue* NewMap(std::initializer_list<std::pair<const char*, int>> entries) {
  FlValue* map = fl_value_new_map();
  for (const auto& [key, value] : entries) {
    fl_value_set_string_take(map, key, fl_value_new_int(value));
  }
  return map;
}

// One value of each type, to try readers on.
std::vector<FlValue*> NewOneOfEachType() {
  const int32_t int32 = 1;
  const int64_t int64 = 1;
  const float float32 = 1;
  const double float64 = 1;
  const uint8_t uint8 = 1;
  return {fl_value_new_null(),
          fl_value_new_bool(true),
          fl_value_new_int(1),
          fl_value_new_float(1),
          fl_value_new_string("1"),
          fl_value_new_uint8_list(&uint8, 1),
          fl_value_new_int32_list(&int32, 1),
          fl_value_new_int64_list(&int64, 1),
          fl_value_new_float_list(&float64, 1),
          fl_value_new_list(),
          fl_value_new_map(),
          fl_value_new_float32_list(&float32, 1),
          fl_value_new_custom(128, nullptr, nullptr)};
}

// Expects `read` to give `neutral` and a programming error for null and for
// every type but `types`.
template <typename Result>
void ExpectReads(const std::string& function, Result (*read)(FlValue*),
                 Result neutral, std::initializer_list<FlValueType> types) {
  EXPECT_TRUE(IsProgrammingError(function, [&] {
    EXPECT_EQ(read(nullptr), neutral) << function;
  })) << function;
  for (FlValue* value : NewOneOfEachType()) {
    bool fits = std::find(types.begin(), types.end(),
                          fl_value_get_type(value)) != types.end();
    bool refused = IsProgrammingError(function, [&] {
      Result result = read(value);
      EXPECT_TRUE(fits || result == neutral) << function;
    });
    EXPECT_EQ(refused, !fits) << function << " of " << ToText(value);
    fl_value_unref(value);
  }
}

}  // namespace

TEST(FlValue, KnowsItsType) {
  int type = FL_VALUE_TYPE_NULL;
  for (FlValue* value : NewOneOfEachType()) {
    EXPECT_EQ(fl_value_get_type(value), type++);
    fl_value_unref(value);
  }
  EXPECT_EQ(type, FL_VALUE_TYPE_CUSTOM + 1);
  EXPECT_TRUE(IsProgrammingError("fl_value_get_type", [] {
    EXPECT_EQ(fl_value_get_type(nullptr), FL_VALUE_TYPE_NULL);
  }));
}

TEST(FlValue, ReadsItsOwnTypeOnly) {
  ExpectReads<bool>("fl_value_get_bool", fl_value_get_bool, false,
                    {FL_VALUE_TYPE_BOOL});
  ExpectReads<int64_t>("fl_value_get_int", fl_value_get_int, 0,
                       {FL_VALUE_TYPE_INT});
  ExpectReads<double>("fl_value_get_float", fl_value_get_float, 0.0,
                      {FL_VALUE_TYPE_FLOAT});
  ExpectReads<const gchar*>("fl_value_get_string", fl_value_get_string, nullptr,
                            {FL_VALUE_TYPE_STRING});
  ExpectReads<const uint8_t*>("fl_value_get_uint8_list",
                              fl_value_get_uint8_list, nullptr,
                              {FL_VALUE_TYPE_UINT8_LIST});
  ExpectReads<const int32_t*>("fl_value_get_int32_list",
                              fl_value_get_int32_list, nullptr,
                              {FL_VALUE_TYPE_INT32_LIST});
  ExpectReads<const int64_t*>("fl_value_get_int64_list",
                              fl_value_get_int64_list, nullptr,
                              {FL_VALUE_TYPE_INT64_LIST});
  ExpectReads<const float*>("fl_value_get_float32_list",
                            fl_value_get_float32_list, nullptr,
                            {FL_VALUE_TYPE_FLOAT32_LIST});
  ExpectReads<const double*>("fl_value_get_float_list", fl_value_get_float_list,
                             nullptr, {FL_VALUE_TYPE_FLOAT_LIST});
  ExpectReads<gconstpointer>("fl_value_get_custom_value",
                             fl_value_get_custom_value, nullptr,
                             {FL_VALUE_TYPE_CUSTOM});
}

TEST(FlValue, HasALengthIfAListOrMap) {
  ExpectReads<size_t>(
      "fl_value_get_length", fl_value_get_length, 0,
      {FL_VALUE_TYPE_UINT8_LIST, FL_VALUE_TYPE_INT32_LIST,
       FL_VALUE_TYPE_INT64_LIST, FL_VALUE_TYPE_FLOAT32_LIST,
       FL_VALUE_TYPE_FLOAT_LIST, FL_VALUE_TYPE_LIST, FL_VALUE_TYPE_MAP});
}

TEST(FlValue, GivesBackScalars) {
  g_autoptr(FlValue) yes = fl_value_new_bool(true);
  EXPECT_TRUE(fl_value_get_bool(yes));
  g_autoptr(FlValue) lowest =
      fl_value_new_int(std::numeric_limits<int64_t>::min());
  EXPECT_EQ(fl_value_get_int(lowest), std::numeric_limits<int64_t>::min());
  g_autoptr(FlValue) half = fl_value_new_float(0.5);
  EXPECT_EQ(fl_value_get_float(half), 0.5);
}

TEST(FlValue, EndsStringsAtTheFirstNul) {
  g_autoptr(FlValue) cut = fl_value_new_string_sized("ab\0cd", 5);
  EXPECT_STREQ(fl_value_get_string(cut), "ab");
  g_autoptr(FlValue) sized = fl_value_new_string_sized("abcd", 3);
  EXPECT_STREQ(fl_value_get_string(sized), "abc");
  g_autoptr(FlValue) nothing = fl_value_new_string_sized(nullptr, 0);
  EXPECT_STREQ(fl_value_get_string(nothing), "");
}

TEST(FlValue, MakesAStringWithoutATextFromNull) {
  LogCapture log;
  g_autoptr(FlValue) value = fl_value_new_string(nullptr);
  EXPECT_EQ(fl_value_get_type(value), FL_VALUE_TYPE_STRING);
  EXPECT_EQ(fl_value_get_string(value), nullptr);
  EXPECT_EQ(log.Count(G_LOG_LEVEL_MASK), 0u);
}

TEST(FlValue, CopiesTypedLists) {
  int32_t int32[] = {1, -1};
  g_autoptr(FlValue) int32_list = fl_value_new_int32_list(int32, 2);
  int64_t int64[] = {2, std::numeric_limits<int64_t>::max()};
  g_autoptr(FlValue) int64_list = fl_value_new_int64_list(int64, 2);
  float float32[] = {0.5F, -0.5F};
  g_autoptr(FlValue) float32_list = fl_value_new_float32_list(float32, 2);
  double float64[] = {0.25, -0.25};
  g_autoptr(FlValue) float64_list = fl_value_new_float_list(float64, 2);
  g_autoptr(GBytes) bytes = FromHex("de ad");
  g_autoptr(FlValue) uint8_list = fl_value_new_uint8_list_from_bytes(bytes);
  int32[1] = 0;
  int64[1] = 0;
  float32[1] = 0;
  float64[1] = 0;
  EXPECT_EQ(ToText(int32_list), "[1, -1]");
  EXPECT_EQ(ToText(int64_list), "[2, 9223372036854775807]");
  EXPECT_EQ(ToText(float32_list), "[0.5, -0.5]");
  EXPECT_EQ(ToText(float64_list), "[0.25, -0.25]");
  EXPECT_EQ(ToText(uint8_list), "[222, 173]");
  EXPECT_EQ(fl_value_get_int32_list(int32_list)[1], -1);
  EXPECT_EQ(fl_value_get_int64_list(int64_list)[0], 2);
  EXPECT_EQ(fl_value_get_float32_list(float32_list)[1], -0.5F);
  EXPECT_EQ(fl_value_get_float_list(float64_list)[1], -0.25);
  EXPECT_EQ(fl_value_get_uint8_list(uint8_list)[1], 0xad);
  EXPECT_EQ(fl_value_get_length(uint8_list), 2u);
}

TEST(FlValue, HasNoDataIfAnEmptyUint8List) {
  LogCapture log;
  g_autoptr(FlValue) empty = fl_value_new_uint8_list(nullptr, 0);
  EXPECT_EQ(fl_value_get_uint8_list(empty), nullptr);
  EXPECT_EQ(fl_value_get_length(empty), 0u);
  EXPECT_EQ(log.Count(G_LOG_LEVEL_MASK), 0u);
}

TEST(FlValue, MakesAListFromStrings) {
  const gchar* strings[] = {"a", "", "c", nullptr};
  g_autoptr(FlValue) list = fl_value_new_list_from_strv(strings);
  ASSERT_EQ(fl_value_get_length(list), 3u);
  EXPECT_STREQ(fl_value_get_string(fl_value_get_list_value(list, 2)), "c");
}

TEST(FlValue, RunsTheNotifyOfACustomValueWithItsLastReference) {
  int notified = 0;
  FlValue* value = fl_value_new_custom(
      128, &notified, [](gpointer data) { ++*static_cast<int*>(data); });
  EXPECT_EQ(fl_value_get_custom_type(value), 128);
  EXPECT_EQ(fl_value_get_custom_value(value), &notified);
  EXPECT_EQ(fl_value_ref(value), value);
  fl_value_unref(value);
  EXPECT_EQ(notified, 0);
  fl_value_unref(value);
  EXPECT_EQ(notified, 1);
}

TEST(FlValue, ReferencesTheObjectOfACustomValue) {
  GObject* object = G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr));
  g_object_add_weak_pointer(object, reinterpret_cast<gpointer*>(&object));
  FlValue* shared = fl_value_new_custom_object(129, object);
  FlValue* taken = fl_value_new_custom_object_take(130, object);
  EXPECT_EQ(fl_value_get_custom_value_object(shared), object);
  EXPECT_EQ(fl_value_get_custom_type(taken), 130);
  fl_value_unref(taken);
  EXPECT_NE(object, nullptr);
  fl_value_unref(shared);
  EXPECT_EQ(object, nullptr);
}

TEST(FlValue, RefusesNullForItsReferenceCount) {
  EXPECT_TRUE(IsProgrammingError(
      "fl_value_ref", [] { EXPECT_EQ(fl_value_ref(nullptr), nullptr); }));
  EXPECT_TRUE(
      IsProgrammingError("fl_value_unref", [] { fl_value_unref(nullptr); }));
}

TEST(FlValue, LooksUpKeys) {
  LogCapture log;
  g_autoptr(FlValue) map = NewMap({{"a", 1}, {"b", 2}});
  g_autoptr(FlValue) key = fl_value_new_string("b");
  EXPECT_EQ(fl_value_get_int(fl_value_lookup(map, key)), 2);
  EXPECT_EQ(fl_value_get_int(fl_value_lookup_string(map, "a")), 1);
  EXPECT_EQ(fl_value_lookup_string(map, "c"), nullptr);
  fl_value_set_string_take(map, "null", fl_value_new_null());
  EXPECT_EQ(fl_value_get_type(fl_value_lookup_string(map, "null")),
            FL_VALUE_TYPE_NULL);
  EXPECT_EQ(log.Count(G_LOG_LEVEL_MASK), 0u);
}

TEST(FlValue, LooksUpKeysOfAnyType) {
  g_autoptr(FlValue) map = fl_value_new_map();
  fl_value_set_take(map, fl_value_new_int(1), fl_value_new_string("int"));
  fl_value_set_take(map, NewMap({{"a", 1}, {"b", 2}}),
                    fl_value_new_string("map"));
  g_autoptr(FlValue) float_key = fl_value_new_float(1.0);
  EXPECT_EQ(fl_value_lookup(map, float_key), nullptr);
  g_autoptr(FlValue) map_key = NewMap({{"b", 2}, {"a", 1}});
  EXPECT_EQ(ToText(fl_value_lookup(map, map_key)), "map");
}

TEST(FlValue, LooksUpInMapsOnly) {
  g_autoptr(FlValue) list = fl_value_new_list();
  g_autoptr(FlValue) key = fl_value_new_string("a");
  for (FlValue* value : {list, static_cast<FlValue*>(nullptr)}) {
    EXPECT_TRUE(IsProgrammingError("fl_value_lookup(", [&] {
      EXPECT_EQ(fl_value_lookup(value, key), nullptr);
    }));
  }
  // Null is reported by the function that got it, another type by the lookup.
  EXPECT_TRUE(IsProgrammingError("fl_value_lookup_string(", [] {
    EXPECT_EQ(fl_value_lookup_string(nullptr, "a"), nullptr);
  }));
  EXPECT_TRUE(IsProgrammingError("fl_value_lookup(", [&] {
    EXPECT_EQ(fl_value_lookup_string(list, "a"), nullptr);
  }));
}

TEST(FlValue, ReplacesExistingKeysInPlace) {
  g_autoptr(FlValue) map = NewMap({{"a", 1}, {"b", 2}, {"a", 3}});
  EXPECT_EQ(ToText(map), "{a: 3, b: 2}");
  EXPECT_EQ(fl_value_get_length(map), 2u);
  EXPECT_STREQ(fl_value_get_string(fl_value_get_map_key(map, 0)), "a");
  EXPECT_EQ(fl_value_get_int(fl_value_get_map_value(map, 1)), 2);
}

TEST(FlValue, AddsAReferenceUnlessItTakesOne) {
  g_autoptr(FlValue) child = fl_value_new_string("child");
  FlValue* list = fl_value_new_list();
  fl_value_append(list, child);
  fl_value_append_take(list, fl_value_ref(child));
  FlValue* map = fl_value_new_map();
  fl_value_set(map, child, child);
  fl_value_set_string(map, "other", child);
  EXPECT_EQ(fl_value_get_list_value(list, 1), child);
  EXPECT_EQ(fl_value_get_map_value(map, 1), child);
  fl_value_unref(list);
  fl_value_unref(map);
  EXPECT_STREQ(fl_value_get_string(child), "child");
}

TEST(FlValue, StoresAndConsumesNothingOnAWrongContainerOrNull) {
  g_autoptr(FlValue) list = fl_value_new_list();
  g_autoptr(FlValue) map = fl_value_new_map();
  g_autoptr(FlValue) child = fl_value_new_int(1);
  EXPECT_TRUE(IsProgrammingError("fl_value_append(",
                                 [&] { fl_value_append(map, child); }));
  EXPECT_TRUE(IsProgrammingError("fl_value_append_take(",
                                 [&] { fl_value_append_take(map, child); }));
  EXPECT_TRUE(IsProgrammingError("fl_value_append_take(",
                                 [&] { fl_value_append_take(list, nullptr); }));
  EXPECT_TRUE(IsProgrammingError("fl_value_set(",
                                 [&] { fl_value_set(list, child, child); }));
  EXPECT_TRUE(IsProgrammingError(
      "fl_value_set_take(", [&] { fl_value_set_take(list, child, child); }));
  EXPECT_TRUE(IsProgrammingError(
      "fl_value_set_take(", [&] { fl_value_set_take(map, nullptr, child); }));
  EXPECT_TRUE(IsProgrammingError(
      "fl_value_set_take(", [&] { fl_value_set_take(map, child, nullptr); }));
  EXPECT_TRUE(IsProgrammingError("fl_value_set_string", [&] {
    fl_value_set_string_take(map, nullptr, child);
  }));
  EXPECT_TRUE(IsProgrammingError(
      "fl_value_set", [&] { fl_value_set_string_take(list, "a", child); }));
  EXPECT_TRUE(IsProgrammingError(
      "fl_value_set", [&] { fl_value_set_string(map, "a", nullptr); }));
  EXPECT_EQ(fl_value_get_length(list), 0u);
  EXPECT_EQ(fl_value_get_length(map), 0u);
  EXPECT_EQ(fl_value_get_int(child), 1);
}

TEST(FlValue, EqualsAnotherOfTheSameTypeAndContent) {
  const double numbers[] = {1.0, 2.0};
  const double with_nan[] = {1.0, NAN};
  struct Comparison {
    FlValue* a;
    FlValue* b;
    bool equal;
  };
  const Comparison comparisons[] = {
      {fl_value_new_null(), fl_value_new_null(), true},
      {fl_value_new_bool(true), fl_value_new_bool(true), true},
      {fl_value_new_bool(true), fl_value_new_bool(false), false},
      {fl_value_new_int(1), fl_value_new_int(1), true},
      {fl_value_new_int(1), fl_value_new_int(2), false},
      {fl_value_new_int(1), fl_value_new_float(1.0), false},
      {fl_value_new_float(1.0), fl_value_new_float(1.0), true},
      {fl_value_new_float(NAN), fl_value_new_float(NAN), false},
      {fl_value_new_string("a"), fl_value_new_string("a"), true},
      {fl_value_new_string("a"), fl_value_new_string("b"), false},
      {fl_value_new_float_list(numbers, 2), fl_value_new_float_list(numbers, 2),
       true},
      {fl_value_new_float_list(numbers, 2), fl_value_new_float_list(numbers, 1),
       false},
      {fl_value_new_float_list(with_nan, 2),
       fl_value_new_float_list(with_nan, 2), false},
      {fl_value_new_list(), fl_value_new_list(), true},
      {fl_value_new_list(), fl_value_new_map(), false},
      {NewMap({{"a", 1}, {"b", 2}}), NewMap({{"b", 2}, {"a", 1}}), true},
      {NewMap({{"a", 1}, {"b", 2}}), NewMap({{"a", 1}, {"c", 2}}), false},
      {NewMap({{"a", 1}, {"b", 2}}), NewMap({{"a", 1}, {"b", 3}}), false},
      {NewMap({{"a", 1}}), NewMap({{"a", 1}, {"b", 2}}), false},
      {fl_value_new_custom(128, nullptr, nullptr),
       fl_value_new_custom(128, nullptr, nullptr), false},
  };
  for (const Comparison& comparison : comparisons) {
    EXPECT_EQ(fl_value_equal(comparison.a, comparison.b), comparison.equal)
        << ToText(comparison.a) << " and " << ToText(comparison.b);
    fl_value_unref(comparison.a);
    fl_value_unref(comparison.b);
  }
}

TEST(FlValue, ComparesListsByPosition) {
  const gchar* ab[] = {"a", "b", nullptr};
  const gchar* ba[] = {"b", "a", nullptr};
  g_autoptr(FlValue) a = fl_value_new_list_from_strv(ab);
  g_autoptr(FlValue) b = fl_value_new_list_from_strv(ba);
  EXPECT_TRUE(fl_value_equal(a, a));
  EXPECT_FALSE(fl_value_equal(a, b));
}

TEST(FlValue, ComparesNothingWithNull) {
  g_autoptr(FlValue) value = fl_value_new_null();
  EXPECT_TRUE(IsProgrammingError(
      "fl_value_equal", [&] { EXPECT_FALSE(fl_value_equal(value, nullptr)); }));
  EXPECT_TRUE(IsProgrammingError(
      "fl_value_equal", [&] { EXPECT_FALSE(fl_value_equal(nullptr, value)); }));
}

TEST(FlValue, PrintsAsInDart) {
  g_autoptr(FlValue) list = fl_value_new_list();
  fl_value_append_take(list, fl_value_new_null());
  fl_value_append_take(list, fl_value_new_bool(true));
  fl_value_append_take(list, fl_value_new_float(1.5));
  fl_value_append_take(list, fl_value_new_float(2.0));
  fl_value_append_take(list, fl_value_new_string("x"));
  const uint8_t bytes[] = {1, 255};
  fl_value_append_take(list, fl_value_new_uint8_list(bytes, 2));
  fl_value_append_take(list, NewMap({{"a", 3}}));
  EXPECT_EQ(ToText(list), "[null, true, 1.5, 2.0, x, [1, 255], {a: 3}]");
}

TEST(FlValue, PrintsFloatsWithUpToSixteenDecimals) {
  const std::pair<double, const char*> floats[] = {
      {0.0, "0.0"},
      {100.0, "100.0"},
      {-0.5, "-0.5"},
      {1e16, "10000000000000000.0"},
      {3.14, "3.1400000000000001"},
      {1e-16, "0.0000000000000001"},
      {1e-17, "0.0"}};
  for (const auto& [number, text] : floats) {
    g_autoptr(FlValue) value = fl_value_new_float(number);
    EXPECT_EQ(ToText(value), text);
  }
  g_autoptr(FlValue) largest =
      fl_value_new_float(-std::numeric_limits<double>::max());
  EXPECT_EQ(ToText(largest).size(), 1 + 309 + 2u);
}

TEST(FlValue, PrintsEmptyContainersAndCustomValues) {
  g_autoptr(FlValue) list = fl_value_new_list();
  EXPECT_EQ(ToText(list), "[]");
  g_autoptr(FlValue) map = fl_value_new_map();
  EXPECT_EQ(ToText(map), "{}");
  g_autoptr(FlValue) custom = fl_value_new_custom(128, nullptr, nullptr);
  EXPECT_EQ(ToText(custom), "(custom 128)");
}
