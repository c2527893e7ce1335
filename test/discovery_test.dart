import 'dart:async';

import 'package:flutter/foundation.dart';
import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';
import 'package:lumso_bluetooth/testing.dart';

import 'support.dart';

const String lamp = '00:00:00:00:00:01';

BluetoothDevice device(String address, [String? name]) =>
    BluetoothDevice(address: address, name: name);

DeviceReport report(String address, [String? name]) =>
    DeviceReport(device(address, name));

void main() {
  TestWidgetsFlutterBinding.ensureInitialized();
  const BluetoothDiscovery discovery = BluetoothDiscovery();

  test('asks the plug-in, without arguments', () async {
    for (final bool answer in <bool>[true, false]) {
      final FakeBluetoothPlugin plugin = fakePlugin()
        ..answers.addAll(<String, Object?>{
          'isDiscovering': answer,
          'startDiscovery': answer,
          'cancelDiscovery': answer,
        });
      expect(await discovery.isDiscovering(), answer);
      expect(await discovery.start(), answer);
      expect(await discovery.cancel(), answer);
      expect(methodsOf(plugin), plugin.answers.keys.toList());
      for (final FakeBluetoothRequest request in plugin.requests) {
        expect(request.call.arguments, isNull);
      }
    }
  });

  test('lists devices in the order given', () async {
    final List<BluetoothDevice> devices = <BluetoothDevice>[
      device(thermometer),
      device(scale, 'Scale'),
    ];
    final List<Object?> maps =
        devices.map(BluetoothChannelCodec.encodeDevice).toList();
    final FakeBluetoothPlugin plugin = fakePlugin()
      ..answers['getDiscoveredDevices'] = maps
      ..answers['getBondedDevices'] = maps;
    expect(await discovery.knownDevices(), devices);
    expect(await discovery.bondedDevices(), devices);
    expect(methodsOf(plugin), plugin.answers.keys.toList());
  });

  test('lists nothing without an adapter', () async {
    for (final Object? answer in <Object?>[const <Object?>[], null]) {
      fakePlugin()
        ..answers['getDiscoveredDevices'] = answer
        ..answers['getBondedDevices'] = answer;
      expect(await discovery.knownDevices(), isEmpty);
      expect(await discovery.bondedDevices(), isEmpty);
    }
  });

  test('takes no answer as false', () async {
    fakePlugin().answers.addAll(const <String, Object?>{
      'isDiscovering': null,
      'startDiscovery': null,
      'cancelDiscovery': null,
    });
    expect(await discovery.isDiscovering(), isFalse);
    expect(await discovery.start(), isFalse);
    expect(await discovery.cancel(), isFalse);
  });

  group('the events', () {
    late FakeBluetoothPlugin plugin;
    late List<Object> heard;
    late StreamSubscription<DiscoveryEvent> subscription;

    Future<void> listen() async {
      heard = <Object>[];
      subscription = discovery.events.listen(heard.add, onError: heard.add);
      await settle();
    }

    setUp(() => plugin = fakePlugin());

    test('are of every kind, and unknown ones are left out', () async {
      await listen();
      plugin.report(report(scale));
      for (final Object unknown in <Object>[
        const <String, Object?>{'type': 'unheardOf'},
        const <String, Object?>{},
        12,
      ]) {
        pushEvent(BluetoothChannels.discovery, unknown);
      }
      plugin.report(const SignalReading(scale, -57));
      plugin.report(const DeviceLoss(scale));
      await settle();
      expect(heard, <Object>[
        report(scale),
        const SignalReading(scale, -57),
        const DeviceLoss(scale),
      ]);
      await subscription.cancel();
    });

    test('have the devices of reports', () async {
      final Future<List<BluetoothDevice>> devices =
          discovery.devices.take(2).toList();
      await settle();
      plugin
        ..report(report(scale))
        ..report(const SignalReading(scale, -57))
        ..report(report(scale, 'Scale'));
      expect(await devices, <BluetoothDevice>[
        device(scale),
        device(scale, 'Scale'),
      ]);
    });

    test('are one stream for all listeners', () async {
      await listen();
      final Future<BluetoothDevice> reported = discovery.devices.first;
      final Future<DiscoveryEvent> event = discovery.events.first;
      plugin.report(report(scale));
      expect(await reported, device(scale));
      expect(await event, report(scale));
      plugin.report(const DeviceLoss(scale));
      await settle();
      expect(heard, hasLength(2));

      await subscription.cancel();
      await settle();
      expect(
        asksOf(plugin, BluetoothChannels.discovery),
        <String>['listen', 'cancel'],
      );
      expect(discovery.events, same(discovery.events));
      expect(discovery.devices, same(discovery.devices));
    });

    // Fails without resize to 0 in _share.
    test('begin anew when nobody had listened', () async {
      for (int time = 0; time < 2; time++) {
        plugin.report(const SignalReading(scale, -57));
        await listen();
        expect(heard, isEmpty);
        plugin.report(const DeviceLoss(scale));
        await settle();
        expect(heard, <Object>[const DeviceLoss(scale)]);
        await subscription.cancel();
        await settle();
      }
    });

    test('wait for a listener that pauses, and leave one that left', () async {
      final List<DiscoveryEvent> ofOther = <DiscoveryEvent>[];
      final StreamSubscription<DiscoveryEvent> other =
          discovery.events.listen(ofOther.add);
      await listen();
      subscription.pause();
      await other.cancel();
      plugin.report(report(scale));
      await settle();
      expect(heard, isEmpty);
      subscription.resume();
      await settle();
      expect(heard, <Object>[report(scale)]);
      expect(ofOther, isEmpty);
      await subscription.cancel();
    });

    // Fails without onError in _share.
    test('go on after what the plug-in does not send', () async {
      final List<FlutterErrorDetails> reports = takeReports();
      await listen();
      pushNonsense(
        BluetoothChannels.discovery,
        const <String, Object?>{'device': <String, Object?>{}},
      );
      plugin.report(report(scale));
      await settle();
      expect(heard, <Object>[...nonsense, report(scale)]);
      expect(reports.single.exception, isA<FormatException>());
      await subscription.cancel();
    });
  });

  group('the watched list', () {
    late List<Object> heard;
    late StreamSubscription<List<BluetoothDevice>> subscription;

    Future<void> listen() async {
      heard = <Object>[];
      subscription =
          discovery.watchDevices().listen(heard.add, onError: heard.add);
      await settle();
    }

    // Fails without tell() after the answer, and without the comparison with
    // what is known in _tellLists.
    test('has what is known first, then each change', () async {
      final FakeBluetoothPlugin plugin = fakePlugin();
      plugin.devices[thermometer] = device(thermometer);
      plugin.devices[scale] = device(scale);
      await listen();
      expect(heard, <Object>[
        <BluetoothDevice>[device(thermometer), device(scale)],
      ]);
      plugin
        ..report(report(lamp))
        ..report(report(lamp))
        ..report(const SignalReading(lamp, -57))
        ..report(report(thermometer, 'Thermometer'));
      await settle();
      expect(heard.skip(1), <Object>[
        <BluetoothDevice>[device(thermometer), device(scale), device(lamp)],
        <BluetoothDevice>[
          device(thermometer, 'Thermometer'),
          device(scale),
          device(lamp),
        ],
      ]);
      await subscription.cancel();
    });

    test('is empty where nothing is known', () async {
      fakePlugin();
      await listen();
      expect(heard, <Object>[<BluetoothDevice>[]]);
      await subscription.cancel();
    });

    // Fails without ...devices in _tellLists, and without isListed.
    test('is never older than a report that overtook it', () async {
      late final FakeBluetoothPlugin plugin;
      plugin = fakePlugin(
        onAnswer: (MethodCall call) {
          plugin
            ..report(report(lamp))
            ..report(report(scale, 'New'));
        },
      );
      plugin.devices[thermometer] = device(thermometer);
      plugin.devices[scale] = device(scale, 'Old');
      await listen();
      expect(heard, <Object>[
        <BluetoothDevice>[
          device(thermometer),
          device(scale, 'New'),
          device(lamp),
        ],
      ]);
      await subscription.cancel();
    });

    // Fails without static final _lists.
    test('is one stream, whole for each listener', () async {
      final FakeBluetoothPlugin plugin = fakePlugin();
      plugin.devices[scale] = device(scale);
      await listen();
      plugin.report(report(scale, 'Scale'));
      await settle();
      expect(
        await discovery.watchDevices().first,
        <BluetoothDevice>[device(scale, 'Scale')],
      );
      expect(heard, hasLength(2));
      expect(plugin.callsOf('getDiscoveredDevices'), hasLength(2));

      await subscription.cancel();
      await settle();
      expect(
        asksOf(plugin, BluetoothChannels.discovery),
        <String>['listen', 'cancel'],
      );
      expect(discovery.watchDevices(), same(discovery.watchDevices()));
      expect(discovery.watchDevices().isBroadcast, isTrue);
    });

    // Fails without resize to 0 in _share: what is long gone is then reported.
    test('begins anew for a listener that comes back', () async {
      final FakeBluetoothPlugin plugin = fakePlugin();
      plugin.devices[scale] = device(scale);
      await listen();
      await subscription.cancel();
      await settle();
      // Sent before the plug-in knew that nobody listens any more.
      pushEvent(
        BluetoothChannels.discovery,
        BluetoothChannelCodec.encodeEvent(report(scale)),
      );
      plugin.devices.remove(scale);
      plugin.devices[lamp] = device(lamp);
      await listen();
      expect(heard, <Object>[
        <BluetoothDevice>[device(lamp)],
      ]);
      await subscription.cancel();
    });

    test('waits for a listener that pauses', () async {
      final FakeBluetoothPlugin plugin = fakePlugin();
      plugin.devices[scale] = device(scale);
      heard = <Object>[];
      subscription = discovery.watchDevices().listen(heard.add)..pause();
      await settle();
      plugin.report(report(scale, 'Scale'));
      await settle();
      expect(heard, isEmpty);
      subscription.resume();
      await settle();
      expect(heard, <Object>[
        <BluetoothDevice>[device(scale)],
        <BluetoothDevice>[device(scale, 'Scale')],
      ]);
      await subscription.cancel();
    });

    // Fails without onCancel in _tellLists: the plug-in still has a listener.
    test('asks nothing more of the plug-in for one that left', () async {
      final Completer<void> arrival = Completer<void>();
      final FakeBluetoothPlugin plugin =
          fakePlugin(onAnswer: (MethodCall call) => arrival.future);
      await listen();
      await subscription.cancel();
      await settle();
      expect(plugin.isListenedTo(BluetoothChannels.discovery), isFalse);
      arrival.complete();
      await settle();
      expect(heard, isEmpty);
    });

    // Fails without onError in _tellLists.
    test('goes on after what the plug-in does not send', () async {
      final List<FlutterErrorDetails> reports = takeReports();
      final FakeBluetoothPlugin plugin = fakePlugin();
      await listen();
      pushNonsense(
        BluetoothChannels.discovery,
        const <String, Object?>{'device': <String, Object?>{}},
      );
      plugin.report(report(scale));
      await settle();
      expect(heard, <Object>[
        <BluetoothDevice>[],
        ...nonsense,
        <BluetoothDevice>[device(scale)],
      ]);
      expect(reports.single.exception, isA<FormatException>());
      await subscription.cancel();
    });

    // Fails without catch in _tellLists, or when that does not set isListed.
    test('goes on after an answer that is none', () async {
      final FakeBluetoothPlugin plugin = fakePlugin();
      plugin.answers['getDiscoveredDevices'] = 12;
      await listen();
      expect(heard, <Object>[isA<TypeError>()]);
      plugin.report(report(scale));
      await settle();
      expect(heard.last, <BluetoothDevice>[device(scale)]);
      await subscription.cancel();
    });

    // Fails without unmodifiable in _tellLists.
    test('cannot be changed', () async {
      fakePlugin();
      await listen();
      final List<BluetoothDevice> list =
          heard.single as List<BluetoothDevice>;
      expect(() => list.add(device(scale)), throwsUnsupportedError);
      await subscription.cancel();
    });
  });
}
