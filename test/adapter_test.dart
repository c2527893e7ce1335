import 'dart:async';

import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';
import 'package:lumso_bluetooth/testing.dart';

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
    final FakeBluetoothPlugin plugin = fakePlugin();
    final Future<List<BluetoothAdapterState>> states =
        adapter.states.take(3).toList();
    await settle();
    plugin.state = BluetoothAdapterState.on;
    plugin.state = BluetoothAdapterState.off;
    plugin.state = BluetoothAdapterState.off;
    plugin.state = BluetoothAdapterState.on;

    expect(await states, const <BluetoothAdapterState>[
      BluetoothAdapterState.on,
      BluetoothAdapterState.off,
      BluetoothAdapterState.on,
    ]);
  });

  // Without the request in _tellStates nothing comes.
  test('streams that there is no adapter', () async {
    fakePlugin().isAvailable = false;
    expect(await adapter.states.first, BluetoothAdapterState.off);
  });

  // Without the request in _tellStates the second gets nothing.
  test('gives each listener the present state first', () async {
    final FakeBluetoothPlugin plugin = fakePlugin();
    final List<BluetoothAdapterState> first = <BluetoothAdapterState>[];
    final StreamSubscription<BluetoothAdapterState> subscription =
        adapter.states.listen(first.add);
    await settle();
    final List<BluetoothAdapterState> second =
        await adapter.states.take(1).toList();
    expect(first, const <BluetoothAdapterState>[BluetoothAdapterState.on]);
    expect(second, first);
    expect(
      plugin.requests
          .where(
            (FakeBluetoothRequest request) =>
                request.channel == BluetoothChannels.state.name,
          )
          .length,
      1,
    );
    await subscription.cancel();
    await settle();
    expect(plugin.isListenedTo(BluetoothChannels.state), isFalse);
    expect(adapter.states, same(adapter.states));
  });
}
