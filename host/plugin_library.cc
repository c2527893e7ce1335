#include "host/plugin_library.h"

#include <dlfcn.h>

#include <filesystem>
#include <system_error>

namespace lumso_host {

namespace {

constexpr char kLibraryName[] = "liblumso_bluetooth_plugin.so";
constexpr char kRegisterName[] =
    "lumso_bluetooth_plugin_register_with_registrar";

// Returns what dlopen() shall be given. A slash in it keeps the loader from
// searching for it.
std::string LoaderName(const std::string& file) {
  std::error_code ignored;
  if (!file.empty()) return std::filesystem::absolute(file, ignored).string();
  const auto beside =
      std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path() /
      kLibraryName;
  return std::filesystem::exists(beside, ignored) ? beside.string()
                                                  : kLibraryName;
}

}  // namespace

RegisterFunction LoadPlugin(const std::string& file, std::string* error) {
  // Never closed: a registered type points into the library for good.
  void* library = dlopen(LoaderName(file).c_str(), RTLD_NOW | RTLD_LOCAL);
  void* function = library == nullptr ? nullptr : dlsym(library, kRegisterName);
  if (function == nullptr) *error = dlerror();
  return reinterpret_cast<RegisterFunction>(function);
}

}  // namespace lumso_host
