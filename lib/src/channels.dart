import 'dart:async';

import 'package:flutter/services.dart';

import 'exception.dart';

/// The plug-in's channels themselves.
///
/// The other classes say the same in Dart's types. What is here is for code
/// beside them, for what they leave out, and for tests.
abstract final class BluetoothChannels {
  /// Takes every request; see [invoke].
  static const MethodChannel methods = MethodChannel('lumso_bluetooth/methods');

  /// Carries devices, readings and losses. A channel has one receiver, and a
  /// second stream takes the events away from the first: listen to
  /// [discoveryEvents].
  static const EventChannel discovery =
      EventChannel('lumso_bluetooth/discovery');

  /// Carries the adapter's state; listen to [stateEvents].
  static const EventChannel state = EventChannel('lumso_bluetooth/state');

  /// Accepts a listener and carries nothing; listen to [debugEvents].
  static const EventChannel debug = EventChannel('lumso_bluetooth/debug');

  /// The one stream of [discovery], for any number of listeners. What came
  /// while nobody listened is lost.
  static final Stream<Object?> discoveryEvents = _share(discovery);

  /// The one stream of [state], for any number of listeners. What came while
  /// nobody listened is lost; the plug-in tells the state to the first.
  static final Stream<Object?> stateEvents = _share(state);

  /// The one stream of [debug]. No event ever comes.
  static final Stream<Object?> debugEvents = _share(debug);

  /// Carries what arrives on the connection [id], from 1. A
  /// `BluetoothConnection` listens to it from its beginning on.
  static EventChannel read(int id) => EventChannel('lumso_bluetooth/read/$id');

  /// Lets the framework keep 1,024 messages of [read] for [id] until somebody
  /// listens; by default it keeps the newest alone.
  ///
  /// What a device sends can arrive before the answer to `connect`. So call
  /// this before the request, for the id that it can get: the one that follows
  /// the highest so far. `BluetoothConnection.open` does. Nothing happens when
  /// it is called again for an id.
  static void bufferRead(int id) {
    if (!_buffered.add(id)) return;
    // A new name takes room for all at once and for good, one that grows later
    // takes what it needs. The first step would lose what is kept already.
    ServicesBinding.instance.channelBuffers
      ..resize(read(id).name, 1)
      ..resize(read(id).name, 1024);
  }

  /// Lets the framework keep nothing of [read] for [id], and print nothing
  /// about that. For a connection that is being closed.
  static void discardRead(int id) {
    ServicesBinding.instance.channelBuffers
      ..resize(read(id).name, 0)
      ..allowOverflow(read(id).name, true);
    _buffered.remove(id);
  }

  static final Set<int> _buffered = <int>{};

  /// Methods that always answer false, whatever the arguments: they belong to
  /// the system's settings. Other systems' applications know them.
  static const List<String> fixedAnswers = <String>[
    'requestEnable',
    'requestDisable',
    'openSettings',
    'isDiscoverable',
    'requestDiscoverable',
    'setName',
    'pairingRequestHandlingEnable',
    'pairingRequestHandlingDisable',
  ];

  /// Second names of methods, with the first.
  static const Map<String, String> aliases = <String, String>{
    'isOn': 'isEnabled',
    'getDeviceBondState': 'getBondState',
  };

  /// Calls [method] and returns its answer, null when that is null.
  ///
  /// [T] is the answer's type: `bool`, `int`, `String` or `List<Object?>`; any
  /// other answer is a [TypeError]. Blocks as long as the method takes. Throws
  /// [BluetoothException] with the code of an error answer, or with
  /// [BluetoothException.noPlugin] when the method is unknown or nobody
  /// answers.
  static Future<T?> invoke<T>(
    String method, [
    Map<String, Object?>? arguments,
  ]) async {
    try {
      return await methods.invokeMethod<T>(method, arguments);
    } on PlatformException catch (error) {
      throw BluetoothException(error.code, error.message ?? '');
    } on MissingPluginException catch (error) {
      throw BluetoothException(
        BluetoothException.noPlugin,
        error.message ?? 'no plug-in',
      );
    }
  }

  /// Calls a [method] that answers yes or no, as [invoke] does; false when the
  /// answer is null.
  static Future<bool> request(
    String method, [
    Map<String, Object?>? arguments,
  ]) async {
    final bool? answer = await invoke<bool>(method, arguments);
    return answer ?? false;
  }

  // Each first listener is the channel's receiver anew. An end of stream, which
  // the plug-in does not send on these channels, is no end for the listeners.
  static Stream<Object?> _share(EventChannel channel) {
    late StreamSubscription<Object?> receiver;
    final StreamController<Object?> events =
        StreamController<Object?>.broadcast(sync: true);
    events
      ..onListen = () {
        // The framework keeps a message that comes while nobody listens, for
        // as long as that lasts. Empty the buffer, and give it its size again.
        ServicesBinding.instance.channelBuffers
          ..resize(channel.name, 0)
          ..resize(channel.name, 1);
        receiver = channel
            .receiveBroadcastStream()
            .listen(events.add, onError: events.addError);
      }
      ..onCancel = () => receiver.cancel();
    return events.stream;
  }
}
