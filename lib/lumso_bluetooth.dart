/// Bluetooth Classic for Flutter applications on Linux: a layer above the
/// plug-in's channels.
///
/// - [BluetoothAdapter]: is there an adapter, is it on.
/// - [BluetoothDiscovery]: finds devices, lists known and bonded ones, and
///   reports each change as a [DiscoveryEvent].
/// - [BluetoothBonding]: pairs without a dialogue, and removes bonds.
/// - [BluetoothConnection]: a byte stream to channel 1 of a device.
/// - [BluetoothProber]: asks devices of certain names for their signal
///   strength, in the background.
///
/// The plug-in answers one request after the other on the platform thread, and
/// the window stands still until a request is answered. Since Flutter 3.39 Dart
/// runs on that thread, too: until then no Dart code of the application runs,
/// no timer, no animation, no answer of another plug-in. The requests that take
/// long are [BluetoothConnection.open], [BluetoothConnection.write] and
/// [BluetoothBonding.bond]; each tells for how long. Every other one that asks
/// the Bluetooth daemon takes milliseconds, and up to 75 seconds with a daemon
/// that hangs.
///
/// All of it is for the root isolate, which alone can receive on channels, and
/// for the time after `WidgetsFlutterBinding.ensureInitialized()`, which
/// `runApp` calls.
///
/// A request that fails answers false, null, an off state or an empty list, and
/// what the plug-in knows of the reason is on standard error. Only
/// [BluetoothConnection.open] throws a [BluetoothException] instead. Where
/// there is no plug-in, as on another operating system, every request throws
/// one, with the code [BluetoothException.noPlugin], the framework reports an
/// error for each channel that is listened to, and streams that begin with an
/// answer give the exception as an error.
///
/// `channels.dart` has the channels themselves, `testing.dart` a plug-in for
/// tests.
library;

export 'src/adapter.dart';
export 'src/adapter_state.dart';
export 'src/bonding.dart';
export 'src/connection.dart';
export 'src/device.dart';
export 'src/discovery.dart';
export 'src/discovery_event.dart';
export 'src/exception.dart';
export 'src/prober.dart';
