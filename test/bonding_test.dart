import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';
import 'package:lumso_bluetooth/testing.dart';

import 'support.dart';

void main() {
  TestWidgetsFlutterBinding.ensureInitialized();
  const BluetoothBonding bonding = BluetoothBonding();

  test('gives the plug-in the address', () async {
    final FakeBluetoothPlugin plugin = fakePlugin();
    plugin.report(const DeviceReport(BluetoothDevice(address: scale)));
    expect(await bonding.bond(scale), isTrue);
    expect(await bonding.getBondState(scale), BluetoothBondState.bonded);
    expect(await bonding.isBonded(scale), isTrue);
    expect(await bonding.removeBond(scale), isTrue);
    expect(
      plugin.requests
          .map((FakeBluetoothRequest request) => request.call.method)
          .toList(),
      <String>[
        'bondDevice',
        'getBondState',
        'getBondState',
        'removeDeviceBond',
      ],
    );
    for (final FakeBluetoothRequest request in plugin.requests) {
      expect(request.call.arguments, <String, Object?>{'address': scale});
    }
  });

  test('gives the neutral answers without an adapter', () async {
    fakePlugin().isAvailable = false;
    expect(await bonding.getBondState(scale), BluetoothBondState.notBonded);
    expect(await bonding.isBonded(scale), isFalse);
    expect(await bonding.bond(scale), isFalse);
    expect(await bonding.removeBond(scale), isFalse);
  });

  test('takes no answer as the neutral one', () async {
    fakePlugin().answers.addAll(<String, Object?>{
      'getBondState': null,
      'bondDevice': null,
      'removeDeviceBond': null,
    });
    expect(await bonding.getBondState(scale), BluetoothBondState.notBonded);
    expect(await bonding.isBonded(scale), isFalse);
    expect(await bonding.bond(scale), isFalse);
    expect(await bonding.removeBond(scale), isFalse);
  });
}
