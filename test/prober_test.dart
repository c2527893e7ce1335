import 'dart:async';

import 'package:flutter/foundation.dart';
import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';
import 'package:lumso_bluetooth/testing.dart';

import 'support.dart';

void main() {
  TestWidgetsFlutterBinding.ensureInitialized();
  const BluetoothProber prober = BluetoothProber();

  test('gives the plug-in the secret', () async {
    final FakeBluetoothPlugin plugin = fakePlugin();
    await prober.setSecret('0123456789');
    await prober.setSecret('');
    expect(
      <Object?>[
        for (final MethodCall call in plugin.callsOf('setAuthSecret'))
          call.arguments,
      ],
      <Object?>[
        <String, Object?>{'secret': '0123456789'},
        <String, Object?>{'secret': ''},
      ],
    );
    expect(methodsOf(plugin), hasLength(2));
  });

  test('throws what the plug-in answers', () async {
    fakePlugin().onRequest =
        (MethodCall call) => throw PlatformException(code: 'EINVAL');
    await expectLater(
      prober.setSecret('0123456789'),
      throwsCode(BluetoothException.invalid),
    );
  });

  group('the readings', () {
    late List<Object> heard;
    late StreamSubscription<Map<String, int>> subscription;

    Future<void> listen() async {
      heard = <Object>[];
      subscription = prober.readings.listen(heard.add, onError: heard.add);
      await settle();
    }

    test('are collected by address until a loss', () async {
      final FakeBluetoothPlugin plugin = fakePlugin();
      await listen();
      plugin
        ..report(const SignalReading(scale, -61))
        ..report(const DeviceReport(BluetoothDevice(address: scale)))
        ..report(const SignalReading(thermometer, -70))
        ..report(const SignalReading(scale, -57))
        ..report(const DeviceLoss(scale));
      await settle();
      expect(heard, <Object>[
        <String, int>{},
        <String, int>{scale: -61},
        <String, int>{scale: -61, thermometer: -70},
        <String, int>{scale: -57, thermometer: -70},
        <String, int>{thermometer: -70},
      ]);
      await subscription.cancel();
    });

    // Fails without add(_latest) in _readings.
    test('begin for each listener with the present ones', () async {
      final FakeBluetoothPlugin plugin = fakePlugin();
      await listen();
      plugin.report(const SignalReading(scale, -61));
      await settle();
      expect(await prober.readings.first, <String, int>{scale: -61});

      final Future<List<Map<String, int>>> others =
          prober.readings.take(2).toList();
      plugin.report(const SignalReading(thermometer, -70));
      expect(await others, <Map<String, int>>[
        <String, int>{scale: -61},
        <String, int>{scale: -61, thermometer: -70},
      ]);
      expect(heard, hasLength(3));

      await subscription.cancel();
      await settle();
      expect(
        asksOf(plugin, BluetoothChannels.discovery),
        <String>['listen', 'cancel'],
      );
    });

    // Fails without static final _readings.
    test('are one stream, which a build method may take', () {
      expect(prober.readings, same(prober.readings));
      expect(prober.readings, same(const BluetoothProber().readings));
      expect(prober.readings.isBroadcast, isTrue);
    });

    // Fails without forgetting in onCancel of _changes, and without resize to 0
    // in _share.
    test('begin anew when nobody had listened', () async {
      final FakeBluetoothPlugin plugin = fakePlugin();
      await listen();
      plugin.report(const SignalReading(scale, -61));
      await settle();
      await subscription.cancel();
      plugin.report(const SignalReading(thermometer, -70));
      await listen();
      expect(heard, <Object>[<String, int>{}]);
      plugin.report(const DeviceLoss(scale));
      plugin.report(const SignalReading(thermometer, -71));
      await settle();
      expect(heard.last, <String, int>{thermometer: -71});
      await subscription.cancel();
    });

    test('wait for a listener that pauses', () async {
      final FakeBluetoothPlugin plugin = fakePlugin();
      await listen();
      subscription.pause();
      plugin.report(const SignalReading(scale, -61));
      await settle();
      expect(heard, <Object>[<String, int>{}]);
      subscription.resume();
      await settle();
      expect(heard.last, <String, int>{scale: -61});
      await subscription.cancel();
    });

    // Fails without onError in _readings, or in _changes.
    test('go on after what the plug-in does not send', () async {
      final List<FlutterErrorDetails> reports = takeReports();
      final FakeBluetoothPlugin plugin = fakePlugin();
      await listen();
      pushNonsense(
        BluetoothChannels.discovery,
        const <String, Object?>{'type': 'deviceLost'},
      );
      plugin.report(const SignalReading(scale, -61));
      await settle();
      expect(heard, <Object>[
        <String, int>{},
        ...nonsense,
        <String, int>{scale: -61},
      ]);
      expect(reports.single.exception, isA<FormatException>());
      await subscription.cancel();
    });

    // Fails without unmodifiable in _collect.
    test('cannot be changed', () async {
      final FakeBluetoothPlugin plugin = fakePlugin();
      await listen();
      plugin.report(const SignalReading(scale, -61));
      await settle();
      for (final Object map in heard) {
        expect((map as Map<String, int>).clear, throwsUnsupportedError);
      }
      await subscription.cancel();
    });
  });
}
