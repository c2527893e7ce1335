// What the fuzz targets share. A target defines LLVMFuzzerTestOneInput(), which
// takes any bytes and ends the process when a promise does not hold. libFuzzer
// drives it, or replay.cc, which runs it on the files of the corpus.

#ifndef LUMSO_BLUETOOTH_TESTS_FUZZ_FUZZ_H_
#define LUMSO_BLUETOOTH_TESTS_FUZZ_FUZZ_H_

#include <glib.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace lumso_fuzz {

// Ends the process unless `holds`.
inline void Check(bool holds, const char* promise) {
  if (holds) return;
  std::fprintf(stderr, "broken: %s\n", promise);
  std::abort();
}

// A GLib log handler that ends the process on a critical message and swallows
// the others: hostile input is worth a warning each time.
inline void EndOnCritical(const gchar*, GLogLevelFlags level,
                          const gchar* message, gpointer) {
  Check((level & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL)) == 0, message);
}

}  // namespace lumso_fuzz

#endif  // LUMSO_BLUETOOTH_TESTS_FUZZ_FUZZ_H_
