import 'dart:async';

import 'adapter_state.dart';
import 'channel_codec.dart';
import 'channels.dart';

/// The adapter that the plug-in found when the application started: the first
/// that the daemon listed. Without one, and without a daemon, there is none
/// until the application starts again.
///
/// Every object of this class is the same adapter. No request asks the daemon,
/// so none blocks.
class BluetoothAdapter {
  /// The adapter.
  const BluetoothAdapter();

  static final Stream<BluetoothAdapterState> _changes =
      BluetoothChannels.stateEvents.map(
    (Object? event) => BluetoothChannelCodec.decodeAdapterState(event as int?),
  );
  static final Stream<BluetoothAdapterState> _states =
      Stream<BluetoothAdapterState>.multi(_tellStates, isBroadcast: true)
          .distinct();

  // Listens first and asks then: an event can overtake the answer, and is the
  // newer of the two.
  static Future<void> _tellStates(
    MultiStreamController<BluetoothAdapterState> listener,
  ) async {
    bool isTold = false;
    final StreamSubscription<BluetoothAdapterState> changes = _changes.listen(
      (BluetoothAdapterState state) {
        isTold = true;
        listener.add(state);
      },
      onError: listener.addError,
    );
    // Gives no future: `first` would wait for it, in a widget test for ever.
    listener.onCancel = () => unawaited(changes.cancel());
    try {
      final BluetoothAdapterState present =
          await const BluetoothAdapter().getState();
      if (!isTold) listener.add(present);
    } catch (error, trace) {
      listener.addError(error, trace);
    }
  }

  /// Whether there is an adapter. Ask once: the answer does not change while
  /// the application runs.
  Future<bool> isAvailable() => BluetoothChannels.request('isAvailable');

  /// Whether the adapter is on; false also without one.
  Future<bool> isEnabled() => BluetoothChannels.request('isEnabled');

  /// The present state, [BluetoothAdapterState.off] also without an adapter.
  Future<BluetoothAdapterState> getState() async {
    final int? value = await BluetoothChannels.invoke<int>('getState');
    return BluetoothChannelCodec.decodeAdapterState(value);
  }

  /// The adapter's own address, such as `00:AA:01:00:00:01`; null without one.
  Future<String?> getAddress() => _text('getAddress');

  /// The name that the adapter had when the application started, not its alias;
  /// null without one.
  Future<String?> getName() => _text('getName');

  /// `Linux` and the kernel's build version.
  Future<String> getPlatformVersion() async =>
      await _text('getPlatformVersion') ?? '';

  /// The present state, then every change of it.
  ///
  /// A broadcast stream for any number of listeners. Each gets the present
  /// state first, [BluetoothAdapterState.off] also without an adapter, and no
  /// state twice in a row. What [getState] throws is an error of the stream.
  Stream<BluetoothAdapterState> get states => _states;

  Future<String?> _text(String method) async {
    final String? text = await BluetoothChannels.invoke<String>(method);
    return text == null || text.isEmpty ? null : text;
  }
}
