import 'package:flutter/foundation.dart' show immutable;

import 'device.dart';

/// What the discovery stream tells: a [DeviceReport], or the prober's
/// [SignalReading] or [DeviceLoss].
@immutable
sealed class DiscoveryEvent {
  /// For the three kinds of event.
  const DiscoveryEvent();
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
