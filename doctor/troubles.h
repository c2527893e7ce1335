// What can be wrong with Bluetooth on a machine and be seen without an
// application: rows of doc/troubleshooting.md, which a test compares.

#ifndef LUMSO_BLUETOOTH_DOCTOR_TROUBLES_H_
#define LUMSO_BLUETOOTH_DOCTOR_TROUBLES_H_

namespace lumso_doctor {

// A name for programs and the three cells of a row, in Markdown.
struct Trouble {
  const char* name;
  const char* see;
  const char* means;
  const char* remedy;
};

inline constexpr Trouble kNoAdapter = {
    "no-adapter", "nothing printed", "the daemon runs and has no adapter",
    "`bluetoothctl list`; plug the adapter in, load its driver, then start the "
    "application again"};

inline constexpr Trouble kAdapterWithheld = {
    "adapter-withheld", "the same, and `/sys/class/bluetooth` has an `hci0`",
    "the kernel has a controller that the daemon does not get: it did not "
    "start, for want of firmware, or another program holds it as a user "
    "channel",
    "as root look at `dmesg` for bluetooth and firmware; end the program that "
    "holds it; then, as root, `systemctl restart bluetooth`"};

inline constexpr Trouble kNoBus = {
    "no-bus",
    "`system bus connect failed: Could not connect: No such file or directory`",
    "no system bus here",
    "as root start `dbus`; in a container mount the machine's `/run/dbus`"};

inline constexpr Trouble kBusWithheld = {
    "bus-withheld",
    "the same in a Flatpak or a Snap, there ° also with `Permission denied` or "
    "`GetManagedObjects failed: … AccessDenied …`",
    "the sandbox keeps the bus, or `org.bluez` on it, from the application",
    "in Flatpak ask for `--system-talk-name=org.bluez`; a Snap plugs `bluez`, "
    "and as root `snap connect NAME:bluez`"};

inline constexpr Trouble kBusRefuses = {
    "bus-refuses", "° `system bus connect failed: …` with another reason",
    "the bus does not let this user in, as in a container whose users are not "
    "the machine's, or its address is wrong",
    "run outside, or as a user whom the machine has too; look at "
    "`DBUS_SYSTEM_BUS_ADDRESS`"};

inline constexpr Trouble kBusSilent = {
    "bus-silent",
    "° the application's start never ends, and `bluetoothctl` hangs as well",
    "the system bus does not answer",
    "look at `systemctl status dbus`; start the machine again"};

inline constexpr Trouble kDenied = {
    "denied",
    "`GetManagedObjects failed: … org.freedesktop.DBus.Error.AccessDenied …`",
    "the bus policy forbids it",
    "Debian's own policy lets every user in: look for a stricter one in "
    "`/etc/dbus-1/system.d`, to be changed as root; other distributions may "
    "want a local session or a group"};

inline constexpr Trouble kNoDaemon = {
    "no-daemon",
    "`GetManagedObjects failed: … The name org.bluez was not provided by any "
    ".service files`",
    "no BlueZ daemon",
    "as root install `bluez` and `systemctl start bluetooth`; start the "
    "application again"};

inline constexpr Trouble kDaemonDisabled = {
    "daemon-disabled", "the same, although `bluez` is installed",
    "its service does not run, and nothing starts it: it is disabled",
    "as root `systemctl enable --now bluetooth`; start the application again"};

inline constexpr Trouble kNoSystemd = {
    "no-systemd",
    "° `GetManagedObjects failed: …`, and there is no systemd, as in a "
    "container with a bus of its own",
    "`bluez` is installed, and here nothing starts its daemon",
    "as root start it as this system starts services, such as `service "
    "bluetooth start`; in a container mount the machine's `/run/dbus` instead"};

inline constexpr Trouble kDaemonUnseen = {
    "daemon-unseen", "° `GetManagedObjects failed: …` in a Flatpak or a Snap",
    "the daemon does not run, and the sandbox does not show why",
    "outside it `systemctl status bluetooth`, or run the doctor there"};

inline constexpr Trouble kDaemonSkipped = {
    "daemon-skipped",
    "° the start takes 50 s, and half-way comes `GetManagedObjects failed: …` "
    "about a time-out",
    "`bluez` is installed and its service does not start: systemd skips it "
    "while the kernel shows no Bluetooth (`/sys/class/bluetooth`)",
    "plug the adapter in or load its driver, start the application again"};

inline constexpr Trouble kDaemonFails = {
    "daemon-fails",
    "° `GetManagedObjects failed: …`, and `systemctl status bluetooth` says "
    "failed or masked",
    "`bluez` is installed and its service fails, or may not start",
    "read `journalctl -u bluetooth`; as root `systemctl unmask bluetooth` if "
    "it is masked, then `systemctl restart bluetooth`; start the application "
    "again"};

inline constexpr Trouble kUnitBroken = {
    "unit-broken", "° the same, and it says bad-setting or error",
    "systemd cannot read the service's file, or a drop-in beside it",
    "`systemd-analyze verify bluetooth.service`; as root mend what it names "
    "(`systemctl cat bluetooth` shows all), `systemctl daemon-reload` and "
    "`systemctl restart bluetooth`"};

inline constexpr Trouble kDaemonHangs = {
    "daemon-hangs",
    "° the start takes 50 s, and half-way comes `GetManagedObjects failed: "
    "Timeout was reached`, although the daemon runs",
    "the daemon hangs",
    "as root `systemctl restart bluetooth`; start the application again"};

inline constexpr Trouble kDaemonSlow = {
    "daemon-slow",
    "the start, and each request about the adapter, devices or bonds, takes "
    "seconds",
    "the daemon answers slowly",
    "look at what it does: `top`, `journalctl -u bluetooth`; as root "
    "`systemctl restart bluetooth`"};

inline constexpr Trouble kAdapterOff = {
    "adapter-off", "`StartDiscovery failed: … org.bluez.Error.NotReady …`",
    "the adapter is off",
    "`bluetoothctl power on`; with several adapters `select` its address in "
    "`bluetoothctl` first"};

inline constexpr Trouble kBlocked = {
    "blocked", "the same, and `bluetoothctl power on` fails",
    "the adapter's radio is blocked",
    "`rfkill unblock bluetooth`, where it may not as root; a hard block is a "
    "switch or a key of the machine"};

inline constexpr Trouble kAgentRefused = {
    "agent-refused", "° `RegisterAgent failed: …` with another error",
    "the daemon takes no agent: devices that begin a pairing are not answered "
    "by this application",
    "as root `systemctl restart bluetooth`; start the application again"};

inline constexpr Trouble kNotKnown = {
    "not-known", "`pair: device not known yet (ADDRESS)`",
    "the adapter that is taken has not seen the device lately; the daemon "
    "forgets one that is not paired about 30 s after its last sign",
    "start discovery, wait for its device event, then pair"};

inline constexpr Trouble kBadAddress = {
    "bad-address", "`bad BT address 'TEXT'`",
    "not six hexadecimal pairs joined by colons",
    "pass the address of a device map"};

inline constexpr Trouble kOwnAddress = {
    "own-address",
    "`… failed: No route to host` or `Host is down`, and the address is that "
    "of `bluetoothctl list`",
    "the address is an adapter of this machine",
    "pass the address of the device"};

inline constexpr Trouble kLowEnergyOnly = {
    "low-energy-only",
    "° `… failed: Host is down` of a device that discovery finds, such as a "
    "tracker or a sensor",
    "it has Low Energy alone, and so no RFCOMM, whatever its address looks "
    "like",
    "nothing helps here; look for a device that has Bluetooth Classic"};

inline constexpr Trouble kNoBluetooth = {
    "no-bluetooth",
    "`socket() failed: Address family not supported by protocol` outside of "
    "containers and sandboxes",
    "the kernel has no Bluetooth: its module is missing, or something keeps it "
    "out",
    "as root `modprobe bluetooth`; look for `bluetooth` in `/etc/modprobe.d` "
    "(`blacklist`, `install`); without the module install the kernel's "
    "package that has it: kernels for clouds and WSL have none"};

inline constexpr Trouble kNoSockets = {
    "no-sockets", "the same inside of one",
    "the network namespace is not the machine's own, and Bluetooth sockets "
    "exist in that alone; or the kernel has no Bluetooth",
    "run outside, or share the host's network (`--network host`, Flatpak "
    "`--share=network` with `--allow=bluetooth`)"};

inline constexpr Trouble kSocketsForbidden = {
    "sockets-forbidden",
    "° `socket() failed: Permission denied` or `Operation not permitted`",
    "a security profile forbids Bluetooth sockets",
    "as root allow them in the profile of the sandbox, of AppArmor or of "
    "SELinux; a Snap plugs `bluetooth-control`"};

inline constexpr Trouble kNoRfcomm = {
    "no-rfcomm", "`socket() failed: Protocol not supported`",
    "the kernel module is missing", "as root `modprobe rfcomm`"};

inline constexpr Trouble kRefused = {
    "refused", "`RFCOMM connect to ADDRESS failed: Connection refused`",
    "nothing listens on channel 1 there",
    "start the service on the device; channel 1 is not negotiable here"};

inline constexpr Trouble kHostDown = {
    "host-down", "`… failed: Host is down`",
    "the device is off, out of range, or not connectable",
    "bring it near and wake it"};

inline constexpr Trouble kNoRoute = {"no-route", "`… failed: No route to host`",
                                     "this adapter is off",
                                     "`bluetoothctl power on`"};

inline constexpr Trouble kNotAuthenticated = {
    "not-authenticated",
    "`… failed: Permission denied`, or ° `… failed: Invalid exchange`",
    "the device refused to authenticate; often one side still holds a bond "
    "that the other removed",
    "remove it on both, and pair again"};

inline constexpr Trouble kNoAnswer = {
    "no-answer",
    "`… failed: Connection timed out` or `… failed: Operation now in "
    "progress`, after half a minute",
    "the device did not answer at all", "bring it near and wake it"};

inline constexpr Trouble kReset = {
    "reset", "`… failed: Connection reset by peer`",
    "the link ended while the channel was being opened: the device ended it, "
    "or the adapter went off just before",
    "try again; look whether the adapter stays on"};

inline constexpr Trouble kAborted = {
    "aborted", "`… failed: Software caused connection abort`",
    "the same, ended by this side: the adapter went off, or the kernel ended "
    "the link, as it does 2 s after its last use (rare; seen on 6.12 with "
    "emulated controllers)",
    "try again; look whether the adapter stays on"};

inline constexpr Trouble kBusy = {
    "busy", "`… failed: Device or resource busy`",
    "channel 1 of that device is open already, in this or another program: it "
    "takes one connection",
    "close the other one"};

}  // namespace lumso_doctor

#endif  // LUMSO_BLUETOOTH_DOCTOR_TROUBLES_H_
