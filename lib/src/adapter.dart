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

  static final Stream<BluetoothAdapterState> _states = BluetoothChannels.state
      .receiveBroadcastStream()
      .map(
        (Object? event) =>
            BluetoothChannelCodec.decodeAdapterState(event as int?),
      )
      .distinct();

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

  /// Every change of the state.
  ///
  /// A broadcast stream for any number of listeners. While nobody else listens,
  /// a listener gets the present state first; a later one gets the next change
  /// and asks [getState] for the present. Nothing comes without an adapter.
  Stream<BluetoothAdapterState> get states => _states;

  Future<String?> _text(String method) async {
    final String? text = await BluetoothChannels.invoke<String>(method);
    return text == null || text.isEmpty ? null : text;
  }
}
