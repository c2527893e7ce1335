// A process whose descriptor 0 is free for anybody.

#ifndef LUMSO_BLUETOOTH_TESTS_SUPPORT_WITHOUT_STANDARD_INPUT_H_
#define LUMSO_BLUETOOTH_TESTS_SUPPORT_WITHOUT_STANDARD_INPUT_H_

#include <fcntl.h>
#include <unistd.h>

namespace lumso_test {

// Closes the standard input, as a host may that needs none: whoever asks for a
// descriptor next gets number 0. Puts the input back at its end, by when nobody
// may hold that descriptor any more.
class WithoutStandardInput {
 public:
  WithoutStandardInput() : saved_(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)) {
    close(STDIN_FILENO);
  }
  ~WithoutStandardInput() {
    if (saved_ < 0) return;
    dup2(saved_, STDIN_FILENO);
    close(saved_);
  }
  WithoutStandardInput(const WithoutStandardInput&) = delete;
  WithoutStandardInput& operator=(const WithoutStandardInput&) = delete;

 private:
  const int saved_;
};

}  // namespace lumso_test

#endif  // LUMSO_BLUETOOTH_TESTS_SUPPORT_WITHOUT_STANDARD_INPUT_H_
