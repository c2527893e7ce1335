// Finds and loads the plug-in library.

#ifndef LUMSO_BLUETOOTH_HOST_PLUGIN_LIBRARY_H_
#define LUMSO_BLUETOOTH_HOST_PLUGIN_LIBRARY_H_

#include <flutter_linux/flutter_linux.h>

#include <string>

namespace lumso_host {

using RegisterFunction = void (*)(FlPluginRegistrar* registrar);

// Loads the plug-in library `file` for the rest of the process and returns its
// registration function. An empty `file` stands for the library beside the
// executable, or else for wherever the loader finds it. Returns null and sets
// `error` when that fails.
RegisterFunction LoadPlugin(const std::string& file, std::string* error);

}  // namespace lumso_host

#endif  // LUMSO_BLUETOOTH_HOST_PLUGIN_LIBRARY_H_
