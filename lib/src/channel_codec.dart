import 'adapter_state.dart';
import 'device.dart';
import 'discovery_event.dart';

/// How the plug-in writes on its channels what the library gives out.
///
/// The library decodes with it. Who listens to a channel without the library,
/// or sends what the plug-in sends, needs it as well.
abstract final class BluetoothChannelCodec {
  // States of both kinds: on and bonded, or neither.
  static const int _no = 10;
  static const int _yes = 12;

  /// The adapter state of [value]; [BluetoothAdapterState.off] for any that is
  /// not known, and for null.
  static BluetoothAdapterState decodeAdapterState(int? value) =>
      value == _yes ? BluetoothAdapterState.on : BluetoothAdapterState.off;

  /// 12 for [BluetoothAdapterState.on], otherwise 10.
  static int encodeAdapterState(BluetoothAdapterState state) =>
      state == BluetoothAdapterState.on ? _yes : _no;

  /// The bond state of [value]; [BluetoothBondState.notBonded] for any that is
  /// not known, and for null.
  static BluetoothBondState decodeBondState(int? value) =>
      value == _yes ? BluetoothBondState.bonded : BluetoothBondState.notBonded;

  /// 12 for [BluetoothBondState.bonded], otherwise 10.
  static int encodeBondState(BluetoothBondState state) =>
      state == BluetoothBondState.bonded ? _yes : _no;

  /// Reads a device map, where an empty name and a signal strength of zero mean
  /// unknown. Throws [TypeError] when address, name or signal strength is
  /// missing.
  static BluetoothDevice decodeDevice(Map<Object?, Object?> map) {
    final String name = map['name'] as String;
    final int rssi = map['rssi'] as int;
    return BluetoothDevice(
      address: map['address'] as String,
      name: name.isEmpty ? null : name,
      isConnected: map['isConnected'] == 1,
      bondState: decodeBondState(map['bondState'] as int?),
      rssi: rssi == 0 ? null : rssi,
    );
  }

  /// Writes the device map of [device].
  static Map<String, Object?> encodeDevice(BluetoothDevice device) =>
      <String, Object?>{
        'address': device.address,
        'name': device.name ?? '',
        'type': 0,
        'isConnected': device.isConnected ? 1 : 0,
        'bondState': encodeBondState(device.bondState),
        'rssi': device.rssi ?? 0,
      };

  /// Reads an event of the discovery channel; null for a kind that this version
  /// does not know. Throws [TypeError] when an event of a known kind lacks
  /// something.
  static DiscoveryEvent? decodeEvent(Map<Object?, Object?> map) {
    final Object? device = map['device'];
    if (device is Map<Object?, Object?>) {
      return DeviceReport(decodeDevice(device));
    }
    switch (map['type']) {
      case 'rssiUpdate':
        return SignalReading(map['address'] as String, map['rssi'] as int);
      case 'deviceLost':
        return DeviceLoss(map['address'] as String);
      default:
        return null;
    }
  }

  /// Writes [event] as the discovery channel has it.
  static Map<String, Object?> encodeEvent(DiscoveryEvent event) {
    switch (event) {
      case DeviceReport(:final BluetoothDevice device):
        return <String, Object?>{'device': encodeDevice(device)};
      case SignalReading(:final String address, :final int rssi):
        return <String, Object?>{
          'type': 'rssiUpdate',
          'address': address,
          'rssi': rssi,
        };
      case DeviceLoss(:final String address):
        return <String, Object?>{'type': 'deviceLost', 'address': address};
    }
  }
}
