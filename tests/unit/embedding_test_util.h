// What the cases about the embedding share. They use its public functions only,
// so they hold for the SDK's library as well.

#ifndef LUMSO_BLUETOOTH_TESTS_UNIT_EMBEDDING_TEST_UTIL_H_
#define LUMSO_BLUETOOTH_TESTS_UNIT_EMBEDDING_TEST_UTIL_H_

#include <flutter_linux/flutter_linux.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

// Collects what is logged while it lives, instead of writing it.
class LogCapture {
 public:
  LogCapture() { g_log_set_default_handler(Collect, this); }
  ~LogCapture() { g_log_set_default_handler(g_log_default_handler, nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // How many entries of a level came from anywhere, or without a log domain.
  size_t Count(GLogLevelFlags level) const {
    return std::count_if(
        entries_.begin(), entries_.end(),
        [=](const Entry& entry) { return (entry.level & level) != 0; });
  }
  size_t CountWithoutDomain(GLogLevelFlags level) const {
    return std::count_if(
        entries_.begin(), entries_.end(), [=](const Entry& entry) {
          return (entry.level & level) != 0 && !entry.has_domain;
        });
  }
  bool Contains(const std::string& text) const {
    return std::any_of(entries_.begin(), entries_.end(),
                       [&](const Entry& entry) {
                         return entry.text.find(text) != std::string::npos;
                       });
  }

 private:
  struct Entry {
    bool has_domain;
    GLogLevelFlags level;
    std::string text;
  };

  static void Collect(const gchar* domain, GLogLevelFlags level,
                      const gchar* text, gpointer self) {
    static_cast<LogCapture*>(self)->entries_.push_back(
        {domain != nullptr, level, text});
  }

  std::vector<Entry> entries_;
};

// True if running `action` logs exactly one entry: the failed assertion of a
// programming error, named after `function`.
template <typename Action>
bool IsProgrammingError(const std::string& function, Action action) {
  LogCapture log;
  action();
  return log.CountWithoutDomain(G_LOG_LEVEL_CRITICAL) == 1 &&
         log.Count(G_LOG_LEVEL_MASK) == 1 && log.Contains(function) &&
         log.Contains(": assertion '");
}

// Bytes from text as in "07 02 68 69", owned by the caller.
inline GBytes* FromHex(const std::string& hex) {
  std::istringstream words(hex);
  std::vector<uint8_t> bytes;
  for (std::string word; words >> word;) {
    bytes.push_back(static_cast<uint8_t>(std::stoul(word, nullptr, 16)));
  }
  return g_bytes_new(bytes.data(), bytes.size());
}

// Text as in "07 02 68 69"; "empty" for null or no bytes.
inline std::string ToHex(GBytes* bytes) {
  gsize size = 0;
  const auto* data =
      bytes != nullptr
          ? static_cast<const uint8_t*>(g_bytes_get_data(bytes, &size))
          : nullptr;
  std::string hex;
  for (gsize i = 0; i < size; i++) {
    char word[4];
    snprintf(word, sizeof(word), i == 0 ? "%02x" : " %02x", data[i]);
    hex += word;
  }
  return size > 0 ? hex : "empty";
}

// The text of a value, as fl_value_to_string gives it.
inline std::string ToText(FlValue* value) {
  g_autofree gchar* text = fl_value_to_string(value);
  return text;
}

#endif  // LUMSO_BLUETOOTH_TESTS_UNIT_EMBEDDING_TEST_UTIL_H_
