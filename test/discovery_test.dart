import 'dart:async';

import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';

import 'support.dart';

const Map<String, Object?> reading = <String, Object?>{
  'type': 'rssiUpdate',
  'address': scale,
  'rssi': -57,
};

const Map<String, Object?> loss = <String, Object?>{
  'type': 'deviceLost',
  'address': scale,
};

Map<String, Object?> report([String name = 'Scale']) =>
    <String, Object?>{'device': deviceMap(name: name)};

BluetoothDevice device([String name = 'Scale']) =>
    BluetoothDevice(address: scale, name: name, rssi: -60);

void main() {
  TestWidgetsFlutterBinding.ensureInitialized();
  const BluetoothDiscovery discovery = BluetoothDiscovery();

  test('asks the plug-in, without arguments', () async {
    for (final bool answer in <bool>[true, false]) {
      final List<MethodCall> calls = mockMethods((MethodCall call) => answer);
      expect(await discovery.isDiscovering(), answer);
      expect(await discovery.start(), answer);
      expect(await discovery.cancel(), answer);
      expect(
        calls.map((MethodCall call) => call.method).toList(),
        <String>['isDiscovering', 'startDiscovery', 'cancelDiscovery'],
      );
      for (final MethodCall call in calls) {
        expect(call.arguments, isNull);
      }
    }
  });

  test('lists devices in the order given', () async {
    final List<MethodCall> calls = mockMethods(
      (MethodCall call) => <Object?>[
        deviceMap(),
        deviceMap(name: 'Thermometer'),
      ],
    );
    expect(
      await discovery.knownDevices(),
      <BluetoothDevice>[device(), device('Thermometer')],
    );
    expect(await discovery.bondedDevices(), hasLength(2));
    expect(
      calls.map((MethodCall call) => call.method).toList(),
      <String>['getDiscoveredDevices', 'getBondedDevices'],
    );
  });

  test('lists nothing without an adapter', () async {
    for (final Object? answer in <Object?>[const <Object?>[], null]) {
      mockMethods((MethodCall call) => answer);
      expect(await discovery.knownDevices(), isEmpty);
      expect(await discovery.bondedDevices(), isEmpty);
    }
  });

  test('takes no answer as false', () async {
    mockMethods((MethodCall call) => null);
    expect(await discovery.isDiscovering(), isFalse);
    expect(await discovery.start(), isFalse);
    expect(await discovery.cancel(), isFalse);
  });

  test('streams every kind of event and leaves out unknown ones', () async {
    final MockStream channel = MockStream(BluetoothChannels.discovery);
    final Future<List<DiscoveryEvent>> received =
        discovery.events.take(3).toList();
    final MockStreamHandlerEventSink events = await channel.events;
    events.success(report());
    events.success(const <String, Object?>{'type': 'unheardOf'});
    events.success(const <String, Object?>{});
    events.success(12);
    events.success(reading);
    events.success(loss);

    expect(await received, <DiscoveryEvent>[
      DeviceReport(device()),
      const SignalReading(scale, -57),
      const DeviceLoss(scale),
    ]);
  });

  test('streams the devices alone', () async {
    final MockStream channel = MockStream(BluetoothChannels.discovery);
    final Future<List<BluetoothDevice>> received =
        discovery.devices.take(2).toList();
    final MockStreamHandlerEventSink events = await channel.events;
    events.success(report());
    events.success(reading);
    events.success(report('Thermometer'));

    expect(await received, <BluetoothDevice>[device(), device('Thermometer')]);
  });

  test('shares one stream among its listeners', () async {
    final MockStream channel = MockStream(BluetoothChannels.discovery);
    final Future<DiscoveryEvent> event = discovery.events.first;
    final Future<BluetoothDevice> reported = discovery.devices.first;
    (await channel.events).success(report());

    expect(await event, DeviceReport(device()));
    expect(await reported, device());
    await channel.cancelled;
    expect(channel.listens, 1);
    expect(channel.cancels, 1);
    expect(discovery.events, same(discovery.events));
    expect(discovery.devices, same(discovery.devices));
  });

  test('listens again after its last listener has gone', () async {
    for (int time = 0; time < 2; time++) {
      final MockStream channel = MockStream(BluetoothChannels.discovery);
      final Future<DiscoveryEvent> event = discovery.events.first;
      (await channel.events).success(loss);
      expect(await event, const DeviceLoss(scale));
      await channel.cancelled;
      expect(channel.listens, 1);
    }
  });

  test('gives nothing to a listener that has gone', () async {
    final MockStream channel = MockStream(BluetoothChannels.discovery);
    final List<DiscoveryEvent> heard = <DiscoveryEvent>[];
    final StreamSubscription<DiscoveryEvent> subscription =
        discovery.events.listen(heard.add);
    final Future<DiscoveryEvent> other = discovery.events.first;
    final MockStreamHandlerEventSink events = await channel.events;
    await subscription.cancel();
    expect(channel.cancels, 0);

    events.success(loss);
    expect(await other, const DeviceLoss(scale));
    await channel.cancelled;
    expect(heard, isEmpty);
  });

  test('has events that equal those of the same values', () {
    final List<DiscoveryEvent> events = <DiscoveryEvent>[
      DeviceReport(device()),
      DeviceReport(device('Thermometer')),
      const SignalReading(scale, -57),
      const SignalReading(scale, -58),
      const SignalReading('00:00:00:00:00:00', -57),
      const DeviceLoss(scale),
      const DeviceLoss('00:00:00:00:00:00'),
    ];
    expect(events.toSet(), hasLength(events.length));
    expect(DeviceReport(device()), DeviceReport(device()));
    expect(DeviceReport(device()).hashCode, DeviceReport(device()).hashCode);
    expect(const DeviceLoss(scale).toString(), 'DeviceLoss($scale)');
    expect(
      const SignalReading(scale, -57).toString(),
      'SignalReading($scale, -57 dBm)',
    );
    expect(
      DeviceReport(device()).toString(),
      'DeviceReport(${device()})',
    );
  });
}
