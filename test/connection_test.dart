import 'dart:async';
import 'dart:convert';

import 'package:flutter/foundation.dart';
import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';
import 'package:lumso_bluetooth/testing.dart';

import 'support.dart';

Uint8List bytes(String text) => Uint8List.fromList(utf8.encode(text));

void main() {
  TestWidgetsFlutterBinding.ensureInitialized();
  late FakeBluetoothPlugin plugin;

  setUp(() {
    plugin = fakePlugin();
    for (final String address in <String>[scale, thermometer]) {
      plugin.devices[address] = BluetoothDevice(address: address);
    }
  });

  test('gives the plug-in the address and listens', () async {
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    await settle();
    final int id = plugin.connections.single.id;
    expect(
      plugin.callsOf('connect').single.arguments,
      <String, Object?>{'address': scale},
    );
    expect(connection.id, id);
    expect(connection.address, scale);
    expect(connection.toString(), 'BluetoothConnection($id, $scale)');
    expect(asksOf(plugin, BluetoothChannels.read(id)), <String>['listen']);
    await connection.close();
  });

  test('throws both errors of the plug-in', () async {
    for (final String code in <String>[
      BluetoothException.invalid,
      BluetoothException.unreachable,
    ]) {
      plugin.onRequest =
          (MethodCall call) => throw PlatformException(code: code);
      await expectLater(BluetoothConnection.open(scale), throwsCode(code));
    }
  });

  test('is none without an id', () async {
    plugin.answers['connect'] = null;
    await expectLater(
      BluetoothConnection.open(scale),
      throwsCode(BluetoothException.unreachable),
    );
  });

  test('keeps what comes before its listener', () async {
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    await settle();
    plugin.connections.single
      ..sendText('a')
      ..sendText('b')
      ..end();
    await settle();
    expect(await connection.received.toList(), <List<int>>[
      bytes('a'),
      bytes('b'),
    ]);
    await connection.close();
  });

  test('keeps what comes while its listener pauses', () async {
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    final List<Uint8List> received = <Uint8List>[];
    final StreamSubscription<Uint8List> subscription =
        connection.received.listen(received.add)..pause();
    await settle();
    plugin.connections.single
      ..sendText('a')
      ..sendText('b');
    await settle();
    expect(received, isEmpty);
    subscription.resume();
    await settle();
    expect(received, <List<int>>[bytes('a'), bytes('b')]);
    await connection.close();
  });

  test('ends when the device closes, and is closed then', () async {
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    final Future<List<Uint8List>> received = connection.received.toList();
    await settle();
    plugin.connections.single
      ..sendText('last')
      ..end();
    expect(await received, <List<int>>[bytes('last')]);
    expect(plugin.callsOf('disconnect'), isEmpty);

    expect(await connection.close(), isTrue);
    expect(
      plugin.callsOf('disconnect').single.arguments,
      <String, Object?>{'id': connection.id},
    );
  });

  test('ends its stream when it is closed', () async {
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    final Future<List<Uint8List>> received = connection.received.toList();
    expect(await connection.close(), isTrue);
    expect(await received, isEmpty);
  });

  test('lets its stream be listened to after it was closed', () async {
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    await settle();
    plugin.connections.single.sendText('kept');
    await settle();
    await connection.close();
    expect(await connection.received.toList(), <List<int>>[bytes('kept')]);
  });

  // Fails without _done in _end, once as onDone and once in _close.
  test('is done when the stream has ended, whoever listens', () async {
    for (final bool isClosedHere in <bool>[true, false]) {
      final BluetoothConnection connection =
          await BluetoothConnection.open(scale);
      await settle();
      bool isDone = false;
      final Future<void> done = connection.done.then((_) => isDone = true);
      await settle();
      expect(isDone, isFalse);
      if (isClosedHere) {
        await connection.close();
      } else {
        plugin.connections.last.end();
      }
      await done;
      expect(await connection.close(), isTrue);
    }
  });

  test('is done and closed when its listener has left, too', () async {
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    final List<Uint8List> received = <Uint8List>[];
    await connection.received.listen(received.add).cancel();
    plugin.connections.single
      ..sendText('lost')
      ..end();
    await connection.done;
    expect(received, isEmpty);
    expect(await connection.close(), isTrue);
  });

  test('is closed once and for all', () async {
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    final List<bool> answers = await Future.wait(<Future<bool>>[
      connection.close(),
      connection.close(),
    ]);
    expect(answers, <bool>[true, true]);
    expect(await connection.close(), isTrue);
    expect(plugin.callsOf('disconnect'), hasLength(1));
    expect(
      asksOf(plugin, BluetoothChannels.read(connection.id)),
      <String>['listen', 'cancel'],
    );
  });

  // Fails when _close disconnects before it cancels: the plug-in has dropped
  // the channel by then, and the framework reports an error.
  test('cancels before it disconnects', () async {
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    await settle();
    plugin.requests.clear();
    await connection.close();
    expect(
      <String>[
        for (final FakeBluetoothRequest request in plugin.requests)
          request.call.method,
      ],
      <String>['cancel', 'disconnect'],
    );
  });

  // Fails without discardRead in _close.
  test('leaves nothing of what still comes when it is closed', () async {
    // The plug-in has dropped the channel that is listened to in the end.
    takeReports();
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    await settle();
    final FakeBluetoothConnection device = plugin.connections.single;
    plugin.onRequest = (MethodCall call) {
      if (call.method == 'disconnect') device.sendText('on its way');
      return null;
    };
    await connection.close();
    final EventChannel channel = BluetoothChannels.read(connection.id);
    pushEvent(channel, bytes('late'));

    final List<Object?> kept = <Object?>[];
    final StreamSubscription<Object?> subscription =
        channel.receiveBroadcastStream().listen(kept.add);
    await settle();
    expect(kept, isEmpty);
    await subscription.cancel();
  });

  test('says when there was nothing to close', () async {
    plugin.answers['disconnect'] = false;
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    expect(await connection.close(), isFalse);
  });

  // Fails when _close ends the stream after the answer alone.
  test('ends its stream also when the plug-in has gone', () async {
    final List<FlutterErrorDetails> reports = takeReports();
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    final Future<List<Uint8List>> received = connection.received.toList();
    await settle();
    disappear(plugin);
    await expectLater(
      connection.close(),
      throwsCode(BluetoothException.noPlugin),
    );
    expect(await received, isEmpty);
    await connection.done;
    await settle();
    expect(reports, hasLength(1));
  });

  // Fails without onError or cast in the constructor.
  test('goes on after what the plug-in does not send', () async {
    final List<FlutterErrorDetails> reports = takeReports();
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    final List<Object> heard = <Object>[];
    connection.received.listen(heard.add, onError: heard.add);
    await settle();
    pushNonsense(BluetoothChannels.read(connection.id), 'text');
    plugin.connections.single
      ..sendText('bytes')
      ..end();
    await connection.done;
    await settle();
    expect(heard, <Object>[...nonsense, bytes('bytes')]);
    expect(reports.single.exception, isA<FormatException>());
    await connection.close();
  });

  test('writes any list as bytes', () async {
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    expect(await connection.write(<int>[104, 105, 256 + 33]), isTrue);
    expect(await connection.write(bytes('hi!')), isTrue);
    expect(await connection.writeText('hi!'), isTrue);
    final List<MethodCall> writes = plugin.callsOf('write');
    expect(writes, hasLength(3));
    for (final MethodCall call in writes) {
      final Map<Object?, Object?> map =
          call.arguments as Map<Object?, Object?>;
      expect(map['id'], connection.id);
      expect(map['bytes'], isA<Uint8List>());
      expect(map['bytes'], <int>[104, 105, 33]);
      expect(map, hasLength(2));
    }
    await connection.close();
  });

  test('writes nothing without asking', () async {
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    expect(await connection.write(const <int>[]), isTrue);
    expect(await connection.writeText(''), isTrue);
    expect(plugin.callsOf('write'), isEmpty);
    await connection.close();
  });

  test('says when bytes were not taken', () async {
    plugin.answers['write'] = false;
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    expect(await connection.writeText('hi'), isFalse);
    await connection.close();
  });

  test('puts lines together', () async {
    final BluetoothConnection connection =
        await BluetoothConnection.open(scale);
    final Future<List<String>> lines = connection.lines.toList();
    await settle();
    final Uint8List degrees = bytes('21 \u00b0C\r\n');
    plugin.connections.single
      ..send(degrees.sublist(0, 4))
      ..send(degrees.sublist(4, 7))
      ..send(degrees.sublist(7))
      ..sendText('one\ntwo\rthree')
      ..send(<int>[0xff, 0x0a])
      ..sendText('end')
      ..end();
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
    final BluetoothConnection one = await BluetoothConnection.open(scale);
    final BluetoothConnection two = await BluetoothConnection.open(thermometer);
    final Future<List<Uint8List>> ofOne = one.received.toList();
    final Future<List<Uint8List>> ofTwo = two.received.toList();
    await settle();
    plugin.connections[0].sendText('one');
    plugin.connections[1].sendText('two');
    plugin.connections[0].end();
    plugin.connections[1].end();
    expect(await ofOne, <List<int>>[bytes('one')]);
    expect(await ofTwo, <List<int>>[bytes('two')]);
    await one.close();
    await two.close();
  });

  // What a device sends while its connection is being made reaches Dart before
  // the answer that tells the id.
  group('loses nothing that overtakes the answer', () {
    // Sends so many pieces and the end, all before the answer arrives.
    void sendAtOnce(FakeBluetoothConnection device, {int count = 3}) {
      for (int piece = 0; piece < count; piece++) {
        device.send(<int>[piece % 256]);
      }
      device.end();
    }

    Future<void> expectAll(
      BluetoothConnection connection, {
      int count = 3,
    }) async {
      expect(await connection.received.toList(), <List<int>>[
        for (int piece = 0; piece < count; piece++) <int>[piece % 256],
      ]);
      expect(await connection.close(), isTrue);
    }

    for (final int count in <int>[1, 2, 300, 1023]) {
      // Fails without _makeRoom before the request in open.
      test('of $count pieces and the end', () async {
        plugin.onConnect = (FakeBluetoothConnection device) =>
            sendAtOnce(device, count: count);
        await expectAll(await BluetoothConnection.open(scale), count: count);
      });
    }

    for (final bool isReversed in <bool>[false, true]) {
      final String order = isReversed ? 'the other way round' : 'in order';
      // Fails when _makeRoom makes room for one id alone.
      test('at parallel opens, answered $order', () async {
        final List<Completer<void>> arrivals = <Completer<void>>[];
        final FakeBluetoothPlugin slow = fakePlugin(
          onAnswer: (MethodCall call) {
            if (call.method != 'connect') return null;
            arrivals.add(Completer<void>());
            return arrivals.last.future;
          },
        );
        slow.devices.addAll(plugin.devices);
        slow.onConnect = sendAtOnce;
        final Future<BluetoothConnection> first =
            BluetoothConnection.open(scale);
        final Future<BluetoothConnection> second =
            BluetoothConnection.open(thermometer);
        await settle();
        expect(arrivals, hasLength(2));
        for (final Completer<void> arrival
            in isReversed ? arrivals.reversed : arrivals) {
          arrival.complete();
          await settle();
        }
        await expectAll(await first);
        await expectAll(await second);
      });
    }

    // Fails without _buffered in bufferRead: room that is made again is empty.
    test('when another open begins meanwhile', () async {
      final Completer<void> arrival = Completer<void>();
      final FakeBluetoothPlugin slow = fakePlugin(
        onAnswer: (MethodCall call) =>
            call.method == 'connect' ? arrival.future : null,
      );
      slow.devices.addAll(plugin.devices);
      slow.onConnect = sendAtOnce;
      final Future<BluetoothConnection> first = BluetoothConnection.open(scale);
      await settle();
      final Future<BluetoothConnection> second =
          BluetoothConnection.open(thermometer);
      await settle();
      arrival.complete();
      await expectAll(await first);
      await expectAll(await second);
    });

    // A connect that failed used no id. Fails without _makeRoom in open.
    test('after opens that failed, and beside one', () async {
      plugin.onConnect = sendAtOnce;
      plugin.unreachable.add(thermometer);
      for (int time = 0; time < 3; time++) {
        await expectLater(
          BluetoothConnection.open(thermometer),
          throwsCode(BluetoothException.unreachable),
        );
      }
      final Future<void> failure = expectLater(
        BluetoothConnection.open(thermometer),
        throwsCode(BluetoothException.unreachable),
      );
      await expectAll(await BluetoothConnection.open(scale));
      await failure;
      await expectAll(await BluetoothConnection.open(scale));
    });

    // Fails when open counts ids instead of taking them from the answers.
    test("after one that met a connect of the application's", () async {
      final int? own = await BluetoothChannels.invoke<int>(
        'connect',
        <String, Object?>{'address': thermometer},
      );
      final BluetoothConnection connection =
          await BluetoothConnection.open(scale);
      expect(connection.id, own! + 1);
      await connection.close();
      plugin.onConnect = sendAtOnce;
      await expectAll(await BluetoothConnection.open(scale));
    });

    // Fails without _makeRoom after the answer in open.
    test('at an open that waits while another learns the ids', () async {
      plugin.leaveOpen('00:00:00:00:00:01');
      plugin.leaveOpen('00:00:00:00:00:02');
      final Completer<void> opened = Completer<void>();
      int connects = 0;
      plugin.onRequest = (MethodCall call) =>
          call.method == 'connect' && ++connects == 2 ? opened.future : null;
      plugin.onConnect = (FakeBluetoothConnection device) {
        if (device.address == thermometer) sendAtOnce(device);
      };
      final Future<BluetoothConnection> first = BluetoothConnection.open(scale);
      final Future<BluetoothConnection> second =
          BluetoothConnection.open(thermometer);
      final BluetoothConnection opener = await first;
      opened.complete();
      await expectAll(await second);
      await opener.close();
    });
  });
}
