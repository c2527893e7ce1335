// The sanitizers' options, the same under ctest and in a debugger. Their
// variables in the environment still come first. Without a sanitizer nobody
// calls these.

extern "C" {

__attribute__((visibility("default"))) const char* __asan_default_options() {
  return "detect_stack_use_after_return=1:strict_string_checks=1:"
         "check_initialization_order=1";
}

__attribute__((visibility("default"))) const char* __ubsan_default_options() {
  return "print_stacktrace=1";
}

// By default the process waits a second at its end for what threads still do;
// ours have ended by then, and every case is a process.
__attribute__((visibility("default"))) const char* __tsan_default_options() {
  return "atexit_sleep_ms=50:suppressions='" LUMSO_TSAN_SUPPRESSIONS "'";
}

}  // extern "C"
