import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';

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
    final MockStream channel = MockStream(BluetoothChannels.discovery);
    final Future<List<Map<String, int>>> received =
        prober.readings.take(4).toList();
    final MockStreamHandlerEventSink events = await channel.events;
    events.success(reading(scale, -61));
    events.success(<String, Object?>{'device': deviceMap()});
    events.success(reading(thermometer, -70));
    events.success(reading(scale, -57));
    events.success(
      const <String, Object?>{'type': 'deviceLost', 'address': scale},
    );

    expect(await received, <Map<String, int>>[
      <String, int>{scale: -61},
      <String, int>{scale: -61, thermometer: -70},
      <String, int>{scale: -57, thermometer: -70},
      <String, int>{thermometer: -70},
    ]);
    await channel.cancelled;
  });

  test('begins each stream with an empty map', () async {
    final MockStream channel = MockStream(BluetoothChannels.discovery);
    final Future<List<Map<String, int>>> both =
        prober.readings.take(2).toList();
    final MockStreamHandlerEventSink events = await channel.events;

    final Future<Map<String, int>> first = prober.readings.first;
    events.success(reading(scale, -61));
    expect(await first, <String, int>{scale: -61});

    final Future<Map<String, int>> second = prober.readings.first;
    events.success(reading(thermometer, -70));
    expect(await second, <String, int>{thermometer: -70});

    expect(await both, <Map<String, int>>[
      <String, int>{scale: -61},
      <String, int>{scale: -61, thermometer: -70},
    ]);
    await channel.cancelled;
    expect(channel.listens, 1);
    expect(channel.cancels, 1);
  });

  test('gives out maps that cannot be changed', () async {
    final MockStream channel = MockStream(BluetoothChannels.discovery);
    final Future<Map<String, int>> received = prober.readings.first;
    (await channel.events).success(reading(scale, -61));
    final Map<String, int> map = await received;
    expect(map.clear, throwsUnsupportedError);
  });
}
