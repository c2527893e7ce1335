#include "doctor/troubles.h"

namespace lumso_doctor {

const std::vector<TroubleRow>& Troubles() {
  static const std::vector<TroubleRow> rows = {
      {Trouble::kNoAdapter, "no-adapter", "nothing printed",
       "the daemon runs and has no adapter",
       "`bluetoothctl list`; plug the adapter in, load its driver, then start "
       "the application again"},
      {Trouble::kNoBus, "no-bus",
       "`system bus connect failed: Could not connect: No such file or "
       "directory`",
       "no system bus, or not inside this sandbox",
       "start `dbus`; in Flatpak ask for `--system-talk-name=org.bluez`, in a "
       "Snap for the `bluez` interface"},
      {Trouble::kBusRefuses, "bus-refuses",
       "° `system bus connect failed: …` with another reason",
       "the bus does not let this user in, as in a container whose users are "
       "not the machine's, or its address is wrong",
       "run outside, or as a user whom the machine has too; look at "
       "`DBUS_SYSTEM_BUS_ADDRESS`"},
      {Trouble::kBusSilent, "bus-silent",
       "° the application's start never ends, and `bluetoothctl` hangs as well",
       "the system bus does not answer",
       "look at `systemctl status dbus`; start the machine again"},
      {Trouble::kDenied, "denied",
       "`GetManagedObjects failed: … org.freedesktop.DBus.Error.AccessDenied "
       "…`",
       "the bus policy forbids it",
       "Debian's own policy lets every user in: look for a stricter one in "
       "`/etc/dbus-1/system.d`; other distributions may want a local session "
       "or a group"},
      {Trouble::kNoDaemon, "no-daemon",
       "`GetManagedObjects failed: … The name org.bluez was not provided by "
       "any .service files`",
       "no BlueZ daemon",
       "install `bluez`; `systemctl start bluetooth`; start the application "
       "again"},
      {Trouble::kDaemonSkipped, "daemon-skipped",
       "° the start takes 50 s, and half-way comes `GetManagedObjects failed: "
       "…` about a time-out",
       "`bluez` is installed and its service does not start: systemd skips it "
       "while the kernel shows no Bluetooth (`/sys/class/bluetooth`)",
       "plug the adapter in or load its driver, start the application again"},
      {Trouble::kDaemonFails, "daemon-fails",
       "° `GetManagedObjects failed: …`, and `systemctl status bluetooth` says "
       "failed or masked",
       "`bluez` is installed and its service fails, or may not start",
       "read `journalctl -u bluetooth`; `systemctl unmask bluetooth` if it is "
       "masked; `systemctl restart bluetooth`; start the application again"},
      {Trouble::kDaemonHangs, "daemon-hangs",
       "° the start takes 50 s, and half-way comes `GetManagedObjects failed: "
       "Timeout was reached`, although the daemon runs",
       "the daemon hangs",
       "`systemctl restart bluetooth`; start the application again"},
      {Trouble::kAdapterOff, "adapter-off",
       "`StartDiscovery failed: … org.bluez.Error.NotReady …`",
       "the adapter is off",
       "`bluetoothctl power on`; with several adapters `select` its address in "
       "`bluetoothctl` first"},
      {Trouble::kBlocked, "blocked",
       "the same, and `bluetoothctl power on` fails",
       "the adapter's radio is blocked",
       "`rfkill unblock bluetooth`; a hard block is a switch or a key of the "
       "machine"},
      {Trouble::kAgentRefused, "agent-refused",
       "° `RegisterAgent failed: …` with another error",
       "the daemon takes no agent: devices that begin a pairing are not "
       "answered by this application",
       "`systemctl restart bluetooth`; start the application again"},
      {Trouble::kNotKnown, "not-known",
       "`pair: device not known yet (ADDRESS)`",
       "the daemon has not seen the device lately; it forgets one that is not "
       "paired about 30 s after its last sign",
       "start discovery, wait for its device event, then pair"},
      {Trouble::kBadAddress, "bad-address", "`bad BT address 'TEXT'`",
       "not six hexadecimal pairs joined by colons",
       "pass the address of a device map"},
      {Trouble::kNoSockets, "no-sockets",
       "`socket() failed: Address family not supported by protocol`",
       "no Bluetooth in this kernel or network namespace: a container, or a "
       "sandbox with a network of its own",
       "run outside, or share the host's network (`--network host`, Flatpak "
       "`--share=network` with `--allow=bluetooth`)"},
      {Trouble::kSocketsForbidden, "sockets-forbidden",
       "° `socket() failed: Permission denied` or `Operation not permitted`",
       "a security profile forbids Bluetooth sockets",
       "allow them in the profile of the sandbox, of AppArmor or of SELinux"},
      {Trouble::kNoRfcomm, "no-rfcomm",
       "`socket() failed: Protocol not supported`",
       "the kernel module is missing", "`modprobe rfcomm`"},
      {Trouble::kRefused, "refused",
       "`RFCOMM connect to ADDRESS failed: Connection refused`",
       "nothing listens on channel 1 there",
       "start the service on the device; channel 1 is not negotiable here"},
      {Trouble::kHostDown, "host-down", "`… failed: Host is down`",
       "the device is off, out of range, or not connectable",
       "bring it near and wake it"},
      {Trouble::kNoRoute, "no-route", "`… failed: No route to host`",
       "this adapter is off", "`bluetoothctl power on`"},
      {Trouble::kNotAuthenticated, "not-authenticated",
       "`… failed: Permission denied`, or ° `… failed: Invalid exchange`",
       "the device refused to authenticate; often one side still holds a bond "
       "that the other removed",
       "remove it on both, and pair again"},
      {Trouble::kNoAnswer, "no-answer",
       "`… failed: Connection timed out` or `… failed: Operation now in "
       "progress`, after half a minute",
       "the device did not answer at all", "bring it near and wake it"},
      {Trouble::kBusy, "busy", "`… failed: Device or resource busy`",
       "channel 1 of that device is open already, in this or another program: "
       "it takes one connection",
       "close the other one"},
  };
  return rows;
}

}  // namespace lumso_doctor
