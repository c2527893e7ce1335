import 'dart:async';

import 'package:flutter/services.dart';
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

  test('listens once to each of its channels, for any number', () async {
    final FakeBluetoothPlugin plugin = fakePlugin();
    final Map<EventChannel, Stream<Object?>> streams =
        <EventChannel, Stream<Object?>>{
      BluetoothChannels.discovery: BluetoothChannels.discoveryEvents,
      BluetoothChannels.state: BluetoothChannels.stateEvents,
      BluetoothChannels.debug: BluetoothChannels.debugEvents,
    };
    for (final MapEntry<EventChannel, Stream<Object?>> each
        in streams.entries) {
      final List<StreamSubscription<Object?>> subscriptions =
          <StreamSubscription<Object?>>[
        for (int listener = 0; listener < 2; listener++)
          each.value.listen((Object? event) {}),
      ];
      await settle();
      for (final StreamSubscription<Object?> subscription in subscriptions) {
        await subscription.cancel();
      }
      await settle();
      expect(asksOf(plugin, each.key), <String>['listen', 'cancel']);
    }
  });

  // Fails when the end of the channel's stream ends that of _share.
  test('goes on when a channel ends that should not', () async {
    fakePlugin();
    final List<Object?> heard = <Object?>[];
    for (int time = 0; time < 2; time++) {
      final StreamSubscription<Object?> subscription = BluetoothChannels
          .debugEvents
          .listen(heard.add, onDone: () => heard.add('done'));
      await settle();
      pushEvent(BluetoothChannels.debug, time);
      pushMessage(BluetoothChannels.debug, null);
      await settle();
      await subscription.cancel();
      await settle();
    }
    expect(heard, <Object?>[0, 1]);
  });

  group('the buffer of a connection', () {
    // No connection gets one of these.
    int id = 1000;
    late EventChannel channel;

    Future<List<Object?>> takeKept() async {
      final List<Object?> kept = <Object?>[];
      final StreamSubscription<Object?> subscription =
          channel.receiveBroadcastStream().listen(kept.add);
      await settle();
      await subscription.cancel();
      await settle();
      return kept;
    }

    void pushNumbers(int count) {
      for (int number = 0; number < count; number++) {
        pushEvent(channel, number);
      }
    }

    void answer(Future<Object?>? Function(MethodCall call)? handler) {
      TestDefaultBinaryMessengerBinding.instance.defaultBinaryMessenger
          .setMockMethodCallHandler(MethodChannel(channel.name), handler);
    }

    setUp(() {
      channel = BluetoothChannels.read(++id);
      answer((MethodCall call) async => null);
    });
    tearDown(() => answer(null));

    // The framework, without which none of this was needed.
    test('keeps the newest message alone by itself', () async {
      pushNumbers(3);
      expect(await takeKept(), <int>[2]);
    });

    // Fails without resize to 1,024, and without _buffered.
    test('keeps 1,024 messages once it was asked for', () async {
      BluetoothChannels.bufferRead(id);
      pushNumbers(1025);
      BluetoothChannels.bufferRead(id);
      final List<Object?> kept = await takeKept();
      expect(kept, hasLength(1024));
      expect(kept.first, 1);
      expect(kept.last, 1024);
    });

    // Fails without resize to 0, and without remove from _buffered.
    test('keeps nothing that is discarded, until it is asked again', () async {
      BluetoothChannels.bufferRead(id);
      pushNumbers(2);
      BluetoothChannels.discardRead(id);
      pushNumbers(2);
      expect(await takeKept(), isEmpty);
      BluetoothChannels.bufferRead(id);
      pushNumbers(2);
      expect(await takeKept(), <int>[0, 1]);
    });
  });

  test('tells an exception in a sentence', () {
    expect(
      const BluetoothException('ECONN', 'RFCOMM connect failed').toString(),
      'BluetoothException(ECONN): RFCOMM connect failed',
    );
  });
}
