// What there is at the other end of the standard streams.

#ifndef LUMSO_BLUETOOTH_DOCTOR_SCREEN_H_
#define LUMSO_BLUETOOTH_DOCTOR_SCREEN_H_

#include "doctor/safe_text.h"

namespace lumso_doctor {

// Opens the null device in place of closed standard streams. To be called
// before anything else opens a descriptor and becomes one of them.
void OpenStandardStreams();

struct Screen {
  bool terminal = false;  // Standard output is one: a person reads.
  bool person = false;    // Types and reads on a terminal.
  bool editing = false;   // The terminal can move its cursor.
  bool colours = false;
  int columns = 80;  // Of the terminal; 80 when it does not say.
};

Screen FindScreen();

// What the other end of `fd` takes: ASCII when it is a terminal and the locale
// that is set is not a UTF-8 one.
Charset CharsetOf(int fd);

}  // namespace lumso_doctor

#endif  // LUMSO_BLUETOOTH_DOCTOR_SCREEN_H_
