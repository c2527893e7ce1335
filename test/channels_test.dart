import 'dart:async';

import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';

import 'support.dart';

void main() {
  TestWidgetsFlutterBinding.ensureInitialized();

  test('gives a method its arguments and returns its answer', () async {
    final List<MethodCall> calls = mockMethods((MethodCall call) => 12);

    final int? state = await BluetoothChannels.invoke<int>(
      'getBondState',
      <String, Object?>{'address': scale},
    );
    expect(state, 12);
    expect(calls.single.method, 'getBondState');
    expect(calls.single.arguments, <String, Object?>{'address': scale});
  });

  test('turns an error answer into an exception', () async {
    mockMethods(
      (MethodCall call) => throw PlatformException(
        code: 'EINVAL',
        message: 'secret missing',
      ),
    );

    await expectLater(
      BluetoothChannels.invoke<Object?>('setAuthSecret'),
      throwsA(
        isA<BluetoothException>()
            .having(
              (BluetoothException error) => error.code,
              'code',
              BluetoothException.invalid,
            )
            .having(
              (BluetoothException error) => error.message,
              'message',
              'secret missing',
            ),
      ),
    );
  });

  test('says when there is no plug-in', () async {
    await expectLater(
      const BluetoothAdapter().isAvailable(),
      throwsCode(BluetoothException.noPlugin),
    );
    await expectLater(
      BluetoothConnection.open(scale),
      throwsCode(BluetoothException.noPlugin),
    );
  });

  test('refuses an answer of another type', () async {
    mockMethods((MethodCall call) => 'twelve');
    await expectLater(
      const BluetoothAdapter().getState(),
      throwsA(isA<TypeError>()),
    );
  });

  test('reaches the fixed answers and the second names', () async {
    final List<MethodCall> calls = mockMethods((MethodCall call) => false);
    final List<String> methods = <String>[
      ...BluetoothChannels.fixedAnswers,
      ...BluetoothChannels.aliases.keys,
    ];
    for (final String method in methods) {
      expect(await BluetoothChannels.invoke<Object?>(method), isFalse);
    }
    expect(calls.map((MethodCall call) => call.method).toList(), methods);
    expect(methods, hasLength(10));
  });

  test('listens to the debug channel', () async {
    final MockStream debug = MockStream(BluetoothChannels.debug);
    final StreamSubscription<Object?> subscription =
        BluetoothChannels.debugEvents.listen((Object? event) {});
    await debug.events;
    await subscription.cancel();
    await debug.cancelled;
    expect(debug.listens, 1);
    expect(debug.cancels, 1);
  });

  test('tells an exception in a sentence', () {
    expect(
      const BluetoothException('ECONN', 'RFCOMM connect failed').toString(),
      'BluetoothException(ECONN): RFCOMM connect failed',
    );
  });
}
