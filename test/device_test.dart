import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';

import 'support.dart';

void main() {
  test('is read from a device map', () {
    final BluetoothDevice device = BluetoothDevice.fromMap(
      deviceMap(isConnected: 1, bondState: 12, rssi: -79),
    );
    expect(device.address, scale);
    expect(device.name, 'Scale');
    expect(device.isConnected, isTrue);
    expect(device.bondState, BluetoothBondState.bonded);
    expect(device.isBonded, isTrue);
    expect(device.rssi, -79);
  });

  test('has null for what is unknown', () {
    final BluetoothDevice device =
        BluetoothDevice.fromMap(deviceMap(name: '', rssi: 0));
    expect(device.name, isNull);
    expect(device.rssi, isNull);
    expect(device.isConnected, isFalse);
    expect(device.bondState, BluetoothBondState.notBonded);
    expect(device.isBonded, isFalse);
    expect(device, const BluetoothDevice(address: scale));
  });

  test('is not read from another map', () {
    expect(
      () => BluetoothDevice.fromMap(const <Object?, Object?>{}),
      throwsA(isA<TypeError>()),
    );
  });

  test('equals a device of the same values', () {
    final BluetoothDevice device = BluetoothDevice.fromMap(deviceMap());
    final BluetoothDevice same = BluetoothDevice.fromMap(deviceMap());
    expect(device, same);
    expect(device.hashCode, same.hashCode);

    for (final Map<String, Object?> other in <Map<String, Object?>>[
      deviceMap(address: '00:00:00:00:00:00'),
      deviceMap(name: 'Other'),
      deviceMap(isConnected: 1),
      deviceMap(bondState: 12),
      deviceMap(rssi: -61),
    ]) {
      expect(BluetoothDevice.fromMap(other), isNot(device));
    }
  });

  test('prints its values', () {
    expect(
      BluetoothDevice.fromMap(deviceMap()).toString(),
      'BluetoothDevice(AA:BB:CC:DD:EE:FF, name: Scale, isConnected: false, '
      'bondState: notBonded, rssi: -60)',
    );
  });

  test('has a bond state of two values', () {
    for (final BluetoothBondState state in BluetoothBondState.values) {
      expect(BluetoothBondState.fromValue(state.value), state);
    }
    expect(BluetoothBondState.fromValue(11), BluetoothBondState.notBonded);
    expect(BluetoothBondState.fromValue(null), BluetoothBondState.notBonded);
  });
}
