import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';

import 'support.dart';

void main() {
  TestWidgetsFlutterBinding.ensureInitialized();
  const BluetoothAdapter adapter = BluetoothAdapter();

  test('asks the plug-in, without arguments', () async {
    const Map<String, Object?> answers = <String, Object?>{
      'isAvailable': true,
      'isEnabled': true,
      'getState': 12,
      'getAddress': '00:AA:01:00:00:01',
      'getName': 'desktop',
      'getPlatformVersion': 'Linux #1 SMP',
    };
    final List<MethodCall> calls =
        mockMethods((MethodCall call) => answers[call.method]);

    expect(await adapter.isAvailable(), isTrue);
    expect(await adapter.isEnabled(), isTrue);
    expect(await adapter.getState(), BluetoothAdapterState.on);
    expect(await adapter.getAddress(), '00:AA:01:00:00:01');
    expect(await adapter.getName(), 'desktop');
    expect(await adapter.getPlatformVersion(), 'Linux #1 SMP');
    expect(
      calls.map((MethodCall call) => call.method).toList(),
      answers.keys.toList(),
    );
    for (final MethodCall call in calls) {
      expect(call.arguments, isNull);
    }
  });

  test('gives the neutral answers without an adapter', () async {
    const Map<String, Object?> answers = <String, Object?>{
      'isAvailable': false,
      'isEnabled': false,
      'getState': 10,
      'getAddress': '',
      'getName': '',
    };
    mockMethods((MethodCall call) => answers[call.method]);

    expect(await adapter.isAvailable(), isFalse);
    expect(await adapter.isEnabled(), isFalse);
    expect(await adapter.getState(), BluetoothAdapterState.off);
    expect(await adapter.getAddress(), isNull);
    expect(await adapter.getName(), isNull);
  });

  test('takes no answer as the neutral one', () async {
    mockMethods((MethodCall call) => null);

    expect(await adapter.isAvailable(), isFalse);
    expect(await adapter.isEnabled(), isFalse);
    expect(await adapter.getState(), BluetoothAdapterState.off);
    expect(await adapter.getAddress(), isNull);
    expect(await adapter.getName(), isNull);
    expect(await adapter.getPlatformVersion(), isEmpty);
  });

  test('streams the present state and each change once', () async {
    final MockStream state = MockStream(
      BluetoothChannels.state,
      onListen: (MockStreamHandlerEventSink events) => events.success(12),
    );
    final Future<List<BluetoothAdapterState>> states =
        adapter.states.take(3).toList();
    final MockStreamHandlerEventSink events = await state.events;
    events.success(12);
    events.success(10);
    events.success(10);
    events.success(12);

    expect(await states, const <BluetoothAdapterState>[
      BluetoothAdapterState.on,
      BluetoothAdapterState.off,
      BluetoothAdapterState.on,
    ]);
  });

  test('shares one stream among its listeners', () async {
    final MockStream state = MockStream(BluetoothChannels.state);
    final Future<BluetoothAdapterState> first = adapter.states.first;
    final Future<BluetoothAdapterState> second = adapter.states.first;
    (await state.events).success(12);

    expect(await first, BluetoothAdapterState.on);
    expect(await second, BluetoothAdapterState.on);
    await state.cancelled;
    expect(state.listens, 1);
    expect(state.cancels, 1);
    expect(adapter.states, same(adapter.states));
  });

  test('listens again after its last listener has gone', () async {
    for (int time = 0; time < 2; time++) {
      final MockStream state = MockStream(BluetoothChannels.state);
      final Future<BluetoothAdapterState> present = adapter.states.first;
      (await state.events).success(10);
      expect(await present, BluetoothAdapterState.off);
      await state.cancelled;
      expect(state.listens, 1);
    }
  });
}
