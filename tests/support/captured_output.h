// What the code under test says on standard error and through GLib's log.

#ifndef LUMSO_BLUETOOTH_TESTS_SUPPORT_CAPTURED_OUTPUT_H_
#define LUMSO_BLUETOOTH_TESTS_SUPPORT_CAPTURED_OUTPUT_H_

#include <string>
#include <vector>

namespace lumso_test {

// The standard error that the test program was started with, whether or not it
// is captured now.
int OriginalStandardError();

// Redirects the whole process's standard error for its lifetime. The reports of
// the sanitizers still go to the original one.
class CapturedStandardError {
 public:
  CapturedStandardError();
  ~CapturedStandardError();
  CapturedStandardError(const CapturedStandardError&) = delete;
  CapturedStandardError& operator=(const CapturedStandardError&) = delete;

  // Returns what was written since the last time.
  std::string Take();

 private:
  int file_ = -1;
};

// Starts the record of GLib's log, which takes the place of its output. A
// critical message is fatal from then on. May be called again.
void RecordLog();

// Returns the record since the last time, one text per message, in order:
// "level: message", with "domain-level: message" for those with a domain, where
// level is one of error, critical, warning, message, info, debug.
std::vector<std::string> TakeLog();

}  // namespace lumso_test

#endif  // LUMSO_BLUETOOTH_TESTS_SUPPORT_CAPTURED_OUTPUT_H_
