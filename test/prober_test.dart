import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';
import 'package:lumso_bluetooth/testing.dart';

import 'support.dart';

const String thermometer = '11:22:33:44:55:66';

Map<String, Object?> reading(String address, int rssi) => <String, Object?>{
      'type': 'rssiUpdate',
      'address': address,
      'rssi': rssi,
    };

void main() {
  TestWidgetsFlutterBinding.ensureInitialized();
  const BluetoothProber prober = BluetoothProber();

  test('gives the plug-in the secret', () async {
    final List<MethodCall> calls = mockMethods((MethodCall call) => null);
    await prober.setSecret('0123456789');
    await prober.setSecret('');
    expect(
      calls.map((MethodCall call) => call.method).toSet(),
      <String>{'setAuthSecret'},
    );
    expect(
      calls.map((MethodCall call) => call.arguments as Object?).toList(),
      <Object?>[
        <String, Object?>{'secret': '0123456789'},
        <String, Object?>{'secret': ''},
      ],
    );
  });

  test('throws what the plug-in answers', () async {
    mockMethods(
      (MethodCall call) => throw PlatformException(
        code: 'EINVAL',
        message: 'secret missing',
      ),
    );
    await expectLater(
      prober.setSecret('0123456789'),
      throwsCode(BluetoothException.invalid),
    );
  });

  test('collects readings by address until a loss', () async {
    final FakeBluetoothPlugin plugin = fakePlugin();
    final Future<List<Map<String, int>>> received =
        prober.readings.take(5).toList();
    await settle();
    plugin
      ..report(const SignalReading(scale, -61))
      ..report(const DeviceReport(BluetoothDevice(address: scale)))
      ..report(const SignalReading(thermometer, -70))
      ..report(const SignalReading(scale, -57))
      ..report(const DeviceLoss(scale));

    expect(await received, <Map<String, int>>[
      <String, int>{},
      <String, int>{scale: -61},
      <String, int>{scale: -61, thermometer: -70},
      <String, int>{scale: -57, thermometer: -70},
      <String, int>{thermometer: -70},
    ]);
  });

  test('gives out maps that cannot be changed', () async {
    final MockStream channel = MockStream(BluetoothChannels.discovery);
    final Future<Map<String, int>> received = prober.readings.elementAt(1);
    (await channel.events).success(reading(scale, -61));
    final Map<String, int> map = await received;
    expect(map.clear, throwsUnsupportedError);
  });
}
