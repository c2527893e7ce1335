import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';

import 'support.dart';

void main() {
  TestWidgetsFlutterBinding.ensureInitialized();
  const BluetoothBonding bonding = BluetoothBonding();

  test('gives the plug-in the address', () async {
    final List<MethodCall> calls = mockMethods(
      (MethodCall call) => call.method == 'getBondState' ? 12 : true,
    );
    expect(await bonding.getBondState(scale), BluetoothBondState.bonded);
    expect(await bonding.isBonded(scale), isTrue);
    expect(await bonding.bond(scale), isTrue);
    expect(await bonding.removeBond(scale), isTrue);
    expect(
      calls.map((MethodCall call) => call.method).toList(),
      <String>[
        'getBondState',
        'getBondState',
        'bondDevice',
        'removeDeviceBond',
      ],
    );
    for (final MethodCall call in calls) {
      expect(call.arguments, <String, Object?>{'address': scale});
    }
  });

  test('gives the neutral answers', () async {
    mockMethods(
      (MethodCall call) => call.method == 'getBondState' ? 10 : false,
    );
    expect(await bonding.getBondState(scale), BluetoothBondState.notBonded);
    expect(await bonding.isBonded(scale), isFalse);
    expect(await bonding.bond(scale), isFalse);
    expect(await bonding.removeBond(scale), isFalse);
  });

  test('takes no answer as the neutral one', () async {
    mockMethods((MethodCall call) => null);
    expect(await bonding.getBondState(scale), BluetoothBondState.notBonded);
    expect(await bonding.isBonded(scale), isFalse);
    expect(await bonding.bond(scale), isFalse);
    expect(await bonding.removeBond(scale), isFalse);
  });
}
