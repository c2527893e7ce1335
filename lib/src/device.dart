import 'package:flutter/foundation.dart' show immutable;

/// Whether a device is bonded (paired) with this machine.
enum BluetoothBondState {
  /// Not bonded, not known to the daemon, or there is no adapter.
  notBonded,

  /// Bonded.
  bonded,
}

/// What the daemon knew of a device at one moment.
@immutable
class BluetoothDevice {
  /// A device; what is left out is unknown, or no.
  const BluetoothDevice({
    required this.address,
    this.name,
    this.isConnected = false,
    this.bondState = BluetoothBondState.notBonded,
    this.rssi,
  });

  /// Six two-digit hexadecimal fields joined by colons, such as
  /// `AA:BB:CC:DD:EE:FF`. Pass it on as it is.
  final String address;

  /// The alias that the user gave the device, else its own name; null when
  /// there is neither. BlueZ makes an alias of the address, with hyphens, for a
  /// device that has not told its name.
  final String? name;

  /// Whether any program has a link to the device.
  final bool isConnected;

  /// Whether the device is bonded.
  final BluetoothBondState bondState;

  /// The signal strength in dBm, mostly from -100 to -30; null when unknown, as
  /// for a device that discovery has not seen lately.
  final int? rssi;

  /// Whether [bondState] is [BluetoothBondState.bonded].
  bool get isBonded => bondState == BluetoothBondState.bonded;

  @override
  bool operator ==(Object other) =>
      other is BluetoothDevice &&
      other.address == address &&
      other.name == name &&
      other.isConnected == isConnected &&
      other.bondState == bondState &&
      other.rssi == rssi;

  @override
  int get hashCode => Object.hash(address, name, isConnected, bondState, rssi);

  @override
  String toString() => 'BluetoothDevice($address, name: $name, '
      'isConnected: $isConnected, bondState: ${bondState.name}, rssi: $rssi)';
}
