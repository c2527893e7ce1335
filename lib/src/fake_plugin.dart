import 'dart:async';
import 'dart:convert';
import 'dart:math';
import 'dart:typed_data';

import 'package:flutter/services.dart';

import 'adapter_state.dart';
import 'channel_codec.dart';
import 'channels.dart';
import 'device.dart';
import 'discovery_event.dart';
import 'exception.dart';

/// One request: the name of its channel, and what was asked there.
typedef FakeBluetoothRequest = ({String channel, MethodCall call});

/// Stands for the plug-in in a test: takes every request of the library, and
/// sends what the test tells it to.
///
/// ```dart
/// testWidgets('lists devices', (WidgetTester tester) async {
///   final FakeBluetoothPlugin plugin = FakeBluetoothPlugin(
///     tester.binding.defaultBinaryMessenger.setMockMessageHandler,
///   );
///   addTearDown(plugin.remove);
///   // ...
/// });
/// ```
///
/// It begins with an adapter that is on, and without devices. Requests are
/// answered in their order, each before the next is looked at; events go the
/// way that they take in an application, where the framework keeps one of a
/// channel until somebody listens. There is no timer in it: all happens in
/// microtasks of the zone that asks, so inside `testWidgets` no time has to
/// pass for it.
///
/// The library's streams outlive a test: cancel what was listened to before the
/// fake is removed. A widget that cancels in its `dispose` does. Inside
/// `testWidgets` do not wait for the cancelling: its future belongs to no zone
/// of the test.
class FakeBluetoothPlugin {
  /// Puts itself behind the plug-in's channels with the function given: the
  /// `setMockMessageHandler` of a test's `defaultBinaryMessenger`. There has to
  /// be a binding, as within `testWidgets`.
  FakeBluetoothPlugin(this._setMessageHandler) {
    _answer(
      BluetoothChannels.methods.name,
      BluetoothChannels.methods.codec,
      _answerMethod,
    );
    _answerListeners(BluetoothChannels.discovery);
    _answerListeners(BluetoothChannels.state, onListen: _sendState);
    _answerListeners(BluetoothChannels.debug);
  }

  final void Function(String channel, MessageHandler? handler)
      _setMessageHandler;

  /// Everything that was asked, in its order: the methods' calls, and `listen`
  /// and `cancel` on the event channels.
  final List<FakeBluetoothRequest> requests = <FakeBluetoothRequest>[];

  /// Runs before each request is answered, also before `listen` and `cancel`.
  ///
  /// While the future that it returns is not complete, this request and all
  /// behind it wait, as they do while the plug-in blocks; what the test sends
  /// goes out all the same. A [PlatformException] that it throws is the answer,
  /// and after a [MissingPluginException] there is none.
  Future<void>? Function(MethodCall call)? onRequest;

  /// What methods answer instead of what they would, by their names. Nothing
  /// else is done then.
  final Map<String, Object?> answers = <String, Object?>{};

  /// Whether there is an adapter. The plug-in decides that when the application
  /// starts.
  bool isAvailable = true;

  /// The adapter's address.
  String address = '00:AA:01:00:00:01';

  /// The adapter's name.
  String name = 'The adapter';

  /// What the prober was given last; null before.
  String? secret;

  /// What the daemon knows, by address; nothing else can be connected to. A
  /// change here is told to nobody; [report] tells.
  final Map<String, BluetoothDevice> devices = <String, BluetoothDevice>{};

  /// Addresses of [devices] that refuse connections.
  final Set<String> unreachable = <String>{};

  /// Runs while `connect` is being answered. What [FakeBluetoothConnection]
  /// sends there comes before the answer, as from a device that is fast.
  void Function(FakeBluetoothConnection connection)? onConnect;

  /// The connections that this plug-in made, in their order, closed ones
  /// included.
  final List<FakeBluetoothConnection> connections = <FakeBluetoothConnection>[];

  // The library reckons with ids that are never used twice, and lives as long
  // as the isolate.
  static int _lastId = 0;

  final Set<String> _channels = <String>{};
  final Set<String> _listenedTo = <String>{};
  BluetoothAdapterState _state = BluetoothAdapterState.on;
  bool _isDiscovering = false;
  bool _startedDiscovery = false;

  // Null while nothing is being answered: a future would tie the fake to the
  // zone that it was made in.
  Future<void>? _answered;

  /// Takes itself from the channels. A later request goes to the engine, which
  /// knows no plug-in, and whose reply does not arrive inside `testWidgets`:
  /// there let [onRequest] throw a [MissingPluginException].
  void remove() {
    for (final String channel in _channels) {
      _setMessageHandler(channel, null);
    }
    _channels.clear();
    _listenedTo.clear();
  }

  /// The calls of a method, in their order.
  List<MethodCall> callsOf(String method) => <MethodCall>[
        for (final FakeBluetoothRequest request in requests)
          if (request.channel == BluetoothChannels.methods.name &&
              request.call.method == method)
            request.call,
      ];

