import 'dart:async';
import 'dart:convert';
import 'dart:math';
import 'dart:typed_data';

import 'channels.dart';
import 'exception.dart';

/// A byte stream to RFCOMM channel 1 of a device.
///
/// RFCOMM keeps no message boundaries: what one side writes at once can arrive
/// in pieces, and two messages in one piece. [lines] puts lines of text
/// together; anything else takes a framing of the application's own.
class BluetoothConnection {
  // The plug-in sends bytes whether or not anybody listens. The framework keeps
  // what overtook the answer to connect, and the controller what arrives before
  // the application's listener.
  BluetoothConnection._(this.id, this.address) {
    _subscription = BluetoothChannels.read(id)
        .receiveBroadcastStream()
        .cast<Uint8List>()
        .listen(_received.add, onError: _received.addError, onDone: _end);
  }

  /// Connects to channel 1 of the device at [address].
  ///
  /// Blocks until it is decided: since Flutter 3.39 all Dart code of the
  /// application, before it the window only. That takes milliseconds when the
  /// device accepts or refuses, and half a minute when it stays silent. Show
  /// first that something is going on.
  ///
  /// [received] has what the device sends from its first byte on, also what
  /// arrives before this completes, up to 1,024 pieces. Only the newest of
  /// those is kept where this class cannot expect the connection's id: at the
  /// first one after a `connect` of the application's own, or after a hot
  /// restart (see [closeForgotten]).
  ///
  /// Throws [BluetoothException]: [BluetoothException.unreachable] when the
  /// device refuses, does not answer, or has a connection to this channel
  /// already; [BluetoothException.invalid] without an adapter.
  static Future<BluetoothConnection> open(String address) async {
    _opening++;
    try {
      _makeRoom();
      final int? id = await BluetoothChannels.invoke<int>(
        'connect',
        <String, Object?>{'address': address},
      );
      if (id == null) {
        throw const BluetoothException(
          BluetoothException.unreachable,
          'connect gave no id',
        );
      }
      _firstId ??= id;
      _highestId = max(_highestId, id);
      return BluetoothConnection._(id, address);
    } finally {
      _opening--;
      _makeRoom();
    }
  }

  // An event can overtake the answer that tells its connection's id. The
  // plug-in counts ids up from 1, and a connect that fails uses none, so each
  // open under way gets one of the next.
  static void _makeRoom() {
    for (int next = 1; next <= _opening; next++) {
      BluetoothChannels.bufferRead(_highestId + next);
    }
  }

  /// Closes connections that nobody owns any more, and returns how many.
  ///
  /// A debug aid, for hot restart: Dart starts over and has forgotten its
  /// connections, while the plug-in lives on and keeps them open. A new one to
  /// the same device then fails, with "Device or resource busy" on standard
  /// error. Call this when the application starts, before the first [open]:
  ///
  /// ```dart
  /// WidgetsFlutterBinding.ensureInitialized();
  /// if (kDebugMode) await BluetoothConnection.closeForgotten();
  /// ```
  ///
  /// How it works: the plug-in counts ids up from 1 and uses none twice, so
  /// every id below the first that [open] got since Dart started belongs to an
  /// earlier time. All of those are closed. While it has got none, those up to
  /// [limit] are, which leaves any with a higher id open; this then ends early
  /// when [open] is called meanwhile. An id costs about 2 milliseconds since
  /// Flutter 3.39, before that one. Connections that the application opened
  /// with a `connect` of its own are closed, too.
  ///
  /// The first [open] afterwards expects the id that follows the last one
  /// closed here. When none was, or connections with higher ids had been closed
  /// before the restart, it expects the wrong one, with what [open] says of
  /// that.
  ///
  /// Throws [BluetoothException] with [BluetoothException.noPlugin] where there
  /// is no plug-in, as on another operating system.
  static Future<int> closeForgotten({int limit = 100}) async {
    int closed = 0;
    for (int id = 1; _isForgotten(id, limit); id++) {
      if (!await _disconnect(id)) continue;
      closed++;
      _highestId = max(_highestId, id);
      _makeRoom();
    }
    return closed;
  }

