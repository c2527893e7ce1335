import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';

import 'support.dart';

// Not const: equal devices would be one object.
BluetoothDevice device({
  String address = scale,
  String name = 'Scale',
  bool isConnected = false,
  BluetoothBondState bondState = BluetoothBondState.notBonded,
  int rssi = -60,
}) {
  return BluetoothDevice(
    address: address,
    name: name,
    isConnected: isConnected,
    bondState: bondState,
    rssi: rssi,
  );
}

void main() {
  test('is unknown, or no, where nothing is said', () {
    const BluetoothDevice device = BluetoothDevice(address: scale);
    expect(device.address, scale);
    expect(device.name, isNull);
    expect(device.isConnected, isFalse);
    expect(device.bondState, BluetoothBondState.notBonded);
    expect(device.isBonded, isFalse);
    expect(device.rssi, isNull);
  });

  test('is bonded in that state', () {
    expect(device(bondState: BluetoothBondState.bonded).isBonded, isTrue);
  });

  test('equals a device of the same values', () {
    expect(device(), device());
    expect(device().hashCode, device().hashCode);

    for (final BluetoothDevice other in <BluetoothDevice>[
      device(address: '00:00:00:00:00:00'),
      device(name: 'Other'),
      device(isConnected: true),
      device(bondState: BluetoothBondState.bonded),
      device(rssi: -61),
    ]) {
      expect(other, isNot(device()));
    }
  });

  test('prints its values', () {
    expect(
      device().toString(),
      'BluetoothDevice(AA:BB:CC:DD:EE:FF, name: Scale, isConnected: false, '
      'bondState: notBonded, rssi: -60)',
    );
  });
}
