// The embedding's header is C as well: this part of the test is a C program.

#include <flutter_linux/flutter_linux.h>

// Called by the C++ part.
char* describe_map_from_c(void);

char* describe_map_from_c(void) {
  g_autoptr(FlValue) map = fl_value_new_map();
  fl_value_set_string_take(map, "answer", fl_value_new_int(42));
  return fl_value_to_string(map);
}
