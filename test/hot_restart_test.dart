import 'dart:async';

import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';

import 'support.dart';

void main() {
  TestWidgetsFlutterBinding.ensureInitialized();

  // One case: an isolate gets its first id only once.
  test('closes what an earlier time left open, and nothing else', () async {
    const Set<int> forgotten = <int>{2, 4, 9};
    Completer<int> connecting = Completer<int>();
    final List<MethodCall> calls = mockMethods((MethodCall call) {
      if (call.method == 'connect') return connecting.future;
      final Map<Object?, Object?> arguments =
          call.arguments as Map<Object?, Object?>;
      return forgotten.contains(arguments['id']);
    });
    List<Object?> takeDisconnects() {
      final List<Object?> ids = <Object?>[
        for (final MethodCall call in calls)
          if (call.method == 'disconnect')
            (call.arguments as Map<Object?, Object?>)['id'],
      ];
      calls.clear();
      return ids;
    }

    // Nothing is open yet: up to the limit.
    expect(await BluetoothConnection.closeForgotten(limit: 5), 2);
    expect(takeDisconnects(), <int>[1, 2, 3, 4, 5]);

    // A connection is on its way and may get any id.
    final Future<int> closed = BluetoothConnection.closeForgotten();
    final Future<BluetoothConnection> refused = BluetoothConnection.open(scale);
    expect(await closed, 0);
    expect(takeDisconnects(), <int>[1]);
    expect(await BluetoothConnection.closeForgotten(), 0);
    expect(takeDisconnects(), isEmpty);

    // It failed, so there is still no id.
    connecting.completeError(PlatformException(code: 'ECONN'));
    await expectLater(refused, throwsCode(BluetoothException.unreachable));
    expect(await BluetoothConnection.closeForgotten(limit: 1), 0);
    expect(takeDisconnects(), <int>[1]);

    // Two connections: up to the first one's id.
    MockStream(BluetoothChannels.read(7));
    MockStream(BluetoothChannels.read(8));
    final List<BluetoothConnection> own = <BluetoothConnection>[];
    for (final int id in <int>[7, 8]) {
      connecting = Completer<int>()..complete(id);
      own.add(await BluetoothConnection.open(scale));
    }
    calls.clear();
    expect(await BluetoothConnection.closeForgotten(limit: 3), 2);
    expect(takeDisconnects(), <int>[1, 2, 3, 4, 5, 6]);

    for (final BluetoothConnection connection in own) {
      await connection.close();
    }
    expect(takeDisconnects(), <int>[7, 8]);
  });
}