  // Requests reach the plug-in in their order: a disconnect that leaves while
  // no [open] is under way is there before any later connect gets an id.
  static bool _isForgotten(int id, int limit) {
    final int? firstId = _firstId;
    if (firstId != null) return id < firstId;
    return id <= limit && _opening == 0;
  }

  static Future<bool> _disconnect(int id) =>
      BluetoothChannels.request('disconnect', <String, Object?>{'id': id});

  static int _opening = 0;
  static int? _firstId;
  static int _highestId = 0;

  /// The plug-in's number of the connection, from 1, never used twice.
  final int id;

  /// The device's address, as it was given to [open].
  final String address;

  final StreamController<Uint8List> _received = StreamController<Uint8List>();
  final Completer<void> _done = Completer<void>();
  late final StreamSubscription<Uint8List> _subscription;
  Future<bool>? _closing;

  /// What the device sends, in pieces of 1 to 2,048 bytes.
  ///
  /// For one listener, at any time: what arrives before it, or while it pauses,
  /// is kept in memory, and nothing slows the device down. A listener that
  /// leaves closes nothing; what arrives then is lost. The stream ends when the
  /// device closes, when the link is lost, and after [close]; in the first two
  /// cases call [close] as well. It carries no errors: the plug-in sends none.
  Stream<Uint8List> get received => _received.stream;

  /// Completes, without an error, when the stream has ended: by the device, the
  /// link or [close].
  ///
  /// For those who do not own the one listener of [received], which may still
  /// have bytes to hand over then.
  Future<void> get done => _done.future;

  /// [received] as lines of text: UTF-8, ended by `\n`, `\r\n` or `\r`, which
  /// are left out. Bytes that are not UTF-8 become replacement characters. What
  /// follows the last line's end comes when the stream ends.
  ///
  /// Takes the one place for a listener of [received].
  Stream<String> get lines => received
      .cast<List<int>>()
      .transform(const Utf8Decoder(allowMalformed: true))
      .transform(const LineSplitter());

  /// Sends [bytes], the lowest eight bits of each number. True when all of them
  /// were taken; an empty list is, without a request.
  ///
  /// Blocks while the device does not take them: since Flutter 3.39 all Dart
  /// code of the application, before it the window only. A megabyte takes
  /// seconds; with a device that vanished it can be 30 seconds and more. False
  /// when the connection is broken or closed: call [close] then.
  Future<bool> write(List<int> bytes) async {
    if (bytes.isEmpty) return true;
    // Any other list is another type on the channel, which the plug-in refuses.
    final Uint8List list =
        bytes is Uint8List ? bytes : Uint8List.fromList(bytes);
    return BluetoothChannels.request(
      'write',
      <String, Object?>{'id': id, 'bytes': list},
    );
  }

  /// Sends [text] as UTF-8, as [write] does. Adds no line end.
  Future<bool> writeText(String text) => write(utf8.encode(text));

  /// Closes the connection and ends [received]. True when there was one to
  /// close, also after the device had closed its side.
  ///
  /// May be called again: that changes nothing and gives the same answer. A
  /// device may take about 20 milliseconds until it accepts the next
  /// connection.
  Future<bool> close() => _closing ??= _close();

  Future<bool> _close() async {
    // Its request goes out first, while the plug-in still has the channel, and
    // the answer means nothing here.
    unawaited(_subscription.cancel());
    BluetoothChannels.discardRead(id);
    try {
      return await _disconnect(id);
    } finally {
      // The plug-in sends no end of stream after a disconnect.
      _end();
    }
  }

  void _end() {
    if (_done.isCompleted) return;
    _done.complete();
    // The future completes when the application has heard of the end, so
    // perhaps never.
    unawaited(_received.close());
  }

  @override
  String toString() => 'BluetoothConnection($id, $address)';
}
