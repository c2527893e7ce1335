import 'dart:async';

import 'package:flutter/foundation.dart';
import 'package:flutter/services.dart';
import 'package:flutter_test/flutter_test.dart';
import 'package:lumso_bluetooth/channels.dart';
import 'package:lumso_bluetooth/lumso_bluetooth.dart';
import 'package:lumso_bluetooth/testing.dart';

/// Two devices' addresses.
const String scale = 'AA:BB:CC:DD:EE:FF';
const String thermometer = '11:22:33:44:55:66';

/// Stands for the plug-in until the test ends.
///
/// [onAnswer] runs when the answer to a method has left: an event that is sent
/// there overtakes it. The answer arrives when the result is complete.
FakeBluetoothPlugin fakePlugin({
  FutureOr<void> Function(MethodCall call)? onAnswer,
}) {
  final TestDefaultBinaryMessenger messenger =
      TestDefaultBinaryMessengerBinding.instance.defaultBinaryMessenger;
  final FakeBluetoothPlugin plugin = FakeBluetoothPlugin(
    (String channel, MessageHandler? handler) {
      if (handler == null || channel != BluetoothChannels.methods.name) {
        messenger.setMockMessageHandler(channel, handler);
        return;
      }
      messenger.setMockMessageHandler(channel, (ByteData? message) async {
        final ByteData? answer = await handler(message);
        await onAnswer?.call(
          BluetoothChannels.methods.codec.decodeMethodCall(message),
        );
        return answer;
      });
    },
  );
  addTearDown(plugin.remove);
  return plugin;
}

/// Nobody answers the requests to [plugin] any more.
void disappear(FakeBluetoothPlugin plugin) {
  plugin.onRequest = (MethodCall call) => throw MissingPluginException();
}

/// The names of the methods that were called, in their order.
List<String> methodsOf(FakeBluetoothPlugin plugin) => <String>[
      for (final FakeBluetoothRequest request in plugin.requests)
        if (request.channel == BluetoothChannels.methods.name)
          request.call.method,
    ];

/// What [channel] was asked, in its order: `listen` and `cancel`.
List<String> asksOf(FakeBluetoothPlugin plugin, EventChannel channel) =>
    <String>[
      for (final FakeBluetoothRequest request in plugin.requests)
        if (request.channel == channel.name) request.call.method,
    ];

/// Sends what the plug-in does not, the way that the engine does: kept for a
/// listener, or lost, as the framework's buffers say.
void pushMessage(EventChannel channel, ByteData? message) {
  ServicesBinding.instance.channelBuffers
      .push(channel.name, message, (ByteData? reply) {});
}

/// Sends [event] with [pushMessage].
void pushEvent(EventChannel channel, Object? event) =>
    pushMessage(channel, channel.codec.encodeSuccessEnvelope(event));

/// Sends an error event, one that the library cannot read, and one that the
/// framework cannot. The last is reported: see [takeReports].
void pushNonsense(EventChannel channel, Object? unreadable) {
  pushMessage(channel, channel.codec.encodeErrorEnvelope(code: 'EIO'));
  pushEvent(channel, unreadable);
  pushMessage(channel, ByteData(0));
}

/// Matches what a listener hears of [pushNonsense].
final List<Matcher> nonsense = <Matcher>[
  isA<PlatformException>(),
  isA<TypeError>(),
];

/// What the framework reports until the test ends, in place of printing it.
List<FlutterErrorDetails> takeReports() {
  final List<FlutterErrorDetails> reports = <FlutterErrorDetails>[];
  final FlutterExceptionHandler? previous = FlutterError.onError;
  FlutterError.onError = reports.add;
  addTearDown(() => FlutterError.onError = previous);
  return reports;
}

/// Completes when everything that was sent has arrived.
Future<void> settle() => Future<void>.delayed(Duration.zero);

/// Matches the [BluetoothException] with this code.
Matcher throwsCode(String code) => throwsA(hasCode(code));

/// Matches the [BluetoothException] with this code.
Matcher hasCode(String code) => isA<BluetoothException>().having(
      (BluetoothException error) => error.code,
      'code',
      code,
    );
