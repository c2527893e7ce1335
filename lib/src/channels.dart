import 'package:flutter/services.dart';

import 'exception.dart';

/// The plug-in's channels themselves.
///
/// The other classes say the same in Dart's types. What is here is for tests,
/// which put mock handlers behind the channels, and for what those classes
/// leave out.
abstract final class BluetoothChannels {
  /// Takes every request; see [invoke].
  static const MethodChannel methods = MethodChannel('lumso_bluetooth/methods');

  /// Carries devices, readings and losses. Do not listen to it beside
  /// `BluetoothDiscovery.events`: a channel has one receiver, and a second
  /// stream takes the events away from the first.
  static const EventChannel discovery =
      EventChannel('lumso_bluetooth/discovery');

  /// Carries the adapter's state. Do not listen to it beside
  /// `BluetoothAdapter.states`, for the same reason.
  static const EventChannel state = EventChannel('lumso_bluetooth/state');

  /// Accepts a listener and carries nothing; see [debugEvents].
  static const EventChannel debug = EventChannel('lumso_bluetooth/debug');

  /// The one stream of [debug]. No event ever comes.
  static final Stream<Object?> debugEvents = debug.receiveBroadcastStream();

  /// Carries what arrives on the connection [id]. A `BluetoothConnection`
  /// listens to it from its beginning on.
  static EventChannel read(int id) => EventChannel('lumso_bluetooth/read/$id');

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
}
