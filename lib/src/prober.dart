import 'channels.dart';
import 'discovery.dart';
import 'discovery_event.dart';

/// The background prober.
///
/// Once it has a secret it asks devices for their signal strength, in cycles
/// with a pause of half a minute: each known device whose name begins with
/// `VELKAN-`, `VELK2N-`, `DRU-Palent`, `DRU-KX` or `DRU-Ostavel` and to which
/// the application has no connection. What it finds out is also among
/// [BluetoothDiscovery.events].
class BluetoothProber {
  /// The prober.
  const BluetoothProber();

  /// Sets the secret that the prober shows to devices, and starts the prober
  /// with the first. It runs until the application ends. Another secret counts
  /// from the next cycle on; with an empty one nothing is probed. Does not
  /// block, and takes a secret without an adapter, too.
  Future<void> setSecret(String secret) => BluetoothChannels.invoke<Object?>(
        'setAuthSecret',
        <String, Object?>{'secret': secret},
      );

  /// The devices' latest readings in dBm by address: a new map after each
  /// reading and each loss, which takes the device out of it.
  ///
  /// Another stream each time, for one listener; it begins with an empty map.
  /// The maps cannot be changed.
  Stream<Map<String, int>> get readings {
    final Map<String, int> latest = <String, int>{};
    return const BluetoothDiscovery().events.expand((DiscoveryEvent event) {
      if (event is SignalReading) latest[event.address] = event.rssi;
      if (event is DeviceLoss) latest.remove(event.address);
      return <Map<String, int>>[
        if (event is! DeviceReport) Map<String, int>.unmodifiable(latest),
      ];
    });
  }
}
