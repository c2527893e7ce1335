import 'channel_codec.dart';
import 'channels.dart';
import 'device.dart';
import 'discovery_event.dart';

/// Finding devices, and hearing of those that change.
///
/// Every object of this class is the same discovery. Listening starts no
/// discovery and repeats nothing. So listen to [events] or [devices] first, ask
/// for [knownDevices] then, and [start] last. Every request but [isDiscovering]
/// blocks until the daemon has answered, mostly for milliseconds.
class BluetoothDiscovery {
  /// The discovery.
  const BluetoothDiscovery();

  static final Stream<DiscoveryEvent> _events = BluetoothChannels.discovery
      .receiveBroadcastStream()
      .expand((Object? message) {
    final DiscoveryEvent? event = message is Map<Object?, Object?>
        ? BluetoothChannelCodec.decodeEvent(message)
        : null;
    return <DiscoveryEvent>[if (event != null) event];
  });
  static final Stream<BluetoothDevice> _reported =
      _events.expand((DiscoveryEvent event) => <BluetoothDevice>[
            if (event is DeviceReport) event.device,
          ]);

  /// Devices of all adapters as they appear and change, with discovery on or
  /// off, and what the prober finds out.
  ///
  /// A broadcast stream for any number of listeners. What happens while nobody
  /// listens is lost; only the prober's newest event is kept for the next
  /// listener. Kinds of event that this version does not know are left out.
  Stream<DiscoveryEvent> get events => _events;

  /// The devices of the [DeviceReport]s among [events].
  Stream<BluetoothDevice> get devices => _reported;

  /// Whether the adapter looks for devices, whoever told it to. Does not block.
  Future<bool> isDiscovering() => BluetoothChannels.request('isDiscovering');

  /// Starts discovery; true when it runs now or ran before. It goes on until
  /// [cancel], and costs power and bandwidth. False without an adapter, and
  /// when the daemon refuses, as while the adapter is off.
  Future<bool> start() => BluetoothChannels.request('startDiscovery');

  /// Stops a discovery that this application started, and leaves any other
  /// alone; true in both cases. False without an adapter, and when the daemon
  /// refuses.
  Future<bool> cancel() => BluetoothChannels.request('cancelDiscovery');

  /// Every device that the daemon knows, found just now or earlier, of all
  /// adapters. Empty without an adapter.
  Future<List<BluetoothDevice>> knownDevices() =>
      _devices('getDiscoveredDevices');

  /// Those of [knownDevices] that are bonded.
  Future<List<BluetoothDevice>> bondedDevices() => _devices('getBondedDevices');

  Future<List<BluetoothDevice>> _devices(String method) async {
    final List<Object?> maps =
        await BluetoothChannels.invoke<List<Object?>>(method) ??
            const <Object?>[];
    return maps
        .cast<Map<Object?, Object?>>()
        .map(BluetoothChannelCodec.decodeDevice)
        .toList();
  }
}
