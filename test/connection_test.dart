import 'dart:convert';

import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';

import 'support.dart';

Uint8List bytes(String text) => Uint8List.fromList(utf8.encode(text));

/// The plug-in with one device, which takes every connection.
class MockDevice {
  MockDevice({
    this.id = 1,
    bool answer = true,
    void Function(MockStreamHandlerEventSink events)? onListen,
  }) : stream = MockStream(BluetoothChannels.read(id), onListen: onListen) {
    calls = mockMethods(
      (MethodCall call) => call.method == 'connect' ? id : answer,
    );
  }

  final int id;
  final MockStream stream;
  late final List<MethodCall> calls;

  /// The calls of a method, each as its arguments.
  List<Object?> argumentsOf(String method) => <Object?>[
        for (final MethodCall call in calls)
          if (call.method == method) call.arguments,
      ];
}

void main() {
  TestWidgetsFlutterBinding.ensureInitialized();

  test('gives the plug-in the address and listens', () async {
    final MockDevice device = MockDevice(id: 7);
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    expect(device.argumentsOf('connect'), <Object?>[
      <String, Object?>{'address': scale},
    ]);
    expect(connection.id, 7);
    expect(connection.address, scale);
    expect(connection.toString(), 'BluetoothConnection(7, $scale)');
    expect(device.stream.listens, 1);
    await connection.close();
  });

  test('throws both errors of the plug-in', () async {
    for (final String code in <String>[
      BluetoothException.invalid,
      BluetoothException.unreachable,
    ]) {
      mockMethods((MethodCall call) => throw PlatformException(code: code));
      await expectLater(BluetoothConnection.open(scale), throwsCode(code));
    }
  });

  test('is none without an id', () async {
    mockMethods((MethodCall call) => null);
    await expectLater(
      BluetoothConnection.open(scale),
      throwsCode(BluetoothException.unreachable),
    );
  });

  test('keeps what comes before its listener', () async {
    MockDevice(
      onListen: (MockStreamHandlerEventSink events) {
        events.success(bytes('a'));
        events.success(bytes('b'));
        events.endOfStream();
      },
    );
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    await settle();
    expect(await connection.received.toList(), <List<int>>[
      bytes('a'),
      bytes('b'),
    ]);
    await connection.close();
  });

  test('ends when the device closes, and is closed then', () async {
    final MockDevice device = MockDevice(id: 3);
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    final Future<List<Uint8List>> received = connection.received.toList();
    final MockStreamHandlerEventSink events = await device.stream.events;
    events.success(bytes('last'));
    events.endOfStream();
    expect(await received, <List<int>>[bytes('last')]);
    expect(device.argumentsOf('disconnect'), isEmpty);

    expect(await connection.close(), isTrue);
    expect(device.argumentsOf('disconnect'), <Object?>[
      <String, Object?>{'id': 3},
    ]);
  });

  test('ends its stream when it is closed', () async {
    final MockDevice device = MockDevice();
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    final Future<List<Uint8List>> received = connection.received.toList();
    expect(await connection.close(), isTrue);
    expect(await received, isEmpty);
    await device.stream.cancelled;
  });

  test('lets its stream be listened to after it was closed', () async {
    final MockDevice device = MockDevice();
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    (await device.stream.events).success(bytes('kept'));
    await settle();
    await connection.close();
    expect(await connection.received.toList(), <List<int>>[bytes('kept')]);
  });

  test('is closed once and for all', () async {
    final MockDevice device = MockDevice();
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    final List<bool> answers = await Future.wait(<Future<bool>>[
      connection.close(),
      connection.close(),
    ]);
    expect(answers, <bool>[true, true]);
    expect(await connection.close(), isTrue);
    expect(device.argumentsOf('disconnect'), hasLength(1));
    await device.stream.cancelled;
    expect(device.stream.cancels, 1);
  });

  test('says when there was nothing to close', () async {
    MockDevice(answer: false);
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    expect(await connection.close(), isFalse);
  });

  test('ends its stream also when the plug-in has gone', () async {
    MockDevice();
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    final Future<List<Uint8List>> received = connection.received.toList();
    removeMethods();
    await expectLater(
      connection.close(),
      throwsCode(BluetoothException.noPlugin),
    );
    expect(await received, isEmpty);
  });

  test('writes any list as bytes', () async {
    final MockDevice device = MockDevice(id: 5);
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    expect(await connection.write(<int>[104, 105, 256 + 33]), isTrue);
    expect(await connection.write(bytes('hi!')), isTrue);
    expect(await connection.writeText('hi!'), isTrue);
    final List<Object?> writes = device.argumentsOf('write');
    expect(writes, hasLength(3));
    for (final Object? arguments in writes) {
      final Map<Object?, Object?> map = arguments as Map<Object?, Object?>;
      expect(map['id'], 5);
      expect(map['bytes'], isA<Uint8List>());
      expect(map['bytes'], <int>[104, 105, 33]);
      expect(map, hasLength(2));
    }
    await connection.close();
  });

  test('writes nothing without asking', () async {
    final MockDevice device = MockDevice(answer: false);
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    expect(await connection.write(const <int>[]), isTrue);
    expect(await connection.writeText(''), isTrue);
    expect(device.argumentsOf('write'), isEmpty);
    await connection.close();
  });

  test('says when bytes were not taken', () async {
    MockDevice(answer: false);
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    expect(await connection.writeText('hi'), isFalse);
    await connection.close();
  });

  test('puts lines together', () async {
    final MockDevice device = MockDevice();
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    final Future<List<String>> lines = connection.lines.toList();
    final MockStreamHandlerEventSink events = await device.stream.events;
    final Uint8List degrees = bytes('21 \u00b0C\r\n');
    events.success(degrees.sublist(0, 4));
    events.success(degrees.sublist(4, 7));
    events.success(degrees.sublist(7));
    events.success(bytes('one\ntwo\rthree'));
    events.success(Uint8List.fromList(<int>[0xff, 0x0a]));
    events.success(bytes('end'));
    events.endOfStream();
    expect(await lines, <String>[
      '21 \u00b0C',
      'one',
      'two',
      'three\ufffd',
      'end',
    ]);
    await connection.close();
  });

  test('keeps its stream apart from other connections', () async {
    final MockDevice first = MockDevice(id: 1);
    final BluetoothConnection one = await BluetoothConnection.open(scale);
    final MockDevice second = MockDevice(id: 2);
    final BluetoothConnection two = await BluetoothConnection.open(scale);
    final Future<List<Uint8List>> ofOne = one.received.toList();
    final Future<List<Uint8List>> ofTwo = two.received.toList();
    (await first.stream.events).success(bytes('one'));
    (await second.stream.events).success(bytes('two'));
    (await first.stream.events).endOfStream();
    (await second.stream.events).endOfStream();
    expect(await ofOne, <List<int>>[bytes('one')]);
    expect(await ofTwo, <List<int>>[bytes('two')]);
    await one.close();
    await two.close();
  });
}
