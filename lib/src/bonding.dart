import 'channel_codec.dart';
import 'channels.dart';
import 'device.dart';

/// Bonding (pairing) with devices.
///
/// The plug-in's agent asks nobody: it accepts confirmations and
/// authorizations, and rejects a request for a PIN code or a passkey. A device
/// that wants one is paired once with the desktop's own dialogue.
///
/// Every request blocks until the daemon has answered, all but [bond] mostly
/// for milliseconds.
class BluetoothBonding {
  /// The adapter's bonds.
  const BluetoothBonding();

  /// The bond state of the device at [address];
  /// [BluetoothBondState.notBonded] also for a device that the daemon does not
  /// know, and without an adapter.
  Future<BluetoothBondState> getBondState(String address) async {
    final int? value = await BluetoothChannels.invoke<int>(
      'getBondState',
      <String, Object?>{'address': address},
    );
    return BluetoothChannelCodec.decodeBondState(value);
  }

  /// Whether the device at [address] is bonded.
  Future<bool> isBonded(String address) async =>
      await getBondState(address) == BluetoothBondState.bonded;

  /// Pairs with the device at [address]; true when it is paired now.
  ///
  /// Blocks until the pairing has ended, for up to a minute: since Flutter 3.39
  /// all Dart code of the application, before it the window only. Show first
  /// that something is going on. False when the device is bonded already, when
  /// the daemon has not seen it lately (it forgets a device about 30 seconds
  /// after its last sign: discover it again), when it refuses or does not
  /// answer, and without an adapter.
  Future<bool> bond(String address) => BluetoothChannels.request(
        'bondDevice',
        <String, Object?>{'address': address},
      );

  /// Removes the bond with the device at [address], and what the daemon knows
  /// of it; true also when it knew nothing, and when it does not answer. False
  /// when it refuses, and without an adapter.
  Future<bool> removeBond(String address) => BluetoothChannels.request(
        'removeDeviceBond',
        <String, Object?>{'address': address},
      );
}
