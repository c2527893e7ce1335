#ifndef FLUTTER_LINUX_FL_VIEW_H_
#define FLUTTER_LINUX_FL_VIEW_H_

#ifndef FLUTTER_LINUX_INSIDE
#error "Include <flutter_linux/flutter_linux.h> only."
#endif

// A GTK widget in the SDK, opaque here.
typedef struct _FlView FlView;

#endif  // FLUTTER_LINUX_FL_VIEW_H_