  /// Whether the application listens to [channel].
  bool isListenedTo(EventChannel channel) => _listenedTo.contains(channel.name);

  /// The adapter's state. A listener hears of each that is set. Off ends
  /// discovery and all connections.
  BluetoothAdapterState get state => _state;

  set state(BluetoothAdapterState state) {
    _state = state;
    if (state == BluetoothAdapterState.off) {
      _isDiscovering = false;
      for (final FakeBluetoothConnection connection in connections) {
        connection.end();
      }
    }
    _tellState();
  }

  /// Whether discovery runs. Set it for a discovery of another program's. It is
  /// a property of the adapter: each change makes the channel of the [state]
  /// tell that again.
  bool get isDiscovering => _isDiscovering;

  set isDiscovering(bool isDiscovering) {
    _isDiscovering = isDiscovering;
    _tellState();
  }

  /// Sends [event]. A [DeviceReport]'s device is among [devices] from now on,
  /// and is sent only while somebody listens; the prober's events always are.
  void report(DiscoveryEvent event) {
    if (event is DeviceReport) {
      devices[event.device.address] = event.device;
      if (!isListenedTo(BluetoothChannels.discovery)) return;
    }
    if (!isAvailable) return;
    _send(
      BluetoothChannels.discovery,
      BluetoothChannelCodec.encodeEvent(event),
    );
  }

  /// A connection to [address] that the application opened before it was
  /// started over, as a hot restart does: open, and known to the plug-in alone.
  FakeBluetoothConnection leaveOpen(String address) => _makeConnection(address);

  FakeBluetoothConnection _makeConnection(String address) {
    final FakeBluetoothConnection connection =
        FakeBluetoothConnection._(this, ++_lastId, address);
    connections.add(connection);
    _answerListeners(connection._channel, isThere: () => connection.isOpen);
    return connection;
  }

  void _answerListeners(
    EventChannel channel, {
    bool Function()? isThere,
    void Function()? onListen,
  }) {
    _answer(channel.name, channel.codec, (MethodCall call) {
      if (isThere?.call() == false) throw MissingPluginException();
      switch (call.method) {
        case 'listen':
          _listenedTo.add(channel.name);
          onListen?.call();
        case 'cancel':
          _listenedTo.remove(channel.name);
        default:
          throw MissingPluginException();
      }
      return null;
    });
  }

  void _answer(
    String channel,
    MethodCodec codec,
    Object? Function(MethodCall call) answer,
  ) {
    _channels.add(channel);
    _setMessageHandler(channel, (ByteData? message) async {
      final MethodCall call = codec.decodeMethodCall(message);
      requests.add((channel: channel, call: call));
      final Future<void>? previous = _answered;
      final Completer<void> done = Completer<void>();
      _answered = done.future;
      try {
        await previous;
        await onRequest?.call(call);
        return codec.encodeSuccessEnvelope(answer(call));
      } on PlatformException catch (error) {
        return codec.encodeErrorEnvelope(
          code: error.code,
          message: error.message,
          details: error.details,
        );
      } on MissingPluginException {
        return null;
      } finally {
        if (identical(_answered, done.future)) _answered = null;
        done.complete();
      }
    });
  }

  Object? _answerMethod(MethodCall call) {
    if (answers.containsKey(call.method)) return answers[call.method];
    if (BluetoothChannels.fixedAnswers.contains(call.method)) return false;
    final Object? arguments = call.arguments;
    final Map<Object?, Object?> map = arguments is Map<Object?, Object?>
        ? arguments
        : const <Object?, Object?>{};
    final BluetoothDevice? device =
        isAvailable ? devices[map['address']] : null;
    switch (BluetoothChannels.aliases[call.method] ?? call.method) {
      case 'isAvailable':
        return isAvailable;
      case 'isEnabled':
        return _isOn;
      case 'getState':
        return _stateValue;
      case 'getAddress':
        return isAvailable ? address : '';
      case 'getName':
        return isAvailable ? name : '';
      case 'getPlatformVersion':
        return 'Linux #1 SMP';
      case 'isDiscovering':
        return isAvailable && isDiscovering;
      case 'startDiscovery':
        return _startDiscovery();
      case 'cancelDiscovery':
        return _cancelDiscovery();
      case 'getDiscoveredDevices':
        return _maps(devices.values);
      case 'getBondedDevices':
        return _maps(
          devices.values.where((BluetoothDevice each) => each.isBonded),
        );
      case 'getBondState':
        return BluetoothChannelCodec.encodeBondState(
          device?.bondState ?? BluetoothBondState.notBonded,
        );
      case 'bondDevice':
        return _bond(device);
      case 'removeDeviceBond':
        devices.remove(device?.address);
        return isAvailable && map['address'] is String;
      case 'connect':
        return _connect(map['address']);
      case 'write':
        return _open(map['id'])?._take(map['bytes']) ?? false;
      case 'disconnect':
        return _open(map['id'])?._close() ?? false;
      case 'setAuthSecret':
        return _setSecret(map['secret']);
      default:
        throw MissingPluginException();
    }
  }

