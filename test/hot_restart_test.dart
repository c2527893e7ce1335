import 'dart:async';

import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';
import 'package:lumso_bluetooth/testing.dart';

import 'support.dart';

// The last case has to be that: an isolate gets its first id only once.
void main() {
  TestWidgetsFlutterBinding.ensureInitialized();
  late FakeBluetoothPlugin plugin;

  setUp(() {
    plugin = fakePlugin();
    plugin.devices[scale] = const BluetoothDevice(address: scale);
  });

  List<Object?> takeDisconnects() {
    final List<Object?> ids = <Object?>[
      for (final MethodCall call in plugin.callsOf('disconnect'))
        (call.arguments as Map<Object?, Object?>)['id'],
    ];
    plugin.requests.clear();
    return ids;
  }

  List<int> upTo(int last) => <int>[for (int id = 1; id <= last; id++) id];

  test('closes up to a limit, and leaves open what is above it', () async {
    final FakeBluetoothConnection first = plugin.leaveOpen(scale);
    final FakeBluetoothConnection second = plugin.leaveOpen(thermometer);
    expect(await BluetoothConnection.closeForgotten(limit: first.id), 1);
    expect(takeDisconnects(), upTo(first.id));
    expect(first.isOpen, isFalse);
    expect(second.isOpen, isTrue);
  });

  // Fails with another default of limit.
  test('closes up to 100 without a limit', () async {
    plugin.leaveOpen(scale);
    expect(await BluetoothConnection.closeForgotten(), 1);
    expect(takeDisconnects(), upTo(100));
  });

  test('closes nothing while a connection is on its way', () async {
    final Completer<void> connecting = Completer<void>();
    plugin.unreachable.add(scale);
    plugin.onRequest = (MethodCall call) =>
        call.method == 'connect' ? connecting.future : null;
    final Future<int> closed = BluetoothConnection.closeForgotten();
    final Future<void> refused = expectLater(
      BluetoothConnection.open(scale),
      throwsCode(BluetoothException.unreachable),
    );
    // It may get any id.
    expect(await closed, 0);
    expect(takeDisconnects(), upTo(1));
    expect(await BluetoothConnection.closeForgotten(), 0);
    expect(takeDisconnects(), isEmpty);

    // It failed, so there is still no id.
    connecting.complete();
    await refused;
    expect(await BluetoothConnection.closeForgotten(limit: 2), 0);
    expect(takeDisconnects(), upTo(2));
  });

  test('throws where there is no plug-in', () async {
    disappear(plugin);
    await expectLater(
      BluetoothConnection.closeForgotten(),
      throwsCode(BluetoothException.noPlugin),
    );
  });

  // Fails without _makeRoom in closeForgotten.
  test('tells an open that did not wait which id it can get', () async {
    final FakeBluetoothConnection last = plugin.leaveOpen(thermometer);
    final Completer<void> connecting = Completer<void>();
    late final Future<void> refused;
    plugin.unreachable.add(scale);
    plugin.onRequest = (MethodCall call) {
      if (call.method == 'connect') return connecting.future;
      if ((call.arguments as Map<Object?, Object?>)['id'] == last.id) {
        refused = expectLater(
          BluetoothConnection.open(scale),
          throwsCode(BluetoothException.unreachable),
        );
      }
      return null;
    };
    expect(await BluetoothConnection.closeForgotten(), 1);

    // It gets no id, so the next device sends in its place.
    final FakeBluetoothConnection next = plugin.leaveOpen(thermometer)
      ..sendText('a')
      ..sendText('b');
    connecting.complete();
    await refused;
    plugin.onRequest = null;
    final List<Object?> kept = <Object?>[];
    final EventChannel channel = BluetoothChannels.read(next.id);
    final StreamSubscription<Object?> subscription =
        channel.receiveBroadcastStream().listen(kept.add);
    await settle();
    await subscription.cancel();
    expect(next.id, last.id + 1);
    expect(kept, <List<int>>['a'.codeUnits, 'b'.codeUnits]);
  });

  // Fails without _highestId in closeForgotten.
  test('tells the first open which id it can get', () async {
    final FakeBluetoothConnection last = plugin.leaveOpen(thermometer);
    expect(await BluetoothConnection.closeForgotten(), 1);
    takeDisconnects();

    plugin.onConnect = (FakeBluetoothConnection device) => device
      ..sendText('a')
      ..sendText('b')
      ..end();
    final BluetoothConnection own = await BluetoothConnection.open(scale);
    expect(own.id, last.id + 1);
    expect(await own.received.toList(), <List<int>>[
      'a'.codeUnits,
      'b'.codeUnits,
    ]);

    // From now on up to the first id of one's own.
    expect(await BluetoothConnection.closeForgotten(limit: 3), 0);
    expect(takeDisconnects(), upTo(last.id));
    final BluetoothConnection other = await BluetoothConnection.open(scale);
    takeDisconnects();
    expect(await BluetoothConnection.closeForgotten(), 0);
    expect(takeDisconnects(), upTo(last.id));
    expect(await own.close(), isTrue);
    expect(await other.close(), isTrue);
    expect(takeDisconnects(), <int>[own.id, other.id]);
  });
}
