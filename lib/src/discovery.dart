import 'package:flutter/foundation.dart' show immutable;

import 'channels.dart';
import 'device.dart';

/// What the discovery stream tells: a [DeviceReport], or the prober's
/// [SignalReading] or [DeviceLoss].
@immutable
sealed class DiscoveryEvent {
  /// For the three kinds of event.
  const DiscoveryEvent();

  /// Reads an event of the discovery channel; null for a kind that this version
  /// does not know. Throws [TypeError] when an event of a known kind lacks
  /// something.
  static DiscoveryEvent? fromMap(Map<Object?, Object?> map) {
    final Object? device = map['device'];
    if (device is Map<Object?, Object?>) {
      return DeviceReport(BluetoothDevice.fromMap(device));
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
}

/// A device appeared, or one of its properties changed.
final class DeviceReport extends DiscoveryEvent {
  /// Reports [device].
  const DeviceReport(this.device);

  /// The whole device as it is now.
  final BluetoothDevice device;

  @override
  bool operator ==(Object other) =>
      other is DeviceReport && other.device == device;

  @override
  int get hashCode => Object.hash(DeviceReport, device);

  @override
  String toString() => 'DeviceReport($device)';
}

/// The prober got a reading from a device.
final class SignalReading extends DiscoveryEvent {
  /// Tells that the device at [address] measured [rssi].
  const SignalReading(this.address, this.rssi);

  /// The device's address.
  final String address;

  /// What the device measured, in dBm, as it said it.
  final int rssi;

  @override
  bool operator ==(Object other) =>
      other is SignalReading && other.address == address && other.rssi == rssi;

  @override
  int get hashCode => Object.hash(SignalReading, address, rssi);

  @override
  String toString() => 'SignalReading($address, $rssi dBm)';
}

/// The prober failed twice in a row with a device.
final class DeviceLoss extends DiscoveryEvent {
  /// Tells that the device at [address] is lost.
  const DeviceLoss(this.address);

  /// The device's address.
  final String address;

  @override
  bool operator ==(Object other) =>
      other is DeviceLoss && other.address == address;

  @override
  int get hashCode => Object.hash(DeviceLoss, address);

  @override
  String toString() => 'DeviceLoss($address)';
}

/// Finding devices, and hearing of those that change.
///
/// Every object of this class is the same discovery. Listening starts no
/// discovery and repeats nothing. So listen to [events] or [devices] first, ask
/// for [knownDevices] then, and [start] last. Every request but [isDiscovering]
/// blocks until the daemon has answered, mostly for milliseconds.
class BluetoothDiscovery {
  /// The discovery.
  const BluetoothDiscovery();

  static final Stream<DiscoveryEvent> _events = BluetoothChannels.discovery
      .receiveBroadcastStream()
      .expand((Object? message) {
    final DiscoveryEvent? event = message is Map<Object?, Object?>
        ? DiscoveryEvent.fromMap(message)
        : null;
    return <DiscoveryEvent>[if (event != null) event];
  });
  static final Stream<BluetoothDevice> _reported =
      _events.expand((DiscoveryEvent event) => <BluetoothDevice>[
            if (event is DeviceReport) event.device,
          ]);

  /// Devices of all adapters as they appear and change, with discovery on or
  /// off, and what the prober finds out.
  ///
  /// A broadcast stream for any number of listeners. What happens while nobody
  /// listens is lost; only the prober's newest event is kept for the next
  /// listener. Kinds of event that this version does not know are left out.
  Stream<DiscoveryEvent> get events => _events;

  /// The devices of the [DeviceReport]s among [events].
  Stream<BluetoothDevice> get devices => _reported;

  /// Whether the adapter looks for devices, whoever told it to. Does not block.
  Future<bool> isDiscovering() => BluetoothChannels.request('isDiscovering');

  /// Starts discovery; true when it runs now or ran before. It goes on until
  /// [cancel], and costs power and bandwidth. False without an adapter, and
  /// when the daemon refuses, as while the adapter is off.
  Future<bool> start() => BluetoothChannels.request('startDiscovery');

  /// Stops a discovery that this application started, and leaves any other
  /// alone; true in both cases. False without an adapter, and when the daemon
  /// refuses.
  Future<bool> cancel() => BluetoothChannels.request('cancelDiscovery');

  /// Every device that the daemon knows, found just now or earlier, of all
  /// adapters. Empty without an adapter.
  Future<List<BluetoothDevice>> knownDevices() =>
      _devices('getDiscoveredDevices');

  /// Those of [knownDevices] that are bonded.
  Future<List<BluetoothDevice>> bondedDevices() => _devices('getBondedDevices');

  Future<List<BluetoothDevice>> _devices(String method) async {
    final List<Object?> maps =
        await BluetoothChannels.invoke<List<Object?>>(method) ??
            const <Object?>[];
    return maps
        .cast<Map<Object?, Object?>>()
        .map(BluetoothDevice.fromMap)
        .toList();
  }
}
