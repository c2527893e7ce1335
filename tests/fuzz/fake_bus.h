// A bus with the BlueZ daemon on it, made inside the program: what the library
// asks of GDBus ends up here, and so do the demands that GDBus makes of its
// callers. Calls may come from any thread, everything else from the main one.

#ifndef LUMSO_BLUETOOTH_TESTS_FUZZ_FAKE_BUS_H_
#define LUMSO_BLUETOOTH_TESTS_FUZZ_FAKE_BUS_H_

#include <gio/gio.h>

#include <string_view>

#include "src/bluez_client.h"

namespace lumso_fuzz {

inline constexpr char kDeviceInterface[] = "org.bluez.Device1";
inline constexpr char kDeviceAddress[] = "00:11:22:33:44:55";
inline constexpr char kDevicePath[] = "/org/bluez/hci0/dev_00_11_22_33_44_55";

// Whether there is a bus at all, and again the first answers of the daemon: one
// adapter that is on and one bonded device.
void ResetBus(bool present);

// Whether the daemon's answer to a method is one that anybody reads, and then
// that answer.
bool HasReply(std::string_view method);
lumso_bluetooth::GVariantPtr& Reply(std::string_view method);

// Whether the library watches a signal, and then its delivery.
bool WatchesSignal(std::string_view signal);
void EmitSignal(std::string_view signal, const char* path, GVariant* body);

// Returns the value that `text` says, or null when it says none of that type.
lumso_bluetooth::GVariantPtr ParseText(const char* type, std::string_view text);

}  // namespace lumso_fuzz

#endif  // LUMSO_BLUETOOTH_TESTS_FUZZ_FAKE_BUS_H_
