import 'dart:async';

import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';
import 'package:lumso_bluetooth/testing.dart';

import 'support.dart';

void main() {
  TestWidgetsFlutterBinding.ensureInitialized();

  test('gives a method its arguments and returns its answer', () async {
    final FakeBluetoothPlugin plugin = fakePlugin();
    plugin.answers['getBondState'] = 12;
    final int? state = await BluetoothChannels.invoke<int>(
      'getBondState',
      <String, Object?>{'address': scale},
    );
    expect(state, 12);
    expect(
      plugin.callsOf('getBondState').single.arguments,
      <String, Object?>{'address': scale},
    );
  });

  test('turns an error answer into an exception', () async {
    fakePlugin();
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
    fakePlugin().answers['getState'] = 'twelve';
    await expectLater(
      const BluetoothAdapter().getState(),
      throwsA(isA<TypeError>()),
    );
  });

  test('reaches the fixed answers and the second names', () async {
    final FakeBluetoothPlugin plugin = fakePlugin();
    expect(BluetoothChannels.fixedAnswers, hasLength(8));
    for (final String method in BluetoothChannels.fixedAnswers) {
      expect(await BluetoothChannels.invoke<Object?>(method), isFalse);
      expect(plugin.callsOf(method), hasLength(1));
    }
    expect(BluetoothChannels.aliases, hasLength(2));
    for (final String method in BluetoothChannels.aliases.keys) {
      expect(
        await BluetoothChannels.invoke<Object?>(method),
        await BluetoothChannels.invoke<Object?>(
          BluetoothChannels.aliases[method]!,
        ),
      );
      expect(plugin.callsOf(method), hasLength(1));
    }
  });

  test('listens to the debug channel', () async {
    final FakeBluetoothPlugin plugin = fakePlugin();
    final StreamSubscription<Object?> subscription =
        BluetoothChannels.debugEvents.listen((Object? event) {});
    await settle();
    expect(plugin.isListenedTo(BluetoothChannels.debug), isTrue);
    await subscription.cancel();
    await settle();
    expect(plugin.isListenedTo(BluetoothChannels.debug), isFalse);
  });

  test('tells an exception in a sentence', () {
    expect(
      const BluetoothException('ECONN', 'RFCOMM connect failed').toString(),
      'BluetoothException(ECONN): RFCOMM connect failed',
    );
  });
}