  bool get _isOn => isAvailable && _state == BluetoothAdapterState.on;

  int get _stateValue => BluetoothChannelCodec.encodeAdapterState(
        _isOn ? BluetoothAdapterState.on : BluetoothAdapterState.off,
      );

  List<Object?> _maps(Iterable<BluetoothDevice> listed) => <Object?>[
        if (isAvailable) ...listed.map(BluetoothChannelCodec.encodeDevice),
      ];

  bool _startDiscovery() {
    if (!_isOn) return false;
    if (!isDiscovering) isDiscovering = _startedDiscovery = true;
    return true;
  }

  bool _cancelDiscovery() {
    if (!isAvailable) return false;
    if (!_startedDiscovery) return true;
    // The daemon refuses to stop what has ended by itself.
    if (!isDiscovering) return false;
    isDiscovering = _startedDiscovery = false;
    return true;
  }

  bool _bond(BluetoothDevice? device) {
    if (device == null || device.isBonded || !_isOn) return false;
    report(
      DeviceReport(
        BluetoothDevice(
          address: device.address,
          name: device.name,
          isConnected: device.isConnected,
          bondState: BluetoothBondState.bonded,
          rssi: device.rssi,
        ),
      ),
    );
    return true;
  }

  int _connect(Object? address) {
    if (!isAvailable || address is! String) {
      throw PlatformException(
        code: BluetoothException.invalid,
        message: 'BT not initialized or address missing',
      );
    }
    // Channel 1 of a device takes one connection.
    final bool isBusy = connections.any(
      (FakeBluetoothConnection each) =>
          each.address == address && each.isOpen && !each._hasEnded,
    );
    if (!_isOn ||
        isBusy ||
        unreachable.contains(address) ||
        !devices.containsKey(address)) {
      throw PlatformException(
        code: BluetoothException.unreachable,
        message: 'RFCOMM connect failed',
      );
    }
    final FakeBluetoothConnection connection = _makeConnection(address);
    onConnect?.call(connection);
    return connection.id;
  }

  FakeBluetoothConnection? _open(Object? id) {
    for (final FakeBluetoothConnection connection in connections) {
      if (connection.id == id && connection.isOpen) return connection;
    }
    return null;
  }

  Object? _setSecret(Object? secret) {
    if (secret is! String) {
      throw PlatformException(
        code: BluetoothException.invalid,
        message: 'secret missing',
      );
    }
    this.secret = secret;
    return null;
  }

  void _tellState() {
    if (isListenedTo(BluetoothChannels.state)) _sendState();
  }

  void _sendState() {
    if (isAvailable) _send(BluetoothChannels.state, _stateValue);
  }

  void _send(EventChannel channel, Object? event) =>
      _push(channel, channel.codec.encodeSuccessEnvelope(event));

  // The engine's own way in: with a listener to it, without to the buffer.
  void _push(EventChannel channel, ByteData? message) =>
      ServicesBinding.instance.channelBuffers
          .push(channel.name, message, (ByteData? reply) {});
}

/// A connection of a [FakeBluetoothPlugin], held at the device's end.
class FakeBluetoothConnection {
  FakeBluetoothConnection._(this._plugin, this.id, this.address);

  final FakeBluetoothPlugin _plugin;

  /// The plug-in's number of the connection. It counts up over all fakes of an
  /// isolate.
  final int id;

  /// The device's address.
  final String address;

  /// Runs when the application writes, before it gets its answer. A device that
  /// replies does so here.
  void Function(Uint8List bytes)? onWrite;

  final BytesBuilder _received = BytesBuilder();
  bool _isOpen = true;
  bool _hasEnded = false;

  EventChannel get _channel => BluetoothChannels.read(id);

  /// Whether the application has not closed the connection.
  bool get isOpen => _isOpen;

  /// All bytes that the application has written.
  Uint8List get received => _received.toBytes();

  /// [received] as UTF-8.
  String get receivedText => utf8.decode(received, allowMalformed: true);

  /// Sends [bytes] to the application, in pieces of at most 2,048. Nothing is
  /// sent once either side has closed.
  void send(List<int> bytes) {
    if (!_isOpen || _hasEnded) return;
    for (int start = 0; start < bytes.length; start += 2048) {
      _plugin._send(
        _channel,
        Uint8List.fromList(
          bytes.sublist(start, min(start + 2048, bytes.length)),
        ),
      );
    }
  }

  /// Sends [text] as UTF-8. Adds no line end.
  void sendText(String text) => send(utf8.encode(text));

  /// Closes the device's end, or loses the link: the application's stream ends,
  /// and it can write no more. Once only.
  void end() {
    if (!_isOpen || _hasEnded) return;
    _hasEnded = true;
    _plugin._push(_channel, null);
  }

  bool _take(Object? bytes) {
    if (_hasEnded || bytes is! Uint8List || bytes.isEmpty) return false;
    _received.add(bytes);
    onWrite?.call(bytes);
    return true;
  }

  bool _close() {
    _isOpen = false;
    return true;
  }
}
