import 'dart:async';

import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';
import 'package:lumso_bluetooth/testing.dart';

TestDefaultBinaryMessenger get _messenger =>
    TestDefaultBinaryMessengerBinding.instance.defaultBinaryMessenger;

/// A device's address.
const String scale = 'AA:BB:CC:DD:EE:FF';

/// Stands for the plug-in until the test ends.
FakeBluetoothPlugin fakePlugin() {
  final FakeBluetoothPlugin plugin =
      FakeBluetoothPlugin(_messenger.setMockMessageHandler);
  addTearDown(plugin.remove);
  return plugin;
}

/// Stands for the plug-in behind the method channel until the test ends.
/// Returns the calls, to which each further one is added.
List<MethodCall> mockMethods(
  FutureOr<Object?> Function(MethodCall call) answer,
) {
  final List<MethodCall> calls = <MethodCall>[];
  _messenger.setMockMethodCallHandler(
    BluetoothChannels.methods,
    (MethodCall call) async {
      calls.add(call);
      return await answer(call);
    },
  );
  addTearDown(removeMethods);
  return calls;
}

/// From now on nobody answers the method channel.
void removeMethods() {
  _messenger.setMockMethodCallHandler(BluetoothChannels.methods, null);
}

/// Stands for the plug-in behind an event channel until the test ends.
class MockStream {
  MockStream(
    EventChannel channel, {
    void Function(MockStreamHandlerEventSink events)? onListen,
  }) {
    _messenger.setMockStreamHandler(
      channel,
      MockStreamHandler.inline(
        onListen: (Object? arguments, MockStreamHandlerEventSink events) {
          listens++;
          onListen?.call(events);
          if (!_events.isCompleted) _events.complete(events);
        },
        onCancel: (Object? arguments) {
          cancels++;
          if (!_cancelled.isCompleted) _cancelled.complete();
        },
      ),
    );
    addTearDown(() => _messenger.setMockStreamHandler(channel, null));
  }

  final Completer<MockStreamHandlerEventSink> _events =
      Completer<MockStreamHandlerEventSink>();
  final Completer<void> _cancelled = Completer<void>();

  /// How often the channel was listened to, and how often that ended.
  int listens = 0;
  int cancels = 0;

  /// Sends on the channel; there once somebody listens.
  Future<MockStreamHandlerEventSink> get events => _events.future;

  /// Completes once the last listener has gone.
  Future<void> get cancelled => _cancelled.future;
}

/// Completes when everything that was sent has arrived.
Future<void> settle() => Future<void>.delayed(Duration.zero);

/// A device map as the plug-in sends it.
Map<String, Object?> deviceMap({
  String address = scale,
  String name = 'Scale',
  int isConnected = 0,
  int bondState = 10,
  int rssi = -60,
}) {
  return <String, Object?>{
    'address': address,
    'name': name,
    'type': 0,
    'isConnected': isConnected,
    'bondState': bondState,
    'rssi': rssi,
  };
}

/// Matches the [BluetoothException] with this code.
Matcher throwsCode(String code) => throwsA(
      isA<BluetoothException>().having(
        (BluetoothException error) => error.code,
        'code',
        code,
      ),
    );
