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
  const BluetoothBonding bonding = BluetoothBonding();
  const BluetoothDiscovery discovery = BluetoothDiscovery();
  const BluetoothProber prober = BluetoothProber();
  late FakeBluetoothPlugin plugin;

  setUp(() {
    plugin = fakePlugin();
    plugin.report(const DeviceReport(BluetoothDevice(address: scale)));
  });

  test('answers for an adapter that is on', () async {
    expect(await adapter.isAvailable(), isTrue);
    expect(await adapter.isEnabled(), isTrue);
    expect(await adapter.getState(), BluetoothAdapterState.on);
    expect(await adapter.getAddress(), plugin.address);
    expect(await adapter.getName(), plugin.name);
    expect(await adapter.getPlatformVersion(), startsWith('Linux '));
    expect(await BluetoothChannels.request('isOn'), isTrue);
    for (final String method in BluetoothChannels.fixedAnswers) {
      expect(await BluetoothChannels.request(method), isFalse);
    }
  });

  test('answers without an adapter', () async {
    plugin.isAvailable = false;
    expect(await adapter.isAvailable(), isFalse);
    expect(await adapter.isEnabled(), isFalse);
    expect(await adapter.getState(), BluetoothAdapterState.off);
    expect(await adapter.getAddress(), isNull);
    expect(await adapter.getName(), isNull);
    expect(await discovery.start(), isFalse);
    expect(await discovery.cancel(), isFalse);
    expect(await discovery.knownDevices(), isEmpty);
    expect(await bonding.bond(scale), isFalse);
    expect(await bonding.removeBond(scale), isFalse);
    await expectLater(
      BluetoothConnection.open(scale),
      throwsCode(BluetoothException.invalid),
    );
  });

  test('is none once it is removed', () async {
    plugin.remove();
    await expectLater(
      adapter.isAvailable(),
      throwsCode(BluetoothException.noPlugin),
    );
  });

  test('turns its adapter off with discovery and connections', () async {
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    expect(await discovery.start(), isTrue);
    plugin.state = BluetoothAdapterState.off;
    expect(await adapter.isEnabled(), isFalse);
    expect(await discovery.isDiscovering(), isFalse);
    expect(await discovery.start(), isFalse);
    expect(await discovery.cancel(), isFalse);
    expect(await connection.received.isEmpty, isTrue);
    await connection.close();
  });

  test('leaves a discovery of another program alone', () async {
    plugin.isDiscovering = true;
    expect(await discovery.start(), isTrue);
    expect(await discovery.cancel(), isTrue);
    expect(await discovery.isDiscovering(), isTrue);

    plugin.isDiscovering = false;
    expect(await discovery.start(), isTrue);
    expect(await discovery.isDiscovering(), isTrue);
    expect(await discovery.cancel(), isTrue);
    expect(await discovery.isDiscovering(), isFalse);
  });

  test('bonds with devices that it knows', () async {
    expect(await bonding.bond(thermometer), isFalse);
    expect(await bonding.bond(scale), isTrue);
    expect(await bonding.isBonded(scale), isTrue);
    expect(await bonding.bond(scale), isFalse);
    expect(await discovery.bondedDevices(), hasLength(1));
    expect(await bonding.removeBond(scale), isTrue);
    expect(await bonding.isBonded(scale), isFalse);
    expect(await discovery.knownDevices(), isEmpty);
  });

  test('reports devices to listeners, and keeps them', () async {
    final Future<List<DiscoveryEvent>> events =
        discovery.events.take(3).toList();
    await discovery.isDiscovering();
    expect(plugin.isListenedTo(BluetoothChannels.discovery), isTrue);
    const DeviceReport report =
        DeviceReport(BluetoothDevice(address: thermometer, rssi: -70));
    plugin.report(report);
    plugin.report(const SignalReading(scale, -57));
    plugin.report(const DeviceLoss(scale));
    expect(await events, const <DiscoveryEvent>[
      report,
      SignalReading(scale, -57),
      DeviceLoss(scale),
    ]);
    expect(await discovery.knownDevices(), <BluetoothDevice>[
      const BluetoothDevice(address: scale),
      report.device,
    ]);
    expect(plugin.isListenedTo(BluetoothChannels.discovery), isFalse);
  });

  test('holds the other end of a connection', () async {
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    final FakeBluetoothConnection device = plugin.connections.single;
    expect(device.id, connection.id);
    expect(device.address, scale);
    device.onWrite = device.send;

    final Future<List<Uint8List>> received = connection.received.toList();
    expect(await connection.writeText('hello'), isTrue);
    device.send(List<int>.filled(2049, 7));
    device.end();
    expect(await received, <List<int>>[
      'hello'.codeUnits,
      List<int>.filled(2048, 7),
      <int>[7],
    ]);
    expect(device.receivedText, 'hello');
    expect(await connection.writeText('more'), isFalse);
    expect(device.isOpen, isTrue);
    expect(await connection.close(), isTrue);
    expect(device.isOpen, isFalse);
  });

  test('takes one connection to a device', () async {
    final BluetoothConnection first = await BluetoothConnection.open(scale);
    await expectLater(
      BluetoothConnection.open(scale),
      throwsCode(BluetoothException.unreachable),
    );
    await first.close();
    final BluetoothConnection second = await BluetoothConnection.open(scale);
    expect(second.id, greaterThan(first.id));
    await second.close();
  });

  // Fails without isThere in _makeConnection.
  test('forgets the channel of a closed connection', () async {
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    final MethodChannel channel =
        MethodChannel(BluetoothChannels.read(connection.id).name);
    await connection.close();
    await expectLater(
      channel.invokeMethod<void>('cancel'),
      throwsA(isA<MissingPluginException>()),
    );
  });

  test('refuses devices that are not there', () async {
    plugin.unreachable.add(scale);
    for (final String address in <String>[scale, thermometer]) {
      await expectLater(
        BluetoothConnection.open(address),
        throwsCode(BluetoothException.unreachable),
      );
    }
    expect(plugin.connections, isEmpty);
  });

  test('answers in order, and waits for whom it is told to', () async {
    final Completer<void> pairing = Completer<void>();
    plugin.onRequest = (MethodCall call) =>
        call.method == 'bondDevice' ? pairing.future : null;
    final List<String> answered = <String>[];
    final Future<void> both = Future.wait(<Future<void>>[
      bonding.bond(scale).then((bool _) => answered.add('bond')),
      adapter.isEnabled().then((bool _) => answered.add('isEnabled')),
    ]);
    await Future<void>.delayed(Duration.zero);
    expect(answered, isEmpty);
    expect(plugin.callsOf('isEnabled'), hasLength(1));
    pairing.complete();
    await both;
    expect(answered, <String>['bond', 'isEnabled']);
  });

  test('answers what it is told to', () async {
    plugin.answers['startDiscovery'] = false;
    expect(await discovery.start(), isFalse);
    plugin.onRequest =
        (MethodCall call) => throw PlatformException(code: 'EBUSY');
    await expectLater(discovery.start(), throwsCode('EBUSY'));
  });

  test('keeps the secret', () async {
    await prober.setSecret('0123456789');
    expect(plugin.secret, '0123456789');
  });

  // Where the test library's own stream mocks hang, and with a fake that was
  // made outside the zone of the test.
  testWidgets('ends streams in a widget test', (WidgetTester tester) async {
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    final Future<List<String>> lines = connection.lines.toList();
    plugin.connections.single
      ..sendText('21 °C\r\n')
      ..end();
    expect(await lines, <String>['21 °C']);
    expect(await connection.close(), isTrue);
  });

  // Fails when onCancel of one of them gives a future.
  testWidgets('lets a widget test wait for an element',
      (WidgetTester tester) async {
    expect(await adapter.states.first, BluetoothAdapterState.on);
    expect(await discovery.watchDevices().first, hasLength(1));
    expect(await prober.readings.first, isEmpty);
  });
}
