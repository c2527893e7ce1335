import 'dart:async';

import 'package:flutter/foundation.dart';
import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';
import 'package:lumso_bluetooth/testing.dart';

import 'support.dart';

const BluetoothAdapterState on = BluetoothAdapterState.on;
const BluetoothAdapterState off = BluetoothAdapterState.off;

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
    final FakeBluetoothPlugin plugin = fakePlugin()..answers.addAll(answers);

    expect(await adapter.isAvailable(), isTrue);
    expect(await adapter.isEnabled(), isTrue);
    expect(await adapter.getState(), on);
    expect(await adapter.getAddress(), '00:AA:01:00:00:01');
    expect(await adapter.getName(), 'desktop');
    expect(await adapter.getPlatformVersion(), 'Linux #1 SMP');
    expect(methodsOf(plugin), answers.keys.toList());
    for (final FakeBluetoothRequest request in plugin.requests) {
      expect(request.call.arguments, isNull);
    }
  });

  test('gives the neutral answers without an adapter', () async {
    fakePlugin().answers.addAll(const <String, Object?>{
      'isAvailable': false,
      'isEnabled': false,
      'getState': 10,
      'getAddress': '',
      'getName': '',
    });

    expect(await adapter.isAvailable(), isFalse);
    expect(await adapter.isEnabled(), isFalse);
    expect(await adapter.getState(), off);
    expect(await adapter.getAddress(), isNull);
    expect(await adapter.getName(), isNull);
  });

  test('takes no answer as the neutral one', () async {
    fakePlugin().answers.addAll(const <String, Object?>{
      'isAvailable': null,
      'isEnabled': null,
      'getState': null,
      'getAddress': null,
      'getName': null,
      'getPlatformVersion': null,
    });

    expect(await adapter.isAvailable(), isFalse);
    expect(await adapter.isEnabled(), isFalse);
    expect(await adapter.getState(), off);
    expect(await adapter.getAddress(), isNull);
    expect(await adapter.getName(), isNull);
    expect(await adapter.getPlatformVersion(), isEmpty);
  });

  group('the states', () {
    late List<Object> heard;
    late StreamSubscription<BluetoothAdapterState> subscription;

    Future<void> listen() async {
      heard = <Object>[];
      subscription = adapter.states.listen(heard.add, onError: heard.add);
      await settle();
    }

    // Fails without distinct() of _states: the plug-in repeats itself.
    test('are the present one and each change, once', () async {
      final FakeBluetoothPlugin plugin = fakePlugin();
      await listen();
      expect(heard, <Object>[on]);
      plugin
        ..state = on
        ..state = off
        ..state = off
        ..state = on;
      await settle();
      expect(heard, <Object>[on, off, on]);
      await subscription.cancel();
    });

    // Fails without the answer in _tellStates: the plug-in sends nothing then.
    test('begin with off where there is no adapter', () async {
      fakePlugin().isAvailable = false;
      await listen();
      expect(heard, <Object>[off]);
      await subscription.cancel();
    });

    // Fails without the answer in _tellStates: the plug-in tells the first
    // listener alone.
    test('begin for each listener with the present one', () async {
      final FakeBluetoothPlugin plugin = fakePlugin();
      await listen();
      plugin.state = off;
      await settle();
      expect(await adapter.states.first, off);
      plugin.state = on;
      await settle();
      expect(await adapter.states.first, on);
      expect(heard, <Object>[on, off, on]);

      await subscription.cancel();
      await settle();
      expect(
        asksOf(plugin, BluetoothChannels.state),
        <String>['listen', 'cancel'],
      );
      expect(adapter.states, same(adapter.states));
      expect(adapter.states.isBroadcast, isTrue);
    });

    // Fails without isTold in _tellStates: the second ends with on.
    test('are not those of an answer that an event overtook', () async {
      bool isSwitchedOff = false;
      late final FakeBluetoothPlugin plugin;
      plugin = fakePlugin(
        onAnswer: (MethodCall call) {
          if (isSwitchedOff) plugin.state = off;
        },
      );
      final StreamSubscription<BluetoothAdapterState> other =
          adapter.states.listen((BluetoothAdapterState state) {});
      await settle();
      isSwitchedOff = true;
      await listen();
      expect(plugin.callsOf('getState'), hasLength(2));
      expect(heard, <Object>[off]);
      await subscription.cancel();
      await other.cancel();
    });

    // Fails without resize to 0 in _share: the first is then off.
    test('are the present one for a listener that comes back', () async {
      final FakeBluetoothPlugin plugin = fakePlugin();
      await listen();
      await subscription.cancel();
      await settle();
      // Sent before the plug-in knew that nobody listens any more.
      pushEvent(BluetoothChannels.state, 10);
      plugin.state = off;
      plugin.state = on;
      await listen();
      expect(heard, <Object>[on]);
      plugin.state = off;
      await settle();
      expect(heard, <Object>[on, off]);
      await subscription.cancel();
    });

    test('wait for a listener that pauses', () async {
      final FakeBluetoothPlugin plugin = fakePlugin();
      await listen();
      subscription.pause();
      plugin.state = off;
      plugin.state = on;
      await settle();
      expect(heard, <Object>[on]);
      subscription.resume();
      await settle();
      expect(heard, <Object>[on, off, on]);
      await subscription.cancel();
    });

    // Fails without onError in _share, or in _tellStates.
    test('go on after what the plug-in does not send', () async {
      final List<FlutterErrorDetails> reports = takeReports();
      final FakeBluetoothPlugin plugin = fakePlugin();
      await listen();
      pushNonsense(BluetoothChannels.state, 'on');
      plugin.state = off;
      await settle();
      expect(heard, <Object>[on, ...nonsense, off]);
      expect(reports.single.exception, isA<FormatException>());
      await subscription.cancel();
    });

    // Fails without catch in _tellStates.
    test('say that there is no plug-in', () async {
      final List<FlutterErrorDetails> reports = takeReports();
      disappear(fakePlugin());
      await listen();
      expect(heard, <Object>[hasCode(BluetoothException.noPlugin)]);
      expect(reports, hasLength(1));
      await subscription.cancel();
      await settle();
    });
  });
}
